/* Bad input, as one table: every exported function with each class of bad
 * argument that applies (instances 0, 18, 255, -1, INT_MIN, INT_MAX; a sensor without
 * a record; offsets of 16 and more; null pointers; empty, overlong, unknown
 * and malformed paths; wild port, router, type, unit and mode numbers;
 * garbage and cut files). Each call gets its result and its error lines,
 * and changes nothing else: sensors, SELs, records, registers, procedures,
 * RAS logs, LEDs and files are compared before and after. */
#include <climits>
#include <cstdarg>
#include <filesystem>
#include <regex>

#include "support.h"

namespace {

using Lines = std::vector<std::string>;

std::string fmt(const char* f, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, f);
    vsnprintf(buf, sizeof(buf), f, ap);
    va_end(ap);
    return buf;
}

/* A conversion on an id filled with 0x77: its result, plus 0x100 when the
 * id was not left zeroed. */
long upid_call(const std::function<int(unit_position_id_t*)>& conv)
{
    unit_position_id_t id;
    memset(&id, 0x77, sizeof(id));
    const int r = conv(&id);
    const unit_position_id_t zero = {};
    return memcmp(&id, &zero, sizeof(id)) == 0 ? r : 0x100 + r;
}

/* Error lines of the call: debug output without its "[file:line]" prefix,
 * and trace lines of the error level. */
Lines error_lines()
{
    static const std::regex prefix(R"(^\[[a-z_]+:[1-9][0-9]*\]([\s\S]*)$)");
    Lines out;
    std::smatch m;
    for (const zsim::TraceLine& t : zsim::traces()) {
        if (t.debug) {
            out.push_back(std::regex_match(t.text, m, prefix) ? m[1].str() : "?" + t.text);
        } else if (t.level == 0x8002) {
            out.push_back(t.text);
        }
    }
    return out;
}

/* Everything a call could change. */
struct Snapshot {
    std::vector<uint8_t> sensors;
    std::vector<size_t> sels;
    std::vector<int> record_writes;
    size_t reg_writes = 0, haps = 0, ras = 0;
    int leds = 0;
    std::map<std::string, std::vector<uint8_t>> files;
    bool operator==(const Snapshot& o) const
    {
        return sensors == o.sensors && sels == o.sels && record_writes == o.record_writes &&
               reg_writes == o.reg_writes && haps == o.haps && ras == o.ras && leds == o.leds &&
               files == o.files;
    }
};

Snapshot snapshot(int max_oid)
{
    Snapshot s;
    for (const BMCInfo_t& info : g_BMCInfo) {
        const auto* t = reinterpret_cast<const uint8_t*>(&info.SensorSharedMem);
        s.sensors.insert(s.sensors.end(), t, t + sizeof(info.SensorSharedMem));
    }
    for (int i = 0; i < 18; ++i) {
        s.sels.push_back(zsim::sel(i).size());
    }
    for (int oid = 1; oid <= max_oid; ++oid) {
        s.record_writes.push_back(zsim::property_writes(oid));
    }
    for (const zsim::RegAccess& a : zsim::reg_accesses()) {
        s.reg_writes += a.write ? 1 : 0;
    }
    s.haps = zsim::hap_calls().size();
    s.ras = zsim::ras_logs().size();
    s.leds = zsim::led_control_calls();
    namespace fs = std::filesystem;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(zsim::root(), ec);
         it != fs::recursive_directory_iterator(); it.increment(ec)) {
        const std::string p = it->path().string();
        if (it->is_regular_file(ec) && p.find("/.znpdk-sim") == std::string::npos) {
            s.files[p] = zsim::read_file(p.substr(zsim::root().size()));
        }
    }
    return s;
}

struct BadCall {
    std::string what;
    std::function<long()> call;
    long result;
    Lines errors;
};

/* A call that hands out a record id: its result, plus 0x10000 when it wrote the id. */
long with_id(const std::function<int(INT16U*)>& call)
{
    INT16U id = 0x5555;
    const int r = call(&id);
    return r | (id == 0x5555 ? 0 : 0x10000);
}

/* Output buffers of the refused router calls (never read). */
int g_ports[10];
uint32_t g_wait;

using BadInput = SimTest;

TEST_F(BadInput, EveryFunctionRefusesOrIgnoresBadArgumentsAndChangesNothing)
{
    int max_oid = 1;
    while (!zsim::path_of(max_oid + 1).empty()) {
        ++max_oid;
    }
    /* A sensor of our own whose saved entry equals its state, so that a
     * change of no bit also rewrites nothing. */
    int own = 0xF0;
    while (zsim::sensor_present(17, static_cast<uint8_t>(own))) {
        ++own;
    }
    const int none = own + 1;
    ASSERT_FALSE(zsim::sensor_present(17, static_cast<uint8_t>(none)));
    zsim::SensorDef d;
    d.num = static_cast<uint8_t>(own);
    d.type = 7;
    zsim::define_sensor(d);
    ASSERT_EQ(ZNAPI_MemSensorInfoWrite(static_cast<uint8_t>(own), 17), 0);
    const uint8_t psu = 0x81; /* exists on the chassis only */
    ASSERT_TRUE(zsim::sensor_present(17, psu));
    std::string overlong(5000, 'A');
    overlong.insert(0, "/SYSTEM#0/");

    std::vector<BadCall> calls;
    std::string at; /* the loop values of the calls added next, part of their names */
    auto add = [&calls, &at](std::string what, long result, Lines errors, std::function<long()> call) {
        calls.push_back({what + at, std::move(call), result, std::move(errors)});
    };
    /* A call named by its own text, expecting `result` and the error lines that follow. */
#define BAD(result, call, ...) add(#call, result, Lines{__VA_ARGS__}, [=]() -> long { return call; })

    /* ---- Sensors: an instance without the sensor, or a sensor without a record. */
    std::vector<std::pair<int, int>> missing = {{psu, 0},       {psu, 18},      {psu, 255}, {psu, -1},
                                                {psu, INT_MIN}, {psu, INT_MAX}, {none, 17}};
    for (auto [s, i] : missing) {
        at = fmt(" sns %d inst %d", s, i);
        const uint8_t sn = static_cast<uint8_t>(s);
        const std::string wos =
            fmt("ZNAPI_SetSensorWoS Error at GetSensorInfo sns:%d dir:1 bit:0x3 BMCInst:%d", s, i);
        const std::string info = fmt(" Error at GetSensorInfo sns:%d BMCInst:%d", s, i);
        BAD(0xCB, ZNAPI_SetSensorWoS(sn, 1, 3, i), wos);
        BAD(0xCB, znpdklib_SetSensorWoS(sn, 1, 3, i), wos,
            fmt("znpdklib_SetSensorWoS Error sns:%d dir:1 bit:0x3 BMCInst:%d", s, i));
        BAD(0xCB, with_id([=](INT16U* id) { return ZNAPI_SetSensorWS(sn, 1, 0x13, 2, 3, i, id); }), wos);
        BAD(0xCB, with_id([=](INT16U* id) { return znpdklib_SetSensorWS(sn, 1, 0x13, 2, 3, i, id); }), wos,
            fmt("znpdklib_SetSensorWS Error sns:%d dir:1 e1:0x13 e2:0x2 e3:0x3 BMCInst:%d", s, i));
        BAD(0xCB, with_id([=](INT16U* id) { return ZNAPI_SaveSensorTypeSEL(sn, 1, 0x13, 2, 3, i, id); }),
            "ZNAPI_SaveSensorTypeSEL" + info);
        BAD(0xCB, znpdklib_exSetSensorWoS(sn, 3, i), "znpdklib_exSetSensorWoS" + info);
        BAD(0xCB, with_id([=](INT16U* id) { return znpdklib_exSetSensorWS(sn, 0x13, 2, 3, i, id); }),
            "znpdklib_exSetSensorWS" + info);
        /* The stack has no table for an instance outside 0..17: it is not asked. */
        const Lines read = i >= 0 && i < 18 ? Lines{} : Lines{"ZNAPI_GetSensorReading param Error"};
        add("ZNAPI_GetSensorReading", -1, read, [=] {
            GetSensorReadingRes_T r = {};
            return ZNAPI_GetSensorReading(s, &r, i);
        });
        add("znpdklib_getDiscreteStatusSensorStatus", 0x8000, read, [=] {
            INT16U w = 0x1234;
            return znpdklib_getDiscreteStatusSensorStatus(s, &w, i) * 0x10000L + w;
        });
        BAD(0xCB, isValidSensorBMCInst(sn, i));
        BAD(0xFF, GetInstSensorType(sn, i));
        BAD(0, GetInstSensorOEM(sn, i));
        /* An instance outside 0..17 has no block: its area counts as invalid. */
        BAD(-1, ZNAPI_MemSensorInfoWrite(sn, i),
            i >= 0 && i < 18 ? "ZNAPI_MemSensorInfoWrite" + info
                             : fmt("ZNAPI_MemSensorInfoWrite Error at save area invalid BMCInst:%d", i));
    }
    for (int i : {18, 255, -1, INT_MIN, INT_MAX}) {
        at = fmt(" inst %d", i);
        BAD(-1, ZNAPI_MemSensorInfoRecover(i),
            fmt("ZNAPI_MemSensorInfoRecover Error at save area invalid BMCInst:%d", i));
    }
    /* ---- Offsets of 16 and more change no bit (the entry is rewritten as it is). */
    const uint8_t on = static_cast<uint8_t>(own);
    for (int off : {16, 17, 128, 255}) {
        at = fmt(" offset %d", off);
        const uint8_t o = static_cast<uint8_t>(off);
        BAD(0, ZNAPI_SetSensorWoS(on, 1, o, 17));
        BAD(0, znpdklib_SetSensorWoS(on, 0, o, 17));
        BAD(0, znpdklib_exSetSensorWoS(on, o, 17));
    }
    at = "";
    /* ---- Null pointers. */
    BAD(-1, ZNAPI_GetSensorReading(psu, nullptr, 17), "ZNAPI_GetSensorReading param Error");
    BAD(0xFF, ZNAPI_SetSensorWS(on, 1, 1, 0, 0, 17, nullptr));
    BAD(0xFF, ZNAPI_SaveSensorTypeSEL(on, 1, 1, 0, 0, 17, nullptr));
    BAD(0xFF, znpdklib_SetSensorWS(on, 1, 1, 0, 0, 17, nullptr), "znpdklib_SetSensorWS param Error");
    BAD(0xFF, znpdklib_exSetSensorWS(on, 1, 0, 0, 17, nullptr), "znpdklib_exSetSensorWS param Error");
    BAD(0, znpdklib_getDiscreteStatusSensorStatus(psu, nullptr, 17));

    /* ---- Controller checks: numbers without a controller. */
    for (int n : {8, 16, 255, -1, INT_MIN, INT_MAX}) {
        at = fmt(" no %d", n);
        BAD(-1, znpdklib_check_cmuc_error(n));
        if (n != 8) {
            BAD(-1, znpdklib_check_rtnd_error(n));
        }
    }

    /* ---- Routers and ports: each function and the name its error line gives. */
    for (int r : {16, 255, -1, INT_MIN}) {
        at = fmt(" routerno %d", r);
        const std::string e = fmt("] parameter error (routerno=%d)", r);
        BAD(-1, znpdklib_isPhysicalPortOffline(r, 0), "[znpdklib_isPhysicalPortOffline" + e);
        BAD(-1, znpdklib_isPhysicalPortExternal(r, 0), "[znpdklib_isPhysicalPortExternal" + e);
        BAD(-1, znpdklib_isLogicalPortOffline(r, 0), "[znpdklib_isPhysicalPortOffline" + e);
        BAD(-1, znpdklib_isLogicalPortExternal(r, 0), "[znpdklib_isPhysicalPortExternal" + e);
        BAD(-1, znpdklib_getRemoteRouterNo(r, g_ports), "[znpdklib_getRemoteRouterNo" + e);
        BAD(-1, znpdklib_getConnectedInternalPortNo(r, g_ports), "[znpdklib_getConnectedInternalPortNo" + e);
        BAD(-1, znpdklib_checkWaitEnableLogicalPort(r, &g_wait), "[znpdklib_checkWaitEnableLogicalPort" + e);
        BAD(-1, znpdklib_checkWaitEnableInternalLogicalPort(r, &g_wait),
            "[znpdklib_checkWaitEnableInternalLogicalPort" + e);
        BAD(-1, znpdklib_updateQuorPortStatus(r), "[znpdklib_updateQuorPortStatus" + e);
        BAD(-1, znpdklib_checkBeaconErrorPort(r), "[znpdklib_checkBeaconErrorPort" + e);
    }
    for (int p : {10, 255, -1, INT_MIN}) {
        at = fmt(" pportno %d", p);
        const std::string e = fmt("] parameter error (pportno=%d)", p);
        BAD(-1, znpdklib_isPhysicalPortOffline(0, p), "[znpdklib_isPhysicalPortOffline" + e);
        BAD(-1, znpdklib_isPhysicalPortExternal(0, p), "[znpdklib_isPhysicalPortExternal" + e);
    }
    at = "";
    BAD(-1, znpdklib_getRemoteRouterNo(0, nullptr),
        "[znpdklib_getRemoteRouterNo] parameter error (rrouterno=NULL)");
    BAD(-1, znpdklib_getConnectedInternalPortNo(0, nullptr),
        "[znpdklib_getConnectedInternalPortNo] parameter error (portno=NULL)");
    BAD(-1, znpdklib_checkWaitEnableLogicalPort(0, nullptr),
        "[znpdklib_checkWaitEnableLogicalPort] parameter error (waitLogicalPort=NULL)");
    BAD(-1, znpdklib_checkWaitEnableInternalLogicalPort(0, nullptr),
        "[znpdklib_checkWaitEnableInternalLogicalPort] parameter error (waitLogicalPort=NULL)");

    /* ---- Outage units: wild types, numbers and values. */
    for (int t : {0, 300, 304, -1, INT_MIN}) {
        at = fmt(" type %d", t);
        const std::string e = fmt("():invalid type. type=%d", t);
        BAD(-1, znpdklib_setEmergencyOutage(t, 0, 1), "znpdklib_setEmergencyOutage" + e);
        BAD(-1, znpdklib_setBMCRebootOutage(t, 0, 2), "znpdklib_setBMCRebootOutage" + e);
        BAD(-1, znpdklib_checkEmergencyOutage(t, 0), "znpdklib_checkEmergencyOutage" + e);
        BAD(-1, znpdklib_setEmergencyMaskReg(t, 0), "znpdklib_setEmergencyMaskReg" + e);
    }
    const std::vector<std::pair<int, int>> wild_units = {
        {COMPO_BOBC, 1},       {COMPO_BOBC, -1}, {COMPO_CMUC, 8},   {COMPO_CMUC, -1},
        {COMPO_CMUC, INT_MIN}, {COMPO_NODE, 16}, {COMPO_NODE, 254}, {COMPO_NODE, -1}};
    for (auto [t, n] : wild_units) {
        at = fmt(" type %d no %d", t, n);
        const std::string e = fmt("():invalid type and no combination. type=%d no=%d", t, n);
        BAD(-1, znpdklib_setEmergencyOutage(t, n, 1), "znpdklib_setEmergencyOutage" + e);
        BAD(-1, znpdklib_clearBMCRebootOutage(t, n), "znpdklib_setBMCRebootOutage" + e);
    }
    for (auto [t, n] : std::vector<std::pair<int, int>>{
             {COMPO_CMUC, 255}, {COMPO_NODE, 255}, {COMPO_NODE, 16}, {COMPO_BOBC, 2}}) {
        at = fmt(" type %d no %d", t, n);
        const std::string e = fmt("():invalid type and no combination. type=%d no=%d", t, n);
        BAD(-1, znpdklib_checkEmergencyOutage(t, n), "znpdklib_checkEmergencyOutage" + e);
        BAD(-1, znpdklib_setEmergencyMaskReg(t, n), "znpdklib_setEmergencyMaskReg" + e);
    }
    for (uint8_t v : {3, 0x80, 0xFF}) {
        at = fmt(" val %d", v);
        BAD(-1, znpdklib_setEmergencyOutage(COMPO_NODE, 1, v),
            fmt("znpdklib_setEmergencyOutage():invalid val. val=0x%02x", v));
    }
    for (uint8_t v : {1, 3, 0xFF}) {
        at = fmt(" val %d", v);
        BAD(-1, znpdklib_setBMCRebootOutage(COMPO_NODE, 1, v),
            fmt("znpdklib_setBMCRebootOutage():invalid val. val=0x%02x", v));
    }

    /* ---- Unit position ids (each converted id must be left zeroed): paths
     * empty, overlong, unknown, malformed; wild codes; missing components. */
    const std::vector<std::string> bad_paths = {
        "", overlong, "/SYSTEM#0/NOPE#1", "/SYSTEM#0/CMU#99", "CMU#1", "/CMU#", "/CMU#x/CPU#1", "//", "#"};
    for (const std::string& p : bad_paths) {
        at = " \"" + p.substr(0, 24) + "\"";
        BAD(-1,
            upid_call([p](unit_position_id_t* id) { return znpdklib_path2upid(std::string(p).data(), id); }));
        BAD(-1, upid_call([p](unit_position_id_t* id) {
            return znpdklib_upid2upid_pc(23, 1, std::string(p).data(), id);
        }));
    }
    at = "";
    BAD(-1, upid_call([](unit_position_id_t* id) { return znpdklib_compo2upid(nullptr, id); }));
    for (int up : {0, 6, 9, 16, 255, -1, INT_MIN}) {
        at = fmt(" code %d", up);
        BAD(-1, upid_call([=](unit_position_id_t* id) {
            return znpdklib_upid2upid(up, 1, zsim::component(1), id);
        }));
    }
    for (int up : {23, 19, 20, 33, 34}) { /* codes that read the parent need a component */
        at = fmt(" code %d", up);
        BAD(-1, upid_call([=](unit_position_id_t* id) { return znpdklib_upid2upid(up, 1, nullptr, id); }));
    }
    at = "";
    add("znpdklib_path2upid(null id)", -1, {}, [] {
        char path[] = "/CMU#1";
        return znpdklib_path2upid(path, nullptr);
    });
    BAD(-1, znpdklib_upid2upid(1, 1, nullptr, nullptr));
    /* Port error clearing on a router or port without sensors. */
    for (auto [r, p] : std::vector<std::pair<int, int>>{{255, 0}, {-2, 0}, {0, 200}, {0, 230}}) {
        at = fmt(" routerno %d lportno %d", r, p);
        const int inst = r + 1;
        const char* failed =
            "[znpdklib_updateQuorPortStatus] Failed to znpdklib_exSetSensorWoS(snsno=%d BMCInst=%d ret=203)";
        const char* missing_sns = "znpdklib_exSetSensorWoS Error at GetSensorInfo sns:%d BMCInst:%d";
        BAD(-1, znpdklib_clearQuorPortErrorStatus(r, p), fmt(missing_sns, (15 + p) & 0xFF, inst),
            fmt(failed, 15 + p, inst), fmt(missing_sns, (25 + p) & 0xFF, inst), fmt(failed, 25 + p, inst));
    }
    /* Fan checks before the start-up checks passed: refused, no thread. */
    add("znpdklib_create_fan_rotation_check_thread(wild)", 0, {}, [] {
        znpdklib_create_fan_rotation_check_thread(0xFF, 0xFFFFFFFFu);
        return static_cast<long>(zsim::library_threads_running());
    });

    /* ---- Modes and unit numbers of the redundancy checks. */
    for (int m : {0, 4, -1, INT_MIN}) {
        at = fmt(" mode %d", m);
        BAD(-1, znpdklib_check_psu_redundancy(m),
            fmt("znpdklib_check_psu_redundancy():invalid mode(=%d)", m));
    }
    for (int m : {1, 16, 18, -1}) {
        at = fmt(" mode %d", m);
        BAD(-1, znpdklib_check_psu_redundancy_for_psu_control(m, 0),
            fmt("znpdklib_check_psu_redundancy_for_psu_control():invalid mode(=%d)", m));
    }
    for (int m : {0, 3, -1, INT_MIN}) {
        at = fmt(" mode %d", m);
        add("znpdklib_check_fan_redundancy", -0x100 + 0x55,
            {fmt("znpdklib_check_fan_redundancyy():invalid mode(=%d)", m)}, [=] {
                int err = 0x55;
                return znpdklib_check_fan_redundancy(m, &err) * 0x100L + err;
            });
    }
    for (int f : {4, 255, INT_MAX}) {
        at = fmt(" fanu %d", f);
        BAD(1, znpdklib_check_fan_redundancy_for_enter_mainte(f),
            fmt("znpdklib_check_fan_redundancy_for_enter_mainte():illegal fanu_no=%d", f));
    }
    for (int f : {-1, INT_MIN}) { /* not refused: no unit matches, the healthy fans may go */
        at = fmt(" fanu %d", f);
        BAD(0, znpdklib_check_fan_redundancy_for_enter_mainte(f));
    }
    at = "";
    /* Invalid reason masks. */
    const std::string no_reason = "znpdklib_change_fan_speed():not specified reason. "
                                  "set_reason=0x0000000000000000 reset_reason=0x0000000000000000";
    BAD(-2, znpdklib_change_fan_speed(0, 0), no_reason);
    BAD(-2, znpdklib_restore_fan_speed(0), no_reason);
    BAD(-2, znpdklib_change_fan_speed(0x8000000000000001ull, 0x8000000000000000ull),
        "znpdklib_change_fan_speed():specified same reason. set_reason=0x8000000000000001 reset_reason=0x8000000000000000");

    /* ---- Instances and unit numbers beyond the machine: no-ops. */
    for (int i : {18, 255, -1, INT_MIN}) {
        at = fmt(" inst %d", i);
        BAD(0, ZNAPI_Sensor_Init(i));
        BAD(0, znpdklib_Init_Sensor_Node(i));
        BAD(0, znpdklib_Init_Sensor_Giou(i));
        BAD(-1, znpdklib_Set_Sensor_Node(i));
        BAD(0, (znpdklib_make_escalation_info(i), 0));
        BAD(0, znpdklib_monitor_enable_check(i));
        BAD(1, znpdklib_monitor_enable_check_gio(i));
        BAD(1, znpdklib_fan_monitor_enable_check(i, 230));
        BAD(0, znpdklib_shmem_corvo_job_regist_flags(1, i, 1, 3, nullptr));
    }
    for (int n : {18, 99, 255, -1, INT_MIN, INT_MAX}) {
        at = fmt(" no %d", n);
        add("znpdklib_cleardb_*", 0, {}, [=] {
            for (auto f : {znpdklib_cleardb_giou, znpdklib_cleardb_psu, znpdklib_cleardb_cmu,
                           znpdklib_cleardb_iorc, znpdklib_cleardb_fanu}) {
                f(n, 0xFFFFFFFFu);
            }
            return 0L;
        });
    }
    at = "";
    /* Searches that run report the tables that are missing (all but 5 and 6). */
    Lines no_tables;
    for (int f = 1; f <= 17; ++f) {
        if (f != 5 && f != 6) {
            no_tables.push_back(fmt(
                "[znpdklib_get_escalation_info]:info file open failed. BMCInst=%d. errno=%d.", f, ENOENT));
        }
    }
    /* Found rows as frue * 0x100 + esc. */
    auto esc_rows = [](int target, int inst, int sensor) {
        const ztest::EscFound f = ztest::esc_query(target, inst, sensor);
        return static_cast<long>(f.frue.size() * 0x100 + f.esc.size());
    };
    BAD(0, esc_rows(0, 3, -1), no_tables);
    /* Queries outside the tables are refused without a search. */
    for (ztest::EscRow q : std::vector<ztest::EscRow>{
             {4, 3, 0x30}, {-1, 3, 0x30}, {INT_MIN, 3, 0x30}, {0, 18, 0x30}, {0, -1, 0x30}}) {
        at = fmt(" esc_spec %d inst %d sensor %d", q[0], q[1], q[2]);
        BAD(0, esc_rows(q[0], q[1], q[2]));
    }
    at = "";
    BAD(0, (znpdklib_Various_sharemem_read(nullptr), znpdklib_Various_sharemem_write(nullptr), 0));

    /* ---- Cut and garbage files: a cut escalation table is searched as zeros
     * past its end; garbage entries naming instances beyond 17 are skipped. */
    std::vector<uint8_t> g(4096);
    for (size_t k = 0; k < g.size(); ++k) {
        g[k] = static_cast<uint8_t>((k * 151 + 7) | 0x80); /* valid set, instances negative */
    }
    zsim::write_file(ztest::esc_path(6), g);
    zsim::write_file(ztest::esc_path(5), {1, 3, 0x30}); /* sensor 0, parent target: zeros past the cut */
    BAD(0x100, esc_rows(0, 3, 0x30), no_tables);
#undef BAD

    const Snapshot before_all = snapshot(max_oid);
    for (const BadCall& c : calls) {
        SCOPED_TRACE(c.what);
        const Snapshot before = snapshot(max_oid);
        zsim::clear_traces();
        EXPECT_EQ(c.call(), c.result);
        EXPECT_EQ(error_lines(), c.errors);
        EXPECT_TRUE(snapshot(max_oid) == before) << "changed something";
    }
    EXPECT_TRUE(snapshot(max_oid) == before_all);
    std::printf("bad-input calls tried %zu\n", calls.size());
}

} // namespace
