/* PSU redundancy judged from the PSU controller's registers. */
#include <pthread.h>
#include <stdio.h>

#include "sp_sysobj.h"
#include "sp_trace.h"
#include "znlib.h"
#include "znpdklib.h"
#include "znpdklib_internal.h"

namespace {

using namespace znpdk;

/* Serialises the decision and the sensor change of concurrent checks. */
pthread_mutex_t chk_redundacy_mutex = PTHREAD_MUTEX_INITIALIZER;

constexpr int kPsuCount = 18;
constexpr INT8U kPsuRedundancySensor = 0x81;

constexpr int kModePsuControl = 17;
constexpr int kModeRecover = 3;

constexpr uint16_t kSnsLost = 0x0004;
constexpr uint16_t kSnsShortage = 0x0008;

constexpr INT8U kOffsetRedundant = 1;
constexpr INT8U kOffsetLost = 2;
constexpr INT8U kOffsetShortage = 3;

constexpr int kResultRedundant = 0;
constexpr int kResultLost = 1;
constexpr int kResultShortage = 2;

constexpr uint32_t kDbgCommon0Skip = 0x2;
constexpr uint32_t kDbgCommon0IgnoreUnknown = 0x10;
constexpr uint32_t kDbgBmcinitSkip = 0x2000;

constexpr uint32_t kFruMaintenance = 0x8;
constexpr uint32_t kNotMounted = 0xFF;

const char* const kPsucReadHap = "BOB_R_BOBC_PSUC";

void psu_trace_ras(uint32_t id, const char* fmt, const char* ras_code)
{
    sp_trace4(kLevelInfo, T_REGION_POWER_MON, SP_MID_BASE_UTIL, id, fmt, ras_code);
}

int as_int(uint32_t v)
{
    return static_cast<int>(v);
}

/* PS-ON-and-control bit of PSU n in its controlling BoB's word. */
uint32_t getByteReg(uint32_t reg, int n)
{
    return (reg >> (4 * (n / 9) + n % 3)) & 1u;
}

/* Bit of PSU n in a machine-wide word: one byte per group of three PSUs. */
uint32_t getWordReg(uint32_t reg, int n)
{
    return (reg >> (8 * ((n / 3) % 3) + 4 * (n / 9) + n % 3)) & 1u;
}

/* FRU status nibble of PSU n; the controller delivers the word byte-reversed. */
uint32_t getFruStatus(uint32_t reg, int n)
{
    uint32_t swapped = __builtin_bswap32(reg);
    return (swapped >> (4 * (4 * (n / 9) + n % 3))) & 0xFu;
}

int read_psuc(psuc_all_t* image, uint32_t bob_mask, uint32_t common_mask)
{
    uint32_t para[4] = {bob_mask, bob_mask, bob_mask, common_mask};
    *image = psuc_all_t{};
    return znlib_hce_exechap(kBobcPath, kPsucReadHap, "READ", para, reinterpret_cast<uint32_t*>(image));
}

/* Stores the full register image in PSUC#0's record for the log. */
void addlog_psu_config()
{
    kTracePowerMon(kLevelDetail, 0x5400400, "addlog_psu_config():start");

    psuc_all_t image;
    int ret = read_psuc(&image, 0x1FFF, 0xFF);
    if (ret != 0) {
        kTracePowerMon(kLevelError, 0x5400401, "addlog_psu_config():get PSUC register failed. ret=%d", ret);
        return;
    }

    Component* iorc = child(root(), COMPO_IORC, 0);
    Component* psuc = child(iorc, COMPO_PSUC, 0);
    if (psuc == nullptr) {
        /* No place to keep the image: the event itself is still logged by the caller. */
        kTracePowerMon(kLevelError, 0x5400402, "addlog_psu_config():PSUC#0 not found. IORC#0 found=%d",
                       iorc != nullptr);
        return;
    }
    /* PSUC#0's record is kept under IORC#0's lock. */
    modify_record<current_psuc_info_t>(
        iorc, psuc, PROP_CURRENT_INFO,
        [&](current_psuc_info_t& rec) {
            rec.psuc = image;
            return true;
        },
        [](const current_psuc_info_t&) {});
    kTracePowerMon(kLevelDetail, 0x54004FF, "addlog_psu_config():end");
}

/* True (and traced) when `cause` holds. */
bool explains(bool cause, uint32_t id, const char* fmt, int psu)
{
    if (cause) {
        kTracePowerMon(kLevelInfo, id, fmt, psu);
    }
    return cause;
}

/* 0 when the loss comes from the maintenance target itself being out. */
int is_regist_redundancy_lost(int mnt_bob, int mnt_psu_no, psuc_all_t* psureg)
{
    kTracePowerMon(kLevelDetail, 0x5400500, "is_regist_redundancy_lost():mnt_bob=%d mnt_psu_no=%d", mnt_bob,
                   mnt_psu_no);

    /* The maintenance target's own state explains the loss. */
    const psuc_bob_t& bob = psureg->bob[mnt_bob];
    if (explains(
            (getFruStatus(bob.FRUStatus, mnt_psu_no) & 7) == 0, 0x5400501,
            "is_regist_redundancy_lost(): redundancy lost occrred by maintenance PSU#%02d(status unknown)",
            mnt_psu_no) ||
        explains(getWordReg(psureg->common.PresentSts, mnt_psu_no) == 0, 0x5400502,
                 "is_regist_redundancy_lost(): redundancy lost occrred by maintenance PSU#%02d(not present)",
                 mnt_psu_no) ||
        explains(getWordReg(psureg->common.ACOKSts, mnt_psu_no) == 0, 0x5400503,
                 "is_regist_redundancy_lost(): redundancy lost occrred by maintenance PSU#%02d(AC Lost)",
                 mnt_psu_no) ||
        explains(
            getByteReg(bob.PSONAndCntl, mnt_psu_no) == 0, 0x5400504,
            "is_regist_redundancy_lost(): redundancy lost occrred by maintenance PSU#%02d(PSONAndCntl off)",
            mnt_psu_no)) {
        return 0;
    }
    kTracePowerMon(kLevelInfo, 0x5400505, "is_regist_redundancy_lost(): regist redundancy lost");
    return 1;
}

struct PsuScan {
    int okpsu = 0;
    int mnt_bob = -1;
    int mnt_psu_no = -1;
};

/* The FRU status of PSU i: failed (3, 4) or unknown (0, usable only when a
 * debug bit says so) make it unusable. */
bool fru_status_usable(int i, uint32_t frustate, uint32_t debug_flag_common0)
{
    uint32_t status = frustate & 7;
    if (status == 3 || status == 4) {
        kTracePowerMon(kLevelInfo, 0x5400307, "check_psu_redundancy():PSU#%02d NG. frustate=0x%08x", i,
                       as_int(frustate));
        return false;
    }
    if (status == 0) {
        if ((debug_flag_common0 & kDbgCommon0IgnoreUnknown) == 0) {
            kTracePowerMon(kLevelInfo, 0x5400314, "check_psu_redundancy():PSU#%02d NG. frustate=0x%08x", i,
                           as_int(frustate));
            return false;
        }
        kTracePowerMon(
            kLevelInfo, 0x5400313,
            "check_psu_redundancy():PSU#%02d unknown. frustate=0x%08x. ignore unknown by debug_flag=0x%08x",
            i, 0, as_int(debug_flag_common0));
    }
    return true;
}

/* True when PSU i can deliver power; remembers a maintenance target on the way. */
bool psu_usable(int i, const psuc_all_t& reg, uint32_t debug_flag_common0, int mode, int psuno, PsuScan& scan)
{
    uint32_t psuinfo = 0;
    if (znlib_psu_ctlinfo(i, &psuinfo) < 0) {
        kTracePowerMon(kLevelError, 0x5400316, "check_psu_redundancy():PSU#%02d znlib_psu_ctlinfo error", i);
        return false;
    }
    uint32_t ctlbob = psuinfo >> 8;
    if (ctlbob == kNotMounted) {
        kTracePowerMon(kLevelInfo, 0x5400305, "check_psu_redundancy():PSU#%02d NG. not mount", i);
        return false;
    }
    if (ctlbob > 2) {
        kTracePowerMon(kLevelError, 0x5400317, "check_psu_redundancy():PSU#%02d invalid ctlbob. ctlbob=%d", i,
                       as_int(ctlbob));
        return false;
    }
    const psuc_bob_t& bob = reg.bob[ctlbob];
    uint32_t frustate = getFruStatus(bob.FRUStatus, i);
    if (frustate & kFruMaintenance) {
        kTracePowerMon(kLevelInfo, 0x5400306,
                       "check_psu_redundancy():PSU#%02d is maintenance target. frustate=0x%08x", i,
                       as_int(frustate));
        scan.mnt_bob = as_int(ctlbob);
        scan.mnt_psu_no = i;
    }
    if (!fru_status_usable(i, frustate, debug_flag_common0)) {
        return false;
    }
    if (getWordReg(reg.common.PresentSts, i) == 0) {
        kTracePowerMon(kLevelInfo, 0x5400308, "check_psu_redundancy():PSU#%02d NG. not present.", i);
        return false;
    }
    if (getWordReg(reg.common.ACOKSts, i) == 0) {
        kTracePowerMon(kLevelInfo, 0x5400309, "check_psu_redundancy():PSU#%02d NG. AC Lost", i);
        return false;
    }
    if (getByteReg(bob.PSONAndCntl, i) == 0) {
        kTracePowerMon(kLevelInfo, 0x540030A, "check_psu_redundancy():PSU#%02d NG. PSONAndCntl off", i);
        return false;
    }
    if (mode == kModePsuControl && i == psuno) {
        kTracePowerMon(kLevelInfo, 0x540030C, "check_psu_redundancy():PSU#%02d NG. PSU Control POFF target",
                       i);
        return false;
    }
    return true;
}

/* The reading of sensor 0x81 as a 15-bit state word. */
uint16_t read_redundancy_sensor()
{
    INT8U req = kPsuRedundancySensor;
    GetSensorReadingRes_T res{};
    GetSensorReading(&req, 1, reinterpret_cast<INT8U*>(&res), kChassisInst);
    return static_cast<uint16_t>(res.ComparisonStatus | ((res.OptionalStatus & 0x7F) << 8));
}

void set_ras_code(splog_info& loginfo, const char* ras_code)
{
    snprintf(loginfo.ras_code, sizeof(loginfo.ras_code), "%s", ras_code);
}

/* Registers the event that a verdict means for the current sensor state and moves the sensor. */
void act_on_verdict(int mode, int result, uint16_t redundancy_sns, const PsuScan& scan, psuc_all_t& reg)
{
    splog_info loginfo{};
    splog_linkup_info loglink{};
    loginfo.BMCInst = kChassisInst;

    switch (result) {
    case kResultRedundant:
        if (mode != kModeRecover) {
            return;
        }
        if (redundancy_sns & kSnsShortage) {
            set_ras_code(loginfo, "BFW_CFG_PSU_7");
            psu_trace_ras(0x540030E,
                          "check_psu_redundancy():recover psu redundancy from shortage. ras_code=%s",
                          loginfo.ras_code);
        } else if (redundancy_sns & kSnsLost) {
            set_ras_code(loginfo, "BFW_CFG_PSU_8");
            psu_trace_ras(0x540030F, "check_psu_redundancy():recover psu redundancy from lost. ras_code=%s",
                          loginfo.ras_code);
        } else {
            return;
        }
        znpdklib_log_save_sel_error_log(&loginfo, &loglink);
        znpdklib_exSetSensorWoS(kPsuRedundancySensor, kOffsetRedundant, kChassisInst);
        znpdklib_redundancy_recover(1);
        return;
    case kResultLost:
        if (redundancy_sns & kSnsLost) {
            return;
        }
        if (scan.mnt_psu_no != -1 && is_regist_redundancy_lost(scan.mnt_bob, scan.mnt_psu_no, &reg) == 0) {
            return;
        }
        set_ras_code(loginfo, "BFW_CFG_PSU_4");
        addlog_psu_config();
        psu_trace_ras(0x5400310, "check_psu_redundancy():psu redundancy lost. ras_code=%s", loginfo.ras_code);
        znpdklib_log_save_sel_error_log(&loginfo, &loglink);
        znpdklib_exSetSensorWoS(kPsuRedundancySensor, kOffsetLost, kChassisInst);
        if (redundancy_sns & kSnsShortage) {
            kTracePowerMon(kLevelInfo, 0x5400312, "check_psu_redundancy():psu redundancy shortage to lost");
            znpdklib_redundancy_recover_shortage2lost();
        }
        return;
    default:
        if (redundancy_sns & kSnsShortage) {
            return;
        }
        set_ras_code(loginfo, "BFW_CFG_PSU_1");
        addlog_psu_config();
        psu_trace_ras(0x5400311, "check_psu_redundancy():psu redundancy shortage. ras_code=%s",
                      loginfo.ras_code);
        znpdklib_log_save_sel_error_log(&loginfo, &loglink);
        znpdklib_exSetSensorWoS(kPsuRedundancySensor, kOffsetShortage, kChassisInst);
        return;
    }
}

/* The debug words may switch the check off. */
bool psu_check_ignored(const setup_system_info_t& setup)
{
    uint32_t debug_flag_common0 = setup.debug_flags.debug_flag[DBGW_BMCFW_MODULE_COMMON0];
    uint32_t debug_flag_bmcinit = setup.debug_flags.debug_flag[DBGW_BMCFW_MODULE_BMCINIT];
    if ((debug_flag_common0 & kDbgCommon0Skip) || (debug_flag_bmcinit & kDbgBmcinitSkip)) {
        kTracePowerMon(
            kLevelInfo, 0x5400315,
            "check_psu_redundancy():redundancy check ignore end. debug_flag_common0=0x%08x debug_flag_bmcinit=0x%08x",
            as_int(debug_flag_common0), as_int(debug_flag_bmcinit));
        return true;
    }
    return false;
}

/* The controller's registers as the check reads them, traced. */
int read_check_registers(psuc_all_t* reg)
{
    int ret = read_psuc(reg, 0xA00, 0xF);
    if (ret != 0) {
        kTracePowerMon(kLevelError, 0x5400302, "check_psu_redundancy():read PSUC register failed. ret=%d",
                       ret);
        return ret;
    }
    sp_trace27(
        kLevelInfo, T_REGION_POWER_MON, SP_MID_BASE_UTIL, 0x5400303,
        "check_psu_redundancy():Present=0x%08x ACOK=0x%08x PWOK=0x%08x PSON=0x%08x PSONAndCntl=0x%08x 0x%08x 0x%08x",
        as_int(reg->common.PresentSts), as_int(reg->common.ACOKSts), as_int(reg->common.PWOKSts),
        as_int(reg->common.PSONSts), as_int(reg->bob[0].PSONAndCntl), as_int(reg->bob[1].PSONAndCntl),
        as_int(reg->bob[2].PSONAndCntl));
    kTracePowerMon(kLevelInfo, 0x5400304, "check_psu_redundancy():FRU Status=0x%08x 0x%08x 0x%08x",
                   as_int(reg->bob[0].FRUStatus), as_int(reg->bob[1].FRUStatus),
                   as_int(reg->bob[2].FRUStatus));
    return 0;
}

/* The verdict under chk_redundacy_mutex and what it registers; false when
 * a small configuration has the check switched off. */
bool judge_psus(int mode, int logregist, PsuScan& scan, psuc_all_t& reg, int* result)
{
    ScopeLock lock(&chk_redundacy_mutex);
    const current_system_info_t sys = read_record<current_system_info_t>(root(), PROP_CURRENT_INFO);
    uint16_t redundancy_sns = read_redundancy_sensor();
    int slots = sys.available_psu_slots;
    int check_enable = sys.psu_redandancy_check_enable;
    if (scan.okpsu >= slots) {
        *result = kResultRedundant;
    } else if (scan.okpsu == slots - 1) {
        *result = kResultLost;
    } else {
        *result = kResultShortage;
    }
    sp_trace25(kLevelInfo, T_REGION_POWER_MON, SP_MID_BASE_UTIL, 0x5400320,
               "check_psu_redundancy():okpsu=%d psu_slots=%d redundancy_sns=0x%04x result=%d check_enable=%d",
               scan.okpsu, slots, redundancy_sns, *result, check_enable);

    /* Small configurations may switch the check off; with 3 slots a shortage still counts. */
    if (check_enable == 0 && (slots == 2 || (slots == 3 && *result != kResultShortage))) {
        kTracePowerMon(
            kLevelInfo, slots == 2 ? 0x5400318 : 0x5400319,
            "check_psu_redundancy():redundancy check disable end. okpsu=%d psu_slots=%d check_enable=%d result=%d",
            scan.okpsu, slots, check_enable, *result);
        return false;
    }
    if (logregist != 0) {
        act_on_verdict(mode, *result, redundancy_sns, scan, reg);
    }
    return true;
}

int check_psu_redundancy(int mode, int logregist, int psuno)
{
    kTracePowerMon(kLevelDetail, 0x5400300, "check_psu_redundancy():start");
    kTracePowerMon(kLevelInfo, 0x5400301, "check_psu_redundancy():mode=%d logregist=%d psuno=%d", mode,
                   logregist, psuno);
    const setup_system_info_t setup = read_record<setup_system_info_t>(root(), PROP_SETUP_INFO);
    if (psu_check_ignored(setup)) {
        return 0;
    }
    psuc_all_t reg;
    if (read_check_registers(&reg) != 0) {
        return -1;
    }
    PsuScan scan;
    const uint32_t debug_flag_common0 = setup.debug_flags.debug_flag[DBGW_BMCFW_MODULE_COMMON0];
    for (int i = 0; i < kPsuCount; ++i) {
        if (psu_usable(i, reg, debug_flag_common0, mode, psuno, scan)) {
            scan.okpsu++;
        }
    }
    int result = kResultRedundant;
    if (!judge_psus(mode, logregist, scan, reg, &result)) {
        return 0;
    }
    kTracePowerMon(kLevelDetail, 0x54003FF, "check_psu_redundancy():end");
    return result;
}

} // namespace

extern "C" int znpdklib_check_psu_redundancy(int mode)
{
    if (mode < 1 || mode > 3) {
        kTracePowerMon(kLevelError, 0x5400101, "znpdklib_check_psu_redundancy():invalid mode(=%d)", mode);
        return -1;
    }
    /* No PSU is excluded outside the PSU control pre-check. */
    return check_psu_redundancy(mode, 1, -1);
}

extern "C" int znpdklib_check_psu_redundancy_for_psu_control(int mode, int psuno)
{
    if (mode != kModePsuControl) {
        kTracePowerMon(kLevelError, 0x5400201,
                       "znpdklib_check_psu_redundancy_for_psu_control():invalid mode(=%d)", mode);
        return -1;
    }
    return check_psu_redundancy(mode, 0, psuno);
}
