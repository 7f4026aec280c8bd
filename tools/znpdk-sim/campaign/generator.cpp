/* The story generator: one table of step kinds, each with the function
 * that draws a step of that kind. Per story every kind is left out with
 * some probability and the others get random weights (swarm testing), so
 * that orders which one mix of weights makes rare come up often in another. */
#include "campaign/generator.h"

#include <stdlib.h>

#include <algorithm>
#include <filesystem>

#include "campaign/random.h"
#include "run/processes.h"
#include "znpdk_sim/sim.h"

namespace zcmd {

namespace {

constexpr int kChassis = 17;
constexpr int kPsus = 18;
constexpr int kFans = 8;
constexpr int kRouters = 16;
constexpr int kIncarnations = Processes::kIncarnations;
constexpr uint8_t kFanFrue = 0xD1;    /* + fan index */
constexpr uint8_t kFanuMainte = 0xDD; /* + fan unit: in maintenance at offset 1 */
constexpr uint8_t kUnitMainte = 4;    /* + unit 0 to 28 */
constexpr uint8_t kBobStatus = 33;
constexpr uint8_t kNodeStatus = 10;
constexpr uint32_t kBiouReady = 0x40000000; /* BIOU#0's "initialisation complete" status bit */

const std::vector<std::string> kProcessNames = {"init",  "psumon", "fanmon",  "ipmi",
                                                "power", "maint",  "portmon", "hwmon"};

enum class Group { Hardware, Call, Inject, Time, Process };

class Gen;
using Make = ojson (*)(Gen&);

struct Kind {
    const char* name;
    Group group;
    uint32_t weight; /* before the story's own factor */
    Make make;       /* a step, or null when the kind has nothing to do now */
};

const std::vector<Kind>& kinds();

/* The state of the story being drawn, as far as choosing sensible steps needs it. */
class Gen {
  public:
    Gen(uint64_t seed, const GenConfig& cfg, const MachineInfo& m) : rng(seed), cfg(cfg), machine(m) {}

    Rng rng;
    const GenConfig& cfg;
    const MachineInfo& machine;
    std::vector<std::string> procs;
    int incarnations = 0;
    std::vector<int> pending; /* instances still to initialise or recover after a start */
    bool pending_init = true; /* AC power-on: ZNAPI_Sensor_Init; else the recovery */
    /* Instances whose save-area semaphore a killed process may hold until the next
     * reboot: every save of theirs waits out the bound, so no initialisation of 100
     * and more sensors is drawn for them. */
    std::vector<bool> sem_dead = std::vector<bool>(kChassis + 1, false);
    /* BIOU#0 may no longer say its initialisation is complete (a clearing of its
     * status bit 30 was drawn): znpdklib_wait_BMCReady would wait for ever, as it must. */
    bool biou_unready = false;
    bool power_on_due = false;
    std::vector<uint32_t> weights; /* of this story, by kind */
    bool fault = false;            /* the step being made is a fault */

    std::string proc() { return rng.pick(procs); }

    /* A BMC instance, now and then one out of range. */
    int inst()
    {
        if (rng.chance(30)) {
            return static_cast<int>(rng.pick(std::vector<int>{-1, 0, 18, 255}));
        }
        return rng.chance(400) ? kChassis : static_cast<int>(rng.range(1, 17));
    }
    /* A sensor of the instance, now and then any number. */
    int sensor_of(int i)
    {
        if (i < 0 || i > kChassis || machine.sensors[i].empty() || rng.chance(50)) {
            return static_cast<int>(rng.below(256));
        }
        return rng.pick(machine.sensors[i]);
    }
    int psu() { return rng.chance(20) ? static_cast<int>(rng.pick(std::vector<int>{-1, 18})) : psu_in(); }
    int psu_in() { return static_cast<int>(rng.below(kPsus)); }
    int fan() { return static_cast<int>(rng.below(kFans)); }
    int router()
    {
        return rng.chance(30) ? static_cast<int>(rng.pick(std::vector<int>{-1, 16})) : router_in();
    }
    int router_in() { return static_cast<int>(rng.below(kRouters)); }
    std::string hex(uint64_t v) const
    {
        char buf[24];
        std::snprintf(buf, sizeof buf, "0x%llX", static_cast<unsigned long long>(v));
        return buf;
    }
    /* A full-speed reason: the callers' own bits, now and then the fan check's. */
    std::string reason()
    {
        static const std::vector<uint64_t> bits = {0x1, 0x2, 0x4, 0x80, 0x1000, 0x200000, 0x400000};
        uint64_t r = rng.pick(bits);
        if (rng.chance(150)) {
            r |= rng.pick(bits);
        }
        return hex(r);
    }
    /* A state word the machine defines for the sensor (the IPMI stack never
     * holds another); `prefer` picks among the defined offsets when it can. */
    std::string reading(int inst, int num, uint16_t prefer = 0xFFFF)
    {
        const zsim::SensorStates& st = machine.states[static_cast<size_t>(inst * 256 + num)];
        std::vector<int> offsets, preferred;
        for (int b = 0; b < 15; ++b) {
            if (st.defined & (1u << b)) {
                offsets.push_back(b);
                if (prefer & (1u << b)) {
                    preferred.push_back(b);
                }
            }
        }
        const std::vector<int>& from = preferred.empty() ? offsets : preferred;
        switch (st.rule) {
        case zsim::StateRule::Unchecked:
            return hex(rng.chance(700) ? 1u << rng.below(15) : rng.below(0x8000));
        case zsim::StateRule::Flags: {
            uint64_t w = 0;
            for (int b : offsets) {
                w |= rng.chance(300) ? 1u << b : 0;
            }
            return hex(w);
        }
        case zsim::StateRule::AtMostOne:
            return hex(from.empty() || rng.chance(200) ? 0 : 1u << rng.pick(from));
        default:
            return hex(from.empty() ? 0 : 1u << rng.pick(from));
        }
    }
    bool held(int i) const { return i >= 0 && i <= kChassis && sem_dead[static_cast<size_t>(i)]; }
    /* A kill while holding instance i's save-area semaphore was drawn. */
    void hold(int i)
    {
        sem_dead[static_cast<size_t>(i)] = true;
        pending.erase(std::remove(pending.begin(), pending.end(), i), pending.end());
    }
    std::string fan_set() { return hex(rng.chance(300) ? 0xFF : rng.range(0, 0xFF)); }
    /* The start-up of the instances after an AC power-on or a reboot: the
     * chassis, then every node instance in some stories and a few in most
     * (the others keep what the stack holds), so that stories stay short. */
    void start_up(bool ac)
    {
        pending.assign(1, kChassis);
        bool all = rng.chance(300);
        int few = static_cast<int>(rng.range(0, 3));
        for (int i = 1; i < kChassis; ++i) {
            if (all || (few > 0 && rng.chance(few * 1000 / 16))) {
                pending.push_back(i);
            }
        }
        pending_init = ac;
        power_on_due = ac;
        sem_dead.assign(kChassis + 1, false);
    }
};

ojson call(const char* fn, ojson args)
{
    return ojson{{"call", fn}, {"args", std::move(args)}};
}

ojson in_process(ojson step, const std::string& p)
{
    ojson out{{"process", p}};
    for (auto& kv : step.items()) {
        out[kv.key()] = kv.value();
    }
    return out;
}

/* ---- Hardware faults and repairs (the runner's process: shared hardware) ---- */

ojson psu_change(Gen& g)
{
    ojson p{{"psu", g.psu_in()}};
    static const char* bits[] = {"present", "acok", "pson"};
    const char* bit = bits[g.rng.below(3)];
    bool on = g.rng.chance(450);
    p[bit] = on;
    g.fault = !on;
    if (g.rng.chance(150)) {
        uint32_t fs = g.rng.chance(500) ? 1 : static_cast<uint32_t>(g.rng.below(16));
        p["fru_status"] = fs;
        g.fault = g.fault || fs != 1;
    }
    return ojson{{"psu", p}};
}

ojson psu_fru_status(Gen& g)
{
    uint32_t fs = g.rng.pick(std::vector<uint32_t>{0, 1, 1, 2, 3, 4, 9, 15});
    g.fault = fs != 1;
    return ojson{{"psu", {{"psu", g.psu_in()}, {"fru_status", fs}}}};
}

ojson psu_healthy(Gen&)
{
    return ojson{{"psu", {{"healthy", true}}}};
}

ojson psu_read_fails(Gen& g)
{
    g.fault = true;
    return ojson{{"psu",
                  {{"fail_read",
                    {{"code", g.rng.pick(std::vector<int>{-5, -1, -3})}, {"count", g.rng.range(1, 3)}}}}}};
}

ojson fan_model(Gen& g)
{
    ojson f{{"fan", g.fan()}};
    switch (g.rng.below(4)) {
    case 0:
        f["stall"] = true;
        g.fault = true;
        break;
    case 1:
        f["slow"] = g.rng.range(1000, 9000);
        g.fault = true;
        break;
    case 2:
        f["spin_up"] = g.rng.range(1, 20);
        break;
    default:
        f["replace"] = true;
        break;
    }
    return ojson{{"fan", f}};
}

ojson fan_controller(Gen& g)
{
    g.fault = true;
    switch (g.rng.below(4)) {
    case 0:
        return ojson{{"fan", {{"fanc_error", g.rng.chance(400) ? 0 : g.rng.range(1, 3)}}}};
    case 1:
        return ojson{
            {"fan",
             {{"fail_read",
               {{"ret", -5}, {"fanc_error", g.hex(g.rng.range(0, 3))}, {"count", g.rng.range(1, 3)}}}}}};
    case 2:
        return ojson{{"fan",
                      {{"fail_speed_change",
                        {{"mode", g.rng.chance(500) ? "MAX_FANSPEED" : "RESTORE_FANSPEED"},
                         {"ret", -1},
                         {"count", g.rng.range(1, 2)}}}}}};
    default:
        g.fault = false;
        return ojson{{"fan", {{"power_on", true}}}};
    }
}

/* The monitoring process's verdict on a fan: usable, failed, not installed. */
ojson fan_sensor(Gen& g)
{
    uint32_t v = g.rng.pick(std::vector<uint32_t>{0x0002, 0x0002, 0x0010, 0x0010, 0x0001, 0x0004, 0x0020});
    g.fault = v == 0x0010 || v == 0x0001;
    int num = kFanFrue + g.fan();
    const zsim::SensorStates& st = g.machine.states[static_cast<size_t>(kChassis * 256 + num)];
    return ojson{{"sensor",
                  {{"inst", kChassis},
                   {"num", num},
                   {"reading", st.defined & v ? g.hex(v) : g.reading(kChassis, num)}}}};
}

/* A unit enters maintenance or leaves it, as the maintenance process records it:
 * mostly a fan unit (sensor 0xDD + j), now and then another unit (4 + i). */
ojson maintenance(Gen& g)
{
    int num = g.rng.chance(750) ? kFanuMainte + static_cast<int>(g.rng.below(4))
                                : kUnitMainte + static_cast<int>(g.rng.below(29));
    bool in = g.rng.chance(500);
    g.fault = in;
    return ojson{
        {"sensor",
         {{"inst", kChassis}, {"num", num}, {"reading", g.reading(kChassis, num, in ? 0x0002 : 0x0001)}}}};
}

ojson system_power(Gen& g)
{
    return ojson{
        {"sensor",
         {{"inst", kChassis}, {"num", 0}, {"reading", g.rng.chance(700) ? "0x0" : g.reading(kChassis, 0)}}}};
}

/* A controller's status sensor in an error state (offsets 5 to 9 where the
 * machine defines them) or back to normal. */
ojson controller_state(Gen& g)
{
    bool bob = g.rng.chance(300);
    int inst = bob ? kChassis : static_cast<int>(g.rng.range(1, 16));
    int num = bob ? kBobStatus : kNodeStatus;
    g.fault = g.rng.chance(550);
    std::string r = g.reading(inst, num, g.fault ? 0x03E0 : 0x0002);
    return ojson{{"sensor", {{"inst", inst}, {"num", num}, {"reading", r}}}};
}

/* The IPMI stack changes any sensor outside the library (the BMC's monitoring). */
ojson stack_sensor(Gen& g)
{
    int i = static_cast<int>(g.rng.range(1, 17));
    if (g.machine.sensors[i].empty()) {
        return nullptr;
    }
    int num = g.rng.pick(g.machine.sensors[i]);
    return ojson{{"sensor", {{"inst", i}, {"num", num}, {"reading", g.reading(i, num)}}}};
}

ojson router_ports(Gen& g)
{
    ojson r{{"router", g.router_in()}};
    switch (g.rng.below(5)) {
    case 0:
        r["online_mask"] = g.hex(g.rng.chance(400) ? 0x3FF : g.rng.below(0x400));
        break;
    case 1:
        r["port_online"] = {{"pport", g.rng.below(10)}, {"online", g.rng.chance(500) ? 1 : 0}};
        break;
    case 2:
        r["link_status"] = {{std::to_string(g.rng.below(10)),
                             g.hex(g.rng.pick(std::vector<uint32_t>{0x0, 0x2, 0x4, 0x130, 0xF0}))}};
        break;
    case 3:
        r["link_check_result"] = g.rng.chance(500) ? 0 : -5;
        break;
    default:
        r["link_up_result"] = g.rng.chance(500) ? 0 : -1;
        break;
    }
    g.fault = true;
    return ojson{{"router", r}};
}

/* ---- Library calls, as the BMC's processes make them --------------------------- */

ojson psu_check(Gen& g)
{
    int mode = g.rng.chance(40) ? static_cast<int>(g.rng.pick(std::vector<int>{0, 4, 17}))
                                : static_cast<int>(g.rng.pick(std::vector<int>{1, 2, 3, 3}));
    return call("znpdklib_check_psu_redundancy", {mode});
}

ojson psu_control_check(Gen& g)
{
    return call("znpdklib_check_psu_redundancy_for_psu_control", {g.rng.chance(900) ? 17 : 1, g.psu()});
}

ojson fan_check(Gen& g)
{
    int mode = g.rng.chance(40) ? static_cast<int>(g.rng.pick(std::vector<int>{0, 3}))
                                : static_cast<int>(g.rng.range(1, 2));
    return call("znpdklib_check_fan_redundancy", {mode, 0});
}

ojson fan_mainte_check(Gen& g)
{
    return call("znpdklib_check_fan_redundancy_for_enter_mainte", {g.rng.chance(50) ? 4 : g.rng.range(0, 3)});
}

ojson fan_reasons(Gen& g)
{
    switch (g.rng.below(3)) {
    case 0:
        return call("znpdklib_max_fan_speed", {g.reason()});
    case 1:
        return call("znpdklib_restore_fan_speed", {g.reason()});
    default:
        return call("znpdklib_change_fan_speed", {g.rng.chance(300) ? "0x0" : g.reason(), g.reason()});
    }
}

ojson fan_rotation(Gen& g)
{
    switch (g.rng.below(3)) {
    case 0:
        return call("znpdklib_check_fan_spinup", ojson::array());
    case 1:
        return call("znpdklib_check_fan_rotation", ojson::array());
    default:
        return call("znpdklib_create_fan_rotation_check_thread", {g.rng.chance(500) ? 2 : 1, g.fan_set()});
    }
}

ojson fan_bookkeeping(Gen& g)
{
    switch (g.rng.below(7)) {
    case 0:
        return call("znpdklib_set_check_fan_start_time", {g.fan_set(), "out"});
    case 1:
        return call("znpdklib_clear_check_fan_start_time", {g.fan_set(), nullptr});
    case 2:
        return call("znpdklib_set_fan_check_phase",
                    {g.hex(g.rng.pick(std::vector<uint32_t>{0x00, 0x01, 0x81, 0x02, 0x82}))});
    case 3:
        return call("znpdklib_set_check_fan_start_time_by_attach", {"out"});
    case 4:
        return call("znpdklib_clear_check_fan_start_time_by_attach",
                    {g.rng.chance(500) ? 0 : g.rng.below(200)});
    case 5:
        return call("znpdklib_is_check_fan_executing", ojson::array());
    default:
        return call("znpdklib_get_fan_check_phase", ojson::array());
    }
}

ojson port_call(Gen& g)
{
    int r = g.router();
    switch (g.rng.below(7)) {
    case 0:
        return call("znpdklib_updateQuorPortStatus", {r});
    case 1:
        return call("znpdklib_checkBeaconErrorPort", {r});
    case 2:
        return call("znpdklib_clearQuorPortErrorStatus", {r, g.rng.range(0, 10)});
    case 3:
        return call("znpdklib_checkWaitEnableLogicalPort", {r, g.hex(g.rng.below(0x400))});
    case 4:
        return call("znpdklib_checkWaitEnableInternalLogicalPort", {r, g.hex(g.rng.below(0x400))});
    case 5:
        return call("znpdklib_isLogicalPortOffline", {r, g.rng.range(0, 10)});
    default:
        return call("znpdklib_getRemoteRouterNo", {r, "out"});
    }
}

ojson outage_call(Gen& g)
{
    static const std::vector<std::string> types = {"COMPO_BOBC", "COMPO_CMUC", "COMPO_NODE", "COMPO_NODE",
                                                   "COMPO_PSU"};
    std::string type = g.rng.pick(types);
    int no = type == "COMPO_BOBC"   ? (g.rng.chance(900) ? 0 : 1)
             : type == "COMPO_CMUC" ? static_cast<int>(g.rng.range(0, 8))
                                    : static_cast<int>(g.rng.range(0, 16));
    switch (g.rng.below(6)) {
    case 0:
        g.fault = true;
        return call("znpdklib_setEmergencyOutage", {type, no, g.rng.range(0, 2)});
    case 1:
        return call("znpdklib_clearEmergencyOutage", {type, no});
    case 2:
        g.fault = true;
        return call("znpdklib_setBMCRebootOutage", {type, no, g.rng.range(0, 2)});
    case 3:
        return call("znpdklib_clearBMCRebootOutage", {type, no});
    case 4:
        return call("znpdklib_checkEmergencyOutage", {type, no});
    default:
        return call("znpdklib_setEmergencyMaskReg", {type, no});
    }
}

ojson procedure_call(Gen& g)
{
    int n = static_cast<int>(g.rng.range(0, 7));
    std::string path = g.rng.pick(std::vector<std::string>{"/SYSTEM#0/CMUC#" + std::to_string(n),
                                                           "/SYSTEM#0/NODE#" + std::to_string(2 * n),
                                                           "/SYSTEM#0/BOBC#0", "/SYSTEM#0/CMUC#9"});
    return call("znpdklib_exechap",
                {path, "CMU_R_STATUS", "READ", ojson::array({n, 1}), ojson::array({0, 0})});
}

ojson sequence_call(Gen& g)
{
    switch (g.rng.below(5)) {
    case 0:
        return call(
            "znpdklib_shmem_sequence_flags",
            {g.rng.range(1, 3), g.hex(g.rng.chance(200) ? 0x0BFFFF0000000000ull : 1ull << g.rng.below(40))});
    case 1:
        return call("znpdklib_monitor_enable_check", {g.inst()});
    case 2:
        return call("znpdklib_monitor_enable_check_gio", {g.inst()});
    case 3:
        return call("znpdklib_fan_monitor_enable_check", {kChassis, kFanFrue + g.fan()});
    default:
        return call("znpdklib_shmem_corvo_job_regist_flags",
                    {g.rng.range(1, 3), g.inst(), g.rng.range(0, 3), g.rng.range(0, 3), nullptr});
    }
}

/* Sensor state changes through the library, on any instance. */
ojson sensor_set(Gen& g)
{
    int i = g.inst();
    int num = g.sensor_of(i);
    int off = g.rng.chance(30) ? 15 : static_cast<int>(g.rng.range(0, 9));
    int dir = g.rng.chance(700) ? 1 : 0;
    std::string ed1 = g.hex(off), ed = "0xFF";
    switch (g.rng.below(7)) {
    case 0:
    case 1:
        return call("znpdklib_SetSensorWoS", {num, dir, off, i});
    case 2:
        return call("znpdklib_SetSensorWS", {num, dir, ed1, ed, ed, i, "out"});
    case 3:
        return call("znpdklib_exSetSensorWoS", {num, off, i});
    case 4:
        return call("znpdklib_exSetSensorWS", {num, ed1, ed, ed, i, "out"});
    case 5:
        return call("ZNAPI_SetSensorWoS", {num, dir, off, i});
    default:
        return call("ZNAPI_SetSensorWS", {num, dir, ed1, ed, ed, i, "out"});
    }
}

ojson sensor_read(Gen& g)
{
    int i = g.inst();
    int num = g.sensor_of(i);
    switch (g.rng.below(4)) {
    case 0:
        return call("znpdklib_getDiscreteStatusSensorStatus", {num, "out", i});
    case 1:
        return call("ZNAPI_GetSensorReading", {num, "out", i});
    case 2:
        return call("ZNAPI_MemSensorInfoWrite", {num, i});
    default:
        return call("isValidSensorBMCInst", {num, i});
    }
}

/* Start-up work outside the start-up: initialisation, escalation tables, node evaluation, recovery. */
ojson instance_call(Gen& g)
{
    int i = g.inst();
    switch (g.rng.below(8)) {
    case 0:
        return call(g.held(i) ? "ZNAPI_MemSensorInfoRecover" : "ZNAPI_Sensor_Init", {i});
    case 1:
        return call("ZNAPI_MemSensorInfoRecover", {i});
    case 2:
        return call("znpdklib_make_escalation_info", {i});
    case 3:
        return call("znpdklib_Set_Sensor_Node", {i});
    case 4:
        return call("znpdklib_get_escalation_info",
                    {{{"esc_spec", 0}, {"BMCInst", i}, {"Sensor_No", g.sensor_of(i)}}, "out"});
    case 5:
        return call(g.rng.pick(std::vector<const char*>{
                        "znpdklib_Init_Sensor_Bob", "znpdklib_Init_Sensor_PSU", "znpdklib_Init_Sensor_FANU",
                        "znpdklib_Init_Sensor_Maintenance"}),
                    ojson::array());
    case 6:
        return call(g.rng.chance(500) ? "znpdklib_Init_Sensor_Node" : "znpdklib_Init_Sensor_Giou", {i});
    default:
        return g.biou_unready ? call("znpdklib_Set_Sensor_Node", {i})
                              : call("znpdklib_wait_BMCReady", ojson::array());
    }
}

ojson recovery_call(Gen& g)
{
    switch (g.rng.below(4)) {
    case 0:
        return call("znpdklib_redundancy_recover", {g.rng.chance(700) ? 1 : 0});
    case 1:
        return call("znpdklib_redundancy_recover_shortage2lost", ojson::array());
    case 2:
        return call("znpdklib_clear_bob_alarm_led", ojson::array());
    default:
        if (g.rng.chance(300)) {
            return call("znpdklib_check_bobc_error", ojson::array());
        }
        return call(g.rng.chance(500) ? "znpdklib_check_cmuc_error" : "znpdklib_check_rtnd_error",
                    {g.rng.range(-1, 16)});
    }
}

ojson record_call(Gen& g)
{
    static const std::vector<const char*> fns = {
        "znpdklib_cleardb_biou", "znpdklib_cleardb_giou",   "znpdklib_cleardb_psu", "znpdklib_cleardb_cmu",
        "znpdklib_cleardb_iorc", "znpdklib_cleardb_system", "znpdklib_cleardb_fanu"};
    if (g.rng.chance(300)) {
        return call("znpdklib_Various_sharemem_write",
                    {{{"job_in_sequence", g.hex(g.rng.next() & 0x0BFFFF00FFFFFFFFull)}}});
    }
    const char* fn = g.rng.pick(fns);
    int no = static_cast<int>(g.rng.range(0, 17));
    uint32_t bit = 1u << g.rng.below(32);
    /* znpdklib_cleardb_biou clears BIOU#0 whatever its number says */
    g.biou_unready = g.biou_unready || (fn == fns[0] && bit == kBiouReady);
    return call(fn, {no, g.hex(bit)});
}

/* ---- Failures of the platform's calls, injected in one process -------------- */

ojson inject(Gen& g)
{
    bool on = g.rng.chance(700);
    g.fault = on;
    ojson what;
    switch (g.rng.below(9)) {
    case 0:
        what = {{"sel_add", {{"on", on}, {"cc", g.rng.chance(500) ? "0xC0" : "0xFF"}}}};
        break;
    case 1:
        what = {{g.rng.chance(500) ? "sensor_mutex_lock" : "sensor_mutex_unlock",
                 {{"inst", g.rng.range(1, 17)}, {"err", on ? g.rng.pick(std::vector<int>{22, 35}) : 0}}}};
        break;
    case 2:
        what = {{"sem_open", on}};
        break;
    case 3:
        what = {{"sem_lock", on ? g.rng.pick(std::vector<int>{-1, 110}) : 0}};
        break;
    case 4:
        what = {{"db_get_property",
                 {{"path",
                   g.rng.pick(std::vector<std::string>{"/SYSTEM#0/ROUTER#" + std::to_string(g.router_in()),
                                                       "/SYSTEM#0/BIOU#0", "/SYSTEM#0"})},
                  {"code", on ? -1 : 0}}}};
        break;
    case 5:
        what = {{g.rng.chance(500) ? "led_read" : "led_control", {{"on", on}}}};
        break;
    case 6:
        what = {{g.rng.chance(500) ? "reg_read" : "reg_write",
                 {{"errno", 5}, {"count", on ? g.rng.range(1, 3) : 0}}}};
        break;
    default:
        g.fault = true;
        what = {{"select_eintr", {{"after", g.rng.range(0, 5)}, {"count", g.rng.range(1, 2)}}}};
        break;
    }
    return ojson{{"inject", what}};
}

/* ---- Time --------------------------------------------------------------------- */

ojson advance(Gen& g)
{
    if (g.rng.chance(50)) {
        return ojson{{"wait_threads", true}};
    }
    return ojson{{"advance", g.rng.chance(100) ? g.rng.range(60, 600) : g.rng.range(1, 30)}};
}

/* ---- Processes: together, restarts, kills, reboots, AC power cycles, start-up --- */

/* A library call of a kind the story uses, for a part of another step. */
ojson some_call(Gen& g)
{
    std::vector<uint32_t> w(kinds().size(), 0);
    for (size_t k = 0; k < kinds().size(); ++k) {
        if (kinds()[k].group == Group::Call) {
            w[k] = g.weights[k];
        }
    }
    int k = g.rng.weighted(w);
    return k < 0 ? psu_check(g) : kinds()[k].make(g);
}

ojson together(Gen& g)
{
    if (g.procs.size() < 2) {
        return nullptr;
    }
    std::vector<std::string> who = g.procs;
    size_t n = std::min<size_t>(who.size(), g.rng.chance(700) ? 2 : 3);
    ojson parts = ojson::array();
    for (size_t i = 0; i < n; ++i) {
        size_t at = g.rng.below(who.size());
        ojson part = some_call(g);
        /* The IPMI stack calls ZNAPI_ sets with the sensor mutex held; beside
         * another process's call a story uses the form that takes it. */
        const std::string fn = part.value("call", "");
        if (fn.rfind("ZNAPI_Set", 0) == 0) {
            part["call"] = "znpdklib_" + fn.substr(6);
        }
        parts.push_back(in_process(part, who[at]));
        who.erase(who.begin() + static_cast<std::ptrdiff_t>(at));
    }
    return ojson{{"together", parts}};
}

ojson restart(Gen& g)
{
    if (g.incarnations + 1 > kIncarnations) {
        return nullptr;
    }
    ++g.incarnations;
    return ojson{{"restart", g.proc()}};
}

/* A call that passes the kill point, and the visits to die at. */
struct KillPlan {
    const char* point;
    ojson (*during)(Gen&, int& at);
};

ojson during_save(Gen& g, int& at)
{
    at = static_cast<int>(g.rng.range(1, 4));
    int i = static_cast<int>(g.rng.range(1, 17));
    switch (g.held(i) ? 0 : g.rng.below(3)) {
    case 0:
        g.hold(i);
        return call("znpdklib_SetSensorWoS", {g.sensor_of(i), 1, g.rng.range(0, 9), i});
    case 1:
        at = static_cast<int>(g.rng.chance(500) ? g.rng.range(1, 4) : g.rng.range(5, 200));
        g.hold(i);
        return call("ZNAPI_Sensor_Init", {i});
    default:
        g.hold(kChassis);
        return g.rng.chance(500) ? psu_check(g) : fan_check(g);
    }
}

ojson during_record(Gen& g, int& at)
{
    at = static_cast<int>(g.rng.range(1, 2));
    switch (g.rng.below(4)) {
    case 0:
        return fan_reasons(g);
    case 1:
        return call("znpdklib_setEmergencyOutage", {"COMPO_NODE", g.rng.range(0, 15), 1});
    case 2:
        return call("znpdklib_set_fan_check_phase",
                    {g.hex(g.rng.pick(std::vector<uint32_t>{0x01, 0x02, 0x82}))});
    default:
        return record_call(g);
    }
}

ojson during_escalation(Gen& g, int& at)
{
    at = static_cast<int>(g.rng.range(1, 3));
    int i = static_cast<int>(g.rng.range(1, 17));
    return g.rng.chance(500) && !g.held(i) ? call("ZNAPI_Sensor_Init", {i})
                                           : call("znpdklib_make_escalation_info", {i});
}

ojson during_fan_poll(Gen& g, int& at)
{
    at = static_cast<int>(g.rng.range(1, 4));
    return g.rng.chance(750) ? fan_rotation(g) : call("znpdklib_max_fan_speed", {g.reason()});
}

ojson kill(Gen& g)
{
    static const KillPlan plans[] = {{"holding save-area semaphore", during_save},
                                     {"writing component record", during_record},
                                     {"rebuilding escalation table", during_escalation},
                                     {"fan check poll", during_fan_poll}};
    if (g.incarnations + 1 > kIncarnations) {
        return nullptr;
    }
    ++g.incarnations; /* started again at its next step or reboot */
    const KillPlan& plan = plans[g.rng.below(4)];
    int at = 1;
    const std::string p = g.proc();
    ojson during = in_process(plan.during(g, at), p);
    g.fault = true;
    return ojson{{"kill", {{"process", p}, {"while", plan.point}, {"at", at}, {"during", during}}}};
}

ojson reboot(Gen& g)
{
    if (g.incarnations + static_cast<int>(g.procs.size()) > kIncarnations) {
        return nullptr;
    }
    g.incarnations += static_cast<int>(g.procs.size());
    bool ac = g.rng.chance(400);
    g.start_up(ac);
    g.fault = true;
    return ac ? ojson{{"ac_power_cycle", true}} : ojson{{"bmc_reboot", true}};
}

/* The start-up process initialises (after an AC power-on) or recovers each
 * instance; the power control process then powers the system on. */
ojson start_up(Gen& g)
{
    if (g.pending.empty()) {
        if (!g.power_on_due) {
            return nullptr;
        }
        g.power_on_due = false;
        return in_process(call("znpdklib_SetSensorWoS", {0, 0, 0, kChassis}), g.procs.back());
    }
    int i = g.pending.front();
    g.pending.erase(g.pending.begin());
    return in_process(call(g.pending_init ? "ZNAPI_Sensor_Init" : "ZNAPI_MemSensorInfoRecover", {i}),
                      g.procs.front());
}

const std::vector<Kind>& kinds()
{
    static const std::vector<Kind> t = {
        {"psu", Group::Hardware, 6, psu_change},
        {"psu-fru-status", Group::Hardware, 2, psu_fru_status},
        {"psu-all-healthy", Group::Hardware, 1, psu_healthy},
        {"psu-read-fails", Group::Hardware, 1, psu_read_fails},
        {"fan", Group::Hardware, 4, fan_model},
        {"fan-controller", Group::Hardware, 2, fan_controller},
        {"fan-sensor", Group::Hardware, 4, fan_sensor},
        {"maintenance", Group::Hardware, 2, maintenance},
        {"system-power", Group::Hardware, 2, system_power},
        {"controller-state", Group::Hardware, 2, controller_state},
        {"stack-sensor", Group::Hardware, 1, stack_sensor},
        {"router", Group::Hardware, 2, router_ports},
        {"psu-check", Group::Call, 6, psu_check},
        {"psu-control-check", Group::Call, 1, psu_control_check},
        {"fan-check", Group::Call, 6, fan_check},
        {"fan-mainte-check", Group::Call, 1, fan_mainte_check},
        {"fan-reasons", Group::Call, 4, fan_reasons},
        {"fan-rotation", Group::Call, 4, fan_rotation},
        {"fan-bookkeeping", Group::Call, 2, fan_bookkeeping},
        {"port", Group::Call, 3, port_call},
        {"outage", Group::Call, 2, outage_call},
        {"procedure", Group::Call, 1, procedure_call},
        {"sequence", Group::Call, 1, sequence_call},
        {"sensor-set", Group::Call, 5, sensor_set},
        {"sensor-read", Group::Call, 2, sensor_read},
        {"instance", Group::Call, 2, instance_call},
        {"recovery", Group::Call, 2, recovery_call},
        {"record", Group::Call, 1, record_call},
        {"inject", Group::Inject, 3, inject},
        {"advance", Group::Time, 5, advance},
        {"together", Group::Process, 3, together},
        {"restart", Group::Process, 1, restart},
        {"kill", Group::Process, 2, kill},
        {"reboot", Group::Process, 1, reboot},
        {"start-up", Group::Process, 0, start_up},
    };
    return t;
}

/* This story's weights: each kind left out now and then, the others
 * weighted 1 to 4 times their base; at least one kind of call stays. */
std::vector<uint32_t> swarm_weights(Rng& rng)
{
    std::vector<uint32_t> w;
    bool any_call = false;
    for (const Kind& k : kinds()) {
        bool out = rng.chance(250);
        w.push_back(out ? 0 : k.weight * static_cast<uint32_t>(rng.range(1, 4)));
        any_call = any_call || (k.group == Group::Call && !out);
    }
    if (!any_call) {
        w[std::find_if(kinds().begin(), kinds().end(), [](const Kind& k) { return k.group == Group::Call; }) -
          kinds().begin()] = 6;
    }
    return w;
}

} // namespace

MachineInfo read_machine()
{
    char tmpl[] = "/tmp/znpdk-campaign-XXXXXX";
    const char* dir = mkdtemp(tmpl);
    MachineInfo m;
    m.sensors.resize(kChassis + 1);
    m.states.resize((kChassis + 1) * 256);
    if (dir == nullptr) {
        return m;
    }
    zsim::init(dir);
    zsim::build_default_machine();
    for (int i = 0; i <= kChassis; ++i) {
        for (int n = 0; n < 256; ++n) {
            if (zsim::sensor_present(i, static_cast<uint8_t>(n))) {
                m.sensors[i].push_back(static_cast<uint8_t>(n));
                m.states[static_cast<size_t>(i * 256 + n)] = zsim::sensor_states(i, static_cast<uint8_t>(n));
            }
        }
    }
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return m;
}

std::vector<std::string> step_kinds()
{
    std::vector<std::string> out;
    for (const Kind& k : kinds()) {
        out.push_back(k.name);
    }
    return out;
}

Story generate(uint64_t seed, uint64_t run, const GenConfig& cfg, const MachineInfo& machine)
{
    Gen g(run_seed(seed, run), cfg, machine);
    size_t nprocs = static_cast<size_t>(std::clamp(cfg.processes, 1, static_cast<int>(kProcessNames.size())));
    if (g.rng.chance(500)) {
        nprocs = static_cast<size_t>(g.rng.range(1, static_cast<int64_t>(nprocs)));
    }
    g.procs.assign(kProcessNames.begin(), kProcessNames.begin() + static_cast<std::ptrdiff_t>(nprocs));
    g.incarnations = static_cast<int>(nprocs);
    g.weights = swarm_weights(g.rng);
    /* The start-up is left out in few stories: most begin as after an AC power-on. */
    const size_t kStartUp = kinds().size() - 1;
    bool start_up_left_out = g.rng.chance(100);
    g.start_up(true);

    Story s;
    ojson steps = ojson::array();
    steps.push_back(ojson{{"file", {{"path", "/tmp/.boot/.acon"}, {"text", ""}}}});
    s.info.push_back({"ac-power-on", false});
    int misses = 0;
    while (steps.size() < static_cast<size_t>(cfg.steps) && misses < 1000) {
        std::vector<uint32_t> w = g.weights;
        uint32_t others = 0;
        for (uint32_t v : w) {
            others += v;
        }
        bool due = !g.pending.empty() || g.power_on_due;
        w[kStartUp] = due && !start_up_left_out ? std::max<uint32_t>(others, 1) : 0;
        int k = g.rng.weighted(w);
        if (k < 0) {
            break;
        }
        const Kind& kind = kinds()[static_cast<size_t>(k)];
        g.fault = false;
        ojson st = kind.make(g);
        if (st.is_null()) {
            ++misses;
            continue;
        }
        if (kind.group == Group::Call || kind.group == Group::Inject) {
            st = in_process(st, g.proc());
        }
        if (cfg.plant == Plant::Expectation && kind.make == psu_check) {
            st["expect"] = {{"ret", 0}};
        }
        steps.push_back(st);
        s.info.push_back({kind.name, g.fault});
    }
    char name[64];
    std::snprintf(name, sizeof name, "campaign-%llu-%llu", static_cast<unsigned long long>(seed),
                  static_cast<unsigned long long>(run));
    s.doc = ojson{{"name", name},
                  {"description", "A story drawn by znpdk-sim campaign --seed " + std::to_string(seed) +
                                      " (run " + std::to_string(run) + ")."},
                  {"invariants", true},
                  {"sem_wait_ms", 200},
                  {"steps", steps}};
    return s;
}

std::string story_text(const ojson& doc)
{
    std::string out = "{\n";
    bool first = true;
    for (auto& kv : doc.items()) {
        out += first ? "" : ",\n";
        first = false;
        out += "  " + ojson(kv.key()).dump() + ": ";
        if (kv.key() == "steps" && kv.value().is_array()) {
            out += "[";
            for (size_t i = 0; i < kv.value().size(); ++i) {
                out += (i == 0 ? "\n    " : ",\n    ") + kv.value()[i].dump();
            }
            out += "\n  ]";
        } else {
            out += kv.value().dump();
        }
    }
    return out + "\n}\n";
}

} // namespace zcmd
