/*
 * Component types, property keys and the records that libznpdk shares with
 * the component database and the other BMC processes. The layouts are an
 * exchange format: every offset and size is fixed and checked below.
 */
#ifndef ZNPDK_COMPONENT_TYPES_H
#define ZNPDK_COMPONENT_TYPES_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#include "sp_sysobj.h"
#else
#include <assert.h> /* static_assert for C11 callers */
#endif

/* Machine component types, consecutive from COMPO_MODEL_DEPENDENT_START. */
enum MODEL_DEPENDENT_COMPONENT_TYPE {
    COMPO_MODEL_DEPENDENT_START = 256,
    COMPO_SYSTEM = 257,
    COMPO_CMU,
    COMPO_FRUROM,
    COMPO_CPU,
    COMPO_CORE,
    COMPO_MAC,
    COMPO_MEM,
    COMPO_IOC,
    COMPO_QNI,
    COMPO_QNR,
    COMPO_SBCC,
    COMPO_THRM,
    COMPO_ADC,
    COMPO_GPIO,
    COMPO_POL,
    COMPO_PSW,
    COMPO_PCIESW,
    COMPO_GBE,
    COMPO_SSD,
    COMPO_PCIECARD,
    COMPO_IOCABLE,
    COMPO_AOC,
    COMPO_BIOU,
    COMPO_BMCFW,
    COMPO_BMC,
    COMPO_BMCRAM,
    COMPO_SBC_N,
    COMPO_SBC_C,
    COMPO_SBC_B,
    COMPO_SBCRAM_N,
    COMPO_SBCRAM_B,
    COMPO_IDIAGROM,
    COMPO_FWEMMC,
    COMPO_FWFMEM,
    COMPO_SBCFMEM,
    COMPO_RTC,
    COMPO_FANC,
    COMPO_PSUC,
    COMPO_IORC,
    COMPO_SYSFMEM,
    COMPO_PSU,
    COMPO_FANU,
    COMPO_FAN,
    COMPO_ROUTER,
    COMPO_NODE,
    COMPO_CMUC,
    COMPO_BOBC,
    COMPO_JOB,
    COMPO_DMY1,
    COMPO_DMY2,
    COMPO_DMY3,
    COMPO_DMY4,
    COMPO_DMY5,
    COMPO_GIOU,
    COMPO_MODEL_DEPENDENT_END,
    COMPO_BMCB = COMPO_BIOU,
    COMPO_BMCIF = COMPO_IORC,
};

static_assert(COMPO_CMU == 258 && COMPO_FRUROM == 259 && COMPO_CPU == 260, "type numbers");
static_assert(COMPO_MEM == 263 && COMPO_QNR == 266 && COMPO_SSD == 275, "type numbers");
static_assert(COMPO_PCIECARD == 276 && COMPO_AOC == 278 && COMPO_BIOU == 279, "type numbers");
static_assert(COMPO_FANC == 293 && COMPO_PSUC == 294 && COMPO_IORC == 295, "type numbers");
static_assert(COMPO_PSU == 297 && COMPO_FANU == 298 && COMPO_FAN == 299, "type numbers");
static_assert(COMPO_ROUTER == 300 && COMPO_NODE == 301 && COMPO_CMUC == 302, "type numbers");
static_assert(COMPO_BOBC == 303 && COMPO_JOB == 304 && COMPO_DMY5 == 309, "type numbers");
static_assert(COMPO_GIOU == 310 && COMPO_MODEL_DEPENDENT_END == 311, "type numbers");
static_assert(COMPO_BMCB == 279 && COMPO_BMCIF == 295, "aliases");

enum MODEL_DEPENDENT_PROPERTY_KEY {
    PROP_MODEL_DEPENDENT_START = 256,
    PROP_SETUP_ID_INFO = 257,
    PROP_SETUP_INFO = 258,
    PROP_SETUP_REMCS_INFO = 259,
    PROP_SETUP_RCM_INFO = 260,
    PROP_FRU_INFO = 261,
    PROP_CURRENT_COMMON_INFO = 262,
    PROP_CURRENT_INFO = 263,
    PROP_CURRENT_HARD_INFO = 264,
    PROP_CURRENT_HAP_INFO = 265,
    PROP_MODEL_DEPENDENT_END = 266,
};

/* Status bits of current_common_info_t that the library reads. */
#define COMMON_STATUS_INSTALLED 0x80000000u
#define COMMON_STATUS_INITIALIZE_COMPLETE 0x40000000u
#define COMMON_STATUS_PSW_POWER_KILLED 0x00000040u
/* Node power-off sequence running, in current_common_info_t.sequence. */
#define COMMON_SEQUENCE_POWER_OFF 0x00400000u

/*
 * Common record of every component (key 262). Only the operations the
 * library uses are declared; the masks of the other status operations
 * belong to the other users of the database.
 */
typedef struct current_common_info_t {
    uint32_t status;
    uint32_t remcs_status;
    uint32_t remcs_time;
    uint16_t physicalNo;
    uint8_t emergency_outage;
    uint8_t reserve1[1];
    uint32_t sequence;
    uint8_t control_no[2];
    uint8_t fanc_error_level;
    uint8_t reserve2[9];

#ifdef __cplusplus
    bool checkStatus(uint32_t inStatus) const
    {
        return (status & inStatus) == inStatus;
    }
    bool isInstalled() const
    {
        return checkStatus(COMMON_STATUS_INSTALLED);
    }
    bool isInitializeComplete() const
    {
        return checkStatus(COMMON_STATUS_INITIALIZE_COMPLETE);
    }
#endif
} current_common_info_t;

/* System record on the root (key 263). */
typedef struct {
    uint8_t power_led;
    uint8_t alarm_led;
    uint8_t ready_led;
    uint8_t location_led;
    uint8_t provisioning_sequence_initial;
    uint8_t provisioning_sequence_remcs;
    uint8_t provisioning_sequence_firmup;
    uint8_t reserve2[1];
    uint16_t psu_on_disable;
    uint16_t node_on_disable;
    uint8_t bobid;
    uint8_t ubootled;
    uint8_t available_psu_slots;
    uint8_t rsv3[1];
    uint8_t ledsave[16];
    uint16_t fanu_present;
    uint8_t psu_customProductInfo[6];
    uint8_t available_psu_count;
    uint8_t psu_redandancy_check_enable;
    uint16_t brand_data;
    uint8_t brand_name[16];
    uint16_t fan_monitor_disable;
    uint8_t fan_check_phase;
    uint8_t reserve41[1];
    uint64_t fanfull_reason;
    uint32_t fan_start_time[8];
    uint8_t fan_check_result[8];
    uint32_t fan_start_time_by_attach;
    uint8_t psu_type[3];
    uint8_t BoBoff_executing;
    uint8_t NodeOn_cycle[16];
    uint8_t NodeOn_Request[16];
    uint8_t CMUoff_executing[8];
    uint8_t acpi_name[8];
    uint8_t reserve43[856];
    uint8_t reserve4[1024];
} current_system_info_t;

enum dbgw_bmcfw_module {
    DBGW_BMCFW_MODULE_COMMON0 = 0,
    DBGW_BMCFW_MODULE_COMMON1 = 1,
    DBGW_BMCFW_MODULE_HCE_STDHA = 2,
    DBGW_BMCFW_MODULE_SYSOBJ = 3,
    DBGW_BMCFW_MODULE_HARDLOG = 4,
    DBGW_BMCFW_MODULE_BMCLOG = 5,
    DBGW_BMCFW_MODULE_NODECTRL = 6,
    DBGW_BMCFW_MODULE_PWRCTRL = 7,
    DBGW_BMCFW_MODULE_BMCINIT = 8,
    DBGW_BMCFW_MODULE_MAINTE = 9,
    DBGW_BMCFW_MODULE_IPMI_IPMINODECMD = 10,
    DBGW_BMCFW_MODULE_PROVISIONING_WEB = 11,
    DBGW_BMCFW_MODULE_REMCS = 12,
    DBGW_BMCFW_MODULE_RSV_13 = 13,
    DBGW_BMCFW_MODULE_RSV_14 = 14,
    DBGW_BMCFW_MODULE_TESTFUNC = 15,
};

typedef struct {
    uint32_t debug_flag[64];
} debug_flags_t;

typedef struct {
    int8_t X;
    int8_t Y;
    int8_t Z;
    int8_t B;
} quor_position_t;

typedef struct {
    uint8_t cdu_ip[4];
    uint8_t password[32];
} CDU_information_t;

/* Setup record on the root (key 258). */
typedef struct {
    debug_flags_t debug_flags;
    uint8_t altitude;
    uint8_t waterState;
    uint8_t variant4;
    uint8_t ntp_enable;
    uint8_t ntp_server_ip[3][4];
    quor_position_t quorPosition;
    quor_position_t quorSpace[2];
    uint32_t quorPattern;
    quor_position_t quorPartition[2];
    uint8_t quorPartitionEnable;
    uint8_t reserve2[2];
    uint8_t snapshot_id;
    uint8_t tcs_location_led[48];
    uint8_t maintenance_location_led[48];
    uint8_t maintenance_sensor[48];
    uint8_t initial_time[32];
    uint8_t initial_parent_ip[16];
    CDU_information_t cdu_info[2];
    uint32_t bank_status;
    uint16_t pwknob_threshold;
    uint16_t epo_threshold;
    uint16_t Job_Memory_Use[16];
    uint32_t snmp_disable;
    char default_engineID[32];
    uint8_t reserve3[128];
} setup_system_info_t;

/* PSU controller register image: three BoB blocks and a common block. */
typedef struct {
    uint32_t PresentInt;
    uint32_t ACOKInt;
    uint32_t PWOKInt;
    uint32_t PSONInt;
    uint32_t PresentMask;
    uint32_t ACOKMask;
    uint32_t PWOKMask;
    uint32_t PSONMask;
    uint32_t CheckEnabe;
    uint32_t FRUStatus;
    uint32_t PSONCntl;
    uint32_t PSONAndCntl;
    uint32_t PWOKCompareEnable;
} psuc_bob_t;

typedef struct {
    uint32_t PresentSts;
    uint32_t ACOKSts;
    uint32_t PWOKSts;
    uint32_t PSONSts;
    uint32_t PWOKCompare;
    uint32_t PWOKFilter;
    uint32_t Version;
    uint32_t BobId;
} psuc_common_t;

typedef struct {
    psuc_bob_t bob[3];
    psuc_common_t common;
} psuc_all_t;

/* PSU controller record on PSUC#0 (key 263). */
typedef struct {
    psuc_all_t psuc;
    uint8_t rsv[68];
} current_psuc_info_t;

/* Interconnect port of a router. */
typedef struct {
    int8_t X;
    int8_t Y;
    int8_t Z;
    int8_t A;
    int8_t B;
    int8_t C;
    uint8_t online; /* 1 = online */
    uint8_t reserve0;
    uint8_t id;
    uint8_t reserve1[7];
} quor_port_info_t;

typedef struct {
    quor_port_info_t selfId;
    quor_port_info_t phyPort[10];
    quor_port_info_t bootId[1];
    uint32_t portConfig;
    uint8_t reserve1[4];
    uint64_t serdesCharTbl;
} quor_node_config_t;

/* Router hardware record (key 264 on each ROUTER). */
typedef struct {
    quor_node_config_t quordata;
    uint8_t reserve0[8];
    uint8_t reserve1[40];
    uint8_t reserve2[256];
} current_router_hard_info_t;

/* Job registration of one BMC instance. */
typedef struct {
    uint8_t BMCInst;
    uint8_t regist_method;
    uint8_t regist_mode;
    uint8_t rsv[1];
} Corvo_Job_regist_flag_t;

/* The shared flags area (1024 bytes). */
typedef struct {
    uint64_t job_in_sequence;
    Corvo_Job_regist_flag_t hjob_regist_flag[2][18];
    uint8_t rsv[872];
} Various_sharemem_t;

/* Part-name codes of a unit position id. */
enum UPID_DEFINE {
    UPID_NOT_DEFINE = 0,
    UPID_SHELF = 1,
    UPID_BOB = 2,
    UPID_ENVIRONMENT = 3,
    UPID_RACK = 4,
    UPID_VALVE = 5,
    UPID_SVC = 6,
    UPID_DEWSENSOR = 7,
    UPID_WATERSENSOR = 8,
    UPID_PDU = 9,
    UPID_CMU = 16,
    UPID_C_FROM = 17,
    UPID_CPU = 18,
    UPID_TLP = 19,
    UPID_TRP = 20,
    UPID_RTR = 21,
    UPID_MEM = 22,
    UPID_C_SBCC = 23,
    UPID_C_ADC = 24,
    UPID_C_GPIO = 25,
    UPID_C_THRM = 26,
    UPID_CMU_POL = 27,
    UPID_C_PSW = 28,
    UPID_AOC = 32,
    UPID_A_LP = 33,
    UPID_A_RP = 34,
    UPID_N_GPIO = 35,
    UPID_N_THRM = 36,
    UPID_N_POL = 37,
    UPID_N_PSW = 38,
    UPID_GIOU = 48,
    UPID_G_THRM = 49,
    UPID_G_FROM = 50,
    UPID_G_ADC = 51,
    UPID_G_GPIO = 52,
    UPID_G_POL = 53,
    UPID_G_PCIESW = 54,
    UPID_PCICARD = 56,
    UPID_IOCABLE = 57,
    UPID_BIOU = 64,
    UPID_SSD = 65,
    UPID_B_FAN = 66,
    UPID_B_FROM = 67,
    UPID_B_PCIESW = 68,
    UPID_GBE = 69,
    UPID_RTC = 70,
    UPID_FANC = 71,
    UPID_B_ADC = 72,
    UPID_B_GPIO_B = 73,
    UPID_BMC = 74,
    UPID_BMCRAM = 75,
    UPID_SBC_N = 76,
    UPID_SBC_C = 77,
    UPID_SBC_B = 78,
    UPID_SBC_RAM_N = 79,
    UPID_SBC_RAM_B = 81,
    UPID_EMMC = 82,
    UPID_BMC_FMEM = 83,
    UPID_SBC_FMEM = 84,
    UPID_BMCFW = 85,
    UPID_IDIAG = 86,
    UPID_B_GPIO_N = 87,
    UPID_PSUBP = 88,
    UPID_MIDPLANE = 89,
    UPID_CPUFW = 128,
    UPID_NODE = 144,
    UPID_PSU = 160,
    UPID_P_FROM = 161,
    UPID_IORC = 176,
    UPID_PSUC = 177,
    UPID_SYSFMEM = 178,
    UPID_FANU = 192,
    UPID_FANU_FAN = 193,
    UPID_PANEL = 208,
    UPID_UNDEFINED = 255,
};

/* Unit position id (8 bytes). */
typedef struct {
    uint8_t nameID;
    uint8_t count;
    uint8_t partLayer[6];
} unit_position_id_t;

/* Stored form of one clear target in an escalation file. */
typedef struct {
    int8_t valid;
    int8_t BMCInst;
    uint8_t fru_sensor;
    uint8_t frue_sensor;
} packed_clear_sensor_list;

/* A sensor named in an escalation query or result. */
typedef struct {
    int esc_spec;
    int BMCInst;
    int Sensor_No;
} Esc_Sensor_t;

/* Result of an escalation search; both lists are freed by the caller. */
typedef struct {
    int frue_count;
    Esc_Sensor_t* frue_list;
    int esc_count;
    Esc_Sensor_t* esc_list;
} Esc_Table_t;

#ifdef __cplusplus
/* Holds a mutex for a scope; lock and unlock results are not tested. */
class ScopeLock {
  public:
    explicit ScopeLock(pthread_mutex_t* mutex) : m(mutex) { pthread_mutex_lock(m); }
    ~ScopeLock() { pthread_mutex_unlock(m); }
    ScopeLock(const ScopeLock&) = delete;
    ScopeLock& operator=(const ScopeLock&) = delete;

    pthread_mutex_t* m;
};
#endif

/* Layout checks: these records are exchanged byte for byte. */
#define ZNPDK_AT(T, f, off) static_assert(offsetof(T, f) == (off), #T "." #f " offset")
#define ZNPDK_SIZE(T, n) static_assert(sizeof(T) == (n), #T " size")

ZNPDK_SIZE(current_common_info_t, 32);
ZNPDK_AT(current_common_info_t, status, 0);
ZNPDK_AT(current_common_info_t, remcs_status, 4);
ZNPDK_AT(current_common_info_t, remcs_time, 8);
ZNPDK_AT(current_common_info_t, physicalNo, 12);
ZNPDK_AT(current_common_info_t, emergency_outage, 14);
ZNPDK_AT(current_common_info_t, reserve1, 15);
ZNPDK_AT(current_common_info_t, sequence, 16);
ZNPDK_AT(current_common_info_t, control_no, 20);
ZNPDK_AT(current_common_info_t, fanc_error_level, 22);
ZNPDK_AT(current_common_info_t, reserve2, 23);

ZNPDK_SIZE(current_system_info_t, 2048);
ZNPDK_AT(current_system_info_t, power_led, 0);
ZNPDK_AT(current_system_info_t, alarm_led, 1);
ZNPDK_AT(current_system_info_t, ready_led, 2);
ZNPDK_AT(current_system_info_t, location_led, 3);
ZNPDK_AT(current_system_info_t, provisioning_sequence_initial, 4);
ZNPDK_AT(current_system_info_t, provisioning_sequence_remcs, 5);
ZNPDK_AT(current_system_info_t, provisioning_sequence_firmup, 6);
ZNPDK_AT(current_system_info_t, reserve2, 7);
ZNPDK_AT(current_system_info_t, psu_on_disable, 8);
ZNPDK_AT(current_system_info_t, node_on_disable, 10);
ZNPDK_AT(current_system_info_t, bobid, 12);
ZNPDK_AT(current_system_info_t, ubootled, 13);
ZNPDK_AT(current_system_info_t, available_psu_slots, 14);
ZNPDK_AT(current_system_info_t, rsv3, 15);
ZNPDK_AT(current_system_info_t, ledsave, 16);
ZNPDK_AT(current_system_info_t, fanu_present, 32);
ZNPDK_AT(current_system_info_t, psu_customProductInfo, 34);
ZNPDK_AT(current_system_info_t, available_psu_count, 40);
ZNPDK_AT(current_system_info_t, psu_redandancy_check_enable, 41);
ZNPDK_AT(current_system_info_t, brand_data, 42);
ZNPDK_AT(current_system_info_t, brand_name, 44);
ZNPDK_AT(current_system_info_t, fan_monitor_disable, 60);
ZNPDK_AT(current_system_info_t, fan_check_phase, 62);
ZNPDK_AT(current_system_info_t, reserve41, 63);
ZNPDK_AT(current_system_info_t, fanfull_reason, 64);
ZNPDK_AT(current_system_info_t, fan_start_time, 72);
ZNPDK_AT(current_system_info_t, fan_check_result, 104);
ZNPDK_AT(current_system_info_t, fan_start_time_by_attach, 112);
ZNPDK_AT(current_system_info_t, psu_type, 116);
ZNPDK_AT(current_system_info_t, BoBoff_executing, 119);
ZNPDK_AT(current_system_info_t, NodeOn_cycle, 120);
ZNPDK_AT(current_system_info_t, NodeOn_Request, 136);
ZNPDK_AT(current_system_info_t, CMUoff_executing, 152);
ZNPDK_AT(current_system_info_t, acpi_name, 160);
ZNPDK_AT(current_system_info_t, reserve43, 168);
ZNPDK_AT(current_system_info_t, reserve4, 1024);

ZNPDK_SIZE(debug_flags_t, 256);
ZNPDK_SIZE(quor_position_t, 4);
ZNPDK_SIZE(CDU_information_t, 36);
ZNPDK_SIZE(setup_system_info_t, 768);
ZNPDK_AT(setup_system_info_t, debug_flags, 0);
ZNPDK_AT(setup_system_info_t, altitude, 256);
ZNPDK_AT(setup_system_info_t, waterState, 257);
ZNPDK_AT(setup_system_info_t, variant4, 258);
ZNPDK_AT(setup_system_info_t, ntp_enable, 259);
ZNPDK_AT(setup_system_info_t, ntp_server_ip, 260);
ZNPDK_AT(setup_system_info_t, quorPosition, 272);
ZNPDK_AT(setup_system_info_t, quorSpace, 276);
ZNPDK_AT(setup_system_info_t, quorPattern, 284);
ZNPDK_AT(setup_system_info_t, quorPartition, 288);
ZNPDK_AT(setup_system_info_t, quorPartitionEnable, 296);
ZNPDK_AT(setup_system_info_t, reserve2, 297);
ZNPDK_AT(setup_system_info_t, snapshot_id, 299);
ZNPDK_AT(setup_system_info_t, tcs_location_led, 300);
ZNPDK_AT(setup_system_info_t, maintenance_location_led, 348);
ZNPDK_AT(setup_system_info_t, maintenance_sensor, 396);
ZNPDK_AT(setup_system_info_t, initial_time, 444);
ZNPDK_AT(setup_system_info_t, initial_parent_ip, 476);
ZNPDK_AT(setup_system_info_t, cdu_info, 492);
ZNPDK_AT(setup_system_info_t, bank_status, 564);
ZNPDK_AT(setup_system_info_t, pwknob_threshold, 568);
ZNPDK_AT(setup_system_info_t, epo_threshold, 570);
ZNPDK_AT(setup_system_info_t, Job_Memory_Use, 572);
ZNPDK_AT(setup_system_info_t, snmp_disable, 604);
ZNPDK_AT(setup_system_info_t, default_engineID, 608);
ZNPDK_AT(setup_system_info_t, reserve3, 640);

ZNPDK_SIZE(psuc_bob_t, 52);
ZNPDK_AT(psuc_bob_t, FRUStatus, 36);
ZNPDK_AT(psuc_bob_t, PSONAndCntl, 44);
ZNPDK_AT(psuc_bob_t, PWOKCompareEnable, 48);
ZNPDK_SIZE(psuc_common_t, 32);
ZNPDK_AT(psuc_common_t, PresentSts, 0);
ZNPDK_AT(psuc_common_t, ACOKSts, 4);
ZNPDK_AT(psuc_common_t, BobId, 28);
ZNPDK_SIZE(psuc_all_t, 188);
ZNPDK_AT(psuc_all_t, bob, 0);
ZNPDK_AT(psuc_all_t, common, 156);
ZNPDK_SIZE(current_psuc_info_t, 256);
ZNPDK_AT(current_psuc_info_t, rsv, 188);

ZNPDK_SIZE(quor_port_info_t, 16);
ZNPDK_AT(quor_port_info_t, C, 5);
ZNPDK_AT(quor_port_info_t, online, 6);
ZNPDK_AT(quor_port_info_t, reserve0, 7);
ZNPDK_AT(quor_port_info_t, id, 8);
ZNPDK_AT(quor_port_info_t, reserve1, 9);
ZNPDK_SIZE(quor_node_config_t, 208);
ZNPDK_AT(quor_node_config_t, selfId, 0);
ZNPDK_AT(quor_node_config_t, phyPort, 16);
ZNPDK_AT(quor_node_config_t, bootId, 176);
ZNPDK_AT(quor_node_config_t, portConfig, 192);
ZNPDK_AT(quor_node_config_t, reserve1, 196);
ZNPDK_AT(quor_node_config_t, serdesCharTbl, 200);
ZNPDK_SIZE(current_router_hard_info_t, 512);
ZNPDK_AT(current_router_hard_info_t, reserve0, 208);
ZNPDK_AT(current_router_hard_info_t, reserve1, 216);
ZNPDK_AT(current_router_hard_info_t, reserve2, 256);

ZNPDK_SIZE(Corvo_Job_regist_flag_t, 4);
ZNPDK_SIZE(Various_sharemem_t, 1024);
ZNPDK_AT(Various_sharemem_t, job_in_sequence, 0);
ZNPDK_AT(Various_sharemem_t, hjob_regist_flag, 8);
ZNPDK_AT(Various_sharemem_t, rsv, 152);

ZNPDK_SIZE(unit_position_id_t, 8);
ZNPDK_AT(unit_position_id_t, count, 1);
ZNPDK_AT(unit_position_id_t, partLayer, 2);

ZNPDK_SIZE(packed_clear_sensor_list, 4);
ZNPDK_SIZE(Esc_Sensor_t, 12);
static_assert(sizeof(void*) != 4 || sizeof(Esc_Table_t) == 16, "Esc_Table_t is 16 bytes on the target");
static_assert(sizeof(void*) != 4 || offsetof(Esc_Table_t, esc_list) == 12, "Esc_Table_t.esc_list offset");

#undef ZNPDK_AT
#undef ZNPDK_SIZE

#endif
