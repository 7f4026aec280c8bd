/* The BoB alarm LED: switched off when no FRU status sensor shows an error. */
#include "ipmi_stack.h"
#include "sp_trace.h"
#include "sputil.h"
#include "znlib.h"
#include "znpdklib.h"
#include "znpdklib_internal.h"

namespace {

using namespace znpdk;

/* The LED's states, as the LED control call and the evaluation name them. */
enum LedState : int { kLedOff = 1, kLedEpo = 2, kLedError = 3 };

constexpr INT8U kFruStatusSensorType = 0xC1;
/* The chassis's PSU sensors, slot 0 first. */
constexpr int kFirstPsuSensor = 50;
constexpr int kLastPsuSensor = 67;

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
        int offset = sputil_ntz16(static_cast<uint16_t>(status & 0x7FFF)); /* the line shows the raw word */
        if (psu_sensor_ignored(BMCInst, sensor)) {
            continue;
        }
        if (offset >= 4 && offset <= 8) {
            result = kLedError;
            sp_trace25(
                kLevelInfo, T_REGION_POWER_MON, SP_MID_BASE_UTIL, 0x05410302,
                "eval_bob_alarm_led():detect error. BMCInst=%d sensor=%d status=0x%04x offset=%d result=%d",
                BMCInst, sensor, status, offset, result);
        } else if (offset == 9) {
            result = kLedEpo;
            sp_trace25(
                kLevelInfo, T_REGION_POWER_MON, SP_MID_BASE_UTIL, 0x05410301,
                "eval_bob_alarm_led():detect EPO. BMCInst=%d sensor=%d status=0x%04x offset=%d result=%d",
                BMCInst, sensor, status, offset, result);
        }
    }
    return result;
}

int clear_bob_alarm_led()
{
    kTracePowerMon(kLevelCall, 0x05410400, "znpdklib_clear_bob_alarm_led():start");

    int eval_state = eval_bob_alarm_led(kChassisInst);
    if (eval_state != kLedOff) {
        kTracePowerMon(kLevelInfo, 0x05410401,
                       "znpdklib_clear_bob_alarm_led():eval_led_state=%d by Chassis sensor", eval_state);
    } else {
        for (int inst = 1; inst <= 16; ++inst) {
            eval_state = eval_bob_alarm_led(inst);
            if (eval_state != kLedOff) {
                kTracePowerMon(kLevelInfo, 0x05410402,
                               "znpdklib_clear_bob_alarm_led():eval_led_state=%d by Node#%d sensor",
                               eval_state, inst - 1);
                break;
            }
        }
    }

    int cur = znlib_led_read(COMPO_SYSTEM, 0, 1, 0);
    if (cur <= 0) {
        kTracePowerMon(kLevelError, 0x05410404, "znpdklib_clear_bob_alarm_led():znlib_led_read error. ret=%d",
                       cur);
        return -1;
    }
    if (eval_state == kLedOff && cur != kLedOff) {
        kTracePowerMon(kLevelInfo, 0x05410405, "znpdklib_clear_bob_alarm_led():BoB Alarm LED off. %d => %d",
                       cur, kLedOff);
        int ret = znlib_led_control(COMPO_SYSTEM, 0, 1, kLedOff);
        if (ret != 0) {
            kTracePowerMon(kLevelError, 0x05410406,
                           "znpdklib_clear_bob_alarm_led():znlib_led_control error. ret=%d", ret);
            return -1;
        }
    } else {
        kTracePowerMon(
            kLevelInfo, 0x05410407,
            "znpdklib_clear_bob_alarm_led():no need to change BoB Alarm LED. cur_led_state=%d eval_led_state=%d",
            cur, eval_state);
    }

    kTracePowerMon(kLevelCall, 0x054104FF, "znpdklib_clear_bob_alarm_led():end. result=%d", 0);
    return 0;
}

} // namespace

extern "C" int znpdklib_clear_bob_alarm_led(void)
{
    return clear_bob_alarm_led();
}
