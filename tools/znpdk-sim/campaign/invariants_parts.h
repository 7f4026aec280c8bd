/* Inside the invariant checks: what a check sees of the machine and of the
 * step, the state kept between steps, and the checks themselves. */
#ifndef ZNPDK_SIM_TOOL_INVARIANTS_PARTS_H
#define ZNPDK_SIM_TOOL_INVARIANTS_PARTS_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "campaign/invariants.h"
#include "run/runner.h"
#include "znpdk_sim/sim.h"
#include "znpdklib_types.h"

namespace zcmd {
namespace inv {

constexpr int kInstances = 18;
constexpr int kChassis = 17;
constexpr int kPsuRedundancy = 0x81;
constexpr int kFanRedundancy = 0x82;

inline size_t key(int inst, int num)
{
    return static_cast<size_t>(inst) * 256 + static_cast<size_t>(num);
}

/* The machine as the checks see it after a step. */
struct View {
    std::vector<uint8_t> present = std::vector<uint8_t>(kInstances * 256, 0);
    std::vector<uint16_t> reading = std::vector<uint16_t>(kInstances * 256, 0);
    std::vector<uint8_t> flags = std::vector<uint8_t>(kInstances * 256, 0);
    std::vector<uint8_t> level = std::vector<uint8_t>(kInstances * 256, 0);
    std::vector<uint8_t> file; /* the sensor save file */
    current_system_info_t sys{};
    setup_system_info_t setup{};

    uint16_t state(int inst, int num) const { return reading[key(inst, num)] & 0x7FFF; }
    /* The save file's entry of a sensor: reading, flags, level (0 past the file's end). */
    uint32_t saved(int inst, int num) const;
    /* The IPMI stack's state in the same form. */
    uint32_t held(int inst, int num) const;
};
View look();

/* What a step did, as the checks need it. */
struct Facts {
    const Step* step = nullptr;
    std::vector<const Step*> calls; /* the calls it ran: itself, its parts, a kill's step */
    bool plain = false;             /* one call that ran to its end, its result known */
    bool killed = false;
    bool reboot = false;        /* BMC reboot or AC power cycle */
    bool outside = false;       /* sensor states set outside the library (sensor, reset_sensors, ...) */
    bool reset = false;         /* reset_sensors */
    bool records = false;       /* components or records changed by the story */
    bool background = false;    /* library threads of the runner were or are running */
    bool threads_now = false;   /* ... and still are: the machine is in flux */
    std::set<int> save_failed;  /* instances with a failed save-area write */
    std::set<int> mutex_failed; /* instances whose sensor mutex failed */
    int sem_errors = 0;         /* failed save-area semaphore waits */
    std::vector<zsim::RasLog> ras;
    std::vector<std::pair<int, SELEventRecord_T>> sel;
    std::vector<zsim::TraceLine> traces;
    uint32_t t0 = 0; /* the step's start and end, virtual seconds since the epoch */
    uint32_t t1 = 0;

    /* The calls of one function. */
    std::vector<const Step*> calls_of(const char* function) const;
    bool has_call(const char* function) const { return !calls_of(function).empty(); }
    /* The single call of a plain step to `function`, or null. */
    const Step* plain_call(const char* function) const;
    /* The processes whose calls of the step name a function containing `part`. */
    size_t callers(const char* part = "") const;
    /* Whether the library wrote a trace line with that id in the step. */
    bool traced(uint32_t id) const;
};

/* An argument of a call as the C type int takes it. */
int arg(const Step* call, size_t i);
/* A call step's integer result (-1000 when it has none). */
int ret_of(const StepReport& r);

/* Failures of one invariant in one step: the first few in full, the rest counted. */
class Violations {
  public:
    Violations(StepReport& r, const char* name) : r_(r), name_(name) {}
    ~Violations();
    Violations(const Violations&) = delete;
    Violations& operator=(const Violations&) = delete;
    void add(const std::string& seen, const std::string& expected);

  private:
    StepReport& r_;
    const char* name_;
    int count_ = 0;
};

/* "17/0x81 PSU Redundancy". */
std::string sensor_text(int inst, int num);
std::string word(uint16_t w);

class Checks : public RunObserver {
  public:
    Checks(const Scenario& s, RunObserver* next);
    void after_setup(Runner& run, StepReport& setup) override;
    void after_step(Runner& run, const Step& st, StepReport& r) override;
    void after_run(Runner& run) override;
    void after_end(Runner& run, StepReport& end) override;
    std::string hold(int seconds, bool until_client) override;
    bool stopping() const override;

  private:
    Facts gather(Runner& run, const Step& st, const StepReport& r);
    void take_marks();
    /* Marks the sensors (of one instance, or all) that the step changed. */
    void mark_changed(const View& v, std::vector<uint8_t>& marks, int inst = -1) const;

    /* Each check returns 1 when it judged the step, 0 when nothing was there to judge.
     * invariants_sensors.cpp */
    int exclusive_state(const Facts& f, const View& v, StepReport& r, bool all = false);
    int save_file(const Facts& f, const View& v, StepReport& r);
    int recovery(const Facts& f, const View& v, StepReport& r);
    int init_state(const Facts& f, const View& v, StepReport& r);
    /* invariants_judge.cpp */
    int psu_verdict(const Facts& f, const View& v, StepReport& r);
    int fan_verdict(const Facts& f, const View& v, StepReport& r);
    int full_speed(const Facts& f, const View& v, StepReport& r);
    /* invariants_logs.cpp */
    int log_cause(const Facts& f, StepReport& r);
    int log_once(const Facts& f, const View& v, StepReport& r);
    int locks(const Facts& f, StepReport& r);
    int bounded_step(const Facts& f, StepReport& r);

    const Scenario& s_;
    RunObserver* next_;
    View prev_;                          /* the machine after the step before */
    std::vector<uint8_t> dirty_;         /* save-file: entries that may differ, and why not yet */
    std::vector<uint8_t> blank_ok_;      /* exclusive-state: may hold no state */
    std::vector<uint8_t> story_set_;     /* exclusive-state: left so by a set of the story's own */
    bool fans_stale_ = false;            /* full-speed: the fans may not follow the reasons */
    std::map<std::string, bool> logged_; /* log-once: logged, and the sensor still shows it */
    bool records_changed_ = false;       /* init-state: the story changed component records */
    bool threads_ = false;               /* library threads of the runner running after the step before */
    size_t ras_mark_ = 0;
    size_t trace_mark_ = 0;
    size_t violations_mark_ = 0;
    std::vector<size_t> sel_mark_ = std::vector<size_t>(kInstances, 0);
};

} // namespace inv
} // namespace zcmd

#endif
