/* Internals shared by the sources of the simulated platform. */
#ifndef ZNPDK_SIM_INTERNAL_H
#define ZNPDK_SIM_INTERNAL_H

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "znpdk_sim/detail.h"
#include "znpdk_sim/sim.h"

namespace zsim {
namespace internal {

constexpr int kMaxComponents = 4096;
constexpr int kMaxParents = 4;
constexpr int kFirstKey = 256;
constexpr int kKeyCount = 11; /* keys 256..266 */
constexpr uint32_t kMaxRecord = 2048;
constexpr int kMaxRecords = 8192;
constexpr int kMaxRegisters = 4096;
constexpr int kMaxSemNames = 64;
constexpr uint32_t kEpoch = 1767225600u; /* 2026-01-01 00:00:00 UTC */

/* A lock the processes of a machine share through the mapping (all zero:
 * free). A holder that dies with it taken (killed) is noticed by the next
 * waiter, which takes it over and goes on, on the host and under qemu-user
 * alike (sim_lock.cpp). */
struct SharedLock {
    uint32_t word;   /* the holder's thread id, with a flag while others sleep on it */
    uint32_t holder; /* the thread id that `start` belongs to (0: none) */
    uint32_t start;  /* the holder's start time: a reused thread id is not the holder */
};

/* One component of the shared tree. Children form a singly linked list
 * (insertion order); extra parents only answer getParents. */
struct ComponentEntry {
    int32_t used;
    int32_t type;
    int32_t no;
    int32_t parent; /* tree parent (0 = none) */
    int32_t extra_parents[kMaxParents];
    int32_t first_child;
    int32_t last_child;
    int32_t next_sibling;
    int32_t records[kKeyCount]; /* slot index + 1, 0 = never stored */
    uint32_t reads;
    uint32_t writes;
    SharedLock lock; /* the component's write lock */
};

struct RecordSlot {
    uint32_t len;
    uint8_t data[kMaxRecord];
};

struct Register {
    uint32_t cabinet;
    uint32_t address;
    uint32_t value;
};

/* A named semaphore of the controller support library, process-shared in
 * the mapping (kernel-named ones would outlive the roots of test processes). */
struct alignas(64) SemSlot { /* own cache lines: instances do not share one */
    char name[64];
    sem_t sem;
    int32_t holder; /* the process that took it last (0: given back), for checks */
};

/* The file-backed mapping shared by every process attached to a root. */
struct Shared {
    uint32_t magic;
    uint32_t size;
    SharedLock meta; /* guards tree, records, registers, names */
    uint32_t clock;
    int32_t component_count; /* highest object id handed out */
    int32_t record_count;
    int32_t register_count;
    int32_t sem_count;
    SemSlot sems[kMaxSemNames];
    Register registers[kMaxRegisters];
    ComponentEntry components[kMaxComponents + 1]; /* index = object id */
    RecordSlot slots[kMaxRecords];
};

/* The mapping of the current root, or null before init/attach. */
Shared* shared();

/* Holds the shared meta lock. */
class MetaLock {
  public:
    MetaLock();
    ~MetaLock();
    MetaLock(const MetaLock&) = delete;
    MetaLock& operator=(const MetaLock&) = delete;

  private:
    bool held_;
};

/* Takes `l`, taking it over from a holder that died; EDEADLK when this
 * thread holds it already. `oid` names it in the report of a long wait
 * (0: the meta lock). */
int lock_shared(SharedLock* l, int oid);
/* Gives back `l`, which this thread holds (the callers know it). */
void unlock_shared(SharedLock* l);
/* This thread's id (cached). */
uint32_t thread_id();

/* Per-area resets of process-local state, called by init()/attach(). */
void reset_ipmi();
void reset_db_local();
void reset_znlib();
void reset_trace();
void reset_driver();
void reset_clock_local();
void run_model_hooks();
void reset_kill_points();

/* Counts a visit of a kill point and dies there when it is armed for it. */
void reach(KillPoint point);
/* Whether `point` counts visits (kill_at() was called since the reset). */
bool kill_point_active(KillPoint point);
/* The semaphore wait bound of set_sem_wait_limit(), in milliseconds. */
int sem_wait_limit_ms();

/* Shared-state reset of the database part (root component). */
void reset_db_shared(Shared* s);

/* Virtual clock helpers for the interposed calls. */
bool clock_ready();
uint32_t clock_now();
void clock_sleep_until(uint32_t wake);
/* Real time in the board controller descriptor (opened once per process). */
void open_board_device();

/* Records a trace line (used by the debug output too). */
void add_trace(TraceLine line);

/* Formats like vsnprintf into a string. */
std::string vformat(const char* fmt, va_list ap);

/* The component with that id, or null when absent (caller holds MetaLock). */
ComponentEntry* entry(Shared* s, int oid);
/* Resolves "/SYSTEM#0/A#n/..." to an object id, or -1. */
int resolve_path(const std::string& path);
/* Reads a record into buffer (zero-filled past what is stored). */
int read_record(int oid, int key, void* buffer, unsigned int length);

/* Instances whose sensor mutex a thread of this process holds (sim_ipmi.cpp). */
std::vector<int> sensor_mutexes_held();

} // namespace internal
} // namespace zsim

#endif
