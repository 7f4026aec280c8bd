/* Invariants of what a step leaves behind: its logs and SEL records, its
 * locks, its time. */
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "campaign/invariants_parts.h"

namespace zcmd {
namespace inv {

namespace {

constexpr uint32_t kStepBoundMs = 20000;      /* a step's real time besides its semaphore waits */
constexpr uint32_t kDefaultSemWaitMs = 30000; /* the platform's bound of one semaphore wait */

/* The calls that run the fan procedures, their checks and threads. */
const char* const kFanCalls[] = {
    "znpdklib_check_fan_redundancy", "znpdklib_check_fan_rotation",
    "znpdklib_check_fan_spinup",     "znpdklib_create_fan_rotation_check_thread",
    "znpdklib_max_fan_speed",        "znpdklib_change_fan_speed",
    "znpdklib_restore_fan_speed",
};

/* The redundancy transitions: RAS code, sensor, the state it moves the sensor to. */
struct Transition {
    const char* code;
    int sensor;
    uint16_t bit;
};
const Transition kTransitions[] = {
    {"BFW_CFG_PSU_4", kPsuRedundancy, 0x4},  {"BFW_CFG_PSU_1", kPsuRedundancy, 0x8},
    {"BFW_CFG_PSU_7", kPsuRedundancy, 0x2},  {"BFW_CFG_PSU_8", kPsuRedundancy, 0x2},
    {"BFW_CFG_FAN_H0", kFanRedundancy, 0x4}, {"BFW_CFG_FAN_H1", kFanRedundancy, 0x8},
    {"BFW_CFG_FAN_H2", kFanRedundancy, 0x2},
};

std::string code_of(const zsim::RasLog& l)
{
    return std::string(l.info.ras_code, strnlen(l.info.ras_code, sizeof l.info.ras_code));
}

bool any_call_with_mode(const Facts& f, const char* function, int lo, int hi)
{
    for (const Step* c : f.calls_of(function)) {
        if (arg(c, 0) >= lo && arg(c, 0) <= hi) {
            return true;
        }
    }
    return false;
}

/* Whether a call of the step (or a library thread still running from an
 * earlier one) registers RAS logs of that code. */
bool caused(const Facts& f, const std::string& code)
{
    bool fan_call = false;
    bool checking_call = false; /* a fan call that may run a check (all but the restore) */
    for (const char* fn : kFanCalls) {
        fan_call = fan_call || f.has_call(fn);
        checking_call =
            checking_call || (f.has_call(fn) && std::strcmp(fn, "znpdklib_restore_fan_speed") != 0);
    }
    if (code == "BFW_CFG_PSU_1" || code == "BFW_CFG_PSU_4") {
        return any_call_with_mode(f, "znpdklib_check_psu_redundancy", 1, 3);
    }
    if (code == "BFW_CFG_PSU_7" || code == "BFW_CFG_PSU_8") {
        return any_call_with_mode(f, "znpdklib_check_psu_redundancy", 3, 3);
    }
    if (code == "BFW_CFG_FAN_H2") {
        return any_call_with_mode(f, "znpdklib_check_fan_redundancy", 2, 2) ||
               any_call_with_mode(f, "znpdklib_create_fan_rotation_check_thread", 2, 2) || f.background;
    }
    if (code.compare(0, 8, "BFW_CFG_") == 0 || code.compare(0, 8, "BFW_FAN_") == 0) {
        return checking_call || f.background;
    }
    /* a failed procedure's own record: the fan procedures and the procedure wrapper */
    return fan_call || f.has_call("znpdklib_exechap") || f.background;
}

/* The SEL record a set-with-SEL call makes: instance, sensor, assertion, offset. */
struct SelCall {
    int inst;
    int num;
    bool assert;
    int offset;
};

bool sel_call(const Step* c, SelCall& s)
{
    const std::string& fn = c->function;
    if (fn == "znpdklib_exSetSensorWS") {
        s = {arg(c, 4), arg(c, 0) & 0xFF, true, arg(c, 1) & 0x0F};
    } else if (fn == "znpdklib_SetSensorWS" || fn == "ZNAPI_SetSensorWS" || fn == "ZNAPI_SaveSensorTypeSEL") {
        s = {arg(c, 5), arg(c, 0) & 0xFF, arg(c, 1) != 0, arg(c, 2) & 0x0F}; /* only dir 0 deasserts */
    } else {
        return false;
    }
    return true;
}

/* Whether a process lives; one killed in the step may still be on its way
 * out (its socket closes before it is gone) and gets a moment to go. */
bool alive(int pid, bool just_killed = false)
{
    for (int waited_ms = 0; just_killed && waited_ms < 2000 && process_alive(pid); waited_ms += 10) {
        usleep(10000);
    }
    return process_alive(pid);
}

} // namespace

/* log-cause: every RAS log and SEL record of a step was made within the
 * step's time by a call of the step that makes such a record: a
 * redundancy code by its check (a recovery code in the mode that registers
 * it), a fan check code by the fan calls, a failed procedure's record by
 * the calls that run procedures; a SEL record by a set-with-SEL call on its
 * instance and sensor, one each, with that call's direction and offset.
 * Exception: library threads of the runner's process still running from
 * an earlier step may log fan codes in any later one. */
int Checks::log_cause(const Facts& f, StepReport& r)
{
    Violations bad(r, "log-cause");
    for (const zsim::RasLog& l : f.ras) {
        const std::string code = code_of(l);
        if (l.time < f.t0 || l.time > f.t1) {
            bad.add("RAS log " + code + " at t=" + std::to_string(l.time - (f.t0 - r.t_start)),
                    "a time within the step (t=" + std::to_string(r.t_start) + ".." +
                        std::to_string(r.t_end) + ")");
        } else if (!caused(f, code)) {
            bad.add("RAS log " + code + " in a step of " +
                        (f.step->kind == "call" ? f.step->function : f.step->kind),
                    "a call that registers " + code);
        }
    }
    std::vector<const Step*> calls = f.calls;
    for (const auto& [inst, rec] : f.sel) {
        const bool assert = (rec.EvtDirType & 0x80) == 0;
        auto made = std::find_if(calls.begin(), calls.end(), [&, inst = inst, &rec = rec](const Step* c) {
            SelCall s{};
            return sel_call(c, s) && s.inst == inst && s.num == rec.SensorNum &&
                   s.assert == assert&& s.offset == (rec.EvtData1 & 0x0F);
        });
        char what[96];
        std::snprintf(what, sizeof what, "SEL record %d/0x%02x %s offset %d", inst, rec.SensorNum,
                      assert ? "assert" : "deassert", rec.EvtData1 & 0x0F);
        if (rec.hdr.TimeStamp < f.t0 || rec.hdr.TimeStamp > f.t1) {
            bad.add(std::string(what) + " stamped outside the step", "a time within the step");
        } else if (made == calls.end()) {
            bad.add(what, "a set-with-SEL call of the step on that sensor, one record each");
        } else {
            calls.erase(made);
        }
    }
    return 1;
}

/* log-once: a redundancy transition is logged once: no second RAS log of
 * the same code while the sensor still shows the state the first one moved
 * it to, and in one step no more of one code than processes that ran
 * checks in it. Exceptions: processes checking at the same moment each log
 * the transition they all saw (README "Known limits"); a failed sensor write
 * of the chassis (save area or sensor mutex) can leave the redundancy sensor
 * without the state a check moved it to, and the next check logs the
 * transition again, as it must when the sensor does not show it. */
int Checks::log_once(const Facts& f, const View& v, StepReport& r)
{
    Violations bad(r, "log-once");
    const bool write_failed = f.save_failed.count(kChassis) != 0 || f.mutex_failed.count(kChassis) != 0;
    const size_t most = std::max<size_t>(1, f.callers());
    for (const Transition& t : kTransitions) {
        const size_t n = static_cast<size_t>(std::count_if(
            f.ras.begin(), f.ras.end(), [&](const zsim::RasLog& l) { return code_of(l) == t.code; }));
        if (write_failed) {
            /* judged again from the next step on */
        } else if (n > most) {
            bad.add(std::to_string(n) + " RAS logs " + t.code + " from " + std::to_string(most) +
                        " process(es)",
                    "one per process");
        } else if (n > 0 && logged_[t.code]) {
            bad.add(std::string("RAS log ") + t.code + " again while " + sensor_text(kChassis, t.sensor) +
                        " showed " + word(t.bit) + " since the last one",
                    "one log per transition");
        }
        const bool shows = (v.state(kChassis, t.sensor) & t.bit) != 0;
        logged_[t.code] = shows && (n > 0 || logged_[t.code]);
    }
    return 1;
}

/* locks: after a step no lock is held (sensor mutexes, component write
 * locks, named semaphores), the write-lock rules are kept (no second lock,
 * no thread ending with one), and a reboot frees every semaphore.
 * Exceptions: a killed process's semaphore stays taken until a reboot (the
 * platform does not release it); the runner's own locks are not judged
 * while library threads of its process run. */
int Checks::locks(const Facts& f, StepReport& r)
{
    Violations bad(r, "locks");
    const std::vector<std::string> rules = zsim::lock_violations();
    for (size_t k = violations_mark_; k < rules.size(); ++k) {
        bad.add(rules[k], "the component write-lock rules kept");
    }
    violations_mark_ = rules.size();
    for (const std::string& h : r.held_locks) {
        bad.add(h + " after its step", "no lock held");
    }
    if (!f.background) {
        for (const std::string& h : zsim::locks_held()) {
            bad.add("the runner's process holding " + h + " after the step", "no lock held");
        }
    }
    for (const zsim::TakenSemaphore& t : zsim::semaphores_taken()) {
        if (f.reboot) {
            bad.add("semaphore " + t.name + " taken after the reboot", "every semaphore freed by the reboot");
        } else if (t.pid != getpid() && alive(t.pid, f.killed)) {
            bad.add("semaphore " + t.name + " taken by live process " + std::to_string(t.pid) +
                        " after the step",
                    "only a killed process's semaphore left taken");
        }
    }
    return 1;
}

/* bounded-step: no step takes longer in real time than its bound, 20 s
 * besides the semaphore waits it reports failed, and a semaphore wait runs
 * out only on a killed process's semaphore (which the platform never
 * frees): a wait on a live process's is a lock not given back. A step that
 * never ends is the run's to catch (its process is killed). */
int Checks::bounded_step(const Facts& f, StepReport& r)
{
    const uint32_t wait = s_.sem_wait_ms > 0 ? static_cast<uint32_t>(s_.sem_wait_ms) : kDefaultSemWaitMs;
    bool dead_holder = false;
    for (const zsim::TakenSemaphore& t : zsim::semaphores_taken()) {
        dead_holder = dead_holder || !process_alive(t.pid);
    }
    const uint64_t bound = kStepBoundMs + (dead_holder ? static_cast<uint64_t>(f.sem_errors) * wait : 0);
    Violations bad(r, "bounded-step");
    if (r.real_ms > bound) {
        bad.add(std::to_string(r.real_ms) + " ms of real time", "at most " + std::to_string(bound) + " ms (" +
                                                                    std::to_string(f.sem_errors) +
                                                                    " failed semaphore waits)");
    } else if (f.sem_errors > 0 && !dead_holder && r.real_ms >= wait) {
        bad.add("a semaphore wait that ran out (" + std::to_string(r.real_ms) +
                    " ms) with no killed process holding one",
                "a wait only on a killed process's semaphore");
    }
    return 1;
}

} // namespace inv
} // namespace zcmd
