/*
 * The benchmark binary's view of the platform: every platform function the
 * library calls passes through this binary, which forwards it to the
 * simulated platform. While recording, the calls one library operation makes
 * are kept with their arguments; replaying them runs exactly those platform
 * calls without the library, which is the floor the operation cannot beat.
 * The binary also counts heap allocations of the whole process.
 */
#ifndef ZNPDK_BENCH_PLATFORM_CALLS_H
#define ZNPDK_BENCH_PLATFORM_CALLS_H

#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

namespace zbench {

/* One platform call as the library made it, and what makes it again
 * (its result as an int, 0 for none). */
struct Call {
    int kind = 0;
    std::function<int()> run;
};

using Plan = std::vector<Call>;

/* Records the platform calls `op` makes on this thread (nested calls inside
 * the platform are not recorded). */
template <typename Op> Plan record(Op&& op);
void start_recording();
Plan stop_recording();

/* Runs the recorded calls again, in order, through the same entry points
 * (output goes to scratch). Each semaphore-guarded section also stores 4
 * bytes into `shared_word`. */
void replay(const Plan& plan, uint32_t* shared_word);

/* Number of calls per platform function, for the report ("name=count ..."). */
std::string summary(const Plan& plan);

/* Heap allocations made by the process so far (malloc, calloc, realloc,
 * aligned allocations and so every operator new). */
uint64_t allocations();

template <typename Op> Plan record(Op&& op)
{
    start_recording();
    op();
    return stop_recording();
}

} // namespace zbench

#endif
