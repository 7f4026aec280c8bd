/* The library's promises, checked after the set-up and after every step of a
 * run (a scenario's "invariants": true, or znpdk-sim run --invariants). A
 * broken one is a failure of that step whose text begins "invariant NAME: "
 * and says what was seen and what was expected; docs/scenarios.md lists each
 * with the behaviour it protects and the exceptions a kill or an injected
 * failure legitimately leaves. */
#ifndef ZNPDK_SIM_TOOL_INVARIANTS_H
#define ZNPDK_SIM_TOOL_INVARIANTS_H

#include <memory>
#include <string>
#include <vector>

#include "scenario/scenario.h"

namespace zcmd {

/* The invariants by name, in the order they are checked after a step. */
const std::vector<std::string>& invariant_names();

/* An observer that checks them and then hands every call on to `next` (may
 * be null), so that it sees the failures added. */
std::unique_ptr<RunObserver> make_invariant_checks(const Scenario& s, RunObserver* next);

} // namespace zcmd

#endif
