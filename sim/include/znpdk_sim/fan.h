/*
 * Simulated fans behind the BoB controller's fan procedure
 * "BOB_R_BOBC_FANC" on "/SYSTEM#0/BOBC#0":
 *   - "READ_FANSPEED": data[0..7] the speeds of fan index 0 to 7 at the
 *     current virtual time (fans outside the parameter word read 0), data[8]
 *     the FANC error word;
 *   - "MAX_FANSPEED" / "RESTORE_FANSPEED": switch between full and normal
 *     speed; data[0] (when given) is set to 0.
 *
 * A healthy fan settles at kFanNormalSpeed or kFanFullSpeed `ramp` seconds
 * after the fans were powered on, after the last speed change, or after it
 * was replaced; until then it reads the speed it had before (0 after power
 * on or replacement). init() and attach() power the fans on at the current
 * virtual time, at normal speed, with the default ramp.
 *
 * The model does not touch sensors: a fan that the BMC judges failed shows
 * in its FRUE sensor 0xD1 + n of instance 17, which other BMC processes set;
 * tests set it with zsim::set_sensor_reading (0x0002 usable, 0x0010 failed,
 * 0x0001 not installed).
 */
#ifndef ZNPDK_SIM_FAN_H
#define ZNPDK_SIM_FAN_H

#include <stdint.h>

#include <string>
#include <vector>

namespace zsim {

constexpr uint32_t kFanNormalSpeed = 9000;
constexpr uint32_t kFanFullSpeed = 13000;
constexpr uint32_t kFanDefaultRamp = 2;
/* RAS code the model puts in the log record of an injected failure. */
constexpr const char* kFanHapRasCode = "HCE_BOBC_FANC";

/* Powers all fans on now: every fan starts from 0 with its ramp. */
void fan_power_on();
/* Fan `fan` (0 to 7) takes `seconds` to settle from now on, also for the
 * transition under way (from power on or the last speed change). */
void fan_spin_up(int fan, uint32_t seconds);
/* The fan stops: it reads 0 from now on. */
void fan_stall(int fan);
/* The fan never turns faster than `speed`. */
void fan_slow(int fan, uint32_t speed);
/* A new, healthy fan with the default ramp takes the place of `fan` now. */
void fan_replace(int fan);
/* True while the model runs the fans at full speed. */
bool fan_full_speed();
/* The speed `fan` reads now (0 for an index outside 0 to 7). */
uint32_t fan_speed(int fan);
/* The FANC error word that successful reads report in data[8]. */
void set_fanc_error(uint32_t word);
/* The next `count` "READ_FANSPEED" calls fail: result `ret`, data[8] =
 * `fanc_error`, no speeds, both log records filled (kFanHapRasCode,
 * BMCInst 17, latch_code[0] = the error word; loglink.log_id = 0xFA,
 * num = 1, BMCInst = 17). */
void fail_fan_read(int ret, uint32_t fanc_error, int count = 1);
/* The next `count` calls of `mode` ("MAX_FANSPEED" or "RESTORE_FANSPEED")
 * fail with `ret`, data[0] = `data`, the log records filled as above; the
 * fans keep their speed. */
void fail_fan_speed_change(const std::string& mode, int ret, uint32_t data = 0, int count = 1);
/* The whole model (every fan, full or normal speed, the error word, the
 * failures still to come) as words, and back: the fans are one piece of
 * hardware, so a process that runs a step for another takes them along. */
std::vector<uint32_t> fan_state();
void set_fan_state(const std::vector<uint32_t>& words);

} // namespace zsim

#endif
