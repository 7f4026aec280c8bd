/*
 * Fan control and checks: full-speed reasons, fan redundancy, rotation
 * checks and their threads, and the bookkeeping they share in the system
 * record on the root component.
 */
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
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
#include "znpdklib.h"
#include "znpdklib_internal.h"

namespace {

using namespace znpdk;

constexpr int kFanCount = 8;
constexpr uint32_t kAllFans = 0xFF;

constexpr int kFanuCount = 4;
constexpr int kFancCount = 4;

/* Chassis sensors the fan code reads, and their bits. */
constexpr int kSnsSystemPower = 0x00;
constexpr int kSnsFanRedundancy = 0x82;
constexpr int kSnsFrueFan0 = 0xD1;
constexpr int kSnsFanuMainte0 = 0xDD;
constexpr uint16_t kSysPowerOff = 0x0001;
constexpr uint16_t kFrueUsableMask = 0x002E;
constexpr uint16_t kMainteOn = 0x0002;
constexpr uint16_t kRedLost = 0x0004;
constexpr uint16_t kRedShortage = 0x0008;

/* Full-speed reasons owned by the redundancy check. */
constexpr uint64_t kReasonLost = 0x200000;
constexpr uint64_t kReasonShortage = 0x400000;

constexpr uint32_t kThresholdSpinup = 2000;
constexpr uint32_t kThresholdNormal = 8000;
constexpr uint32_t kThresholdMax = 12000;
/* Bits of the common debug word. */
constexpr uint32_t kDebugDummyData = 0x40;
constexpr uint32_t kDebugSuspend = 0x80;

constexpr char kResultsFmt[] = "check_fan_rotation():fan_check_result=%d %d %d %d %d %d %d %d";
constexpr char kFanProcedure[] = "BOB_R_BOBC_FANC";

/* Lock order: chk_fan_rotation_mutex, chk_fan_redundacy_mutex, then one
 * component write lock; neither is taken while a write lock is held. */
pthread_mutex_t chk_fan_rotation_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t chk_fan_redundacy_mutex = PTHREAD_MUTEX_INITIALIZER;

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
    return sensor_word(sensor, kChassisInst);
}

/* A missing root reads as an all-zero record and is never written. */
current_system_info_t read_system()
{
    return read_record<current_system_info_t>(root(), PROP_CURRENT_INFO);
}

/* Read-modify-write of the system record under the root's write lock: the
 * record is written back when `change` answers true, and `written` runs
 * after the write while the lock is still held. */
template <typename F, typename G> void modify_system(F&& change, G&& written)
{
    Component* top = root();
    modify_record<current_system_info_t>(top, top, PROP_CURRENT_INFO, change, written);
}

template <typename F> void modify_system(F&& change)
{
    modify_system(change, [](const current_system_info_t&) {});
}

/* Replaces one field of the system record; `written` gets the old value
 * after the write, with the lock still held. */
template <typename T, typename G>
void exchange_system_field(T current_system_info_t::*field, T value, G&& written)
{
    T old = T();
    modify_system(
        [&](current_system_info_t& info) {
            old = info.*field;
            info.*field = value;
            return true;
        },
        [&](const current_system_info_t&) { written(old); });
}

struct StartTimes {
    uint32_t times[kFanCount];
};

/* Runs `per_fan` on each fan of the set in one read-modify-write of the
 * system record (written also for an empty set); answers the start times
 * as written. */
template <typename F> StartTimes for_fans_in_set(uint32_t fan_target, F&& per_fan)
{
    StartTimes written = {};
    modify_system(
        [&](current_system_info_t& info) {
            for (int i = 0; i < kFanCount; ++i) {
                if (in_set(fan_target, i)) {
                    per_fan(info, i);
                }
            }
            return true;
        },
        [&](const current_system_info_t& info) {
            memcpy(written.times, info.fan_start_time, sizeof(written.times));
        });
    return written;
}

void trace8(uint32_t id, const char* fmt, const uint32_t v[kFanCount], int level = kLevelInfo)
{
    sp_trace28(level, kTracePowerMon.region, kTracePowerMon.module, id, fmt, static_cast<int>(v[0]),
               static_cast<int>(v[1]), static_cast<int>(v[2]), static_cast<int>(v[3]), static_cast<int>(v[4]),
               static_cast<int>(v[5]), static_cast<int>(v[6]), static_cast<int>(v[7]));
}

/* The fan's FRUE state (also stored at frue_sns) has a usable offset.
 * Indexes past the last fan are never usable: no sensor beyond the table. */
bool is_usable_fan(uint8_t fanno, INT16U* frue_sns)
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
void start_sleep(int sec)
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

/* The root's setup record (debug words); zero when unreadable. */
setup_system_info_t read_setup()
{
    return read_record<setup_system_info_t>(root(), PROP_SETUP_INFO);
}

uint32_t debug_word(const setup_system_info_t& setup, int word)
{
    return setup.debug_flags.debug_flag[word];
}

/* A RAS record of the chassis instance with only its code filled. */
void make_ras(splog_info* loginfo, splog_linkup_info* loglink, const char* ras_code)
{
    memset(loginfo, 0, sizeof(*loginfo));
    memset(loglink, 0, sizeof(*loglink));
    snprintf(loginfo->ras_code, sizeof(loginfo->ras_code), "%s", ras_code);
    loginfo->BMCInst = kChassisInst;
}

/* Every usable fan joins the set, with one trace line per fan. */
uint32_t usable_fan_target(uint32_t id_target, const char* fmt_target, uint32_t id_not, const char* fmt_not)
{
    uint32_t target = 0;
    for (int i = 0; i < kFanCount; ++i) {
        INT16U frue = 0;
        if (is_usable_fan(static_cast<uint8_t>(i), &frue)) {
            target |= 1u << i;
            kTracePowerMon(kLevelInfo, id_target, fmt_target, fanu_of(i), fan_of(i), frue,
                           static_cast<int>(target));
        } else {
            kTracePowerMon(kLevelInfo, id_not, fmt_not, fanu_of(i), fan_of(i), frue,
                           static_cast<int>(target));
        }
    }
    return target;
}

} // namespace

/* ---- Fan check bookkeeping ---------------------------------------------- */

extern "C" {

void znpdklib_set_check_fan_start_time(uint32_t fan_target, uint32_t* fan_start_time)
{
    kTracePowerMon(kLevelInfo, 0x800C0001, "znpdklib_set_check_fan_start_time():start. fan_target=0x%08x",
                   static_cast<int>(fan_target));
    const uint32_t timer = now_seconds();
    const StartTimes written = for_fans_in_set(fan_target, [&](current_system_info_t& info, int i) {
        const uint32_t old_time = info.fan_start_time[i];
        const uint8_t old_result = info.fan_check_result[i];
        info.fan_start_time[i] = timer;
        if (fan_start_time != nullptr) {
            fan_start_time[i] = timer;
        }
        info.fan_check_result[i] = 0;
        sp_trace26(
            kLevelInfo, kTracePowerMon.region, kTracePowerMon.module, 0x800C0002,
            "znpdklib_set_check_fan_start_time():/FANU#%d/FAN#%d fan_start_time:%d=>%d fan_check_result:%d=>%d",
            fanu_of(i), fan_of(i), static_cast<int>(old_time), static_cast<int>(timer), old_result, 0);
    });
    trace8(0x800CFFFF, "znpdklib_set_check_fan_start_time():end. fan_start_time=%d/%d/%d/%d/%d/%d/%d/%d",
           written.times);
}

void znpdklib_clear_check_fan_start_time(uint32_t fan_target, uint32_t* fan_start_time)
{
    kTracePowerMon(kLevelInfo, 0x80100001, "znpdklib_clear_check_fan_start_time():start. fan_target=0x%08x",
                   static_cast<int>(fan_target));
    const StartTimes written = for_fans_in_set(fan_target, [&](current_system_info_t& info, int i) {
        if (fan_start_time != nullptr && fan_start_time[i] != info.fan_start_time[i]) {
            /* Another check restamped this fan: its time is not ours. */
            kTracePowerMon(
                kLevelInfo, 0x80100003,
                "znpdklib_clear_check_fan_start_time():/FANU#%d/FAN#%d not clear fan_start_time_param=%d fan_start_time_db=%d",
                fanu_of(i), fan_of(i), static_cast<int>(fan_start_time[i]),
                static_cast<int>(info.fan_start_time[i]));
            return;
        }
        const uint32_t old_time = info.fan_start_time[i];
        info.fan_start_time[i] = 0;
        kTracePowerMon(kLevelInfo, 0x80100002,
                       "znpdklib_clear_check_fan_start_time():/FANU#%d/FAN#%d fan_start_time:%d=>%d",
                       fanu_of(i), fan_of(i), static_cast<int>(old_time), 0);
    });
    trace8(0x8010FFFF, "znpdklib_clear_check_fan_start_time():end. fan_start_time=%d/%d/%d/%d/%d/%d/%d/%d",
           written.times);
}

bool znpdklib_is_check_fan_executing(void)
{
    const current_system_info_t info = read_system();
    static const uint32_t zeros[kFanCount] = {};
    if (memcmp(info.fan_start_time, zeros, sizeof(zeros)) != 0) {
        trace8(0x800B0002, "znpdklib_is_check_fan_executing():fan check executing. %d/%d/%d/%d/%d/%d/%d/%d",
               info.fan_start_time);
        return true;
    }
    kTracePowerMon(kLevelDetail, 0x800B0001, "znpdklib_is_check_fan_executing():fan check not executing");
    return false;
}

/* A null pointer stamps nothing: a caller that cannot learn the stamped time
 * could never clear it, and a stale attach time would block every recovery. */
void znpdklib_set_check_fan_start_time_by_attach(uint32_t* fan_start_time)
{
    kTracePowerMon(kLevelInfo, 0x80130001,
                   "znpdklib_set_check_fan_start_time_by_attach():start. fan_start_time=%d",
                   fan_start_time != nullptr ? static_cast<int>(*fan_start_time) : 0);
    if (fan_start_time != nullptr) {
        const uint32_t timer = now_seconds();
        exchange_system_field(
            &current_system_info_t::fan_start_time_by_attach, timer, [&](uint32_t old_time) {
                *fan_start_time = timer;
                kTracePowerMon(
                    kLevelInfo, 0x80130002,
                    "znpdklib_set_check_fan_start_time_by_attach():fan_start_time_by_attach:%d=>%d",
                    static_cast<int>(old_time), static_cast<int>(timer));
            });
    }
    kTracePowerMon(kLevelInfo, 0x8013FFFF, "znpdklib_set_check_fan_start_time_by_attach():end");
}

void znpdklib_clear_check_fan_start_time_by_attach(uint32_t fan_start_time)
{
    kTracePowerMon(kLevelInfo, 0x80140001,
                   "znpdklib_clear_check_fan_start_time_by_attach():start. fan_start_time=%d",
                   static_cast<int>(fan_start_time));
    uint32_t old_time = 0;
    modify_system(
        [&](current_system_info_t& info) {
            if (info.fan_start_time_by_attach != fan_start_time) {
                kTracePowerMon(kLevelInfo, 0x80140003,
                               "znpdklib_clear_check_fan_start_time_by_attach():not clear. param=%d db=%d",
                               static_cast<int>(fan_start_time),
                               static_cast<int>(info.fan_start_time_by_attach));
                return false;
            }
            old_time = info.fan_start_time_by_attach;
            info.fan_start_time_by_attach = 0;
            return true;
        },
        [&](const current_system_info_t&) {
            kTracePowerMon(kLevelInfo, 0x80140002,
                           "znpdklib_clear_check_fan_start_time_by_attach():fan_start_time_by_attach:%d=>%d",
                           static_cast<int>(old_time), 0);
        });
    kTracePowerMon(kLevelInfo, 0x8014FFFF, "znpdklib_clear_check_fan_start_time_by_attach():end");
}

bool znpdklib_is_check_fan_executing_by_attach(void)
{
    const current_system_info_t info = read_system();
    if (info.fan_start_time_by_attach != 0) {
        kTracePowerMon(
            kLevelInfo, 0x80150002,
            "znpdklib_is_check_fan_executing_by_attach():fan check executing. fan_start_time_by_attach=%d",
            static_cast<int>(info.fan_start_time_by_attach));
        return true;
    }
    kTracePowerMon(kLevelDetail, 0x80150001,
                   "znpdklib_is_check_fan_executing_by_attach():fan check not executing");
    return false;
}

void znpdklib_set_fan_check_phase(uint8_t phase)
{
    kTracePowerMon(kLevelInfo, 0x800E0001, "znpdklib_set_fan_check_phase():start. phase=0x%02x", phase);
    exchange_system_field(&current_system_info_t::fan_check_phase, phase, [&](uint8_t old_phase) {
        kTracePowerMon(kLevelInfo, 0x800E0002, "znpdklib_set_fan_check_phase():set phase:0x%02x=>0x%02x",
                       old_phase, phase);
    });
    kTracePowerMon(kLevelInfo, 0x800EFFFF, "znpdklib_set_fan_check_phase():end");
}

uint8_t znpdklib_get_fan_check_phase(void)
{
    const current_system_info_t info = read_system();
    return info.fan_check_phase;
}

} /* extern "C" */

/* ---- Fan speed control by reasons ---------------------------------------- */

namespace {

/* Both masks empty, or one reason both set and withdrawn: -2 after its line. */
bool reasons_valid(uint64_t set_reason, uint64_t reset_reason)
{
    if (set_reason == 0 && reset_reason == 0) {
        kTracePowerMon(
            kLevelError, 0x80030002,
            "znpdklib_change_fan_speed():not specified reason. set_reason=0x%08x%08x reset_reason=0x%08x%08x",
            hi32(set_reason), lo32(set_reason), hi32(reset_reason), lo32(reset_reason));
        return false;
    }
    if ((set_reason & reset_reason) != 0) {
        kTracePowerMon(
            kLevelError, 0x80030003,
            "znpdklib_change_fan_speed():specified same reason. set_reason=0x%08x%08x reset_reason=0x%08x%08x",
            hi32(set_reason), lo32(set_reason), hi32(reset_reason), lo32(reset_reason));
        return false;
    }
    return true;
}

/* Applies the reasons to the system record; answers the mask before and after. */
void update_reasons(uint64_t set_reason, uint64_t reset_reason, uint64_t* org_reason, uint64_t* new_reason)
{
    modify_system([&](current_system_info_t& info) {
        *org_reason = info.fanfull_reason;
        if (set_reason != 0) {
            info.fanfull_reason |= set_reason;
        }
        if (reset_reason != 0) {
            info.fanfull_reason &= ~reset_reason;
        }
        *new_reason = info.fanfull_reason;
        if (*new_reason == *org_reason) {
            kTracePowerMon(kLevelInfo, 0x80030004,
                           "znpdklib_change_fan_speed():not change reason. fanfull_reason=0x%08x%08x",
                           hi32(*new_reason), lo32(*new_reason));
            return false;
        }
        kTracePowerMon(kLevelInfo, 0x80030005,
                       "znpdklib_change_fan_speed():update fanfull_reason=0x%08x%08x => 0x%08x%08x",
                       hi32(*org_reason), lo32(*org_reason), hi32(*new_reason), lo32(*new_reason));
        return true;
    });
}

/* The controller only follows the zero / non-zero transitions of the mask:
 * the procedure mode for one, or null when the speed stays. */
const char* speed_mode(uint64_t org_reason, uint64_t new_reason)
{
    if (org_reason != 0 && new_reason != 0) {
        kTracePowerMon(
            kLevelInfo, 0x80030006,
            "znpdklib_change_fan_speed():skip fan max speed(already max speed). fanfull_reason=0x%08x%08x",
            hi32(new_reason), lo32(new_reason));
        return nullptr;
    }
    if (org_reason == 0) {
        kTracePowerMon(kLevelInfo, 0x80030007,
                       "znpdklib_change_fan_speed():change max fan speed. fanfull_reason=0x%08x%08x",
                       hi32(new_reason), lo32(new_reason));
        return "MAX_FANSPEED";
    }
    kTracePowerMon(kLevelInfo, 0x80030008,
                   "znpdklib_change_fan_speed():restore fan speed. fanfull_reason=0x%08x%08x",
                   hi32(new_reason), lo32(new_reason));
    return "RESTORE_FANSPEED";
}

/* Runs the fan controller procedure in `mode`; a failure is registered. */
bool run_speed_procedure(const char* mode)
{
    uint32_t data = 0;
    splog_info loginfo;
    splog_linkup_info loglink;
    memset(&loginfo, 0, sizeof(loginfo));
    memset(&loglink, 0, sizeof(loglink));
    const int ret = znlib_hce_exechap_noerrlogregist_withlinklog(kBobcPath, kFanProcedure, mode, nullptr,
                                                                 &data, &loginfo, &loglink);
    if (ret != 0) {
        kTracePowerMon(kLevelInfo, 0x80030009,
                       "znpdklib_change_fan_speed():change fan speed failed. ret=%d data=0x%08x", ret,
                       static_cast<int>(data));
        znpdklib_log_save_sel_error_log(&loginfo, &loglink);
        return false;
    }
    return true;
}

int change_fan_speed(uint64_t set_reason, uint64_t reset_reason)
{
    kTracePowerMon(kLevelInfo, 0x80030001,
                   "znpdklib_change_fan_speed():start. set_reason=0x%08x%08x reset_reason=0x%08x%08x",
                   hi32(set_reason), lo32(set_reason), hi32(reset_reason), lo32(reset_reason));
    if (!reasons_valid(set_reason, reset_reason)) {
        return -2;
    }
    uint64_t org_reason = 0;
    uint64_t new_reason = 0;
    update_reasons(set_reason, reset_reason, &org_reason, &new_reason);
    if (new_reason == org_reason) {
        return 1;
    }
    /* The procedure runs outside the record lock. */
    const char* mode = speed_mode(org_reason, new_reason);
    if (mode == nullptr) {
        return 1;
    }
    if (!run_speed_procedure(mode)) {
        return -1;
    }
    if (new_reason != 0) {
        const uint32_t fan_target = usable_fan_target(
            0x8003000A,
            "znpdklib_change_fan_speed(): /FANU#%d/FAN#%d is max speed check target. frue_sns=0x%04x fan_target=0x%08x",
            0x8003000B,
            "znpdklib_change_fan_speed(): /FANU#%d/FAN#%d is not max speed check target. frue_sns=0x%04x fan_target=0x%08x");
        znpdklib_create_fan_rotation_check_thread(1, fan_target);
    }
    kTracePowerMon(kLevelInfo, 0x8003FFFF, "znpdklib_change_fan_speed():end.");
    return 0;
}

} // namespace

extern "C" {

int znpdklib_max_fan_speed(uint64_t reason)
{
    kTracePowerMon(kLevelInfo, 0x80010001, "znpdklib_max_fan_speed():start. reason=0x%08x%08x", hi32(reason),
                   lo32(reason));
    const int rtn = znpdklib_change_fan_speed(reason, 0);
    kTracePowerMon(kLevelInfo, 0x8001FFFF, "znpdklib_max_fan_speed():end. rtn=%d", rtn);
    return rtn;
}

int znpdklib_restore_fan_speed(uint64_t reason)
{
    kTracePowerMon(kLevelInfo, 0x80020001, "znpdklib_restore_fan_speed():start. reason=0x%08x%08x",
                   hi32(reason), lo32(reason));
    const int rtn = znpdklib_change_fan_speed(0, reason);
    kTracePowerMon(kLevelInfo, 0x8002FFFF, "znpdklib_restore_fan_speed():end. rtn=%d", rtn);
    return rtn;
}

int znpdklib_change_fan_speed(uint64_t set_reason, uint64_t reset_reason)
{
    return change_fan_speed(set_reason, reset_reason);
}

} /* extern "C" */

/* ---- Fan redundancy check ------------------------------------------------ */

namespace {

/* Registers a redundancy transition and moves the redundancy sensor. */
void log_transition(const char* ras_code, uint32_t id, const char* fmt, INT8U offset)
{
    splog_info loginfo;
    splog_linkup_info loglink;
    make_ras(&loginfo, &loglink, ras_code);
    sp_trace4(kLevelInfo, kTracePowerMon.region, kTracePowerMon.module, id, fmt, loginfo.ras_code);
    znpdklib_log_save_sel_error_log(&loginfo, &loglink);
    znpdklib_exSetSensorWoS(kSnsFanRedundancy, offset, kChassisInst);
}

/* The debug words may switch the check off. */
bool redundancy_check_ignored()
{
    const setup_system_info_t setup = read_setup();
    const uint32_t debug_flag_common0 = debug_word(setup, DBGW_BMCFW_MODULE_COMMON0);
    const uint32_t debug_flag_bmcinit = debug_word(setup, DBGW_BMCFW_MODULE_BMCINIT);
    if ((debug_flag_common0 & 0x2) != 0 || (debug_flag_bmcinit & 0x10000) != 0) {
        kTracePowerMon(
            kLevelInfo, 0x8006000C,
            "check_fan_redundancy():redundancy check ignore end. debug_flag_common0=0x%08x debug_flag_bmcinit=0x%08x",
            static_cast<int>(debug_flag_common0), static_cast<int>(debug_flag_bmcinit));
        return true;
    }
    return false;
}

/* The first FANU under maintenance, or -1. */
int maintenance_fanu()
{
    for (int n = 0; n < kFanuCount; ++n) {
        const uint16_t mainte_sns = read_sensor(kSnsFanuMainte0 + n);
        if ((mainte_sns & kMainteOn) != 0) {
            kTracePowerMon(kLevelInfo, 0x80060002,
                           "check_fan_redundancy():FANU#%d maintenance. mainte_sns=0x%04x", n, mainte_sns);
            return n;
        }
    }
    return -1;
}

struct FanCount {
    int okfan = 0;
    int tmp_okfan = 0; /* counted only because their FANU is under maintenance */
};

/* Fans that count as working: usable ones, and the fans of the FANU under
 * maintenance or (mode 3) of the FANU about to enter it. */
FanCount count_ok_fans(int mode, int mainte_fanu_no, int chk_fanu_no)
{
    FanCount count;
    for (int i = 0; i < kFanCount; ++i) {
        INT16U frue = 0;
        const int unit = fanu_of(i);
        if (is_usable_fan(static_cast<uint8_t>(i), &frue)) {
            ++count.okfan;
            kTracePowerMon(kLevelInfo, 0x80060003,
                           "check_fan_redundancy():/FANU#%d/FAN#%d OK. frue_sns=0x%04x", unit, fan_of(i),
                           frue);
        } else if (unit == mainte_fanu_no) {
            ++count.okfan;
            ++count.tmp_okfan;
            kTracePowerMon(
                kLevelInfo, 0x80060004,
                "check_fan_redundancy():/FANU#%d/FAN#%d OK. frue_sns=0x%04x is NG. but FANU#%d is maintenance",
                unit, fan_of(i), frue, mainte_fanu_no);
        } else if (mode == 3 && unit == chk_fanu_no) {
            ++count.okfan;
            kTracePowerMon(
                kLevelInfo, 0x80060005,
                "check_fan_redundancy():/FANU#%d/FAN#%d OK. frue_sns=0x%04x is NG. but FANU#%d maintenance check target",
                unit, fan_of(i), frue, chk_fanu_no);
        } else {
            kTracePowerMon(kLevelInfo, 0x80060006,
                           "check_fan_redundancy():/FANU#%d/FAN#%d NG. frue_sns=0x%04x", unit, fan_of(i),
                           frue);
        }
    }
    return count;
}

/* Registers a change of the verdict and moves the sensor; answers the
 * full-speed reasons to set and to withdraw. */
void register_transition(int mode, int result, int tmp_okfan, uint16_t redundancy_sns, uint64_t* set_reason,
                         uint64_t* reset_reason)
{
    if (result == 0) {
        if (mode == 2 && tmp_okfan == 0 && !znpdklib_is_check_fan_executing_by_attach() &&
            (redundancy_sns & (kRedLost | kRedShortage)) != 0) {
            log_transition("BFW_CFG_FAN_H2", 0x80060008,
                           "check_fan_redundancy():recover fan redundancy. ras_code=%s", 1);
            znpdklib_redundancy_recover(1);
            *reset_reason = kReasonLost | kReasonShortage;
        }
    } else if (result == 1) {
        if ((redundancy_sns & kRedLost) == 0) {
            log_transition("BFW_CFG_FAN_H0", 0x80060009,
                           "check_fan_redundancy():fan redundancy lost. ras_code=%s", 2);
            *set_reason = kReasonLost;
            if ((redundancy_sns & kRedShortage) != 0) {
                kTracePowerMon(kLevelInfo, 0x8006000D,
                               "check_fan_redundancy():fan redundancy shortage to lost");
                znpdklib_redundancy_recover_shortage2lost();
            }
        }
    } else if ((redundancy_sns & kRedShortage) == 0) {
        log_transition("BFW_CFG_FAN_H1", 0x8006000A,
                       "check_fan_redundancy():fan redundancy shortage. ras_code=%s", 3);
        *set_reason = kReasonShortage;
    }
}

/* The verdict under chk_fan_redundacy_mutex, its registration and the fan
 * speed that follows; fanc_err may be null. */
int judge_redundancy(int mode, const FanCount& count, int* fanc_err, int logregist)
{
    ScopeLock lock(&chk_fan_redundacy_mutex);
    const int result = count.okfan == kFanCount ? 0 : (count.okfan == kFanCount - 1 ? 1 : 2);
    const uint16_t redundancy_sns = read_sensor(kSnsFanRedundancy);
    kTracePowerMon(kLevelInfo, 0x80060007,
                   "check_fan_redundancy():okfan=%d tmp_okfan=%d redundancy_sns=0x%04x result=%d",
                   count.okfan, count.tmp_okfan, redundancy_sns, result);
    uint64_t set_reason = 0;
    uint64_t reset_reason = 0;
    if (logregist != 0) {
        register_transition(mode, result, count.tmp_okfan, redundancy_sns, &set_reason, &reset_reason);
    }
    if (set_reason != 0 || reset_reason != 0) {
        if (fanc_err != nullptr) {
            *fanc_err = 0;
        }
        if (znpdklib_change_fan_speed(set_reason, reset_reason) == -1 && fanc_err != nullptr) {
            *fanc_err = 1;
        }
    }
    return result;
}

/* The evaluation behind both exported checks; fanc_err may be null. */
int check_fan_redundancy(int mode, int* fanc_err, int logregist, int chk_fanu_no)
{
    kTracePowerMon(kLevelInfo, 0x80060001,
                   "check_fan_redundancy():start. mode=%d logregist=%d chk_fanu_no=%d", mode, logregist,
                   chk_fanu_no);
    if (redundancy_check_ignored()) {
        return 0;
    }
    const int mainte_fanu_no = maintenance_fanu();
    if (mode == 3 && mainte_fanu_no != -1) {
        kTracePowerMon(kLevelInfo, 0x8006000B,
                       "check_fan_redundancy():Maintenance check NG. FANU#%d is already maintenace",
                       mainte_fanu_no);
        return 2;
    }
    const FanCount count = count_ok_fans(mode, mainte_fanu_no, chk_fanu_no);
    const int result = judge_redundancy(mode, count, fanc_err, logregist);
    kTracePowerMon(kLevelInfo, 0x8006FFFF, "check_fan_redundancy():end. result=%d", result);
    return result;
}

} // namespace

extern "C" {

/* A null fanc_err is accepted: the verdict is still returned and acted on. */
int znpdklib_check_fan_redundancy(int mode, int* fanc_err)
{
    kTracePowerMon(kLevelInfo, 0x80040001, "znpdklib_check_fan_redundancy():start. mode=%d", mode);
    if (mode != 1 && mode != 2) {
        kTracePowerMon(kLevelError, 0x80040002, "znpdklib_check_fan_redundancyy():invalid mode(=%d)", mode);
        return -1;
    }
    const int rtn = check_fan_redundancy(mode, fanc_err, 1, -1);
    kTracePowerMon(kLevelInfo, 0x8004FFFF, "znpdklib_check_fan_redundancy():end. rtn=%d fanc_err=%d", rtn,
                   fanc_err != nullptr ? *fanc_err : 0);
    return rtn;
}

int znpdklib_check_fan_redundancy_for_enter_mainte(int fanu_no)
{
    kTracePowerMon(kLevelInfo, 0x80050001,
                   "znpdklib_check_fan_redundancy_for_enter_mainte():start. fanu_no=%d", fanu_no);
    if (fanu_no > 3) {
        kTracePowerMon(kLevelError, 0x80050002,
                       "znpdklib_check_fan_redundancy_for_enter_mainte():illegal fanu_no=%d", fanu_no);
        return 1;
    }
    const uint16_t poff = read_sensor(kSnsSystemPower);
    if ((poff & kSysPowerOff) != 0) {
        kTracePowerMon(
            kLevelInfo, 0x80050003,
            "znpdklib_check_fan_redundancy_for_enter_mainte():System Poff(0x%04x) FANU maintenance OK", poff);
        return 0;
    }
    int fanc_err = 0;
    const int rtn = check_fan_redundancy(3, &fanc_err, 0, fanu_no);
    const int result = rtn == 0 ? 0 : 1;
    kTracePowerMon(kLevelInfo, 0x8005FFFF,
                   "znpdklib_check_fan_redundancy_for_enter_mainte():end. check redundancy rtn=%d result=%d",
                   rtn, result);
    return result;
}

} /* extern "C" */

/* ---- Fan rotation check -------------------------------------------------- */

namespace {

void trace8u8(uint32_t id, const char* fmt, const uint8_t v[kFanCount])
{
    uint32_t w[kFanCount];
    for (int i = 0; i < kFanCount; ++i) {
        w[i] = v[i];
    }
    trace8(id, fmt, w);
}

/* Waits while any bit of `debug_flag` is set in the common debug word. */
void debug_sleep(uint32_t debug_flag)
{
    int isSleep = 0;
    uint32_t flag = 0;
    for (;;) {
        flag = debug_word(read_setup(), DBGW_BMCFW_MODULE_COMMON0);
        if ((flag & debug_flag) == 0) {
            break;
        }
        if (isSleep == 0) {
            kTracePowerMon(kLevelInfo, 0x80160001,
                           "debug_sleep():suspend. current debug flag=0x%08x target debug flag=0x%08x",
                           static_cast<int>(flag), static_cast<int>(debug_flag));
            isSleep = 1;
        }
        start_sleep(5);
    }
    if (isSleep == 1) {
        kTracePowerMon(kLevelInfo, 0x80160002,
                       "debug_sleep():resume.  current debug flag=0x%08x target debug flag=0x%08x",
                       static_cast<int>(flag), static_cast<int>(debug_flag));
    }
}

/* Reads one line of at most size - 1 characters into line; the rest of a
 * longer line is passed over. Ends at '\n' even past a NUL byte, which
 * fgets and strchr cannot tell apart. False at the end of the file. */
bool read_line(FILE* in, char* line, size_t size)
{
    size_t n = 0;
    int c = getc(in);
    if (c == EOF) {
        return false;
    }
    for (; c != EOF && c != '\n'; c = getc(in)) {
        if (n + 1 < size) {
            line[n++] = static_cast<char>(c);
        }
    }
    line[n] = '\0';
    return true;
}

/* Applies the lines "fan:speed" of an open debug input file. A line longer
 * than the buffer is judged by its beginning. */
void apply_dummy_lines(FILE* in, uint32_t fan_target, uint32_t* data)
{
    char line[256];
    while (read_line(in, line, sizeof(line))) {
        int fanno = 0;
        int val = 0;
        if (sscanf(line, "%d:%d", &fanno, &val) != 2 || fanno < 0 || fanno >= kFanCount ||
            !in_set(fan_target, fanno)) {
            continue;
        }
        const uint32_t org = data[fanno];
        data[fanno] = static_cast<uint32_t>(val);
        kTracePowerMon(kLevelInfo, 0x80170002,
                       "debug_fan_check_dummy_data():/FANU#%d/FAN#%d set dummy rotaion %d=>%d",
                       fanu_of(fanno), fan_of(fanno), static_cast<int>(org), val);
    }
}

/* Replaces read speeds by the lines "fan:speed" of the debug input file. */
void debug_fan_check_dummy_data(uint32_t fan_target, uint32_t* data)
{
    const uint32_t flag = debug_word(read_setup(), DBGW_BMCFW_MODULE_COMMON0);
    if ((flag & kDebugDummyData) == 0) {
        return;
    }
    kTracePowerMon(kLevelInfo, 0x80170001,
                   "debug_fan_check_dummy_data():debug flag enable. debug flag=0x%08x",
                   static_cast<int>(flag));
    const char* const name = "/tmp/debug_fan_check_dummy_data";
    if (!sp::util::file::FileCheck::exist(name)) {
        sp_trace4(kLevelInfo, kTracePowerMon.region, kTracePowerMon.module, 0x80170003,
                  "debug_fan_check_dummy_data():debug file(%s) not exist", name);
        return;
    }
    FILE* in = fopen(getSPFilePath(name).c_str(), "r");
    if (in != nullptr) {
        apply_dummy_lines(in, fan_target, data);
        fclose(in);
    }
}

/* Whether a fan's time-out may be registered as a RAS error. */
int check_fan_rotation_err_registable(uint8_t fanno, uint32_t threshold)
{
    if (fanno >= kFanCount) {
        kTracePowerMon(kLevelInfo, 0x800F0001, "check_fan_rotation_err_registable():invalid fanno=%d", fanno);
        return 0;
    }
    const uint16_t poff = read_sensor(kSnsSystemPower);
    if ((poff & kSysPowerOff) != 0) {
        kTracePowerMon(kLevelInfo, 0x800F0002, "check_fan_rotation_err_registable():System Poff(0x%04x)",
                       poff);
        return 0;
    }
    INT16U frue = 0;
    if (!is_usable_fan(fanno, &frue)) {
        kTracePowerMon(
            kLevelInfo, 0x800F0003,
            "check_fan_rotation_err_registable():fan frue snser is already erorr. fano=%d frue_sns=0x%04x",
            fanno, frue);
        return 0;
    }
    if (threshold == kThresholdMax && read_system().fanfull_reason == 0) {
        kTracePowerMon(
            kLevelInfo, 0x800F0004,
            "check_fan_rotation_err_registable():fanfull_reason already clear. fanno=%d threshold=%d frue_sns=0x%04x",
            fanno, static_cast<int>(threshold), frue);
        return 0;
    }
    kTracePowerMon(kLevelInfo, 0x800F0005,
                   "check_fan_rotation_err_registable():registable. fanno=%d threshold=%d frue_sns=0x%04x",
                   fanno, static_cast<int>(threshold), frue);
    return 1;
}

/* Stores the eight results of a check's snapshot into a fresh record and
 * traces them as written under `id_after`. */
void write_fan_check_results(const uint8_t results[kFanCount], uint32_t id_after)
{
    modify_system(
        [&](current_system_info_t& info) {
            memcpy(info.fan_check_result, results, kFanCount);
            return true;
        },
        [&](const current_system_info_t& info) { trace8u8(id_after, kResultsFmt, info.fan_check_result); });
}

/* Fans outside the target that read not installed in a FANU under
 * maintenance: one such missing fan is no fault of the machine. */
uint8_t count_mainte_uninstalled(uint32_t target)
{
    uint8_t count = 0;
    for (int i = 0; i < kFanCount; ++i) {
        if (in_set(target, i)) {
            continue;
        }
        const uint16_t mainte_sns = read_sensor(kSnsFanuMainte0 + fanu_of(i));
        const uint16_t frue_sns = read_sensor(kSnsFrueFan0 + i);
        if ((mainte_sns & kMainteOn) != 0 && (frue_sns & 0x0001) != 0) {
            ++count;
            kTracePowerMon(
                kLevelInfo, 0x80090008,
                "check_fan_rotation():/FANU#%d/FAN#%d maintenace and unsitall. mainte_sns=0x%04x frue_sns=0x%04x",
                fanu_of(i), fan_of(i), mainte_sns, frue_sns);
        }
    }
    return count;
}

/* What one rotation check carries from poll to poll. */
struct RotationCheck {
    uint32_t target;
    const uint32_t* fan_start_time;
    uint32_t max_time;
    uint32_t threshold;
    current_system_info_t cinfo;
    uint32_t data[kFanCount + 1];
    splog_info loginfo;
    splog_linkup_info loglink;
};

/* The fan missed its time: result 1, and a RAS log where it may be registered. */
void register_timeout(RotationCheck& c, int i, uint32_t timer)
{
    c.cinfo.fan_check_result[i] = 1;
    c.target &= ~(1u << i);
    sp_trace27(
        kLevelInfo, kTracePowerMon.region, kTracePowerMon.module, 0x80090007,
        "check_fan_rotation():/FANU#%d/FAN#%d timeout. rotation=%d start=%d end=%d max_time=%d target=0x%02x",
        fanu_of(i), fan_of(i), static_cast<int>(c.data[i]), static_cast<int>(c.cinfo.fan_start_time[i]),
        static_cast<int>(timer), static_cast<int>(c.max_time), static_cast<int>(c.target));
    make_ras(&c.loginfo, &c.loglink, "BFW_FAN_CHK_H0");
    c.loginfo.part1_pos[0] = static_cast<uint8_t>(fanu_of(i));
    c.loginfo.part1_pos[1] = static_cast<uint8_t>(fan_of(i));
    if (check_fan_rotation_err_registable(static_cast<uint8_t>(i), c.threshold) == 1) {
        znpdklib_log_save_sel_error_log(&c.loginfo, &c.loglink);
    } else {
        kTracePowerMon(kLevelInfo, 0x8009000C,
                       "check_fan_rotation():/FANU#%d/FAN#%d skip regist fan rotation error SEL", fanu_of(i),
                       fan_of(i));
    }
}

/* One fan of the target after a read: restamped by another check, up to
 * speed, timed out, or still waited for. */
void judge_fan(RotationCheck& c, int i, const current_system_info_t& now, uint32_t timer)
{
    if (c.fan_start_time != nullptr && c.fan_start_time[i] != now.fan_start_time[i]) {
        c.target &= ~(1u << i);
        sp_trace25(
            kLevelInfo, kTracePowerMon.region, kTracePowerMon.module, 0x8009000D,
            "check_fan_rotation():/FANU#%d/FAN#%d other fan check started. fan_start_time_param=%d fan_start_time_db=%d target=0x%02x",
            fanu_of(i), fan_of(i), static_cast<int>(c.fan_start_time[i]),
            static_cast<int>(now.fan_start_time[i]), static_cast<int>(c.target));
    } else if (c.data[i] >= c.threshold) {
        c.target &= ~(1u << i);
        sp_trace25(
            kLevelInfo, kTracePowerMon.region, kTracePowerMon.module, 0x80090006,
            "check_fan_rotation():/FANU#%d/FAN#%d reach specified rotation. rotation=%d threshold=%d target=0x%02x",
            fanu_of(i), fan_of(i), static_cast<int>(c.data[i]), static_cast<int>(c.threshold),
            static_cast<int>(c.target));
    } else if (timer - c.cinfo.fan_start_time[i] >= c.max_time) {
        register_timeout(c, i, timer);
    }
}

/* A failed read: the fans of every FANC in error fail (2) and are stored. */
void record_read_failure(RotationCheck& c)
{
    kTracePowerMon(kLevelError, 0x80090004,
                   "check_fan_rotation():read fanspeed failed. target=0x%02x fanc_err=0x%08x",
                   static_cast<int>(c.target), static_cast<int>(c.data[kFanCount]));
    znpdklib_log_save_sel_error_log(&c.loginfo, &c.loglink);
    for (int n = 0; n < kFancCount; ++n) {
        if ((c.data[kFanCount] & (1u << n)) != 0) {
            c.cinfo.fan_check_result[n] = 2;
            c.cinfo.fan_check_result[n + kFancCount] = 2;
        }
    }
    write_fan_check_results(c.cinfo.fan_check_result, 0x8009000F);
}

/* One read of the fan speeds and the judgement of every fan still waited
 * for: -2 when the read failed, 1 when every fan is decided, else 0. */
int poll_once(RotationCheck& c)
{
    const uint32_t timer = now_seconds();
    uint32_t para = c.target;
    const int ret = znlib_hce_exechap_noerrlogregist_withlinklog(kBobcPath, kFanProcedure, "READ_FANSPEED",
                                                                 &para, c.data, &c.loginfo, &c.loglink);
    if (ret < 0) {
        record_read_failure(c);
        return -2;
    }
    debug_fan_check_dummy_data(c.target, c.data);
    trace8(0x80090005, "check_fan_rotation():FAN speed %d %d %d %d %d %d %d %d", c.data, kLevelDetail);
    const current_system_info_t now = read_system();
    for (int i = 0; i < kFanCount; ++i) {
        if (in_set(c.target, i)) {
            judge_fan(c, i, now, timer);
        }
    }
    if (c.target != 0) {
        return 0;
    }
    kTracePowerMon(kLevelInfo, 0x80090003, "check_fan_rotation():All FAN check complete. target=0x%02x",
                   static_cast<int>(c.target));
    write_fan_check_results(c.cinfo.fan_check_result, 0x80090010);
    return 1;
}

/* The verdict: 0 all fans fine, 2 one failed (and no fan is missing under
 * maintenance), -1 more; a failure re-runs the redundancy check. */
int rotation_verdict(const uint8_t results[kFanCount], uint8_t mainte_uninstall_fan)
{
    uint8_t ngfan = 0;
    for (int i = 0; i < kFanCount; ++i) {
        INT16U frue = 0;
        if (results[i] != 0 || !is_usable_fan(static_cast<uint8_t>(i), &frue)) {
            ++ngfan;
            kTracePowerMon(kLevelInfo, 0x80090011,
                           "check_fan_rotation():/FANU#%d/FAN#%d NG. fan_check_result=%d frue_sns=0x%04x",
                           fanu_of(i), fan_of(i), results[i], frue);
        }
    }
    int result = 0;
    if (ngfan == 1) {
        result = mainte_uninstall_fan == 0 ? 2 : -1;
    } else if (ngfan >= 2) {
        result = -1;
    }
    if (result != 0) {
        int fanc_err = 0;
        znpdklib_check_fan_redundancy(1, &fanc_err);
    }
    kTracePowerMon(kLevelInfo, 0x8009FFFF, "check_fan_rotation():result=%d ngfan=%d", result, ngfan);
    return result;
}

/* The polling check. Bits above the last fan are ignored: they could never
 * be decided and the poll would not end. */
int check_fan_rotation(uint32_t fan_check_target, uint32_t* fan_start_time, uint32_t max_time,
                       uint32_t threshold)
{
    RotationCheck c;
    memset(&c, 0, sizeof(c));
    c.target = fan_check_target & kAllFans;
    c.fan_start_time = fan_start_time;
    c.max_time = max_time;
    c.threshold = threshold;
    kTracePowerMon(kLevelInfo, 0x80090001,
                   "check_fan_rotation():start. fan_check_target=0x%08x max_time=%d threshold=%d",
                   static_cast<int>(fan_check_target), static_cast<int>(max_time),
                   static_cast<int>(threshold));
    if (threshold != kThresholdSpinup) {
        debug_sleep(kDebugSuspend);
    }
    c.cinfo = read_system();
    trace8u8(0x8009000E, kResultsFmt, c.cinfo.fan_check_result);
    const uint8_t mainte_uninstall_fan = count_mainte_uninstalled(c.target);
    kTracePowerMon(kLevelInfo, 0x80090002, "check_fan_rotation():target=0x%02x mainte_uninstall_fan=%d",
                   static_cast<int>(c.target), mainte_uninstall_fan);
    if (c.target == 0) {
        kTracePowerMon(kLevelInfo, 0x80090009, "check_fan_rotation():fan check target is not specified");
    }
    while (c.target != 0) {
        const int polled = poll_once(c);
        if (polled < 0) {
            return -2;
        }
        if (polled > 0) {
            break;
        }
        start_sleep(2);
    }
    return rotation_verdict(c.cinfo.fan_check_result, mainte_uninstall_fan);
}

/* The full-speed check used by the second check and the max speed thread. */
int max_speed_check(uint32_t fan_target)
{
    uint32_t fan_start_time[kFanCount] = {};
    znpdklib_set_check_fan_start_time(fan_target, fan_start_time);
    const int rtn = check_fan_rotation(fan_target, fan_start_time, 0, kThresholdMax);
    znpdklib_clear_check_fan_start_time(fan_target, fan_start_time);
    return rtn;
}

int check_fan_spinup()
{
    kTracePowerMon(kLevelInfo, 0x80070001, "znpdklib_check_fan_spinup():start");
    const uint32_t fan_target = usable_fan_target(
        0x80070002,
        "znpdklib_check_fan_spinup():/FANU#%d/FAN#%d is spinup check target. frue_sns=0x%04x fan_target=0x%08x",
        0x80070003,
        "znpdklib_check_fan_spinup():/FANU#%d/FAN#%d is not spinup check target. frue_sns=0x%04x fan_target=0x%08x");
    znpdklib_set_check_fan_start_time(fan_target, nullptr);
    const int rtn = check_fan_rotation(fan_target, nullptr, 10, kThresholdSpinup);
    if (rtn < 0) {
        znpdklib_clear_check_fan_start_time(kAllFans, nullptr);
        znpdklib_set_fan_check_phase(0x81);
    } else {
        /* The start times stay for the second check. */
        znpdklib_set_fan_check_phase(1);
    }
    kTracePowerMon(kLevelInfo, 0x8007FFFF, "znpdklib_check_fan_spinup():end. rtn=%d", rtn);
    return rtn;
}

/* The fans the second check waits for: stamped, not yet failed, usable. */
uint32_t second_check_target(const current_system_info_t& info)
{
    uint32_t fan_target = 0;
    for (int i = 0; i < kFanCount; ++i) {
        INT16U frue = 0;
        if (info.fan_start_time[i] != 0 && info.fan_check_result[i] == 0 &&
            is_usable_fan(static_cast<uint8_t>(i), &frue)) {
            fan_target |= 1u << i;
            kTracePowerMon(
                kLevelInfo, 0x80080005,
                "znpdklib_check_fan_rotation():/FANU#%d/FAN#%d is check target. fan_start_time=%d frue_sns=0x%04x",
                fanu_of(i), fan_of(i), static_cast<int>(info.fan_start_time[i]), frue);
        } else {
            sp_trace25(
                kLevelInfo, kTracePowerMon.region, kTracePowerMon.module, 0x80080006,
                "znpdklib_check_fan_rotation():/FANU#%d/FAN#%d is not check target. fan_start_time=%d fan_check_result=%d frue_sns=0x%04x",
                fanu_of(i), fan_of(i), static_cast<int>(info.fan_start_time[i]), info.fan_check_result[i],
                frue);
        }
    }
    return fan_target;
}

/* Full speed set while the second check ran: no thread checks it before
 * phase 2, so the check does it here. */
int max_speed_after_second_check(int rtn)
{
    kTracePowerMon(
        kLevelInfo, 0x80080007,
        "znpdklib_check_fan_rotation(): max speed is set while 2nd check. execute max speed check");
    start_sleep(5);
    if (read_system().fanfull_reason == 0) {
        kTracePowerMon(
            kLevelInfo, 0x8008000A,
            "znpdklib_check_fan_rotation(): skip max speed check. fanfull_reason is alraedy clear");
        return rtn;
    }
    const uint32_t fan_target = usable_fan_target(
        0x80080008,
        "znpdklib_check_fan_rotation(): /FANU#%d/FAN#%d is max speed check target. frue_sns=0x%04x fan_target=0x%08x",
        0x80080009,
        "znpdklib_check_fan_rotation(): /FANU#%d/FAN#%d is not max speed check target. frue_sns=0x%04x fan_target=0x%08x");
    return max_speed_check(fan_target);
}

/* The second check under chk_fan_rotation_mutex; false when skipped. */
bool second_check(int* result)
{
    ScopeLock lock(&chk_fan_rotation_mutex);
    const uint8_t phase = znpdklib_get_fan_check_phase();
    if (phase == 0x02 || phase == 0x82) {
        kTracePowerMon(kLevelInfo, 0x8008000B,
                       "znpdklib_check_fan_rotation():skip. fan_check_phase is already 2nd end. phase=0x%02x",
                       phase);
        return false;
    }
    if (!znpdklib_is_check_fan_executing()) {
        kTracePowerMon(kLevelInfo, 0x80080002, "znpdklib_check_fan_rotation():skip");
        return false;
    }
    const current_system_info_t info = read_system();
    const uint32_t fan_target = second_check_target(info);
    const uint32_t threshold = info.fanfull_reason != 0 ? kThresholdMax : kThresholdNormal;
    kTracePowerMon(kLevelInfo, 0x80080004,
                   "znpdklib_check_fan_rotation():fan_target=0x%08x threshold=%d fanfull_reason=0x%08x%08x",
                   static_cast<int>(fan_target), static_cast<int>(threshold), hi32(info.fanfull_reason),
                   lo32(info.fanfull_reason));
    int rtn = check_fan_rotation(fan_target, nullptr, 15, threshold);
    znpdklib_clear_check_fan_start_time(kAllFans, nullptr);
    const bool full_now = read_system().fanfull_reason != 0;
    if (threshold == kThresholdNormal && full_now && rtn >= 0) {
        rtn = max_speed_after_second_check(rtn);
    }
    znpdklib_set_fan_check_phase(rtn < 0 ? 0x82 : 0x02);
    *result = rtn;
    return true;
}

} // namespace

extern "C" {

int znpdklib_check_fan_spinup(void)
{
    return guard(__func__, -1, check_fan_spinup);
}

int znpdklib_check_fan_rotation(void)
{
    return guard(__func__, -1, [] {
        kTracePowerMon(kLevelInfo, 0x80080001, "znpdklib_check_fan_rotation():start");
        int rtn = 0;
        if (!second_check(&rtn)) {
            return 1;
        }
        kTracePowerMon(kLevelInfo, 0x8008FFFF, "znpdklib_check_fan_rotation():end. rtn=%d", rtn);
        return rtn;
    });
}

} /* extern "C" */

/* ---- Fan rotation check threads ------------------------------------------ */

namespace {

/* Takes over the argument block: it belongs to the thread from creation on. */
uint32_t take_thread_arg(void* pArg)
{
    uint32_t fan_target = 0;
    if (pArg != nullptr) {
        fan_target = *static_cast<uint32_t*>(pArg);
        free(pArg);
    }
    return fan_target;
}

/* A thread's verdict: any non-zero result is an error. */
void trace_outcome(uint32_t fan_target, int rtn, uint32_t id_error, const char* fmt_error,
                   uint32_t id_complete, const char* fmt_complete)
{
    if (rtn != 0) {
        kTracePowerMon(kLevelInfo, id_error, fmt_error, static_cast<int>(fan_target), rtn);
    } else {
        kTracePowerMon(kLevelInfo, id_complete, fmt_complete, static_cast<int>(fan_target), rtn);
    }
}

void max_rotate_check(uint32_t fan_target)
{
    int rtn = 0;
    kTracePowerMon(kLevelInfo, 0x800D0001, "[Fan_Max_Rotate_Check_Thread] start. fan_target=0x%08x",
                   static_cast<int>(fan_target));
    uint32_t fan_start_time[kFanCount] = {};
    znpdklib_set_check_fan_start_time(fan_target, fan_start_time);
    {
        ScopeLock lock(&chk_fan_rotation_mutex);
        start_sleep(5);
        const uint16_t poff = read_sensor(kSnsSystemPower);
        if ((poff & kSysPowerOff) != 0) {
            kTracePowerMon(kLevelInfo, 0x800D0002,
                           "[Fan_Max_Rotate_Check_Thread] skip max speed check. System Poff(0x%04x)", poff);
        } else {
            if (read_system().fanfull_reason != 0) {
                rtn = check_fan_rotation(fan_target, fan_start_time, 0, kThresholdMax);
            } else {
                kTracePowerMon(
                    kLevelInfo, 0x800D0003,
                    "[Fan_Max_Rotate_Check_Thread] skip max speed check. fanfull_reason is alraedy clear");
            }
        }
        znpdklib_clear_check_fan_start_time(fan_target, fan_start_time);
        trace_outcome(fan_target, rtn, 0x800D0004,
                      "[Fan_Max_Rotate_Check_Thread] rotation check error. fan_target=0x%08x rtn=%d",
                      0x800D0005,
                      "[Fan_Max_Rotate_Check_Thread] rotation check complete. fan_target=0x%08x rtn=%d");
        kTracePowerMon(kLevelInfo, 0x800DFFFF, "[Fan_Max_Rotate_Check_Thread] end. fan_target=0x%08x rtn=%d",
                       static_cast<int>(fan_target), rtn);
    }
}

void rotate_check(uint32_t fan_target)
{
    int rtn = 0;
    kTracePowerMon(kLevelInfo, 0x80120001, "[Fan_Rotate_Check_Thread] start. fan_target=0x%08x",
                   static_cast<int>(fan_target));
    const current_system_info_t info = read_system();
    const uint32_t threshold = info.fanfull_reason != 0 ? kThresholdMax : kThresholdNormal;
    uint32_t fan_start_time[kFanCount] = {};
    uint32_t fan_start_time_by_attach = 0;
    znpdklib_set_check_fan_start_time(fan_target, fan_start_time);
    znpdklib_set_check_fan_start_time_by_attach(&fan_start_time_by_attach);
    {
        /* Stamped before the wait: the time limit includes it. */
        ScopeLock lock(&chk_fan_rotation_mutex);
        rtn = check_fan_rotation(fan_target, fan_start_time, 15, threshold);
        znpdklib_clear_check_fan_start_time_by_attach(fan_start_time_by_attach);
        znpdklib_clear_check_fan_start_time(fan_target, fan_start_time);
        trace_outcome(fan_target, rtn, 0x80120002,
                      "[Fan_Rotate_Check_Thread] rotation check error. fan_target=0x%08x rtn=%d", 0x80120003,
                      "[Fan_Rotate_Check_Thread] rotation check complete. fan_target=0x%08x rtn=%d");
        if (rtn == 0) {
            int fanc_err = 0;
            znpdklib_check_fan_redundancy(2, &fanc_err);
        }
        kTracePowerMon(kLevelInfo, 0x8012FFFF, "[Fan_Rotate_Check_Thread] end. fan_target=0x%08x rtn=%d",
                       static_cast<int>(fan_target), rtn);
    }
}

/* pthread_exit unwinds the thread: it stays outside the guard. */
void* Fan_Max_Rotate_Check_Thread(void* pArg)
{
    const uint32_t fan_target = take_thread_arg(pArg);
    guard_void(__func__, [fan_target] { max_rotate_check(fan_target); });
    pthread_exit(nullptr);
}

void* Fan_Rotate_Check_Thread(void* pArg)
{
    const uint32_t fan_target = take_thread_arg(pArg);
    guard_void(__func__, [fan_target] { rotate_check(fan_target); });
    pthread_exit(nullptr);
}

/* One detached thread owning a copy of `fan_target`. */
void start_check_thread(uint8_t mode, uint32_t fan_target)
{
    uint32_t* arg = static_cast<uint32_t*>(malloc(sizeof(uint32_t)));
    if (arg == nullptr) {
        /* No memory for the argument: no thread, the caller cannot be told. */
        IDBG_LINUXAPP_DbgOut(IDBG_LEVEL_LINUXAPP, "[%s:%d]Error allocating thread argument\n", "znpdklib_fan",
                             __LINE__);
        return;
    }
    *arg = fan_target;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t tid;
    const int ret =
        pthread_create(&tid, &attr, mode == 2 ? Fan_Rotate_Check_Thread : Fan_Max_Rotate_Check_Thread, arg);
    if (ret != 0) {
        IDBG_LINUXAPP_DbgOut(IDBG_LEVEL_LINUXAPP, "[%s:%d]Error creating thread\n", "znpdklib_fan", __LINE__);
        /* No thread took the block over, so it is still ours. */
        free(arg);
    }
    pthread_attr_destroy(&attr);
}

void create_check_thread(uint8_t mode, uint32_t fan_target)
{
    kTracePowerMon(kLevelInfo, 0x80110001,
                   "znpdklib_create_fan_rotation_check_thread():start. mode=0x%02x fan_target=0x%08x", mode,
                   static_cast<int>(fan_target));
    const uint16_t poff = read_sensor(kSnsSystemPower);
    if ((poff & kSysPowerOff) != 0) {
        kTracePowerMon(kLevelInfo, 0x80110002,
                       "znpdklib_create_fan_rotation_check_thread():cancel. System Poff(0x%04x)", poff);
        return;
    }
    const uint8_t phase = znpdklib_get_fan_check_phase();
    if (phase != 0x02) {
        kTracePowerMon(kLevelInfo, 0x80110003,
                       "znpdklib_create_fan_rotation_check_thread():cancel. phase=0x%02x", phase);
        return;
    }

    start_check_thread(mode, fan_target);
    kTracePowerMon(kLevelInfo, 0x8011FFFF, "znpdklib_create_fan_rotation_check_thread():end.");
}

} // namespace

extern "C" void znpdklib_create_fan_rotation_check_thread(uint8_t mode, uint32_t fan_target)
{
    create_check_thread(mode, fan_target);
}
