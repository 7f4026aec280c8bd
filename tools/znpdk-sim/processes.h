/* Named processes of a scenario: each a real child process with its own
 * library state, sharing the simulated machine with the runner. */
#ifndef ZNPDK_SIM_TOOL_PROCESSES_H
#define ZNPDK_SIM_TOOL_PROCESSES_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "scenario.h"

namespace zcmd {

class Runner;

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
    /* Ends every child. */
    void stop();

  private:
    struct Child {
        pid_t pid = -1;
        int fd = -1;
    };
    std::map<std::string, Child> children_;
};

/* The process names a scenario's steps use, in order of first use. */
std::vector<std::string> process_names(const Scenario& s);

} // namespace zcmd

#endif
