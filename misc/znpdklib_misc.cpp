#include "znpdklib.h"

/* ---- Outage marks, procedure wrapper, record clearing, sequence flags ---- */

/* (outage, procedure wrapper, record clearing and sequence flags go here) */

/* ---- BoB alarm LED and redundancy recovery ------------------------------ */

#include <stdlib.h>

#include "sp_trace.h"
#include "sputil.h"
#include "znlib.h"

/* Nested namespace: the other section of this file has helpers of its own. */
namespace {
namespace chassis_env {

constexpr int kChassisInst = 17;
constexpr INT8U kFrueEnvSensor = 0x49;
constexpr INT8U kRedundancyParent = 35;
constexpr INT8U kAlarmLedSensor = 33;
/* Fan redundancy first, then PSU redundancy. */
constexpr INT8U kRedundancySensors[] = {0x82, 0x81};

constexpr uint16_t kRedFully = 0x0002;
constexpr uint16_t kRedLost = 0x0004;
constexpr uint16_t kRedShortage = 0x0008;
/* FRU error sensor states that are not an error (offsets 0 to 3). */
constexpr uint16_t kFrueOkBits = 0x000F;
/* The same plus the CER state the shortage-to-lost path sets itself. */
constexpr uint16_t kFrueOkBitsCer = 0x002F;

constexpr INT8U kOffsetNormal = 1;
constexpr INT8U kOffsetWarning = 4;
constexpr INT8U kOffsetCer = 5;

void recover_trace(int level, uint32_t id, const char* fmt, int a1 = 0, int a2 = 0, int a3 = 0, int a4 = 0)
{
    sp_trace2(level, T_REGION_POWER_MON, SP_MID_BASE_UTIL, id, fmt, a1, a2, a3, a4);
}

uint16_t sensor_state_word(int inst, int sensor)
{
    INT16U status = 0;
    znpdklib_getDiscreteStatusSensorStatus(sensor, &status, inst);
    return static_cast<uint16_t>(status & 0x7FFF);
}

/* Entries come from files on disk: never hand an out-of-range one on. */
bool esc_entry_usable(const Esc_Sensor_t& e)
{
    return e.BMCInst >= 0 && e.BMCInst <= kChassisInst && e.Sensor_No >= 0 && e.Sensor_No <= 255;
}

Esc_Table_t escalation_of(const Esc_Sensor_t& target)
{
    Esc_Table_t table{};
    Esc_Sensor_t query = target;
    znpdklib_get_escalation_info(&query, &table);
    return table;
}

/*
 * True when one of the FRU error sensors of `table` is in error, i.e. has
 * none of `ok_bits`; traces the first such sensor with `id` and stops there.
 */
bool frue_error_found(const Esc_Table_t& table, uint16_t ok_bits, uint32_t id, const char* fmt)
{
    for (int i = 0; i < table.frue_count && table.frue_list != nullptr; ++i) {
        const Esc_Sensor_t& e = table.frue_list[i];
        if (!esc_entry_usable(e)) {
            continue;
        }
        uint16_t word = sensor_state_word(e.BMCInst, e.Sensor_No);
        if ((word & ok_bits) == 0) {
            recover_trace(0x8001, id, fmt, e.BMCInst, e.Sensor_No, word);
            return true;
        }
    }
    return false;
}

void free_escalation_lists(Esc_Table_t& table)
{
    free(table.frue_list);
    free(table.esc_list);
    table.frue_list = nullptr;
    table.esc_list = nullptr;
}

void bob_alarm_led_off()
{
    znlib_led_control(COMPO_SYSTEM, 0, 1, 1); /* LED 1 of the system to "off" */
}

/* Lowers a sensor to the warning state unless its lowest state is at or below it. */
void lower_to_warning(int inst, int sensor, uint32_t set_id, uint32_t skip_id)
{
    uint16_t word = sensor_state_word(inst, sensor);
    int offset = sputil_ntz16(word);
    if (offset > kOffsetWarning) {
        recover_trace(0x8001, set_id,
                      "znpdklib_redundancy_recover_shortage2lost():set warning. BMCInst=%d SensorNum=%d",
                      inst, sensor);
        znpdklib_exSetSensorWoS(static_cast<INT8U>(sensor), kOffsetWarning, inst);
    } else {
        recover_trace(
            0x8001, skip_id,
            "znpdklib_redundancy_recover_shortage2lost():skip set warning. BMCInst=%d SensorNum=%d SensorReading=0x%04x offset=%d",
            inst, sensor, word, offset);
    }
}

/*
 * Walks sensor 35 and then each of its escalation targets: a sensor is
 * handed to `act` (instance, sensor, whether it is 35 itself) only when none
 * of the FRU error sensors pointing at it is in error. Every list is freed.
 */
template <typename Act>
void walk_escalation(uint16_t frue_ok_bits, uint32_t parent_error_id, uint32_t target_error_id,
                     const char* error_fmt, Act act)
{
    Esc_Table_t top = escalation_of(Esc_Sensor_t{0, kChassisInst, kRedundancyParent});
    bool error = frue_error_found(top, frue_ok_bits, parent_error_id, error_fmt);
    free(top.frue_list);
    top.frue_list = nullptr;
    if (!error) {
        act(kChassisInst, kRedundancyParent, true);
    }

    for (int i = 0; i < top.esc_count && top.esc_list != nullptr; ++i) {
        const Esc_Sensor_t target = top.esc_list[i];
        Esc_Table_t sub = escalation_of(target);
        error = frue_error_found(sub, frue_ok_bits, target_error_id, error_fmt);
        if (!error && esc_entry_usable(target)) {
            act(target.BMCInst, target.Sensor_No, false);
        }
        free_escalation_lists(sub);
    }
    free_escalation_lists(top);
}

void redundancy_recover(int sensor_clear)
{
    recover_trace(0x8001, 0x81010001, "znpdklib_redundancy_recover():start. sensor_clear=%d", sensor_clear);

    for (INT8U sns : kRedundancySensors) {
        uint16_t word = sensor_state_word(kChassisInst, sns);
        if ((word & ~kRedFully) != 0) {
            recover_trace(
                0x8002, 0x81010002,
                "znpdklib_redundancy_recover():Redundansy sensor is not Fully. SensorNum=%d SensorReading=0x%04x",
                sns, word);
            return;
        }
    }

    if (sensor_clear) {
        recover_trace(0x8001, 0x81010008, "znpdklib_redundancy_recover():set normal to FRUE Environment");
        znpdklib_exSetSensorWoS(kFrueEnvSensor, kOffsetNormal, kChassisInst);
    }

    walk_escalation(
        kFrueOkBits, 0x81010003, 0x81010005,
        "znpdklib_redundancy_recover():detect FRUE error. BMCInst=%d SensorNum=%d SensorReading=0x%04x",
        [sensor_clear](int inst, int sensor, bool parent) {
            if (isValidSensorBMCInst(static_cast<INT8U>(sensor), inst) == 1 && sensor_clear) {
                recover_trace(0x8001, parent ? 0x81010004 : 0x81010006,
                              "znpdklib_redundancy_recover():set normal. BMCInst=%d SensorNum=%d", inst,
                              sensor);
                znpdklib_exSetSensorWoS(static_cast<INT8U>(sensor), kOffsetNormal, inst);
            }
            /* The alarm LED follows target 33 even when only checking. */
            if (!parent && sensor == kAlarmLedSensor) {
                recover_trace(0x8001, 0x81010007, "znpdklib_redundancy_recover():Chassis Alarm LED off");
                bob_alarm_led_off();
            }
        });
    recover_trace(0x8001, 0x8101FFFF, "znpdklib_redundancy_recover():end");
}

void redundancy_recover_shortage2lost()
{
    recover_trace(0x8001, 0x81020001, "znpdklib_redundancy_recover_shortage2lost():start");

    bool lost = false;
    for (INT8U sns : kRedundancySensors) {
        uint16_t word = sensor_state_word(kChassisInst, sns);
        if (word & kRedShortage) {
            recover_trace(
                0x8001, 0x81020002,
                "znpdklib_redundancy_recover_shortage2lost():Redundansy sensor is Shortage. SensorNum=%d SensorReading=0x%04x",
                sns, word);
            return;
        }
        if (word & kRedLost) {
            recover_trace(
                0x8001, 0x81020003,
                "znpdklib_redundancy_recover_shortage2lost():Redundansy Lost detect. SensorNum=%d SensorReading=0x%04x",
                sns, word);
            lost = true;
        }
    }
    if (!lost) {
        recover_trace(0x8001, 0x81020004,
                      "znpdklib_redundancy_recover_shortage2lost():Redundansy Lost not found");
        return;
    }

    recover_trace(0x8001, 0x81020005,
                  "znpdklib_redundancy_recover_shortage2lost():set CER to FRUE Environment");
    znpdklib_exSetSensorWoS(kFrueEnvSensor, kOffsetCer, kChassisInst);

    walk_escalation(
        kFrueOkBitsCer, 0x81020006, 0x81020009,
        "znpdklib_redundancy_recover_shortage2lost():detect FRUE error. BMCInst=%d SensorNum=%d SensorReading=0x%04x",
        [](int inst, int sensor, bool parent) {
            if (isValidSensorBMCInst(static_cast<INT8U>(sensor), inst) == 1) {
                lower_to_warning(inst, sensor, parent ? 0x81020007 : 0x8102000A,
                                 parent ? 0x81020008 : 0x8102000B);
            }
        });
    recover_trace(0x8001, 0x8102FFFF, "znpdklib_redundancy_recover_shortage2lost():end");
}

/* ---- BoB alarm LED ---- */

constexpr int kLedOff = 1;
constexpr int kLedEpo = 2;
constexpr int kLedError = 3;
constexpr INT8U kFruStatusSensorType = 0xC1;
constexpr int kFirstPsuSensor = 50;
constexpr int kLastPsuSensor = 67;

void led_trace(int level, uint32_t id, const char* fmt, int a1 = 0, int a2 = 0)
{
    sp_trace2(level, T_REGION_POWER_MON, SP_MID_BASE_UTIL, id, fmt, a1, a2, 0, 0);
}

/* A PSU sensor of the chassis whose slot the PSU library disowns is not evaluated. */
bool psu_sensor_ignored(int inst, int sensor)
{
    if (inst != kChassisInst || sensor < kFirstPsuSensor || sensor > kLastPsuSensor) {
        return false;
    }
    uint32_t info = 0;
    int ret = znlib_psu_ctlinfo(sensor - kFirstPsuSensor, &info);
    return ret == -1 || ret == 256;
}

/* Worst state of one instance's FRU status sensors; the highest-numbered detection decides. */
int eval_bob_alarm_led(int BMCInst)
{
    int result = kLedOff;
    for (int sensor = 0; sensor <= 255; ++sensor) {
        INT8U num = static_cast<INT8U>(sensor);
        if (isValidSensorBMCInst(num, BMCInst) != 1) {
            continue;
        }
        INT8U req = num;
        GetSensorTypeRes_T res{};
        GetSensorType(&req, 1, reinterpret_cast<INT8U*>(&res), BMCInst);
        if (res.CompletionCode != CC_NORMAL || res.SensorType != kFruStatusSensorType) {
            continue;
        }
        INT16U status = 0;
        znpdklib_getDiscreteStatusSensorStatus(sensor, &status, BMCInst);
        int offset = sputil_ntz16(static_cast<uint16_t>(status & 0x7FFF));
        if (psu_sensor_ignored(BMCInst, sensor)) {
            continue;
        }
        if (offset >= 4 && offset <= 8) {
            result = kLedError;
            sp_trace25(
                0x8001, T_REGION_POWER_MON, SP_MID_BASE_UTIL, 0x05410302,
                "eval_bob_alarm_led():detect error. BMCInst=%d sensor=%d status=0x%04x offset=%d result=%d",
                BMCInst, sensor, status, offset, result);
        } else if (offset == 9) {
            result = kLedEpo;
            sp_trace25(
                0x8001, T_REGION_POWER_MON, SP_MID_BASE_UTIL, 0x05410301,
                "eval_bob_alarm_led():detect EPO. BMCInst=%d sensor=%d status=0x%04x offset=%d result=%d",
                BMCInst, sensor, status, offset, result);
        }
    }
    return result;
}

int clear_bob_alarm_led()
{
    led_trace(1, 0x05410400, "znpdklib_clear_bob_alarm_led():start");

    int eval_state = eval_bob_alarm_led(kChassisInst);
    if (eval_state != kLedOff) {
        led_trace(0x8001, 0x05410401, "znpdklib_clear_bob_alarm_led():eval_led_state=%d by Chassis sensor",
                  eval_state);
    } else {
        for (int inst = 1; inst <= 16; ++inst) {
            eval_state = eval_bob_alarm_led(inst);
            if (eval_state != kLedOff) {
                led_trace(0x8001, 0x05410402,
                          "znpdklib_clear_bob_alarm_led():eval_led_state=%d by Node#%d sensor", eval_state,
                          inst - 1);
                break;
            }
        }
    }

    int cur = znlib_led_read(COMPO_SYSTEM, 0, 1, 0);
    if (cur <= 0) {
        led_trace(0x8002, 0x05410404, "znpdklib_clear_bob_alarm_led():znlib_led_read error. ret=%d", cur);
        return -1;
    }
    if (eval_state == kLedOff && cur != kLedOff) {
        led_trace(0x8001, 0x05410405, "znpdklib_clear_bob_alarm_led():BoB Alarm LED off. %d => %d", cur,
                  kLedOff);
        int ret = znlib_led_control(COMPO_SYSTEM, 0, 1, kLedOff);
        if (ret != 0) {
            led_trace(0x8002, 0x05410406, "znpdklib_clear_bob_alarm_led():znlib_led_control error. ret=%d",
                      ret);
            return -1;
        }
    } else {
        led_trace(
            0x8001, 0x05410407,
            "znpdklib_clear_bob_alarm_led():no need to change BoB Alarm LED. cur_led_state=%d eval_led_state=%d",
            cur, eval_state);
    }

    led_trace(1, 0x054104FF, "znpdklib_clear_bob_alarm_led():end. result=%d", 0);
    return 0;
}

} // namespace chassis_env
} // namespace

extern "C" int znpdklib_clear_bob_alarm_led(void)
{
    return chassis_env::clear_bob_alarm_led();
}

extern "C" void znpdklib_redundancy_recover(int sensor_clear)
{
    chassis_env::redundancy_recover(sensor_clear);
}

extern "C" void znpdklib_redundancy_recover_shortage2lost(void)
{
    chassis_env::redundancy_recover_shortage2lost();
}
