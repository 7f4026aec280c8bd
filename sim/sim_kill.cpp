/* Kill points: a process dies by SIGKILL at the n-th visit of a chosen point. */
#include <signal.h>
#include <semaphore.h>
#include <unistd.h>

#include <atomic>

#include "sim_internal.h"

namespace zsim {
namespace internal {
namespace {

constexpr int kPoints = 4;
constexpr int kDefaultSemWaitMs = 30000;

struct PointState {
    std::atomic<bool> active{false};
    std::atomic<int> target{0};
    std::atomic<int> hits{0};
};

PointState g_points[kPoints];
std::atomic<int> g_sem_wait_ms{kDefaultSemWaitMs};

PointState* point_state(KillPoint point)
{
    int i = static_cast<int>(point);
    return i >= 0 && i < kPoints ? &g_points[i] : nullptr;
}

} // namespace

void reset_kill_points()
{
    for (PointState& p : g_points) {
        p.active = false;
        p.target = 0;
        p.hits = 0;
    }
    g_sem_wait_ms = kDefaultSemWaitMs;
}

bool kill_point_active(KillPoint point)
{
    PointState* p = point_state(point);
    return p != nullptr && p->active.load(std::memory_order_relaxed);
}

void reach(KillPoint point)
{
    PointState* p = point_state(point);
    if (p == nullptr || !p->active.load(std::memory_order_relaxed)) {
        return;
    }
    int n = p->hits.fetch_add(1) + 1;
    if (n == p->target.load()) {
        kill(getpid(), SIGKILL);
        pause(); /* SIGKILL cannot be caught: never returns */
    }
}

int sem_wait_limit_ms()
{
    return g_sem_wait_ms.load();
}

} // namespace internal

void kill_at(KillPoint point, int n)
{
    internal::PointState* p = internal::point_state(point);
    if (p == nullptr) {
        return;
    }
    p->hits = 0;
    p->target = n > 0 ? n : 0;
    p->active = true;
}

int kill_point_hits(KillPoint point)
{
    internal::PointState* p = internal::point_state(point);
    return p != nullptr ? p->hits.load() : 0;
}

void set_sem_wait_limit(int ms)
{
    internal::g_sem_wait_ms = ms > 0 ? ms : 0;
}

void reset_semaphores()
{
    internal::Shared* s = internal::shared();
    if (s == nullptr) {
        return;
    }
    internal::MetaLock lock;
    for (int i = 0; i < s->sem_count; ++i) {
        sem_destroy(&s->sems[i].sem);
        sem_init(&s->sems[i].sem, 1, 1);
        s->sems[i].holder = 0;
    }
}

} // namespace zsim
