/*
 * Virtual clock and board controller driver. time(), sleep() and select()
 * without descriptors run on the machine's clock; ioctl on the board
 * controller descriptor reaches the shared register table. Everything else
 * goes on to the next definition (the C library, or a sanitizer's
 * interceptor that in turn forwards here).
 */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

#include <mutex>

#include "mbc_driver.h"
#include "sim_internal.h"

extern "C" {
int global_sbcfd_env = -1;
}

namespace zsim {
namespace internal {
namespace {

struct ClockState {
    std::mutex mutex;
    uint32_t eintr_after = 0;
    int eintr_count = 0;
};

ClockState& cs()
{
    static ClockState* s = new ClockState();
    return *s;
}

struct DriverState {
    std::mutex mutex;
    int read_err = 0;
    int read_count = 0;
    int write_err = 0;
    int write_count = 0;
    std::vector<RegAccess> accesses;
};

DriverState& ds()
{
    static DriverState* s = new DriverState();
    return *s;
}

template <typename Fn> Fn next_symbol(const char* name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

/* Whether a path names an escalation table (or its temporary copy). */
bool escalation_path(const char* path)
{
    return path != nullptr && strstr(path, "esctable_inst") != nullptr;
}

bool escalation_fd(int fd)
{
    char link[64];
    char target[512];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, target, sizeof(target) - 1);
    if (n <= 0) {
        return false;
    }
    target[n] = '\0';
    return escalation_path(target);
}

/* Lets other threads run after a virtual sleep, so polling loops do not starve them. */
void give_way()
{
    struct timespec pause = {0, 200000L};
    nanosleep(&pause, nullptr);
}

/* Finds or adds a register (caller holds MetaLock); null when the table is full. */
Register* find_register(Shared* s, uint32_t cabinet, uint32_t address, bool add)
{
    for (int i = 0; i < s->register_count; ++i) {
        if (s->registers[i].cabinet == cabinet && s->registers[i].address == address) {
            return &s->registers[i];
        }
    }
    if (!add || s->register_count >= kMaxRegisters) {
        return nullptr;
    }
    Register* r = &s->registers[s->register_count++];
    r->cabinet = cabinet;
    r->address = address;
    r->value = 0;
    return r;
}

/* The next injected failure of that direction (0 = none). */
int take_failure(bool write)
{
    DriverState& d = ds();
    std::lock_guard<std::mutex> lock(d.mutex);
    int& count = write ? d.write_count : d.read_count;
    if (count <= 0) {
        return 0;
    }
    --count;
    return write ? d.write_err : d.read_err;
}

int board_access(bool write, mbc_reg_rw* rw)
{
    if (rw == nullptr || rw->data == nullptr || rw->size != 4 || rw->cabinet >= MBC_MAX_CABINET) {
        errno = EINVAL;
        return -1;
    }
    int err = take_failure(write);
    if (err != 0) {
        errno = err;
        return -1;
    }
    uint32_t value = 0;
    {
        Shared* s = shared();
        MetaLock lock;
        Register* r = find_register(s, rw->cabinet, rw->address, write);
        if (write) {
            memcpy(&value, rw->data, sizeof(value));
            if (r == nullptr) {
                errno = ENOSPC;
                return -1;
            }
            r->value = value;
        } else {
            value = r != nullptr ? r->value : 0;
            memcpy(rw->data, &value, sizeof(value));
        }
    }
    std::lock_guard<std::mutex> lock(ds().mutex);
    ds().accesses.push_back({write, rw->cabinet, rw->address, value});
    return 0;
}

} // namespace

bool clock_ready()
{
    return shared() != nullptr;
}

uint32_t clock_now()
{
    return __atomic_load_n(&shared()->clock, __ATOMIC_SEQ_CST);
}

void clock_sleep_until(uint32_t wake)
{
    uint32_t* c = &shared()->clock;
    uint32_t cur = __atomic_load_n(c, __ATOMIC_SEQ_CST);
    while (cur < wake &&
           !__atomic_compare_exchange_n(c, &cur, wake, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) {
    }
}

void reset_clock_local()
{
    std::lock_guard<std::mutex> lock(cs().mutex);
    cs().eintr_after = 0;
    cs().eintr_count = 0;
}

void reset_driver()
{
    std::lock_guard<std::mutex> lock(ds().mutex);
    ds().read_err = ds().write_err = 0;
    ds().read_count = ds().write_count = 0;
    ds().accesses.clear();
}

void open_board_device()
{
    if (global_sbcfd_env < 0) {
        global_sbcfd_env = open("/dev/null", O_RDWR | O_CLOEXEC);
    }
}

} // namespace internal

uint32_t now()
{
    return internal::clock_ready() ? internal::clock_now() : 0;
}

void set_time(uint32_t seconds)
{
    if (internal::clock_ready()) {
        __atomic_store_n(&internal::shared()->clock, seconds, __ATOMIC_SEQ_CST);
    }
}

void advance(uint32_t seconds)
{
    if (internal::clock_ready()) {
        __atomic_add_fetch(&internal::shared()->clock, seconds, __ATOMIC_SEQ_CST);
    }
}

void inject_select_eintr(uint32_t after_seconds, int count)
{
    std::lock_guard<std::mutex> lock(internal::cs().mutex);
    internal::cs().eintr_after = after_seconds;
    internal::cs().eintr_count = count;
}

void set_reg(uint32_t cabinet, uint32_t address, uint32_t value)
{
    internal::Shared* s = internal::shared();
    internal::MetaLock lock;
    if (internal::Register* r = internal::find_register(s, cabinet, address, true)) {
        r->value = value;
    }
}

uint32_t reg(uint32_t cabinet, uint32_t address)
{
    internal::Shared* s = internal::shared();
    internal::MetaLock lock;
    internal::Register* r = s != nullptr ? internal::find_register(s, cabinet, address, false) : nullptr;
    return r != nullptr ? r->value : 0;
}

void fail_reg_read(int err, int count)
{
    std::lock_guard<std::mutex> lock(internal::ds().mutex);
    internal::ds().read_err = err;
    internal::ds().read_count = count;
}

void fail_reg_write(int err, int count)
{
    std::lock_guard<std::mutex> lock(internal::ds().mutex);
    internal::ds().write_err = err;
    internal::ds().write_count = count;
}

std::vector<RegAccess> reg_accesses()
{
    std::lock_guard<std::mutex> lock(internal::ds().mutex);
    return internal::ds().accesses;
}

void clear_reg_accesses()
{
    std::lock_guard<std::mutex> lock(internal::ds().mutex);
    internal::ds().accesses.clear();
}

} // namespace zsim

/* ---- Interposed C library calls ----------------------------------------- */

using zsim::internal::clock_now;
using zsim::internal::clock_ready;
using zsim::internal::next_symbol;

extern "C" {

time_t time(time_t* tloc) noexcept
{
    if (!clock_ready()) {
        static auto real = next_symbol<time_t (*)(time_t*)>("time");
        return real != nullptr ? real(tloc) : static_cast<time_t>(-1);
    }
    time_t t = static_cast<time_t>(clock_now());
    if (tloc != nullptr) {
        *tloc = t;
    }
    return t;
}

unsigned int sleep(unsigned int seconds)
{
    if (!clock_ready()) {
        static auto real = next_symbol<unsigned int (*)(unsigned int)>("sleep");
        return real != nullptr ? real(seconds) : seconds;
    }
    zsim::internal::clock_sleep_until(clock_now() + seconds);
    zsim::internal::give_way();
    return 0;
}

int select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, struct timeval* timeout)
{
    if (!clock_ready() || nfds != 0 || readfds != nullptr || writefds != nullptr || exceptfds != nullptr ||
        timeout == nullptr) {
        static auto real = next_symbol<int (*)(int, fd_set*, fd_set*, fd_set*, struct timeval*)>("select");
        if (real == nullptr) {
            errno = ENOSYS;
            return -1;
        }
        return real(nfds, readfds, writefds, exceptfds, timeout);
    }
    if (timeout->tv_sec < 0 || timeout->tv_usec < 0 || timeout->tv_usec >= 1000000) {
        errno = EINVAL;
        return -1;
    }
    /* Whole seconds on the clock; a started second counts as a full one. */
    uint64_t usec =
        static_cast<uint64_t>(timeout->tv_sec) * 1000000u + static_cast<uint64_t>(timeout->tv_usec);
    uint32_t after = 0;
    bool interrupt = false;
    {
        zsim::internal::ClockState& c = zsim::internal::cs();
        std::lock_guard<std::mutex> lock(c.mutex);
        if (c.eintr_count > 0 && static_cast<uint64_t>(c.eintr_after) * 1000000u < usec) {
            --c.eintr_count;
            after = c.eintr_after;
            interrupt = true;
        }
    }
    if (interrupt) {
        uint64_t left = usec - static_cast<uint64_t>(after) * 1000000u;
        zsim::internal::clock_sleep_until(clock_now() + after);
        timeout->tv_sec = static_cast<time_t>(left / 1000000u);
        timeout->tv_usec = static_cast<suseconds_t>(left % 1000000u);
        zsim::internal::give_way();
        errno = EINTR;
        return -1;
    }
    uint32_t seconds = static_cast<uint32_t>((usec + 999999u) / 1000000u);
    zsim::internal::clock_sleep_until(clock_now() + seconds);
    timeout->tv_sec = 0;
    timeout->tv_usec = 0;
    zsim::internal::give_way();
    return 0;
}

/* Writes and renames reach the escalation kill point only while it counts,
 * so every other write keeps its plain path. */
ssize_t write(int fd, const void* buf, size_t count)
{
    if (zsim::internal::kill_point_active(zsim::KillPoint::EscalationWrite) &&
        zsim::internal::escalation_fd(fd)) {
        zsim::internal::reach(zsim::KillPoint::EscalationWrite);
    }
    static auto real = next_symbol<ssize_t (*)(int, const void*, size_t)>("write");
    if (real == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    return real(fd, buf, count);
}

int rename(const char* oldpath, const char* newpath) noexcept
{
    if (zsim::internal::kill_point_active(zsim::KillPoint::EscalationWrite) &&
        zsim::internal::escalation_path(newpath)) {
        zsim::internal::reach(zsim::KillPoint::EscalationWrite);
    }
    static auto real = next_symbol<int (*)(const char*, const char*)>("rename");
    if (real == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    return real(oldpath, newpath);
}

int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    if (fd >= 0 && fd == global_sbcfd_env && clock_ready() &&
        (request == MBC_IOCTL_SP_BOARD_R || request == MBC_IOCTL_SP_BOARD_W)) {
        return zsim::internal::board_access(request == MBC_IOCTL_SP_BOARD_W, static_cast<mbc_reg_rw*>(arg));
    }
    static auto real = next_symbol<int (*)(int, unsigned long, ...)>("ioctl");
    if (real == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    return real(fd, request, arg);
}

} // extern "C"
