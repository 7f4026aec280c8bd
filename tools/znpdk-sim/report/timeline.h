/* A picture of a run: one lane per thing that changed over virtual time,
 * written as SVG by the tool itself. */
#ifndef ZNPDK_SIM_TOOL_TIMELINE_H
#define ZNPDK_SIM_TOOL_TIMELINE_H

#include <string>
#include <vector>

#include "scenario/scenario.h"

namespace zcmd {

/* The SVG of a run's steps: a lane per sensor that changed (its state word
 * over time), the alarm LED, the fan full-speed reasons and the fan check
 * phase; SEL records and RAS logs as marks on a lane of their own; steps
 * that restart processes as lines across every lane. Every change carries
 * its time (data-t) and its process (data-process) when it has one. */
std::string timeline_svg(const std::string& title, const std::vector<StepReport>& steps);

} // namespace zcmd

#endif
