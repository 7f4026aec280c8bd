/* Named processes of a scenario: each a real child process with its own
 * library state, sharing the simulated machine with the runner. */
#ifndef ZNPDK_SIM_TOOL_PROCESSES_H
#define ZNPDK_SIM_TOOL_PROCESSES_H

#include <sys/types.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ipmi_stack.h"

#include "scenario/scenario.h"

namespace zcmd {

class Runner;

/* The IPMI stack's sensor records of a process, by instance * 256 + number. */
using SensorTable = std::vector<std::optional<SensorInfo_T>>;

class Processes {
  public:
    Processes() = default;
    Processes(const Processes&) = delete;
    Processes& operator=(const Processes&) = delete;
    ~Processes();

    /* Starts one child per name before the library is used in this
     * process, so that each begins with a library of its own. */
    void start(const std::vector<std::string>& names, const Scenario& s, Runner& run);
    /* Runs a step's action in its process: the IPMI stack's sensor states,
     * the PSU controller image and the clock go with it and come back with
     * the SEL records, RAS logs and trace lines it made. */
    void run(const Step& st, Runner& run, StepReport& rep);
    /* A kill step: arms its point in the process, runs its step there and
     * sees the process die; the next step of that name starts it afresh. */
    void kill(const Step& st, Runner& run, StepReport& rep);
    /* Steps of several processes, released together from one barrier. */
    void together(const Step& st, Runner& run, StepReport& rep);
    /* Ends a process (after its library threads) and starts it again with
     * a library that was never used; false when it cannot be started. */
    bool restart(const std::string& name);
    /* Named processes, killed ones included. */
    std::vector<std::string> names() const;
    /* Ends every process. */
    void stop();
    /* Ends one process (after its library threads), or forgets a killed one. */
    void end(const std::string& name);
    /* Starts a process with a library that was never used. */
    bool spawn(const std::string& name);

    /* Incarnations a scenario may start in all (first starts and restarts). */
    static constexpr int kIncarnations = 32;

  private:
    struct Child {
        pid_t pid = -1;
        int fd = -1;
        SensorTable known; /* its sensor records as of its last step */
    };
    struct Slot {
        int runner_fd;
        int child_fd;
    };
    [[noreturn]] void zygote(int ctl, const Scenario& s, Runner& run);
    /* The child of a step's process, started afresh when it was killed. */
    Child* child_for(const Step& st, Runner& run, StepReport& rep);
    void take_answer(const json& answer, const Step& st, Runner& run, StepReport& rep);
    /* A step's request: the sensors that differ from what the child has, the devices. */
    json request(Child& c, const Step& st, const SensorTable& now, const json& devices);
    /* The child's changes of the sensors and its devices (with `base`, only those it changed). */
    void take_world(Child& c, const json& answer, const json* base);

    std::map<std::string, Child> children_;
    SensorTable initial_; /* every child's when it starts: the runner's before the set-up */
    std::vector<std::string> killed_;
    std::vector<Slot> slots_;
    int next_slot_ = 0;
    int ctl_ = -1;
    pid_t zygote_ = -1;
};

/* Whether a process lives (a zombie, or one that is dying, does not). */
bool process_alive(int pid);

/* The process names a scenario's steps use, in order of first use. */
std::vector<std::string> process_names(const Scenario& s);

} // namespace zcmd

#endif
