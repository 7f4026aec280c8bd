/* Trace facility: formatted lines with their level, region, module and id. */
#include <stdarg.h>
#include <stdio.h>

#include <mutex>
#include <utility>

#include "sim_internal.h"
#include "sp_trace.h"

namespace zsim
{
namespace internal
{
namespace
{

struct TraceState {
    std::mutex mutex;
    std::vector<TraceLine> lines;
    std::function<void(const TraceLine&)> sink;
};

TraceState& ts()
{
    static TraceState* s = new TraceState(); /* outlives every static destructor */
    return *s;
}

/* Formats with the values given; the printf family does the work. */
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string out = vformat(fmt, ap);
    va_end(ap);
    return out;
}

void emit(int level, int region, int module, uint32_t id, const char* variant, std::string text)
{
    TraceLine line;
    line.level = level;
    line.region = region;
    line.module = module;
    line.id = id;
    line.variant = variant;
    line.text = std::move(text);
    add_trace(std::move(line));
}

} // namespace

std::string vformat(const char* fmt, va_list ap)
{
    if (fmt == nullptr) {
        return std::string();
    }
    char small[512];
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(small, sizeof(small), fmt, copy);
    va_end(copy);
    if (n < 0) {
        return std::string();
    }
    if (static_cast<size_t>(n) < sizeof(small)) {
        return std::string(small, static_cast<size_t>(n));
    }
    std::string big(static_cast<size_t>(n) + 1, '\0');
    vsnprintf(&big[0], big.size(), fmt, ap);
    big.resize(static_cast<size_t>(n));
    return big;
}

void add_trace(TraceLine line)
{
    line.time = now();
    std::function<void(const TraceLine&)> sink;
    {
        TraceState& s = ts();
        std::lock_guard<std::mutex> lock(s.mutex);
        s.lines.push_back(line);
        sink = s.sink;
    }
    /* Outside the lock: a sink may read the traces itself. */
    if (sink) {
        try {
            sink(line);
        } catch (...) {
        }
    }
}

void reset_trace()
{
    /* The sink is kept: it belongs to whoever displays the lines, not to the machine. */
    std::lock_guard<std::mutex> lock(ts().mutex);
    ts().lines.clear();
}

} // namespace internal

std::vector<TraceLine> traces()
{
    std::lock_guard<std::mutex> lock(internal::ts().mutex);
    return internal::ts().lines;
}

void clear_traces()
{
    std::lock_guard<std::mutex> lock(internal::ts().mutex);
    internal::ts().lines.clear();
}

void set_trace_sink(std::function<void(const TraceLine&)> sink)
{
    std::lock_guard<std::mutex> lock(internal::ts().mutex);
    internal::ts().sink = std::move(sink);
}

std::vector<TraceLine> traces_with_id(uint32_t id)
{
    std::vector<TraceLine> out;
    std::lock_guard<std::mutex> lock(internal::ts().mutex);
    for (const TraceLine& t : internal::ts().lines) {
        if (!t.debug && t.id == id) {
            out.push_back(t);
        }
    }
    return out;
}

} // namespace zsim

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

using zsim::internal::emit;
using zsim::internal::format;

extern "C" {

void sp_trace2(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
               int a4)
{
    emit(level, region, module, id, "sp_trace2", fmt ? format(fmt, a1, a2, a3, a4) : std::string());
}

void sp_trace4(int level, int region, int module, uint32_t id, const char* fmt, const char* s)
{
    emit(level, region, module, id, "sp_trace4", fmt ? format(fmt, s ? s : "(null)") : std::string());
}

void sp_trace25(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
                int a4, int a5)
{
    emit(level, region, module, id, "sp_trace25", fmt ? format(fmt, a1, a2, a3, a4, a5) : std::string());
}

void sp_trace26(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
                int a4, int a5, int a6)
{
    emit(level, region, module, id, "sp_trace26", fmt ? format(fmt, a1, a2, a3, a4, a5, a6) : std::string());
}

void sp_trace27(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
                int a4, int a5, int a6, int a7)
{
    emit(level, region, module, id, "sp_trace27",
         fmt ? format(fmt, a1, a2, a3, a4, a5, a6, a7) : std::string());
}

void sp_trace28(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
                int a4, int a5, int a6, int a7, int a8)
{
    emit(level, region, module, id, "sp_trace28",
         fmt ? format(fmt, a1, a2, a3, a4, a5, a6, a7, a8) : std::string());
}

} // extern "C"

#pragma GCC diagnostic pop
