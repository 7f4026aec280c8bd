/* Invariants of the sensor states: one state per exclusive sensor, the save
 * file in step with the IPMI stack, the recovery, the initialisation. */
#include "campaign/invariants_parts.h"

namespace zcmd {
namespace inv {

namespace {

const char* const kAcMarker = "/tmp/.boot/.acon";
const char* const kInitReady = "/var/nvrdisk/.bmcinit_acon_ready";
constexpr uint8_t kFruType = 0xC1;
constexpr uint8_t kFrueType = 0xC2;

/* A set function's target as the story called it. */
struct SetCall {
    int inst = -1;
    int num = 0;
    int offset = 0;
    bool exclusive = false;
};

bool set_call(const Step* c, SetCall& s)
{
    const std::string& fn = c->function;
    s.num = arg(c, 0) & 0xFF;
    if (fn == "znpdklib_exSetSensorWoS") {
        s = {arg(c, 2), s.num, arg(c, 1) & 0xFF, true};
    } else if (fn == "znpdklib_exSetSensorWS") {
        s = {arg(c, 4), s.num, arg(c, 1) & 0x0F, true};
    } else if (fn == "znpdklib_SetSensorWoS" || fn == "ZNAPI_SetSensorWoS") {
        s = {arg(c, 3), s.num, arg(c, 2) & 0xFF, false};
    } else if (fn == "znpdklib_SetSensorWS" || fn == "ZNAPI_SetSensorWS") {
        s = {arg(c, 5), s.num, arg(c, 2) & 0x0F, false};
    } else {
        return false;
    }
    return s.inst >= 0 && s.inst < kInstances;
}

bool fru_sensor(int inst, int num)
{
    const uint8_t type = zsim::sensor(inst, static_cast<uint8_t>(num)).SensorTypeCode;
    return type == kFruType || type == kFrueType;
}

std::string entry_text(uint32_t e)
{
    std::string s = word(static_cast<uint16_t>(e));
    if (e >> 16) {
        s += " (flags " + hex((e >> 16) & 0xFF, 2) + ", level " + hex(e >> 24, 2) + ")";
    }
    return s;
}

} // namespace

/* exclusive-state: an exclusive sensor holds exactly one state (the
 * maintenance sensors at most one), no sensor a bit the machine does not
 * define for it, and an exclusive set leaves exactly the state it set.
 * Protects the clearing and asserting of the exclusive sets and every
 * judgement that moves a sensor with them. */
int Checks::exclusive_state(const Facts& f, const View& v, StepReport& r, bool all)
{
    Violations bad(r, "exclusive-state");
    if (f.reboot || f.reset) {
        mark_changed(v, blank_ok_); /* zeroed: no state until recovered or initialised */
    }
    for (int inst : f.save_failed) {
        mark_changed(v, blank_ok_, inst); /* an exclusive set stops after a clear it could not save */
    }
    for (const Step* c : f.calls_of("ZNAPI_MemSensorInfoRecover")) {
        const int inst = arg(c, 0);
        for (int n = 0; inst >= 0 && inst < kInstances && n < 256; ++n) {
            story_set_[key(inst, n)] = 1; /* put back as saved; the save was judged when made */
            blank_ok_[key(inst, n)] |=
                v.present[key(inst, n)] && v.state(inst, n) == 0; /* a blank saved entry */
        }
    }
    for (const Step* c : f.calls) {
        SetCall s;
        if (!set_call(c, s) || !v.present[key(s.inst, s.num)]) {
            continue;
        }
        const zsim::SensorStates d = zsim::sensor_states(s.inst, static_cast<uint8_t>(s.num));
        const uint32_t bit = s.offset < 16 ? 1u << s.offset : 0;
        if (!s.exclusive || (bit & d.defined) == 0) {
            story_set_[key(s.inst, s.num)] = 1; /* the set functions do as they are told */
        } else if (f.plain && ret_of(r) == 0 && v.reading[key(s.inst, s.num)] != bit) {
            bad.add("an exclusive set of " + sensor_text(s.inst, s.num) + " to offset " +
                        std::to_string(s.offset) + " leaving " + word(v.reading[key(s.inst, s.num)]),
                    word(static_cast<uint16_t>(bit)));
        }
    }
    for (int i = 0; i < kInstances; ++i) {
        for (int n = 0; n < 256; ++n) {
            const size_t k = key(i, n);
            if (!v.present[k] || (!all && v.reading[k] == prev_.reading[k] && prev_.present[k])) {
                continue; /* a state that stands was judged when it came */
            }
            const zsim::SensorStates d = zsim::sensor_states(i, static_cast<uint8_t>(n));
            const uint16_t w = v.reading[k];
            const int count = __builtin_popcount(w);
            if (count == 1 && (w & ~d.defined) == 0) {
                blank_ok_[k] = 0;
                story_set_[k] = 0;
                continue;
            }
            if (d.rule == zsim::StateRule::Unchecked || story_set_[k]) {
                continue;
            }
            if ((w & ~d.defined) != 0) {
                bad.add(sensor_text(i, n) + " " + word(w), "only states of " + word(d.defined));
            } else if (count > 1 && d.rule != zsim::StateRule::Flags) {
                bad.add(sensor_text(i, n) + " " + word(w), "one state");
            } else if (count == 0 && d.rule == zsim::StateRule::One && !blank_ok_[k]) {
                bad.add(sensor_text(i, n) + " with no state", "exactly one state");
            }
        }
    }
    return 1;
}

/* save-file: every sensor's entry in the save file equals the IPMI stack's
 * state (reading, flags, level). Protects the save after every change. The
 * entries that may differ until they agree again: the machine as built (the
 * file starts zeroed), states set outside the library, the stack emptied by
 * a reboot, a failed save, a killed process (its saves stay, its changes in
 * memory die with it), and library threads of the runner's process still
 * running (their sets are half done), calls of two processes in one step
 * (each saves what it set, and the stack keeps the change merged last). */
int Checks::save_file(const Facts& f, const View& v, StepReport& r)
{
    Violations bad(r, "save-file");
    if (f.outside) {
        mark_changed(v, dirty_);
    }
    for (int inst : f.save_failed) {
        mark_changed(v, dirty_, inst);
    }
    const bool resync = f.reboot || f.killed || f.threads_now || f.callers() > 1;
    for (int i = 1; i < kInstances; ++i) {
        for (int n = 0; n < 256; ++n) {
            const size_t k = key(i, n);
            if (!v.present[k]) {
                continue;
            }
            const uint32_t held = v.held(i, n);
            const uint32_t saved = v.saved(i, n);
            if (held == saved) {
                dirty_[k] = 0;
                continue;
            }
            if (!dirty_[k] && !resync) {
                bad.add("entry " + sensor_text(i, n) + " " + entry_text(saved),
                        entry_text(held) + " as the IPMI stack holds it");
            }
            dirty_[k] = 1; /* excused, or reported once, until the two agree again */
        }
    }
    return 1;
}

/* recovery: after a recovery every sensor of the instance holds its saved
 * state. Protects the recovery (what comes back after a BMC reboot). Not
 * after an AC power-on (nothing is recovered then) or a failed recovery;
 * flags and levels are compared where the recovery ran in the runner's own
 * process (a named process hands back the readings). */
int Checks::recovery(const Facts& f, const View& v, StepReport& r)
{
    const Step* c = f.plain_call("ZNAPI_MemSensorInfoRecover");
    const int inst = c != nullptr ? arg(c, 0) : -1;
    if (inst < 1 || inst >= kInstances || ret_of(r) != 0 || zsim::file_exists(kAcMarker)) {
        return 0;
    }
    Violations bad(r, "recovery");
    const uint32_t mask = c->process.empty() ? 0xFFFFFFFFu : 0xFFFFu;
    for (int n = 0; n < 256; ++n) {
        if (v.present[key(inst, n)] && (v.held(inst, n) & mask) != (v.saved(inst, n) & mask)) {
            bad.add(sensor_text(inst, n) + " " + entry_text(v.held(inst, n) & mask),
                    entry_text(v.saved(inst, n) & mask) + " as saved");
        }
    }
    return 1;
}

/* init-state: after an initialisation (AC power-on, or no first
 * initialisation yet) every sensor it sets holds its start-up state, or a
 * FRU sensor its error state kept. Protects the start-up states. Where the
 * story changed the component records, the FRU and PSU status sensors follow
 * the records and are left to exclusive-state; sets that failed (sensor
 * mutex, save) leave a sensor as it was or with no state. */
int Checks::init_state(const Facts& f, const View& v, StepReport& r)
{
    records_changed_ |= f.records;
    const Step* c = f.plain_call("ZNAPI_Sensor_Init");
    const int inst = c != nullptr ? arg(c, 0) : -1;
    if (inst < 1 || inst >= kInstances || (!zsim::file_exists(kAcMarker) && zsim::file_exists(kInitReady))) {
        return 0;
    }
    Violations bad(r, "init-state");
    for (int n = 0; n < 256; ++n) {
        const size_t k = key(inst, n);
        const zsim::SensorStates d = zsim::sensor_states(inst, static_cast<uint8_t>(n));
        if (!v.present[k] || d.start == 0) {
            continue;
        }
        uint16_t expected = d.start;
        const bool mainte = inst == kChassis && ((n >= 4 && n <= 32) || (n >= 221 && n <= 224));
        if (mainte) {
            const uint8_t o = v.setup.maintenance_sensor[n <= 32 ? n - 4 : n - 221 + 32];
            expected = o < 16 ? static_cast<uint16_t>(1u << o) : 0;
        }
        const bool psu_status = inst == kChassis && n >= 111 && n <= 128; /* offsets added, never cleared */
        const uint16_t seen = v.reading[k];
        const uint16_t before = prev_.reading[k];
        const bool fru = fru_sensor(inst, n);
        if ((psu_status ? (seen & expected) == expected : seen == expected) ||
            (fru && (before & 0x7FFF) > 2 && seen == before) || (records_changed_ && (fru || psu_status)) ||
            (f.save_failed.count(inst) && (seen & ~before & 0x7FFF) == 0) ||
            (f.mutex_failed.count(inst) && seen == before)) {
            continue;
        }
        bad.add(sensor_text(inst, n) + " " + word(seen) + " after the initialisation",
                word(expected) +
                    (mainte ? " (the setup record's maintenance state)" : " (its start-up state)"));
    }
    return 1;
}

} // namespace inv
} // namespace zcmd
