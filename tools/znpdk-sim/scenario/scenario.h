/* Scenarios: a machine set-up and steps (calls, clock, hardware changes)
 * with expectations, read from JSON and run on the simulated platform. */
#ifndef ZNPDK_SIM_TOOL_SCENARIO_H
#define ZNPDK_SIM_TOOL_SCENARIO_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "scenario/jsonutil.h"

namespace zcmd {

class Runner;
struct Step;
struct StepReport;

/* Sees a run as it goes, from outside (the IPMI server, the property checks
 * of a campaign): after its set-up, after every step (its changes made and
 * its expectations checked, before it is printed) and after the last step; a
 * failure it adds to a report counts as that step's. It also serves hold
 * steps and may stop a run early. */
class RunObserver {
  public:
    virtual ~RunObserver() = default;
    virtual void after_setup(Runner&, StepReport& /*setup*/) {}
    virtual void after_step(Runner&, const Step&, StepReport&) {}
    /* After the last step, before the named processes end. */
    virtual void after_run(Runner&) {}
    /* After the checks of the run's end (threads ended, lock rules kept). */
    virtual void after_end(Runner&, StepReport&) {}
    /* A hold step: real seconds (0: no limit), or until a client came and
     * went quiet; returns what happened, for the report. */
    virtual std::string hold(int /*seconds*/, bool /*until_client*/)
    {
        return "nothing to wait for (not serving)";
    }
    /* The person asked to stop: the remaining steps are not run. */
    virtual bool stopping() const { return false; }
};

struct Options {
    bool json = false;
    bool trace = false;
    bool verbose = false;
    bool keep_root = false;
    std::string root;                /* "" = a fresh temporary directory */
    std::string timeline;            /* an SVG file to write the run's picture to */
    RunObserver* observer = nullptr; /* sees the run from outside (IPMI server, property checks) */
    bool quiet = false;              /* print nothing: the observer reads the run */
    bool invariants = false;         /* check the library's promises after every step (as the
                                        scenario's "invariants" member does) */
};

struct Event {
    uint32_t t = 0; /* seconds since the scenario started */
    int order = 0;  /* sorts events of the same time */
    std::string kind;
    json data;
    std::string text;
};

struct Failure {
    std::string where;
    std::string what;
};

struct StepReport {
    size_t index = 0;
    const Step* step = nullptr; /* the step run (it lives as long as its scenario) */
    std::string where;
    std::string label;
    std::string process;
    std::string restarts; /* as the step's */
    std::string kills;    /* the process a kill step killed */
    std::string text;     /* what the step did */
    std::string report = "auto";
    uint32_t t_start = 0;
    uint32_t t_end = 0;
    uint32_t real_ms = 0; /* real time the step took */
    bool has_call = false;
    json ret;
    json out;
    std::string error;
    std::vector<Event> events;
    std::vector<Failure> failures;
    int checks = 0;
    std::vector<std::string> held_locks; /* locks a named process held after its part of the step */
};

struct Function;
using Action = std::function<void(Runner&, StepReport&)>;
using Check = std::function<void(Runner&, StepReport&)>;

struct Step {
    std::string where;
    std::string label;
    std::string kind;
    std::string text;
    std::string report = "auto";
    std::string process;  /* "" = the runner's own process */
    std::string restarts; /* the process a restart step restarts, "*" for all */
    bool background = false;
    int kill_point = -1;     /* a kill step: the point (zsim::KillPoint) its process dies at */
    int kill_visit = 1;      /* ... at this visit of the point */
    std::string kill_while;  /* ... named as the scenario names it */
    std::vector<Step> parts; /* the step a kill step runs, or the steps of "together" */
    std::string function;    /* the function a call step calls */
    const Function* callee = nullptr;
    std::vector<uint64_t> arg_bits; /* its arguments as passed by value (0 for a pointer) */
    Action action;
    std::vector<Check> checks;
};

struct Scenario {
    std::string file;
    std::string name;
    std::string description;
    bool default_machine = true;
    bool save_area = true;
    int sem_wait_ms = 0;     /* real-time bound of a named semaphore wait; 0 = the platform's */
    bool invariants = false; /* the library's promises are checked after every step */
    std::vector<Step> setup;
    std::vector<Step> steps;
};

/* Reads a scenario; a file with mistakes throws a ScenarioError that lists
 * all of them (mistakes()), each placed in the text; its where() is the
 * first one's JSON pointer, or "line L, column C" of a syntax error. */
Scenario load_scenario(const std::string& text, const std::string& file);

/* Runs a scenario in this process (which must not have run one before)
 * and prints it; returns the number of failed expectations, or -1 when
 * the run itself broke down. */
int run_scenario(const Scenario& s, const Options& o);

/* Functions the scenario calls that the library does not export. */
std::vector<std::string> missing_functions(const Scenario& s);

/* Exit status of a run that could not start because of missing functions. */
constexpr int kExitMissingFunctions = 4;

/* The built-in default scenario. */
const char* demo_scenario_text();

} // namespace zcmd

#endif
