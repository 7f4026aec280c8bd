/* znpdk-sim campaign: random fault stories from a seed, run one by one in
 * child processes; a failing story is shrunk and written as a scenario. */
#ifndef ZNPDK_SIM_TOOL_CAMPAIGN_CAMPAIGN_H
#define ZNPDK_SIM_TOOL_CAMPAIGN_CAMPAIGN_H

#include <string>
#include <vector>

namespace zcmd {

/* The command with its arguments (after "campaign"); returns the exit status:
 * 0 no failure, 1 failures found (written below --out), 2 a usage mistake,
 * 3 a drawn story did not read. */
int campaign_command(const std::vector<std::string>& args);

extern const char* const kCampaignUsage;

} // namespace zcmd

#endif
