#include "znpdklib.h"

/* ---- Outage marks, procedure wrapper, record clearing, sequence flags ---- */

#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "mbc_driver.h"
#include "sp_trace.h"
#include "znlib.h"
#include "znpdklib_upid.h"

namespace {

/* Trace levels of this section. */
constexpr int OSQ_LEVEL_CALL = 1;
constexpr int OSQ_LEVEL_DETAIL = 0x0801;
constexpr int OSQ_LEVEL_INFO = 0x8001;
constexpr int OSQ_LEVEL_ERROR = 0x8002;

/* Emergency Active State Register and its mask, relative to the unit's block. */
constexpr uint32_t EMERGENCY_STATE_REG = 0x000400C0u;
constexpr uint32_t EMERGENCY_MASK_REG = 0x000400C4u;
/* Only these BOBC bits report an outage; the rest of that register is status. */
constexpr uint32_t BOBC_EMERGENCY_BITS = 0xD8000000u;
/* "Every CMUC" / "every node" in the set functions. */
constexpr int OUTAGE_ALL_UNITS = 255;

constexpr uint64_t CHASSIS_SEQUENCE_MASK = 0x0BFFFF0000000000ull;
constexpr int CHASSIS_INSTANCE = 17;
constexpr int INSTANCE_COUNT = 18;

/* Serialises this process's read-modify-writes of the shared flags area. */
pthread_mutex_t v_mutex = PTHREAD_MUTEX_INITIALIZER;

void outage_trace(int level, uint32_t id, const char* fmt, int a1 = 0, int a2 = 0, int a3 = 0, int a4 = 0)
{
    sp_trace2(level, T_REGION_LIB_UTIL, SP_MID_BASE_UTIL, id, fmt, a1, a2, a3, a4);
}

void seqflag_trace(int level, uint32_t id, const char* fmt, int a1 = 0, int a2 = 0, int a3 = 0, int a4 = 0)
{
    sp_trace2(level, T_REGION_POWER_MON, SP_MID_BASE_UTIL, id, fmt, a1, a2, a3, a4);
}

int hi_word(uint64_t v)
{
    return static_cast<int>(static_cast<uint32_t>(v >> 32));
}
int lo_word(uint64_t v)
{
    return static_cast<int>(static_cast<uint32_t>(v));
}

sp::sysobj::Component* system_component(int type, int no)
{
    sp::sysobj::Component* root = sp::sysobj::Component::getRoot();
    return root != nullptr ? root->getComponent(type, no) : nullptr;
}

/* The common record, all zero when the component is missing or the read fails. */
current_common_info_t read_common_info(sp::sysobj::Component* compo)
{
    current_common_info_t info;
    memset(&info, 0, sizeof(info));
    if (compo != nullptr) {
        compo->getProperty(PROP_CURRENT_COMMON_INFO, &info, sizeof(info));
    }
    return info;
}

enum OutageArg { OUTAGE_ARG_OK, OUTAGE_BAD_TYPE, OUTAGE_BAD_NO };

OutageArg outage_check_unit(int type, int no, bool all_allowed)
{
    int last;
    switch (type) {
    case COMPO_BOBC:
        last = 0;
        break;
    case COMPO_CMUC:
        last = 7;
        break;
    case COMPO_NODE:
        last = 15;
        break;
    default:
        return OUTAGE_BAD_TYPE;
    }
    if (no >= 0 && no <= last) {
        return OUTAGE_ARG_OK;
    }
    if (all_allowed && type != COMPO_BOBC && no == OUTAGE_ALL_UNITS) {
        return OUTAGE_ARG_OK;
    }
    return OUTAGE_BAD_NO;
}

/* Base of a unit's emergency register pair; false for a type without one. */
bool outage_reg_base(int type, int no, uint32_t* base)
{
    uint32_t unit;
    switch (type) {
    case COMPO_NODE:
        unit = static_cast<uint32_t>(no) & 15u;
        break;
    case COMPO_CMUC:
        unit = 16u + (static_cast<uint32_t>(no) & 7u);
        break;
    case COMPO_BOBC:
        unit = 24u;
        break;
    default:
        return false;
    }
    *base = unit << 21;
    return true;
}

/* Reports the first bad unit argument with the caller's messages (ids `id` + 1, + 2). */
bool outage_unit_ok(int type, int no, bool all_allowed, uint32_t id, const char* bad_type, const char* bad_no)
{
    OutageArg arg = outage_check_unit(type, no, all_allowed);
    if (arg == OUTAGE_BAD_TYPE) {
        outage_trace(OSQ_LEVEL_ERROR, id + 1, bad_type, type);
    } else if (arg == OUTAGE_BAD_NO) {
        outage_trace(OSQ_LEVEL_ERROR, id + 2, bad_no, type, no);
    }
    return arg == OUTAGE_ARG_OK;
}

/* Address of a list member's register at `offset`; other types are logged with `invalid` and skipped. */
bool outage_member_reg(sp::sysobj::Component* compo, uint32_t offset, uint32_t invalid_id,
                       const char* invalid, uint32_t* addr)
{
    uint32_t base;
    if (!outage_reg_base(compo->getType(), compo->getNo(), &base)) {
        outage_trace(OSQ_LEVEL_ERROR, invalid_id, invalid, compo->getType(), compo->getNo(),
                     compo->getComponentId());
        return false;
    }
    *addr = base + offset;
    return true;
}

/* One register access; `*err` is errno of the failed call. */
int outage_reg_access(unsigned long request, uint32_t address, uint32_t* value, int* err)
{
    mbc_reg_rw req;
    memset(&req, 0, sizeof(req));
    req.cabinet = MBC_CABINET_BASE;
    req.address = address;
    req.size = sizeof(uint32_t);
    req.data = value;
    int ret = ioctl(global_sbcfd_env, request, &req);
    *err = ret < 0 ? errno : 0;
    return ret;
}

/*
 * A unit and everything that depends on it, for the set and mask functions.
 * A list that cannot be completed for lack of memory is used as far as it got.
 */
std::vector<sp::sysobj::Component*> outage_units_down(int type, int no) noexcept
{
    std::vector<sp::sysobj::Component*> list;
    sp::sysobj::Component* root = sp::sysobj::Component::getRoot();
    if (root == nullptr) {
        return list;
    }
    try {
        if (type == COMPO_BOBC) {
            list.push_back(root->getComponent(COMPO_BOBC, 0));
            root->getComponent(COMPO_CMUC, list);
            root->getComponent(COMPO_NODE, list);
        } else if (no == OUTAGE_ALL_UNITS) {
            if (type == COMPO_CMUC) {
                root->getComponent(COMPO_CMUC, list);
            }
            root->getComponent(COMPO_NODE, list);
        } else {
            sp::sysobj::Component* unit = root->getComponent(type, no);
            if (unit != nullptr) {
                list.push_back(unit);
                if (type == COMPO_CMUC) {
                    unit->getParents(COMPO_NODE, list);
                }
            }
        }
    } catch (...) {
    }
    return list;
}

/* A unit first, then what it depends on; missing members stay null. */
int outage_units_up(int type, int no, sp::sysobj::Component* chain[3])
{
    int count = 0;
    if (type == COMPO_NODE) {
        chain[count++] = system_component(COMPO_NODE, no);
        no /= 2;
    }
    if (type == COMPO_NODE || type == COMPO_CMUC) {
        chain[count++] = system_component(COMPO_CMUC, no);
    }
    chain[count++] = system_component(COMPO_BOBC, 0);
    return count;
}

/* The messages and the value rule of one of the two mark setters. */
struct OutageSetter {
    uint32_t id; /* id of the call line; the others follow it */
    bool reboot; /* only 0 and 2, and an emergency mark is kept */
    const char* bad_type;
    const char* bad_no;
    const char* bad_val;
    const char* skip;
    const char* change;
};

int outage_set(const OutageSetter& s, int type, int no, uint8_t val)
{
    if (!outage_unit_ok(type, no, true, s.id, s.bad_type, s.bad_no)) {
        return -1;
    }
    if (s.reboot ? (val != 0 && val != 2) : val > 2) {
        outage_trace(OSQ_LEVEL_ERROR, s.id + 3, s.bad_val, val);
        return -1;
    }
    for (sp::sysobj::Component* compo : outage_units_down(type, no)) {
        if (compo == nullptr) {
            continue;
        }
        current_common_info_t info;
        memset(&info, 0, sizeof(info));
        sp::sysobj::Component::WriteLock lock(compo);
        compo->getProperty(PROP_CURRENT_COMMON_INFO, &info, sizeof(info));
        uint8_t old = info.emergency_outage;
        if (s.reboot ? old == 1 : old == val) {
            outage_trace(OSQ_LEVEL_INFO, s.id + 4, s.skip, compo->getComponentId(), old);
            continue;
        }
        outage_trace(OSQ_LEVEL_INFO, s.id + 5, s.change, compo->getComponentId(), old, val);
        info.emergency_outage = val;
        compo->setProperty(PROP_CURRENT_COMMON_INFO, &info, sizeof(info));
    }
    return 0;
}

/* Clears `offbit` in the status of one component; the caller holds the lock. */
void clear_status_bits(sp::sysobj::Component* compo, uint32_t offbit)
{
    current_common_info_t info = read_common_info(compo);
    info.status &= ~offbit;
    compo->setProperty(PROP_CURRENT_COMMON_INFO, &info, sizeof(info));
}

/* A unit, its children and grandchildren, all under the unit's lock. */
void clear_unit_tree(sp::sysobj::Component* unit, uint32_t offbit) noexcept
{
    if (unit == nullptr) {
        return;
    }
    sp::sysobj::Component::WriteLock lock(unit);
    clear_status_bits(unit, offbit);
    try {
        std::vector<sp::sysobj::Component*> children;
        std::vector<sp::sysobj::Component*> grandchildren;
        unit->getComponent(children, false);
        for (sp::sysobj::Component* child : children) {
            if (child == nullptr) {
                continue;
            }
            clear_status_bits(child, offbit);
            child->getComponent(grandchildren, false);
            for (sp::sysobj::Component* grandchild : grandchildren) {
                if (grandchild != nullptr) {
                    clear_status_bits(grandchild, offbit);
                }
            }
            grandchildren.clear();
        }
    } catch (...) {
        /* Out of memory: what was cleared stays cleared. */
    }
}

/* One component alone, under its own lock. */
void clear_unit_alone(sp::sysobj::Component* compo, uint32_t offbit)
{
    if (compo == nullptr) {
        return;
    }
    sp::sysobj::Component::WriteLock lock(compo);
    clear_status_bits(compo, offbit);
}

/* Sequence bits of an instance: its node and that node's CMU, or the chassis. */
uint64_t instance_sequence_mask(int BMCInst)
{
    if (BMCInst == CHASSIS_INSTANCE) {
        return CHASSIS_SEQUENCE_MASK;
    }
    if (BMCInst < 1 || BMCInst > 16) {
        return 0; /* no node: no sequence concerns it */
    }
    int node = BMCInst - 1;
    return (1ull << node) | (1ull << (16 + node)) | (1ull << (32 + node / 2));
}

} // namespace

int znpdklib_setEmergencyOutage(int type, int no, uint8_t val)
{
    static const OutageSetter setter = {
        0x05410100,
        false,
        "znpdklib_setEmergencyOutage():invalid type. type=%d",
        "znpdklib_setEmergencyOutage():invalid type and no combination. type=%d no=%d",
        "znpdklib_setEmergencyOutage():invalid val. val=0x%02x",
        "znpdklib_setEmergencyOutage():[oid:%d] skip emergency_outage setting. already 0x%02x",
        "znpdklib_setEmergencyOutage():[oid:%d] set emergency_outage 0x%02x => 0x%02x",
    };
    outage_trace(OSQ_LEVEL_CALL, 0x05410100, "znpdklib_setEmergencyOutage():type=%d no=%d val=0x%02x", type,
                 no, val);
    return outage_set(setter, type, no, val);
}

int znpdklib_clearEmergencyOutage(int type, int no)
{
    return znpdklib_setEmergencyOutage(type, no, 0);
}

int znpdklib_setBMCRebootOutage(int type, int no, uint8_t val)
{
    static const OutageSetter setter = {
        0x05411200,
        true,
        "znpdklib_setBMCRebootOutage():invalid type. type=%d",
        "znpdklib_setBMCRebootOutage():invalid type and no combination. type=%d no=%d",
        "znpdklib_setBMCRebootOutage():invalid val. val=0x%02x",
        "znpdklib_setBMCRebootOutage():[oid:%d] skip emergency_outage setting. already 0x%02x",
        "znpdklib_setBMCRebootOutage():[oid:%d] set emergency_outage 0x%02x => 0x%02x",
    };
    outage_trace(OSQ_LEVEL_CALL, 0x05411200, "znpdklib_setBMCRebootOutage():type=%d no=%d", type, no);
    return outage_set(setter, type, no, val);
}

int znpdklib_clearBMCRebootOutage(int type, int no)
{
    return znpdklib_setBMCRebootOutage(type, no, 0);
}

/*
 * A missing unit, CMUC or BOBC is skipped: its register is not read, and a
 * missing unit has no mark (an all-zero record).
 */
int znpdklib_checkEmergencyOutage(int type, int no)
{
    outage_trace(OSQ_LEVEL_CALL, 0x05410500, "znpdklib_checkEmergencyOutage():type=%d no=%d", type, no);
    if (!outage_unit_ok(type, no, false, 0x05410500, "znpdklib_checkEmergencyOutage():invalid type. type=%d",
                        "znpdklib_checkEmergencyOutage():invalid type and no combination. type=%d no=%d")) {
        return -1;
    }
    sp::sysobj::Component* chain[3];
    int count = outage_units_up(type, no, chain);
    for (int i = 0; i < count; ++i) {
        sp::sysobj::Component* compo = chain[i];
        uint32_t addr;
        if (compo == nullptr ||
            !outage_member_reg(
                compo, EMERGENCY_STATE_REG, 0x05410506,
                "znpdklib_checkEmergencyOutage():invalid component. compo_type=%d compo_no=%d [oid:%d]",
                &addr)) {
            continue;
        }
        uint32_t value = 0;
        int err = 0;
        int ret = outage_reg_access(MBC_IOCTL_SP_BOARD_R, addr, &value, &err);
        if (ret < 0) {
            /* The registers cannot be trusted now: judge by the mark alone. */
            outage_trace(OSQ_LEVEL_ERROR, 0x05410507,
                         "znpdklib_checkEmergencyOutage():read error. ret=%d errno=%d addr=0x%08x", ret, err,
                         static_cast<int>(addr));
            break;
        }
        uint32_t outage_bits = compo->getType() == COMPO_BOBC ? BOBC_EMERGENCY_BITS : 0xFFFFFFFFu;
        if ((value & outage_bits) != 0) {
            outage_trace(OSQ_LEVEL_INFO, 0x05410508,
                         "znpdklib_checkEmergencyOutage():[oid:%d] Emergency Active State Register=0x%08x",
                         compo->getComponentId(), static_cast<int>(value));
            return 1;
        }
    }
    current_common_info_t info = read_common_info(chain[0]);
    if (info.emergency_outage != 0) {
        outage_trace(OSQ_LEVEL_INFO, 0x05410504,
                     "znpdklib_checkEmergencyOutage():[oid:%d] emergency_outage already 0x%02x",
                     chain[0]->getComponentId(), info.emergency_outage);
        return 1;
    }
    outage_trace(OSQ_LEVEL_INFO, 0x054105FF, "znpdklib_checkEmergencyOutage():type=%d no=%d not set", type,
                 no);
    return 0;
}

/* A null path names no unit: -1, nothing logged. */
int znpdklib_checkEmergencyOutageByPath(const char* path)
{
    if (path == nullptr) {
        return -1;
    }
    int type = 0;
    int no = 0;
    try {
        for (const std::string& element : split(path, ',')) {
            sp::sysobj::TreePath tree_path(element);
            sp::sysobj::Component* compo = tree_path.getComponent();
            if (compo == nullptr) {
                sp_trace4(OSQ_LEVEL_ERROR, T_REGION_LIB_UTIL, SP_MID_BASE_UTIL, 0x05410601,
                          "znpdklib_checkEmergencyOutageByPath():invalid component. path=%s", path);
                return -1;
            }
            int ctype = compo->getType();
            int cno = compo->getNo();
            /* The most specific unit wins: node (router) over CMUC over BOBC. */
            switch (ctype) {
            case COMPO_BOBC:
                if (type != COMPO_CMUC && type != COMPO_NODE) {
                    type = ctype;
                    no = cno;
                }
                break;
            case COMPO_CMUC:
            case COMPO_NODE:
                if (type != COMPO_NODE) {
                    type = ctype;
                    no = cno;
                }
                break;
            case COMPO_ROUTER:
                if (type != COMPO_NODE) {
                    type = COMPO_NODE;
                    no = cno;
                }
                break;
            default:
                outage_trace(OSQ_LEVEL_ERROR, 0x05410602,
                             "znpdklib_checkEmergencyOutageByPath():invalid component. type=%d no=%d", ctype,
                             cno);
                return -1;
            }
        }
    } catch (...) {
        return -1;
    }
    return znpdklib_checkEmergencyOutage(type, no);
}

int znpdklib_setEmergencyMaskReg(int type, int no)
{
    outage_trace(OSQ_LEVEL_CALL, 0x05410200, "znpdklib_setEmergencyMaskReg():start. type=%d no=%d", type, no);
    if (!outage_unit_ok(type, no, false, 0x05410200, "znpdklib_setEmergencyMaskReg():invalid type. type=%d",
                        "znpdklib_setEmergencyMaskReg():invalid type and no combination. type=%d no=%d")) {
        return -1;
    }
    int ret = 0;
    for (sp::sysobj::Component* compo : outage_units_down(type, no)) {
        uint32_t addr;
        if (compo == nullptr ||
            !outage_member_reg(
                compo, EMERGENCY_MASK_REG, 0x05410207,
                "znpdklib_setEmergencyMaskReg():invalid component. compo_type=%d compo_no=%d [oid:%d]",
                &addr)) {
            continue;
        }
        int ctype = compo->getType();
        // clang-format off
        if (ctype == COMPO_BOBC) {
            outage_trace(OSQ_LEVEL_INFO, 0x05410204,
                "znpdklib_setEmergencyMaskReg():BoBC Emergency Active State Mask Register close. addr=0x%08x",
                static_cast<int>(addr));
        } else if (ctype == COMPO_CMUC) {
            outage_trace(OSQ_LEVEL_INFO, 0x05410205,
                "znpdklib_setEmergencyMaskReg():CMUC#%d Emergency Active State Mask Register close. addr=0x%08x",
                compo->getNo(), static_cast<int>(addr));
        } else {
            outage_trace(OSQ_LEVEL_INFO, 0x05410206,
                "znpdklib_setEmergencyMaskReg():Node#%d Emergency Active State Mask Register close. addr=0x%08x",
                compo->getNo(), static_cast<int>(addr));
        }
        // clang-format on
        uint32_t closed = 0;
        int err = 0;
        ret = outage_reg_access(MBC_IOCTL_SP_BOARD_W, addr, &closed, &err);
        if (ret < 0) {
            outage_trace(OSQ_LEVEL_ERROR, 0x05410208,
                         "znpdklib_setEmergencyMaskReg():write error. ret=%d errno=%d addr=0x%08x", ret, err,
                         static_cast<int>(addr));
            break;
        }
    }
    outage_trace(OSQ_LEVEL_CALL, 0x054102FF, "znpdklib_setEmergencyMaskReg():end");
    return ret;
}

int znpdklib_exechap(const char* path, const char* hapName, const char* mode, const uint32_t* para,
                     uint32_t* data)
{
    splog_info loginfo;
    splog_linkup_info loglink;
    memset(&loginfo, 0, sizeof(loginfo));
    memset(&loglink, 0, sizeof(loglink));
    int ret =
        znlib_hce_exechap_noerrlogregist_withlinklog(path, hapName, mode, para, data, &loginfo, &loglink);
    if (ret < 0) {
        /* A unit in emergency outage cannot answer: that is no hardware error. */
        if (znpdklib_checkEmergencyOutageByPath(path) == 1) {
            return 0;
        }
        znpdklib_log_save_sel_error_log(&loginfo, &loglink);
    }
    return ret;
}

/* A unit number that names no component clears nothing. */
void znpdklib_cleardb_biou(int no, uint32_t offbit)
{
    (void)no; /* there is one BIOU */
    clear_unit_tree(system_component(COMPO_BIOU, 0), offbit);
    clear_unit_alone(system_component(COMPO_BOBC, 0), offbit);
}

void znpdklib_cleardb_giou(int no, uint32_t offbit)
{
    clear_unit_tree(system_component(COMPO_GIOU, no), offbit);
}

void znpdklib_cleardb_psu(int no, uint32_t offbit)
{
    clear_unit_tree(system_component(COMPO_PSU, no), offbit);
}

void znpdklib_cleardb_cmu(int no, uint32_t offbit)
{
    clear_unit_tree(system_component(COMPO_CMU, no), offbit);
    clear_unit_alone(system_component(COMPO_CMUC, no), offbit);
    if (no >= 0 && no < INT_MAX / 2) {
        clear_unit_alone(system_component(COMPO_NODE, 2 * no), offbit);
        clear_unit_alone(system_component(COMPO_NODE, 2 * no + 1), offbit);
    }
}

void znpdklib_cleardb_iorc(int no, uint32_t offbit)
{
    clear_unit_tree(system_component(COMPO_IORC, no), offbit);
}

void znpdklib_cleardb_system(int no, uint32_t offbit)
{
    (void)no;
    clear_unit_alone(sp::sysobj::Component::getRoot(), offbit);
}

void znpdklib_cleardb_fanu(int no, uint32_t offbit)
{
    clear_unit_tree(system_component(COMPO_FANU, no), offbit);
}

/* Polls once a second, with no limit; a missing BIOU#0 is looked up again. */
int znpdklib_wait_BMCReady(void)
{
    sp::sysobj::Component* biou = nullptr;
    for (;;) {
        if (biou == nullptr) {
            biou = system_component(COMPO_BIOU, 0);
        }
        if (read_common_info(biou).isInitializeComplete()) {
            return 0;
        }
        sleep(1);
    }
}

uint64_t znpdklib_shmem_sequence_flags(int mode, uint64_t target)
{
    Various_sharemem_t area;
    memset(&area, 0, sizeof(area));
    if (mode != 1 && mode != 2) {
        znpdklib_Various_sharemem_read(&area);
        return area.job_in_sequence & target;
    }
    seqflag_trace(OSQ_LEVEL_INFO, 0x0541100F, "znpdklib_shmem_sequence_flags():mode=%d target = %8.8x %8.8x",
                  mode, hi_word(target), lo_word(target));
    ScopeLock lock(&v_mutex);
    znpdklib_Various_sharemem_read(&area);
    if (mode == 1) {
        area.job_in_sequence |= target;
    } else {
        area.job_in_sequence &= ~target;
    }
    znpdklib_Various_sharemem_write(&area);
    return 0;
}

/* An instance without a node (0, or outside 0..17) has no sequence bits: 0 unless PSW power is killed. */
int znpdklib_monitor_enable_check(int BMCInst)
{
    if (BMCInst != CHASSIS_INSTANCE) {
        current_common_info_t root = read_common_info(sp::sysobj::Component::getRoot());
        if ((root.status & COMMON_STATUS_PSW_POWER_KILLED) != 0) {
            seqflag_trace(OSQ_LEVEL_INFO, 0x05411000,
                          "znpdklib_monitor_enable_check():Inst=%d PSW power killed", BMCInst);
            return -1;
        }
    }
    uint64_t mask = instance_sequence_mask(BMCInst);
    uint64_t going = mask != 0 ? znpdklib_shmem_sequence_flags(3, mask) : 0;
    if (going == 0) {
        return 0;
    }
    seqflag_trace(OSQ_LEVEL_DETAIL, 0x05411001,
                  "znpdklib_monitor_enable_check():Inst=%d now sequence go on. check = %8.8x %8.8x", BMCInst,
                  hi_word(mask), lo_word(mask));
    seqflag_trace(OSQ_LEVEL_DETAIL, 0x05411002,
                  "znpdklib_monitor_enable_check():Inst=%d now sequence go on. going = %8.8x %8.8x", BMCInst,
                  hi_word(going), lo_word(going));
    return 1;
}

/*
 * An instance outside 0..17 is not asked (the stack has no such table) and
 * answers 1, as an all-zero status would; an instance without a node (0, 17)
 * has no power-off sequence to report.
 */
int znpdklib_monitor_enable_check_gio(int BMCInst)
{
    if (BMCInst < 0 || BMCInst >= INSTANCE_COUNT) {
        return 1;
    }
    INT8U req = 0; /* sensor 0: node status */
    GetSensorReadingRes_T res;
    memset(&res, 0, sizeof(res));
    GetSensorReading(&req, sizeof(req), reinterpret_cast<INT8U*>(&res), BMCInst);
    int status = ((res.OptionalStatus & 0x7F) << 8) | res.ComparisonStatus;
    seqflag_trace(OSQ_LEVEL_INFO, 0x05411100,
                  "znpdklib_monitor_enable_check_gio():Inst=%d node status = %4.4x", BMCInst, status);
    if ((status & 0x01F8) == 0) {
        return 1;
    }
    sp::sysobj::Component* node = nullptr;
    if (BMCInst >= 1 && BMCInst <= 16) {
        node = system_component(COMPO_NODE, BMCInst - 1);
    }
    if (node == nullptr) {
        return 0;
    }
    uint32_t sequence = read_common_info(node).sequence;
    if ((sequence & COMMON_SEQUENCE_POWER_OFF) != 0) {
        seqflag_trace(
            OSQ_LEVEL_INFO, 0x05411101,
            "znpdklib_monitor_enable_check_gio():Inst=%d node status = %4.4x but off seq running(%8.8x)",
            BMCInst, status, static_cast<int>(sequence));
        return 1;
    }
    return 0;
}

int znpdklib_fan_monitor_enable_check(int BMCInst, uint8_t SensorNumber)
{
    if (BMCInst == CHASSIS_INSTANCE && SensorNumber >= 229 && SensorNumber <= 236 &&
        znpdklib_is_check_fan_executing()) {
        return 0;
    }
    return 1;
}

/*
 * Register and unregister ignore an instance outside 0..17 (the table has
 * 18 entries a row); take-all with a null `datap` hands out and clears nothing.
 */
int znpdklib_shmem_corvo_job_regist_flags(int mode, int BMCInst, uint8_t regist_mode, uint8_t regist_method,
                                          void* datap)
{
    ScopeLock lock(&v_mutex);
    Various_sharemem_t area;
    memset(&area, 0, sizeof(area));
    znpdklib_Various_sharemem_read(&area);
    Corvo_Job_regist_flag_t* row = area.hjob_regist_flag[regist_method == 3 ? 1 : 0];
    bool in_table = BMCInst >= 0 && BMCInst < INSTANCE_COUNT;
    if (mode == 1 && in_table) {
        row[BMCInst].BMCInst = static_cast<uint8_t>(BMCInst);
        row[BMCInst].regist_method = regist_method;
        row[BMCInst].regist_mode = regist_mode;
    } else if (mode == 2 && in_table) {
        memset(&row[BMCInst], 0, sizeof(row[BMCInst]));
    } else if (mode == 4 && datap != nullptr) {
        memcpy(datap, area.hjob_regist_flag, sizeof(area.hjob_regist_flag));
        memset(area.hjob_regist_flag, 0, sizeof(area.hjob_regist_flag));
    }
    znpdklib_Various_sharemem_write(&area);
    return 0;
}

/* ---- BoB alarm LED and redundancy recovery ------------------------------ */

#include <stdlib.h>

#include "sp_trace.h"
#include "sputil.h"
#include "znlib.h"

/* Nested namespace: the other section of this file has helpers of its own. */
namespace {
namespace chassis_env {

constexpr int kChassisInst = 17;
constexpr INT8U kFrueEnvSensor = 0x49;
constexpr INT8U kRedundancyParent = 35;
constexpr INT8U kAlarmLedSensor = 33;
/* Fan redundancy first, then PSU redundancy. */
constexpr INT8U kRedundancySensors[] = {0x82, 0x81};

constexpr uint16_t kRedFully = 0x0002;
constexpr uint16_t kRedLost = 0x0004;
constexpr uint16_t kRedShortage = 0x0008;
/* FRU error sensor states that are not an error (offsets 0 to 3). */
constexpr uint16_t kFrueOkBits = 0x000F;
/* The same plus the CER state the shortage-to-lost path sets itself. */
constexpr uint16_t kFrueOkBitsCer = 0x002F;

constexpr INT8U kOffsetNormal = 1;
constexpr INT8U kOffsetWarning = 4;
constexpr INT8U kOffsetCer = 5;

void recover_trace(int level, uint32_t id, const char* fmt, int a1 = 0, int a2 = 0, int a3 = 0, int a4 = 0)
{
    sp_trace2(level, T_REGION_POWER_MON, SP_MID_BASE_UTIL, id, fmt, a1, a2, a3, a4);
}

uint16_t sensor_state_word(int inst, int sensor)
{
    INT16U status = 0;
    znpdklib_getDiscreteStatusSensorStatus(sensor, &status, inst);
    return static_cast<uint16_t>(status & 0x7FFF);
}

/* Entries come from files on disk: never hand an out-of-range one on. */
bool esc_entry_usable(const Esc_Sensor_t& e)
{
    return e.BMCInst >= 0 && e.BMCInst <= kChassisInst && e.Sensor_No >= 0 && e.Sensor_No <= 255;
}

Esc_Table_t escalation_of(const Esc_Sensor_t& target)
{
    Esc_Table_t table{};
    Esc_Sensor_t query = target;
    znpdklib_get_escalation_info(&query, &table);
    return table;
}

/*
 * True when one of the FRU error sensors of `table` is in error, i.e. has
 * none of `ok_bits`; traces the first such sensor with `id` and stops there.
 */
bool frue_error_found(const Esc_Table_t& table, uint16_t ok_bits, uint32_t id, const char* fmt)
{
    for (int i = 0; i < table.frue_count && table.frue_list != nullptr; ++i) {
        const Esc_Sensor_t& e = table.frue_list[i];
        if (!esc_entry_usable(e)) {
            continue;
        }
        uint16_t word = sensor_state_word(e.BMCInst, e.Sensor_No);
        if ((word & ok_bits) == 0) {
            recover_trace(0x8001, id, fmt, e.BMCInst, e.Sensor_No, word);
            return true;
        }
    }
    return false;
}

void free_escalation_lists(Esc_Table_t& table)
{
    free(table.frue_list);
    free(table.esc_list);
    table.frue_list = nullptr;
    table.esc_list = nullptr;
}

void bob_alarm_led_off()
{
    znlib_led_control(COMPO_SYSTEM, 0, 1, 1); /* LED 1 of the system to "off" */
}

/* Lowers a sensor to the warning state unless its lowest state is at or below it. */
void lower_to_warning(int inst, int sensor, uint32_t set_id, uint32_t skip_id)
{
    uint16_t word = sensor_state_word(inst, sensor);
    int offset = sputil_ntz16(word);
    if (offset > kOffsetWarning) {
        recover_trace(0x8001, set_id,
                      "znpdklib_redundancy_recover_shortage2lost():set warning. BMCInst=%d SensorNum=%d",
                      inst, sensor);
        znpdklib_exSetSensorWoS(static_cast<INT8U>(sensor), kOffsetWarning, inst);
    } else {
        recover_trace(
            0x8001, skip_id,
            "znpdklib_redundancy_recover_shortage2lost():skip set warning. BMCInst=%d SensorNum=%d SensorReading=0x%04x offset=%d",
            inst, sensor, word, offset);
    }
}

/*
 * Walks sensor 35 and then each of its escalation targets: a sensor is
 * handed to `act` (instance, sensor, whether it is 35 itself) only when none
 * of the FRU error sensors pointing at it is in error. Every list is freed.
 */
template <typename Act>
void walk_escalation(uint16_t frue_ok_bits, uint32_t parent_error_id, uint32_t target_error_id,
                     const char* error_fmt, Act act)
{
    Esc_Table_t top = escalation_of(Esc_Sensor_t{0, kChassisInst, kRedundancyParent});
    bool error = frue_error_found(top, frue_ok_bits, parent_error_id, error_fmt);
    free(top.frue_list);
    top.frue_list = nullptr;
    if (!error) {
        act(kChassisInst, kRedundancyParent, true);
    }

    for (int i = 0; i < top.esc_count && top.esc_list != nullptr; ++i) {
        const Esc_Sensor_t target = top.esc_list[i];
        Esc_Table_t sub = escalation_of(target);
        error = frue_error_found(sub, frue_ok_bits, target_error_id, error_fmt);
        if (!error && esc_entry_usable(target)) {
            act(target.BMCInst, target.Sensor_No, false);
        }
        free_escalation_lists(sub);
    }
    free_escalation_lists(top);
}

void redundancy_recover(int sensor_clear)
{
    recover_trace(0x8001, 0x81010001, "znpdklib_redundancy_recover():start. sensor_clear=%d", sensor_clear);

    for (INT8U sns : kRedundancySensors) {
        uint16_t word = sensor_state_word(kChassisInst, sns);
        if ((word & ~kRedFully) != 0) {
            recover_trace(
                0x8002, 0x81010002,
                "znpdklib_redundancy_recover():Redundansy sensor is not Fully. SensorNum=%d SensorReading=0x%04x",
                sns, word);
            return;
        }
    }

    if (sensor_clear) {
        recover_trace(0x8001, 0x81010008, "znpdklib_redundancy_recover():set normal to FRUE Environment");
        znpdklib_exSetSensorWoS(kFrueEnvSensor, kOffsetNormal, kChassisInst);
    }

    walk_escalation(
        kFrueOkBits, 0x81010003, 0x81010005,
        "znpdklib_redundancy_recover():detect FRUE error. BMCInst=%d SensorNum=%d SensorReading=0x%04x",
        [sensor_clear](int inst, int sensor, bool parent) {
            if (isValidSensorBMCInst(static_cast<INT8U>(sensor), inst) == 1 && sensor_clear) {
                recover_trace(0x8001, parent ? 0x81010004 : 0x81010006,
                              "znpdklib_redundancy_recover():set normal. BMCInst=%d SensorNum=%d", inst,
                              sensor);
                znpdklib_exSetSensorWoS(static_cast<INT8U>(sensor), kOffsetNormal, inst);
            }
            /* The alarm LED follows target 33 even when only checking. */
            if (!parent && sensor == kAlarmLedSensor) {
                recover_trace(0x8001, 0x81010007, "znpdklib_redundancy_recover():Chassis Alarm LED off");
                bob_alarm_led_off();
            }
        });
    recover_trace(0x8001, 0x8101FFFF, "znpdklib_redundancy_recover():end");
}

void redundancy_recover_shortage2lost()
{
    recover_trace(0x8001, 0x81020001, "znpdklib_redundancy_recover_shortage2lost():start");

    bool lost = false;
    for (INT8U sns : kRedundancySensors) {
        uint16_t word = sensor_state_word(kChassisInst, sns);
        if (word & kRedShortage) {
            recover_trace(
                0x8001, 0x81020002,
                "znpdklib_redundancy_recover_shortage2lost():Redundansy sensor is Shortage. SensorNum=%d SensorReading=0x%04x",
                sns, word);
            return;
        }
        if (word & kRedLost) {
            recover_trace(
                0x8001, 0x81020003,
                "znpdklib_redundancy_recover_shortage2lost():Redundansy Lost detect. SensorNum=%d SensorReading=0x%04x",
                sns, word);
            lost = true;
        }
    }
    if (!lost) {
        recover_trace(0x8001, 0x81020004,
                      "znpdklib_redundancy_recover_shortage2lost():Redundansy Lost not found");
        return;
    }

    recover_trace(0x8001, 0x81020005,
                  "znpdklib_redundancy_recover_shortage2lost():set CER to FRUE Environment");
    znpdklib_exSetSensorWoS(kFrueEnvSensor, kOffsetCer, kChassisInst);

    walk_escalation(
        kFrueOkBitsCer, 0x81020006, 0x81020009,
        "znpdklib_redundancy_recover_shortage2lost():detect FRUE error. BMCInst=%d SensorNum=%d SensorReading=0x%04x",
        [](int inst, int sensor, bool parent) {
            if (isValidSensorBMCInst(static_cast<INT8U>(sensor), inst) == 1) {
                lower_to_warning(inst, sensor, parent ? 0x81020007 : 0x8102000A,
                                 parent ? 0x81020008 : 0x8102000B);
            }
        });
    recover_trace(0x8001, 0x8102FFFF, "znpdklib_redundancy_recover_shortage2lost():end");
}

/* ---- BoB alarm LED ---- */

constexpr int kLedOff = 1;
constexpr int kLedEpo = 2;
constexpr int kLedError = 3;
constexpr INT8U kFruStatusSensorType = 0xC1;
constexpr int kFirstPsuSensor = 50;
constexpr int kLastPsuSensor = 67;

void led_trace(int level, uint32_t id, const char* fmt, int a1 = 0, int a2 = 0)
{
    sp_trace2(level, T_REGION_POWER_MON, SP_MID_BASE_UTIL, id, fmt, a1, a2, 0, 0);
}

/* A PSU sensor of the chassis whose slot the PSU library disowns is not evaluated. */
bool psu_sensor_ignored(int inst, int sensor)
{
    if (inst != kChassisInst || sensor < kFirstPsuSensor || sensor > kLastPsuSensor) {
        return false;
    }
    uint32_t info = 0;
    int ret = znlib_psu_ctlinfo(sensor - kFirstPsuSensor, &info);
    return ret == -1 || ret == 256;
}

/* Worst state of one instance's FRU status sensors; the highest-numbered detection decides. */
int eval_bob_alarm_led(int BMCInst)
{
    int result = kLedOff;
    for (int sensor = 0; sensor <= 255; ++sensor) {
        INT8U num = static_cast<INT8U>(sensor);
        if (isValidSensorBMCInst(num, BMCInst) != 1) {
            continue;
        }
        INT8U req = num;
        GetSensorTypeRes_T res{};
        GetSensorType(&req, 1, reinterpret_cast<INT8U*>(&res), BMCInst);
        if (res.CompletionCode != CC_NORMAL || res.SensorType != kFruStatusSensorType) {
            continue;
        }
        INT16U status = 0;
        znpdklib_getDiscreteStatusSensorStatus(sensor, &status, BMCInst);
        int offset = sputil_ntz16(static_cast<uint16_t>(status & 0x7FFF));
        if (psu_sensor_ignored(BMCInst, sensor)) {
            continue;
        }
        if (offset >= 4 && offset <= 8) {
            result = kLedError;
            sp_trace25(
                0x8001, T_REGION_POWER_MON, SP_MID_BASE_UTIL, 0x05410302,
                "eval_bob_alarm_led():detect error. BMCInst=%d sensor=%d status=0x%04x offset=%d result=%d",
                BMCInst, sensor, status, offset, result);
        } else if (offset == 9) {
            result = kLedEpo;
            sp_trace25(
                0x8001, T_REGION_POWER_MON, SP_MID_BASE_UTIL, 0x05410301,
                "eval_bob_alarm_led():detect EPO. BMCInst=%d sensor=%d status=0x%04x offset=%d result=%d",
                BMCInst, sensor, status, offset, result);
        }
    }
    return result;
}

int clear_bob_alarm_led()
{
    led_trace(1, 0x05410400, "znpdklib_clear_bob_alarm_led():start");

    int eval_state = eval_bob_alarm_led(kChassisInst);
    if (eval_state != kLedOff) {
        led_trace(0x8001, 0x05410401, "znpdklib_clear_bob_alarm_led():eval_led_state=%d by Chassis sensor",
                  eval_state);
    } else {
        for (int inst = 1; inst <= 16; ++inst) {
            eval_state = eval_bob_alarm_led(inst);
            if (eval_state != kLedOff) {
                led_trace(0x8001, 0x05410402,
                          "znpdklib_clear_bob_alarm_led():eval_led_state=%d by Node#%d sensor", eval_state,
                          inst - 1);
                break;
            }
        }
    }

    int cur = znlib_led_read(COMPO_SYSTEM, 0, 1, 0);
    if (cur <= 0) {
        led_trace(0x8002, 0x05410404, "znpdklib_clear_bob_alarm_led():znlib_led_read error. ret=%d", cur);
        return -1;
    }
    if (eval_state == kLedOff && cur != kLedOff) {
        led_trace(0x8001, 0x05410405, "znpdklib_clear_bob_alarm_led():BoB Alarm LED off. %d => %d", cur,
                  kLedOff);
        int ret = znlib_led_control(COMPO_SYSTEM, 0, 1, kLedOff);
        if (ret != 0) {
            led_trace(0x8002, 0x05410406, "znpdklib_clear_bob_alarm_led():znlib_led_control error. ret=%d",
                      ret);
            return -1;
        }
    } else {
        led_trace(
            0x8001, 0x05410407,
            "znpdklib_clear_bob_alarm_led():no need to change BoB Alarm LED. cur_led_state=%d eval_led_state=%d",
            cur, eval_state);
    }

    led_trace(1, 0x054104FF, "znpdklib_clear_bob_alarm_led():end. result=%d", 0);
    return 0;
}

} // namespace chassis_env
} // namespace

extern "C" int znpdklib_clear_bob_alarm_led(void)
{
    return chassis_env::clear_bob_alarm_led();
}

extern "C" void znpdklib_redundancy_recover(int sensor_clear)
{
    chassis_env::redundancy_recover(sensor_clear);
}

extern "C" void znpdklib_redundancy_recover_shortage2lost(void)
{
    chassis_env::redundancy_recover_shortage2lost();
}
