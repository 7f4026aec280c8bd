/* Expectations: what a step expects of results, sensors, records, files,
 * devices and the logs, each checked when read and compared after the step. */
#include "scenario/scenario_parts.h"

#include <algorithm>
#include <cstring>

#include "run/functions.h"
#include "run/runner.h"
#include "znpdk_sim/fan.h"
#include "znpdk_sim/quor.h"
#include "znpdk_sim/sim.h"
#include "znpdklib_types.h"

namespace zcmd {

namespace {

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
        if (std::strcmp(key, "count") == 0) {
            check_number(n, 0, INT32_MAX, "a number of items");
        } else {
            check_matcher(n);
        }
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

/* The first items of a list, for a failure message. */
std::string listing(const std::vector<json>& items)
{
    std::string s;
    for (size_t i = 0; i < items.size() && i < 6; ++i) {
        s += "\n      " + brief(items[i]);
    }
    if (items.size() > 6) {
        s += "\n      ... " + std::to_string(items.size() - 6) + " more";
    }
    return s;
}

void check_records(Runner& run, StepReport& rep, const ListSpec& l, const std::vector<json>& items,
                   const std::string& what)
{
    if (l.records.size() != items.size()) {
        run.fail(rep, l.where + "/records",
                 what + ": expected " + std::to_string(l.records.size()) + ", seen " +
                     std::to_string(items.size()) + listing(items));
        return;
    }
    for (size_t i = 0; i < items.size(); ++i) {
        std::string d = match(l.records[i], items[i]);
        if (!d.empty()) {
            run.fail(rep, l.where + "/records/" + std::to_string(i),
                     what + " " + std::to_string(i) + ": " + d);
        }
    }
}

/* Each expected item matches a later item than the one before it. */
void check_contains(Runner& run, StepReport& rep, const ListSpec& l, const std::vector<json>& items,
                    const std::string& what)
{
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
                     what + ": none (after the ones matched before) matches " + brief(l.contains[k]) +
                         " among " + std::to_string(items.size()) + listing(items));
            return;
        }
        pos = found + 1;
    }
}

void check_absent(Runner& run, StepReport& rep, const ListSpec& l, const std::vector<json>& items,
                  const std::string& what)
{
    for (size_t k = 0; k < l.absent.size(); ++k) {
        for (const json& it : items) {
            if (match(l.absent[k], it).empty()) {
                run.fail(rep, l.where + "/absent/" + std::to_string(k), what + ": unexpected " + brief(it));
                break;
            }
        }
    }
}

int check_list(Runner& run, StepReport& rep, const ListSpec& l, const std::vector<json>& items,
               const std::string& what)
{
    int checks = 0;
    if (!l.count.is_null()) {
        ++checks;
        if (!match(l.count, json(items.size())).empty()) {
            run.fail(rep, l.where + "/count",
                     what + ": expected " + l.count.dump() + ", seen " + std::to_string(items.size()) +
                         listing(items));
        }
    }
    if (!l.records.is_null()) {
        ++checks;
        check_records(run, rep, l, items, what);
    }
    if (!l.contains.is_null()) {
        ++checks;
        check_contains(run, rep, l, items, what);
    }
    if (!l.absent.is_null()) {
        ++checks;
        check_absent(run, rep, l, items, what);
    }
    return checks;
}

void chk_ret(const Node& v, std::vector<Check>& checks, Step& st)
{
    if (st.kind != "call") {
        v.fail("\"ret\" belongs to the expectations of a call");
    }
    if (st.callee == nullptr) {
        return; /* the call could not be read (a mistake noted): nothing to judge the result by */
    }
    if (st.callee->ret.is_void) {
        v.fail(st.callee->name + " returns nothing");
    }
    IntRange range = int_range(st.callee->ret);
    std::string what = "the result of " + st.callee->name;
    check_number(v, range.min, static_cast<int64_t>(std::min<uint64_t>(range.max_unsigned, INT64_MAX)),
                 what.c_str());
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

/* An expected value read back through a pointer parameter, checked against its type. */
void check_out_value(const Function& f, const Node& n, const std::string& name)
{
    auto p = std::find_if(f.params.begin(), f.params.end(), [&](const Param& x) { return x.name == name; });
    if (p == f.params.end() || p->kind < PK::U16Ref || p->kind == PK::WordsIn || p->kind == PK::Component ||
        p->kind == PK::Path) {
        std::string names;
        for (const Param& x : f.params) {
            if (x.kind >= PK::U16Ref && x.kind != PK::WordsIn && x.kind != PK::Component &&
                x.kind != PK::Path) {
                names += (names.empty() ? "" : ", ") + x.name;
            }
        }
        n.fail(f.name + " reads back no \"" + name + "\" (it reads back " +
               (names.empty() ? "nothing" : names) + ")");
    }
    IntRange r = pointee_range(p->kind);
    std::string what = name + ", " + kind_name(p->kind);
    if (p->kind == PK::U16Ref || p->kind == PK::I32Ref || p->kind == PK::U32Ref) {
        check_number(n, r.min, static_cast<int64_t>(r.max_unsigned), what.c_str());
    } else if (p->kind != PK::Struct && p->kind != PK::EscTable && n->is_array()) {
        for (size_t i = 0; i < n->size(); ++i) {
            check_number(n.at(i), r.min, static_cast<int64_t>(r.max_unsigned), what.c_str());
        }
    } else {
        check_matcher(n);
    }
}

void chk_out(const Node& v, std::vector<Check>& checks, Step& st)
{
    if (st.kind != "call") {
        v.fail("\"out\" belongs to the expectations of a call");
    }
    if (st.callee == nullptr) {
        return; /* as for "ret" */
    }
    ObjReader r(v);
    for (auto it = v->begin(); it != v->end(); ++it) {
        check_out_value(*st.callee, r.at(it.key()), it.key());
    }
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
}

/* A number compared with one that the simulated platform counts. */
template <typename F>
void counter(const Node& v, std::vector<Check>& checks, const std::string& what, F seen, int64_t min = 0,
             int64_t max = UINT32_MAX)
{
    check_number(v, min, max, what.c_str());
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
            check_number(s, 0, 0x7FFF, "a state word (bit 15 masked off)");
            state = *s;
        }
        if (Node s = r.opt("reading"); s.j) {
            check_number(s, 0, 0xFFFF, "a state word");
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
                check_number(s, 0, std::strcmp(k, "reading") == 0 ? 0xFFFF : 0xFF, k);
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
                fv.fail_name(std::string("unknown field: ") + e.what());
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
            fv.fail_name(std::string("unknown field: ") + e.what());
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

/* What one file is expected to be. */
struct FileSpec {
    std::string path;
    json exists, size, text;
    std::vector<uint8_t> bytes;
    bool has_bytes = false;
    size_t at = 0;
};

FileSpec read_file_spec(const Node& n)
{
    ObjReader r(n);
    FileSpec f;
    f.path = get_string(r.at("path"), "a file path");
    if (Node s = r.opt("exists"); s.j) {
        f.exists = get_bool(s, "true or false");
    }
    if (Node s = r.opt("size"); s.j) {
        check_number(s, 0, INT64_MAX, "a size in bytes");
        f.size = *s;
    }
    if (Node s = r.opt("text"); s.j) {
        check_matcher(s, true);
        f.text = *s;
    }
    if (Node s = r.opt("hex"); s.j) {
        f.has_bytes = true;
        if (!parse_hex_bytes(get_string(s, "hex bytes"), f.bytes)) {
            s.fail("expected hex bytes");
        }
    }
    if (Node s = r.opt("at"); s.j) {
        f.at = static_cast<size_t>(get_int(s, 0, INT32_MAX, "a byte offset"));
        if (!f.has_bytes) {
            s.fail("\"at\" goes with \"hex\"");
        }
    }
    r.finish();
    return f;
}

/* What differs in an existing file ("" when nothing does). */
std::string file_difference(const FileSpec& e, const std::vector<uint8_t>& f)
{
    std::string d;
    if (!e.size.is_null()) {
        d = match(e.size, json(f.size()), "size");
    }
    if (d.empty() && !e.text.is_null()) {
        d = match(e.text, json(std::string(f.begin(), f.end())), "text");
    }
    if (d.empty() && e.has_bytes &&
        (f.size() < e.at + e.bytes.size() ||
         std::memcmp(f.data() + e.at, e.bytes.data(), e.bytes.size()) != 0)) {
        size_t n2 = f.size() > e.at ? std::min(e.bytes.size(), f.size() - e.at) : 0;
        d = "bytes at " + std::to_string(e.at) + ": expected " + hex_bytes(e.bytes.data(), e.bytes.size()) +
            ", seen " + (n2 ? hex_bytes(f.data() + e.at, n2) : std::string("(end of file)"));
    }
    return d;
}

void chk_files(const Node& v, std::vector<Check>& checks, Step&)
{
    each_item(v, "files", [&](const Node& n) {
        FileSpec e = read_file_spec(n);
        std::string where = n.ptr;
        checks.push_back([=](Runner& run, StepReport& rep) {
            ++rep.checks;
            bool is = zsim::file_exists(e.path);
            if (!e.exists.is_null() && e.exists.get<bool>() != is) {
                run.fail(rep, where, e.path + (is ? " exists" : " does not exist"));
                return;
            }
            if (!is) {
                if (!e.size.is_null() || !e.text.is_null() || e.has_bytes) {
                    run.fail(rep, where, e.path + " does not exist");
                }
                return;
            }
            std::string d = file_difference(e, zsim::read_file(e.path));
            if (!d.empty()) {
                run.fail(rep, where, e.path + " " + d);
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
        counter(
            r.at("state"), checks,
            "LED " + std::to_string(led) + " of " + zsim::type_name(type) + "#" + std::to_string(no),
            [=](Runner&) { return json(zsim::led(type, no, led)); }, INT32_MIN, INT32_MAX);
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
/* Real time, for waits that the virtual clock does not see (a named semaphore's). */
void chk_real_ms(const Node& v, std::vector<Check>& c, Step&)
{
    check_number(v, 0, UINT32_MAX, "milliseconds");
    json e = *v;
    std::string where = v.ptr;
    c.push_back([=](Runner& run, StepReport& rep) {
        ++rep.checks;
        std::string d = match(e, json(rep.real_ms));
        if (!d.empty()) {
            run.fail(rep, where, "real time of the step (ms): " + d);
        }
    });
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
            rep.checks += check_list(run, rep, l, run.sel_items(inst, l.since_start), what);
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
        rep.checks += check_list(run, rep, l, items, what);
    });
}

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

} // namespace

const CheckTable& expectation_parsers()
{
    static const CheckTable p = {
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
        {"real_ms", chk_real_ms},
        {"clear_sensor_list_calls", chk_csl_calls},
        {"lock_violations", chk_lock_violations},
        {"link_up_calls", chk_link_ups},
        {"fans", chk_fans},
    };
    return p;
}

} // namespace zcmd
