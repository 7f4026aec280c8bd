/*
 * What the library's subsystems share: instance numbers, trace lines,
 * component records under their write lock, sensor state words, 64-bit
 * halves, path splitting and the exception guard at the C boundary.
 * Internal: not installed.
 */
#ifndef ZNPDK_COMPONENT_INTERNAL_H
#define ZNPDK_COMPONENT_INTERNAL_H

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "ipmi_stack.h"
#include "sp_sysobj.h"
#include "sp_trace.h"
#include "znpdklib_types.h"

namespace znpdk {

using sp::sysobj::Component;

/* ---- Instances ---------------------------------------------------------- */

constexpr int kInstCount = BMC_INSTANCE_COUNT;
constexpr int kChassisInst = 17;

/* The board controller that the PSU and fan procedures run on. */
constexpr char kBobcPath[] = "/SYSTEM#0/BOBC#0";

inline bool valid_inst(int BMCInst)
{
    return BMCInst >= 0 && BMCInst < kInstCount;
}

/* ---- Trace lines -------------------------------------------------------- */

constexpr int kLevelCall = 1;
constexpr int kLevelDetail = 0x0801;
constexpr int kLevelInfo = 0x8001;
constexpr int kLevelError = 0x8002;

/* One trace line with four integer values (unused ones 0). */
void trace(int region, int module, int level, uint32_t id, const char* fmt, int a1 = 0, int a2 = 0,
           int a3 = 0, int a4 = 0);

/* The region and module of one subsystem's lines. */
struct Tracer {
    int region;
    int module;

    void operator()(int level, uint32_t id, const char* fmt, int a1 = 0, int a2 = 0, int a3 = 0,
                    int a4 = 0) const
    {
        trace(region, module, level, id, fmt, a1, a2, a3, a4);
    }
};

/* The lines of the power monitor: PSUs, fans, redundancy recovery,
 * sequence flags and the alarm LED. */
constexpr Tracer kTracePowerMon{T_REGION_POWER_MON, SP_MID_BASE_UTIL};
/* The lines of node error evaluation and of the outage marks. */
constexpr Tracer kTraceUtil{T_REGION_LIB_UTIL, SP_MID_BASE_UTIL};

/* 64-bit values are traced as two words, high word first. */
inline int hi32(uint64_t v)
{
    return static_cast<int>(static_cast<uint32_t>(v >> 32));
}

inline int lo32(uint64_t v)
{
    return static_cast<int>(static_cast<uint32_t>(v));
}

/* ---- Component records -------------------------------------------------- */

Component* root();
/* A child of any depth; null below a missing parent. */
Component* child(Component* parent, int type, int no);
/* Every component of a type below `parent`; empty below a missing one. */
std::vector<Component*> children(Component* parent, int type);

/* A record read into a zeroed buffer without a lock: a missing component
 * reads as all zero. */
template <typename T> T read_record(Component* compo, int key)
{
    T rec;
    memset(&rec, 0, sizeof(rec));
    if (compo != nullptr) {
        compo->getProperty(key, &rec, sizeof(rec));
    }
    return rec;
}

inline current_common_info_t read_common(Component* compo)
{
    return read_record<current_common_info_t>(compo, PROP_CURRENT_COMMON_INFO);
}

inline bool installed(Component* compo)
{
    return read_common(compo).isInstalled();
}

/* Read-modify-write of `compo`'s record under `owner`'s write lock: written
 * back (a missing component never is) when `change` answers true, then
 * `written` runs with the lock still held. Answers whether it changed. */
template <typename T, typename Change, typename Written>
bool modify_record(Component* owner, Component* compo, int key, Change&& change, Written&& written)
{
    Component::WriteLock lock(owner);
    T rec = read_record<T>(compo, key);
    if (!change(rec)) {
        return false;
    }
    if (compo != nullptr) {
        compo->setProperty(key, &rec, sizeof(rec));
    }
    written(rec);
    return true;
}

template <typename T, typename Change> bool modify_record(Component* compo, int key, Change&& change)
{
    return modify_record<T>(compo, compo, key, change, [](const T&) {});
}

/* ---- Sensor state words ------------------------------------------------- */

/* A discrete sensor's state word without bit 15. */
uint16_t sensor_word(int sensor, int BMCInst);
/* Its lowest asserted offset (16 when none). */
int sensor_offset(int sensor, int BMCInst);

/* ---- Paths -------------------------------------------------------------- */

/* Splits `line` at every `delim`; empty pieces are kept, an empty text gives
 * one empty piece. */
std::vector<std::string> split(const std::string& line, char delim);

/* getSPRoot() followed by `path` in a caller's buffer; false and "" (which
 * no file call accepts) when it does not fit. Allocates nothing of its own. */
bool platform_file(const char* path, char* buf, size_t len);

/* ---- The C boundary ----------------------------------------------------- */

/* Traces which function caught what; called inside a catch block. */
void trace_caught(const char* function) noexcept;

/* Runs `body`; an exception is traced and gives the function's `failure`. */
template <typename R, typename F> R guard(const char* function, R failure, F&& body) noexcept
{
    try {
        return body();
    } catch (...) {
        trace_caught(function);
    }
    return failure;
}

template <typename F> void guard_void(const char* function, F&& body) noexcept
{
    try {
        body();
    } catch (...) {
        trace_caught(function);
    }
}

} // namespace znpdk

#endif
