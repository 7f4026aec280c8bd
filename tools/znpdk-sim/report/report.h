/* What a run shows a person: its steps as text, as JSON, and as a picture. */
#ifndef ZNPDK_SIM_TOOL_REPORT_H
#define ZNPDK_SIM_TOOL_REPORT_H

#include <initializer_list>
#include <string>
#include <vector>

#include "scenario/scenario.h"

namespace zcmd {

/* One step as text: its head line, what changed and its failed expectations. */
void print_step(const StepReport& r, const Options& opts);
/* One step as a member of the JSON report's "steps". */
json step_json(const StepReport& r);
/* The JSON report of a whole run. */
void print_json(const Scenario& s, const json& steps, int checks, int passed, int failed,
                std::initializer_list<const StepReport*> run_reports);
/* The run's timeline SVG into `file`; false when it cannot be written. */
bool write_timeline(const std::string& file, const Scenario& s, const std::vector<StepReport>& steps);

} // namespace zcmd

#endif
