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
#include <tuple>

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
    const uint32_t kNoMask = 0xA5A5A5A5u;

    std::vector<BadCall> calls;
    auto add = [&calls](std::string what, long result, Lines errors, std::function<long()> call) {
        calls.push_back({std::move(what), std::move(call), result, std::move(errors)});
    };

    /* ---- Sensors: an instance without the sensor, or a sensor without a record. */
    std::vector<std::pair<int, int>> missing = {{psu, 0},       {psu, 18},      {psu, 255}, {psu, -1},
                                                {psu, INT_MIN}, {psu, INT_MAX}, {none, 17}};
    for (auto [s, i] : missing) {
        const std::string at = fmt("(%d, inst %d)", s, i);
        const uint8_t sn = static_cast<uint8_t>(s);
        const std::string wos =
            fmt("ZNAPI_SetSensorWoS Error at GetSensorInfo sns:%d dir:1 bit:0x3 BMCInst:%d", s, i);
        add("ZNAPI_SetSensorWoS" + at, 0xCB, {wos}, [=] { return ZNAPI_SetSensorWoS(sn, 1, 3, i); });
        add("znpdklib_SetSensorWoS" + at, 0xCB,
            {wos, fmt("znpdklib_SetSensorWoS Error sns:%d dir:1 bit:0x3 BMCInst:%d", s, i)},
            [=] { return znpdklib_SetSensorWoS(sn, 1, 3, i); });
        add("ZNAPI_SetSensorWS" + at, 0xCB, {wos}, [=] {
            INT16U id = 0x5555;
            return ZNAPI_SetSensorWS(sn, 1, 0x13, 2, 3, i, &id) | (id == 0x5555 ? 0 : 0x10000);
        });
        add("znpdklib_SetSensorWS" + at, 0xCB,
            {wos, fmt("znpdklib_SetSensorWS Error sns:%d dir:1 e1:0x13 e2:0x2 e3:0x3 BMCInst:%d", s, i)},
            [=] {
                INT16U id = 0x5555;
                return znpdklib_SetSensorWS(sn, 1, 0x13, 2, 3, i, &id) | (id == 0x5555 ? 0 : 0x10000);
            });
        add("ZNAPI_SaveSensorTypeSEL" + at, 0xCB,
            {fmt("ZNAPI_SaveSensorTypeSEL Error at GetSensorInfo sns:%d BMCInst:%d", s, i)}, [=] {
                INT16U id = 0x5555;
                return ZNAPI_SaveSensorTypeSEL(sn, 1, 0x13, 2, 3, i, &id) | (id == 0x5555 ? 0 : 0x10000);
            });
        add("znpdklib_exSetSensorWoS" + at, 0xCB,
            {fmt("znpdklib_exSetSensorWoS Error at GetSensorInfo sns:%d BMCInst:%d", s, i)},
            [=] { return znpdklib_exSetSensorWoS(sn, 3, i); });
        add("znpdklib_exSetSensorWS" + at, 0xCB,
            {fmt("znpdklib_exSetSensorWS Error at GetSensorInfo sns:%d BMCInst:%d", s, i)}, [=] {
                INT16U id = 0x5555;
                return znpdklib_exSetSensorWS(sn, 0x13, 2, 3, i, &id) | (id == 0x5555 ? 0 : 0x10000);
            });
        /* The stack has no table for an instance outside 0..17: it is not asked. */
        const Lines read = i >= 0 && i < 18 ? Lines{} : Lines{"ZNAPI_GetSensorReading param Error"};
        add("ZNAPI_GetSensorReading" + at, -1, read, [=] {
            GetSensorReadingRes_T r = {};
            return ZNAPI_GetSensorReading(s, &r, i);
        });
        add("znpdklib_getDiscreteStatusSensorStatus" + at, 0x8000, read, [=] {
            INT16U w = 0x1234;
            return znpdklib_getDiscreteStatusSensorStatus(s, &w, i) * 0x10000L + w;
        });
        add("isValidSensorBMCInst" + at, 0xCB, {}, [=] { return isValidSensorBMCInst(sn, i); });
        add("GetInstSensorType" + at, 0xFF, {}, [=] { return GetInstSensorType(sn, i); });
        add("GetInstSensorOEM" + at, 0, {}, [=] { return GetInstSensorOEM(sn, i); });
        /* An instance outside 0..17 has no block: its area counts as invalid. */
        add("ZNAPI_MemSensorInfoWrite" + at, -1,
            {i >= 0 && i < 18 ? fmt("ZNAPI_MemSensorInfoWrite Error at GetSensorInfo sns:%d BMCInst:%d", s, i)
                              : fmt("ZNAPI_MemSensorInfoWrite Error at save area invalid BMCInst:%d", i)},
            [=] { return ZNAPI_MemSensorInfoWrite(sn, i); });
    }
    for (int i : {18, 255, -1, INT_MIN, INT_MAX}) {
        add(fmt("ZNAPI_MemSensorInfoRecover(%d)", i), -1,
            {fmt("ZNAPI_MemSensorInfoRecover Error at save area invalid BMCInst:%d", i)},
            [=] { return ZNAPI_MemSensorInfoRecover(i); });
    }
    /* ---- Offsets of 16 and more change no bit (the entry is rewritten as it is). */
    const uint8_t on = static_cast<uint8_t>(own);
    for (int off : {16, 17, 128, 255}) {
        const uint8_t o = static_cast<uint8_t>(off);
        add(fmt("ZNAPI_SetSensorWoS(offset %d)", off), 0, {},
            [=] { return ZNAPI_SetSensorWoS(on, 1, o, 17); });
        add(fmt("znpdklib_SetSensorWoS(offset %d, dir 0)", off), 0, {},
            [=] { return znpdklib_SetSensorWoS(on, 0, o, 17); });
        add(fmt("znpdklib_exSetSensorWoS(offset %d)", off), 0, {},
            [=] { return znpdklib_exSetSensorWoS(on, o, 17); });
    }
    /* ---- Null pointers. */
    add("ZNAPI_GetSensorReading(null)", -1, {"ZNAPI_GetSensorReading param Error"},
        [=] { return ZNAPI_GetSensorReading(psu, nullptr, 17); });
    add("ZNAPI_SetSensorWS(null id)", 0xFF, {},
        [=] { return ZNAPI_SetSensorWS(on, 1, 1, 0, 0, 17, nullptr); });
    add("ZNAPI_SaveSensorTypeSEL(null id)", 0xFF, {},
        [=] { return ZNAPI_SaveSensorTypeSEL(on, 1, 1, 0, 0, 17, nullptr); });
    add("znpdklib_SetSensorWS(null id)", 0xFF, {"znpdklib_SetSensorWS param Error"},
        [=] { return znpdklib_SetSensorWS(on, 1, 1, 0, 0, 17, nullptr); });
    add("znpdklib_exSetSensorWS(null id)", 0xFF, {"znpdklib_exSetSensorWS param Error"},
        [=] { return znpdklib_exSetSensorWS(on, 1, 0, 0, 17, nullptr); });
    add("znpdklib_getDiscreteStatusSensorStatus(null)", 0, {},
        [=] { return znpdklib_getDiscreteStatusSensorStatus(psu, nullptr, 17); });

    /* ---- Controller checks: numbers without a controller. */
    for (int n : {8, 16, 255, -1, INT_MIN, INT_MAX}) {
        add(fmt("znpdklib_check_cmuc_error(%d)", n), -1, {}, [=] { return znpdklib_check_cmuc_error(n); });
    }
    for (int n : {16, 255, -1, INT_MIN, INT_MAX}) {
        add(fmt("znpdklib_check_rtnd_error(%d)", n), -1, {}, [=] { return znpdklib_check_rtnd_error(n); });
    }

    /* ---- Routers and ports: each function and the name its error line gives. */
    const std::vector<std::tuple<const char*, const char*, std::function<int(int)>>> by_router = {
        {"isPhysicalPortOffline", "isPhysicalPortOffline",
         [](int r) { return znpdklib_isPhysicalPortOffline(r, 0); }},
        {"isPhysicalPortExternal", "isPhysicalPortExternal",
         [](int r) { return znpdklib_isPhysicalPortExternal(r, 0); }},
        {"isLogicalPortOffline", "isPhysicalPortOffline",
         [](int r) { return znpdklib_isLogicalPortOffline(r, 0); }},
        {"isLogicalPortExternal", "isPhysicalPortExternal",
         [](int r) { return znpdklib_isLogicalPortExternal(r, 0); }},
        {"getRemoteRouterNo", "getRemoteRouterNo",
         [](int r) {
             int out[10] = {};
             return znpdklib_getRemoteRouterNo(r, out);
         }},
        {"getConnectedInternalPortNo", "getConnectedInternalPortNo",
         [](int r) {
             int out[10] = {};
             return znpdklib_getConnectedInternalPortNo(r, out);
         }},
        {"checkWaitEnableLogicalPort", "checkWaitEnableLogicalPort",
         [=](int r) {
             uint32_t m = kNoMask;
             return znpdklib_checkWaitEnableLogicalPort(r, &m);
         }},
        {"checkWaitEnableInternalLogicalPort", "checkWaitEnableInternalLogicalPort",
         [=](int r) {
             uint32_t m = kNoMask;
             return znpdklib_checkWaitEnableInternalLogicalPort(r, &m);
         }},
        {"updateQuorPortStatus", "updateQuorPortStatus", znpdklib_updateQuorPortStatus},
        {"checkBeaconErrorPort", "checkBeaconErrorPort", znpdklib_checkBeaconErrorPort}};
    for (int r : {16, 255, -1, INT_MIN}) {
        for (const auto& f : by_router) {
            const std::function<int(int)> call = std::get<2>(f);
            add(fmt("znpdklib_%s(%d)", std::get<0>(f), r), -1,
                {fmt("[znpdklib_%s] parameter error (routerno=%d)", std::get<1>(f), r)},
                [=] { return call(r); });
        }
    }
    for (int p : {10, 255, -1, INT_MIN}) {
        for (auto [fn, call] : {std::pair{"isPhysicalPortOffline", znpdklib_isPhysicalPortOffline},
                                std::pair{"isPhysicalPortExternal", znpdklib_isPhysicalPortExternal}}) {
            auto* f = call;
            add(fmt("znpdklib_%s(0, %d)", fn, p), -1,
                {fmt("[znpdklib_%s] parameter error (pportno=%d)", fn, p)}, [=] { return f(0, p); });
        }
    }
    const std::vector<std::tuple<const char*, const char*, std::function<int()>>> null_out = {
        {"getRemoteRouterNo", "rrouterno", [] { return znpdklib_getRemoteRouterNo(0, nullptr); }},
        {"getConnectedInternalPortNo", "portno",
         [] { return znpdklib_getConnectedInternalPortNo(0, nullptr); }},
        {"checkWaitEnableLogicalPort", "waitLogicalPort",
         [] { return znpdklib_checkWaitEnableLogicalPort(0, nullptr); }},
        {"checkWaitEnableInternalLogicalPort", "waitLogicalPort",
         [] { return znpdklib_checkWaitEnableInternalLogicalPort(0, nullptr); }}};
    for (const auto& [fn, arg, call] : null_out) {
        add(fmt("znpdklib_%s(null)", fn), -1, {fmt("[znpdklib_%s] parameter error (%s=NULL)", fn, arg)},
            call);
    }

    /* ---- Outage units: wild types, numbers and values. */
    for (int t : {0, 300, 304, -1, INT_MIN}) {
        add(fmt("znpdklib_setEmergencyOutage(type %d)", t), -1,
            {fmt("znpdklib_setEmergencyOutage():invalid type. type=%d", t)},
            [=] { return znpdklib_setEmergencyOutage(t, 0, 1); });
        add(fmt("znpdklib_setBMCRebootOutage(type %d)", t), -1,
            {fmt("znpdklib_setBMCRebootOutage():invalid type. type=%d", t)},
            [=] { return znpdklib_setBMCRebootOutage(t, 0, 2); });
        add(fmt("znpdklib_checkEmergencyOutage(type %d)", t), -1,
            {fmt("znpdklib_checkEmergencyOutage():invalid type. type=%d", t)},
            [=] { return znpdklib_checkEmergencyOutage(t, 0); });
        add(fmt("znpdklib_setEmergencyMaskReg(type %d)", t), -1,
            {fmt("znpdklib_setEmergencyMaskReg():invalid type. type=%d", t)},
            [=] { return znpdklib_setEmergencyMaskReg(t, 0); });
    }
    const std::vector<std::pair<int, int>> wild_units = {
        {COMPO_BOBC, 1},       {COMPO_BOBC, -1}, {COMPO_CMUC, 8},   {COMPO_CMUC, -1},
        {COMPO_CMUC, INT_MIN}, {COMPO_NODE, 16}, {COMPO_NODE, 254}, {COMPO_NODE, -1}};
    for (auto [t, n] : wild_units) {
        add(fmt("znpdklib_setEmergencyOutage(%d, %d)", t, n), -1,
            {fmt("znpdklib_setEmergencyOutage():invalid type and no combination. type=%d no=%d", t, n)},
            [=] { return znpdklib_setEmergencyOutage(t, n, 1); });
        add(fmt("znpdklib_clearBMCRebootOutage(%d, %d)", t, n), -1,
            {fmt("znpdklib_setBMCRebootOutage():invalid type and no combination. type=%d no=%d", t, n)},
            [=] { return znpdklib_clearBMCRebootOutage(t, n); });
    }
    for (auto [t, n] : std::vector<std::pair<int, int>>{
             {COMPO_CMUC, 255}, {COMPO_NODE, 255}, {COMPO_NODE, 16}, {COMPO_BOBC, 2}}) {
        add(fmt("znpdklib_checkEmergencyOutage(%d, %d)", t, n), -1,
            {fmt("znpdklib_checkEmergencyOutage():invalid type and no combination. type=%d no=%d", t, n)},
            [=] { return znpdklib_checkEmergencyOutage(t, n); });
        add(fmt("znpdklib_setEmergencyMaskReg(%d, %d)", t, n), -1,
            {fmt("znpdklib_setEmergencyMaskReg():invalid type and no combination. type=%d no=%d", t, n)},
            [=] { return znpdklib_setEmergencyMaskReg(t, n); });
    }
    for (int v : {3, 0x80, 0xFF}) {
        add(fmt("znpdklib_setEmergencyOutage(val %d)", v), -1,
            {fmt("znpdklib_setEmergencyOutage():invalid val. val=0x%02x", v)},
            [=] { return znpdklib_setEmergencyOutage(COMPO_NODE, 1, static_cast<uint8_t>(v)); });
    }
    for (int v : {1, 3, 0xFF}) {
        add(fmt("znpdklib_setBMCRebootOutage(val %d)", v), -1,
            {fmt("znpdklib_setBMCRebootOutage():invalid val. val=0x%02x", v)},
            [=] { return znpdklib_setBMCRebootOutage(COMPO_NODE, 1, static_cast<uint8_t>(v)); });
    }

    /* ---- Paths: empty, overlong, unknown, malformed. */
    const std::vector<std::string> bad_paths = {
        "", overlong, "/SYSTEM#0/NOPE#1", "/SYSTEM#0/CMU#99", "CMU#1", "/CMU#", "/CMU#x/CPU#1", "//", "#"};
    for (const std::string& p : bad_paths) {
        add("znpdklib_path2upid(\"" + p.substr(0, 24) + "\")", -1, {}, [=] {
            std::string copy = p;
            return upid_call([&](unit_position_id_t* id) { return znpdklib_path2upid(&copy[0], id); });
        });
        add("znpdklib_upid2upid_pc(23, \"" + p.substr(0, 24) + "\")", -1, {}, [=] {
            std::string copy = p;
            return upid_call(
                [&](unit_position_id_t* id) { return znpdklib_upid2upid_pc(23, 1, &copy[0], id); });
        });
    }
    add("znpdklib_compo2upid(null)", -1, {},
        [] { return upid_call([&](unit_position_id_t* id) { return znpdklib_compo2upid(nullptr, id); }); });
    for (int up : {0, 6, 9, 16, 255, -1, INT_MIN}) {
        add(fmt("znpdklib_upid2upid(%d)", up), -1, {}, [=] {
            return upid_call(
                [&](unit_position_id_t* id) { return znpdklib_upid2upid(up, 1, zsim::component(1), id); });
        });
    }

    for (int up : {23, 19, 20, 33, 34}) { /* codes that read the parent need a component */
        add(fmt("znpdklib_upid2upid(%d, null component)", up), -1, {}, [=] {
            return upid_call([&](unit_position_id_t* id) { return znpdklib_upid2upid(up, 1, nullptr, id); });
        });
    }
    add("znpdklib_path2upid(null id)", -1, {}, [] {
        char path[] = "/CMU#1";
        return znpdklib_path2upid(path, nullptr);
    });
    add("znpdklib_upid2upid(null id)", -1, {}, [] { return znpdklib_upid2upid(1, 1, nullptr, nullptr); });
    /* Port error clearing on a router or port without sensors. */
    for (auto [r, p] : std::vector<std::pair<int, int>>{{255, 0}, {-2, 0}, {0, 200}, {0, 230}}) {
        const int inst = r + 1, s1 = (15 + p) & 0xFF, s2 = (25 + p) & 0xFF;
        add(fmt("znpdklib_clearQuorPortErrorStatus(%d, %d)", r, p), -1,
            {fmt("znpdklib_exSetSensorWoS Error at GetSensorInfo sns:%d BMCInst:%d", s1, inst),
             fmt("[znpdklib_updateQuorPortStatus] Failed to znpdklib_exSetSensorWoS(snsno=%d BMCInst=%d ret=203)",
                 15 + p, inst),
             fmt("znpdklib_exSetSensorWoS Error at GetSensorInfo sns:%d BMCInst:%d", s2, inst),
             fmt("[znpdklib_updateQuorPortStatus] Failed to znpdklib_exSetSensorWoS(snsno=%d BMCInst=%d ret=203)",
                 25 + p, inst)},
            [=] { return znpdklib_clearQuorPortErrorStatus(r, p); });
    }
    /* Fan checks before the start-up checks passed: refused, no thread. */
    add("znpdklib_create_fan_rotation_check_thread(wild)", 0, {}, [] {
        znpdklib_create_fan_rotation_check_thread(0xFF, 0xFFFFFFFFu);
        return static_cast<long>(zsim::library_threads_running());
    });

    /* ---- Modes and unit numbers of the redundancy checks. */
    for (int m : {0, 4, -1, INT_MIN}) {
        add(fmt("znpdklib_check_psu_redundancy(%d)", m), -1,
            {fmt("znpdklib_check_psu_redundancy():invalid mode(=%d)", m)},
            [=] { return znpdklib_check_psu_redundancy(m); });
    }
    for (int m : {1, 16, 18, -1}) {
        add(fmt("znpdklib_check_psu_redundancy_for_psu_control(%d)", m), -1,
            {fmt("znpdklib_check_psu_redundancy_for_psu_control():invalid mode(=%d)", m)},
            [=] { return znpdklib_check_psu_redundancy_for_psu_control(m, 0); });
    }
    for (int m : {0, 3, -1, INT_MIN}) {
        add(fmt("znpdklib_check_fan_redundancy(%d)", m), -0x100 + 0x55,
            {fmt("znpdklib_check_fan_redundancyy():invalid mode(=%d)", m)}, [=] {
                int err = 0x55;
                return znpdklib_check_fan_redundancy(m, &err) * 0x100L + err;
            });
    }
    for (int f : {4, 255, INT_MAX}) {
        add(fmt("znpdklib_check_fan_redundancy_for_enter_mainte(%d)", f), 1,
            {fmt("znpdklib_check_fan_redundancy_for_enter_mainte():illegal fanu_no=%d", f)},
            [=] { return znpdklib_check_fan_redundancy_for_enter_mainte(f); });
    }
    for (int f : {-1, INT_MIN}) { /* not refused: no unit matches, the healthy fans may go */
        add(fmt("znpdklib_check_fan_redundancy_for_enter_mainte(%d)", f), 0, {},
            [=] { return znpdklib_check_fan_redundancy_for_enter_mainte(f); });
    }
    /* Invalid reason masks. */
    add("znpdklib_change_fan_speed(0, 0)", -2,
        {"znpdklib_change_fan_speed():not specified reason. set_reason=0x0000000000000000 reset_reason=0x0000000000000000"},
        [] { return znpdklib_change_fan_speed(0, 0); });
    add("znpdklib_restore_fan_speed(0)", -2,
        {"znpdklib_change_fan_speed():not specified reason. set_reason=0x0000000000000000 reset_reason=0x0000000000000000"},
        [] { return znpdklib_restore_fan_speed(0); });
    add("znpdklib_change_fan_speed(same bit)", -2,
        {"znpdklib_change_fan_speed():specified same reason. set_reason=0x8000000000000001 reset_reason=0x8000000000000000"},
        [] { return znpdklib_change_fan_speed(0x8000000000000001ull, 0x8000000000000000ull); });

    /* ---- Instances and unit numbers beyond the machine: no-ops. */
    for (int i : {18, 255, -1, INT_MIN}) {
        add(fmt("ZNAPI_Sensor_Init(%d)", i), 0, {}, [=] { return ZNAPI_Sensor_Init(i); });
        add(fmt("znpdklib_Init_Sensor_Node(%d)", i), 0, {}, [=] { return znpdklib_Init_Sensor_Node(i); });
        add(fmt("znpdklib_Init_Sensor_Giou(%d)", i), 0, {}, [=] { return znpdklib_Init_Sensor_Giou(i); });
        add(fmt("znpdklib_Set_Sensor_Node(%d)", i), -1, {}, [=] { return znpdklib_Set_Sensor_Node(i); });
        add(fmt("znpdklib_make_escalation_info(%d)", i), 0, {}, [=] {
            znpdklib_make_escalation_info(i);
            return 0L;
        });
        add(fmt("znpdklib_monitor_enable_check(%d)", i), 0, {},
            [=] { return znpdklib_monitor_enable_check(i); });
        add(fmt("znpdklib_monitor_enable_check_gio(%d)", i), 1, {},
            [=] { return znpdklib_monitor_enable_check_gio(i); });
        add(fmt("znpdklib_fan_monitor_enable_check(%d)", i), 1, {},
            [=] { return znpdklib_fan_monitor_enable_check(i, 230); });
        add(fmt("znpdklib_shmem_corvo_job_regist_flags(%d)", i), 0, {},
            [=] { return znpdklib_shmem_corvo_job_regist_flags(1, i, 1, 3, nullptr); });
    }
    for (int n : {18, 99, 255, -1, INT_MIN, INT_MAX}) {
        add(fmt("znpdklib_cleardb_*(%d)", n), 0, {}, [=] {
            for (auto f : {znpdklib_cleardb_giou, znpdklib_cleardb_psu, znpdklib_cleardb_cmu,
                           znpdklib_cleardb_iorc, znpdklib_cleardb_fanu}) {
                f(n, 0xFFFFFFFFu);
            }
            return 0L;
        });
    }
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
    add("znpdklib_get_escalation_info(sensor -1)", 0, no_tables, [=] { return esc_rows(0, 3, -1); });
    /* Queries outside the tables are refused without a search. */
    for (ztest::EscRow q : std::vector<ztest::EscRow>{
             {4, 3, 0x30}, {-1, 3, 0x30}, {INT_MIN, 3, 0x30}, {0, 18, 0x30}, {0, -1, 0x30}}) {
        add(fmt("znpdklib_get_escalation_info(esc_spec %d, inst %d, sensor %d)", q[0], q[1], q[2]), 0, {},
            [=] { return esc_rows(q[0], q[1], q[2]); });
    }
    add("znpdklib_Various_sharemem_read/write(null)", 0, {}, [] {
        znpdklib_Various_sharemem_read(nullptr);
        znpdklib_Various_sharemem_write(nullptr);
        return 0L;
    });

    /* ---- Cut and garbage files: a cut escalation table is searched as zeros
     * past its end; garbage entries naming instances beyond 17 are skipped. */
    {
        const std::string cut = "/var/nvrdisk/current/sensor/esctable_inst05";
        const std::string junk = "/var/nvrdisk/current/sensor/esctable_inst06";
        std::vector<uint8_t> g(4096);
        for (size_t k = 0; k < g.size(); ++k) {
            g[k] = static_cast<uint8_t>((k * 151 + 7) | 0x80); /* valid set, instances negative */
        }
        zsim::write_file(junk, g);
        zsim::write_file(cut, {1, 3, 0x30}); /* sensor 0, parent target: zeros past the cut */
        add("znpdklib_get_escalation_info(cut and garbage tables)", 0x100, no_tables,
            [=] { return esc_rows(0, 3, 0x30); });
    }

    const Snapshot before_all = snapshot(max_oid);
    int tried = 0;
    for (const BadCall& c : calls) {
        SCOPED_TRACE(c.what);
        const Snapshot before = snapshot(max_oid);
        zsim::clear_traces();
        EXPECT_EQ(c.call(), c.result);
        EXPECT_EQ(error_lines(), c.errors);
        EXPECT_TRUE(snapshot(max_oid) == before) << "changed something";
        ++tried;
    }
    EXPECT_TRUE(snapshot(max_oid) == before_all);
    std::printf("bad-input calls tried %d\n", tried);
}

} // namespace
