/*
 * The default machine: a fully populated, healthy chassis with the sensor
 * definitions of all 18 instances (docs/simulated-machine.md describes it).
 */
#include <stdio.h>
#include <string.h>

#include <string>

#include "sim_internal.h"
#include "znpdklib_types.h"

namespace zsim {
namespace {

constexpr int kChassis = 17;
constexpr uint8_t kFru = 0xC1;
constexpr uint8_t kFrue = 0xC2;
constexpr uint8_t kGeneric = 0x12; /* system event */
constexpr uint8_t kMainte = 0xC0;  /* OEM, neither FRU kind */
constexpr uint8_t kPower = 0x08;   /* power supply */
constexpr uint8_t kFan = 0x04;
constexpr uint16_t kOff0 = 0x0001; /* offset 0 asserted */
constexpr uint16_t kOff1 = 0x0002; /* offset 1 asserted */

struct Range {
    int first;
    int last;
};

/* Default states of the chassis and node tables: offset 0, then offset 1. */
const Range kBobOff0[] = {{0, 0},   {34, 34}, {36, 47},   {53, 67},  {69, 71},
                          {74, 86}, {89, 90}, {108, 109}, {182, 196}};
const Range kBobOff1[] = {{33, 33},  {35, 35},   {48, 48},   {50, 52},   {68, 68},   {72, 73},  {87, 87},
                          {91, 100}, {103, 107}, {110, 110}, {129, 130}, {177, 181}, {197, 220}};
const Range kNodeOff0[] = {{0, 1}, {4, 7}, {15, 35}, {46, 64}, {67, 68}, {76, 85}};
const Range kNodeOff1[] = {{3, 3}, {8, 14}, {36, 45}, {65, 66}, {69, 75}, {145, 152}};

/* Node-instance sensors of the CMU (OEMField 0x02: odd instances only). */
const Range kCmuSensors[] = {{1, 1}, {4, 6}, {12, 13}, {40, 60}, {71, 71}};

std::string fmt(const char* f, int a, int b = 0)
{
    char buf[64];
    snprintf(buf, sizeof(buf), f, a, b);
    return buf;
}

void def(int inst, int num, uint8_t type, uint8_t oem, uint16_t reading, const std::string& name)
{
    SensorDef d;
    d.inst = inst;
    d.num = static_cast<uint8_t>(num);
    d.type = type;
    d.oem = oem;
    d.reading = reading;
    d.name = name;
    define_sensor(d);
}

template <size_t N>
void def_table(int inst, const Range (&ranges)[N], uint16_t reading, uint8_t oem, const char* name)
{
    for (const Range& r : ranges) {
        for (int s = r.first; s <= r.last; ++s) {
            def(inst, s, kGeneric, oem, reading, fmt(name, s));
        }
    }
}

bool in_ranges(const Range* begin, const Range* end, int s)
{
    for (const Range* r = begin; r != end; ++r) {
        if (s >= r->first && s <= r->last) {
            return true;
        }
    }
    return false;
}

void chassis_sensors()
{
    const int c = kChassis;
    def_table(c, kBobOff0, kOff0, 0, "Chassis Status %d");
    def_table(c, kBobOff1, kOff1, 0, "Chassis Status %d");
    def(c, 0, kGeneric, 0, 0x0000, "System Power Off"); /* the system is on */
    for (int i = 0; i <= 28; ++i) {
        def(c, 4 + i, kMainte, 0, 0x0000, fmt("Maintenance %d", i));
    }
    def(c, 33, kFru, 0, kOff1, "BoB FRU Status");
    def(c, 35, kFru, 0, kOff1, "Environment");
    def(c, 73, kFrue, 0, kOff1, "FRUE Environment");
    for (int n = 0; n < 18; ++n) {
        def(c, 50 + n, kFru, 0, kOff1, fmt("PSU%d FRU Status", n));
        def(c, 111 + n, kPower, 0, kOff0, fmt("PSU%d Status", n)); /* presence detected */
        def(c, 179 + n, kFrue, 0, kOff1, fmt("PSU%d FRU Error Status", n));
    }
    SensorDef red;
    red.inst = c;
    red.num = 129;
    red.type = kPower;
    red.event_type = 0x0B;
    red.reading = kOff1;
    red.name = "PSU Redundancy";
    define_sensor(red);
    red.num = 130;
    red.type = kFan;
    red.name = "Fan Redundancy";
    define_sensor(red);
    for (int u = 0; u < 4; ++u) {
        def(c, 201 + u, kFru, 0, kOff1, fmt("FANU%d FRU Status", u));
        def(c, 205 + u, kFrue, 0, kOff1, fmt("FANU%d FRU Error Status", u));
        def(c, 221 + u, kMainte, 0, 0x0000, fmt("FANU%d Maintenance", u));
        for (int m = 0; m < 2; ++m) {
            def(c, 209 + 2 * u + m, kFrue, 0, kOff1, fmt("FANU%d/FAN%d FRU Error Status", u, m));
            def(c, 229 + 2 * u + m, kFan, 0, 0x0000, fmt("FANU%d/FAN%d Monitor", u, m));
        }
    }
}

void node_sensors(int inst)
{
    def_table(inst, kNodeOff0, kOff0, 0x03, "Node Status %d");
    def_table(inst, kNodeOff1, kOff1, 0x03, "Node Status %d");
    def(inst, 0, kGeneric, 0x03, kOff0, "Node Power Off");
    def(inst, 1, kGeneric, 0x03, kOff0, "CMU Status");
    def(inst, 2, kGeneric, 0x03, kOff0, "Node Status");
    def(inst, 8, kFru, 0x03, kOff1, "PCIe Card FRU Status");
    def(inst, 9, kFru, 0x03, kOff1, "Node FRU Status");
    def(inst, 10, kFrue, 0x03, kOff1, "Node FRU Error Status");
    def(inst, 12, kFrue, 0x03, kOff1, "CMUC FRU Error Status");
    def(inst, 13, kFrue, 0x03, kOff1, "CMU FRU Error Status");
    for (int p = 0; p < 10; ++p) {
        def(inst, 15 + p, kGeneric, 0x03, kOff0, fmt("Port %d Link Error", p));
        def(inst, 25 + p, kGeneric, 0x03, kOff0, fmt("Port %d Beacon Error", p));
        def(inst, 76 + p, kGeneric, 0x03, kOff0, fmt("Port %d Status", p));
        def(inst, 86 + p, kGeneric, 0x03, 0x0000, fmt("Port %d Offline", p)); /* online */
    }
    def(inst, 35, kFrue, 0x03, kOff1, "Router FRU Error Status");
    def(inst, 36, kFrue, 0x03, kOff1, "Memory FRU Error Status");
    for (int k = 0; k < 2; ++k) {
        def(inst, 40 + k, kFrue, 0x03, kOff1, fmt("CPU%d FRU Error Status", k));
    }
    for (int k = 42; k <= 45; ++k) {
        def(inst, k, kFrue, 0x03, kOff1, fmt("CMU Part %d FRU Error Status", k - 42));
    }
    for (int j = 0; j < 3; ++j) {
        def(inst, 4 + j, kFru, 0x03, kOff1, fmt("AOC%d FRU Status", j));
        def(inst, 46 + j, kFrue, 0x03, kOff1, fmt("AOC%d FRU Error Status", j));
        for (int k = 0; k < 2; ++k) {
            def(inst, 49 + 2 * j + k, kGeneric, 0x03, kOff0, fmt("AOC%d Status %d", j, k));
            def(inst, 55 + 2 * j + k, kGeneric, 0x03, kOff0, fmt("AOC%d Error %d", j, k));
        }
    }
    def(inst, 66, kFrue, 0x03, kOff1, "PCIe Card FRU Error Status");
    def(inst, 71, kFrue, 0x03, kOff1, "CMU Power FRU Error Status");
    def(inst, 145, kFru, 0x03, kOff1, "SSD FRU Status");
    def(inst, 146, kFrue, 0x03, kOff1, "SSD FRU Error Status");
    /* Membership examples: 0x04 only on instances 3 and 11, 0x05 also on even
     * instances, 0x08 only on instance 5. */
    def(inst, 160, kGeneric, 0x04, kOff0, "Instance 3/11 Status");
    def(inst, 161, kGeneric, 0x05, kOff0, "Instance 3/11 and Even Status");
    def(inst, 162, kGeneric, 0x08, kOff0, "Instance 5 Status");
    /* The CMU's sensors belong to the instance of its even node. */
    for (int s = 0; s < 256; ++s) {
        if (in_ranges(kCmuSensors, kCmuSensors + sizeof(kCmuSensors) / sizeof(kCmuSensors[0]), s)) {
            g_BMCInfo[inst].SensorSharedMem.SensorInfo[s].OEMField = 0x02;
        }
    }
}

void clear_list(int inst, int sensor, int parent_inst, int parent_fru, int parent_frue, int even_inst,
                int odd_inst, bool bob)
{
    splog_clear_sensor_list l[MAX_CLEAR_SENSOR_TARGET];
    memset(l, 0, sizeof(l));
    if (parent_inst >= 0) {
        l[LOG_CLEAR_PARENT] = {1, parent_inst, parent_fru, parent_frue};
    }
    if (even_inst >= 0) {
        l[LOG_CLEAR_EVEN_NODE] = {1, even_inst, 10, 10};
    }
    if (odd_inst >= 0) {
        l[LOG_CLEAR_ODD_NODE] = {1, odd_inst, 10, 10};
    }
    if (bob) {
        l[LOG_CLEAR_BOB] = {1, kChassis, 33, 0};
    }
    set_clear_sensor_list(inst, sensor, l);
}

void clear_lists()
{
    /* Chassis FRU error sensors: parent Environment (35/73), chassis target BoB (33). */
    std::vector<int> chassis = {73};
    for (int s = 179; s <= 196; ++s) {
        chassis.push_back(s);
    }
    for (int s = 205; s <= 216; ++s) {
        chassis.push_back(s);
    }
    for (int s : chassis) {
        clear_list(kChassis, s, kChassis, 35, 73, -1, -1, true);
    }
    const int per_node[] = {35, 36, 66, 146};
    const int per_cmu[] = {12, 13, 40, 41, 42, 43, 44, 45, 46, 47, 48, 71};
    for (int inst = 1; inst <= 16; ++inst) {
        int even = ((inst - 1) / 2) * 2 + 1;
        bool is_even_node = inst == even;
        clear_list(inst, 10, -1, 0, 0, -1, -1, true);
        for (int s : per_node) {
            clear_list(inst, s, inst, 10, 10, is_even_node ? inst : -1, is_even_node ? -1 : inst, false);
        }
        if (is_even_node) {
            for (int s : per_cmu) {
                clear_list(inst, s, inst, 10, 10, even, even + 1, false);
            }
        }
    }
}

/* Adds a component with the installed common record. */
int add(int type, int no, const std::vector<int>& parents = {}, uint32_t status = COMMON_STATUS_INSTALLED)
{
    int oid = add_component(type, no, parents);
    current_common_info_t common;
    memset(&common, 0, sizeof(common));
    common.status = status;
    put(oid, PROP_CURRENT_COMMON_INFO, common);
    return oid;
}

void components()
{
    const int root = 1;
    current_common_info_t common;
    memset(&common, 0, sizeof(common));
    common.status = COMMON_STATUS_INSTALLED;
    put(root, PROP_CURRENT_COMMON_INFO, common);

    setup_system_info_t setup;
    memset(&setup, 0, sizeof(setup)); /* no debug bits; every maintenance offset 0 */
    put(root, PROP_SETUP_INFO, setup);
    current_system_info_t sys;
    memset(&sys, 0, sizeof(sys));
    sys.available_psu_slots = 17; /* 18 PSUs: one spare, full redundancy */
    sys.psu_redandancy_check_enable = 1;
    put(root, PROP_CURRENT_INFO, sys);

    add(COMPO_BOBC, 0);
    int iorc = add(COMPO_IORC, 0);
    int psuc = add(COMPO_PSUC, 0, {iorc});
    current_psuc_info_t psuc_info;
    memset(&psuc_info, 0, sizeof(psuc_info));
    put(psuc, PROP_CURRENT_INFO, psuc_info);
    for (int n = 0; n < 18; ++n) {
        int psu = add(COMPO_PSU, n);
        add(COMPO_FRUROM, 90, {psu});
    }
    for (int u = 0; u < 4; ++u) {
        int fanu = add(COMPO_FANU, u);
        for (int m = 0; m < 2; ++m) {
            add(COMPO_FAN, m, {fanu});
        }
    }
    for (int m = 0; m < 8; ++m) {
        int cmu = add(COMPO_CMU, m);
        for (int k = 0; k < 2; ++k) {
            int cpu = add(COMPO_CPU, k, {cmu});
            for (int j = 0; j < 4; ++j) {
                add(COMPO_MEM, j, {cpu});
            }
            for (int j = 0; j < 2; ++j) {
                add(COMPO_CORE, j, {cpu});
            }
        }
        for (int j = 0; j < 3; ++j) {
            add(COMPO_AOC, j, {cmu});
        }
        int nodes[2];
        for (int k = 0; k < 2; ++k) {
            /* Reachable as /SYSTEM#0/NODE#n as well as below its CMU. */
            nodes[k] = add(COMPO_NODE, 2 * m + k, {cmu, root});
            add(COMPO_SSD, 0, {nodes[k]});
            add(COMPO_PCIECARD, 0, {nodes[k]});
        }
        add(COMPO_CMUC, m, {cmu, nodes[0], nodes[1], root});
    }
    current_router_hard_info_t router;
    memset(&router, 0, sizeof(router));
    for (quor_port_info_t& port : router.quordata.phyPort) {
        port.online = 1;
    }
    for (int r = 0; r < 16; ++r) {
        int oid = add(COMPO_ROUTER, r);
        put(oid, PROP_CURRENT_HARD_INFO, router);
    }
    add(COMPO_BIOU, 0, {}, COMMON_STATUS_INSTALLED | COMMON_STATUS_INITIALIZE_COMPLETE);
    add(COMPO_GIOU, 0);
}

/* Whether a sensor with that OEMField belongs to an instance (the stack's
 * membership bits: 0 chassis, bit 0 even and bit 1 odd node instances, 0x04
 * also instances 3 and 11, 0x08 also instance 5). */
bool member(int inst, uint8_t oem)
{
    if (inst == kChassis) {
        return oem == 0;
    }
    if (((inst == 3 || inst == 11) && (oem & 0x04)) || (inst == 5 && (oem & 0x08))) {
        return true;
    }
    return ((oem >> (inst % 2)) & 1) != 0;
}

template <size_t N> bool in(const Range (&ranges)[N], int s)
{
    return in_ranges(ranges, ranges + N, s);
}

/* The state the initialisation gives a sensor of the machine as built: the
 * default tables, the PSU pass for installed PSUs (FRU status normal, status
 * "present"), the node pass's sensor 2 and the maintenance pass for a zero
 * setup record. */
uint16_t start_state(int inst, int num, const SensorInfo_T& r)
{
    if (!member(inst, r.OEMField)) {
        return 0;
    }
    if (inst == kChassis) {
        if (num >= 50 && num <= 67) {
            return kOff1;
        }
        if ((num >= 111 && num <= 128) || (num >= 4 && num <= 32) || (num >= 221 && num <= 224)) {
            return kOff0;
        }
        return in(kBobOff0, num) ? kOff0 : in(kBobOff1, num) ? kOff1 : 0;
    }
    if (num == 2) {
        return kOff0;
    }
    return in(kNodeOff0, num) ? kOff0 : in(kNodeOff1, num) ? kOff1 : 0;
}

} // namespace

SensorStates sensor_states(int inst, uint8_t num)
{
    SensorStates st;
    if (!sensor_present(inst, num)) {
        return st;
    }
    const SensorInfo_T r = sensor(inst, num);
    const bool chassis = inst == kChassis;
    st.start = start_state(inst, num, r);
    if (r.SensorTypeCode == kFru || r.SensorTypeCode == kFrue) {
        /* 0 not installed, 1 normal, larger offsets worse */
        st = {StateRule::One, static_cast<uint16_t>(r.SensorTypeCode == kFru ? 0x00FF : 0x03FF), st.start};
    } else if (chassis && (num == 129 || num == 130)) {
        st.rule = StateRule::One; /* redundant, lost, shortage */
        st.defined = 0x000E;
    } else if (num == 0) {
        st.rule = StateRule::Flags; /* powered off, or on with no state */
        st.defined = kOff0;
    } else if (chassis && r.SensorTypeCode == kMainte) {
        st.rule = StateRule::AtMostOne; /* the setup record's offset; 16 or more: none */
        st.defined = 0xFFFF;
    } else if (chassis && r.SensorTypeCode == kPower && num >= 111 && num <= 128) {
        st.rule = StateRule::Flags; /* offsets added from the PSU's status */
        st.defined = 0x054F;
    } else if (!chassis && num >= 86 && num <= 95) {
        st.rule = StateRule::Flags; /* port offline, port error A */
        st.defined = 0x0003;
    } else if (!chassis && num >= 76 && num <= 85) {
        st.rule = StateRule::One; /* no error, state C, error state B */
        st.defined = 0x0007;
    } else if (st.start != 0) {
        st.rule = StateRule::One; /* an enumerated state the machine does not name */
        st.defined = 0x7FFF;
    }
    return st;
}

void build_default_machine()
{
    components();
    chassis_sensors();
    for (int inst = 1; inst <= 16; ++inst) {
        node_sensors(inst);
    }
    clear_lists();
    set_led(COMPO_SYSTEM, 0, 1, 1);
}

} // namespace zsim
