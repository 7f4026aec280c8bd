/* Random stories for fault campaigns: scenarios drawn from a seed out of
 * the scenario vocabulary (hardware faults and repairs, library calls made
 * by named BMC processes, injected platform failures, time, restarts,
 * kills, reboots and AC power cycles). */
#ifndef ZNPDK_SIM_TOOL_CAMPAIGN_GENERATOR_H
#define ZNPDK_SIM_TOOL_CAMPAIGN_GENERATOR_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "znpdk_sim/sim.h"

namespace zcmd {

/* Stories keep their members in the order written, so that they read well. */
using ojson = nlohmann::ordered_json;

/* Failures planted in stories to prove the campaign itself (tests only). */
enum class Plant {
    None,
    Expectation, /* every PSU check expects full redundancy (a story expectation) */
    Crash,       /* the run aborts once PSU redundancy is not full */
    Block,       /* the run hangs once PSU redundancy is not full */
};

struct GenConfig {
    int steps = 60;    /* steps of a story */
    int processes = 3; /* at most this many named processes */
    Plant plant = Plant::None;
};

/* The sensors of the default machine: numbers by instance (0 to 17), and
 * the states each may hold (by instance * 256 + number). */
struct MachineInfo {
    std::vector<std::vector<uint8_t>> sensors;
    std::vector<zsim::SensorStates> states;
};

/* Reads the default machine's sensors from a machine built in a scratch
 * directory (the caller's simulated platform is left initialised there). */
MachineInfo read_machine();

/* What the generator made each step of, for the campaign's counters. */
struct StepInfo {
    std::string kind;
    bool fault = false;
};

struct Story {
    ojson doc;
    std::vector<StepInfo> info; /* one per step */
};

/* Run `run` of a campaign seeded `seed`: the same story on every machine. */
Story generate(uint64_t seed, uint64_t run, const GenConfig& cfg, const MachineInfo& machine);

/* The scenario text of a story: its members, then one step per line. */
std::string story_text(const ojson& doc);

/* Kinds of step the generator draws from, in table order. */
std::vector<std::string> step_kinds();

} // namespace zcmd

#endif
