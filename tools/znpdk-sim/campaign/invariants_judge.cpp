/* Invariants of the judgements: the redundancy sensors against the verdicts
 * counted from the hardware, the fans against their full-speed reasons. The
 * verdicts are counted from what the simulated hardware shows (the PSU
 * controller's registers by the model's own layout, the fan sensors), not by
 * following the library's steps. */
#include "campaign/invariants_parts.h"
#include "znlib.h"
#include "znpdk_sim/fan.h"
#include "znpdk_sim/psu.h"

namespace zcmd {
namespace inv {

namespace {

constexpr uint32_t kPsuReadFailed = 0x5400302;      /* the check's "read PSUC register failed" */
constexpr uint32_t kSpeedChangeFailed = 0x80030009; /* "change fan speed failed" */
constexpr uint16_t kFull = 0x2;
constexpr uint16_t kLost = 0x4;
constexpr uint16_t kShortage = 0x8;
constexpr uint64_t kReasonLost = 0x200000;
constexpr uint64_t kReasonShortage = 0x400000;

/* 0 redundant, 1 lost, 2 shortage: from usable units against the units full redundancy needs. */
int verdict(int usable, int needed)
{
    return usable >= needed ? 0 : usable == needed - 1 ? 1 : 2;
}

/* The redundancy sensor a check leaves: the verdict's state when it is new,
 * the recovery when `recover` allows it, otherwise as it was. */
uint16_t moved(uint16_t before, int v, bool recover)
{
    if (v == 1 && !(before & kLost)) {
        return kLost;
    }
    if (v == 2 && !(before & kShortage)) {
        return kShortage;
    }
    if (v == 0 && recover && (before & (kLost | kShortage))) {
        return kFull;
    }
    return before;
}

/* PSUs that can deliver power, as the PSU controller's model shows them:
 * mounted, FRU status usable (unknown only when the debug bit allows it),
 * present, AC good, PS-ON and power control on. */
int usable_psus(uint32_t common0, int excluded, bool& maintenance)
{
    const psuc_all_t img = zsim::psuc_image();
    int ok = 0;
    maintenance = false;
    for (int n = 0; n < 18; ++n) {
        uint32_t info = 0;
        if (znlib_psu_ctlinfo(n, &info) < 0 || (info >> 8) > 2) {
            continue;
        }
        const psuc_bob_t& bob = img.bob[info >> 8];
        const uint32_t fru = (bob.FRUStatus >> zsim::psu_fru_shift(n)) & 0xF;
        const uint32_t status = fru & 7;
        maintenance = maintenance || (fru & 8) != 0;
        if (status == 3 || status == 4 || (status == 0 && !(common0 & 0x10)) ||
            !(img.common.PresentSts & zsim::psu_word_mask(n)) ||
            !(img.common.ACOKSts & zsim::psu_word_mask(n)) || !(bob.PSONAndCntl & zsim::psu_byte_mask(n)) ||
            n == excluded) {
            continue;
        }
        ++ok;
    }
    return ok;
}

/* A redundancy check of a plain step as the verdict invariants judge it. */
struct Judged {
    int sensor;
    int mode;
    int ret;
    uint16_t before;
    uint16_t after;
    int counted;       /* the verdict counted from the hardware */
    std::string count; /* how, for the report */
};

/* Its result against `expected`, its sensor against `want`; a failed set of
 * the sensor (sensor mutex, save) stops where it failed: the sensor keeps
 * some or none of the bits it had, and no new one. */
void judge(Violations& bad, const Facts& f, const Judged& j, int expected, uint16_t want, bool excused)
{
    if (j.ret != expected) {
        bad.add("result " + std::to_string(j.ret) + " (" + j.count + ")", std::to_string(expected));
    }
    const bool set_failed = f.mutex_failed.count(kChassis) || f.save_failed.count(kChassis);
    if (j.after != want && !excused && !(set_failed && (j.after & ~j.before) == 0)) {
        bad.add(sensor_text(kChassis, j.sensor) + " " + word(j.after) + " after a check in mode " +
                    std::to_string(j.mode) + " with verdict " + std::to_string(j.counted) + " from " +
                    word(j.before),
                word(want));
    }
}

uint32_t debug_word(const View& v, int module)
{
    return v.setup.debug_flags.debug_flag[module];
}

} // namespace

/* psu-verdict: after a PSU redundancy check its result is the verdict
 * counted from the PSU controller and the slots of the system record, and
 * sensor 0x81 shows a new loss or shortage, a recovery in mode 3, or stays.
 * Protects the PSU redundancy judgement. Exceptions: a loss caused by a PSU
 * under maintenance may leave the sensor as it was; a failed set of the
 * sensor; while a procedure script answers the register read, the registers
 * are the script's and the check is not judged. */
int Checks::psu_verdict(const Facts& f, const View& v, StepReport& r)
{
    const Step* check = f.plain_call("znpdklib_check_psu_redundancy");
    const Step* pre = f.plain_call("znpdklib_check_psu_redundancy_for_psu_control");
    const Step* c = check != nullptr ? check : pre;
    if (c == nullptr) {
        return 0;
    }
    const int mode = arg(c, 0);
    const uint32_t common0 = debug_word(v, DBGW_BMCFW_MODULE_COMMON0);
    const bool refused = check != nullptr ? (mode < 1 || mode > 3) : mode != 17;
    const bool skipped = !refused && ((common0 & 0x2) || (debug_word(v, DBGW_BMCFW_MODULE_BMCINIT) & 0x2000));
    if (!refused && !skipped && zsim::hap_scripted("BOB_R_BOBC_PSUC")) {
        return 0;
    }
    const bool failed = !refused && !skipped && f.traced(kPsuReadFailed);
    bool maintenance = false;
    const int slots = v.sys.available_psu_slots;
    const int ok = usable_psus(common0, pre != nullptr ? arg(c, 1) : -1, maintenance);
    const Judged j = {kPsuRedundancy,
                      mode,
                      ret_of(r),
                      prev_.state(kChassis, kPsuRedundancy),
                      v.state(kChassis, kPsuRedundancy),
                      verdict(ok, slots),
                      std::to_string(ok) + " usable PSUs, " + std::to_string(slots) + " slots"};
    const bool disabled =
        v.sys.psu_redandancy_check_enable == 0 && (slots == 2 || (slots == 3 && j.counted != 2));
    const bool acts = check != nullptr && !refused && !skipped && !failed && !disabled;
    Violations bad(r, "psu-verdict");
    judge(bad, f, j,
          refused || failed     ? -1
          : skipped || disabled ? 0
                                : j.counted,
          acts ? moved(j.before, j.counted, mode == 3) : j.before,
          acts && j.counted == 1 && maintenance && j.after == j.before);
    return 1;
}

/* fan-verdict: after a fan redundancy check its result is the verdict
 * counted from the fan sensors (usable fans, and the fans of the lowest unit
 * under maintenance), sensor 0x82 shows a new loss or shortage or a recovery
 * that mode 2 may register, and a new loss or shortage has set its full-
 * speed reason (a recovery withdrawn both). Protects the fan redundancy
 * judgement. Exception: a failed set of the sensor. */
int Checks::fan_verdict(const Facts& f, const View& v, StepReport& r)
{
    const Step* c = f.plain_call("znpdklib_check_fan_redundancy");
    if (c == nullptr) {
        return 0;
    }
    const int mode = arg(c, 0);
    const bool refused = mode != 1 && mode != 2;
    const bool skipped = !refused && ((debug_word(v, DBGW_BMCFW_MODULE_COMMON0) & 0x2) ||
                                      (debug_word(v, DBGW_BMCFW_MODULE_BMCINIT) & 0x10000));
    int mainte = -1;
    for (int m = 0; m < 4 && mainte < 0; ++m) {
        mainte = v.state(kChassis, 0xDD + m) & 0x2 ? m : -1;
    }
    int ok = 0;
    int by_mainte = 0;
    for (int i = 0; i < 8; ++i) {
        const bool usable = (v.state(kChassis, 0xD1 + i) & 0x2E) != 0;
        ok += usable || i / 2 == mainte;
        by_mainte += !usable && i / 2 == mainte;
    }
    const Judged j = {kFanRedundancy,
                      mode,
                      ret_of(r),
                      prev_.state(kChassis, kFanRedundancy),
                      v.state(kChassis, kFanRedundancy),
                      verdict(ok, 8),
                      std::to_string(ok) + " of 8 fans counted good"};
    const bool recover = mode == 2 && by_mainte == 0 && v.sys.fan_start_time_by_attach == 0;
    const uint16_t want = refused || skipped ? j.before : moved(j.before, j.counted, recover);
    Violations bad(r, "fan-verdict");
    judge(bad, f, j, refused ? -1 : skipped ? 0 : j.counted, want, false);
    const uint64_t reasons = v.sys.fanfull_reason;
    if (want != j.before && j.after == want && !f.killed) {
        const uint64_t need = want == kLost ? kReasonLost : want == kShortage ? kReasonShortage : 0;
        const bool held =
            need != 0 ? (reasons & need) != 0 : (reasons & (kReasonLost | kReasonShortage)) == 0;
        if (!held) {
            bad.add("fanfull_reason " + hex(reasons, 16) + " after 17/0x82 moved to " + word(want),
                    need != 0 ? "bit " + hex(need, 8) + " set" : "bits 0x00600000 withdrawn");
        }
    }
    return 1;
}

/* full-speed: the fans run at full speed exactly while a full-speed reason
 * is set. Protects the speed procedure run on every transition of the
 * reasons. Exceptions, until the two agree again: a failed speed procedure
 * (the mask stays as written; a RAS log must say so), a scripted fan
 * procedure, a process killed in the step (between its write of the mask and
 * the speed procedure, which runs after the lock is given back), fan calls of
 * two processes in one step (each writes the mask under the lock, but their
 * speed procedures may run in the other order). Not judged
 * while library threads of the runner's process still run. */
int Checks::full_speed(const Facts& f, const View& v, StepReport& r)
{
    if (f.background) {
        return 0;
    }
    Violations bad(r, "full-speed");
    if (f.traced(kSpeedChangeFailed)) {
        if (f.ras.empty()) {
            bad.add("a failed fan speed procedure without a RAS log", "its RAS log registered");
        }
        fans_stale_ = true;
    }
    fans_stale_ = fans_stale_ || f.killed ||
                  f.callers("fan") > 1 /* two processes may have changed the reasons */ ||
                  zsim::hap_scripted("BOB_R_BOBC_FANC");
    const bool full = zsim::fan_full_speed();
    const bool reasons = v.sys.fanfull_reason != 0;
    if (full == reasons) {
        fans_stale_ = false;
    } else if (!fans_stale_) {
        bad.add(std::string("fans at ") + (full ? "full" : "normal") + " speed with fanfull_reason " +
                    hex(v.sys.fanfull_reason, 16),
                reasons ? "full speed" : "normal speed");
    }
    return 1;
}

} // namespace inv
} // namespace zcmd
