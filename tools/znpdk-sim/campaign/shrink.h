/* Cuts a failing story down to the smallest one that still fails the same
 * way: steps removed (chunks halving down to single steps), then each step
 * made simpler (a kill without its kill, one part of a "together", numbers
 * toward 0, members and list entries dropped, two processes made one),
 * keeping a change only while the same failure still occurs. */
#ifndef ZNPDK_SIM_TOOL_CAMPAIGN_SHRINK_H
#define ZNPDK_SIM_TOOL_CAMPAIGN_SHRINK_H

#include <functional>

#include "campaign/execute.h"
#include "campaign/generator.h"

namespace zcmd {

struct Shrunk {
    ojson doc;
    Outcome outcome; /* of the last run that failed the same way */
    int attempts = 0;
};

/* `failed` is how `doc` failed; at most `max_attempts` runs are made.
 * `progress` hears of each attempt (for the terminal). */
Shrunk shrink(const ojson& doc, const Outcome& failed, const ExecOptions& o, int max_attempts,
              const std::function<void(const Shrunk&)>& progress = nullptr);

/* Whether a scenario text reads (the parent checks a candidate before running it). */
bool readable(const std::string& text);

} // namespace zcmd

#endif
