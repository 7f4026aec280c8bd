/* Runs one story in a child process of its own (run_scenario wants a fresh
 * process) and tells how it ended: passed, or the first failure and its
 * signature, which the shrinker keeps while it cuts the story down. */
#ifndef ZNPDK_SIM_TOOL_CAMPAIGN_EXECUTE_H
#define ZNPDK_SIM_TOOL_CAMPAIGN_EXECUTE_H

#include <string>
#include <vector>

#include "campaign/generator.h"

namespace zcmd {

struct Outcome {
    bool failed = false;
    bool unreadable = false; /* the story is no scenario (a shrinking step broke it) */
    bool stopped = false;    /* stopped by SIGINT or SIGTERM before it ended */
    std::string signature;   /* what makes two failures the same (see failure_signature) */
    std::string what;        /* the first failure as the run said it */
    std::string where;       /* its place, "/steps/N/..." */
    int step = -1;           /* index of the failing step; -1 before the first or after the last */
    int steps_run = 0;       /* steps the run finished */
    int kills = 0;           /* processes killed */
    int checks = 0;          /* checks made: expectations and invariants */
    std::vector<int> lived;  /* kill steps whose process was not killed */
    std::string log;         /* what the run wrote to stderr (sanitizer reports) */
};

struct ExecOptions {
    int step_timeout_ms = 60000; /* a step running longer blocks the run */
    Plant plant = Plant::None;
    std::string timeline; /* also draw the run there (SVG) */
};

Outcome execute(const std::string& text, const ExecOptions& o);

/* From now on SIGINT and SIGTERM stop the run under way (its processes
 * killed, its files removed) and stop_asked() tells the campaign to end. */
void stop_on_signals();
bool stop_asked();

/* The part of a failure that two runs of one fault share: "invariant NAME"
 * for an invariant, else the failure without names of processes and
 * numbers seen ("sensor 17/0x81 state", "library threads still running"). */
std::string failure_signature(const std::string& what);

/* Whether a step failure only says that a kill step's process lived (the
 * point was not reached): the story drew an unlucky kill, nothing failed. */
bool is_unmet_kill(const std::string& what);

} // namespace zcmd

#endif
