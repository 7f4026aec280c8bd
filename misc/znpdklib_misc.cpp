/*
 * Emergency-outage and BMC-reboot-outage marks with the emergency registers,
 * the hardware procedure wrapper, and clearing of component status bits.
 */
#include <errno.h>
#include <limits.h>
#include <string.h>
#include <sys/ioctl.h>

#include <string>
#include <vector>

#include "mbc_driver.h"
#include "sp_trace.h"
#include "znlib.h"
#include "znpdklib.h"
#include "znpdklib_internal.h"

namespace {

using namespace znpdk;

/* Emergency Active State Register and its mask, relative to the unit's block. */
constexpr uint32_t kEmergencyStateReg = 0x000400C0u;
constexpr uint32_t kEmergencyMaskReg = 0x000400C4u;
/* Only these BOBC bits report an outage; the rest of that register is status. */
constexpr uint32_t kBobcEmergencyBits = 0xD8000000u;
/* "Every CMUC" / "every node" in the set functions. */
constexpr int kAllUnits = 255;

enum OutageArg { kArgOk, kBadType, kBadNo };

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
        return kBadType;
    }
    if (no >= 0 && no <= last) {
        return kArgOk;
    }
    if (all_allowed && type != COMPO_BOBC && no == kAllUnits) {
        return kArgOk;
    }
    return kBadNo;
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
    if (arg == kBadType) {
        kTraceUtil(kLevelError, id + 1, bad_type, type);
    } else if (arg == kBadNo) {
        kTraceUtil(kLevelError, id + 2, bad_no, type, no);
    }
    return arg == kArgOk;
}

/* Address of a list member's register at `offset`; other types are logged with `invalid` and skipped. */
bool outage_member_reg(Component* compo, uint32_t offset, uint32_t invalid_id, const char* invalid,
                       uint32_t* addr)
{
    uint32_t base;
    if (!outage_reg_base(compo->getType(), compo->getNo(), &base)) {
        kTraceUtil(kLevelError, invalid_id, invalid, compo->getType(), compo->getNo(),
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

/* A unit and everything that depends on it, for the set and mask functions. */
std::vector<Component*> outage_units_down(int type, int no)
{
    std::vector<Component*> list;
    Component* top = root();
    if (top == nullptr) {
        return list;
    }
    if (type == COMPO_BOBC) {
        list.push_back(top->getComponent(COMPO_BOBC, 0));
        top->getComponent(COMPO_CMUC, list);
        top->getComponent(COMPO_NODE, list);
    } else if (no == kAllUnits) {
        if (type == COMPO_CMUC) {
            top->getComponent(COMPO_CMUC, list);
        }
        top->getComponent(COMPO_NODE, list);
    } else {
        Component* unit = top->getComponent(type, no);
        if (unit != nullptr) {
            list.push_back(unit);
            if (type == COMPO_CMUC) {
                unit->getParents(COMPO_NODE, list);
            }
        }
    }
    return list;
}

/* A unit first, then what it depends on; missing members stay null. */
int outage_units_up(int type, int no, Component* chain[3])
{
    int count = 0;
    if (type == COMPO_NODE) {
        chain[count++] = child(root(), COMPO_NODE, no);
        no /= 2;
    }
    if (type == COMPO_NODE || type == COMPO_CMUC) {
        chain[count++] = child(root(), COMPO_CMUC, no);
    }
    chain[count++] = child(root(), COMPO_BOBC, 0);
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
        kTraceUtil(kLevelError, s.id + 3, s.bad_val, val);
        return -1;
    }
    for (Component* compo : outage_units_down(type, no)) {
        if (compo == nullptr) {
            continue;
        }
        current_common_info_t info;
        memset(&info, 0, sizeof(info));
        Component::WriteLock lock(compo);
        compo->getProperty(PROP_CURRENT_COMMON_INFO, &info, sizeof(info));
        uint8_t old = info.emergency_outage;
        if (s.reboot ? old == 1 : old == val) {
            kTraceUtil(kLevelInfo, s.id + 4, s.skip, compo->getComponentId(), old);
            continue;
        }
        kTraceUtil(kLevelInfo, s.id + 5, s.change, compo->getComponentId(), old, val);
        info.emergency_outage = val;
        compo->setProperty(PROP_CURRENT_COMMON_INFO, &info, sizeof(info));
    }
    return 0;
}

/* Clears `offbit` in the status of one component; the caller holds the lock. */
void clear_status_bits(Component* compo, uint32_t offbit)
{
    current_common_info_t info = read_common(compo);
    info.status &= ~offbit;
    compo->setProperty(PROP_CURRENT_COMMON_INFO, &info, sizeof(info));
}

/* A unit, its children and grandchildren, all under the unit's lock. */
void clear_unit_tree(Component* unit, uint32_t offbit)
{
    if (unit == nullptr) {
        return;
    }
    Component::WriteLock lock(unit);
    clear_status_bits(unit, offbit);
    std::vector<Component*> children;
    std::vector<Component*> grandchildren;
    unit->getComponent(children, false);
    for (Component* child : children) {
        if (child == nullptr) {
            continue;
        }
        clear_status_bits(child, offbit);
        child->getComponent(grandchildren, false);
        for (Component* grandchild : grandchildren) {
            if (grandchild != nullptr) {
                clear_status_bits(grandchild, offbit);
            }
        }
        grandchildren.clear();
    }
}

/* One component alone, under its own lock. */
void clear_unit_alone(Component* compo, uint32_t offbit)
{
    if (compo == nullptr) {
        return;
    }
    Component::WriteLock lock(compo);
    clear_status_bits(compo, offbit);
}

/* Takes a listed component as the unit to check if it is more specific
 * than the one so far: node (router) over CMUC over BOBC. */
bool prefer_unit(Component* compo, int* type, int* no)
{
    const int ctype = compo->getType();
    const int cno = compo->getNo();
    switch (ctype) {
    case COMPO_BOBC:
        if (*type != COMPO_CMUC && *type != COMPO_NODE) {
            *type = ctype;
            *no = cno;
        }
        return true;
    case COMPO_CMUC:
    case COMPO_NODE:
        if (*type != COMPO_NODE) {
            *type = ctype;
            *no = cno;
        }
        return true;
    case COMPO_ROUTER:
        if (*type != COMPO_NODE) {
            *type = COMPO_NODE;
            *no = cno;
        }
        return true;
    default:
        kTraceUtil(kLevelError, 0x05410602,
                   "znpdklib_checkEmergencyOutageByPath():invalid component. type=%d no=%d", ctype, cno);
        return false;
    }
}

/* The unit a procedure target names ("," separates several paths). */
bool unit_of_paths(const char* path, int* type, int* no)
{
    for (const std::string& element : split(path, ',')) {
        sp::sysobj::TreePath tree_path(element);
        Component* compo = tree_path.getComponent();
        if (compo == nullptr) {
            sp_trace4(kLevelError, T_REGION_LIB_UTIL, SP_MID_BASE_UTIL, 0x05410601,
                      "znpdklib_checkEmergencyOutageByPath():invalid component. path=%s", path);
            return false;
        }
        if (!prefer_unit(compo, type, no)) {
            return false;
        }
    }
    return true;
}

} // namespace

int znpdklib_setEmergencyOutage(int type, int no, uint8_t val)
{
    return guard(__func__, -1, [&]() -> int {
        static const OutageSetter setter = {
            0x05410100,
            false,
            "znpdklib_setEmergencyOutage():invalid type. type=%d",
            "znpdklib_setEmergencyOutage():invalid type and no combination. type=%d no=%d",
            "znpdklib_setEmergencyOutage():invalid val. val=0x%02x",
            "znpdklib_setEmergencyOutage():[oid:%d] skip emergency_outage setting. already 0x%02x",
            "znpdklib_setEmergencyOutage():[oid:%d] set emergency_outage 0x%02x => 0x%02x",
        };
        kTraceUtil(kLevelCall, 0x05410100, "znpdklib_setEmergencyOutage():type=%d no=%d val=0x%02x", type, no,
                   val);
        return outage_set(setter, type, no, val);
    });
}

int znpdklib_clearEmergencyOutage(int type, int no)
{
    return znpdklib_setEmergencyOutage(type, no, 0);
}

int znpdklib_setBMCRebootOutage(int type, int no, uint8_t val)
{
    return guard(__func__, -1, [&]() -> int {
        static const OutageSetter setter = {
            0x05411200,
            true,
            "znpdklib_setBMCRebootOutage():invalid type. type=%d",
            "znpdklib_setBMCRebootOutage():invalid type and no combination. type=%d no=%d",
            "znpdklib_setBMCRebootOutage():invalid val. val=0x%02x",
            "znpdklib_setBMCRebootOutage():[oid:%d] skip emergency_outage setting. already 0x%02x",
            "znpdklib_setBMCRebootOutage():[oid:%d] set emergency_outage 0x%02x => 0x%02x",
        };
        kTraceUtil(kLevelCall, 0x05411200, "znpdklib_setBMCRebootOutage():type=%d no=%d", type, no);
        return outage_set(setter, type, no, val);
    });
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
    kTraceUtil(kLevelCall, 0x05410500, "znpdklib_checkEmergencyOutage():type=%d no=%d", type, no);
    if (!outage_unit_ok(type, no, false, 0x05410500, "znpdklib_checkEmergencyOutage():invalid type. type=%d",
                        "znpdklib_checkEmergencyOutage():invalid type and no combination. type=%d no=%d")) {
        return -1;
    }
    Component* chain[3];
    int count = outage_units_up(type, no, chain);
    for (int i = 0; i < count; ++i) {
        Component* compo = chain[i];
        uint32_t addr;
        if (compo == nullptr ||
            !outage_member_reg(
                compo, kEmergencyStateReg, 0x05410506,
                "znpdklib_checkEmergencyOutage():invalid component. compo_type=%d compo_no=%d [oid:%d]",
                &addr)) {
            continue;
        }
        uint32_t value = 0;
        int err = 0;
        int ret = outage_reg_access(MBC_IOCTL_SP_BOARD_R, addr, &value, &err);
        if (ret < 0) {
            /* The registers cannot be trusted now: judge by the mark alone. */
            kTraceUtil(kLevelError, 0x05410507,
                       "znpdklib_checkEmergencyOutage():read error. ret=%d errno=%d addr=0x%08x", ret, err,
                       static_cast<int>(addr));
            break;
        }
        uint32_t outage_bits = compo->getType() == COMPO_BOBC ? kBobcEmergencyBits : 0xFFFFFFFFu;
        if ((value & outage_bits) != 0) {
            kTraceUtil(kLevelInfo, 0x05410508,
                       "znpdklib_checkEmergencyOutage():[oid:%d] Emergency Active State Register=0x%08x",
                       compo->getComponentId(), static_cast<int>(value));
            return 1;
        }
    }
    current_common_info_t info = read_common(chain[0]);
    if (info.emergency_outage != 0) {
        kTraceUtil(kLevelInfo, 0x05410504,
                   "znpdklib_checkEmergencyOutage():[oid:%d] emergency_outage already 0x%02x",
                   chain[0]->getComponentId(), info.emergency_outage);
        return 1;
    }
    kTraceUtil(kLevelInfo, 0x054105FF, "znpdklib_checkEmergencyOutage():type=%d no=%d not set", type, no);
    return 0;
}

/* A null path names no unit: -1, nothing logged. */
int znpdklib_checkEmergencyOutageByPath(const char* path)
{
    if (path == nullptr) {
        return -1;
    }
    return guard(__func__, -1, [&] {
        int type = 0;
        int no = 0;
        if (!unit_of_paths(path, &type, &no)) {
            return -1;
        }
        return znpdklib_checkEmergencyOutage(type, no);
    });
}

int znpdklib_setEmergencyMaskReg(int type, int no)
{
    return guard(__func__, -1, [&]() -> int {
        kTraceUtil(kLevelCall, 0x05410200, "znpdklib_setEmergencyMaskReg():start. type=%d no=%d", type, no);
        if (!outage_unit_ok(
                type, no, false, 0x05410200, "znpdklib_setEmergencyMaskReg():invalid type. type=%d",
                "znpdklib_setEmergencyMaskReg():invalid type and no combination. type=%d no=%d")) {
            return -1;
        }
        int ret = 0;
        for (Component* compo : outage_units_down(type, no)) {
            uint32_t addr;
            if (compo == nullptr ||
                !outage_member_reg(
                    compo, kEmergencyMaskReg, 0x05410207,
                    "znpdklib_setEmergencyMaskReg():invalid component. compo_type=%d compo_no=%d [oid:%d]",
                    &addr)) {
                continue;
            }
            int ctype = compo->getType();
            // clang-format off
            if (ctype == COMPO_BOBC) {
                kTraceUtil(kLevelInfo, 0x05410204,
                    "znpdklib_setEmergencyMaskReg():BoBC Emergency Active State Mask Register close. addr=0x%08x",
                    static_cast<int>(addr));
            } else if (ctype == COMPO_CMUC) {
                kTraceUtil(kLevelInfo, 0x05410205,
                    "znpdklib_setEmergencyMaskReg():CMUC#%d Emergency Active State Mask Register close. addr=0x%08x",
                    compo->getNo(), static_cast<int>(addr));
            } else {
                kTraceUtil(kLevelInfo, 0x05410206,
                    "znpdklib_setEmergencyMaskReg():Node#%d Emergency Active State Mask Register close. addr=0x%08x",
                    compo->getNo(), static_cast<int>(addr));
            }
            // clang-format on
            uint32_t closed = 0;
            int err = 0;
            ret = outage_reg_access(MBC_IOCTL_SP_BOARD_W, addr, &closed, &err);
            if (ret < 0) {
                kTraceUtil(kLevelError, 0x05410208,
                           "znpdklib_setEmergencyMaskReg():write error. ret=%d errno=%d addr=0x%08x", ret,
                           err, static_cast<int>(addr));
                break;
            }
        }
        kTraceUtil(kLevelCall, 0x054102FF, "znpdklib_setEmergencyMaskReg():end");
        return ret;
    });
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
    guard_void(__func__, [&] {
        (void)no; /* there is one BIOU */
        clear_unit_tree(child(root(), COMPO_BIOU, 0), offbit);
        clear_unit_alone(child(root(), COMPO_BOBC, 0), offbit);
    });
}

void znpdklib_cleardb_giou(int no, uint32_t offbit)
{
    guard_void(__func__, [&] { clear_unit_tree(child(root(), COMPO_GIOU, no), offbit); });
}

void znpdklib_cleardb_psu(int no, uint32_t offbit)
{
    guard_void(__func__, [&] { clear_unit_tree(child(root(), COMPO_PSU, no), offbit); });
}

void znpdklib_cleardb_cmu(int no, uint32_t offbit)
{
    guard_void(__func__, [&] {
        clear_unit_tree(child(root(), COMPO_CMU, no), offbit);
        clear_unit_alone(child(root(), COMPO_CMUC, no), offbit);
        if (no >= 0 && no < INT_MAX / 2) {
            clear_unit_alone(child(root(), COMPO_NODE, 2 * no), offbit);
            clear_unit_alone(child(root(), COMPO_NODE, 2 * no + 1), offbit);
        }
    });
}

void znpdklib_cleardb_iorc(int no, uint32_t offbit)
{
    guard_void(__func__, [&] { clear_unit_tree(child(root(), COMPO_IORC, no), offbit); });
}

void znpdklib_cleardb_system(int no, uint32_t offbit)
{
    (void)no;
    clear_unit_alone(root(), offbit);
}

void znpdklib_cleardb_fanu(int no, uint32_t offbit)
{
    guard_void(__func__, [&] { clear_unit_tree(child(root(), COMPO_FANU, no), offbit); });
}
