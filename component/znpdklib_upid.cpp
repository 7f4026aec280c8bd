/* Unit position ids of components, by table or from a caller's code. */
#include <string.h>

#include <string>

#include "znpdklib.h"
#include "znpdklib_internal.h"

namespace {

using namespace znpdk;

struct compo2upid_t {
    int type;
    int upid;
};

struct compo2upid_2nd_t {
    int type;
    int first_count;
    compo2upid_t first[4];
};

/* id = [own number] */
const compo2upid_t first[] = {
    {COMPO_BIOU, UPID_BIOU},  {COMPO_GIOU, UPID_GIOU}, {COMPO_CMU, UPID_CMU},   {COMPO_PSU, UPID_PSU},
    {COMPO_ROUTER, UPID_RTR}, {COMPO_NODE, UPID_NODE}, {COMPO_FANU, UPID_FANU},
};

/* id = [0, own number]: parts of the BMC unit */
const compo2upid_t biou_child[] = {
    {COMPO_FANC, UPID_FANC},
    {COMPO_FAN, UPID_B_FAN},
    {COMPO_GBE, UPID_GBE},
    {COMPO_SSD, UPID_SSD},
    {COMPO_SBC_B, UPID_SBC_B},
    {COMPO_SBC_C, UPID_SBC_C},
    {COMPO_SBC_N, UPID_SBC_N},
    {COMPO_SBCRAM_B, UPID_SBC_RAM_B},
    {COMPO_SBCRAM_N, UPID_SBC_RAM_N},
    {COMPO_BMCFW, UPID_BMCFW},
    {COMPO_BMC, UPID_BMC},
    {COMPO_RTC, UPID_RTC},
    {COMPO_BMCRAM, UPID_BMCRAM},
    {COMPO_FWEMMC, UPID_EMMC},
    {COMPO_FWFMEM, UPID_BMC_FMEM},
};

/* id = [parent's number, own number] */
const compo2upid_t cmu_child[] = {
    {COMPO_PSW, UPID_C_PSW},
    {COMPO_CPU, UPID_CPU},
    {COMPO_AOC, UPID_AOC},
};

/* id = [parent's number, own number]; the code depends on the parent's type */
const compo2upid_2nd_t second[] = {
    {COMPO_FRUROM,
     4,
     {{COMPO_BIOU, UPID_B_FROM},
      {COMPO_GIOU, UPID_G_FROM},
      {COMPO_CMU, UPID_C_FROM},
      {COMPO_PSU, UPID_P_FROM}}},
    {COMPO_GPIO,
     3,
     {{COMPO_BIOU, UPID_B_GPIO_B}, {COMPO_GIOU, UPID_G_GPIO}, {COMPO_CMU, UPID_C_GPIO}, {0, 0}}},
    {COMPO_ADC, 3, {{COMPO_BIOU, UPID_B_ADC}, {COMPO_GIOU, UPID_G_ADC}, {COMPO_CMU, UPID_C_ADC}, {0, 0}}},
    {COMPO_PCIESW, 2, {{COMPO_BIOU, UPID_B_PCIESW}, {COMPO_GIOU, UPID_G_PCIESW}, {0, 0}, {0, 0}}},
    {COMPO_POL, 2, {{COMPO_GIOU, UPID_G_POL}, {COMPO_CMU, UPID_CMU_POL}, {0, 0}, {0, 0}}},
    {COMPO_THRM, 2, {{COMPO_GIOU, UPID_G_THRM}, {COMPO_CMU, UPID_C_THRM}, {0, 0}, {0, 0}}},
    {COMPO_PCIECARD, 1, {{COMPO_GIOU, UPID_PCICARD}, {0, 0}, {0, 0}, {0, 0}}},
    /* a PSUC has no position id: its one pair matches no parent type */
    {COMPO_PSUC, 1, {{0, UPID_NOT_DEFINE}, {0, 0}, {0, 0}, {0, 0}}},
    {COMPO_SYSFMEM, 1, {{COMPO_IORC, UPID_SYSFMEM}, {0, 0}, {0, 0}, {0, 0}}},
};

/* id = [grandparent's number, parent's number, own number] */
const compo2upid_t third[] = {
    {COMPO_MEM, UPID_MEM},
    {COMPO_QNR, UPID_RTR},
};

/* parts inside a CPU carry their CPU's id */
const int third2cpu[] = {COMPO_CORE, COMPO_MAC, COMPO_IOC, COMPO_QNI};

template <size_t N> const compo2upid_t* find_type(const compo2upid_t (&table)[N], int type)
{
    for (const compo2upid_t& e : table) {
        if (e.type == type) {
            return &e;
        }
    }
    return nullptr;
}

void fill(unit_position_id_t* upid, int code, uint8_t count, uint8_t l0, uint8_t l1 = 0, uint8_t l2 = 0)
{
    upid->nameID = static_cast<uint8_t>(code & 0xFF);
    upid->count = count;
    upid->partLayer[0] = l0;
    upid->partLayer[1] = l1;
    upid->partLayer[2] = l2;
}

uint8_t low_no(Component* compo)
{
    return static_cast<uint8_t>(compo->getNo() & 0xFF);
}

/* Code of a part whose code depends on its parent's type; -1 when none. */
int second_code(int type, Component* parent)
{
    if (parent == nullptr) {
        return -1;
    }
    int ptype = parent->getType();
    for (const compo2upid_2nd_t& e : second) {
        if (e.type != type) {
            continue;
        }
        for (int i = 0; i < e.first_count && i < 4; ++i) {
            if (e.first[i].type == ptype) {
                return e.first[i].upid;
            }
        }
    }
    return -1;
}

int convert(Component* compo, unit_position_id_t* upid)
{
    int type = compo->getType();
    uint8_t no = low_no(compo);
    if (const compo2upid_t* e = find_type(first, type)) {
        fill(upid, e->upid, 1, no);
        return 0;
    }
    if (const compo2upid_t* e = find_type(biou_child, type)) {
        fill(upid, e->upid, 2, 0, no);
        return 0;
    }
    /* Every later table needs the parent; a part without one has no id. */
    Component* parent = compo->getParent();
    if (parent == nullptr) {
        return -1;
    }
    if (const compo2upid_t* e = find_type(cmu_child, type)) {
        fill(upid, e->upid, 2, low_no(parent), no);
        return 0;
    }
    int code = second_code(type, parent);
    if (code >= 0) {
        fill(upid, code, 2, low_no(parent), no);
        return 0;
    }
    Component* grand = parent->getParent();
    if (grand == nullptr) {
        return -1;
    }
    if (const compo2upid_t* e = find_type(third, type)) {
        fill(upid, e->upid, 3, low_no(grand), low_no(parent), no);
        return 0;
    }
    for (int t : third2cpu) {
        if (t == type) {
            fill(upid, UPID_CPU, 2, low_no(grand), low_no(parent));
            return 0;
        }
    }
    return -1;
}

/* The component a caller's path names; paths may omit the root step. */
Component* resolve(const char* path)
{
    static const char kRoot[] = "/SYSTEM#0";
    std::string full(path);
    if (strncmp(path, kRoot, sizeof(kRoot) - 1) != 0) {
        full = kRoot + full;
    }
    sp::sysobj::TreePath tree(full);
    return tree.getComponent();
}

} // namespace

/* A null `upid` is left alone (-1); a null component gives an all-zero id. */
int znpdklib_compo2upid(Component* compo, unit_position_id_t* upid)
{
    if (upid == nullptr) {
        return -1;
    }
    memset(upid, 0, sizeof(*upid));
    if (compo == nullptr) {
        return -1;
    }
    if (convert(compo, upid) != 0) {
        memset(upid, 0, sizeof(*upid));
        return -1;
    }
    return 0;
}

int znpdklib_upid2upid(int up, int no, Component* compo, unit_position_id_t* upid)
{
    if (upid == nullptr) {
        return -1;
    }
    memset(upid, 0, sizeof(*upid));
    /* One-layer codes take nothing from the component, so they need none. */
    uint8_t own = static_cast<uint8_t>(no & 0xFF);
    switch (up) {
    case UPID_SHELF:
    case UPID_BOB:
    case UPID_ENVIRONMENT:
    case UPID_RACK:
    case UPID_VALVE:
    case UPID_DEWSENSOR:
    case UPID_WATERSENSOR:
    case UPID_CPUFW:
        fill(upid, up, 1, own);
        return 0;
    case UPID_C_SBCC: {
        Component* parent = compo != nullptr ? compo->getParent() : nullptr;
        if (parent == nullptr) {
            return -1;
        }
        fill(upid, up, 2, low_no(parent), own);
        return 0;
    }
    case UPID_TLP:
    case UPID_TRP:
    case UPID_A_LP:
    case UPID_A_RP: {
        Component* parent = compo != nullptr ? compo->getParent() : nullptr;
        Component* grand = parent != nullptr ? parent->getParent() : nullptr;
        if (grand == nullptr) {
            return -1;
        }
        fill(upid, up, 3, low_no(grand), low_no(parent), own);
        return 0;
    }
    default:
        return -1;
    }
}

/* A null `path` or `upid` gives -1 without writing the id. */
int znpdklib_path2upid(char* path, unit_position_id_t* upid)
{
    if (path == nullptr || upid == nullptr) {
        return -1;
    }
    memset(upid, 0, sizeof(*upid));
    return guard(__func__, -1, [&] { return znpdklib_compo2upid(resolve(path), upid); });
}

int znpdklib_upid2upid_pc(int up, int no, char* path, unit_position_id_t* upid)
{
    if (path == nullptr || upid == nullptr) {
        return -1;
    }
    memset(upid, 0, sizeof(*upid));
    return guard(__func__, -1, [&] { return znpdklib_upid2upid(up, no, resolve(path), upid); });
}
