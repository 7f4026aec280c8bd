/*
 * Start-up states of every sensor, the node error evaluation and the
 * per-instance escalation tables.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "ipmi_stack.h"
#include "sp_trace.h"
#include "sputil.h"
#include "znlib.h"
#include "znpdklib.h"
#include "znpdklib_internal.h"

namespace {

using namespace znpdk;

constexpr INT8U kTypeFru = 0xC1;
constexpr INT8U kTypeFrue = 0xC2;

/* ---- Default tables ---------------------------------------------------- */

struct InitRange {
    int lo;
    int hi;
    uint16_t value;
};

constexpr InitRange kBobRanges[] = {
    {0, 0, 0x0001},     {34, 34, 0x0001},   {36, 47, 0x0001},   {53, 67, 0x0001},   {69, 71, 0x0001},
    {74, 86, 0x0001},   {89, 90, 0x0001},   {108, 109, 0x0001}, {182, 196, 0x0001}, {33, 33, 0x0002},
    {35, 35, 0x0002},   {48, 48, 0x0002},   {50, 52, 0x0002},   {68, 68, 0x0002},   {72, 73, 0x0002},
    {87, 87, 0x0002},   {91, 100, 0x0002},  {103, 107, 0x0002}, {110, 110, 0x0002}, {129, 130, 0x0002},
    {177, 181, 0x0002}, {197, 220, 0x0002},
};

constexpr InitRange kNodeRanges[] = {
    {0, 1, 0x0001}, {4, 7, 0x0001},  {15, 35, 0x0001}, {46, 64, 0x0001}, {67, 68, 0x0001}, {76, 85, 0x0001},
    {3, 3, 0x0002}, {8, 14, 0x0002}, {36, 45, 0x0002}, {65, 66, 0x0002}, {69, 75, 0x0002}, {145, 152, 0x0002},
};

template <size_t N> constexpr uint16_t range_value(const InitRange (&ranges)[N], int sensor)
{
    for (const InitRange& r : ranges) {
        if (sensor >= r.lo && sensor <= r.hi) {
            return r.value;
        }
    }
    return 0;
}

constexpr uint16_t bob_default(int sensor)
{
    return range_value(kBobRanges, sensor);
}
constexpr uint16_t node_default(int sensor)
{
    return range_value(kNodeRanges, sensor);
}

} // namespace

/* The exported tables, expanded from the ranges at compile time. */
#define ZN_V4(f, n) f(n), f((n) + 1), f((n) + 2), f((n) + 3)
#define ZN_V16(f, n) ZN_V4(f, n), ZN_V4(f, (n) + 4), ZN_V4(f, (n) + 8), ZN_V4(f, (n) + 12)
#define ZN_V64(f, n) ZN_V16(f, n), ZN_V16(f, (n) + 16), ZN_V16(f, (n) + 32), ZN_V16(f, (n) + 48)
#define ZN_V256(f) ZN_V64(f, 0), ZN_V64(f, 64), ZN_V64(f, 128), ZN_V64(f, 192)

const uint16_t BOB_SENSOR_INIT_VALUE[256] = {ZN_V256(bob_default)};
const uint16_t NODE_SENSOR_INIT_VALUE[256] = {ZN_V256(node_default)};

#undef ZN_V256
#undef ZN_V64
#undef ZN_V16
#undef ZN_V4

namespace {

/* ---- Helpers ------------------------------------------------------------- */

constexpr Tracer kTraceInit{T_REGION_LIB_POWER_INIT, SP_MID_BASE_UTIL};

/* Node instances are 1 to 16; larger numbers are taken as node numbers. */
int node_of_inst(int BMCInst)
{
    return BMCInst > kChassisInst ? BMCInst : BMCInst - 1;
}

void set_not_installed(int sensor, int BMCInst)
{
    znpdklib_exSetSensorWoS(static_cast<INT8U>(sensor), 0, BMCInst);
}

bool is_fru_type(INT8U type)
{
    return type == kTypeFru || type == kTypeFrue;
}

/* ---- Initial states -------------------------------------------------------- */

/* Non-zero when a restart without AC loss leaves the states to recovery. */
int is_init_state_acon()
{
    /* Built once: the platform takes the paths as strings, and a string this
     * long is a heap allocation on every start. Never destroyed, so a late
     * thread cannot see it gone. */
    static const std::string* const ready = new std::string("/var/nvrdisk/.bmcinit_acon_ready");
    static const std::string* const acon = new std::string("/tmp/.boot/.acon");
    if (sp::util::file::FileCheck::exist(*ready) && !sp::util::file::FileCheck::exist(*acon)) {
        return -1;
    }
    return 0;
}

/* A FRU sensor is in error unless it reads not installed, normal or clear. */
int checkErrorStatus(INT8U SensorNum, int BMCInst)
{
    INT16U word = 0;
    znpdklib_getDiscreteStatusSensorStatus(SensorNum, &word, BMCInst);
    word &= 0x7FFF;
    return (word == 0 || word == 1 || word == 2) ? 0 : 1;
}

int znpdk_SetAllStatusWoS(int BMCInst, INT8U SensorNum, INT16U SensorReading)
{
    if (isValidSensorBMCInst(SensorNum, BMCInst) != 1) {
        return 0;
    }
    if (is_fru_type(GetInstSensorType(SensorNum, BMCInst)) && checkErrorStatus(SensorNum, BMCInst)) {
        return 0;
    }
    int ret = 0;
    for (int bit = 0; bit < 16; ++bit) {
        if ((SensorReading & (1u << bit)) == 0) {
            continue;
        }
        INT8U rc = znpdklib_exSetSensorWoS(SensorNum, static_cast<INT8U>(bit), BMCInst);
        if (rc != 0) {
            kTraceInit(kLevelError, 0x05000000,
                       "[SetAllStatusWoS]:SetSensorWoS snsno:%d offset:0x%x BMCInst:%d", SensorNum, bit,
                       BMCInst);
            ret = rc;
        }
    }
    return ret;
}

/* Sends every FRU sensor whose OEMField is exactly `check` to not installed. */
int Init_Sensor_notins(int BMCInst, unsigned char check)
{
    kTraceInit(kLevelInfo, 0x05140000, "[INIT_SENSOR_CMU]:Init_Sensor_notins start.[BMCInst=%d]", BMCInst);
    for (int s = 0; s < 256; ++s) {
        INT8U sns = static_cast<INT8U>(s);
        if (GetInstSensorOEM(sns, BMCInst) != check) {
            continue;
        }
        INT8U type = GetInstSensorType(sns, BMCInst);
        if (type == kTypeFru) {
            kTraceInit(
                kLevelDetail, 0x05140001,
                "[INIT_SENSOR_CMU]:Init_Sensor_notins sensor=%d type=%2.2x set to not-install.[BMCInst=%d]",
                s, type, BMCInst);
        } else if (type == kTypeFrue) {
            kTraceInit(
                kLevelDetail, 0x05140002,
                "[INIT_SENSOR_CMU]:Init_Sensor_notins sensor=%d type=%2.2x set to not-install.[BMCInst=%d]",
                s, type, BMCInst);
        } else {
            continue;
        }
        set_not_installed(s, BMCInst);
    }
    kTraceInit(kLevelInfo, 0x051400FF, "[INIT_SENSOR_CMU]:Init_Sensor_notins end.[BMCInst=%d]", BMCInst);
    return 0;
}

/* A unit that is not installed: every FRU sensor of its OEMField `check`
 * reads not installed, between the lines `id` and `id` + 1. */
void unit_not_installed(int BMCInst, unsigned char check, int unit, uint32_t id, const char* absent,
                        const char* done)
{
    kTraceInit(kLevelInfo, id, absent, unit);
    Init_Sensor_notins(BMCInst, check);
    kTraceInit(kLevelInfo, id + 1, done, unit);
}

/* CMU-level sensors, on the instance of the CMU's even node. */
int Init_Sensor_CMUInst(int BMCInst)
{
    kTraceInit(kLevelInfo, 0x05120000, "[INIT_SENSOR_CMU]:Init_Sensor_CMUInst start.[BMCInst=%d]", BMCInst);
    set_not_installed(1, BMCInst);
    int cmu = node_of_inst(BMCInst) / 2;
    Component* cmuc = child(root(), COMPO_CMU, cmu);
    if (installed(cmuc)) {
        kTraceInit(kLevelInfo, 0x05120011, "[INIT_SENSOR_CMU]:/CMU#%d installed.", cmu);
        for (int j = 0; j < 3; ++j) {
            if (installed(child(cmuc, COMPO_AOC, j))) {
                continue;
            }
            set_not_installed(4 + j, BMCInst);
            set_not_installed(46 + j, BMCInst);
            for (int k = 0; k < 2; ++k) {
                set_not_installed(49 + 2 * j + k, BMCInst);
                set_not_installed(55 + 2 * j + k, BMCInst);
            }
            kTraceInit(kLevelInfo, 0x05120013,
                       "[INIT_SENSOR_CMU]:/CMU#%d/AOC#%d FRU/FRUE sensor set to not-install.", cmu, j);
        }
    } else {
        unit_not_installed(BMCInst, 2, cmu, 0x05120001,
                           "[INIT_SENSOR_CMU]:/CMU#%d not install value set so sensor.",
                           "[INIT_SENSOR_CMU]:/CMU#%d FRU/FRUE sensor set to not-install.");
    }
    kTraceInit(kLevelInfo, 0x051200FF, "[INIT_SENSOR_CMU]:Init_Sensor_CMUInst end.[BMCInst=%d]", BMCInst);
    return 0;
}

/* Sensors of the node unit itself. */
int Init_Sensor_NODEInst(int BMCInst)
{
    kTraceInit(kLevelInfo, 0x05130000, "[INIT_SENSOR_NODE]:Init_Sensor_NODEInst start.[BMCInst=%d]", BMCInst);
    set_not_installed(0, BMCInst);
    set_not_installed(2, BMCInst);
    int node = node_of_inst(BMCInst);
    Component* top = root();
    Component* cmuc = child(top, COMPO_CMU, node / 2);
    if (installed(child(top, COMPO_NODE, node))) {
        kTraceInit(kLevelInfo, 0x05130011, "[INIT_SENSOR_NODE]:NODE#%d installed.", node);
        Component* cpu = child(cmuc, COMPO_CPU, node % 2);
        for (int j = 0; j < 4; ++j) {
            if (!installed(child(cpu, COMPO_MEM, j))) {
                set_not_installed(36, BMCInst);
            }
        }
    } else {
        unit_not_installed(BMCInst, 3, node, 0x05130001, "[INIT_SENSOR_NODE]:NDOE#%d not installed.",
                           "[INIT_SENSOR_NODE]:NODE#%d FRU/FRUE sensor set to not-install.");
    }
    kTraceInit(kLevelInfo, 0x05130020, "[INIT_SENSOR_NODE]:NODE#%d quor status setting completed.", node);
    kTraceInit(kLevelInfo, 0x051300FF, "[INIT_SENSOR_NODE]:Init_Sensor_NODEInst end.[BMCInst=%d]", BMCInst);
    return 0;
}

/* ---- Node error evaluation ----------------------------------------------- */

struct max_frue_offset_t {
    int sensor;
    uint16_t offset;
};

int is_cmu_cmn_frue_sns(int BMCInst, int sensor)
{
    if (BMCInst == kChassisInst) {
        return 0;
    }
    return (sensor == 12 || sensor == 13 || (sensor >= 40 && sensor <= 48) || sensor == 71) ? 1 : 0;
}

int is_router_frue_sns(int BMCInst, int sensor)
{
    return (BMCInst != kChassisInst && sensor == 35) ? 1 : 0;
}

bool not_scanned(int sensor)
{
    return (sensor >= 15 && sensor <= 34) || (sensor >= 49 && sensor <= 60);
}

const char kOwnNodeError[] =
    "[SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node detect own node error. Node#%d sensor=%d offset=%d";
const char kCmuCommonError[] =
    "[SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node detect CMU common error. Node#%d sensor=%d offset=%d";

/* Node summary state for the worst FRU error offset found. */
int node_fru_error(const max_frue_offset_t& worst, int BMCInst)
{
    switch (worst.offset) {
    case 4:
        return 2;
    case 5:
        return 4;
    case 6:
        return 5;
    case 7:
        return 3;
    case 8:
        return is_router_frue_sns(BMCInst, worst.sensor) ? 8 : 5;
    case 9:
        return (is_router_frue_sns(BMCInst, worst.sensor) || is_cmu_cmn_frue_sns(BMCInst, worst.sensor)) ? 8
                                                                                                         : 6;
    default:
        return 1;
    }
}

/* ---- Escalation tables -------------------------------------------------- */

constexpr int kTargets = MAX_CLEAR_SENSOR_TARGET;
constexpr int kSensors = 256;
constexpr size_t kEscFileSize = kSensors * kTargets * sizeof(packed_clear_sensor_list);
constexpr size_t kPathMax = 512;
/* Most results a search can give: one node target per instance, one chassis
 * target. */
constexpr int kMaxEscTargets = kInstCount + 1;

using EscImage = uint8_t[kEscFileSize];
using EscPath = char[kPathMax];

/* The table file of one instance below the platform root; "" (which no
 * file call accepts) without a root or when the path does not fit. */
void esc_file_path(const char* top, int BMCInst, EscPath& path)
{
    const int root_len = top == nullptr ? -1 : snprintf(path, sizeof(path), "%s", top);
    if (root_len < 0 || static_cast<size_t>(root_len) >= sizeof(path)) {
        path[0] = '\0';
        return;
    }
    const size_t left = sizeof(path) - static_cast<size_t>(root_len);
    int n = snprintf(path + root_len, left, "/var/nvrdisk/current/sensor/esctable_inst%02d", BMCInst);
    if (n < 0 || static_cast<size_t>(n) >= left) {
        path[0] = '\0';
    }
}

/* Byte-exact: entry (s, t) at ((s * 4) + t) * 4. */
size_t esc_offset(int sensor, int target)
{
    return (static_cast<size_t>(sensor) * kTargets + static_cast<size_t>(target)) *
           sizeof(packed_clear_sensor_list);
}

packed_clear_sensor_list esc_entry(const EscImage& image, int sensor, int target)
{
    packed_clear_sensor_list e;
    memcpy(&e, &image[esc_offset(sensor, target)], sizeof(e));
    return e;
}

/* What a table build needs of a sensor: small enough for the stack, so a
 * build makes no allocation. */
struct SensorKind {
    INT8U oem;
    INT8U type;
};
using SensorKinds = SensorKind[kSensors];

/* Snapshot of the instance's sensor kinds, taken under its sensor mutex. */
bool snapshot_sensors(int BMCInst, SensorKinds& snap)
{
    pthread_mutex_t* mutex = &g_BMCInfo[BMCInst].SensorSharedMemMutex;
    if (OS_THREAD_MUTEX_ACQUIRE_LOCK(mutex) != 0) {
        int err = errno;
        IDBG_LINUXAPP_DbgOut(IDBG_LEVEL_LINUXAPP, "[%s:%d]Error acquiring mutex in Thread ID %d Errno:%d\n",
                             "znpdklib_init_sensor", __LINE__, static_cast<int>(getpid()), err);
        return false;
    }
    const SensorInfo_T* table = g_BMCInfo[BMCInst].SensorSharedMem.SensorInfo;
    for (int s = 0; s < kSensors; ++s) {
        snap[s] = {table[s].OEMField, table[s].SensorTypeCode};
    }
    if (OS_THREAD_MUTEX_RELEASE_LOCK(mutex) != 0) {
        IDBG_LINUXAPP_DbgOut(IDBG_LEVEL_LINUXAPP, "[%s:%d]Error in releasing mutex in Thread ID %d\n",
                             "znpdklib_init_sensor", __LINE__, static_cast<int>(getpid()));
    }
    return true;
}

/* Reads up to the image's size; returns the bytes read (a read error ends
 * the file early). */
size_t read_full(int fd, uint8_t* buf, size_t size)
{
    size_t got = 0;
    while (got < size) {
        ssize_t n = read(fd, buf + got, size - got);
        if (n <= 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    return got;
}

/* True when the file already holds exactly `image` (and nothing more). One
 * read asks for a byte more than the image: a regular file hands over all it
 * has up to that, so the image's size back means the whole file, without a
 * second read to see the end. A short read only costs a rewrite. */
bool file_holds(const char* path, const EscImage& image)
{
    int fd = open(path, O_RDONLY);
    if (fd < 0) {
        return false;
    }
    uint8_t old[sizeof(EscImage) + 1];
    const ssize_t n = read(fd, old, sizeof(old));
    close(fd);
    return n == static_cast<ssize_t>(sizeof(EscImage)) && memcmp(old, image, sizeof(EscImage)) == 0;
}

/* Writes the image to a temporary file in the same folder and renames it
 * over the table, so that a search in another process reads the old or the
 * new table, never a cut one. False (nothing replaced) on any failure. */
bool replace_file(const char* path, const EscImage& image)
{
    static std::atomic<unsigned> serial{0};
    if (path[0] == '\0') {
        return false;
    }
    EscPath tmp;
    int n = snprintf(tmp, sizeof(tmp), "%s.tmp%d.%u", path, static_cast<int>(getpid()), serial++);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(tmp)) {
        return false;
    }
    int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd < 0) {
        return false;
    }
    /* On disk before the rename, so that a power loss leaves one whole table. */
    bool written = write(fd, image, sizeof(image)) == static_cast<ssize_t>(sizeof(image)) && fsync(fd) == 0;
    close(fd);
    if (!written || rename(tmp, path) != 0) {
        unlink(tmp);
        return false;
    }
    return true;
}

/* Fills the image from the snapshot and marks the sensors stored in `made`. */
void fill_escalation_image(int BMCInst, const SensorKinds& snap, EscImage& image, uint32_t (&made)[8])
{
    for (int s = 0; s < kSensors; ++s) {
        const SensorKind& info = snap[s];
        bool counts = (BMCInst == kChassisInst && info.oem == 0) || (info.oem & (1u << (BMCInst % 2)));
        if (!counts || info.type != kTypeFrue) {
            continue;
        }
        splog_clear_sensor_list list[kTargets];
        memset(list, 0, sizeof(list));
        znlib_log_get_clear_sensor_list(BMCInst, s, list);
        for (int t = 0; t < kTargets; ++t) {
            packed_clear_sensor_list e;
            e.valid = static_cast<int8_t>(list[t].valid);
            e.BMCInst = static_cast<int8_t>(list[t].BMCInst);
            e.fru_sensor = static_cast<uint8_t>(list[t].fru_sensor);
            e.frue_sensor = static_cast<uint8_t>(list[t].frue_sensor);
            memcpy(&image[esc_offset(s, t)], &e, sizeof(e));
        }
        made[s / 32] |= 1u << (31 - s % 32);
    }
}

void build_escalation(int BMCInst)
{
    uint32_t made[8] = {0};
    kTraceInit(kLevelInfo, 0x05400000, "[znpdklib_make_escalation_info]:start. BMCInst=%d", BMCInst);
    SensorKinds snap;
    if (!snapshot_sensors(BMCInst, snap)) {
        return;
    }
    EscImage image = {};
    fill_escalation_image(BMCInst, snap, image, made);
    for (int half = 0; half < 2; ++half) {
        const uint32_t* w = &made[half * 4];
        kTraceInit(kLevelInfo, 0x05400001,
                   "[znpdklib_make_escalation_info]:create sensor list=%8.8x %8.8x %8.8x %8.8x",
                   static_cast<int>(w[0]), static_cast<int>(w[1]), static_cast<int>(w[2]),
                   static_cast<int>(w[3]));
    }
    EscPath path;
    esc_file_path(getSPRoot().c_str(), BMCInst, path);
    /* An unchanged table is left as it is: a start writes nothing to flash. */
    if (!file_holds(path, image) && !replace_file(path, image)) {
        kTraceInit(kLevelError, 0x05400002,
                   "[znpdklib_make_escalation_info]:info file create failed. BMCInst=%d", BMCInst);
    }
    kTraceInit(kLevelInfo, 0x054000FF, "[znpdklib_make_escalation_info]:end. BMCInst=%d", BMCInst);
}

/* One instance's file; missing or short parts read as zeros. */
void read_esc_file(const char* path, int BMCInst, EscImage& image)
{
    int fd = open(path, O_RDONLY);
    if (fd < 0) {
        memset(image, 0, sizeof(image));
        kTraceInit(kLevelError, 0x05300001,
                   "[znpdklib_get_escalation_info]:info file open failed. BMCInst=%d. errno=%d.", BMCInst,
                   errno);
        return;
    }
    const size_t got = read_full(fd, image, sizeof(image));
    memset(image + got, 0, sizeof(image) - got);
    close(fd);
}

/* Points a built table path (see esc_file_path) at another instance: only
 * its two digits differ. An unusable path ("") stays as it is. */
void retarget_esc_path(EscPath& path, int BMCInst)
{
    const size_t len = strlen(path);
    if (len < 2) {
        return;
    }
    path[len - 2] = static_cast<char>('0' + BMCInst / 10);
    path[len - 1] = static_cast<char>('0' + BMCInst % 10);
}

/* An entry is tested as one word: instance and sensor against the query's,
 * then its valid byte. A sensor number outside 0..255 matches nothing. */
struct EntryMatcher {
    uint32_t key = 0;
    uint32_t key_mask = 0;
    uint32_t valid_mask = 0;
    bool can_match;

    explicit EntryMatcher(const Esc_Sensor_t& q) : can_match(q.Sensor_No >= 0 && q.Sensor_No <= 0xFF)
    {
        const packed_clear_sensor_list k = {0, static_cast<int8_t>(q.BMCInst),
                                            static_cast<uint8_t>(q.Sensor_No), 0};
        const packed_clear_sensor_list m = {0, -1, 0xFF, 0};
        const packed_clear_sensor_list v = {-1, 0, 0, 0};
        memcpy(&key, &k, sizeof(key));
        memcpy(&key_mask, &m, sizeof(key_mask));
        memcpy(&valid_mask, &v, sizeof(valid_mask));
    }

    /* 1 when entry (s, t) names the query's sensor, else 0. */
    int test(const EscImage& image, int s, int t) const
    {
        uint32_t w;
        memcpy(&w, &image[esc_offset(s, t)], sizeof(w));
        return (w & key_mask) == key && (w & valid_mask) != 0 ? 1 : 0;
    }
};

/* The k-th 8-byte half of a sensor's row of entries: its targets 2k and
 * 2k + 1. */
uint64_t esc_row_word(const EscImage& image, int sensor, int k)
{
    uint64_t w;
    memcpy(&w, &image[esc_offset(sensor, 2 * k)], sizeof(w));
    return w;
}

/* Stores ints a, b side by side as the k-th 8-byte word at `at`: one store
 * where two would be made. */
void store_ints(void* at, int k, int a, int b)
{
    const int pair[2] = {a, b};
    uint64_t w;
    memcpy(&w, pair, sizeof(w));
    memcpy(static_cast<uint8_t*>(at) + k * sizeof(w), &w, sizeof(w));
}

/* A search keeps no list of its own on the heap: matching sensors are
 * listed in a bounded array (at most one entry per file and sensor), targets
 * are bounded by the instance flags. */
struct EscSearch {
    const Esc_Sensor_t& query;
    /* Runs of matching sensors in the order found (file, then sensor): a
     * run's first sensor as file << 9 | sensor << 1 | matched twice, and
     * its length less one. Only the first run_count are set. */
    uint16_t run_head[kInstCount * kSensors];
    uint8_t run_extra[kInstCount * kSensors];
    int run_count = 0;
    int hit_count = 0;
    Esc_Sensor_t targets[kMaxEscTargets] = {};
    int node_count = 0;
    Esc_Sensor_t chassis = {};
    uint32_t found_bits = 0; /* bit n: instance n is a target */
    bool chassis_found = false;
    const EntryMatcher matcher;

    explicit EscSearch(const Esc_Sensor_t& q) : query(q), matcher(q) {}

    /* What the search reads of a row, as a mask of its two words: the valid,
     * instance and sensor bytes of the targets and of the queried entry
     * (never the FRUE byte). Once the chassis is found, a chassis entry that
     * is not the queried one can change nothing. Returned by value: a mask
     * the scan held in memory could be aliased by its byte stores. */
    struct RowMask {
        uint64_t w0;
        uint64_t w1;
    };
    RowMask row_mask() const
    {
        const bool chassis_read = !chassis_found || query.esc_spec == LOG_CLEAR_BOB;
        packed_clear_sensor_list bytes[kTargets] = {};
        for (int t = 0; t < kTargets; ++t) {
            if (t == query.esc_spec || t == LOG_CLEAR_EVEN_NODE || t == LOG_CLEAR_ODD_NODE ||
                (t == LOG_CLEAR_BOB && chassis_read)) {
                bytes[t] = {-1, -1, 0xFF, 0};
            }
        }
        RowMask keep;
        static_assert(sizeof(bytes) == sizeof(keep.w0) + sizeof(keep.w1), "a row is two words");
        memcpy(&keep.w0, &bytes[0], sizeof(keep.w0));
        memcpy(&keep.w1, &bytes[kTargets / 2], sizeof(keep.w1));
        return keep;
    }

    /* Targets naming an instance outside 0..17 are not reported. */
    void take_targets(const EscImage& image, int s)
    {
        for (int t = LOG_CLEAR_EVEN_NODE; t <= LOG_CLEAR_ODD_NODE; ++t) {
            packed_clear_sensor_list e = esc_entry(image, s, t);
            if (e.valid != 0 && valid_inst(e.BMCInst) && (found_bits >> e.BMCInst & 1u) == 0) {
                targets[node_count++] = {t, e.BMCInst, e.fru_sensor};
                found_bits |= 1u << e.BMCInst;
            }
        }
        packed_clear_sensor_list e = esc_entry(image, s, LOG_CLEAR_BOB);
        if (e.valid != 0 && valid_inst(e.BMCInst) && !chassis_found) {
            chassis = {LOG_CLEAR_BOB, e.BMCInst, e.fru_sensor};
            chassis_found = true;
        }
    }

    /* A node query also matches the other node target of the sensor; a
     * sensor matching twice counts twice but its targets are taken once.
     * Tables repeat rows, and a row equal to a matching one right before it
     * (in what the search reads of it, see row_mask) matches alike and adds
     * no target: such rows join its run. The loop keeps its state in
     * locals: the image is bytes, and a store to a member could alias it,
     * forcing reloads on every row. */
    void search_file(const char* path, int f, EscImage& image)
    {
        read_esc_file(path, f, image);
        const EntryMatcher m = matcher;
        if (!m.can_match) {
            return;
        }
        const int target = query.esc_spec;
        const bool node = target == LOG_CLEAR_EVEN_NODE || target == LOG_CLEAR_ODD_NODE;
        const int other = LOG_CLEAR_EVEN_NODE + LOG_CLEAR_ODD_NODE - target; /* read for node queries only */
        const unsigned file_bits = static_cast<unsigned>(f) << 9;
        RowMask keep = row_mask();
        int runs = run_count;
        int hits = hit_count;
        /* Once the chassis and every instance are found, no row can add a
         * target. */
        bool complete = chassis_found && node_count == kInstCount;
        for (int s = 0; s < kSensors; ++s) {
            const int c1 = m.test(image, s, target);
            const int c2 = node ? m.test(image, s, other) : 0;
            if ((c1 | c2) == 0) {
                continue;
            }
            uint64_t row0 = esc_row_word(image, s, 0) & keep.w0;
            uint64_t row1 = esc_row_word(image, s, 1) & keep.w1;
            if (!complete) {
                const bool had_chassis = chassis_found;
                take_targets(image, s);
                complete = chassis_found && node_count == kInstCount;
                if (chassis_found != had_chassis) {
                    keep = row_mask();
                    row0 &= keep.w0;
                    row1 &= keep.w1;
                }
            }
            int end = s + 1;
            while (end < kSensors && (((esc_row_word(image, end, 0) & keep.w0) ^ row0) |
                                      ((esc_row_word(image, end, 1) & keep.w1) ^ row1)) == 0) {
                ++end;
            }
            run_head[runs] = static_cast<uint16_t>(file_bits | static_cast<unsigned>(s) << 1 |
                                                   static_cast<unsigned>(c1 & c2));
            run_extra[runs] = static_cast<uint8_t>(end - s - 1);
            ++runs;
            hits += (c1 + c2) * (end - s);
            s = end - 1;
        }
        run_count = runs;
        hit_count = hits;
    }

    /* The caller's lists; false when an allocation failed. */
    bool fill(Esc_Table_t* out)
    {
        if (chassis_found) {
            targets[node_count] = chassis;
        }
        out->esc_count = node_count + (chassis_found ? 1 : 0);
        out->esc_list = alloc_list(out->esc_count);
        out->frue_count = hit_count;
        out->frue_list = alloc_list(hit_count);
        if (out->esc_list == nullptr || out->frue_list == nullptr) {
            return false;
        }
        memcpy(out->esc_list, targets, static_cast<size_t>(out->esc_count) * sizeof(Esc_Sensor_t));
        /* Each entry is built in registers and stored, a double match's
         * two entries as three 8-byte words: copying a just-stored entry
         * back would stall on store forwarding. */
        Esc_Sensor_t* next = out->frue_list;
        for (int r = 0; r < run_count; ++r) {
            const unsigned v = run_head[r];
            const int f = static_cast<int>(v >> 9);
            const int first = static_cast<int>((v >> 1) & 0xFF);
            const int end = first + 1 + run_extra[r];
            if ((v & 1) != 0) {
                for (int sensor = first; sensor < end; ++sensor) {
                    store_ints(next, 0, 0xFF, f);
                    store_ints(next, 1, sensor, 0xFF);
                    store_ints(next, 2, f, sensor);
                    next += 2;
                }
            } else {
                for (int sensor = first; sensor < end; ++sensor) {
                    *next++ = {0xFF, f, sensor};
                }
            }
        }
        return true;
    }

    /* Caller-owned; allocated also for no entries. */
    static Esc_Sensor_t* alloc_list(int n)
    {
        return static_cast<Esc_Sensor_t*>(malloc(static_cast<size_t>(n > 0 ? n : 1) * sizeof(Esc_Sensor_t)));
    }
};

} // namespace

/* ---- Exported: initial states ------------------------------------------- */

namespace {

/* The power supply sensor of an installed PSU from its status bits. */
void set_psu_status_sensor(Component* psu, int n, uint32_t st)
{
    INT8U status_sns = static_cast<INT8U>(111 + n);
    znpdklib_SetSensorWoS(status_sns, 1, 0, kChassisInst);
    if (st & 0x00000080u) {
        znpdklib_SetSensorWoS(status_sns, 1, 3, kChassisInst);
    }
    if (st & 0x00000020u) {
        znpdklib_SetSensorWoS(status_sns, 1, 2, kChassisInst);
    }
    if (st & 0x00000004u) {
        bool rom = read_common(child(psu, COMPO_FRUROM, 90)).checkStatus(0x00000004u);
        znpdklib_SetSensorWoS(status_sns, 1, rom ? 8 : 6, kChassisInst);
    }
    if (st & 0x0000D000u) {
        znpdklib_SetSensorWoS(status_sns, 1, 1, kChassisInst);
    }
    if (st & 0x20000000u) {
        znpdklib_SetSensorWoS(status_sns, 1, 10, kChassisInst);
    }
    kTraceInit(kLevelInfo, 0x05020002, "[ZN_INIT_SENSOR_PSU]:/PSU#%d power supply sensor setting completed.",
               n);
}

/* The FRU sensor of an installed PSU: the worst of its error bits. */
void set_psu_fru_sensor(int n, uint32_t st)
{
    int fru = 1;
    int frue = 1;
    if (st & 0x00001000u) {
        fru = 7;
        frue = 9;
    } else if (st & 0x00008000u) {
        fru = 6;
        frue = 8;
    } else if (st & 0x00004000u) {
        fru = 4;
        frue = 5;
    }
    znpdklib_exSetSensorWoS(static_cast<INT8U>(50 + n), static_cast<INT8U>(fru), kChassisInst);
    kTraceInit(kLevelInfo, 0x05020003,
               "[ZN_INIT_SENSOR_PSU]:/PSU#%d FRU/FRUE sensor setting completed.(FRU=%d. FRUE=%d)", n, fru,
               frue);
    kTraceInit(kLevelInfo, 0x05020004, "[ZN_INIT_SENSOR_PSU]:PSU redundant sensor not touched in initial.");
}

/* PSUs numbered outside 0..17 have no sensors and are skipped. */
void init_psu_sensors()
{
    for (Component* psu : children(root(), COMPO_PSU)) {
        if (psu == nullptr || psu->getNo() < 0 || psu->getNo() > 17) {
            continue;
        }
        int n = psu->getNo();
        current_common_info_t info = read_common(psu);
        if (!info.isInstalled()) {
            kTraceInit(kLevelInfo, 0x05020001,
                       "[ZN_INIT_SENSOR_PSU]:/PSU#%d not install value set to sensor.", n);
            set_not_installed(50 + n, kChassisInst);
            set_not_installed(179 + n, kChassisInst);
            continue;
        }
        set_psu_status_sensor(psu, n, info.status);
        set_psu_fru_sensor(n, info.status);
    }
}

/* FANUs outside 0..3 and fans outside 0..1 have no sensors and are skipped. */
void init_fanu_sensors()
{
    for (Component* fanu : children(root(), COMPO_FANU)) {
        if (fanu == nullptr || fanu->getNo() < 0 || fanu->getNo() > 3 || installed(fanu)) {
            continue;
        }
        int n = fanu->getNo();
        set_not_installed(201 + n, kChassisInst);
        set_not_installed(205 + n, kChassisInst);
        kTraceInit(kLevelInfo, 0x05158001,
                   "[ZN_INIT_SENSOR_BOB]:/BMCU#0/FANU#%d not install value set to sensor.", n);
        for (Component* fan : children(fanu, COMPO_FAN)) {
            if (fan == nullptr || fan->getNo() < 0 || fan->getNo() > 1 || installed(fan)) {
                continue;
            }
            int m = fan->getNo();
            set_not_installed(209 + 2 * n + m, kChassisInst);
            kTraceInit(kLevelInfo, 0x05158002,
                       "[ZN_INIT_SENSOR_BOB]:/BMCU#0/FANU#%d/FAN#%d not install value set to sensor.", n, m);
        }
    }
}

/* Defaults of a node instance; instances 3 and 11 leave their 0x04 sensors. */
void init_node_defaults(int BMCInst)
{
    for (int s = 0; s < 256; ++s) {
        INT8U sns = static_cast<INT8U>(s);
        if ((BMCInst == 3 || BMCInst == 11) && (GetInstSensorOEM(sns, BMCInst) & 0x04) != 0) {
            continue;
        }
        if (NODE_SENSOR_INIT_VALUE[s] != 0) {
            znpdk_SetAllStatusWoS(BMCInst, sns, NODE_SENSOR_INIT_VALUE[s]);
        }
    }
    kTraceInit(kLevelInfo, 0x05110001,
               "[ZN_INIT_SENSOR_BOB]:default initial value setting completed.[BMCInst=%d]", BMCInst);
}

/* A node's first part of `type`, when missing: its two sensors read not
 * installed. */
void part_not_installed(Component* nodec, int type, int first, int second, int BMCInst)
{
    std::vector<Component*> found = children(nodec, type);
    if (found.empty() || installed(found[0])) {
        return;
    }
    set_not_installed(first, BMCInst);
    set_not_installed(second, BMCInst);
    const int node = node_of_inst(BMCInst);
    if (type == COMPO_SSD) {
        kTraceInit(kLevelInfo, 0x05010005,
                   "[ZN_INIT_SENSOR_BOB]:/CMU#%d/SSD#%d0 not install value set to sensor.", node / 2,
                   node % 2);
    } else {
        kTraceInit(kLevelInfo, 0x05010006,
                   "[ZN_INIT_SENSOR_BOB]:/CMU#%d/PCIECARD#%d0 not install value set to sensor.", node / 2,
                   node % 2);
    }
}

/* The node's first SSD and PCIe card, when missing. */
void init_node_parts(int node, int BMCInst)
{
    Component* nodec = child(root(), COMPO_NODE, node);
    part_not_installed(nodec, COMPO_SSD, 145, 146, BMCInst);
    part_not_installed(nodec, COMPO_PCIECARD, 8, 66, BMCInst);
}

/* A chassis pass between its start line (`id`) and end line (`id` | 0xFF);
 * a pass stopped by an exception reports -1 and has no end line. */
int run_pass(const char* function, void (*pass)(), uint32_t id, const char* start, const char* end)
{
    kTraceInit(kLevelInfo, id, start);
    return guard(function, -1, [&] {
        pass();
        kTraceInit(kLevelInfo, id | 0xFF, end);
        return 0;
    });
}

} // namespace

int znpdklib_Init_Sensor_Bob(void)
{
    kTraceInit(kLevelInfo, 0x05010000, "[ZN_INIT_SENSOR_BOB]:znpdklib_Init_Sensor_Bob start.");
    for (int s = 0; s < 256; ++s) {
        if (BOB_SENSOR_INIT_VALUE[s] != 0) {
            znpdk_SetAllStatusWoS(kChassisInst, static_cast<INT8U>(s), BOB_SENSOR_INIT_VALUE[s]);
        }
    }
    kTraceInit(kLevelInfo, 0x05010001, "[ZN_INIT_SENSOR_BOB]:default initial value setting completed.");
    kTraceInit(kLevelInfo, 0x050100FF, "[ZN_INIT_SENSOR_BOB]:znpdklib_Init_Sensor_Bob end.");
    return 0;
}

int znpdklib_Init_Sensor_PSU(void)
{
    return run_pass(__func__, init_psu_sensors, 0x05020000,
                    "[ZN_INIT_SENSOR_PSU]:znpdklib_Init_Sensor_Psu start.",
                    "[ZN_INIT_SENSOR_PSU]:znpdklib_Init_Sensor_Psu end.");
}

int znpdklib_Init_Sensor_FANU(void)
{
    return run_pass(__func__, init_fanu_sensors, 0x05158000,
                    "[ZN_INIT_SENSOR_FANU]:znpdklib_Init_Sensor_FANU start.",
                    "[ZN_INIT_SENSOR_FANU]:znpdklib_Init_Sensor_FANU end.");
}

int znpdklib_Init_Sensor_Maintenance(void)
{
    kTraceInit(kLevelInfo, 0x05200000, "[INIT_SENSOR_MAINTE]:znpdklib_Init_Sensor_Maintenance start.");
    const setup_system_info_t setup = read_record<setup_system_info_t>(root(), PROP_SETUP_INFO);
    for (int i = 0; i <= 28; ++i) {
        znpdklib_exSetSensorWoS(static_cast<INT8U>(4 + i), setup.maintenance_sensor[i], kChassisInst);
    }
    for (int j = 0; j < 4; ++j) {
        znpdklib_exSetSensorWoS(static_cast<INT8U>(221 + j), setup.maintenance_sensor[32 + j], kChassisInst);
    }
    kTraceInit(kLevelInfo, 0x052000FF, "[INIT_SENSOR_MAINTE]:znpdklib_Init_Sensor_Maintenance end.");
    return 0;
}

/* Node instances are 1 to 16; any other instance is left alone. */
int znpdklib_Init_Sensor_Node(int BMCInst)
{
    if (BMCInst < 1 || BMCInst >= kChassisInst) {
        return 0;
    }
    return guard(__func__, -1, [BMCInst] {
        kTraceInit(kLevelInfo, 0x05110000,
                   "[ZN_INIT_SENSOR_NODE]:znpdklib_Init_Sensor_Node start.[BMCInst=%d]", BMCInst);
        init_node_defaults(BMCInst);
        int node = node_of_inst(BMCInst);
        if (node % 2 == 0) {
            kTraceInit(kLevelInfo, 0x05110002,
                       "[ZN_INIT_SENSOR_NODE]:initialize CMU section start.[BMCInst=%d]", BMCInst);
            Init_Sensor_CMUInst(BMCInst);
        }
        kTraceInit(kLevelInfo, 0x05110004, "[ZN_INIT_SENSOR_NODE]:initialize NDOE section start.[BMCInst=%d]",
                   BMCInst);
        Init_Sensor_NODEInst(BMCInst);
        init_node_parts(node, BMCInst);
        kTraceInit(kLevelInfo, 0x051100FF, "[ZN_INIT_SENSOR_NODE]:znpdklib_Init_Sensor_Node end.[BMCInst=%d]",
                   BMCInst);
        return 0;
    });
}

int znpdklib_Init_Sensor_Giou(int BMCInst)
{
    (void)BMCInst;
    return 0;
}

/* Instances outside 0..17 are ignored. */
int ZNAPI_Sensor_Init(int BMCInst)
{
    if (!valid_inst(BMCInst)) {
        return 0;
    }
    return guard(__func__, -1, [BMCInst] {
        if (is_init_state_acon() != 0) {
            return 0;
        }
        if (BMCInst == kChassisInst) {
            znpdklib_Init_Sensor_Bob();
            znpdklib_Init_Sensor_PSU();
            znpdklib_Init_Sensor_FANU();
            znpdklib_Init_Sensor_Maintenance();
        } else {
            znpdklib_Init_Sensor_Node(BMCInst);
        }
        znpdklib_make_escalation_info(BMCInst);
        return 0;
    });
}

/* ---- Exported: node error evaluation --------------------------------------- */

namespace {

/* The worst FRU error offset of each instance of the pair; a CMU-common
 * sensor counts for both nodes of the CMU. */
void scan_node_errors(int BMCInst, max_frue_offset_t (&worst)[2])
{
    for (int i = 0; i < 2; ++i) {
        int bmc_inst = BMCInst + i;
        for (int sensor = 0; sensor < 256; ++sensor) {
            INT8U sns = static_cast<INT8U>(sensor);
            if (isValidSensorBMCInst(sns, bmc_inst) != 1 || not_scanned(sensor)) {
                continue;
            }
            GetSensorTypeRes_T res;
            memset(&res, 0, sizeof(res));
            INT8U req = sns;
            GetSensorType(&req, 1, reinterpret_cast<INT8U*>(&res), bmc_inst);
            if (res.CompletionCode != 0 || res.SensorType != kTypeFrue) {
                continue;
            }
            int offset = sensor_offset(sensor, bmc_inst);
            if (offset > worst[i].offset) {
                kTraceUtil(kLevelInfo, 0x05160002, kOwnNodeError, node_of_inst(bmc_inst), sensor, offset);
                worst[i] = {sensor, static_cast<uint16_t>(offset)};
            }
            int other_node = 1 - i;
            if (is_cmu_cmn_frue_sns(bmc_inst, sensor) && offset > worst[other_node].offset) {
                kTraceUtil(kLevelInfo, 0x05160003, kCmuCommonError, node_of_inst(bmc_inst), sensor, offset);
                worst[other_node] = {sensor, static_cast<uint16_t>(offset)};
            }
        }
    }
}

/* Moves a node's FRU error status to its evaluation, unless it reads 0. */
void set_node_error(int bmc_inst, const max_frue_offset_t& worst)
{
    int eval = node_fru_error(worst, bmc_inst);
    int cur = sensor_offset(10, bmc_inst);
    int node = node_of_inst(bmc_inst);
    kTraceUtil(kLevelInfo, 0x05160004,
               "[SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node Node#%d cur_node_error=%d eval_node_error=%d",
               node, cur, eval);
    if (cur != 0 && cur != eval) {
        kTraceUtil(kLevelInfo, 0x05160005,
                   "[SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node set offset(%d) to Node#%d FRU Error Status",
                   eval, node);
        znpdklib_exSetSensorWoS(10, static_cast<INT8U>(eval), bmc_inst);
    }
}

} // namespace

/*
 * Pairs are (BMCInst, BMCInst + 1); only first instances 0 to 15 are
 * evaluated, so the chassis instance is never part of a pair.
 */
int znpdklib_Set_Sensor_Node(int BMCInst)
{
    kTraceUtil(kLevelInfo, 0x05160000, "[SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node start. BMCInst=%d",
               BMCInst);
    if (BMCInst == kChassisInst) {
        kTraceUtil(kLevelInfo, 0x05160001,
                   "[SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node not support chassis instance . BMCInst=%d",
                   BMCInst);
        return -1;
    }
    if (BMCInst < 0 || BMCInst + 1 >= kChassisInst) {
        return -1;
    }
    max_frue_offset_t worst[2] = {{-1, 1}, {-1, 1}};
    scan_node_errors(BMCInst, worst);
    for (int i = 0; i < 2; ++i) {
        set_node_error(BMCInst + i, worst[i]);
    }
    kTraceUtil(kLevelInfo, 0x051600FF, "[SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node end. BMCInst=%d", BMCInst);
    return 0;
}

/* ---- Exported: escalation tables -------------------------------------------- */

/* Instances outside 0..17 have no sensor table: nothing is built. */
void znpdklib_make_escalation_info(int BMCInst)
{
    if (!valid_inst(BMCInst)) {
        return;
    }
    guard_void(__func__, [BMCInst] { build_escalation(BMCInst); });
}

/*
 * A null `out` is left alone. A null `in`, a target index outside 0..3 or a
 * target instance outside 0..17 give an empty result (counts 0, lists
 * allocated) without searching.
 */
void znpdklib_get_escalation_info(Esc_Sensor_t* in, Esc_Table_t* out)
{
    if (out == nullptr) {
        return;
    }
    memset(out, 0, sizeof(*out));
    if (in == nullptr || in->esc_spec < 0 || in->esc_spec >= kTargets || !valid_inst(in->BMCInst)) {
        out->frue_list = EscSearch::alloc_list(0);
        out->esc_list = EscSearch::alloc_list(0);
        return;
    }
    kTraceInit(kLevelInfo, 0x05300000, "[znpdklib_get_escalation_info]:start. BMCInst=%d Sensor=%d",
               in->BMCInst, in->Sensor_No);
    /* The lists are made last, by malloc: an exception leaves `out` empty. */
    guard_void(__func__, [in, out] {
        EscImage image;
        char root_dir[kPathMax];
        const char* top = platform_file("", root_dir, sizeof(root_dir)) ? root_dir : nullptr;
        EscSearch search(*in);
        EscPath path;
        esc_file_path(top, 1, path);
        for (int f = 1; f < kInstCount; ++f) {
            retarget_esc_path(path, f);
            search.search_file(path, f, image);
        }
        if (!search.fill(out)) {
            free(out->frue_list);
            free(out->esc_list);
            memset(out, 0, sizeof(*out));
        }
    });
    kTraceInit(kLevelInfo, 0x053000FF,
               "[znpdklib_get_escalation_info]:end. BMCInst=%d Sensor=%d Sensors=%d Escs=%d", in->BMCInst,
               in->Sensor_No, out->frue_count, out->esc_count);
}
