#include "report/report.h"

#include <cstdio>
#include <initializer_list>
#include <iostream>
#include <map>

#include "report/timeline.h"
#include "run/runner.h"

namespace zcmd {

namespace {

/* A value for people: zero members left out, large numbers in hex. */
json display(const json& j)
{
    if (j.is_object()) {
        json out = json::object();
        for (auto it = j.begin(); it != j.end(); ++it) {
            json v = display(it.value());
            if (!v.is_null()) {
                out[it.key()] = v;
            }
        }
        return out.empty() ? json() : out;
    }
    if (j.is_array()) {
        json out = json::array();
        bool any = false;
        for (const json& e : j) {
            json v = display(e);
            any = any || !v.is_null();
            out.push_back(v.is_null() ? json(0) : v);
        }
        return any ? out : json();
    }
    if (j.is_number_integer()) {
        if (j.is_number_unsigned() && j.get<uint64_t>() == 0) {
            return json();
        }
        if (j.is_number_unsigned() && j.get<uint64_t>() > 255) {
            return hex(j.get<uint64_t>(), 0);
        }
        if (!j.is_number_unsigned() && j.get<int64_t>() == 0) {
            return json();
        }
    }
    if (j.is_string() && j.get<std::string>().empty()) {
        return json();
    }
    return j;
}

/* The first lines with one trace id are shown, then how many more there were. */
bool error_line_shown(const Event& e, std::map<uint32_t, int>& said, bool verbose)
{
    constexpr int kShown = 2;
    int n = ++said[e.data["id"].get<uint32_t>()];
    if (verbose || n <= kShown) {
        return true;
    }
    if (n == kShown + 1) {
        std::printf("   t=%-5u (more lines of error trace %s follow; --verbose or --trace shows them)\n", e.t,
                    hex(e.data["id"].get<uint32_t>(), 8).c_str());
    }
    return false;
}

void print_events(const StepReport& r, bool verbose, bool traced)
{
    if (r.report == "quiet") {
        return;
    }
    std::map<int, int> per_inst;
    for (const Event& e : r.events) {
        if (e.kind == "sensor") {
            per_inst[e.data["inst"].get<int>()]++;
        }
    }
    auto collapsed = [&](int inst) {
        return !verbose && (r.report == "summary" || (r.report == "auto" && per_inst[inst] > 12));
    };
    std::map<int, bool> said;
    std::map<uint32_t, int> errors_said;
    for (const Event& e : r.events) {
        if (e.kind == "sensor") {
            int inst = e.data["inst"].get<int>();
            if (collapsed(inst)) {
                if (!said[inst]) {
                    said[inst] = true;
                    std::printf("   t=%-5u instance %s: %d sensor%s changed\n", e.t,
                                instance_name(inst).c_str(), per_inst[inst], per_inst[inst] == 1 ? "" : "s");
                }
                continue;
            }
        }
        if (e.kind == "error_line" && (traced || !error_line_shown(e, errors_said, verbose))) {
            continue; /* --trace printed it as it was written */
        }
        std::printf("   t=%-5u %s\n", e.t, e.text.c_str());
    }
}

} // namespace

void print_step(const StepReport& r, const Options& opts)
{
    if (r.report == "quiet" && r.failures.empty()) {
        return;
    }
    std::string head = r.text;
    if (r.has_call) {
        head += " = " + (r.ret.is_null() ? std::string("(void)") : r.ret.dump());
        if (!r.out.empty()) {
            json shown = json::object();
            for (auto it = r.out.begin(); it != r.out.end(); ++it) {
                json v = display(it.value());
                shown[it.key()] = v.is_null() ? json(0) : v;
            }
            std::string out = shown.dump();
            head += "  out " + (out.size() > 240 ? out.substr(0, 237) + "..." : out);
        }
    }
    if (!r.label.empty()) {
        std::printf("\n== %s\n", r.label.c_str());
    }
    if (!head.empty()) {
        std::printf("[t=%u] %s%s\n", r.t_start, r.process.empty() ? "" : (r.process + ": ").c_str(),
                    head.c_str());
    }
    print_events(r, opts.verbose, opts.trace);
    for (const Failure& f : r.failures) {
        std::printf("   FAILED at %s: %s\n", f.where.c_str(), f.what.c_str());
    }
    std::fflush(stdout);
}

json step_json(const StepReport& r)
{
    json j = {{"where", r.where}, {"t_start", r.t_start}, {"t_end", r.t_end}, {"text", r.text}};
    if (!r.label.empty()) {
        j["label"] = r.label;
    }
    if (!r.process.empty()) {
        j["process"] = r.process;
    }
    if (!r.kills.empty()) {
        j["kills"] = r.kills;
    }
    if (r.has_call) {
        j["ret"] = r.ret;
        j["out"] = r.out;
    }
    json ev = json::array();
    for (const Event& e : r.events) {
        json x = e.data;
        x["kind"] = e.kind;
        x["t"] = e.t;
        x["text"] = e.text;
        ev.push_back(x);
    }
    j["events"] = ev;
    json f = json::array();
    for (const Failure& x : r.failures) {
        f.push_back({{"where", x.where}, {"what", x.what}});
    }
    j["expectations"] = r.checks;
    j["failures"] = f;
    return j;
}

void print_json(const Scenario& s, const json& steps, int checks, int passed, int failed,
                std::initializer_list<const StepReport*> run_reports)
{
    json out = {{"scenario", s.name}, {"file", s.file},         {"description", s.description},
                {"steps", steps},     {"expectations", checks}, {"passed", passed},
                {"failed", failed}};
    json f = json::array();
    for (const StepReport* r : run_reports) {
        for (const Failure& x : r->failures) {
            f.push_back({{"where", x.where}, {"what", x.what}});
        }
    }
    out["run_failures"] = f;
    std::cout << out.dump(2) << std::endl;
}

bool write_timeline(const std::string& file, const Scenario& s, const std::vector<StepReport>& steps)
{
    std::FILE* f = std::fopen(file.c_str(), "w");
    if (f == nullptr) {
        return false;
    }
    std::string svg = timeline_svg(s.name, steps);
    bool ok = std::fwrite(svg.data(), 1, svg.size(), f) == svg.size();
    return std::fclose(f) == 0 && ok;
}

} // namespace zcmd
