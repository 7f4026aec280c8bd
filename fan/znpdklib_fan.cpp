/*
 * Fan control and checks: full-speed reasons, fan redundancy, rotation
 * checks and their threads, and the bookkeeping they share in the system
 * record on the root component.
 */
#include "znpdklib.h"

#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/time.h>
#include <time.h>

#include "ipmi_stack.h"
#include "sp_sysobj.h"
#include "sp_trace.h"
#include "sputil.h"
#include "znlib.h"

namespace
{

using sp::sysobj::Component;

constexpr int kChassisInst = 17;
constexpr int kRegion = T_REGION_POWER_MON;
constexpr int kModule = SP_MID_BASE_UTIL;

constexpr int kLvInfo = 0x8001;
constexpr int kLvError = 0x8002;
constexpr int kLvDetail = 0x0801;

constexpr int kFanCount = 8;
constexpr uint32_t kAllFans = 0xFF;

/* Chassis sensors the fan code reads. */
constexpr int kSnsSystemPower = 0x00;
constexpr int kSnsFrueFan0 = 0xD1;
constexpr uint16_t kSysPowerOff = 0x0001;
constexpr uint16_t kFrueUsableMask = 0x002E;

/* Trace helpers: values are passed as the platform's ints. */
void tr(int level, uint32_t id, const char* fmt, int a1 = 0, int a2 = 0, int a3 = 0, int a4 = 0)
{
    sp_trace2(level, kRegion, kModule, id, fmt, a1, a2, a3, a4);
}

[[maybe_unused]] int hi32(uint64_t v)
{
    return static_cast<int>(static_cast<uint32_t>(v >> 32));
}

[[maybe_unused]] int lo32(uint64_t v)
{
    return static_cast<int>(static_cast<uint32_t>(v));
}

int fanu_of(int fanno)
{
    return fanno / 2;
}

int fan_of(int fanno)
{
    return fanno % 2;
}

bool in_set(uint32_t set, int fanno)
{
    return (set & (1u << fanno)) != 0;
}

/* State word of a chassis sensor, bit 15 masked off. */
uint16_t read_sensor(int sensor)
{
    INT16U st = 0;
    znpdklib_getDiscreteStatusSensorStatus(sensor, &st, kChassisInst);
    return static_cast<uint16_t>(st & 0x7FFF);
}

/* A missing root reads as an all-zero record and is never written. */
void read_system(Component* root, current_system_info_t* info)
{
    memset(info, 0, sizeof(*info));
    if (root != nullptr) {
        root->getProperty(PROP_CURRENT_INFO, info, sizeof(*info));
    }
}

void read_system(current_system_info_t* info)
{
    read_system(Component::getRoot(), info);
}

/* Read-modify-write of the system record under the root's write lock: the
 * record is written back when `change` answers true, and `written` runs
 * after the write while the lock is still held. */
template <typename F, typename G> void modify_system(F&& change, G&& written)
{
    Component* root = Component::getRoot();
    Component::WriteLock lock(root);
    current_system_info_t info;
    read_system(root, &info);
    if (change(info)) {
        if (root != nullptr) {
            root->setProperty(PROP_CURRENT_INFO, &info, sizeof(info));
        }
        written(info);
    }
}

template <typename F> void modify_system(F&& change)
{
    modify_system(change, [](const current_system_info_t&) {});
}

void trace8(uint32_t id, const char* fmt, const uint32_t v[kFanCount], int level = kLvInfo)
{
    sp_trace28(level, kRegion, kModule, id, fmt, static_cast<int>(v[0]), static_cast<int>(v[1]),
               static_cast<int>(v[2]), static_cast<int>(v[3]), static_cast<int>(v[4]), static_cast<int>(v[5]),
               static_cast<int>(v[6]), static_cast<int>(v[7]));
}

/* The fan's FRUE state (also stored at frue_sns) has a usable offset.
 * Indexes past the last fan are never usable: no sensor beyond the table. */
[[maybe_unused]] bool is_usable_fan(uint8_t fanno, INT16U* frue_sns)
{
    INT16U local = 0;
    INT16U* out = frue_sns != nullptr ? frue_sns : &local;
    if (fanno >= kFanCount) {
        *out = 0;
        return false;
    }
    *out = read_sensor(kSnsFrueFan0 + fanno);
    return (*out & kFrueUsableMask) != 0;
}

/* Sleeps on select so that a signal does not cut the wait short: the
 * timeout left by an interrupted select is the remaining time. */
[[maybe_unused]] void start_sleep(int sec)
{
    struct timeval tv;
    tv.tv_sec = sec;
    tv.tv_usec = 0;
    while (select(0, nullptr, nullptr, nullptr, &tv) < 0 && errno == EINTR) {
    }
}

uint32_t now_seconds()
{
    return static_cast<uint32_t>(time(nullptr));
}

} // namespace

/* ---- Fan check bookkeeping ---------------------------------------------- */

extern "C" {

void znpdklib_set_check_fan_start_time(uint32_t fan_target, uint32_t* fan_start_time)
{
    tr(kLvInfo, 0x800C0001, "znpdklib_set_check_fan_start_time():start. fan_target=0x%08x",
       static_cast<int>(fan_target));
    const uint32_t timer = now_seconds();
    uint32_t written[kFanCount] = {};
    modify_system(
        [&](current_system_info_t& info) {
            for (int i = 0; i < kFanCount; ++i) {
                if (!in_set(fan_target, i)) {
                    continue;
                }
                const uint32_t old_time = info.fan_start_time[i];
                const uint8_t old_result = info.fan_check_result[i];
                info.fan_start_time[i] = timer;
                if (fan_start_time != nullptr) {
                    fan_start_time[i] = timer;
                }
                info.fan_check_result[i] = 0;
                sp_trace26(kLvInfo, kRegion, kModule, 0x800C0002,
                           "znpdklib_set_check_fan_start_time():/FANU#%d/FAN#%d fan_start_time:%d=>%d "
                           "fan_check_result:%d=>%d",
                           fanu_of(i), fan_of(i), static_cast<int>(old_time), static_cast<int>(timer),
                           old_result, 0);
            }
            return true;
        },
        [&](const current_system_info_t& info) { memcpy(written, info.fan_start_time, sizeof(written)); });
    trace8(0x800CFFFF, "znpdklib_set_check_fan_start_time():end. fan_start_time=%d/%d/%d/%d/%d/%d/%d/%d",
           written);
}

void znpdklib_clear_check_fan_start_time(uint32_t fan_target, uint32_t* fan_start_time)
{
    tr(kLvInfo, 0x80100001, "znpdklib_clear_check_fan_start_time():start. fan_target=0x%08x",
       static_cast<int>(fan_target));
    uint32_t written[kFanCount] = {};
    modify_system(
        [&](current_system_info_t& info) {
            for (int i = 0; i < kFanCount; ++i) {
                if (!in_set(fan_target, i)) {
                    continue;
                }
                if (fan_start_time != nullptr && fan_start_time[i] != info.fan_start_time[i]) {
                    /* Another check restamped this fan: its time is not ours. */
                    tr(kLvInfo, 0x80100003,
                       "znpdklib_clear_check_fan_start_time():/FANU#%d/FAN#%d not clear "
                       "fan_start_time_param=%d "
                       "fan_start_time_db=%d",
                       fanu_of(i), fan_of(i), static_cast<int>(fan_start_time[i]),
                       static_cast<int>(info.fan_start_time[i]));
                    continue;
                }
                const uint32_t old_time = info.fan_start_time[i];
                info.fan_start_time[i] = 0;
                tr(kLvInfo, 0x80100002,
                   "znpdklib_clear_check_fan_start_time():/FANU#%d/FAN#%d fan_start_time:%d=>%d", fanu_of(i),
                   fan_of(i), static_cast<int>(old_time), 0);
            }
            return true;
        },
        [&](const current_system_info_t& info) { memcpy(written, info.fan_start_time, sizeof(written)); });
    trace8(0x8010FFFF, "znpdklib_clear_check_fan_start_time():end. fan_start_time=%d/%d/%d/%d/%d/%d/%d/%d",
           written);
}

bool znpdklib_is_check_fan_executing(void)
{
    current_system_info_t info;
    read_system(&info);
    static const uint32_t zeros[kFanCount] = {};
    if (memcmp(info.fan_start_time, zeros, sizeof(zeros)) != 0) {
        trace8(0x800B0002, "znpdklib_is_check_fan_executing():fan check executing. %d/%d/%d/%d/%d/%d/%d/%d",
               info.fan_start_time);
        return true;
    }
    tr(kLvDetail, 0x800B0001, "znpdklib_is_check_fan_executing():fan check not executing");
    return false;
}

/* A null pointer stamps nothing: a caller that cannot learn the stamped time
 * could never clear it, and a stale attach time would block every recovery. */
void znpdklib_set_check_fan_start_time_by_attach(uint32_t* fan_start_time)
{
    tr(kLvInfo, 0x80130001, "znpdklib_set_check_fan_start_time_by_attach():start. fan_start_time=%d",
       fan_start_time != nullptr ? static_cast<int>(*fan_start_time) : 0);
    if (fan_start_time != nullptr) {
        const uint32_t timer = now_seconds();
        uint32_t old_time = 0;
        modify_system(
            [&](current_system_info_t& info) {
                old_time = info.fan_start_time_by_attach;
                info.fan_start_time_by_attach = timer;
                *fan_start_time = timer;
                return true;
            },
            [&](const current_system_info_t&) {
                tr(kLvInfo, 0x80130002,
                   "znpdklib_set_check_fan_start_time_by_attach():fan_start_time_by_attach:%d=>%d",
                   static_cast<int>(old_time), static_cast<int>(timer));
            });
    }
    tr(kLvInfo, 0x8013FFFF, "znpdklib_set_check_fan_start_time_by_attach():end");
}

void znpdklib_clear_check_fan_start_time_by_attach(uint32_t fan_start_time)
{
    tr(kLvInfo, 0x80140001, "znpdklib_clear_check_fan_start_time_by_attach():start. fan_start_time=%d",
       static_cast<int>(fan_start_time));
    uint32_t old_time = 0;
    modify_system(
        [&](current_system_info_t& info) {
            if (info.fan_start_time_by_attach != fan_start_time) {
                tr(kLvInfo, 0x80140003,
                   "znpdklib_clear_check_fan_start_time_by_attach():not clear. param=%d db=%d",
                   static_cast<int>(fan_start_time), static_cast<int>(info.fan_start_time_by_attach));
                return false;
            }
            old_time = info.fan_start_time_by_attach;
            info.fan_start_time_by_attach = 0;
            return true;
        },
        [&](const current_system_info_t&) {
            tr(kLvInfo, 0x80140002,
               "znpdklib_clear_check_fan_start_time_by_attach():fan_start_time_by_attach:%d=>%d",
               static_cast<int>(old_time), 0);
        });
    tr(kLvInfo, 0x8014FFFF, "znpdklib_clear_check_fan_start_time_by_attach():end");
}

bool znpdklib_is_check_fan_executing_by_attach(void)
{
    current_system_info_t info;
    read_system(&info);
    if (info.fan_start_time_by_attach != 0) {
        tr(kLvInfo, 0x80150002,
           "znpdklib_is_check_fan_executing_by_attach():fan check executing. fan_start_time_by_attach=%d",
           static_cast<int>(info.fan_start_time_by_attach));
        return true;
    }
    tr(kLvDetail, 0x80150001, "znpdklib_is_check_fan_executing_by_attach():fan check not executing");
    return false;
}

void znpdklib_set_fan_check_phase(uint8_t phase)
{
    tr(kLvInfo, 0x800E0001, "znpdklib_set_fan_check_phase():start. phase=0x%02x", phase);
    uint8_t old_phase = 0;
    modify_system(
        [&](current_system_info_t& info) {
            old_phase = info.fan_check_phase;
            info.fan_check_phase = phase;
            return true;
        },
        [&](const current_system_info_t&) {
            tr(kLvInfo, 0x800E0002, "znpdklib_set_fan_check_phase():set phase:0x%02x=>0x%02x", old_phase,
               phase);
        });
    tr(kLvInfo, 0x800EFFFF, "znpdklib_set_fan_check_phase():end");
}

uint8_t znpdklib_get_fan_check_phase(void)
{
    current_system_info_t info;
    read_system(&info);
    return info.fan_check_phase;
}

} /* extern "C" */
