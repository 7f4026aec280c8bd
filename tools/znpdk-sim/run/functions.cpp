#include "run/functions.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <utility>

#include "run/runner.h"
#include "znpdk_sim/sim.h"
#include "znpdklib.h"

namespace zcmd {

namespace {

template <typename T> CType ctype_of()
{
    CType c;
    if constexpr (std::is_void_v<T>) {
        c.is_void = true;
    } else if constexpr (std::is_pointer_v<T>) {
        using P = std::remove_pointer_t<T>;
        c.pointer = true;
        c.pointee = &typeid(std::remove_cv_t<P>);
        c.pointee_const = std::is_const_v<P>;
        if constexpr (!std::is_void_v<P>) {
            c.size = sizeof(P);
        }
    } else {
        c.integral = std::is_integral_v<T>;
        c.is_signed = std::is_signed_v<T>;
        c.is_bool = std::is_same_v<T, bool>;
        c.size = sizeof(T);
    }
    return c;
}

template <typename T> T pass(const Slot& s)
{
    if constexpr (std::is_pointer_v<T>) {
        return static_cast<T>(s.ptr);
    } else if constexpr (std::is_same_v<T, bool>) {
        return s.bits != 0;
    } else {
        return static_cast<T>(s.bits);
    }
}

template <typename R> json result_json(R r)
{
    if constexpr (std::is_same_v<R, bool>) {
        return r;
    } else if constexpr (std::is_signed_v<R>) {
        return static_cast<int64_t>(r);
    } else {
        return static_cast<uint64_t>(r);
    }
}

template <typename R, typename... A, size_t... I>
json invoke_with(void* symbol, const std::vector<Slot>& s, std::index_sequence<I...>)
{
    auto fn = reinterpret_cast<R (*)(A...)>(symbol);
    if constexpr (std::is_void_v<R>) {
        fn(pass<A>(s[I])...);
        return nullptr;
    } else {
        return result_json<R>(fn(pass<A>(s[I])...));
    }
}

template <typename R, typename... A>
Function make_fn(const char* name, const char* family, R (*)(A...), std::vector<Param> params)
{
    Function f;
    f.name = name;
    f.family = family;
    f.params = std::move(params);
    f.ctypes = {ctype_of<A>()...};
    f.ret = ctype_of<R>();
    f.invoke = [](void* symbol, const std::vector<Slot>& s) -> json {
        return invoke_with<R, A...>(symbol, s, std::index_sequence_for<A...>{});
    };
    return f;
}

/* The prototype comes from the public header, the symbol from the shipped
 * library at run time. */
#define FN(name, family, ...) make_fn(#name, family, static_cast<decltype(&name)>(nullptr), {__VA_ARGS__})

Param u8(const char* n)
{
    return {n, PK::U8};
}
Param i32(const char* n)
{
    return {n, PK::I32};
}
Param u32(const char* n)
{
    return {n, PK::U32};
}
Param u64(const char* n)
{
    return {n, PK::U64};
}
Param ref(const char* n, PK k)
{
    return {n, k};
}
Param arr(const char* n, PK k, size_t count)
{
    return {n, k, count};
}
Param st(const char* n, const char* type)
{
    return {n, PK::Struct, 0, find_type(type)};
}
Param compo(const char* n)
{
    return {n, PK::Component};
}
Param text(const char* n)
{
    return {n, PK::Path};
}

void sensor_functions(std::vector<Function>& t)
{
    const char* S = "sensor state operations";
    const char* P = "sensor state persistence";
    const char* A = "shared flags area and controller checks";
    const char* U = "unit position ids";
    const PK u16r = PK::U16Ref;
    std::vector<Function> fns = {
        FN(ZNAPI_SetSensorWoS, S, u8("SensorNum"), i32("dir"), u8("offset"), i32("BMCInst")),
        FN(ZNAPI_SaveSensorTypeSEL, S, u8("SensorNum"), i32("dir"), u8("eventData1"), u8("eventData2"),
           u8("eventData3"), i32("BMCInst"), ref("recordId", u16r)),
        FN(ZNAPI_SetSensorWS, S, u8("SensorNum"), i32("dir"), u8("eventData1"), u8("eventData2"),
           u8("eventData3"), i32("BMCInst"), ref("recordID", u16r)),
        FN(ZNAPI_GetSensorReading, S, i32("sensor"), st("SensorRead", "GetSensorReadingRes_T"),
           i32("BMCInst")),
        FN(znpdklib_SetSensorWoS, S, u8("SensorNum"), u8("dir"), u8("offset"), i32("BMCInst")),
        FN(znpdklib_SetSensorWS, S, u8("SensorNum"), i32("dir"), u8("eventData1"), u8("eventData2"),
           u8("eventData3"), i32("BMCInst"), ref("recordID", u16r)),
        FN(znpdklib_exSetSensorWoS, S, u8("SensorNum"), u8("offset"), i32("BMCInst")),
        FN(znpdklib_exSetSensorWS, S, u8("SensorNum"), u8("eventData1"), u8("eventData2"), u8("eventData3"),
           i32("BMCInst"), ref("recordID", u16r)),
        FN(znpdklib_getDiscreteStatusSensorStatus, S, i32("sensor"), ref("status", u16r), i32("BMCInst")),
        FN(isValidSensorBMCInst, S, u8("SensorNum"), i32("BMCInst")),
        FN(GetInstSensorType, S, u8("SensorNum"), i32("BMCInst")),
        FN(GetInstSensorOEM, S, u8("SensorNum"), i32("BMCInst")),
        FN(ZNAPI_MemSensorAreaInit, P),
        FN(ZNAPI_MemSensorInfoWrite, P, u8("SensorNum"), i32("BMCInst")),
        FN(ZNAPI_MemSensorInfoRecover, P, i32("BMCInst")),
        FN(znpdklib_Various_sharemem_read, A, st("dp", "Various_sharemem_t")),
        FN(znpdklib_Various_sharemem_write, A, st("dp", "Various_sharemem_t")),
        FN(znpdklib_check_bobc_error, A),
        FN(znpdklib_check_cmuc_error, A, i32("cmuc_no")),
        FN(znpdklib_check_rtnd_error, A, i32("rtnd_no")),
        FN(znpdklib_compo2upid, U, compo("compo"), st("upid", "unit_position_id_t")),
        FN(znpdklib_path2upid, U, text("path"), st("upid", "unit_position_id_t")),
        FN(znpdklib_upid2upid, U, i32("up"), i32("no"), compo("compo"), st("upid", "unit_position_id_t")),
        FN(znpdklib_upid2upid_pc, U, i32("up"), i32("no"), text("path"), st("upid", "unit_position_id_t")),
    };
    t.insert(t.end(), fns.begin(), fns.end());
}

void start_up_and_port_functions(std::vector<Function>& t)
{
    const char* I = "initial sensor states";
    const char* N = "node error evaluation";
    const char* E = "escalation table";
    const char* T = "port topology queries";
    const char* Q = "port status and beacon check";
    std::vector<Function> fns = {
        FN(ZNAPI_Sensor_Init, I, i32("BMCInst")),
        FN(znpdklib_Init_Sensor_Bob, I),
        FN(znpdklib_Init_Sensor_PSU, I),
        FN(znpdklib_Init_Sensor_FANU, I),
        FN(znpdklib_Init_Sensor_Maintenance, I),
        FN(znpdklib_Init_Sensor_Node, I, i32("BMCInst")),
        FN(znpdklib_Init_Sensor_Giou, I, i32("BMCInst")),
        FN(znpdklib_Set_Sensor_Node, N, i32("BMCInst")),
        FN(znpdklib_make_escalation_info, E, i32("BMCInst")),
        FN(znpdklib_get_escalation_info, E, st("in", "Esc_Sensor_t"), ref("out", PK::EscTable)),
        FN(znpdklib_isPhysicalPortOffline, T, i32("routerno"), i32("pportno")),
        FN(znpdklib_isLogicalPortOffline, T, i32("routerno"), i32("lportno")),
        FN(znpdklib_isPhysicalPortExternal, T, i32("routerno"), i32("pportno")),
        FN(znpdklib_isLogicalPortExternal, T, i32("routerno"), i32("lportno")),
        FN(znpdklib_getRemoteRouterNo, T, i32("routerno"), arr("rrouterno", PK::I32Arr, 10)),
        FN(znpdklib_getConnectedInternalPortNo, T, i32("routerno"), arr("portno", PK::I32Arr, 10)),
        FN(znpdklib_isSmallScaleSystemConfiguration, T),
        FN(znpdklib_checkWaitEnableLogicalPort, Q, i32("routerno"), ref("waitLogicalPort", PK::U32Ref)),
        FN(znpdklib_checkWaitEnableInternalLogicalPort, Q, i32("routerno"),
           ref("waitLogicalPort", PK::U32Ref)),
        FN(znpdklib_updateQuorPortStatus, Q, i32("routerno")),
        FN(znpdklib_checkBeaconErrorPort, Q, i32("routerno")),
        FN(znpdklib_clearQuorPortErrorStatus, Q, i32("routerno"), i32("lportno")),
    };
    t.insert(t.end(), fns.begin(), fns.end());
}

void outage_and_flag_functions(std::vector<Function>& t)
{
    const char* O = "emergency and BMC-reboot outage";
    const char* H = "procedure execution and record clearing";
    const char* Sq = "sequence flags and monitor checks";
    const char* L = "BoB alarm LED";
    std::vector<Function> fns = {
        FN(znpdklib_setEmergencyOutage, O, i32("type"), i32("no"), u8("val")),
        FN(znpdklib_clearEmergencyOutage, O, i32("type"), i32("no")),
        FN(znpdklib_setBMCRebootOutage, O, i32("type"), i32("no"), u8("val")),
        FN(znpdklib_clearBMCRebootOutage, O, i32("type"), i32("no")),
        FN(znpdklib_checkEmergencyOutage, O, i32("type"), i32("no")),
        FN(znpdklib_checkEmergencyOutageByPath, O, text("path")),
        FN(znpdklib_setEmergencyMaskReg, O, i32("type"), i32("no")),
        FN(znpdklib_exechap, H, text("path"), text("hapName"), text("mode"), ref("para", PK::WordsIn),
           ref("data", PK::WordsOut)),
        FN(znpdklib_cleardb_biou, H, i32("no"), u32("offbit")),
        FN(znpdklib_cleardb_giou, H, i32("no"), u32("offbit")),
        FN(znpdklib_cleardb_psu, H, i32("no"), u32("offbit")),
        FN(znpdklib_cleardb_cmu, H, i32("no"), u32("offbit")),
        FN(znpdklib_cleardb_iorc, H, i32("no"), u32("offbit")),
        FN(znpdklib_cleardb_system, H, i32("no"), u32("offbit")),
        FN(znpdklib_cleardb_fanu, H, i32("no"), u32("offbit")),
        FN(znpdklib_wait_BMCReady, Sq),
        FN(znpdklib_shmem_sequence_flags, Sq, i32("mode"), u64("target")),
        FN(znpdklib_monitor_enable_check, Sq, i32("BMCInst")),
        FN(znpdklib_monitor_enable_check_gio, Sq, i32("BMCInst")),
        FN(znpdklib_fan_monitor_enable_check, Sq, i32("BMCInst"), u8("SensorNumber")),
        FN(znpdklib_shmem_corvo_job_regist_flags, Sq, i32("mode"), i32("BMCInst"), u8("regist_mode"),
           u8("regist_method"), st("datap", "job_regist_rows")),
        FN(znpdklib_clear_bob_alarm_led, L),
    };
    t.insert(t.end(), fns.begin(), fns.end());
}

void redundancy_and_fan_functions(std::vector<Function>& t)
{
    const char* R = "PSU redundancy";
    const char* Rr = "redundancy recovery";
    const char* Fs = "fan speed by reasons";
    const char* Fr = "fan redundancy";
    const char* Fc = "fan rotation checks";
    const char* Fb = "fan check bookkeeping";
    const char* Ft = "fan check threads";
    std::vector<Function> fns = {
        FN(znpdklib_check_psu_redundancy, R, i32("mode")),
        FN(znpdklib_check_psu_redundancy_for_psu_control, R, i32("mode"), i32("psuno")),
        FN(znpdklib_redundancy_recover, Rr, i32("sensor_clear")),
        FN(znpdklib_redundancy_recover_shortage2lost, Rr),
        FN(znpdklib_max_fan_speed, Fs, u64("reason")),
        FN(znpdklib_restore_fan_speed, Fs, u64("reason")),
        FN(znpdklib_change_fan_speed, Fs, u64("set_reason"), u64("reset_reason")),
        FN(znpdklib_check_fan_redundancy, Fr, i32("mode"), ref("fanc_err", PK::I32Ref)),
        FN(znpdklib_check_fan_redundancy_for_enter_mainte, Fr, i32("fanu_no")),
        FN(znpdklib_check_fan_spinup, Fc),
        FN(znpdklib_check_fan_rotation, Fc),
        FN(znpdklib_set_check_fan_start_time, Fb, u32("fan_target"), arr("fan_start_time", PK::U32Arr, 8)),
        FN(znpdklib_clear_check_fan_start_time, Fb, u32("fan_target"), arr("fan_start_time", PK::U32Arr, 8)),
        FN(znpdklib_is_check_fan_executing, Fb),
        FN(znpdklib_set_check_fan_start_time_by_attach, Fb, ref("fan_start_time", PK::U32Ref)),
        FN(znpdklib_clear_check_fan_start_time_by_attach, Fb, u32("fan_start_time")),
        FN(znpdklib_is_check_fan_executing_by_attach, Fb),
        FN(znpdklib_set_fan_check_phase, Fb, u8("phase")),
        FN(znpdklib_get_fan_check_phase, Fb),
        FN(znpdklib_create_fan_rotation_check_thread, Ft, u8("mode"), u32("fan_target")),
    };
    t.insert(t.end(), fns.begin(), fns.end());
}

std::vector<Function> build_table()
{
    std::vector<Function> t;
    sensor_functions(t);
    start_up_and_port_functions(t);
    outage_and_flag_functions(t);
    redundancy_and_fan_functions(t);
    return t;
}

#undef FN

} // namespace

IntRange int_range(const CType& c)
{
    if (c.is_bool) {
        return {0, 1};
    }
    unsigned bits = static_cast<unsigned>(8 * c.size);
    if (c.is_signed) {
        return {-(int64_t(1) << (bits - 1)), (uint64_t(1) << (bits - 1)) - 1};
    }
    return {0, bits >= 64 ? UINT64_MAX : (uint64_t(1) << bits) - 1};
}

IntRange pointee_range(PK k)
{
    switch (k) {
    case PK::U16Ref:
        return {0, UINT16_MAX};
    case PK::I32Ref:
    case PK::I32Arr:
        return {INT32_MIN, INT32_MAX};
    default:
        return {0, UINT32_MAX};
    }
}

namespace {

/* Byte size of the buffer behind a pointer parameter. */
size_t buffer_size(const Param& p, const ArgSpec& a)
{
    switch (p.kind) {
    case PK::U16Ref:
        return 2;
    case PK::I32Ref:
    case PK::U32Ref:
        return 4;
    case PK::I32Arr:
    case PK::U32Arr:
        return 4 * p.count;
    case PK::WordsIn:
        return a.init.size();
    case PK::WordsOut:
        /* The platform writes what the procedure returns; keep room for any. */
        return std::max<size_t>(4 * a.count, 1024);
    case PK::Struct:
        return p.type->size;
    case PK::EscTable:
        return sizeof(Esc_Table_t);
    case PK::Path:
        return a.text.size() + 1;
    default:
        return 0;
    }
}

/* One integer of a C type, by value, with the range that type holds. */
uint64_t int_arg(const CType& c, const Node& v, const char* what)
{
    IntRange r = int_range(c);
    if (r.max_unsigned > uint64_t(INT64_MAX)) {
        return get_uint(v, r.max_unsigned, what);
    }
    return static_cast<uint64_t>(get_int(v, r.min, static_cast<int64_t>(r.max_unsigned), what));
}

/* One value behind a pointer, "out" leaving it zero. */
ArgSpec ref_arg(const Param& p, const Node& v, bool out, const char* what)
{
    ArgSpec a;
    size_t n = p.kind == PK::U16Ref ? 2 : 4;
    a.init.assign(n, 0);
    if (!out) {
        IntRange r = pointee_range(p.kind);
        int64_t x = get_int(v, r.min, static_cast<int64_t>(r.max_unsigned), what);
        std::memcpy(a.init.data(), &x, n); /* little-endian low bytes */
    }
    return a;
}

/* A list of 32-bit words: fixed arrays, procedure parameter and result words. */
ArgSpec words_arg(const Param& p, const Node& v, bool out, const std::string& what)
{
    ArgSpec a;
    bool fixed = p.kind == PK::I32Arr || p.kind == PK::U32Arr;
    if (out && p.kind != PK::WordsIn) {
        a.count = p.kind == PK::WordsOut ? 16 : p.count;
        a.init.assign(4 * a.count, 0);
        return a;
    }
    if (!v->is_array()) {
        v.fail("expected " + what + " as a list of numbers, \"out\" or null, got " + v->dump());
    }
    size_t n = v->size();
    if (fixed && n > p.count) {
        v.fail(what + " holds " + std::to_string(p.count) + " values, " + std::to_string(n) + " given");
    }
    a.count = fixed ? p.count : n;
    a.init.assign(4 * a.count, 0);
    IntRange r = pointee_range(p.kind);
    const char* word = p.kind == PK::I32Arr ? "an int" : "a 32-bit word";
    for (size_t i = 0; i < n; ++i) {
        uint32_t w =
            static_cast<uint32_t>(get_int(v.at(i), r.min, static_cast<int64_t>(r.max_unsigned), word));
        std::memcpy(a.init.data() + 4 * i, &w, 4);
    }
    return a;
}

ArgSpec struct_arg(const Param& p, const Node& v, bool out, const std::string& what)
{
    ArgSpec a;
    const Type* t = p.kind == PK::EscTable ? find_type("Esc_Table_t") : p.type;
    a.init.assign(t->size, 0);
    if (!out) {
        if (p.kind == PK::EscTable) {
            v.fail("expected \"out\" or null for " + what);
        }
        fill(a.init.data(), *t, v);
    }
    return a;
}

ArgSpec parse_arg(const Function& f, size_t index, const Node& v)
{
    const Param& p = f.params[index];
    const std::string what =
        f.name + " argument " + std::to_string(index) + " (" + p.name + ", " + kind_name(p.kind) + ")";
    ArgSpec a;
    switch (p.kind) {
    case PK::U8:
    case PK::I32:
    case PK::U32:
    case PK::U64:
        a.bits = int_arg(f.ctypes[index], v, what.c_str());
        return a;
    default:
        break;
    }
    if (v->is_null()) {
        a.null = true;
        return a;
    }
    bool out = v->is_string() && v->get<std::string>() == "out";
    switch (p.kind) {
    case PK::U16Ref:
    case PK::I32Ref:
    case PK::U32Ref:
        return ref_arg(p, v, out, what.c_str());
    case PK::I32Arr:
    case PK::U32Arr:
    case PK::WordsIn:
    case PK::WordsOut:
        return words_arg(p, v, out, what);
    case PK::Struct:
    case PK::EscTable:
        return struct_arg(p, v, out, what);
    case PK::Component:
    case PK::Path:
        a.text = get_string(v, what.c_str());
        return a;
    default:
        break;
    }
    v.fail("unsupported parameter");
}

json read_words(const uint8_t* p, size_t n, bool is_signed)
{
    json arr = json::array();
    for (size_t i = 0; i < n; ++i) {
        uint32_t w;
        std::memcpy(&w, p + 4 * i, 4);
        if (is_signed) {
            arr.push_back(static_cast<int32_t>(w));
        } else {
            arr.push_back(w);
        }
    }
    return arr;
}

/* Reads an escalation result and frees its lists, as the caller must. */
json read_esc_table(uint8_t* p)
{
    Esc_Table_t t;
    std::memcpy(&t, p, sizeof t);
    const Type* es = find_type("Esc_Sensor_t");
    auto list = [&](int count, Esc_Sensor_t* items) {
        json arr = json::array();
        if (items == nullptr || count <= 0) {
            return arr;
        }
        for (int i = 0; i < count && i < 65536; ++i) {
            arr.push_back(to_json(reinterpret_cast<const uint8_t*>(&items[i]), whole(*es)));
        }
        return arr;
    };
    json out = {{"frue_count", t.frue_count},
                {"frue_list", list(t.frue_count, t.frue_list)},
                {"esc_count", t.esc_count},
                {"esc_list", list(t.esc_count, t.esc_list)}};
    free(t.frue_list);
    free(t.esc_list);
    return out;
}

} // namespace

void* library_symbol(const std::string& name)
{
    /* The library by its SONAME: the one already loaded, else found through
     * the run path (a linker that drops unreferenced libraries leaves it out). */
    static void* handle = [] {
        void* h = dlopen("libznpdk.so.1", RTLD_NOW | RTLD_NOLOAD);
        return h != nullptr ? h : dlopen("libznpdk.so.1", RTLD_NOW | RTLD_GLOBAL);
    }();
    return dlsym(handle != nullptr ? handle : RTLD_DEFAULT, name.c_str());
}

std::string kind_name(PK k)
{
    switch (k) {
    case PK::U8:
        return "INT8U";
    case PK::I32:
        return "int";
    case PK::U32:
        return "uint32_t";
    case PK::U64:
        return "uint64_t";
    case PK::U16Ref:
        return "INT16U* in/out";
    case PK::I32Ref:
        return "int* in/out";
    case PK::U32Ref:
        return "uint32_t* in/out";
    case PK::I32Arr:
        return "int[] out";
    case PK::U32Arr:
        return "uint32_t[] in/out";
    case PK::WordsIn:
        return "const uint32_t[] in";
    case PK::WordsOut:
        return "uint32_t[] out";
    case PK::Struct:
        return "structure in/out";
    case PK::EscTable:
        return "Esc_Table_t* out";
    case PK::Component:
        return "component path";
    case PK::Path:
        return "text";
    }
    return "?";
}

std::string Function::signature() const
{
    std::string s = name + "(";
    for (size_t i = 0; i < params.size(); ++i) {
        s += (i ? ", " : "") + params[i].name + ": " +
             (params[i].kind == PK::Struct ? params[i].type->name + "*" : kind_name(params[i].kind));
        if (params[i].count != 0) {
            s += "[" + std::to_string(params[i].count) + "]";
        }
    }
    return s + ")";
}

const std::vector<Function>& functions()
{
    static const std::vector<Function> table = build_table();
    return table;
}

const Function* find_function(const std::string& name)
{
    for (const Function& f : functions()) {
        if (f.name == name) {
            return &f;
        }
    }
    return nullptr;
}

std::vector<std::string> function_names()
{
    std::vector<std::string> names;
    for (const Function& f : functions()) {
        names.push_back(f.name);
    }
    return names;
}

namespace {

/* A name that is no parameter is named before any parameter is missed. */
void check_param_names(const Function& f, const Node& args, const std::string& names)
{
    for (auto it = args->begin(); it != args->end(); ++it) {
        bool known =
            std::any_of(f.params.begin(), f.params.end(), [&](const Param& p) { return p.name == it.key(); });
        if (known) {
            continue;
        }
        std::vector<std::string> params;
        for (const Param& p : f.params) {
            params.push_back(p.name);
        }
        Node{&it.value(), ptr_add(args.ptr, it.key())}.fail_name(
            f.name + " has no parameter \"" + it.key() + "\"" + did_you_mean(it.key(), params) +
            "; it takes " + (names.empty() ? "none" : names));
    }
}

} // namespace

std::vector<ArgSpec> parse_args(const Function& f, const Node& args)
{
    std::vector<ArgSpec> arg_list;
    std::string names;
    for (const Param& p : f.params) {
        names += (names.empty() ? "" : ", ") + p.name;
    }
    if (args.j == nullptr || args->is_null()) {
        if (!f.params.empty()) {
            args.fail(f.name + " takes " + std::to_string(f.params.size()) + " arguments (" + names +
                      "), none given");
        }
        return arg_list;
    }
    if (args->is_array()) {
        if (args->size() != f.params.size()) {
            args.fail(f.name + " takes " + std::to_string(f.params.size()) + " argument" +
                      (f.params.size() == 1 ? "" : "s") + (names.empty() ? "" : " (" + names + ")") + ", " +
                      std::to_string(args->size()) + " given");
        }
        for (size_t i = 0; i < f.params.size(); ++i) {
            arg_list.push_back(parse_arg(f, i, args.at(i)));
        }
        return arg_list;
    }
    if (args->is_object()) {
        check_param_names(f, args, names);
        ObjReader r(args);
        for (size_t i = 0; i < f.params.size(); ++i) {
            if (!r.has(f.params[i].name)) {
                args.fail(f.name + " argument \"" + f.params[i].name + "\" is missing (it takes " + names +
                          ")");
            }
            arg_list.push_back(parse_arg(f, i, r.at(f.params[i].name)));
        }
        r.finish();
        return arg_list;
    }
    args.fail("expected the arguments as a list or as an object by parameter name, got " + args->dump());
}

namespace {

/* The arguments as passed: integers, component handles and buffers made
 * from the argument list. Empty error = ready to call. */
std::string make_slots(const Function& f, const std::vector<ArgSpec>& arg_list,
                       std::vector<std::vector<uint8_t>>& bufs, std::vector<Slot>& slots)
{
    for (size_t i = 0; i < arg_list.size(); ++i) {
        const Param& p = f.params[i];
        const ArgSpec& a = arg_list[i];
        slots[i].bits = a.bits;
        if (a.null) {
            continue;
        }
        if (p.kind == PK::Component) {
            int oid = component_id(a.text);
            if (oid < 0) {
                return "no component at " + a.text;
            }
            slots[i].ptr = zsim::component(oid);
            continue;
        }
        size_t n = buffer_size(p, a);
        if (n == 0 && p.kind != PK::WordsIn) {
            continue;
        }
        bufs[i].assign(std::max<size_t>(n, 1), 0);
        if (p.kind == PK::Path) {
            std::memcpy(bufs[i].data(), a.text.c_str(), a.text.size() + 1);
        } else {
            std::memcpy(bufs[i].data(), a.init.data(), std::min(a.init.size(), bufs[i].size()));
        }
        slots[i].ptr = bufs[i].data();
    }
    return "";
}

/* What the function left behind one pointer parameter (null when nothing to read). */
json read_back(const Param& p, uint8_t* b, const ArgSpec& a)
{
    switch (p.kind) {
    case PK::U16Ref: {
        uint16_t v;
        std::memcpy(&v, b, 2);
        return v;
    }
    case PK::I32Ref: {
        int32_t v;
        std::memcpy(&v, b, 4);
        return v;
    }
    case PK::U32Ref: {
        uint32_t v;
        std::memcpy(&v, b, 4);
        return v;
    }
    case PK::I32Arr:
    case PK::U32Arr:
    case PK::WordsOut:
        return read_words(b, a.count, p.kind == PK::I32Arr);
    case PK::Struct:
        return to_json(b, whole(*p.type));
    case PK::EscTable:
        return read_esc_table(b);
    default:
        return nullptr;
    }
}

} // namespace

CallResult call_function(const Function& f, const std::vector<ArgSpec>& arg_list)
{
    CallResult res;
    void* symbol = library_symbol(f.name);
    if (symbol == nullptr) {
        res.error = f.name + " is not exported by the library";
        return res;
    }
    std::vector<std::vector<uint8_t>> bufs(arg_list.size());
    std::vector<Slot> slots(arg_list.size());
    res.error = make_slots(f, arg_list, bufs, slots);
    if (!res.error.empty()) {
        return res;
    }
    res.ret = f.invoke(symbol, slots);
    for (size_t i = 0; i < arg_list.size(); ++i) {
        if (arg_list[i].null || bufs[i].empty()) {
            continue;
        }
        json v = read_back(f.params[i], bufs[i].data(), arg_list[i]);
        if (!v.is_null()) {
            res.out[f.params[i].name] = v;
        }
    }
    return res;
}

std::string call_text(const Function& f, const std::vector<ArgSpec>& arg_list)
{
    std::string s = f.name + "(";
    for (size_t i = 0; i < arg_list.size(); ++i) {
        const Param& p = f.params[i];
        const ArgSpec& a = arg_list[i];
        s += i ? ", " : "";
        if (a.null) {
            s += "NULL";
        } else if (p.kind == PK::U8 || p.kind == PK::I32) {
            s += std::to_string(static_cast<int32_t>(a.bits));
        } else if (p.kind == PK::U32 || p.kind == PK::U64) {
            s += a.bits > 255 ? hex(a.bits, 0) : std::to_string(a.bits);
        } else if (p.kind == PK::Component || p.kind == PK::Path) {
            s += "\"" + a.text + "\"";
        } else {
            s += "&" + p.name;
        }
    }
    return s + ")";
}

} // namespace zcmd
