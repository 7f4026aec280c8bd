/* Steps that change the simulated devices: LEDs, registers, PSU control
 * information, the interconnect's routers and port map, the PSU controller
 * and the fans. */
#include "scenario/scenario_parts.h"

#include "run/runner.h"
#include "znpdk_sim/fan.h"
#include "znpdk_sim/psu.h"
#include "znpdk_sim/quor.h"
#include "znpdk_sim/sim.h"
#include "znpdklib_types.h"

namespace zcmd {

namespace {

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

Action act_psu(const Node& v, Step& st)
{
    ObjReader r(v);
    std::vector<Action> parts;
    std::string text;
    if (Node f = r.opt("fail_read"); f.j) {
        ObjReader o(f);
        int code = i32_of(o.at("code"), "a result code");
        int count = static_cast<int>(
            opt_int(o, "count", 1, INT32_MIN, INT32_MAX, "a number of reads (-1 = every read)"));
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
    if (opt_on(r, "healthy")) {
        parts.push_back([](Runner&, StepReport&) { zsim::reset_psuc_image(); });
        text = "every PSU healthy again";
    }
    bool said = v->size() > (v->contains("psu") ? 1u : 0u);
    r.finish();
    if (!said) {
        v.fail(
            "say what changes: \"psu\" with present, acok, pson, fru_status; \"fail_read\"; or \"healthy\"");
    }
    st.text = parts.empty() ? "PSUs left as they are" : text;
    return sequence(parts);
}

/* Adds ", what" to a step's text. */
void say(std::string& text, const std::string& what)
{
    text += (text.empty() ? "" : ", ") + what;
}

/* What happens to one fan; false for an event means it does not happen. */
void fan_changes(ObjReader& r, int fan, std::vector<Action>& parts, std::string& text)
{
    text = "fan " + std::to_string(fan) + " (/FANU#" + std::to_string(fan / 2) + "/FAN#" +
           std::to_string(fan % 2) + "):";
    if (opt_on(r, "stall")) {
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
    if (opt_on(r, "replace")) {
        parts.push_back([=](Runner&, StepReport&) { zsim::fan_replace(fan); });
        text += " replaced by a new fan";
    }
}

/* Failures of the fan controller's procedures. */
void fan_failures(ObjReader& r, std::vector<Action>& parts, std::string& text)
{
    if (Node f = r.opt("fail_read"); f.j) {
        ObjReader o(f);
        int ret = i32_of(o.at("ret"), "a result code");
        uint32_t err = 0;
        if (Node e = o.opt("fanc_error"); e.j) {
            err = u32_of(e, "the FANC error word");
        }
        int count = static_cast<int>(opt_int(o, "count", 1, 1, 1000000, "a number of reads"));
        o.finish();
        parts.push_back([=](Runner&, StepReport&) { zsim::fail_fan_read(ret, err, count); });
        say(text, "fan speed reads fail with " + std::to_string(ret));
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
        int count = static_cast<int>(opt_int(o, "count", 1, 1, 1000000, "a number of calls"));
        o.finish();
        parts.push_back([=](Runner&, StepReport&) { zsim::fail_fan_speed_change(mode, ret, data, count); });
        say(text, mode + " fails with " + std::to_string(ret));
    }
}

Action act_fan(const Node& v, Step& st)
{
    ObjReader r(v);
    std::vector<Action> parts;
    std::string text;
    if (Node n = r.opt("fan"); n.j) {
        int fan = static_cast<int>(get_int(n, 0, 7, "a fan index (FANU = index / 2, FAN = index % 2)"));
        fan_changes(r, fan, parts, text);
    }
    if (opt_on(r, "power_on")) {
        parts.push_back([](Runner&, StepReport&) { zsim::fan_power_on(); });
        say(text, "fans powered on");
    }
    if (Node b = r.opt("fanc_error"); b.j) {
        uint32_t w = u32_of(b, "the FANC error word");
        parts.push_back([=](Runner&, StepReport&) { zsim::set_fanc_error(w); });
        say(text, "FANC error word " + hex(w, 2));
    }
    fan_failures(r, parts, text);
    /* A fan index alone says nothing; an event given as false does. */
    bool said = v->size() > (v->contains("fan") ? 1u : 0u);
    r.finish();
    if (!said) {
        v.fail(
            "say what changes: \"fan\" with stall, slow, spin_up or replace; power_on; fanc_error; fail_read; "
            "fail_speed_change");
    }
    st.text = parts.empty() ? "fans left as they are" : text;
    return sequence(parts);
}

} // namespace

void add_device_actions(ActionTable& t)
{
    t["led"] = act_led;
    t["reg"] = act_reg;
    t["psu_ctlinfo"] = act_psu_ctlinfo;
    t["port_map"] = act_port_map;
    t["clear_sensor_list"] = act_clear_sensor_list;
    t["slave_addr"] = act_slave_addr;
    t["router"] = act_router;
    t["quor_space"] = act_quor_space;
    t["psu"] = act_psu;
    t["fan"] = act_fan;
}

} // namespace zcmd
