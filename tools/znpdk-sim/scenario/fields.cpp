#include "scenario/fields.h"

#include <cstring>
#include <deque>
#include <map>
#include <stdexcept>

#include "ipmi_stack.h"
#include "znlib.h"
#include "znpdk_sim/sim.h"
#include "znpdklib_types.h"

namespace zcmd {

namespace {

class Registry {
  public:
    Registry();
    const Type* get(const std::string& name) const
    {
        auto it = by_name_.find(name);
        return it == by_name_.end() ? nullptr : it->second;
    }
    std::vector<const Type*> all() const
    {
        std::vector<const Type*> out;
        for (const Type& t : types_) {
            out.push_back(&t);
        }
        return out;
    }

  private:
    void component_records();
    void setup_records();
    void psu_controller_records();
    void router_and_flags_records();
    void position_and_escalation_records();
    void log_records();
    void ipmi_records();

    const Type* u8 = nullptr;
    const Type* i8 = nullptr;
    const Type* u16 = nullptr;
    const Type* u32 = nullptr;
    const Type* i32 = nullptr;
    const Type* u64 = nullptr;
    const Type* chr = nullptr;
    const Type* ptr = nullptr;

    const Type* scalar(const std::string& name, size_t size, Scalar s)
    {
        Type t;
        t.name = name;
        t.size = size;
        t.scalar = s;
        return add(std::move(t));
    }
    const Type* record(const std::string& name, size_t size, std::vector<Member> members)
    {
        Type t;
        t.name = name;
        t.size = size;
        t.is_struct = true;
        t.members = std::move(members);
        return add(std::move(t));
    }
    const Type* add(Type t)
    {
        types_.push_back(std::move(t));
        by_name_[types_.back().name] = &types_.back();
        return &types_.back();
    }
    std::deque<Type> types_;
    std::map<std::string, const Type*> by_name_;
};

#define F(S, f, T, ...)                                                                                      \
    Member                                                                                                   \
    {                                                                                                        \
#f, offsetof(S, f), T,                                                                               \
        {                                                                                                    \
            __VA_ARGS__                                                                                      \
        }                                                                                                    \
    }

Registry::Registry()
{
    u8 = scalar("uint8", 1, Scalar::U8);
    i8 = scalar("int8", 1, Scalar::I8);
    u16 = scalar("uint16", 2, Scalar::U16);
    u32 = scalar("uint32", 4, Scalar::U32);
    i32 = scalar("int32", 4, Scalar::I32);
    u64 = scalar("uint64", 8, Scalar::U64);
    chr = scalar("char", 1, Scalar::Char);
    ptr = scalar("pointer", sizeof(void*), Scalar::Pointer);
    component_records();
    setup_records();
    psu_controller_records();
    router_and_flags_records();
    position_and_escalation_records();
    log_records();
    ipmi_records();
}

/* The common and system records of the component database. */
void Registry::component_records()
{
    using CC = current_common_info_t;
    record("current_common_info_t", sizeof(CC),
           {F(CC, status, u32), F(CC, remcs_status, u32), F(CC, remcs_time, u32), F(CC, physicalNo, u16),
            F(CC, emergency_outage, u8), F(CC, reserve1, u8, 1), F(CC, sequence, u32),
            F(CC, control_no, u8, 2), F(CC, fanc_error_level, u8), F(CC, reserve2, u8, 9)});

    using SI = current_system_info_t;
    record("current_system_info_t", sizeof(SI),
           {F(SI, power_led, u8),
            F(SI, alarm_led, u8),
            F(SI, ready_led, u8),
            F(SI, location_led, u8),
            F(SI, provisioning_sequence_initial, u8),
            F(SI, provisioning_sequence_remcs, u8),
            F(SI, provisioning_sequence_firmup, u8),
            F(SI, reserve2, u8, 1),
            F(SI, psu_on_disable, u16),
            F(SI, node_on_disable, u16),
            F(SI, bobid, u8),
            F(SI, ubootled, u8),
            F(SI, available_psu_slots, u8),
            F(SI, rsv3, u8, 1),
            F(SI, ledsave, u8, 16),
            F(SI, fanu_present, u16),
            F(SI, psu_customProductInfo, u8, 6),
            F(SI, available_psu_count, u8),
            F(SI, psu_redandancy_check_enable, u8),
            F(SI, brand_data, u16),
            F(SI, brand_name, u8, 16),
            F(SI, fan_monitor_disable, u16),
            F(SI, fan_check_phase, u8),
            F(SI, reserve41, u8, 1),
            F(SI, fanfull_reason, u64),
            F(SI, fan_start_time, u32, 8),
            F(SI, fan_check_result, u8, 8),
            F(SI, fan_start_time_by_attach, u32),
            F(SI, psu_type, u8, 3),
            F(SI, BoBoff_executing, u8),
            F(SI, NodeOn_cycle, u8, 16),
            F(SI, NodeOn_Request, u8, 16),
            F(SI, CMUoff_executing, u8, 8),
            F(SI, acpi_name, u8, 8),
            F(SI, reserve43, u8, 856),
            F(SI, reserve4, u8, 1024)});
}

/* The setup record and the types inside it. */
void Registry::setup_records()
{
    const Type* dbg = record("debug_flags_t", sizeof(debug_flags_t), {F(debug_flags_t, debug_flag, u32, 64)});
    const Type* qpos = record("quor_position_t", sizeof(quor_position_t),
                              {F(quor_position_t, X, i8), F(quor_position_t, Y, i8),
                               F(quor_position_t, Z, i8), F(quor_position_t, B, i8)});
    const Type* cdu = record("CDU_information_t", sizeof(CDU_information_t),
                             {F(CDU_information_t, cdu_ip, u8, 4), F(CDU_information_t, password, u8, 32)});
    using SU = setup_system_info_t;
    record("setup_system_info_t", sizeof(SU),
           {F(SU, debug_flags, dbg),
            F(SU, altitude, u8),
            F(SU, waterState, u8),
            F(SU, variant4, u8),
            F(SU, ntp_enable, u8),
            F(SU, ntp_server_ip, u8, 3, 4),
            F(SU, quorPosition, qpos),
            F(SU, quorSpace, qpos, 2),
            F(SU, quorPattern, u32),
            F(SU, quorPartition, qpos, 2),
            F(SU, quorPartitionEnable, u8),
            F(SU, reserve2, u8, 2),
            F(SU, snapshot_id, u8),
            F(SU, tcs_location_led, u8, 48),
            F(SU, maintenance_location_led, u8, 48),
            F(SU, maintenance_sensor, u8, 48),
            F(SU, initial_time, u8, 32),
            F(SU, initial_parent_ip, u8, 16),
            F(SU, cdu_info, cdu, 2),
            F(SU, bank_status, u32),
            F(SU, pwknob_threshold, u16),
            F(SU, epo_threshold, u16),
            F(SU, Job_Memory_Use, u16, 16),
            F(SU, snmp_disable, u32),
            F(SU, default_engineID, chr, 32),
            F(SU, reserve3, u8, 128)});
}

void Registry::psu_controller_records()
{
    using PB = psuc_bob_t;
    const Type* pbob =
        record("psuc_bob_t", sizeof(PB),
               {F(PB, PresentInt, u32), F(PB, ACOKInt, u32), F(PB, PWOKInt, u32), F(PB, PSONInt, u32),
                F(PB, PresentMask, u32), F(PB, ACOKMask, u32), F(PB, PWOKMask, u32), F(PB, PSONMask, u32),
                F(PB, CheckEnabe, u32), F(PB, FRUStatus, u32), F(PB, PSONCntl, u32), F(PB, PSONAndCntl, u32),
                F(PB, PWOKCompareEnable, u32)});
    using PC = psuc_common_t;
    const Type* pcom =
        record("psuc_common_t", sizeof(PC),
               {F(PC, PresentSts, u32), F(PC, ACOKSts, u32), F(PC, PWOKSts, u32), F(PC, PSONSts, u32),
                F(PC, PWOKCompare, u32), F(PC, PWOKFilter, u32), F(PC, Version, u32), F(PC, BobId, u32)});
    const Type* pall =
        record("psuc_all_t", sizeof(psuc_all_t), {F(psuc_all_t, bob, pbob, 3), F(psuc_all_t, common, pcom)});
    record("current_psuc_info_t", sizeof(current_psuc_info_t),
           {F(current_psuc_info_t, psuc, pall), F(current_psuc_info_t, rsv, u8, 68)});
}

/* The router record and the shared flags area with its job table. */
void Registry::router_and_flags_records()
{
    using QP = quor_port_info_t;
    const Type* qport =
        record("quor_port_info_t", sizeof(QP),
               {F(QP, X, i8), F(QP, Y, i8), F(QP, Z, i8), F(QP, A, i8), F(QP, B, i8), F(QP, C, i8),
                F(QP, online, u8), F(QP, reserve0, u8), F(QP, id, u8), F(QP, reserve1, u8, 7)});
    using QN = quor_node_config_t;
    const Type* qnode = record("quor_node_config_t", sizeof(QN),
                               {F(QN, selfId, qport), F(QN, phyPort, qport, 10), F(QN, bootId, qport, 1),
                                F(QN, portConfig, u32), F(QN, reserve1, u8, 4), F(QN, serdesCharTbl, u64)});
    using RH = current_router_hard_info_t;
    record(
        "current_router_hard_info_t", sizeof(RH),
        {F(RH, quordata, qnode), F(RH, reserve0, u8, 8), F(RH, reserve1, u8, 40), F(RH, reserve2, u8, 256)});

    using JF = Corvo_Job_regist_flag_t;
    const Type* job =
        record("Corvo_Job_regist_flag_t", sizeof(JF),
               {F(JF, BMCInst, u8), F(JF, regist_method, u8), F(JF, regist_mode, u8), F(JF, rsv, u8, 1)});
    using VS = Various_sharemem_t;
    record("Various_sharemem_t", sizeof(VS),
           {F(VS, job_in_sequence, u64), F(VS, hjob_regist_flag, job, 2, 18), F(VS, rsv, u8, 872)});
    /* The 144 bytes that the job table hands out (both rows, row 0 first). */
    struct JobRows {
        Corvo_Job_regist_flag_t rows[2][18];
    };
    record("job_regist_rows", sizeof(JobRows), {F(JobRows, rows, job, 2, 18)});
}

void Registry::position_and_escalation_records()
{
    using UP = unit_position_id_t;
    record("unit_position_id_t", sizeof(UP), {F(UP, nameID, u8), F(UP, count, u8), F(UP, partLayer, u8, 6)});
    using ES = Esc_Sensor_t;
    record("Esc_Sensor_t", sizeof(ES), {F(ES, esc_spec, i32), F(ES, BMCInst, i32), F(ES, Sensor_No, i32)});
    using ET = Esc_Table_t;
    record("Esc_Table_t", sizeof(ET),
           {F(ET, frue_count, i32), F(ET, frue_list, ptr), F(ET, esc_count, i32), F(ET, esc_list, ptr)});
    using PK = packed_clear_sensor_list;
    record("packed_clear_sensor_list", sizeof(PK),
           {F(PK, valid, i8), F(PK, BMCInst, i8), F(PK, fru_sensor, u8), F(PK, frue_sensor, u8)});
}

/* RAS error logs and clear-sensor lists of the controller support library. */
void Registry::log_records()
{
    const Type* latch =
        record("splog_latch_code", sizeof(splog_latch_code), {F(splog_latch_code, latch_code, u32)});
    using LI = splog_info;
    record("splog_info", sizeof(LI),
           {F(LI, ras_code, chr, 16), F(LI, BMCInst, u8), F(LI, direction, u8), F(LI, rsv, u8, 2),
            F(LI, part1_pos, u8, 6), F(LI, part2_pos, u8, 6), F(LI, latch_code, latch, 8),
            F(LI, detail, u8, 16)});
    const Type* tstamp = record("splog_time_stamp", sizeof(splog_time_stamp),
                                {F(splog_time_stamp, tv_sec, i32), F(splog_time_stamp, tv_usec, i32)});
    using LL = splog_linkup_info;
    record("splog_linkup_info", sizeof(LL),
           {F(LL, time, tstamp), F(LL, log_id, u32), F(LL, num, i32), F(LL, BMCInst, i32),
            F(LL, link_type, u64)});
    using CL = splog_clear_sensor_list;
    record("splog_clear_sensor_list", sizeof(CL),
           {F(CL, valid, i32), F(CL, BMCInst, i32), F(CL, fru_sensor, i32), F(CL, frue_sensor, i32)});
}

/* The IPMI stack's SEL, sensor reading and sensor records. */
void Registry::ipmi_records()
{
    const Type* selhdr =
        record("SELRecHdr_T", sizeof(SELRecHdr_T),
               {F(SELRecHdr_T, ID, u16), F(SELRecHdr_T, Type, u8), F(SELRecHdr_T, TimeStamp, u32)});
    using SE = SELEventRecord_T;
    record("SELEventRecord_T", sizeof(SE),
           {F(SE, hdr, selhdr), F(SE, GenID, u8, 2), F(SE, EvMRev, u8), F(SE, SensorType, u8),
            F(SE, SensorNum, u8), F(SE, EvtDirType, u8), F(SE, EvtData1, u8), F(SE, EvtData2, u8),
            F(SE, EvtData3, u8)});
    using GR = GetSensorReadingRes_T;
    record("GetSensorReadingRes_T", sizeof(GR),
           {F(GR, CompletionCode, u8), F(GR, SensorReading, u8), F(GR, Flags, u8),
            F(GR, ComparisonStatus, u8), F(GR, OptionalStatus, u8)});
    using SN = SensorInfo_T;
    record("SensorInfo_T", sizeof(SN),
           {F(SN, SensorReading, u16), F(SN, PreviousState, u16), F(SN, SensorNumber, u8),
            F(SN, SensorTypeCode, u8), F(SN, EventTypeCode, u8), F(SN, SensorOwnerLun, u8),
            F(SN, OEMField, u8), F(SN, EventFlags, u8), F(SN, EventLevel, u8), F(SN, Reserved, u8)});
}

#undef F

const Registry& registry()
{
    static const Registry r;
    return r;
}

size_t product(const std::vector<size_t>& dims, size_t from)
{
    size_t n = 1;
    for (size_t i = from; i < dims.size(); ++i) {
        n *= dims[i];
    }
    return n;
}

/* Resolves `path` starting from an already resolved place. */
Ref resolve_from(Ref r, const std::string& path)
{
    for (const PathStep& st : split_path(path)) {
        const std::string before = "\"" + path.substr(0, st.at) + "\"";
        if (st.is_index) {
            if (r.dims.empty()) {
                throw std::invalid_argument(before + " is not an array");
            }
            if (st.index >= r.dims[0]) {
                throw std::invalid_argument("index " + st.name + " is outside " + before + " (0 to " +
                                            std::to_string(r.dims[0] - 1) + ")");
            }
            r.offset += st.index * r.type->size * product(r.dims, 1);
            r.dims.erase(r.dims.begin());
            continue;
        }
        if (!r.dims.empty()) {
            throw std::invalid_argument(before + " is an array: give an index before \"" + st.name + "\"");
        }
        if (!r.type->is_struct) {
            throw std::invalid_argument(before + " has no fields (it is a " + r.type->name + ")");
        }
        const Member* m = nullptr;
        for (const Member& cand : r.type->members) {
            if (cand.name == st.name) {
                m = &cand;
            }
        }
        if (m == nullptr) {
            std::vector<std::string> names;
            for (const Member& cand : r.type->members) {
                names.push_back(cand.name);
            }
            throw std::invalid_argument("no field \"" + st.name + "\" in " + r.type->name +
                                        did_you_mean(st.name, names));
        }
        r.offset += m->offset;
        r.type = m->type;
        r.dims = m->dims;
    }
    return r;
}

template <typename T> json load(const uint8_t* p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

json scalar_to_json(const uint8_t* p, const Type& t)
{
    switch (t.scalar) {
    case Scalar::U8:
        return *p;
    case Scalar::I8:
        return static_cast<int8_t>(*p);
    case Scalar::Char:
        return static_cast<int>(static_cast<char>(*p));
    case Scalar::U16:
        return load<uint16_t>(p);
    case Scalar::I16:
        return load<int16_t>(p);
    case Scalar::U32:
        return load<uint32_t>(p);
    case Scalar::I32:
        return load<int32_t>(p);
    case Scalar::U64:
        return load<uint64_t>(p);
    case Scalar::Pointer: {
        uintptr_t v;
        std::memcpy(&v, p, sizeof v);
        return v == 0 ? json(nullptr) : json(hex(v, 0));
    }
    }
    return nullptr;
}

void scalar_from_json(uint8_t* p, const Type& t, const Node& v)
{
    switch (t.scalar) {
    case Scalar::U8:
    case Scalar::I8:
    case Scalar::Char: {
        int64_t x = get_int(v, -128, 255, "an 8-bit value");
        *p = static_cast<uint8_t>(x);
        return;
    }
    case Scalar::U16:
    case Scalar::I16: {
        uint16_t x = static_cast<uint16_t>(get_int(v, -32768, 65535, "a 16-bit value"));
        std::memcpy(p, &x, 2);
        return;
    }
    case Scalar::U32:
    case Scalar::I32: {
        uint32_t x = static_cast<uint32_t>(get_int(v, INT32_MIN, UINT32_MAX, "a 32-bit value"));
        std::memcpy(p, &x, 4);
        return;
    }
    case Scalar::U64: {
        uint64_t x = 0;
        if (v->is_number_integer() && !v->is_number_unsigned()) {
            x = static_cast<uint64_t>(get_int(v, INT64_MIN, INT64_MAX, "a 64-bit value"));
        } else {
            x = get_uint(v, UINT64_MAX, "a 64-bit value");
        }
        std::memcpy(p, &x, 8);
        return;
    }
    case Scalar::Pointer:
        if (!v->is_null()) {
            v.fail("pointers can only be given as null");
        }
        std::memset(p, 0, t.size);
        return;
    }
}

bool is_text(const Ref& r)
{
    return r.dims.size() == 1 && !r.type->is_struct && r.type->scalar == Scalar::Char;
}
bool is_bytes(const Ref& r)
{
    return r.dims.size() == 1 && !r.type->is_struct &&
           (r.type->scalar == Scalar::U8 || r.type->scalar == Scalar::I8);
}

} // namespace

size_t Ref::size() const
{
    return type->size * product(dims, 0);
}

const Type* find_type(const std::string& name)
{
    return registry().get(name);
}
std::vector<const Type*> all_types()
{
    return registry().all();
}

Ref whole(const Type& t)
{
    Ref r;
    r.type = &t;
    return r;
}

Ref resolve(const Type& root, const std::string& path)
{
    return resolve_from(whole(root), path);
}

json to_json(const uint8_t* base, const Ref& r)
{
    if (is_text(r)) {
        const char* s = reinterpret_cast<const char*>(base + r.offset);
        return std::string(s, strnlen(s, r.dims[0]));
    }
    if (!r.dims.empty()) {
        json arr = json::array();
        for (size_t i = 0; i < r.dims[0]; ++i) {
            Ref e = r;
            e.dims.erase(e.dims.begin());
            e.offset += i * e.size();
            arr.push_back(to_json(base, e));
        }
        return arr;
    }
    if (r.type->is_struct) {
        json obj = json::object();
        for (const Member& m : r.type->members) {
            Ref e;
            e.offset = r.offset + m.offset;
            e.type = m.type;
            e.dims = m.dims;
            obj[m.name] = to_json(base, e);
        }
        return obj;
    }
    return scalar_to_json(base + r.offset, *r.type);
}

void from_json(uint8_t* base, const Ref& r, const Node& v)
{
    if (v->is_object()) {
        if (!r.type->is_struct && r.dims.empty()) {
            v.fail("expected a single value for a " + r.type->name + ", got an object");
        }
        for (auto it = v->begin(); it != v->end(); ++it) {
            Node sub{&it.value(), ptr_add(v.ptr, it.key())};
            Ref target;
            try {
                target = resolve_from(r, it.key());
            } catch (const std::invalid_argument& e) {
                sub.fail_name(std::string("unknown field: ") + e.what());
            }
            from_json(base, target, sub);
        }
        return;
    }
    if (is_text(r) && v->is_string()) {
        std::string s = v->get<std::string>();
        if (s.size() > r.dims[0]) {
            v.fail("text longer than the field (" + std::to_string(r.dims[0]) + " characters)");
        }
        std::memset(base + r.offset, 0, r.dims[0]);
        std::memcpy(base + r.offset, s.data(), s.size());
        return;
    }
    if (is_bytes(r) && v->is_string()) {
        std::vector<uint8_t> bytes;
        if (!parse_hex_bytes(v->get<std::string>(), bytes)) {
            v.fail("expected hex bytes such as \"01 02 0a\", got " + v->dump());
        }
        if (bytes.size() > r.dims[0]) {
            v.fail("more bytes than the field holds (" + std::to_string(r.dims[0]) + ")");
        }
        std::memcpy(base + r.offset, bytes.data(), bytes.size());
        return;
    }
    if (!r.dims.empty()) {
        if (!v->is_array()) {
            v.fail("expected a list (the field is an array of " + std::to_string(r.dims[0]) + "), got " +
                   v->dump());
        }
        if (v->size() > r.dims[0]) {
            v.fail("list longer than the field (" + std::to_string(r.dims[0]) + " elements)");
        }
        for (size_t i = 0; i < v->size(); ++i) {
            Ref e = r;
            e.dims.erase(e.dims.begin());
            e.offset += i * e.size();
            from_json(base, e, v.at(i));
        }
        return;
    }
    if (r.type->is_struct) {
        v.fail("expected an object for a " + r.type->name + ", got " + v->dump());
    }
    scalar_from_json(base + r.offset, *r.type, v);
}

void fill(uint8_t* base, const Type& t, const Node& v)
{
    if (v->is_object() && v->size() == 1 && v->contains("hex")) {
        Node h{&(*v)["hex"], ptr_add(v.ptr, "hex")};
        std::vector<uint8_t> bytes;
        if (!parse_hex_bytes(get_string(h, "hex bytes"), bytes)) {
            h.fail("expected hex bytes, got " + h->dump());
        }
        if (bytes.size() > t.size) {
            h.fail("more bytes than a " + t.name + " holds (" + std::to_string(t.size) + ")");
        }
        std::memcpy(base, bytes.data(), bytes.size());
        return;
    }
    from_json(base, whole(t), v);
}

namespace {
/* Offsets are those of the first element of every array on the way. */
void describe_into(const Type& t, const std::string& prefix, size_t base, std::vector<std::string>& out)
{
    for (const Member& m : t.members) {
        std::string name = prefix + m.name;
        for (size_t d : m.dims) {
            name += "[" + std::to_string(d) + "]";
        }
        if (m.type->is_struct) {
            describe_into(*m.type, name + ".", base + m.offset, out);
        } else {
            out.push_back(name + "  " + m.type->name + "  @" + std::to_string(base + m.offset));
        }
    }
}
} // namespace

std::vector<std::string> describe(const Type& t)
{
    std::vector<std::string> out;
    describe_into(t, "", 0, out);
    return out;
}

bool constant_value(const std::string& name, int64_t& v)
{
    static const std::map<std::string, int64_t> props = {
        {"PROP_SETUP_INFO", PROP_SETUP_INFO},
        {"PROP_CURRENT_COMMON_INFO", PROP_CURRENT_COMMON_INFO},
        {"PROP_CURRENT_INFO", PROP_CURRENT_INFO},
        {"PROP_CURRENT_HARD_INFO", PROP_CURRENT_HARD_INFO},
        {"DBGW_BMCFW_MODULE_COMMON0", 0},
        {"DBGW_BMCFW_MODULE_BMCINIT", 8},
        {"MBC_CABINET_BASE", 0},
        {"MBC_CABINET_GPIO", 1},
    };
    auto it = props.find(name);
    if (it != props.end()) {
        v = it->second;
        return true;
    }
    std::string type = name.compare(0, 6, "COMPO_") == 0 ? name.substr(6) : name;
    int t = zsim::type_from_name(type);
    if (t > 0) {
        v = t;
        return true;
    }
    return false;
}

const std::vector<RecordKind>& record_kinds()
{
    static const std::vector<RecordKind> kinds = {
        {"common", PROP_CURRENT_COMMON_INFO, find_type("current_common_info_t"), "every component"},
        {"system", PROP_CURRENT_INFO, find_type("current_system_info_t"), "/SYSTEM#0"},
        {"setup", PROP_SETUP_INFO, find_type("setup_system_info_t"), "/SYSTEM#0"},
        {"psuc", PROP_CURRENT_INFO, find_type("current_psuc_info_t"), "PSUC#0"},
        {"router", PROP_CURRENT_HARD_INFO, find_type("current_router_hard_info_t"), "each ROUTER"},
    };
    return kinds;
}

const RecordKind* find_record(const std::string& name)
{
    for (const RecordKind& k : record_kinds()) {
        if (name == k.name) {
            return &k;
        }
    }
    return nullptr;
}

} // namespace zcmd
