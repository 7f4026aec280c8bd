/* The running scenario: the simulated machine seen by the steps, the
 * expectations and the printer. */
#ifndef ZNPDK_SIM_TOOL_RUNNER_H
#define ZNPDK_SIM_TOOL_RUNNER_H

#include <cstdint>
#include <string>
#include <vector>

#include "run/processes.h"
#include "scenario/scenario.h"

namespace zcmd {

/* What the machine looked like, for reporting what changed. */
struct Snapshot {
    std::vector<uint16_t> reading; /* 18 x 256, 0xFFFF-free: `present` says which exist */
    std::vector<uint8_t> present;
    uint64_t fanfull_reason = 0;
    uint8_t fan_check_phase = 0;
    int alarm_led = 0;
};

/* Where the logs stood at some moment. */
struct Marks {
    std::vector<size_t> sel = std::vector<size_t>(18, 0);
    size_t ras = 0;
    size_t traces = 0;
    size_t haps = 0;
    size_t regs = 0;
};

/* Watches a run from outside, as the IPMI server does: it sees the machine
 * after the set-up and after each step, and serves hold steps. */
class RunObserver {
  public:
    virtual ~RunObserver() = default;
    virtual void after_setup(Runner& run, StepReport& setup) = 0;
    virtual void after_step(Runner& run, StepReport& step) = 0;
    /* After the last step, before the named processes end. */
    virtual void after_run(Runner& run) = 0;
    /* A hold step: real seconds (0: no limit), or until a client came and
     * went quiet; returns what happened, for the report. */
    virtual std::string hold(int seconds, bool until_client) = 0;
    /* The person asked to stop: the remaining steps are not run. */
    virtual bool stopping() const = 0;
};

class Runner {
  public:
    Runner(const Scenario& s, const Options& o);

    /* Seconds since the scenario started (virtual clock). */
    uint32_t now() const;
    uint32_t t0() const { return t0_; }
    const Options& options() const { return opts_; }
    Processes& processes() { return procs_; }

    /* Lists produced since the current step began, or since the start. */
    std::vector<json> sel_items(int inst, bool since_start) const;
    std::vector<json> ras_items(bool since_start) const;
    std::vector<json> trace_items(bool since_start) const;
    std::vector<json> hap_items(bool since_start) const;
    std::vector<json> reg_items(bool writes, bool since_start) const;

    /* The last call's result (for "ret" and "out"). */
    bool has_call = false;
    json last_ret;
    json last_out;

    void fail(StepReport& r, const std::string& where, const std::string& what) const;
    int run(const Scenario& s);

  private:
    StepReport run_setup(const Scenario& s);
    StepReport run_end();
    void run_step(const Step& st, StepReport& r, bool quiet);
    Marks marks_now() const;
    Snapshot snapshot() const;
    void diff(const Snapshot& before, const Snapshot& after, StepReport& r) const;
    void collect_error_lines(StepReport& r) const;
    void collect_logs(StepReport& r) const;

    const Options& opts_;
    Processes procs_;
    uint32_t t0_;
    Marks start_;
    Marks step_;
};

/* Component object id of a path ("/SYSTEM#0" may be left out), or -1. */
int component_id(const std::string& path);
std::string full_path(const std::string& path);
/* Short description of an instance: "17 (chassis)", "5 (node 4)". */
std::string instance_name(int inst);

} // namespace zcmd

#endif
