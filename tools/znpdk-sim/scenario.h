/* Scenarios: a machine set-up and steps (calls, clock, hardware changes)
 * with expectations, read from JSON and run on the simulated platform. */
#ifndef ZNPDK_SIM_TOOL_SCENARIO_H
#define ZNPDK_SIM_TOOL_SCENARIO_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "jsonutil.h"

namespace zcmd {

struct Options {
    bool json = false;
    bool trace = false;
    bool verbose = false;
    bool keep_root = false;
    std::string root; /* "" = a fresh temporary directory */
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
    std::string where;
    std::string label;
    std::string process;
    std::string text; /* what the step did */
    std::string report = "auto";
    uint32_t t_start = 0;
    uint32_t t_end = 0;
    bool has_call = false;
    json ret;
    json out;
    std::string error;
    std::vector<Event> events;
    std::vector<Failure> failures;
    int checks = 0;
};

class Runner;
struct Function;
using Action = std::function<void(Runner&, StepReport&)>;
using Check = std::function<void(Runner&, StepReport&)>;

struct Step {
    std::string where;
    std::string label;
    std::string kind;
    std::string text;
    std::string report = "auto";
    std::string process; /* "" = the runner's own process */
    bool background = false;
    std::string function; /* the function a call step calls */
    const Function* callee = nullptr;
    Action action;
    std::vector<Check> checks;
};

struct Scenario {
    std::string file;
    std::string name;
    std::string description;
    bool default_machine = true;
    bool save_area = true;
    std::vector<Step> setup;
    std::vector<Step> steps;
};

/* Reads a scenario; throws ScenarioError with the JSON pointer (or the
 * line and column of a syntax error) of the first mistake. */
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
