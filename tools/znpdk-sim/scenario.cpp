/* Reading scenarios: every action and expectation is checked here, when
 * the file is read, and turned into a closure that the runner calls. */
#include "scenario.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "fields.h"
#include "functions.h"
#include "runner.h"
#include "znpdk_sim/quor.h"
/* The PSU and fan models come with their branches; their actions exist when they do. */
#if __has_include("znpdk_sim/psu.h")
#include "znpdk_sim/psu.h"
#define ZNPDK_SIM_HAS_PSU_MODEL 1
#endif
#if __has_include("znpdk_sim/fan.h")
#include "znpdk_sim/fan.h"
#define ZNPDK_SIM_HAS_FAN_MODEL 1
#endif
#include "znpdk_sim/sim.h"
#include "znpdklib_types.h"

namespace zcmd {

namespace {

const char* const kSaveFile = "/var/nvrdisk/current/sensor/snsdata";

int inst_of(const Node& n)
{
    return static_cast<int>(get_int(n, 0, 17, "a BMC instance"));
}
uint8_t u8_of(const Node& n, const char* what)
{
    return static_cast<uint8_t>(get_int(n, 0, 255, what));
}
uint32_t u32_of(const Node& n, const char* what)
{
    return static_cast<uint32_t>(get_int(n, INT32_MIN, UINT32_MAX, what));
}
int i32_of(const Node& n, const char* what)
{
    return static_cast<int>(get_int(n, INT32_MIN, INT32_MAX, what));
}

/* A component path checked for its form ("/SYSTEM#0/TYPE#n/..." or without the root). */
std::string path_of(const Node& n)
{
    std::string p = get_string(n, "a component path");
    if (p.empty() || p[0] != '/') {
        n.fail("a component path begins with \"/\", such as \"/SYSTEM#0/PSU#3\"");
    }
    size_t i = 1;
    while (i < p.size()) {
        size_t end = p.find('/', i);
        std::string step = p.substr(i, end == std::string::npos ? std::string::npos : end - i);
        size_t hash = step.find('#');
        uint64_t no;
        if (hash == std::string::npos || !parse_uint_text(step.substr(hash + 1), no)) {
            n.fail("\"" + step + "\" is not a component step of the form TYPE#number");
        }
        if (zsim::type_from_name(step.substr(0, hash)) <= 0) {
            n.fail("unknown component type \"" + step.substr(0, hash) + "\"");
        }
        i = end == std::string::npos ? p.size() : end + 1;
    }
    return p;
}

const RecordKind& record_of(const Node& n)
{
    std::string name = get_string(n, "a record name");
    const RecordKind* k = find_record(name);
    if (k == nullptr) {
        std::string names;
        for (const RecordKind& r : record_kinds()) {
            names += (names.empty() ? "" : ", ") + std::string(r.name);
        }
        n.fail("unknown record \"" + name + "\" (records: " + names + ")");
    }
    return *k;
}

/* Checks field values against a type by storing them into scratch bytes. */
void check_fields(const Type& t, const Node& fields)
{
    std::vector<uint8_t> scratch(t.size, 0);
    fill(scratch.data(), t, fields);
}

Ref bits_field(const Type& t, const Node& key_node, const std::string& key)
{
    Ref r;
    try {
        r = resolve(t, key);
    } catch (const std::invalid_argument& e) {
        key_node.fail(std::string("unknown field: ") + e.what());
    }
    if (r.type->is_struct || !r.dims.empty() || r.type->scalar == Scalar::Pointer) {
        key_node.fail("\"" + key + "\" is not a single number");
    }
    return r;
}

/* set / set_bits / clear_bits of one record, checked now, applied later. */
struct RecordChange {
    const Type* type = nullptr;
    json set;
    std::vector<std::pair<Ref, uint64_t>> set_bits, clear_bits;
    std::string where;

    void parse(ObjReader& r)
    {
        where = r.node().ptr;
        Node s = r.opt("set");
        if (s.j != nullptr) {
            check_fields(*type, s);
            set = *s;
        }
        for (const char* which : {"set_bits", "clear_bits"}) {
            Node b = r.opt(which);
            if (b.j == nullptr) {
                continue;
            }
            ObjReader br(b);
            for (auto it = b->begin(); it != b->end(); ++it) {
                Node v = br.at(it.key());
                Ref ref = bits_field(*type, v, it.key());
                uint64_t mask = get_uint(v, UINT64_MAX, "a bit mask");
                (std::strcmp(which, "set_bits") == 0 ? set_bits : clear_bits).emplace_back(ref, mask);
            }
        }
    }
    void apply(std::vector<uint8_t>& bytes) const
    {
        bytes.resize(type->size, 0);
        if (!set.is_null()) {
            fill(bytes.data(), *type, Node{&set, where + "/set"});
        }
        auto update = [&](const Ref& ref, uint64_t mask, bool on) {
            uint64_t v = 0;
            std::memcpy(&v, bytes.data() + ref.offset, ref.type->size);
            v = on ? (v | mask) : (v & ~mask);
            std::memcpy(bytes.data() + ref.offset, &v, ref.type->size);
        };
        for (const auto& b : set_bits) {
            update(b.first, b.second, true);
        }
        for (const auto& b : clear_bits) {
            update(b.first, b.second, false);
        }
    }
};

/* ---- HAP scripts ---------------------------------------------------------- */

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
    if (Node v = r.opt("times"); v.j) {
        a.times = static_cast<int>(get_int(v, 1, INT32_MAX, "a number of calls"));
    }
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

/* ---- Actions ------------------------------------------------------------- */

using ActionParser = Action (*)(const Node& value, Step& step);

Action act_note(const Node& v, Step& st)
{
    st.text = get_string(v, "a note");
    return [](Runner&, StepReport&) {};
}

Action act_advance(const Node& v, Step& st)
{
    uint32_t s = static_cast<uint32_t>(get_int(v, 0, 100000000, "seconds"));
    st.text = "clock advances " + std::to_string(s) + " s";
    return [s](Runner&, StepReport&) { zsim::advance(s); };
}

Action act_set_time(const Node& v, Step& st)
{
    uint32_t s = static_cast<uint32_t>(get_int(v, 0, 100000000, "seconds since the start"));
    st.text = "clock set to t=" + std::to_string(s);
    return [s](Runner& r, StepReport&) { zsim::set_time(r.t0() + s); };
}

Action act_wait_threads(const Node& v, Step& st)
{
    int ms = 20000;
    if (v->is_object()) {
        ObjReader r(v);
        if (Node t = r.opt("timeout_ms"); t.j) {
            ms = static_cast<int>(get_int(t, 1, 600000, "milliseconds"));
        }
        r.finish();
    } else {
        get_bool(v, "true or {\"timeout_ms\": n}");
    }
    st.text = "wait for the library's threads";
    st.background = true; /* the wait is the action itself */
    return [ms](Runner& r, StepReport& rep) {
        if (!zsim::wait_library_threads(ms)) {
            r.fail(rep, rep.where, "library threads still running after " + std::to_string(ms) + " ms");
        }
    };
}

Action act_call(const Node& v, Step&)
{
    std::string name = get_string(v, "a function name");
    const Function* f = find_function(name);
    if (f == nullptr) {
        std::string hint;
        for (const std::string& s : similar_functions(name)) {
            hint += (hint.empty() ? " (did you mean " : ", ") + s;
        }
        v.fail("unknown function \"" + name + "\"" + (hint.empty() ? "" : hint + "?)"));
    }
    /* The arguments are a sibling of "call": parse_step makes the action. */
    return {};
}

Action act_add_component(const Node& v, Step& st)
{
    ObjReader r(v);
    std::string path = path_of(r.at("path"));
    std::vector<std::string> parents;
    if (Node p = r.opt("parents"); p.j) {
        if (!p->is_array()) {
            p.fail("expected a list of component paths");
        }
        for (size_t i = 0; i < p->size(); ++i) {
            parents.push_back(path_of(p.at(i)));
        }
    }
    auto common = std::make_shared<RecordChange>();
    common->type = find_type("current_common_info_t");
    common->parse(r);
    r.finish();
    size_t slash = path.rfind('/');
    std::string parent = path.substr(0, slash);
    std::string step = path.substr(slash + 1);
    size_t hash = step.find('#');
    int type = zsim::type_from_name(step.substr(0, hash));
    int no = std::atoi(step.c_str() + hash + 1);
    st.text = "component " + path + " added";
    return [=](Runner& run, StepReport& rep) {
        std::vector<int> ids;
        for (const std::string& p : std::vector<std::string>{parent.empty() ? "/SYSTEM#0" : parent}) {
            ids.push_back(component_id(p));
        }
        for (const std::string& p : parents) {
            ids.push_back(component_id(p));
        }
        for (size_t i = 0; i < ids.size(); ++i) {
            if (ids[i] < 0) {
                run.fail(rep, rep.where, "no component at " + (i == 0 ? parent : parents[i - 1]));
                return;
            }
        }
        int oid = zsim::add_component(type, no, ids);
        std::vector<uint8_t> bytes = zsim::record(oid, PROP_CURRENT_COMMON_INFO);
        common->apply(bytes);
        zsim::set_record(oid, PROP_CURRENT_COMMON_INFO, bytes.data(), bytes.size());
    };
}

Action act_remove_component(const Node& v, Step& st)
{
    std::string path = path_of(v);
    st.text = "component " + path + " removed";
    return [path](Runner& run, StepReport& rep) {
        int oid = component_id(path);
        if (oid < 0) {
            run.fail(rep, rep.where, "no component at " + path);
            return;
        }
        zsim::remove_component(oid);
    };
}

Action act_record(const Node& v, Step& st)
{
    ObjReader r(v);
    std::string path = path_of(r.at("path"));
    const RecordKind& kind = record_of(r.at("record"));
    auto change = std::make_shared<RecordChange>();
    change->type = kind.type;
    change->parse(r);
    r.finish();
    st.text = std::string(kind.name) + " record of " + path + " changed";
    int key = kind.key;
    return [=](Runner& run, StepReport& rep) {
        int oid = component_id(path);
        if (oid < 0) {
            run.fail(rep, rep.where, "no component at " + path);
            return;
        }
        std::vector<uint8_t> bytes = zsim::record(oid, key);
        change->apply(bytes);
        zsim::set_record(oid, key, bytes.data(), bytes.size());
    };
}

Action act_debug_flag(const Node& v, Step& st)
{
    ObjReader r(v);
    Node w = r.at("word");
    int64_t word = 0;
    if (w->is_string() && (*w == "COMMON0" || *w == "BMCINIT")) {
        word = *w == "COMMON0" ? 0 : 8;
    } else {
        word = get_int(w, 0, 63, "a debug word index (0 to 63, COMMON0 or BMCINIT)");
    }
    uint32_t value = u32_of(r.at("value"), "the debug word");
    r.finish();
    st.text = "debug_flag[" + std::to_string(word) + "] = " + hex(value, 8);
    return [=](Runner& run, StepReport& rep) {
        int oid = component_id("/SYSTEM#0");
        if (oid < 0) {
            run.fail(rep, rep.where, "the machine has no root");
            return;
        }
        setup_system_info_t s = zsim::get<setup_system_info_t>(oid, PROP_SETUP_INFO);
        s.debug_flags.debug_flag[word] = value;
        zsim::put(oid, PROP_SETUP_INFO, s);
    };
}

Action act_define_sensor(const Node& v, Step& st)
{
    ObjReader r(v);
    zsim::SensorDef d;
    d.inst = inst_of(r.at("inst"));
    d.num = u8_of(r.at("num"), "a sensor number");
    if (Node n = r.opt("type"); n.j) {
        d.type = u8_of(n, "a sensor type code");
    }
    if (Node n = r.opt("event_type"); n.j) {
        d.event_type = u8_of(n, "an event type code");
    }
    if (Node n = r.opt("oem"); n.j) {
        d.oem = u8_of(n, "an OEM field");
    }
    if (Node n = r.opt("lun"); n.j) {
        d.lun = u8_of(n, "an owner LUN");
    }
    if (Node n = r.opt("reading"); n.j) {
        d.reading = static_cast<uint16_t>(get_int(n, 0, 0xFFFF, "a state word"));
    }
    if (Node n = r.opt("flags"); n.j) {
        d.flags = u8_of(n, "event flags");
    }
    if (Node n = r.opt("level"); n.j) {
        d.level = u8_of(n, "an event level");
    }
    if (Node n = r.opt("name"); n.j) {
        d.name = get_string(n, "a sensor name");
    }
    r.finish();
    st.text = "sensor " + std::to_string(d.inst) + "/" + hex(d.num, 2) + " defined";
    return [d](Runner&, StepReport&) { zsim::define_sensor(d); };
}

Action act_remove_sensor(const Node& v, Step& st)
{
    ObjReader r(v);
    int inst = inst_of(r.at("inst"));
    uint8_t num = u8_of(r.at("num"), "a sensor number");
    r.finish();
    st.text = "sensor " + std::to_string(inst) + "/" + hex(num, 2) + " removed";
    return [=](Runner&, StepReport&) { zsim::remove_sensor(inst, num); };
}

Action act_sensor(const Node& v, Step& st)
{
    ObjReader r(v);
    int inst = inst_of(r.at("inst"));
    uint8_t num = u8_of(r.at("num"), "a sensor number");
    uint16_t reading = static_cast<uint16_t>(get_int(r.at("reading"), 0, 0xFFFF, "a state word"));
    r.finish();
    st.text = "sensor " + std::to_string(inst) + "/" + hex(num, 2) + " reads " + hex(reading, 4);
    return [=](Runner& run, StepReport& rep) {
        if (!zsim::sensor_present(inst, num)) {
            run.fail(rep, rep.where,
                     "instance " + std::to_string(inst) + " has no sensor " + std::to_string(num));
            return;
        }
        zsim::set_sensor_reading(inst, num, reading);
    };
}

Action act_reset_sensors(const Node& v, Step& st)
{
    int inst = -1;
    if (!(v->is_string() && *v == "all")) {
        inst = inst_of(v);
    }
    st.text = inst < 0 ? "every sensor of every instance reads 0 (IPMI stack restarted)"
                       : "every sensor of instance " + std::to_string(inst) + " reads 0";
    return [inst](Runner&, StepReport&) {
        for (int i = inst < 0 ? 0 : inst; i <= (inst < 0 ? 17 : inst); ++i) {
            for (int n = 0; n < 256; ++n) {
                if (zsim::sensor_present(i, static_cast<uint8_t>(n))) {
                    zsim::set_sensor_reading(i, static_cast<uint8_t>(n), 0);
                }
            }
        }
    };
}

Action act_file(const Node& v, Step& st)
{
    ObjReader r(v);
    std::string path = get_string(r.at("path"), "a file path");
    if (path.empty() || path[0] != '/') {
        r.at("path").fail("file paths are absolute, such as \"/tmp/.boot/.acon\"");
    }
    Node text = r.opt("text"), hexv = r.opt("hex"), rm = r.opt("remove");
    if ((text.j != nullptr) + (hexv.j != nullptr) + (rm.j != nullptr) != 1) {
        r.node().fail("give exactly one of \"text\", \"hex\" and \"remove\"");
    }
    std::vector<uint8_t> bytes;
    bool remove = false;
    if (text.j) {
        std::string s = get_string(text, "the file's text");
        bytes.assign(s.begin(), s.end());
    } else if (hexv.j) {
        if (!parse_hex_bytes(get_string(hexv, "hex bytes"), bytes)) {
            hexv.fail("expected hex bytes");
        }
    } else {
        remove = get_bool(rm, "true");
    }
    r.finish();
    st.text = remove ? "file " + path + " removed"
                     : "file " + path + " written (" + std::to_string(bytes.size()) + " bytes)";
    return [=](Runner&, StepReport&) {
        if (remove) {
            zsim::remove_file(path);
        } else {
            zsim::write_file(path, bytes);
        }
    };
}

Action act_hap(const Node& v, Step& st)
{
    ObjReader r(v);
    if (Node c = r.opt("clear"); c.j) {
        get_bool(c, "true");
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

Action act_led(const Node& v, Step& st)
{
    ObjReader r(v);
    int type = i32_of(r.at("type"), "a component type");
    int no = i32_of(r.at("no"), "a component number");
    int led = i32_of(r.at("led"), "an LED number");
    int state = i32_of(r.at("state"), "an LED state");
    r.finish();
    st.text = "LED " + std::to_string(led) + " of " + zsim::type_name(type) + "#" + std::to_string(no) +
              " set to " + std::to_string(state);
    return [=](Runner&, StepReport&) { zsim::set_led(type, no, led, state); };
}

Action act_reg(const Node& v, Step& st)
{
    ObjReader r(v);
    uint32_t cabinet = u32_of(r.at("cabinet"), "a cabinet");
    uint32_t address = u32_of(r.at("address"), "a register address");
    uint32_t value = u32_of(r.at("value"), "a register value");
    r.finish();
    st.text = "register " + std::to_string(cabinet) + ":" + hex(address, 8) + " = " + hex(value, 8);
    return [=](Runner&, StepReport&) { zsim::set_reg(cabinet, address, value); };
}

Action act_psu_ctlinfo(const Node& v, Step& st)
{
    ObjReader r(v);
    int psu = static_cast<int>(get_int(r.at("psu"), 0, 17, "a PSU number"));
    int ret = i32_of(r.at("ret"), "a result");
    uint32_t info = 0;
    if (Node n = r.opt("info"); n.j) {
        info = u32_of(n, "the control information word");
    }
    r.finish();
    st.text =
        "PSU#" + std::to_string(psu) + " control information " + std::to_string(ret) + "/" + hex(info, 4);
    return [=](Runner&, StepReport&) { zsim::set_psu_ctlinfo(psu, ret, info); };
}

Action act_port_map(const Node& v, Step& st)
{
    ObjReader r(v);
    int router = i32_of(r.at("router"), "the router argument as the library passes it");
    int lport = i32_of(r.at("lport"), "a logical port");
    int pport = i32_of(r.at("pport"), "a physical port");
    r.finish();
    st.text = "port map " + std::to_string(router) + ": logical " + std::to_string(lport) + " -> physical " +
              std::to_string(pport);
    return [=](Runner&, StepReport&) { zsim::set_port_map(router, lport, pport); };
}

Action act_clear_sensor_list(const Node& v, Step& st)
{
    ObjReader r(v);
    int inst = inst_of(r.at("inst"));
    int sensor = static_cast<int>(get_int(r.at("sensor"), 0, 255, "a sensor number"));
    Node l = r.at("list");
    if (!l->is_array() || l->size() > 4) {
        l.fail("expected a list of up to four clear targets (parent, even node, odd node, BoB)");
    }
    std::vector<uint8_t> bytes(4 * sizeof(splog_clear_sensor_list), 0);
    const Type* t = find_type("splog_clear_sensor_list");
    for (size_t i = 0; i < l->size(); ++i) {
        fill(bytes.data() + i * t->size, *t, l.at(i));
    }
    r.finish();
    st.text = "clear-sensor list of " + std::to_string(inst) + "/" + hex(sensor, 2) + " set";
    return [=](Runner&, StepReport&) {
        splog_clear_sensor_list list[4];
        std::memcpy(list, bytes.data(), sizeof list);
        zsim::set_clear_sensor_list(inst, sensor, list);
    };
}

Action act_slave_addr(const Node& v, Step& st)
{
    uint8_t a = u8_of(v, "a slave address");
    st.text = "slave address " + hex(a, 2);
    return [a](Runner&, StepReport&) { zsim::set_slave_addr(a); };
}

Action act_inject(const Node& v, Step& st)
{
    ObjReader r(v);
    if (v->size() != 1) {
        v.fail("give one failure to inject: sel_add, sensor_mutex_lock, sensor_mutex_unlock, sem_open, "
               "sem_lock, "
               "db_get_property, led_read, led_control, reg_read, reg_write or select_eintr");
    }
    std::string kind = v->begin().key();
    Node n = r.at(kind);
    st.text = "failure injected: " + kind;
    auto on_of = [](ObjReader& o) { return get_bool(o.at("on"), "true or false"); };
    Action a;
    if (kind == "sel_add") {
        ObjReader o(n);
        bool on = on_of(o);
        uint8_t cc = 0xFF;
        if (Node c = o.opt("cc"); c.j) {
            cc = u8_of(c, "a completion code");
        }
        o.finish();
        a = [=](Runner&, StepReport&) { zsim::fail_sel_add(on, cc); };
    } else if (kind == "sensor_mutex_lock" || kind == "sensor_mutex_unlock") {
        ObjReader o(n);
        int inst = inst_of(o.at("inst"));
        int err = i32_of(o.at("err"), "an error number (0 = normal)");
        o.finish();
        bool lock = kind == "sensor_mutex_lock";
        a = [=](Runner&, StepReport&) {
            lock ? zsim::fail_sensor_mutex_lock(inst, err) : zsim::fail_sensor_mutex_unlock(inst, err);
        };
    } else if (kind == "sem_open") {
        bool on = get_bool(n, "true or false");
        a = [=](Runner&, StepReport&) { zsim::fail_sem_open(on); };
    } else if (kind == "sem_lock") {
        int code = i32_of(n, "a result code (0 = normal)");
        a = [=](Runner&, StepReport&) { zsim::fail_sem_lock(code); };
    } else if (kind == "db_get_property") {
        ObjReader o(n);
        std::string path = path_of(o.at("path"));
        int code = i32_of(o.at("code"), "a result code (0 = normal)");
        o.finish();
        a = [=](Runner&, StepReport&) { zsim::fail_db_get_property(full_path(path), code); };
    } else if (kind == "led_read" || kind == "led_control") {
        ObjReader o(n);
        bool on = on_of(o);
        int ret = kind == "led_read" ? 0 : -1;
        if (Node c = o.opt("ret"); c.j) {
            ret = i32_of(c, "the answer");
        }
        o.finish();
        bool read = kind == "led_read";
        a = [=](Runner&, StepReport&) {
            read ? zsim::fail_led_read(on, ret) : zsim::fail_led_control(on, ret);
        };
    } else if (kind == "reg_read" || kind == "reg_write") {
        ObjReader o(n);
        int err = i32_of(o.at("errno"), "an errno value");
        int count = 1;
        if (Node c = o.opt("count"); c.j) {
            count = static_cast<int>(get_int(c, 0, 1000000, "a number of accesses"));
        }
        o.finish();
        bool read = kind == "reg_read";
        a = [=](Runner&, StepReport&) {
            read ? zsim::fail_reg_read(err, count) : zsim::fail_reg_write(err, count);
        };
    } else if (kind == "select_eintr") {
        ObjReader o(n);
        uint32_t after = static_cast<uint32_t>(get_int(o.at("after"), 0, 1000000, "seconds"));
        int count = 1;
        if (Node c = o.opt("count"); c.j) {
            count = static_cast<int>(get_int(c, 1, 1000000, "a number of calls"));
        }
        o.finish();
        a = [=](Runner&, StepReport&) { zsim::inject_select_eintr(after, count); };
    } else {
        n.fail("unknown failure \"" + kind + "\"");
    }
    r.finish();
    return a;
}

/* ---- Hardware models ------------------------------------------------------ */

/* Runs the parts of a model action in order. */
Action sequence(std::vector<Action> parts)
{
    return [parts](Runner& run, StepReport& rep) {
        for (const Action& a : parts) {
            a(run, rep);
        }
    };
}

Action act_router(const Node& v, Step& st)
{
    ObjReader r(v);
    int router = static_cast<int>(get_int(r.at("router"), 0, 15, "a router number"));
    std::vector<Action> parts;
    std::string text = "ROUTER#" + std::to_string(router) + ":";
    if (Node n = r.opt("online_mask"); n.j) {
        uint32_t mask = static_cast<uint32_t>(get_int(n, 0, 0x3FF, "a mask of online physical ports"));
        parts.push_back([=](Runner&, StepReport&) { zsim::set_router_online_mask(router, mask); });
        text += " online ports " + hex(mask, 3);
    }
    if (Node n = r.opt("port_online"); n.j) {
        ObjReader o(n);
        int pport = static_cast<int>(get_int(o.at("pport"), 0, 9, "a physical port"));
        uint8_t online = u8_of(o.at("online"), "the online byte (1 = online)");
        o.finish();
        parts.push_back([=](Runner&, StepReport&) { zsim::set_router_port_online(router, pport, online); });
        text += " port " + std::to_string(pport) + " online=" + std::to_string(online);
    }
    if (Node n = r.opt("port_config"); n.j) {
        uint32_t cfg = u32_of(n, "the portConfig word");
        parts.push_back([=](Runner&, StepReport&) { zsim::set_router_port_config(router, cfg); });
        text += " portConfig " + hex(cfg, 2);
    }
    if (Node n = r.opt("link_status"); n.j) {
        if (!n->is_object()) {
            n.fail("expected the link status words by physical port, such as {\"2\": \"0x4\"}");
        }
        ObjReader o(n);
        for (auto it = n->begin(); it != n->end(); ++it) {
            Node w = o.at(it.key());
            uint64_t port = 0;
            if (!parse_uint_text(it.key(), port) || port > 9) {
                w.fail("\"" + it.key() + "\" is not a physical port (0 to 9)");
            }
            uint32_t status = u32_of(w, "a link status word");
            parts.push_back(
                [=](Runner&, StepReport&) { zsim::set_link_status(router, static_cast<int>(port), status); });
            text += " link " + it.key() + "=" + hex(status, 2);
        }
    }
    if (Node n = r.opt("link_check_result"); n.j) {
        int code = i32_of(n, "a result code");
        parts.push_back([=](Runner&, StepReport&) { zsim::set_link_check_result(router, code); });
        text += " link check answers " + std::to_string(code);
    }
    if (Node n = r.opt("link_up_result"); n.j) {
        int code = i32_of(n, "a result code");
        parts.push_back([=](Runner&, StepReport&) { zsim::set_link_up_result(router, code); });
        text += " link-up answers " + std::to_string(code);
    }
    r.finish();
    if (parts.empty()) {
        v.fail("say what changes: online_mask, port_online, port_config, link_status, link_check_result or "
               "link_up_result");
    }
    st.text = text;
    return sequence(parts);
}

Action act_quor_space(const Node& v, Step& st)
{
    ObjReader r(v);
    int8_t z0 = static_cast<int8_t>(get_int(r.at("z0"), -128, 127, "quorSpace[0].Z"));
    int8_t z1 = static_cast<int8_t>(get_int(r.at("z1"), -128, 127, "quorSpace[1].Z"));
    r.finish();
    st.text = "interconnect space Z " + std::to_string(z0) + " to " + std::to_string(z1);
    return [=](Runner&, StepReport&) { zsim::set_quor_space_z(z0, z1); };
}

#ifdef ZNPDK_SIM_HAS_PSU_MODEL
Action act_psu(const Node& v, Step& st)
{
    ObjReader r(v);
    std::vector<Action> parts;
    std::string text;
    if (Node f = r.opt("fail_read"); f.j) {
        ObjReader o(f);
        int code = i32_of(o.at("code"), "a result code");
        int count = 1;
        if (Node c = o.opt("count"); c.j) {
            count = i32_of(c, "a number of reads (-1 = every read)");
        }
        o.finish();
        parts.push_back([=](Runner&, StepReport&) { zsim::fail_psuc_read(code, count); });
        text = "PSU controller reads fail with " + std::to_string(code);
    }
    if (Node n = r.opt("psu"); n.j) {
        int psu = static_cast<int>(get_int(n, 0, 17, "a PSU number"));
        text = "PSU#" + std::to_string(psu) + ":";
        for (const char* bit : {"present", "acok", "pson"}) {
            if (Node b = r.opt(bit); b.j) {
                bool on = get_bool(b, "true or false");
                std::string k = bit;
                parts.push_back([=](Runner&, StepReport&) {
                    k == "present" ? zsim::set_psu_present(psu, on)
                    : k == "acok"  ? zsim::set_psu_acok(psu, on)
                                   : zsim::set_psu_pson(psu, on);
                });
                text += " " + k + (on ? " on" : " off");
            }
        }
        if (Node f = r.opt("fru_status"); f.j) {
            uint32_t fs = static_cast<uint32_t>(get_int(f, 0, 15, "a FRU status nibble"));
            parts.push_back([=](Runner&, StepReport&) { zsim::set_psu_fru_status(psu, fs); });
            text += " FRU status " + hex(fs, 1);
        }
    }
    if (Node h = r.opt("healthy"); h.j) {
        get_bool(h, "true");
        parts.push_back([](Runner&, StepReport&) { zsim::reset_psuc_image(); });
        text = "every PSU healthy again";
    }
    r.finish();
    if (parts.empty()) {
        v.fail(
            "say what changes: \"psu\" with present, acok, pson, fru_status; \"fail_read\"; or \"healthy\"");
    }
    st.text = text;
    return sequence(parts);
}
#endif

#ifdef ZNPDK_SIM_HAS_FAN_MODEL
Action act_fan(const Node& v, Step& st)
{
    ObjReader r(v);
    std::vector<Action> parts;
    std::string text;
    if (Node n = r.opt("fan"); n.j) {
        int fan = static_cast<int>(get_int(n, 0, 7, "a fan index (FANU = index / 2, FAN = index % 2)"));
        text = "fan " + std::to_string(fan) + " (/FANU#" + std::to_string(fan / 2) + "/FAN#" +
               std::to_string(fan % 2) + "):";
        if (Node b = r.opt("stall"); b.j) {
            get_bool(b, "true");
            parts.push_back([=](Runner&, StepReport&) { zsim::fan_stall(fan); });
            text += " stalls";
        }
        if (Node b = r.opt("slow"); b.j) {
            uint32_t speed = u32_of(b, "the highest speed the fan reaches");
            parts.push_back([=](Runner&, StepReport&) { zsim::fan_slow(fan, speed); });
            text += " turns at most " + std::to_string(speed);
        }
        if (Node b = r.opt("spin_up"); b.j) {
            uint32_t secs = u32_of(b, "seconds to settle");
            parts.push_back([=](Runner&, StepReport&) { zsim::fan_spin_up(fan, secs); });
            text += " settles in " + std::to_string(secs) + " s";
        }
        if (Node b = r.opt("replace"); b.j) {
            get_bool(b, "true");
            parts.push_back([=](Runner&, StepReport&) { zsim::fan_replace(fan); });
            text += " replaced by a new fan";
        }
    }
    if (Node b = r.opt("power_on"); b.j) {
        get_bool(b, "true");
        parts.push_back([](Runner&, StepReport&) { zsim::fan_power_on(); });
        text += (text.empty() ? "" : ", ") + std::string("fans powered on");
    }
    if (Node b = r.opt("fanc_error"); b.j) {
        uint32_t w = u32_of(b, "the FANC error word");
        parts.push_back([=](Runner&, StepReport&) { zsim::set_fanc_error(w); });
        text += (text.empty() ? "" : ", ") + std::string("FANC error word ") + hex(w, 2);
    }
    if (Node f = r.opt("fail_read"); f.j) {
        ObjReader o(f);
        int ret = i32_of(o.at("ret"), "a result code");
        uint32_t err = 0;
        if (Node e = o.opt("fanc_error"); e.j) {
            err = u32_of(e, "the FANC error word");
        }
        int count = 1;
        if (Node c = o.opt("count"); c.j) {
            count = static_cast<int>(get_int(c, 1, 1000000, "a number of reads"));
        }
        o.finish();
        parts.push_back([=](Runner&, StepReport&) { zsim::fail_fan_read(ret, err, count); });
        text += (text.empty() ? "" : ", ") + std::string("fan speed reads fail with ") + std::to_string(ret);
    }
    if (Node f = r.opt("fail_speed_change"); f.j) {
        ObjReader o(f);
        std::string mode = get_string(o.at("mode"), "MAX_FANSPEED or RESTORE_FANSPEED");
        if (mode != "MAX_FANSPEED" && mode != "RESTORE_FANSPEED") {
            o.at("mode").fail("expected \"MAX_FANSPEED\" or \"RESTORE_FANSPEED\"");
        }
        int ret = i32_of(o.at("ret"), "a result code");
        uint32_t data = 0;
        if (Node d = o.opt("data"); d.j) {
            data = u32_of(d, "the result word");
        }
        int count = 1;
        if (Node c = o.opt("count"); c.j) {
            count = static_cast<int>(get_int(c, 1, 1000000, "a number of calls"));
        }
        o.finish();
        parts.push_back([=](Runner&, StepReport&) { zsim::fail_fan_speed_change(mode, ret, data, count); });
        text += (text.empty() ? "" : ", ") + mode + " fails with " + std::to_string(ret);
    }
    r.finish();
    if (parts.empty()) {
        v.fail(
            "say what changes: \"fan\" with stall, slow, spin_up or replace; power_on; fanc_error; fail_read; "
            "fail_speed_change");
    }
    st.text = text;
    return sequence(parts);
}
#endif

#if !defined(ZNPDK_SIM_HAS_PSU_MODEL) || !defined(ZNPDK_SIM_HAS_FAN_MODEL)
/* A model action of a platform built without that model: the scenario
 * cannot run here (it is reported as not run, not as wrong). */
Action act_missing_model(const Node& v, Step& st)
{
    st.needs = v.ptr.substr(v.ptr.rfind('/') + 1) + " model of the simulated platform";
    st.text = "(" + st.needs + " missing)";
    return {};
}
#endif

const std::map<std::string, ActionParser>& action_parsers()
{
    static const std::map<std::string, ActionParser> p = {
        {"note", act_note},
        {"call", act_call},
        {"advance", act_advance},
        {"set_time", act_set_time},
        {"wait_threads", act_wait_threads},
        {"add_component", act_add_component},
        {"remove_component", act_remove_component},
        {"record", act_record},
        {"debug_flag", act_debug_flag},
        {"define_sensor", act_define_sensor},
        {"remove_sensor", act_remove_sensor},
        {"sensor", act_sensor},
        {"reset_sensors", act_reset_sensors},
        {"file", act_file},
        {"hap", act_hap},
        {"led", act_led},
        {"reg", act_reg},
        {"psu_ctlinfo", act_psu_ctlinfo},
        {"port_map", act_port_map},
        {"clear_sensor_list", act_clear_sensor_list},
        {"slave_addr", act_slave_addr},
        {"inject", act_inject},
        {"router", act_router},
        {"quor_space", act_quor_space},
#ifdef ZNPDK_SIM_HAS_PSU_MODEL
        {"psu", act_psu},
#else
        {"psu", act_missing_model},
#endif
#ifdef ZNPDK_SIM_HAS_FAN_MODEL
        {"fan", act_fan},
#else
        {"fan", act_missing_model},
#endif
    };
    return p;
}

/* ---- Expectations ---------------------------------------------------------- */

std::string brief(const json& j)
{
    std::string s = j.dump();
    return s.size() > 160 ? s.substr(0, 157) + "..." : s;
}

/* count / records / contains / absent over a list of seen items. */
struct ListSpec {
    std::string where;
    bool since_start = false;
    json count, records, contains, absent;
};

void parse_list_members(ObjReader& r, ListSpec& l)
{
    l.where = r.node().ptr;
    if (Node s = r.opt("since"); s.j) {
        std::string v = get_string(s, "\"step\" or \"start\"");
        if (v != "step" && v != "start") {
            s.fail("expected \"step\" or \"start\"");
        }
        l.since_start = v == "start";
    }
    for (const char* key : {"count", "records", "contains", "absent"}) {
        Node n = r.opt(key);
        if (n.j == nullptr) {
            continue;
        }
        check_matcher(n, std::strcmp(key, "count") == 0);
        if (std::strcmp(key, "count") != 0 && !n->is_array()) {
            n.fail(std::string("expected a list for \"") + key + "\"");
        }
        (std::strcmp(key, "count") == 0      ? l.count
         : std::strcmp(key, "records") == 0  ? l.records
         : std::strcmp(key, "contains") == 0 ? l.contains
                                             : l.absent) = *n;
    }
}

ListSpec parse_list(const Node& n)
{
    ListSpec l;
    if (n->is_array()) {
        check_matcher(n);
        l.where = n.ptr;
        l.records = *n;
        return l;
    }
    ObjReader r(n);
    parse_list_members(r, l);
    r.finish();
    return l;
}

int check_list(Runner& run, StepReport& rep, const ListSpec& l, const std::vector<json>& items,
               const char* what)
{
    int checks = 0;
    auto listing = [&]() {
        std::string s;
        for (size_t i = 0; i < items.size() && i < 6; ++i) {
            s += "\n      " + brief(items[i]);
        }
        if (items.size() > 6) {
            s += "\n      ... " + std::to_string(items.size() - 6) + " more";
        }
        return s;
    };
    if (!l.count.is_null()) {
        ++checks;
        if (!match(l.count, json(items.size())).empty()) {
            run.fail(rep, l.where + "/count",
                     std::string(what) + ": expected " + l.count.dump() + ", seen " +
                         std::to_string(items.size()) + listing());
        }
    }
    if (!l.records.is_null()) {
        ++checks;
        if (l.records.size() != items.size()) {
            run.fail(rep, l.where + "/records",
                     std::string(what) + ": expected " + std::to_string(l.records.size()) + ", seen " +
                         std::to_string(items.size()) + listing());
        } else {
            for (size_t i = 0; i < items.size(); ++i) {
                std::string d = match(l.records[i], items[i]);
                if (!d.empty()) {
                    run.fail(rep, l.where + "/records/" + std::to_string(i),
                             std::string(what) + " " + std::to_string(i) + ": " + d);
                }
            }
        }
    }
    if (!l.contains.is_null()) {
        ++checks;
        size_t pos = 0;
        for (size_t k = 0; k < l.contains.size(); ++k) {
            size_t found = items.size();
            for (size_t i = pos; i < items.size(); ++i) {
                if (match(l.contains[k], items[i]).empty()) {
                    found = i;
                    break;
                }
            }
            if (found == items.size()) {
                run.fail(rep, l.where + "/contains/" + std::to_string(k),
                         std::string(what) + ": none (after the ones matched before) matches " +
                             brief(l.contains[k]) + " among " + std::to_string(items.size()) + listing());
                break;
            }
            pos = found + 1;
        }
    }
    if (!l.absent.is_null()) {
        ++checks;
        for (size_t k = 0; k < l.absent.size(); ++k) {
            for (const json& it : items) {
                if (match(l.absent[k], it).empty()) {
                    run.fail(rep, l.where + "/absent/" + std::to_string(k),
                             std::string(what) + ": unexpected " + brief(it));
                    break;
                }
            }
        }
    }
    return checks;
}

using CheckParser = void (*)(const Node& value, std::vector<Check>& checks, Step& step);

void chk_ret(const Node& v, std::vector<Check>& checks, Step& st)
{
    if (st.kind != "call") {
        v.fail("\"ret\" belongs to the expectations of a call");
    }
    check_matcher(v, true);
    json e = *v;
    std::string where = v.ptr;
    checks.push_back([=](Runner& run, StepReport& rep) {
        ++rep.checks;
        std::string d = match(e, run.last_ret);
        if (!d.empty()) {
            run.fail(rep, where, "result: " + d);
        }
    });
}

void chk_out(const Node& v, std::vector<Check>& checks, Step& st)
{
    if (st.kind != "call") {
        v.fail("\"out\" belongs to the expectations of a call");
    }
    ObjReader r(v);
    check_matcher(v);
    json e = *v;
    std::string where = v.ptr;
    checks.push_back([=](Runner& run, StepReport& rep) {
        for (auto it = e.begin(); it != e.end(); ++it) {
            ++rep.checks;
            if (!run.last_out.contains(it.key())) {
                run.fail(rep, ptr_add(where, it.key()),
                         "no value of " + it.key() + " was read back (null pointer?)");
                continue;
            }
            std::string d = match(it.value(), run.last_out[it.key()], it.key());
            if (!d.empty()) {
                run.fail(rep, ptr_add(where, it.key()), d);
            }
        }
    });
    for (auto it = v->begin(); it != v->end(); ++it) {
        r.at(it.key());
    }
}

/* A number compared with one that the simulated platform counts. */
template <typename F> void counter(const Node& v, std::vector<Check>& checks, const std::string& what, F seen)
{
    check_matcher(v, true);
    json e = *v;
    std::string where = v.ptr;
    checks.push_back([=](Runner& run, StepReport& rep) {
        ++rep.checks;
        std::string d = match(e, seen(run));
        if (!d.empty()) {
            run.fail(rep, where, what + ": " + d);
        }
    });
}

/* Reads a list of expectation items. */
template <typename F> void each_item(const Node& v, const char* what, F item)
{
    if (!v->is_array()) {
        v.fail(std::string("expected a list of ") + what);
    }
    for (size_t i = 0; i < v->size(); ++i) {
        item(v.at(i));
    }
}

void chk_sensors(const Node& v, std::vector<Check>& checks, Step&)
{
    each_item(v, "sensors", [&](const Node& n) {
        ObjReader r(n);
        int inst = inst_of(r.at("inst"));
        uint8_t num = u8_of(r.at("num"), "a sensor number");
        json state, reading, present;
        if (Node s = r.opt("state"); s.j) {
            check_matcher(s, true);
            state = *s;
        }
        if (Node s = r.opt("reading"); s.j) {
            check_matcher(s, true);
            reading = *s;
        }
        if (Node s = r.opt("present"); s.j) {
            present = get_bool(s, "true or false");
        }
        r.finish();
        std::string where = n.ptr;
        checks.push_back([=](Runner& run, StepReport& rep) {
            ++rep.checks;
            std::string name = "sensor " + std::to_string(inst) + "/" + hex(num, 2);
            bool is = zsim::sensor_present(inst, num);
            if (!present.is_null() && present.get<bool>() != is) {
                run.fail(rep, where, name + (is ? " is present" : " is not present"));
                return;
            }
            if (!is && (!state.is_null() || !reading.is_null())) {
                run.fail(rep, where, name + " is not present");
                return;
            }
            uint16_t word = zsim::sensor(inst, num).SensorReading;
            std::string d;
            if (!state.is_null()) {
                d = match(state, json(word & 0x7FFF), "state");
            }
            if (d.empty() && !reading.is_null()) {
                d = match(reading, json(word), "reading");
            }
            if (!d.empty()) {
                run.fail(rep, where, name + " " + d + " (" + hex(word, 4) + ")");
            }
        });
    });
}

void chk_saved_sensors(const Node& v, std::vector<Check>& checks, Step&)
{
    each_item(v, "saved sensor entries", [&](const Node& n) {
        ObjReader r(n);
        int inst = inst_of(r.at("inst"));
        uint8_t num = u8_of(r.at("num"), "a sensor number");
        json e = json::object();
        for (const char* k : {"reading", "flags", "level"}) {
            if (Node s = r.opt(k); s.j) {
                check_matcher(s, true);
                e[k] = *s;
            }
        }
        r.finish();
        std::string where = n.ptr;
        checks.push_back([=](Runner& run, StepReport& rep) {
            ++rep.checks;
            std::vector<uint8_t> f = zsim::read_file(kSaveFile);
            size_t at = static_cast<size_t>(inst) * 1024 + num * 4u;
            if (f.size() < at + 4) {
                run.fail(rep, where,
                         std::string("the save file ") + kSaveFile + " has " + std::to_string(f.size()) +
                             " bytes");
                return;
            }
            json seen = {{"reading", f[at] | (f[at + 1] << 8)}, {"flags", f[at + 2]}, {"level", f[at + 3]}};
            std::string d = match(e, seen);
            if (!d.empty()) {
                run.fail(rep, where, "saved entry " + std::to_string(inst) + "/" + hex(num, 2) + ": " + d);
            }
        });
    });
}

void chk_records(const Node& v, std::vector<Check>& checks, Step&)
{
    each_item(v, "records", [&](const Node& n) {
        ObjReader r(n);
        std::string path = path_of(r.at("path"));
        const RecordKind& kind = record_of(r.at("record"));
        Node f = r.at("fields");
        ObjReader fr(f);
        for (auto it = f->begin(); it != f->end(); ++it) {
            Node fv = fr.at(it.key());
            try {
                resolve(*kind.type, it.key());
            } catch (const std::invalid_argument& e) {
                fv.fail(std::string("unknown field: ") + e.what());
            }
            check_matcher(fv);
        }
        r.finish();
        json e = *f;
        std::string where = n.ptr;
        const Type* type = kind.type;
        int key = kind.key;
        std::string rname = kind.name;
        checks.push_back([=](Runner& run, StepReport& rep) {
            ++rep.checks;
            int oid = component_id(path);
            if (oid < 0) {
                run.fail(rep, where, "no component at " + path);
                return;
            }
            std::vector<uint8_t> bytes = zsim::record(oid, key);
            bytes.resize(type->size, 0);
            json seen = to_json(bytes.data(), whole(*type));
            std::string d = match(e, seen);
            if (!d.empty()) {
                run.fail(rep, where, path + " " + rname + " record: " + d);
            }
        });
    });
}

void chk_flags_area(const Node& v, std::vector<Check>& checks, Step&)
{
    ObjReader r(v);
    for (auto it = v->begin(); it != v->end(); ++it) {
        Node fv = r.at(it.key());
        try {
            resolve(*find_type("Various_sharemem_t"), it.key());
        } catch (const std::invalid_argument& e) {
            fv.fail(std::string("unknown field: ") + e.what());
        }
        check_matcher(fv);
    }
    json e = *v;
    std::string where = v.ptr;
    checks.push_back([=](Runner& run, StepReport& rep) {
        ++rep.checks;
        std::vector<uint8_t> f = zsim::read_file(kSaveFile);
        f.resize(std::max<size_t>(f.size(), 1024), 0);
        std::string d = match(e, to_json(f.data(), whole(*find_type("Various_sharemem_t"))));
        if (!d.empty()) {
            run.fail(rep, where, "shared flags area: " + d);
        }
    });
}

void chk_files(const Node& v, std::vector<Check>& checks, Step&)
{
    each_item(v, "files", [&](const Node& n) {
        ObjReader r(n);
        std::string path = get_string(r.at("path"), "a file path");
        json exists, size, text;
        std::vector<uint8_t> bytes;
        bool has_bytes = false;
        size_t at = 0;
        if (Node s = r.opt("exists"); s.j) {
            exists = get_bool(s, "true or false");
        }
        if (Node s = r.opt("size"); s.j) {
            check_matcher(s, true);
            size = *s;
        }
        if (Node s = r.opt("text"); s.j) {
            check_matcher(s, true);
            text = *s;
        }
        if (Node s = r.opt("hex"); s.j) {
            has_bytes = true;
            if (!parse_hex_bytes(get_string(s, "hex bytes"), bytes)) {
                s.fail("expected hex bytes");
            }
        }
        if (Node s = r.opt("at"); s.j) {
            at = static_cast<size_t>(get_int(s, 0, INT32_MAX, "a byte offset"));
            if (!has_bytes) {
                s.fail("\"at\" goes with \"hex\"");
            }
        }
        r.finish();
        std::string where = n.ptr;
        checks.push_back([=](Runner& run, StepReport& rep) {
            ++rep.checks;
            bool is = zsim::file_exists(path);
            if (!exists.is_null() && exists.get<bool>() != is) {
                run.fail(rep, where, path + (is ? " exists" : " does not exist"));
                return;
            }
            if (!is) {
                if (!size.is_null() || !text.is_null() || has_bytes) {
                    run.fail(rep, where, path + " does not exist");
                }
                return;
            }
            std::vector<uint8_t> f = zsim::read_file(path);
            std::string d;
            if (!size.is_null()) {
                d = match(size, json(f.size()), "size");
            }
            if (d.empty() && !text.is_null()) {
                d = match(text, json(std::string(f.begin(), f.end())), "text");
            }
            if (d.empty() && has_bytes) {
                if (f.size() < at + bytes.size() ||
                    std::memcmp(f.data() + at, bytes.data(), bytes.size()) != 0) {
                    size_t n2 = f.size() > at ? std::min(bytes.size(), f.size() - at) : 0;
                    d = "bytes at " + std::to_string(at) + ": expected " +
                        hex_bytes(bytes.data(), bytes.size()) + ", seen " +
                        (n2 ? hex_bytes(f.data() + at, n2) : std::string("(end of file)"));
                }
            }
            if (!d.empty()) {
                run.fail(rep, where, path + " " + d);
            }
        });
    });
}

void chk_leds(const Node& v, std::vector<Check>& checks, Step&)
{
    each_item(v, "LEDs", [&](const Node& n) {
        ObjReader r(n);
        int type = i32_of(r.at("type"), "a component type");
        int no = i32_of(r.at("no"), "a component number");
        int led = i32_of(r.at("led"), "an LED number");
        counter(r.at("state"), checks,
                "LED " + std::to_string(led) + " of " + zsim::type_name(type) + "#" + std::to_string(no),
                [=](Runner&) { return json(zsim::led(type, no, led)); });
        r.finish();
    });
}

void chk_regs(const Node& v, std::vector<Check>& checks, Step&)
{
    each_item(v, "registers", [&](const Node& n) {
        ObjReader r(n);
        uint32_t cabinet = u32_of(r.at("cabinet"), "a cabinet");
        uint32_t address = u32_of(r.at("address"), "a register address");
        counter(r.at("value"), checks, "register " + std::to_string(cabinet) + ":" + hex(address, 8),
                [=](Runner&) { return json(zsim::reg(cabinet, address)); });
        r.finish();
    });
}

void chk_threads(const Node& v, std::vector<Check>& c, Step&)
{
    counter(v, c, "library threads running", [](Runner&) { return json(zsim::library_threads_running()); });
}
void chk_time(const Node& v, std::vector<Check>& c, Step&)
{
    counter(v, c, "time", [](Runner& r) { return json(r.now()); });
}
void chk_led_calls(const Node& v, std::vector<Check>& c, Step&)
{
    counter(v, c, "LED control calls", [](Runner&) { return json(zsim::led_control_calls()); });
}
void chk_csl_calls(const Node& v, std::vector<Check>& c, Step&)
{
    counter(v, c, "clear-sensor list calls", [](Runner&) { return json(zsim::clear_sensor_list_calls()); });
}
void chk_lock_violations(const Node& v, std::vector<Check>& c, Step&)
{
    counter(v, c, "write-lock violations", [](Runner&) { return json(zsim::lock_violations().size()); });
}

template <typename F> void list_check(const Node& v, std::vector<Check>& checks, const char* what, F items)
{
    ListSpec l = parse_list(v);
    checks.push_back(
        [=](Runner& run, StepReport& rep) { rep.checks += check_list(run, rep, l, items(run, l), what); });
}

void chk_sel(const Node& v, std::vector<Check>& checks, Step&)
{
    std::vector<Node> per_inst;
    if (v->is_array()) {
        for (size_t i = 0; i < v->size(); ++i) {
            per_inst.push_back(v.at(i));
        }
    } else {
        per_inst.push_back(v);
    }
    for (const Node& n : per_inst) {
        ObjReader r(n);
        int inst = inst_of(r.at("inst"));
        ListSpec l;
        parse_list_members(r, l);
        r.finish();
        std::string what = "SEL records of instance " + std::to_string(inst);
        checks.push_back([=](Runner& run, StepReport& rep) {
            rep.checks += check_list(run, rep, l, run.sel_items(inst, l.since_start), what.c_str());
        });
    }
}

void chk_ras(const Node& v, std::vector<Check>& c, Step&)
{
    list_check(v, c, "RAS logs", [](Runner& r, const ListSpec& l) { return r.ras_items(l.since_start); });
}
void chk_traces(const Node& v, std::vector<Check>& c, Step&)
{
    list_check(v, c, "trace lines",
               [](Runner& r, const ListSpec& l) { return r.trace_items(l.since_start); });
}
void chk_haps(const Node& v, std::vector<Check>& c, Step&)
{
    list_check(v, c, "procedure calls",
               [](Runner& r, const ListSpec& l) { return r.hap_items(l.since_start); });
}
void chk_reg_writes(const Node& v, std::vector<Check>& c, Step&)
{
    list_check(v, c, "register writes",
               [](Runner& r, const ListSpec& l) { return r.reg_items(true, l.since_start); });
}
void chk_reg_reads(const Node& v, std::vector<Check>& c, Step&)
{
    list_check(v, c, "register reads",
               [](Runner& r, const ListSpec& l) { return r.reg_items(false, l.since_start); });
}

void chk_link_ups(const Node& v, std::vector<Check>& checks, Step&)
{
    ObjReader r(v);
    int router = static_cast<int>(get_int(r.at("router"), 0, 15, "a router number"));
    ListSpec l;
    parse_list_members(r, l);
    r.finish();
    std::string what = "link-up calls on ROUTER#" + std::to_string(router);
    checks.push_back([=](Runner& run, StepReport& rep) {
        std::vector<json> items;
        for (const zsim::LinkUpCall& c : zsim::link_up_calls(router)) {
            items.push_back({{"target", c.target}, {"option", c.option}});
        }
        rep.checks += check_list(run, rep, l, items, what.c_str());
    });
}

#ifdef ZNPDK_SIM_HAS_FAN_MODEL
void chk_fans(const Node& v, std::vector<Check>& checks, Step&)
{
    ObjReader r(v);
    json speeds, full;
    if (Node n = r.opt("speeds"); n.j) {
        if (!n->is_array()) {
            n.fail("expected the speeds of fan index 0 to 7 as a list");
        }
        check_matcher(n);
        speeds = *n;
    }
    if (Node n = r.opt("full_speed"); n.j) {
        full = get_bool(n, "true or false");
    }
    r.finish();
    std::string where = v.ptr;
    checks.push_back([=](Runner& run, StepReport& rep) {
        ++rep.checks;
        json seen = json::array();
        for (int i = 0; i < 8; ++i) {
            seen.push_back(zsim::fan_speed(i));
        }
        std::string d = speeds.is_null() ? "" : match(speeds, seen, "speeds");
        if (d.empty() && !full.is_null()) {
            d = match(full, json(zsim::fan_full_speed()), "full_speed");
        }
        if (!d.empty()) {
            run.fail(rep, where, "fans " + d);
        }
    });
}
#endif

#ifndef ZNPDK_SIM_HAS_FAN_MODEL
void chk_missing_model(const Node&, std::vector<Check>&, Step& st)
{
    st.needs = "fan model of the simulated platform";
}
#endif

const std::map<std::string, CheckParser>& check_parsers()
{
    static const std::map<std::string, CheckParser> p = {
        {"ret", chk_ret},
        {"out", chk_out},
        {"sensors", chk_sensors},
        {"saved_sensors", chk_saved_sensors},
        {"records", chk_records},
        {"flags_area", chk_flags_area},
        {"files", chk_files},
        {"leds", chk_leds},
        {"led_control_calls", chk_led_calls},
        {"regs", chk_regs},
        {"reg_writes", chk_reg_writes},
        {"reg_reads", chk_reg_reads},
        {"sel", chk_sel},
        {"ras", chk_ras},
        {"traces", chk_traces},
        {"hap_calls", chk_haps},
        {"threads_running", chk_threads},
        {"time", chk_time},
        {"clear_sensor_list_calls", chk_csl_calls},
        {"lock_violations", chk_lock_violations},
        {"link_up_calls", chk_link_ups},
#ifdef ZNPDK_SIM_HAS_FAN_MODEL
        {"fans", chk_fans},
#else
        {"fans", chk_missing_model},
#endif
    };
    return p;
}

std::string known_keys(const std::map<std::string, ActionParser>& m)
{
    std::string s;
    for (const auto& kv : m) {
        s += (s.empty() ? "" : ", ") + kv.first;
    }
    return s;
}

Step parse_step(const Node& n, bool in_setup)
{
    Step st;
    st.where = n.ptr;
    ObjReader r(n);
    const auto& actions = action_parsers();
    std::string kind;
    for (auto it = n->begin(); it != n->end(); ++it) {
        if (actions.count(it.key())) {
            if (!kind.empty()) {
                n.fail("a step does one thing: both \"" + kind + "\" and \"" + it.key() + "\" given");
            }
            kind = it.key();
        }
    }
    if (kind.empty() && !(r.has("expect") && !in_setup)) {
        n.fail("a step needs one of: " + known_keys(actions) + (in_setup ? "" : " (or only \"expect\")"));
    }
    if (Node l = r.opt("label"); l.j) {
        st.label = get_string(l, "a label");
    }
    if (Node rp = r.opt("report"); rp.j) {
        st.report = get_string(rp, "full, summary or quiet");
        if (st.report != "full" && st.report != "summary" && st.report != "quiet") {
            rp.fail("expected \"full\", \"summary\" or \"quiet\"");
        }
    }
    st.kind = kind.empty() ? "expect" : kind;
    if (!kind.empty()) {
        Node v = r.at(kind);
        st.action = actions.at(kind)(v, st);
        if (kind == "call") {
            const Function* f = find_function(v->get<std::string>());
            st.function = f->name;
            Node args = r.opt("args");
            auto arg_list = std::make_shared<std::vector<ArgSpec>>(parse_args(*f, args));
            st.text = call_text(*f, *arg_list);
            st.action = [f, arg_list](Runner& run, StepReport& rep) {
                CallResult res = call_function(*f, *arg_list);
                rep.has_call = true;
                run.has_call = res.error.empty();
                run.last_ret = res.ret;
                run.last_out = res.out;
                rep.ret = res.ret;
                rep.out = res.out;
                if (!res.error.empty()) {
                    run.fail(rep, rep.where, res.error);
                }
            };
            if (Node b = r.opt("background"); b.j) {
                st.background = get_bool(b, "true or false");
            }
        }
    }
    if (Node e = r.opt("expect"); e.j) {
        if (in_setup) {
            e.fail("the set-up has no expectations; put them in a step");
        }
        ObjReader er(e);
        const auto& checks = check_parsers();
        for (auto it = e->begin(); it != e->end(); ++it) {
            auto p = checks.find(it.key());
            if (p == checks.end()) {
                std::string keys;
                for (const auto& kv : checks) {
                    keys += (keys.empty() ? "" : ", ") + kv.first;
                }
                Node{&it.value(), ptr_add(e.ptr, it.key())}.fail("unknown expectation \"" + it.key() +
                                                                 "\" (expectations: " + keys + ")");
            }
            p->second(er.at(it.key()), st.checks, st);
        }
        er.finish();
    }
    r.finish();
    return st;
}

std::vector<Step> parse_steps(const Node& n, bool in_setup)
{
    if (!n->is_array()) {
        n.fail("expected a list of steps");
    }
    std::vector<Step> out;
    for (size_t i = 0; i < n->size(); ++i) {
        out.push_back(parse_step(n.at(i), in_setup));
    }
    return out;
}

} // namespace

std::vector<std::string> missing_functions(const Scenario& s)
{
    std::vector<std::string> out;
    for (const std::vector<Step>* list : {&s.setup, &s.steps}) {
        for (const Step& st : *list) {
            if (!st.function.empty() && library_symbol(st.function) == nullptr &&
                std::find(out.begin(), out.end(), st.function) == out.end()) {
                out.push_back(st.function);
            }
            if (!st.needs.empty() && std::find(out.begin(), out.end(), st.needs) == out.end()) {
                out.push_back(st.needs);
            }
        }
    }
    if (s.save_area && library_symbol("ZNAPI_MemSensorAreaInit") == nullptr) {
        out.push_back("ZNAPI_MemSensorAreaInit");
    }
    return out;
}

Scenario load_scenario(const std::string& text, const std::string& file)
{
    json doc;
    try {
        doc = json::parse(text);
    } catch (const json::parse_error& e) {
        std::string msg = e.what();
        size_t cut = msg.find("syntax error");
        throw ScenarioError(text_position(text, e.byte), cut == std::string::npos ? msg : msg.substr(cut));
    }
    Scenario s;
    s.file = file;
    Node root{&doc, ""};
    ObjReader r(root);
    s.name = get_string(r.at("name"), "the scenario's name");
    if (Node d = r.opt("description"); d.j) {
        s.description = get_string(d, "a description");
    }
    if (Node m = r.opt("machine"); m.j) {
        std::string v = get_string(m, "\"default\" or \"empty\"");
        if (v != "default" && v != "empty") {
            m.fail("expected \"default\" (the fully populated chassis) or \"empty\" (only the root)");
        }
        s.default_machine = v == "default";
    }
    if (Node a = r.opt("save_area"); a.j) {
        s.save_area = get_bool(a, "true or false");
    }
    if (Node st = r.opt("setup"); st.j) {
        s.setup = parse_steps(st, true);
    }
    s.steps = parse_steps(r.at("steps"), false);
    r.finish();
    return s;
}

} // namespace zcmd
