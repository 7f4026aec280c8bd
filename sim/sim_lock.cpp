/* Locks shared by the processes of a machine through the mapping.
 *
 * The lock word holds the holder's thread id. A waiter sleeps on it in short
 * slices and, after each, asks the kernel whether the holder still lives; a
 * holder that died with the lock taken (killed) is replaced by one
 * compare-and-swap on the word, so exactly one waiter takes the lock over and
 * goes on, as a robust mutex's EOWNERDEAD would let it. Robust mutexes need
 * the kernel's robust futex lists, which qemu-user does not keep: this one
 * mechanism behaves the same on the host and under emulation. */
#include <errno.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "sim_internal.h"

namespace zsim {
namespace internal {
namespace {

constexpr uint32_t kWaiters = 0x80000000u; /* someone sleeps on the word */
constexpr long kSliceMs = 50;              /* between two looks at the holder */
constexpr long kWarnMs = 10000;            /* a wait this long is reported */
constexpr long kGiveUpMs = 60000;          /* a wait this long ends the process */

struct Self {
    uint32_t tid = 0;
    uint32_t start = 0;
    bool start_known = false;
};

thread_local Self t_self;

/* A forked child's thread has a new id: look it up again. */
void forget_self()
{
    t_self = Self{};
}

enum class Seen { Gone, Unknown, Found };

/* State letter and start time (field 22, clock ticks since boot) of a
 * thread, from the kernel. The file is opened below a directory handle:
 * qemu-user answers "/proc/<own pid>/stat" itself with values of its own,
 * and the holder's and the waiter's view must agree. */
Seen thread_stat(uint32_t tid, char& state, uint32_t& start)
{
    int dir = open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) {
        return Seen::Unknown;
    }
    char name[32];
    snprintf(name, sizeof(name), "%u/stat", static_cast<unsigned>(tid));
    int fd = openat(dir, name, O_RDONLY | O_CLOEXEC);
    const int err = errno;
    close(dir);
    if (fd < 0) {
        return err == ENOENT || err == ESRCH ? Seen::Gone : Seen::Unknown;
    }
    char buf[512];
    ssize_t n = read(fd, buf, sizeof(buf) - 1);
    close(fd);
    if (n <= 0) {
        return Seen::Gone; /* it ended while being read */
    }
    buf[n] = '\0';
    const char* p = strrchr(buf, ')'); /* the name may hold anything */
    if (p == nullptr || p[1] != ' ') {
        return Seen::Unknown;
    }
    p += 2;
    state = *p;
    for (int field = 3; field < 22 && *p != '\0'; ++p) {
        field += *p == ' ';
    }
    start = static_cast<uint32_t>(strtoull(p, nullptr, 10));
    return Seen::Found;
}

const Self& self()
{
    if (t_self.tid == 0) {
        static const bool registered = pthread_atfork(nullptr, nullptr, forget_self) == 0;
        (void)registered;
        Self s;
        s.tid = static_cast<uint32_t>(syscall(SYS_gettid));
        char state = 0;
        s.start_known = thread_stat(s.tid, state, s.start) == Seen::Found;
        t_self = s;
    }
    return t_self;
}

long futex(uint32_t* word, int op, uint32_t val, const struct timespec* timeout)
{
#if defined(SYS_futex_time64)
    if (sizeof(timeout->tv_sec) > sizeof(long)) { /* 32-bit target with a 64-bit time_t */
        return syscall(SYS_futex_time64, word, op, val, timeout, nullptr, 0);
    }
#endif
    return syscall(SYS_futex, word, op, val, timeout, nullptr, 0);
}

long elapsed_ms(const struct timespec& since)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (now.tv_sec - since.tv_sec) * 1000L + (now.tv_nsec - since.tv_nsec) / 1000000L;
}

/* Whether thread `tid`, which holds `l`, is gone: ended, a zombie, or its
 * id now names a thread that started after it took the lock. */
bool holder_dead(const SharedLock* l, uint32_t tid)
{
    const bool recorded = __atomic_load_n(&l->holder, __ATOMIC_ACQUIRE) == tid;
    const uint32_t start = __atomic_load_n(&l->start, __ATOMIC_RELAXED);
    char state = 0;
    uint32_t now_start = 0;
    switch (thread_stat(tid, state, now_start)) {
    case Seen::Gone:
        return true;
    case Seen::Unknown:
        return false; /* cannot tell: wait on */
    case Seen::Found:
        break;
    }
    return state == 'Z' || state == 'X' || state == 'x' || (recorded && now_start != start);
}

void report_wait(int oid, uint32_t tid, long waited_ms, const char* outcome)
{
    const std::string name = oid > 0
                                 ? "the write lock of " + path_of(oid) + " (oid " + std::to_string(oid) + ")"
                                 : std::string("the meta lock of the machine");
    fprintf(stderr, "znpdk-sim: thread %u of process %d has waited %ld s for %s, held by live thread %u%s\n",
            self().tid, static_cast<int>(getpid()), waited_ms / 1000, name.c_str(), tid, outcome);
}

/* Whether `me` took `l` (and has not given it back); its id alone could be
 * a dead holder's that the kernel gave to this thread since. */
bool holds(const SharedLock* l, const Self& me)
{
    return !me.start_known || (__atomic_load_n(&l->holder, __ATOMIC_ACQUIRE) == me.tid &&
                               __atomic_load_n(&l->start, __ATOMIC_RELAXED) == me.start);
}

/* A holder whose start time is unknown is judged by its id alone. */
void note_holder(SharedLock* l, const Self& me)
{
    __atomic_store_n(&l->start, me.start, __ATOMIC_RELAXED);
    __atomic_store_n(&l->holder, me.start_known ? me.tid : 0u, __ATOMIC_RELEASE);
}

int lock_contended(SharedLock* l, const Self& me, int oid)
{
    struct timespec began;
    clock_gettime(CLOCK_MONOTONIC, &began);
    bool warned = false;
    for (;;) {
        uint32_t cur = __atomic_load_n(&l->word, __ATOMIC_RELAXED);
        if (cur == 0) {
            /* Others may sleep on it still: the unlock must wake one. */
            if (__atomic_compare_exchange_n(&l->word, &cur, me.tid | kWaiters, false, __ATOMIC_ACQUIRE,
                                            __ATOMIC_RELAXED)) {
                return 0;
            }
            continue;
        }
        const uint32_t holder = cur & ~kWaiters;
        bool dead = false;
        if (holder == me.tid) {
            if (holds(l, me)) {
                return EDEADLK;
            }
            dead = true; /* a dead thread's id, given to this one since */
        } else {
            if ((cur & kWaiters) == 0) {
                if (!__atomic_compare_exchange_n(&l->word, &cur, cur | kWaiters, false, __ATOMIC_RELAXED,
                                                 __ATOMIC_RELAXED)) {
                    continue;
                }
                cur |= kWaiters;
            }
            const struct timespec slice = {0, kSliceMs * 1000000L};
            if (futex(&l->word, FUTEX_WAIT, cur, &slice) == 0 || errno != ETIMEDOUT) {
                continue; /* woken, or the word changed meanwhile */
            }
            dead = holder_dead(l, holder);
        }
        /* One compare-and-swap: of the waiters that saw it dead, one takes over. */
        if (dead) {
            if (__atomic_compare_exchange_n(&l->word, &cur, me.tid | kWaiters, false, __ATOMIC_ACQUIRE,
                                            __ATOMIC_RELAXED)) {
                return 0;
            }
            continue;
        }
        const long waited = elapsed_ms(began);
        if (waited >= kGiveUpMs) {
            report_wait(oid, holder, waited, ": giving up");
            abort(); /* a lock nobody gives back: better a failed run than a hung one */
        }
        if (waited >= kWarnMs && !warned) {
            report_wait(oid, holder, waited, "");
            warned = true;
        }
    }
}

} // namespace

uint32_t thread_id()
{
    return self().tid;
}

int lock_shared(SharedLock* l, int oid)
{
    const Self& me = self();
    uint32_t expected = 0;
    if (!__atomic_compare_exchange_n(&l->word, &expected, me.tid, false, __ATOMIC_ACQUIRE,
                                     __ATOMIC_RELAXED)) {
        const int rc = lock_contended(l, me, oid);
        if (rc != 0) {
            return rc;
        }
    }
    note_holder(l, me);
    return 0;
}

void unlock_shared(SharedLock* l)
{
    __atomic_store_n(&l->holder, 0u, __ATOMIC_RELAXED);
    if (__atomic_exchange_n(&l->word, 0u, __ATOMIC_RELEASE) & kWaiters) {
        futex(&l->word, FUTEX_WAKE, 1, nullptr);
    }
}

} // namespace internal
} // namespace zsim
