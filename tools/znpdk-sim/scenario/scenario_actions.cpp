/* Steps that act on the machine as a whole: notes, the clock, library
 * calls, components and records, sensors, files and injected failures. */
#include "scenario/scenario_parts.h"

#include <cstring>
#include <filesystem>
#include <map>
#include <memory>

#include "run/functions.h"
#include "run/runner.h"
#include "znpdk_sim/fan.h"
#include "znpdk_sim/sim.h"
#include "znpdklib_types.h"

namespace zcmd {

namespace {

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
        ms = static_cast<int>(opt_int(r, "timeout_ms", ms, 1, 600000, "milliseconds"));
        r.finish();
    } else if (!get_bool(v, "true, false or {\"timeout_ms\": n}")) {
        st.text = "no wait for the library's threads";
        return [](Runner&, StepReport&) {};
    }
    st.text = "wait for the library's threads";
    st.background = true; /* the wait is the action itself */
    return [ms](Runner& r, StepReport& rep) {
        if (!zsim::wait_library_threads(ms)) {
            r.fail(rep, rep.where, "library threads still running after " + std::to_string(ms) + " ms");
        }
    };
}

/* Lets a person look at the served machine in the middle of a story; outside
 * the server there is nothing to wait for. */
Action act_hold(const Node& v, Step& st)
{
    ObjReader r(v);
    const int seconds = static_cast<int>(opt_int(r, "seconds", 0, 1, 86400, "seconds of real time"));
    bool until_client = false;
    if (Node u = r.opt("until"); u.j) {
        if (get_string(u, "\"client\"") != "client") {
            u.fail("expected \"client\" (wait until a client has come and gone quiet)");
        }
        until_client = true;
    }
    r.finish();
    if (seconds == 0 && !until_client) {
        v.fail("a hold needs \"seconds\" or \"until\": \"client\"");
    }
    st.text = "hold " + std::string(until_client ? "until a client has looked" : "") +
              (until_client && seconds ? ", at most " : "") + (seconds ? std::to_string(seconds) + " s" : "");
    return [seconds, until_client](Runner& run, StepReport& rep) {
        RunObserver* o = run.options().observer;
        rep.text += ": " + (o != nullptr ? o->hold(seconds, until_client) : RunObserver().hold(0, false));
    };
}

Action act_call(const Node& v, Step&)
{
    std::string name = get_string(v, "a function name");
    const Function* f = find_function(name);
    if (f == nullptr) {
        v.fail("unknown function \"" + name + "\"" + did_you_mean(name, function_names()));
    }
    /* The arguments are a sibling of "call": parse_step makes the action. */
    return {};
}

Action act_add_component(const Node& v, Step& st)
{
    ObjReader r(v);
    Node path_node = r.at("path");
    std::string path = path_of(path_node);
    if (path.rfind('/') > 0) {
        require_component(path_node, path.substr(0, path.rfind('/')));
    }
    std::vector<std::string> parents;
    if (Node p = r.opt("parents"); p.j) {
        if (!p->is_array()) {
            p.fail("expected a list of component paths");
        }
        for (size_t i = 0; i < p->size(); ++i) {
            parents.push_back(existing_component(p.at(i)));
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
    machine_added(path, parents);
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
    std::string path = existing_component(v);
    machine_removed(path);
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
    std::string path = existing_component(r.at("path"));
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
    /* Members left out keep the defaults of a plain discrete sensor. */
    const auto opt_u8 = [&r](const char* key, uint8_t& field, const char* what) {
        field = static_cast<uint8_t>(opt_int(r, key, field, 0, 0xFF, what));
    };
    opt_u8("type", d.type, "a sensor type code");
    opt_u8("event_type", d.event_type, "an event type code");
    opt_u8("oem", d.oem, "an OEM field");
    opt_u8("lun", d.lun, "an owner LUN");
    d.reading = static_cast<uint16_t>(opt_int(r, "reading", d.reading, 0, 0xFFFF, "a state word"));
    opt_u8("flags", d.flags, "event flags");
    opt_u8("level", d.level, "an event level");
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
        remove = get_bool(rm, "true or false");
        if (!remove) {
            r.finish();
            st.text = "file " + path + " left as it is";
            return [](Runner&, StepReport&) {};
        }
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

/* ---- Restarts ---------------------------------------------------------------- */

Action act_restart(const Node& v, Step& st)
{
    std::string name = get_string(v, "a process name");
    st.text = "process " + name + " restarts (its library starts afresh and sets up its save area)";
    st.restarts = name;
    return [name](Runner& run, StepReport& rep) {
        if (!run.processes().restart(name)) {
            run.fail(rep, rep.where, "process " + name + " could not be started again");
        }
    };
}

/* Every named process starts again and the IPMI stack starts empty; what
 * lived under /tmp is gone, /var/nvrdisk stays. */
void reboot(Runner& run, StepReport& rep)
{
    const std::vector<std::string> names = run.processes().names();
    for (const std::string& name : names) {
        run.processes().end(name);
    }
    zsim::reset_semaphores(); /* /dev/shm is emptied: a dead holder's lock is gone */
    for (const std::string& name : names) {
        if (!run.processes().spawn(name)) {
            run.fail(rep, rep.where, "process " + name + " could not be started again");
        }
    }
    std::error_code ec;
    std::filesystem::remove_all(zsim::file_path("/tmp"), ec);
    for (int i = 0; i < 18; ++i) {
        for (int n = 0; n < 256; ++n) {
            if (zsim::sensor_present(i, static_cast<uint8_t>(n))) {
                zsim::set_sensor_reading(i, static_cast<uint8_t>(n), 0);
            }
        }
    }
}

Action act_bmc_reboot(const Node& v, Step& st)
{
    if (!get_bool(v, "true or false")) {
        st.text = "no BMC reboot";
        return [](Runner&, StepReport&) {};
    }
    st.text = "BMC reboot: every process restarts, the IPMI stack starts empty, /tmp is emptied";
    st.restarts = "*";
    return reboot;
}

Action act_ac_power_cycle(const Node& v, Step& st)
{
    if (!get_bool(v, "true or false")) {
        st.text = "no AC power cycle";
        return [](Runner&, StepReport&) {};
    }
    st.text = "AC power cycle: the BMC reboots after an AC power-on, the fans power on afresh";
    st.restarts = "*";
    return [](Runner& run, StepReport& rep) {
        reboot(run, rep);
        zsim::write_file("/tmp/.boot/.acon", {});
        zsim::fan_power_on();
    };
}

/* One injected failure: its value read, its action made. */
using InjectParser = Action (*)(const std::string& kind, const Node& n);

bool on_of(ObjReader& o)
{
    return get_bool(o.at("on"), "true or false");
}

Action inject_sel_add(const std::string&, const Node& n)
{
    ObjReader o(n);
    bool on = on_of(o);
    uint8_t cc = 0xFF;
    if (Node c = o.opt("cc"); c.j) {
        cc = u8_of(c, "a completion code");
    }
    o.finish();
    return [=](Runner&, StepReport&) { zsim::fail_sel_add(on, cc); };
}

Action inject_sensor_mutex(const std::string& kind, const Node& n)
{
    ObjReader o(n);
    int inst = inst_of(o.at("inst"));
    int err = i32_of(o.at("err"), "an error number (0 = normal)");
    o.finish();
    bool lock = kind == "sensor_mutex_lock";
    return [=](Runner&, StepReport&) {
        lock ? zsim::fail_sensor_mutex_lock(inst, err) : zsim::fail_sensor_mutex_unlock(inst, err);
    };
}

Action inject_sem_open(const std::string&, const Node& n)
{
    bool on = get_bool(n, "true or false");
    return [=](Runner&, StepReport&) { zsim::fail_sem_open(on); };
}

Action inject_sem_lock(const std::string&, const Node& n)
{
    int code = i32_of(n, "a result code (0 = normal)");
    return [=](Runner&, StepReport&) { zsim::fail_sem_lock(code); };
}

Action inject_db_get_property(const std::string&, const Node& n)
{
    ObjReader o(n);
    std::string path = path_of(o.at("path"));
    int code = i32_of(o.at("code"), "a result code (0 = normal)");
    o.finish();
    return [=](Runner&, StepReport&) { zsim::fail_db_get_property(full_path(path), code); };
}

Action inject_led(const std::string& kind, const Node& n)
{
    ObjReader o(n);
    bool on = on_of(o);
    bool read = kind == "led_read";
    int ret = read ? 0 : -1;
    if (Node c = o.opt("ret"); c.j) {
        ret = i32_of(c, "the answer");
    }
    o.finish();
    return
        [=](Runner&, StepReport&) { read ? zsim::fail_led_read(on, ret) : zsim::fail_led_control(on, ret); };
}

Action inject_reg(const std::string& kind, const Node& n)
{
    ObjReader o(n);
    int err = i32_of(o.at("errno"), "an errno value");
    int count = static_cast<int>(opt_int(o, "count", 1, 0, 1000000, "a number of accesses"));
    o.finish();
    bool read = kind == "reg_read";
    return [=](Runner&, StepReport&) {
        read ? zsim::fail_reg_read(err, count) : zsim::fail_reg_write(err, count);
    };
}

Action inject_select_eintr(const std::string&, const Node& n)
{
    ObjReader o(n);
    uint32_t after = static_cast<uint32_t>(get_int(o.at("after"), 0, 1000000, "seconds"));
    int count = static_cast<int>(opt_int(o, "count", 1, 1, 1000000, "a number of calls"));
    o.finish();
    return [=](Runner&, StepReport&) { zsim::inject_select_eintr(after, count); };
}

Action act_inject(const Node& v, Step& st)
{
    static const std::map<std::string, InjectParser> kinds = {
        {"sel_add", inject_sel_add},
        {"sensor_mutex_lock", inject_sensor_mutex},
        {"sensor_mutex_unlock", inject_sensor_mutex},
        {"sem_open", inject_sem_open},
        {"sem_lock", inject_sem_lock},
        {"db_get_property", inject_db_get_property},
        {"led_read", inject_led},
        {"led_control", inject_led},
        {"reg_read", inject_reg},
        {"reg_write", inject_reg},
        {"select_eintr", inject_select_eintr},
    };
    ObjReader r(v);
    if (v->size() != 1) {
        v.fail("give one failure to inject: sel_add, sensor_mutex_lock, sensor_mutex_unlock, sem_open, "
               "sem_lock, db_get_property, led_read, led_control, reg_read, reg_write or select_eintr");
    }
    std::string kind = v->begin().key();
    Node n = r.at(kind);
    auto k = kinds.find(kind);
    if (k == kinds.end()) {
        std::vector<std::string> names;
        for (const auto& kv : kinds) {
            names.push_back(kv.first);
        }
        n.fail_name("unknown failure \"" + kind + "\"" + did_you_mean(kind, names));
    }
    st.text = "failure injected: " + kind;
    Action a = k->second(kind, n);
    r.finish();
    return a;
}

} // namespace

void add_machine_actions(ActionTable& t)
{
    t["note"] = act_note;
    t["call"] = act_call;
    t["advance"] = act_advance;
    t["set_time"] = act_set_time;
    t["wait_threads"] = act_wait_threads;
    t["hold"] = act_hold;
    t["add_component"] = act_add_component;
    t["remove_component"] = act_remove_component;
    t["record"] = act_record;
    t["debug_flag"] = act_debug_flag;
    t["define_sensor"] = act_define_sensor;
    t["remove_sensor"] = act_remove_sensor;
    t["sensor"] = act_sensor;
    t["reset_sensors"] = act_reset_sensors;
    t["file"] = act_file;
    t["inject"] = act_inject;
    t["restart"] = act_restart;
    t["bmc_reboot"] = act_bmc_reboot;
    t["ac_power_cycle"] = act_ac_power_cycle;
}

} // namespace zcmd
