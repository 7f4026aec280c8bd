/* Recovery of the chassis sensors that follow the two redundancy sensors. */
#include <stdlib.h>

#include "ipmi_stack.h"
#include "sp_trace.h"
#include "sputil.h"
#include "znlib.h"
#include "znpdklib.h"
#include "znpdklib_internal.h"

namespace {

using namespace znpdk;

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
        uint16_t word = sensor_word(e.Sensor_No, e.BMCInst);
        if ((word & ok_bits) == 0) {
            kTracePowerMon(kLevelInfo, id, fmt, e.BMCInst, e.Sensor_No, word);
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
    uint16_t word = sensor_word(sensor, inst);
    int offset = sputil_ntz16(word);
    if (offset > kOffsetWarning) {
        kTracePowerMon(kLevelInfo, set_id,
                       "znpdklib_redundancy_recover_shortage2lost():set warning. BMCInst=%d SensorNum=%d",
                       inst, sensor);
        znpdklib_exSetSensorWoS(static_cast<INT8U>(sensor), kOffsetWarning, inst);
    } else {
        kTracePowerMon(
            kLevelInfo, skip_id,
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
    kTracePowerMon(kLevelInfo, 0x81010001, "znpdklib_redundancy_recover():start. sensor_clear=%d",
                   sensor_clear);

    for (INT8U sns : kRedundancySensors) {
        uint16_t word = sensor_word(sns, kChassisInst);
        if ((word & ~kRedFully) != 0) {
            kTracePowerMon(
                kLevelError, 0x81010002,
                "znpdklib_redundancy_recover():Redundansy sensor is not Fully. SensorNum=%d SensorReading=0x%04x",
                sns, word);
            return;
        }
    }

    if (sensor_clear) {
        kTracePowerMon(kLevelInfo, 0x81010008,
                       "znpdklib_redundancy_recover():set normal to FRUE Environment");
        znpdklib_exSetSensorWoS(kFrueEnvSensor, kOffsetNormal, kChassisInst);
    }

    walk_escalation(
        kFrueOkBits, 0x81010003, 0x81010005,
        "znpdklib_redundancy_recover():detect FRUE error. BMCInst=%d SensorNum=%d SensorReading=0x%04x",
        [sensor_clear](int inst, int sensor, bool parent) {
            if (isValidSensorBMCInst(static_cast<INT8U>(sensor), inst) == 1 && sensor_clear) {
                kTracePowerMon(kLevelInfo, parent ? 0x81010004 : 0x81010006,
                               "znpdklib_redundancy_recover():set normal. BMCInst=%d SensorNum=%d", inst,
                               sensor);
                znpdklib_exSetSensorWoS(static_cast<INT8U>(sensor), kOffsetNormal, inst);
            }
            /* The alarm LED follows target 33 even when only checking. */
            if (!parent && sensor == kAlarmLedSensor) {
                kTracePowerMon(kLevelInfo, 0x81010007, "znpdklib_redundancy_recover():Chassis Alarm LED off");
                bob_alarm_led_off();
            }
        });
    kTracePowerMon(kLevelInfo, 0x8101FFFF, "znpdklib_redundancy_recover():end");
}

void redundancy_recover_shortage2lost()
{
    kTracePowerMon(kLevelInfo, 0x81020001, "znpdklib_redundancy_recover_shortage2lost():start");

    bool lost = false;
    for (INT8U sns : kRedundancySensors) {
        uint16_t word = sensor_word(sns, kChassisInst);
        if (word & kRedShortage) {
            kTracePowerMon(
                kLevelInfo, 0x81020002,
                "znpdklib_redundancy_recover_shortage2lost():Redundansy sensor is Shortage. SensorNum=%d SensorReading=0x%04x",
                sns, word);
            return;
        }
        if (word & kRedLost) {
            kTracePowerMon(
                kLevelInfo, 0x81020003,
                "znpdklib_redundancy_recover_shortage2lost():Redundansy Lost detect. SensorNum=%d SensorReading=0x%04x",
                sns, word);
            lost = true;
        }
    }
    if (!lost) {
        kTracePowerMon(kLevelInfo, 0x81020004,
                       "znpdklib_redundancy_recover_shortage2lost():Redundansy Lost not found");
        return;
    }

    kTracePowerMon(kLevelInfo, 0x81020005,
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
    kTracePowerMon(kLevelInfo, 0x8102FFFF, "znpdklib_redundancy_recover_shortage2lost():end");
}

} // namespace

extern "C" void znpdklib_redundancy_recover(int sensor_clear)
{
    redundancy_recover(sensor_clear);
}

extern "C" void znpdklib_redundancy_recover_shortage2lost(void)
{
    redundancy_recover_shortage2lost();
}
