/* Scripted hardware access procedures: answers by time window and count,
 * with result words, fields of the PSU controller image and log records. */
#include "scenario/scenario_parts.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>

#include "run/runner.h"
#include "znpdk_sim/sim.h"
#include "znpdklib_types.h"

namespace zcmd {

namespace {

/* Result words the library's callers provide for the procedures they run. */
size_t data_capacity(const std::string& procedure, const std::string& mode)
{
    if (procedure == "BOB_R_BOBC_PSUC") {
        return sizeof(psuc_all_t) / 4;
    }
    if (procedure == "BOB_R_BOBC_FANC") {
        return mode == "READ_FANSPEED" ? 9 : 1;
    }
    if (procedure == "CPUICC_E_QNR_LINK_CHECK") {
        return 30;
    }
    if (procedure == "CPUICC_T_QNR_LINK_UP") {
        return 1;
    }
    return 256; /* znpdklib_exechap called from a scenario: its buffer holds 256 words */
}

struct HapAnswer {
    bool has_from = false, has_until = false;
    uint32_t from = 0, until = 0;
    int times = -1; /* -1 = any number of calls */
    int ret = 0;
    std::vector<uint32_t> data;
    std::vector<uint8_t> log, link;
};

struct HapScript {
    std::mutex m;
    std::vector<HapAnswer> answers;
    uint32_t t0 = 0;
};

HapAnswer parse_answer(const Node& n, const std::string& procedure, const std::string& mode)
{
    ObjReader r(n);
    HapAnswer a;
    if (Node v = r.opt("from"); v.j) {
        a.has_from = true;
        a.from = static_cast<uint32_t>(get_int(v, 0, UINT32_MAX, "a time in seconds"));
    }
    if (Node v = r.opt("until"); v.j) {
        a.has_until = true;
        a.until = static_cast<uint32_t>(get_int(v, 0, UINT32_MAX, "a time in seconds"));
    }
    a.times = static_cast<int>(opt_int(r, "times", a.times, 1, INT32_MAX, "a number of calls"));
    if (Node v = r.opt("ret"); v.j) {
        a.ret = i32_of(v, "a result code");
    }
    size_t cap = data_capacity(procedure, mode);
    if (Node v = r.opt("data"); v.j) {
        if (!v->is_array()) {
            v.fail("expected the result words as a list");
        }
        if (v->size() > cap) {
            v.fail(procedure + " " + mode + " returns at most " + std::to_string(cap) + " words");
        }
        for (size_t i = 0; i < v->size(); ++i) {
            a.data.push_back(u32_of(v.at(i), "a 32-bit word"));
        }
    }
    if (Node v = r.opt("fields"); v.j) {
        if (procedure != "BOB_R_BOBC_PSUC") {
            v.fail("result fields by name exist only for BOB_R_BOBC_PSUC (a psuc_all_t); use \"data\"");
        }
        std::vector<uint8_t> bytes(sizeof(psuc_all_t), 0);
        if (!a.data.empty()) {
            std::memcpy(bytes.data(), a.data.data(), std::min(bytes.size(), a.data.size() * 4));
        }
        fill(bytes.data(), *find_type("psuc_all_t"), v);
        a.data.assign(sizeof(psuc_all_t) / 4, 0);
        std::memcpy(a.data.data(), bytes.data(), bytes.size());
    }
    if (Node v = r.opt("log"); v.j) {
        a.log.assign(sizeof(splog_info), 0);
        fill(a.log.data(), *find_type("splog_info"), v);
    }
    if (Node v = r.opt("link"); v.j) {
        a.link.assign(sizeof(splog_linkup_info), 0);
        fill(a.link.data(), *find_type("splog_linkup_info"), v);
    }
    r.finish();
    return a;
}

int answer_call(HapScript& s, const zsim::HapCall& call, uint32_t* data, splog_info* loginfo,
                splog_linkup_info* loglink)
{
    std::lock_guard<std::mutex> g(s.m);
    uint32_t t = call.time - s.t0;
    for (HapAnswer& a : s.answers) {
        if ((a.has_from && t < a.from) || (a.has_until && t >= a.until) || a.times == 0) {
            continue;
        }
        if (a.times > 0) {
            --a.times;
        }
        if (data != nullptr && !a.data.empty()) {
            std::memcpy(data, a.data.data(), a.data.size() * 4);
        }
        if (loginfo != nullptr && !a.log.empty()) {
            std::memcpy(loginfo, a.log.data(), sizeof(splog_info));
        }
        if (loglink != nullptr && !a.link.empty()) {
            std::memcpy(loglink, a.link.data(), sizeof(splog_linkup_info));
        }
        return a.ret;
    }
    return 0;
}

Action act_hap(const Node& v, Step& st)
{
    ObjReader r(v);
    if (opt_on(r, "clear")) {
        r.finish();
        st.text = "every scripted procedure answer dropped";
        return [](Runner&, StepReport&) { zsim::clear_hap_scripts(); };
    }
    std::string procedure = get_string(r.at("procedure"), "a procedure name");
    std::string mode;
    if (Node m = r.opt("mode"); m.j) {
        mode = get_string(m, "a procedure mode");
    }
    auto script = std::make_shared<HapScript>();
    Node answers = r.at("answers");
    if (!answers->is_array() || answers->empty()) {
        answers.fail("expected a list of answers");
    }
    for (size_t i = 0; i < answers->size(); ++i) {
        script->answers.push_back(parse_answer(answers.at(i), procedure, mode));
    }
    r.finish();
    st.text = "procedure " + procedure + (mode.empty() ? "" : " " + mode) + " scripted";
    return [=](Runner& run, StepReport&) {
        script->t0 = run.t0();
        zsim::script_hap(
            procedure, mode,
            [script](const zsim::HapCall& call, uint32_t* data, splog_info* li, splog_linkup_info* ll) {
                return answer_call(*script, call, data, li, ll);
            });
    };
}

} // namespace

void add_procedure_actions(ActionTable& t)
{
    t["hap"] = act_hap;
}

} // namespace zcmd
