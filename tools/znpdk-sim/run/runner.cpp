#include "run/runner.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>

#include "campaign/invariants.h"
#include "scenario/fields.h"
#include "run/functions.h"
#include "report/report.h"
#include "znpdk_sim/sim.h"
#include "znpdklib_types.h"

namespace zcmd {

namespace {

constexpr int kInstances = 18;
constexpr int kLedSystem = 1; /* the chassis alarm LED of SYSTEM#0 */

/* Events of one kind at one time print in this order. */
enum Order { kError, kRas, kSel, kSensor, kReasons, kLed, kPhase };

constexpr int kDebugLevel = 130;    /* the sensor layer's debug output */
constexpr int kErrorLevel = 0x8002; /* error lines of the trace facility */

std::string sensor_label(int inst, int num)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%d/0x%02x", inst, num);
    return buf;
}

int lowest_offset(uint16_t w)
{
    w &= 0x7FFF;
    for (int i = 0; i < 15; ++i) {
        if (w & (1u << i)) {
            return i;
        }
    }
    return -1;
}

std::string state_text(uint16_t w)
{
    std::string s = hex(w, 4);
    int off = lowest_offset(w);
    if (off >= 0 && (w & 0x7FFF) == (1u << off)) {
        s += " (offset " + std::to_string(off) + ")";
    }
    return s;
}

json sel_json(const SELEventRecord_T& rec)
{
    return to_json(reinterpret_cast<const uint8_t*>(&rec), whole(*find_type("SELEventRecord_T")));
}

} // namespace

std::string full_path(const std::string& path)
{
    return path.compare(0, 9, "/SYSTEM#0") == 0 ? path : "/SYSTEM#0" + path;
}

int component_id(const std::string& path)
{
    return zsim::find_path(full_path(path));
}

std::string instance_name(int inst)
{
    if (inst == 17) {
        return "17 (chassis)";
    }
    if (inst >= 1 && inst <= 16) {
        return std::to_string(inst) + " (node " + std::to_string(inst - 1) + ")";
    }
    return std::to_string(inst);
}

/* Times count from the platform's clock when the machine was made, the
 * moment its hardware models were powered on. */
Runner::Runner(const Scenario&, const Options& o) : opts_(o), t0_(zsim::now()) {}

uint32_t Runner::now() const
{
    return zsim::now() - t0_;
}

void Runner::fail(StepReport& r, const std::string& where, const std::string& what) const
{
    r.failures.push_back({where, what});
}

Marks Runner::marks_now() const
{
    Marks m;
    for (int i = 0; i < kInstances; ++i) {
        m.sel[i] = zsim::sel(i).size();
    }
    m.ras = zsim::ras_logs().size();
    m.traces = zsim::traces().size();
    m.haps = zsim::hap_calls().size();
    m.regs = zsim::reg_accesses().size();
    return m;
}

std::vector<json> Runner::sel_items(int inst, bool since_start) const
{
    std::vector<SELEventRecord_T> all = zsim::sel(inst);
    size_t from = (since_start ? start_ : step_).sel[inst];
    std::vector<json> out;
    for (size_t i = from; i < all.size(); ++i) {
        json j = sel_json(all[i]);
        j["offset"] = all[i].EvtData1 & 0x0F;
        j["assert"] = (all[i].EvtDirType & 0x80) == 0;
        out.push_back(j);
    }
    return out;
}

std::vector<json> Runner::ras_items(bool since_start) const
{
    std::vector<zsim::RasLog> all = zsim::ras_logs();
    size_t from = (since_start ? start_ : step_).ras;
    std::vector<json> out;
    for (size_t i = from; i < all.size(); ++i) {
        json j = to_json(reinterpret_cast<const uint8_t*>(&all[i].info), whole(*find_type("splog_info")));
        j["link"] =
            to_json(reinterpret_cast<const uint8_t*>(&all[i].link), whole(*find_type("splog_linkup_info")));
        j["time"] = all[i].time - t0_;
        out.push_back(j);
    }
    return out;
}

std::vector<json> Runner::trace_items(bool since_start) const
{
    std::vector<zsim::TraceLine> all = zsim::traces();
    size_t from = (since_start ? start_ : step_).traces;
    std::vector<json> out;
    for (size_t i = from; i < all.size(); ++i) {
        const zsim::TraceLine& t = all[i];
        out.push_back({{"id", t.id},
                       {"level", t.level},
                       {"region", t.region},
                       {"module", t.module},
                       {"variant", t.variant},
                       {"debug", t.debug},
                       {"text", t.text},
                       {"time", t.time - t0_}});
    }
    return out;
}

std::vector<json> Runner::hap_items(bool since_start) const
{
    std::vector<zsim::HapCall> all = zsim::hap_calls();
    size_t from = (since_start ? start_ : step_).haps;
    std::vector<json> out;
    for (size_t i = from; i < all.size(); ++i) {
        const zsim::HapCall& c = all[i];
        out.push_back({{"target", c.target},
                       {"procedure", c.procedure},
                       {"mode", c.mode},
                       {"para", c.para},
                       {"with_log", c.with_log},
                       {"time", c.time - t0_}});
    }
    return out;
}

std::vector<json> Runner::reg_items(bool writes, bool since_start) const
{
    std::vector<zsim::RegAccess> all = zsim::reg_accesses();
    size_t from = (since_start ? start_ : step_).regs;
    std::vector<json> out;
    for (size_t i = from; i < all.size(); ++i) {
        if (all[i].write == writes) {
            out.push_back(
                {{"cabinet", all[i].cabinet}, {"address", all[i].address}, {"value", all[i].value}});
        }
    }
    return out;
}

Snapshot Runner::snapshot() const
{
    Snapshot s;
    s.reading.assign(kInstances * 256, 0);
    s.present.assign(kInstances * 256, 0);
    for (int i = 0; i < kInstances; ++i) {
        for (int n = 0; n < 256; ++n) {
            uint8_t num = static_cast<uint8_t>(n);
            if (zsim::sensor_present(i, num)) {
                s.present[i * 256 + n] = 1;
                s.reading[i * 256 + n] = zsim::sensor(i, num).SensorReading;
            }
        }
    }
    int root = component_id("/SYSTEM#0");
    if (root >= 0) {
        current_system_info_t sys = zsim::get<current_system_info_t>(root, PROP_CURRENT_INFO);
        s.fanfull_reason = sys.fanfull_reason;
        s.fan_check_phase = sys.fan_check_phase;
    }
    s.alarm_led = zsim::led(COMPO_SYSTEM, 0, kLedSystem);
    return s;
}

void Runner::diff(const Snapshot& a, const Snapshot& b, StepReport& r) const
{
    for (int i = 0; i < kInstances; ++i) {
        for (int n = 0; n < 256; ++n) {
            size_t k = static_cast<size_t>(i) * 256 + n;
            if (a.present[k] == b.present[k] && a.reading[k] == b.reading[k]) {
                continue;
            }
            std::string name =
                b.present[k] || a.present[k] ? zsim::sensor_name(i, static_cast<uint8_t>(n)) : "";
            Event e;
            e.t = r.t_end;
            e.order = kSensor;
            e.kind = "sensor";
            e.data = {{"inst", i}, {"num", n}, {"name", name}, {"old", a.reading[k]}, {"new", b.reading[k]}};
            std::string what = !b.present[k]   ? "removed"
                               : !a.present[k] ? "defined, " + state_text(b.reading[k])
                                               : state_text(a.reading[k]) + " -> " + state_text(b.reading[k]);
            e.text = "sensor " + sensor_label(i, n) + (name.empty() ? "" : " " + name) + ": " + what;
            r.events.push_back(e);
        }
    }
    if (a.fanfull_reason != b.fanfull_reason) {
        Event e;
        e.t = r.t_end;
        e.order = kReasons;
        e.kind = "fanfull_reason";
        e.data = {{"old", a.fanfull_reason}, {"new", b.fanfull_reason}};
        e.text = "fan full-speed reasons " + hex(a.fanfull_reason, 16) + " -> " + hex(b.fanfull_reason, 16) +
                 (b.fanfull_reason ? " (fans at full speed)" : " (normal speed control)");
        r.events.push_back(e);
    }
    if (a.alarm_led != b.alarm_led) {
        Event e;
        e.t = r.t_end;
        e.order = kLed;
        e.kind = "led";
        e.data = {{"type", COMPO_SYSTEM},
                  {"no", 0},
                  {"led", kLedSystem},
                  {"old", a.alarm_led},
                  {"new", b.alarm_led}};
        auto name = [](int s) {
            return std::to_string(s) + (s == 1 ? " (off)" : s == 2 ? " (EPO)" : s == 3 ? " (error)" : "");
        };
        e.text = "BoB alarm LED " + name(a.alarm_led) + " -> " + name(b.alarm_led);
        r.events.push_back(e);
    }
    if (a.fan_check_phase != b.fan_check_phase) {
        Event e;
        e.t = r.t_end;
        e.order = kPhase;
        e.kind = "fan_check_phase";
        e.data = {{"old", a.fan_check_phase}, {"new", b.fan_check_phase}};
        e.text = "fan check phase " + hex(a.fan_check_phase, 2) + " -> " + hex(b.fan_check_phase, 2);
        r.events.push_back(e);
    }
}

/* The library's error lines: shown without --trace, since they often
 * explain a result that surprises. */
void Runner::collect_error_lines(StepReport& r) const
{
    std::vector<zsim::TraceLine> all = zsim::traces();
    for (size_t k = step_.traces; k < all.size(); ++k) {
        const zsim::TraceLine& t = all[k];
        if (!(t.debug && t.level == kDebugLevel) && t.level != kErrorLevel) {
            continue;
        }
        Event e;
        e.t = t.time >= t0_ && t.time - t0_ <= r.t_end ? t.time - t0_ : r.t_end;
        e.order = kError;
        e.kind = "error_line";
        e.data = {{"id", t.id},
                  {"level", t.level},
                  {"region", t.region},
                  {"debug", t.debug},
                  {"variant", t.variant}};
        e.text = t.debug ? "debug output: " + t.text : "error trace " + hex(t.id, 8) + ": " + t.text;
        r.events.push_back(e);
    }
}

void Runner::collect_logs(StepReport& r) const
{
    collect_error_lines(r);
    for (int i = 0; i < kInstances; ++i) {
        std::vector<SELEventRecord_T> all = zsim::sel(i);
        for (size_t k = step_.sel[i]; k < all.size(); ++k) {
            const SELEventRecord_T& s = all[k];
            Event e;
            uint32_t ts = s.hdr.TimeStamp;
            e.t = ts >= t0_ && ts - t0_ <= r.t_end ? ts - t0_ : r.t_end;
            e.order = kSel;
            e.kind = "sel";
            e.data = sel_json(s);
            e.data["inst"] = i;
            std::string name = zsim::sensor_name(i, s.SensorNum);
            char buf[160];
            std::snprintf(buf, sizeof buf,
                          "SEL %d #%u: sensor 0x%02x%s%s type 0x%02x %s offset %d (data %02x %02x %02x)", i,
                          s.hdr.ID, s.SensorNum, name.empty() ? "" : " ", name.c_str(), s.SensorType,
                          (s.EvtDirType & 0x80) ? "deassert" : "assert", s.EvtData1 & 0x0F, s.EvtData1,
                          s.EvtData2, s.EvtData3);
            e.text = buf;
            r.events.push_back(e);
        }
    }
    std::vector<zsim::RasLog> ras = zsim::ras_logs();
    for (size_t k = step_.ras; k < ras.size(); ++k) {
        const splog_info& li = ras[k].info;
        Event e;
        e.t = ras[k].time - t0_;
        e.order = kRas;
        e.kind = "ras";
        e.data = to_json(reinterpret_cast<const uint8_t*>(&li), whole(*find_type("splog_info")));
        e.data["link"] =
            to_json(reinterpret_cast<const uint8_t*>(&ras[k].link), whole(*find_type("splog_linkup_info")));
        e.text = "RAS log " + std::string(li.ras_code, strnlen(li.ras_code, sizeof li.ras_code)) +
                 " instance " + std::to_string(li.BMCInst);
        bool pos = false;
        for (uint8_t b : li.part1_pos) {
            pos = pos || b != 0;
        }
        if (pos) {
            e.text += " part1_pos " + hex_bytes(li.part1_pos, sizeof li.part1_pos);
        }
        r.events.push_back(e);
    }
}

void Runner::run_step(const Step& st, StepReport& r, bool quiet)
{
    r.where = st.where;
    r.step = &st;
    r.label = st.label;
    r.text = st.text;
    r.report = quiet ? "quiet" : st.report;
    step_ = marks_now();
    Snapshot before = quiet ? Snapshot() : snapshot();
    r.t_start = now();
    r.process = st.process;
    r.restarts = st.restarts;
    const auto real_start = std::chrono::steady_clock::now();
    if (!st.process.empty()) {
        procs_.run(st, *this, r);
    } else if (st.action) {
        try {
            st.action(*this, r);
        } catch (const std::exception& e) {
            fail(r, r.where, std::string("the step broke down: ") + e.what());
        }
        if (!st.background && zsim::library_threads_running() > 0 && !zsim::wait_library_threads(20000)) {
            fail(r, r.where, "library threads still running after 20 s of real time");
        }
    }
    r.t_end = now();
    r.real_ms = static_cast<uint32_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - real_start)
            .count());
    if (!quiet) {
        diff(before, snapshot(), r);
        collect_logs(r);
        std::stable_sort(r.events.begin(), r.events.end(), [](const Event& a, const Event& b) {
            return a.t != b.t ? a.t < b.t : a.order < b.order;
        });
    }
    for (const Check& c : st.checks) {
        try {
            c(*this, r);
        } catch (const std::exception& e) {
            fail(r, r.where, std::string("an expectation broke down: ") + e.what());
        }
    }
}

namespace {

bool call_by_name(const char* name)
{
    const Function* f = find_function(name);
    return f != nullptr && call_function(*f, {}).error.empty();
}

} // namespace

/* The set-up runs quietly; the save area is set up before its first
 * library call (so that sensor calls of the set-up are kept), or after it
 * when it calls none. */
StepReport Runner::run_setup(const Scenario& s)
{
    procs_.start(process_names(s), s, *this);
    StepReport setup;
    setup.where = "/setup";
    bool area_ready = !s.save_area;
    auto set_up_area = [&]() {
        if (!area_ready && !call_by_name("ZNAPI_MemSensorAreaInit")) {
            fail(setup, "/save_area", "ZNAPI_MemSensorAreaInit is not exported by the library");
        }
        area_ready = true;
    };
    for (const Step& st : s.setup) {
        if (st.kind == "call") {
            set_up_area();
        }
        StepReport r;
        run_step(st, r, true);
        setup.failures.insert(setup.failures.end(), r.failures.begin(), r.failures.end());
    }
    set_up_area();
    zsim::wait_library_threads();
    return setup;
}

/* Whatever the steps said: the library's threads end and its locks stay in order. */
StepReport Runner::run_end()
{
    procs_.stop();
    StepReport end;
    end.where = "/steps";
    end.report = "quiet";
    end.checks = 2;
    if (!zsim::wait_library_threads()) {
        fail(end, "/steps", "library threads still running at the end");
    }
    for (const std::string& v : zsim::lock_violations()) {
        fail(end, "/steps", "component write-lock rule broken: " + v);
    }
    return end;
}

int Runner::run(const Scenario& s)
{
    StepReport setup = run_setup(s);
    if (opts_.observer != nullptr) {
        opts_.observer->after_setup(*this, setup);
    }
    start_ = marks_now();
    step_ = start_;
    const bool print = !opts_.quiet;
    if (!opts_.json && print) {
        std::printf("Scenario %s%s%s\n", s.name.c_str(), s.description.empty() ? "" : ": ",
                    s.description.c_str());
        if (!setup.failures.empty()) {
            print_step(setup, opts_);
        }
    }
    json steps = json::array();
    std::vector<StepReport> pictured;
    int failed = static_cast<int>(setup.failures.size());
    int checks = failed;
    for (size_t i = 0; i < s.steps.size() && !(opts_.observer != nullptr && opts_.observer->stopping());
         ++i) {
        StepReport r;
        r.index = i;
        run_step(s.steps[i], r, false);
        if (opts_.observer != nullptr) {
            opts_.observer->after_step(*this, s.steps[i], r);
        }
        failed += static_cast<int>(r.failures.size());
        checks += r.checks;
        if (print && opts_.json) {
            steps.push_back(step_json(r));
        } else if (print) {
            print_step(r, opts_);
        }
        if (!opts_.timeline.empty()) {
            pictured.push_back(std::move(r));
        }
    }
    if (!opts_.timeline.empty() && !write_timeline(opts_.timeline, s, pictured)) {
        std::fprintf(stderr, "znpdk-sim: cannot write the timeline to %s\n", opts_.timeline.c_str());
        ++failed;
    }
    if (opts_.observer != nullptr) {
        opts_.observer->after_run(*this);
    }
    StepReport end = run_end();
    if (opts_.observer != nullptr) {
        opts_.observer->after_end(*this, end);
    }
    checks += end.checks;
    failed += static_cast<int>(end.failures.size());
    int passed = checks - failed < 0 ? 0 : checks - failed;
    if (print && opts_.json) {
        print_json(s, steps, checks, passed, failed, {&setup, &end});
    } else if (print) {
        print_step(end, opts_);
        std::printf("\n%s: %d passed, %d failed\n", s.name.c_str(), passed, failed);
    }
    std::fflush(stdout);
    return failed;
}

int run_scenario(const Scenario& s, const Options& o)
{
    std::string root = o.root;
    if (root.empty()) {
        char tmpl[] = "/tmp/znpdk-sim-XXXXXX";
        char* dir = mkdtemp(tmpl);
        if (dir == nullptr) {
            std::fprintf(stderr, "znpdk-sim: cannot make a temporary directory\n");
            return -1;
        }
        root = dir;
    }
    zsim::init(root);
    if (s.sem_wait_ms > 0) {
        zsim::set_sem_wait_limit(s.sem_wait_ms);
    }
    if (s.default_machine) {
        zsim::build_default_machine();
    }
    /* The property checks see the run first and hand it on to the caller's observer. */
    Options with_checks = o;
    std::unique_ptr<RunObserver> checks;
    if (s.invariants || o.invariants) {
        checks = make_invariant_checks(s, o.observer);
        with_checks.observer = checks.get();
    }
    Runner run(s, with_checks);
    if (o.trace) {
        uint32_t t0 = run.t0();
        bool as_json = o.json;
        zsim::set_trace_sink([t0, as_json](const zsim::TraceLine& t) {
            FILE* out = as_json ? stderr : stdout;
            std::fprintf(out, "   trace t=%-4u %s 0x%08x L%04x R%d %s %s\n", t.time - t0, t.variant.c_str(),
                         t.id, t.level, t.region, t.debug ? "(debug)" : "", t.text.c_str());
        });
    }
    int failed = run.run(s);
    zsim::set_trace_sink(nullptr);
    if (!o.keep_root && o.root.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(root, ec);
    } else if (!o.json && !o.quiet) {
        std::printf("machine root kept at %s\n", root.c_str());
    }
    return failed;
}

} // namespace zcmd
