/* The invariant checks of a run: what they see of the machine and of each
 * step, the state they keep between steps, and the order they run in. */
#include "campaign/invariants.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "campaign/invariants_parts.h"
#include "run/runner.h"

namespace zcmd {
namespace inv {

namespace {

constexpr int kMaxReported = 3; /* failures of one invariant per step in full */
const char* const kSaveFile = "/var/nvrdisk/current/sensor/snsdata";

/* The number after `label` in a line ("BMCInst:17"), or -1. */
int number_after(const std::string& text, const char* label)
{
    size_t at = text.find(label);
    if (at == std::string::npos) {
        return -1;
    }
    return std::atoi(text.c_str() + at + std::char_traits<char>::length(label));
}

} // namespace

uint32_t View::saved(int inst, int num) const
{
    size_t at = static_cast<size_t>(inst) * 1024 + static_cast<size_t>(num) * 4;
    if (at + 4 > file.size()) {
        return 0;
    }
    return static_cast<uint32_t>(file[at]) | static_cast<uint32_t>(file[at + 1]) << 8 |
           static_cast<uint32_t>(file[at + 2]) << 16 | static_cast<uint32_t>(file[at + 3]) << 24;
}

uint32_t View::held(int inst, int num) const
{
    size_t k = key(inst, num);
    return reading[k] | static_cast<uint32_t>(flags[k]) << 16 | static_cast<uint32_t>(level[k]) << 24;
}

View look()
{
    View v;
    for (int i = 0; i < kInstances; ++i) {
        for (int n = 0; n < 256; ++n) {
            uint8_t num = static_cast<uint8_t>(n);
            if (!zsim::sensor_present(i, num)) {
                continue;
            }
            SensorInfo_T s = zsim::sensor(i, num);
            size_t k = key(i, n);
            v.present[k] = 1;
            v.reading[k] = s.SensorReading;
            v.flags[k] = s.EventFlags;
            v.level[k] = s.EventLevel;
        }
    }
    v.file = zsim::read_file(kSaveFile);
    int root = component_id("/SYSTEM#0");
    if (root >= 0) {
        v.sys = zsim::get<current_system_info_t>(root, PROP_CURRENT_INFO);
        v.setup = zsim::get<setup_system_info_t>(root, PROP_SETUP_INFO);
    }
    return v;
}

std::vector<const Step*> Facts::calls_of(const char* function) const
{
    std::vector<const Step*> out;
    for (const Step* c : calls) {
        if (c->function == function) {
            out.push_back(c);
        }
    }
    return out;
}

const Step* Facts::plain_call(const char* function) const
{
    return plain && step->function == function ? step : nullptr;
}

size_t Facts::callers(const char* part) const
{
    std::set<std::string> who;
    for (const Step* c : calls) {
        if (c->function.find(part) != std::string::npos) {
            who.insert(c->process);
        }
    }
    return who.size();
}

bool Facts::traced(uint32_t id) const
{
    return std::any_of(traces.begin(), traces.end(), [id](const zsim::TraceLine& t) { return t.id == id; });
}

int ret_of(const StepReport& r)
{
    return r.ret.is_number_integer() ? r.ret.get<int>() : -1000;
}

int arg(const Step* call, size_t i)
{
    return i < call->arg_bits.size() ? static_cast<int>(static_cast<uint32_t>(call->arg_bits[i])) : 0;
}

Violations::~Violations()
{
    if (count_ > kMaxReported) {
        r_.failures.push_back({r_.where, std::string("invariant ") + name_ + ": " +
                                             std::to_string(count_ - kMaxReported) + " more like the above"});
    }
}

void Violations::add(const std::string& seen, const std::string& expected)
{
    if (++count_ <= kMaxReported) {
        r_.failures.push_back(
            {r_.where, std::string("invariant ") + name_ + ": seen " + seen + ", expected " + expected});
    }
}

std::string sensor_text(int inst, int num)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%d/0x%02x", inst, num);
    std::string name = zsim::sensor_name(inst, static_cast<uint8_t>(num));
    return name.empty() ? buf : buf + (" " + name);
}

std::string word(uint16_t w)
{
    return hex(w, 4);
}

Checks::Checks(const Scenario& s, RunObserver* next)
    : s_(s), next_(next), dirty_(kInstances * 256, 0), blank_ok_(kInstances * 256, 0),
      story_set_(kInstances * 256, 0)
{
}

void Checks::take_marks()
{
    ras_mark_ = zsim::ras_logs().size();
    trace_mark_ = zsim::traces().size();
    violations_mark_ = zsim::lock_violations().size();
    for (int i = 0; i < kInstances; ++i) {
        sel_mark_[i] = zsim::sel(i).size();
    }
}

/* Entries that differ from the save file (and sensors that hold no state)
 * after the set-up are the machine as built: the file starts zeroed. */
void Checks::after_setup(Runner& run, StepReport& setup)
{
    prev_ = look();
    for (int i = 0; i < kInstances; ++i) {
        for (int n = 0; n < 256; ++n) {
            size_t k = key(i, n);
            dirty_[k] = prev_.present[k] && prev_.held(i, n) != prev_.saved(i, n);
            blank_ok_[k] = prev_.present[k] && prev_.state(i, n) == 0;
        }
    }
    exclusive_state(Facts(), prev_, setup, true);
    take_marks();
    threads_ = zsim::library_threads_running() > 0;
    if (next_ != nullptr) {
        next_->after_setup(run, setup);
    }
}

Facts Checks::gather(Runner& run, const Step& st, const StepReport& r)
{
    Facts f;
    f.step = &st;
    f.t0 = run.t0() + r.t_start;
    f.t1 = run.t0() + r.t_end;
    f.killed = !r.kills.empty();
    f.reboot = st.restarts == "*";
    f.plain = st.kind == "call" && r.has_call;
    std::vector<const Step*> acts = {&st};
    for (const Step& p : st.parts) {
        acts.push_back(&p);
    }
    for (const Step* a : acts) {
        const std::string& k = a->kind;
        if (k == "call") {
            f.calls.push_back(a);
        }
        f.outside |= k == "sensor" || k == "reset_sensors" || k == "define_sensor" || k == "remove_sensor";
        f.reset |= k == "reset_sensors";
        /* the library's clearing of status bits changes records too (the installed bit among them) */
        f.records |= k == "record" || k == "add_component" || k == "remove_component" ||
                     (k == "call" && a->function.rfind("znpdklib_cleardb_", 0) == 0);
    }
    const bool threads = zsim::library_threads_running() > 0;
    f.background = threads || threads_;
    f.threads_now = threads;
    threads_ = threads;

    /* What the step logged; the marks move past it (the checks log nothing). */
    std::vector<zsim::RasLog> ras = zsim::ras_logs();
    f.ras.assign(ras.begin() + static_cast<long>(std::min(ras_mark_, ras.size())), ras.end());
    ras_mark_ = ras.size();
    for (int i = 0; i < kInstances; ++i) {
        std::vector<SELEventRecord_T> sel = zsim::sel(i);
        for (size_t k = sel_mark_[i]; k < sel.size(); ++k) {
            f.sel.emplace_back(i, sel[k]);
        }
        sel_mark_[i] = sel.size();
    }
    std::vector<zsim::TraceLine> traces = zsim::traces();
    f.traces.assign(traces.begin() + static_cast<long>(std::min(trace_mark_, traces.size())), traces.end());
    trace_mark_ = traces.size();
    for (const zsim::TraceLine& t : f.traces) {
        if (!t.debug) {
            continue;
        }
        const int inst = number_after(t.text, "BMCInst:");
        if (t.text.find("ZNAPI_MemSensorInfoWrite Error") != std::string::npos && inst >= 0) {
            f.save_failed.insert(inst);
        }
        if (t.text.find("OS_THREAD_MUTEX_ACQUIRE_LOCK") != std::string::npos && inst >= 0) {
            f.mutex_failed.insert(inst);
        }
        f.sem_errors += t.text.find("Error at sem_lock") != std::string::npos;
    }
    return f;
}

void Checks::mark_changed(const View& v, std::vector<uint8_t>& marks, int inst) const
{
    for (int i = 0; i < kInstances; ++i) {
        if (inst >= 0 && i != inst) {
            continue;
        }
        for (int n = 0; n < 256; ++n) {
            size_t k = key(i, n);
            if (v.present[k] != prev_.present[k] || v.held(i, n) != prev_.held(i, n)) {
                marks[k] = 1;
            }
        }
    }
}

void Checks::after_step(Runner& run, const Step& st, StepReport& r)
{
    if (st.kind != "hold") {
        Facts f = gather(run, st, r);
        View v = look();
        /* While library threads of this process still run, the states are in flux: only what
         * the step left behind is judged. */
        r.checks += save_file(f, v, r);
        if (!f.threads_now) {
            r.checks += exclusive_state(f, v, r) + recovery(f, v, r) + init_state(f, v, r) +
                        psu_verdict(f, v, r) + fan_verdict(f, v, r) + full_speed(f, v, r) + log_once(f, v, r);
        }
        r.checks += log_cause(f, r) + locks(f, r) + bounded_step(f, r);
        prev_ = std::move(v);
    }
    if (next_ != nullptr) {
        next_->after_step(run, st, r);
    }
}

void Checks::after_run(Runner& run)
{
    if (next_ != nullptr) {
        next_->after_run(run);
    }
}

std::string Checks::hold(int seconds, bool until_client)
{
    return next_ != nullptr ? next_->hold(seconds, until_client) : RunObserver::hold(seconds, until_client);
}

void Checks::after_end(Runner& run, StepReport& end)
{
    if (next_ != nullptr) {
        next_->after_end(run, end);
    }
}

bool Checks::stopping() const
{
    return next_ != nullptr && next_->stopping();
}

} // namespace inv

const std::vector<std::string>& invariant_names()
{
    static const std::vector<std::string> names = {
        "exclusive-state", "save-file", "recovery", "init-state", "psu-verdict", "fan-verdict",
        "full-speed",      "log-cause", "log-once", "locks",      "bounded-step"};
    return names;
}

std::unique_ptr<RunObserver> make_invariant_checks(const Scenario& s, RunObserver* next)
{
    return std::make_unique<inv::Checks>(s, next);
}

} // namespace zcmd
