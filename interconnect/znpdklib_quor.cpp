/*
 * Interconnect router ports: wiring, offline/external answers, and the port
 * status sensors driven by the link check and beacon (link-up) procedures.
 */
#include <stdio.h>
#include <string.h>

#include "sp_trace.h"
#include "znlib.h"
#include "znpdklib.h"
#include "znpdklib_internal.h"

/* Wiring of the normal and the small-scale configuration, one row per
 * router; -1 = not wired. */
// clang-format off
const int remote_router_no_list[16][10] = {
    {  8,   2,  -1,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 0 */
    {  9,   3,  -1,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 1 */
    {  0,  10,   4,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 2 */
    {  1,  11,   5,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 3 */
    {  2,  12,   6,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 4 */
    {  3,  13,   7,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 5 */
    {  4,  14,  -1,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 6 */
    {  5,  15,  -1,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 7 */
    {  0,  10,  -1,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 8 */
    {  1,  11,  -1,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 9 */
    {  8,   2,  12,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 10 */
    {  9,   3,  13,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 11 */
    { 10,   4,  14,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 12 */
    { 11,   5,  15,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 13 */
    { 12,   6,  -1,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 14 */
    { 13,   7,  -1,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 15 */
};

const int remote_router_no_list_small[16][10] = {
    {  6,   8,   2,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 0 */
    {  7,   9,   3,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 1 */
    {  0,  10,   4,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 2 */
    {  1,  11,   5,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 3 */
    {  2,  12,   6,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 4 */
    {  3,  13,   7,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 5 */
    {  4,  14,   0,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 6 */
    {  5,  15,   1,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 7 */
    { 14,   0,  10,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 8 */
    { 15,   1,  11,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 9 */
    {  8,   2,  12,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 10 */
    {  9,   3,  13,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 11 */
    { 10,   4,  14,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 12 */
    { 11,   5,  15,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 13 */
    { 12,   6,   8,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 14 */
    { 13,   7,   9,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 15 */
};

const int remote_port_no_list[16][10] = {
    {  2,  -1,   8,   1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 0 */
    {  3,  -1,   9,   0,  -1,  -1,  -1,  -1,  -1,  -1}, /* 1 */
    {  0,   4,  10,   3,  -1,  -1,  -1,  -1,  -1,  -1}, /* 2 */
    {  1,   5,  11,   2,  -1,  -1,  -1,  -1,  -1,  -1}, /* 3 */
    {  6,   2,  12,   5,  -1,  -1,  -1,  -1,  -1,  -1}, /* 4 */
    {  7,   3,  13,   4,  -1,  -1,  -1,  -1,  -1,  -1}, /* 5 */
    {  4,  -1,  14,   7,  -1,  -1,  -1,  -1,  -1,  -1}, /* 6 */
    {  5,  -1,  15,   6,  -1,  -1,  -1,  -1,  -1,  -1}, /* 7 */
    { 10,  -1,   0,   9,  -1,  -1,  -1,  -1,  -1,  -1}, /* 8 */
    { 11,  -1,   1,   8,  -1,  -1,  -1,  -1,  -1,  -1}, /* 9 */
    {  8,  12,   2,  11,  -1,  -1,  -1,  -1,  -1,  -1}, /* 10 */
    {  9,  13,   3,  10,  -1,  -1,  -1,  -1,  -1,  -1}, /* 11 */
    { 14,  10,   4,  13,  -1,  -1,  -1,  -1,  -1,  -1}, /* 12 */
    { 15,  11,   5,  12,  -1,  -1,  -1,  -1,  -1,  -1}, /* 13 */
    { 12,  -1,   6,  15,  -1,  -1,  -1,  -1,  -1,  -1}, /* 14 */
    { 13,  -1,   7,  14,  -1,  -1,  -1,  -1,  -1,  -1}, /* 15 */
};

const int remote_port_no_list_small[16][10] = {
    {  2,   6,   8,   1,  -1,  -1,  -1,  -1,  -1,  -1}, /* 0 */
    {  3,   7,   9,   0,  -1,  -1,  -1,  -1,  -1,  -1}, /* 1 */
    {  0,   4,  10,   3,  -1,  -1,  -1,  -1,  -1,  -1}, /* 2 */
    {  1,   5,  11,   2,  -1,  -1,  -1,  -1,  -1,  -1}, /* 3 */
    {  6,   2,  12,   5,  -1,  -1,  -1,  -1,  -1,  -1}, /* 4 */
    {  7,   3,  13,   4,  -1,  -1,  -1,  -1,  -1,  -1}, /* 5 */
    {  4,   0,  14,   7,  -1,  -1,  -1,  -1,  -1,  -1}, /* 6 */
    {  5,   1,  15,   6,  -1,  -1,  -1,  -1,  -1,  -1}, /* 7 */
    { 10,  14,   0,   9,  -1,  -1,  -1,  -1,  -1,  -1}, /* 8 */
    { 11,  15,   1,   8,  -1,  -1,  -1,  -1,  -1,  -1}, /* 9 */
    {  8,  12,   2,  11,  -1,  -1,  -1,  -1,  -1,  -1}, /* 10 */
    {  9,  13,   3,  10,  -1,  -1,  -1,  -1,  -1,  -1}, /* 11 */
    { 14,  10,   4,  13,  -1,  -1,  -1,  -1,  -1,  -1}, /* 12 */
    { 15,  11,   5,  12,  -1,  -1,  -1,  -1,  -1,  -1}, /* 13 */
    { 12,   8,   6,  15,  -1,  -1,  -1,  -1,  -1,  -1}, /* 14 */
    { 13,   9,   7,  14,  -1,  -1,  -1,  -1,  -1,  -1}, /* 15 */
};
// clang-format on

namespace {

using namespace znpdk;

constexpr Tracer kTraceQuor{T_REGION_LIB_QUOR, SP_MID_BASE_UTIL};
/* The two "continue" lines go to the platform's own region and module. */
constexpr Tracer kTraceContinue{127, 144};

constexpr int kRouterCount = 16;
constexpr int kPortCount = 10;
constexpr uint32_t kAllPorts = 0x3FF;
constexpr int kMainteSensor = 4;
constexpr int kMainteCmuSensorBase = 5;
constexpr int kPortStateSensorBase = 86;
constexpr int kPortErrorSensorBase = 76;
constexpr int kPortClearSensor1Base = 15;
constexpr int kPortClearSensor2Base = 25;
constexpr int kLinkCheckWords = 30;

void trace_continue(uint32_t id, const char* fmt)
{
    kTraceContinue(kLevelInfo, id, fmt);
}

bool valid_router(int routerno)
{
    return routerno >= 0 && routerno < kRouterCount;
}

bool valid_port(int portno)
{
    return portno >= 0 && portno < kPortCount;
}

/* Router number in the form the port map wants it. */
int map_router_arg(int routerno)
{
    return routerno <= 16 ? routerno + 1 : routerno;
}

int physical_port(int routerno, int lportno)
{
    return znlib_getLogic2PhysicPortNo(map_router_arg(routerno), lportno);
}

/* Node instance of a router; wraps instead of overflowing so that a wild
 * router number reaches the sensor layer as an instance it refuses. */
int router_inst(int routerno)
{
    return static_cast<int>(static_cast<unsigned>(routerno) + 1u);
}

/* Sensor numbers are taken modulo 256. */
INT8U sensor_no(int base, int portno)
{
    return static_cast<INT8U>(static_cast<unsigned>(base) + static_cast<unsigned>(portno));
}

void target_path(char* buf, size_t len, int routerno)
{
    snprintf(buf, len, "/SYSTEM#0/ROUTER#%d,/SYSTEM#0/CMUC#%d", routerno, routerno / 2);
}

/* Trace ids of one physical-port query. */
struct PhysicalQueryIds {
    uint32_t start;
    uint32_t bad_router;
    uint32_t bad_port;
    uint32_t read_failed;
    uint32_t end;
    const char* start_fmt;
    const char* bad_router_fmt;
    const char* bad_port_fmt;
    const char* read_failed_fmt;
    const char* end_fmt;
};

const PhysicalQueryIds kOfflineIds = {
    0x5300100,
    0x5300101,
    0x5300102,
    0x5300103,
    0x53001FF,
    "[znpdklib_isPhysicalPortOffline] start (routerno=%d pportno=%d)",
    "[znpdklib_isPhysicalPortOffline] parameter error (routerno=%d)",
    "[znpdklib_isPhysicalPortOffline] parameter error (pportno=%d)",
    "[znpdklib_isPhysicalPortOffline] Failed to get CurrentInfo DB(ret=%d)",
    "[znpdklib_isPhysicalPortOffline] end (routerno=%d pportno=%d ret=%d)",
};

const PhysicalQueryIds kExternalIds = {
    0x5300300,
    0x5300301,
    0x5300302,
    0x5300303,
    0x53003FF,
    "[znpdklib_isPhysicalPortExternal] start (routerno=%d pportno=%d)",
    "[znpdklib_isPhysicalPortExternal] parameter error (routerno=%d)",
    "[znpdklib_isPhysicalPortExternal] parameter error (pportno=%d)",
    "[znpdklib_isPhysicalPortExternal] Failed to get CurrentInfo DB(ret=%d)",
    "[znpdklib_isPhysicalPortExternal] end (routerno=%d pportno=%d ret=%d)",
};

/* Common entry of the physical-port queries: checks the arguments and reads
 * the router record; false (already traced) on a refusal. */
bool read_router_record(const PhysicalQueryIds& ids, int routerno, int pportno,
                        current_router_hard_info_t* info)
{
    char path[128];
    snprintf(path, sizeof(path), "/SYSTEM#0/ROUTER#%d", routerno);
    kTraceQuor(kLevelDetail, ids.start, ids.start_fmt, routerno, pportno);
    if (!valid_router(routerno)) {
        kTraceQuor(kLevelError, ids.bad_router, ids.bad_router_fmt, routerno);
        return false;
    }
    if (!valid_port(pportno)) {
        kTraceQuor(kLevelError, ids.bad_port, ids.bad_port_fmt, pportno);
        return false;
    }
    memset(info, 0, sizeof(*info));
    int ret = znlib_DBGetProperty(path, PROP_CURRENT_HARD_INFO, sizeof(*info), info);
    if (ret != 0) {
        kTraceQuor(kLevelError, ids.read_failed, ids.read_failed_fmt, ret);
        return false;
    }
    return true;
}

/* The two router groups whose port 0 or 1 leaves the machine: with
 * portConfig bit 0x10 clear, port 0 of the first and port 1 of the second;
 * with the bit set, the other way round. */
bool in_external_group(int routerno, bool first)
{
    switch (routerno) {
    case 0:
    case 1:
    case 8:
    case 9:
        return first;
    case 6:
    case 7:
    case 14:
    case 15:
        return !first;
    default:
        return false;
    }
}

/* Row copy shared by the two wiring queries. */
struct RowQueryIds {
    uint32_t start;
    uint32_t bad_router;
    uint32_t null_buffer;
    uint32_t end;
    const char* start_fmt;
    const char* bad_router_fmt;
    const char* null_buffer_fmt;
    const char* end_fmt;
};

int copy_wiring_row(const RowQueryIds& ids, const int (&normal)[16][10], const int (&small)[16][10],
                    int routerno, int* out)
{
    kTraceQuor(kLevelInfo, ids.start, ids.start_fmt, routerno);
    if (!valid_router(routerno)) {
        kTraceQuor(kLevelError, ids.bad_router, ids.bad_router_fmt, routerno);
        return -1;
    }
    if (out == nullptr) {
        kTraceQuor(kLevelError, ids.null_buffer, ids.null_buffer_fmt);
        return -1;
    }
    /* An unreadable setup record (-1) counts as small-scale. */
    const int(&table)[16][10] = znpdklib_isSmallScaleSystemConfiguration() != 0 ? small : normal;
    memcpy(out, table[routerno], sizeof(table[routerno]));
    kTraceQuor(kLevelInfo, ids.end, ids.end_fmt, routerno);
    return 0;
}

/* State word of a chassis sensor: first state byte, then the second one
 * without its top bit. */
int read_chassis_state(int sensor, uint16_t* word)
{
    GetSensorReadingRes_T res;
    memset(&res, 0, sizeof(res));
    int ret = ZNAPI_GetSensorReading(sensor, &res, kChassisInst);
    *word = static_cast<uint16_t>(res.ComparisonStatus | ((res.OptionalStatus & 0x7F) << 8));
    return ret;
}

/* The sensor set that failed, for the update's error traces. */
const char* const kSetFailedFmt =
    "[znpdklib_updateQuorPortStatus] Failed to znpdklib_SetSensorWS(snsno=%d BMCInst=%d ret=%d)";
const char* const kExsetFailedFmt =
    "[znpdklib_updateQuorPortStatus] Failed to znpdklib_exSetSensorWoS(snsno=%d BMCInst=%d ret=%d)";

/* One sensor change; a failure is traced under `id` and turns `*result`
 * into -1. */
void set_port_sensor(INT8U sensor, INT8U dir, INT8U offset, int inst, uint32_t id, int* result)
{
    int ret = znpdklib_SetSensorWoS(sensor, dir, offset, inst);
    if (ret != 0) {
        kTraceQuor(kLevelError, id, kSetFailedFmt, sensor, inst, ret);
        *result = -1;
    }
}

void exset_port_sensor(INT8U sensor, INT8U offset, int inst, uint32_t id, int* result)
{
    int ret = znpdklib_exSetSensorWoS(sensor, offset, inst);
    if (ret != 0) {
        kTraceQuor(kLevelError, id, kExsetFailedFmt, sensor, inst, ret);
        *result = -1;
    }
}

bool link_state_c(uint32_t status)
{
    return (status & 0x30) == 0x30 && (status & 0x3FFC0) != 0xC0;
}

/* The state and error sensors of one logical port from its link status. */
void update_port_sensors(int routerno, int n, uint32_t status, int* result)
{
    const int inst = routerno + 1;
    const INT8U state_sensor = sensor_no(kPortStateSensorBase, n);
    const INT8U error_sensor = sensor_no(kPortErrorSensorBase, n);
    if (znpdklib_isLogicalPortOffline(routerno, n) == 0) {
        set_port_sensor(state_sensor, 0, 0, inst, 0x530060A, result);
    }
    if (status & 0x4) {
        set_port_sensor(state_sensor, 1, 1, inst, 0x5300603, result);
        exset_port_sensor(error_sensor, 0, inst, 0x5300604, result);
    } else if (status & 0x2) {
        exset_port_sensor(error_sensor, 2, inst, 0x5300605, result);
    } else if (link_state_c(status)) {
        exset_port_sensor(error_sensor, 1, inst, 0x5300606, result);
    } else if (znpdklib_isLogicalPortOffline(routerno, n) != 0) {
        set_port_sensor(state_sensor, 1, 0, inst, 0x5300607, result);
        exset_port_sensor(error_sensor, 0, inst, 0x5300608, result);
    } else {
        exset_port_sensor(error_sensor, 0, inst, 0x5300609, result);
    }
}

/* Physical ports the beacon check covers: not waited for, not offline. A
 * waited port whose physical number is outside 0..9 names no port and is
 * left out of the physical mask. */
uint32_t beacon_target_ports(int routerno, uint32_t waitLogicalPort)
{
    uint32_t waited = 0;
    for (int n = 0; n < kPortCount; ++n) {
        if (waitLogicalPort & (1u << n)) {
            int pport = physical_port(routerno, n);
            if (valid_port(pport)) {
                waited |= 1u << pport;
            }
        }
    }
    uint32_t targetPort = ~waited & kAllPorts;
    for (int p = 0; p < kPortCount; ++p) {
        if ((targetPort & (1u << p)) && znpdklib_isPhysicalPortOffline(routerno, p) != 0) {
            targetPort &= ~(1u << p);
        }
    }
    return targetPort;
}

} // namespace

extern "C" {

int znpdklib_isSmallScaleSystemConfiguration(void)
{
    kTraceQuor(kLevelInfo, 0x5300C00, "[znpdklib_isSmallScaleSystemConfiguration] start");
    setup_system_info_t setup;
    memset(&setup, 0, sizeof(setup));
    int ret = znlib_DBGetProperty("/SYSTEM#0", PROP_SETUP_INFO, sizeof(setup), &setup);
    if (ret != 0) {
        kTraceQuor(kLevelError, 0x5300C01,
                   "[znpdklib_isSmallScaleSystemConfiguration] Failed to get SetupInfo DB(ret=%d)", ret);
        return -1;
    }
    int diff = static_cast<int>(setup.quorSpace[1].Z) - static_cast<int>(setup.quorSpace[0].Z);
    int result = diff == 3 ? 1 : 0;
    kTraceQuor(kLevelInfo, 0x5300CFF, "[znpdklib_isSmallScaleSystemConfiguration] end (ret=%d)", result);
    return result;
}

int znpdklib_isPhysicalPortOffline(int routerno, int pportno)
{
    current_router_hard_info_t info;
    if (!read_router_record(kOfflineIds, routerno, pportno, &info)) {
        return -1;
    }
    int result = info.quordata.phyPort[pportno].online != 1 ? 1 : 0;
    kTraceQuor(kLevelDetail, kOfflineIds.end, kOfflineIds.end_fmt, routerno, pportno, result);
    return result;
}

int znpdklib_isLogicalPortOffline(int routerno, int lportno)
{
    kTraceQuor(kLevelDetail, 0x5300200, "[znpdklib_isLogicalPortOffline] start (routerno=%d lportno=%d)",
               routerno, lportno);
    return znpdklib_isPhysicalPortOffline(routerno, physical_port(routerno, lportno));
}

int znpdklib_isPhysicalPortExternal(int routerno, int pportno)
{
    current_router_hard_info_t info;
    if (!read_router_record(kExternalIds, routerno, pportno, &info)) {
        return -1;
    }
    int result = 0;
    if (pportno >= 4) {
        result = 1;
    } else if (pportno <= 1 && znpdklib_isSmallScaleSystemConfiguration() == 0) {
        bool swapped = (info.quordata.portConfig & 0x10) != 0;
        result = in_external_group(routerno, (pportno == 0) != swapped) ? 1 : 0;
    }
    kTraceQuor(kLevelDetail, kExternalIds.end, kExternalIds.end_fmt, routerno, pportno, result);
    return result;
}

int znpdklib_isLogicalPortExternal(int routerno, int lportno)
{
    kTraceQuor(kLevelDetail, 0x5300400, "[znpdklib_isLogicalPortExternal] start (routerno=%d lportno=%d)",
               routerno, lportno);
    return znpdklib_isPhysicalPortExternal(routerno, physical_port(routerno, lportno));
}

int znpdklib_getRemoteRouterNo(int routerno, int* rrouterno)
{
    static const RowQueryIds ids = {
        0x5300900,
        0x5300901,
        0x5300902,
        0x53009FF,
        "[znpdklib_getRemoteRouterNo] start (routerno=%d)",
        "[znpdklib_getRemoteRouterNo] parameter error (routerno=%d)",
        "[znpdklib_getRemoteRouterNo] parameter error (rrouterno=NULL)",
        "[znpdklib_getRemoteRouterNo] end (routerno=%d)",
    };
    return copy_wiring_row(ids, remote_router_no_list, remote_router_no_list_small, routerno, rrouterno);
}

int znpdklib_getConnectedInternalPortNo(int routerno, int* portno)
{
    static const RowQueryIds ids = {
        0x5300B00,
        0x5300B01,
        0x5300B02,
        0x5300BFF,
        "[znpdklib_getConnectedInternalPortNo] start (routerno=%d)",
        "[znpdklib_getConnectedInternalPortNo] parameter error (routerno=%d)",
        "[znpdklib_getConnectedInternalPortNo] parameter error (portno=NULL)",
        "[znpdklib_getConnectedInternalPortNo] end (routerno=%d)",
    };
    return copy_wiring_row(ids, remote_port_no_list, remote_port_no_list_small, routerno, portno);
}

int znpdklib_checkWaitEnableLogicalPort(int routerno, uint32_t* waitLogicalPort)
{
    static const char* const read_failed_fmt =
        "[znpdklib_checkWaitEnableLogicalPort] Failed to ZNAPI_GetSensorReading(snsno=%d BMCInst=%d ret=%d)";
    kTraceQuor(kLevelInfo, 0x5300500, "[znpdklib_checkWaitEnableLogicalPort] start (routerno=%d)", routerno);
    if (!valid_router(routerno)) {
        kTraceQuor(kLevelError, 0x5300501,
                   "[znpdklib_checkWaitEnableLogicalPort] parameter error (routerno=%d)", routerno);
        return -1;
    }
    if (waitLogicalPort == nullptr) {
        kTraceQuor(kLevelError, 0x5300502,
                   "[znpdklib_checkWaitEnableLogicalPort] parameter error (waitLogicalPort=NULL)");
        return -1;
    }
    const int cmu_sensor = kMainteCmuSensorBase + routerno / 2;
    for (int n = 0; n < kPortCount; ++n) {
        const uint32_t bit = 1u << n;
        if (znpdklib_isLogicalPortOffline(routerno, n) != 0) {
            *waitLogicalPort &= ~bit;
            continue;
        }
        if (znpdklib_isLogicalPortExternal(routerno, n) == 0) {
            continue;
        }
        /* An external port is waited for only while both maintenance
         * sensors show bit 0x1; they are read afresh for every port. */
        uint16_t word = 0;
        int ret = read_chassis_state(kMainteSensor, &word);
        if (ret != 0) {
            kTraceQuor(kLevelError, 0x5300503, read_failed_fmt, kMainteSensor, kChassisInst, ret);
            return -1;
        }
        if ((word & 0x1) == 0) {
            *waitLogicalPort &= ~bit;
            continue;
        }
        ret = read_chassis_state(cmu_sensor, &word);
        if (ret != 0) {
            kTraceQuor(kLevelError, 0x5300504, read_failed_fmt, cmu_sensor, kChassisInst, ret);
            return -1;
        }
        if ((word & 0x1) == 0) {
            *waitLogicalPort &= ~bit;
        }
    }
    kTraceQuor(kLevelInfo, 0x53005FF,
               "[znpdklib_checkWaitEnableLogicalPort] end (routerno=%d waitLogicalPort=0x%08x)", routerno,
               static_cast<int>(*waitLogicalPort));
    return 0;
}

int znpdklib_checkWaitEnableInternalLogicalPort(int routerno, uint32_t* waitLogicalPort)
{
    kTraceQuor(kLevelInfo, 0x5300800, "[znpdklib_checkWaitEnableInternalLogicalPort] start (routerno=%d)",
               routerno);
    if (!valid_router(routerno)) {
        kTraceQuor(kLevelError, 0x5300801,
                   "[znpdklib_checkWaitEnableInternalLogicalPort] parameter error (routerno=%d)", routerno);
        return -1;
    }
    if (waitLogicalPort == nullptr) {
        kTraceQuor(kLevelError, 0x5300802,
                   "[znpdklib_checkWaitEnableInternalLogicalPort] parameter error (waitLogicalPort=NULL)");
        return -1;
    }
    for (int n = 0; n < kPortCount; ++n) {
        if (znpdklib_isLogicalPortOffline(routerno, n) != 0 ||
            znpdklib_isLogicalPortExternal(routerno, n) != 0) {
            *waitLogicalPort &= ~(1u << n);
        }
    }
    kTraceQuor(kLevelInfo, 0x53008FF,
               "[znpdklib_checkWaitEnableInternalLogicalPort] end (routerno=%d waitLogicalPort=0x%08x)",
               routerno, static_cast<int>(*waitLogicalPort));
    return 0;
}

int znpdklib_updateQuorPortStatus(int routerno)
{
    int result = 0;
    char target[256];
    target_path(target, sizeof(target), routerno);
    kTraceQuor(kLevelInfo, 0x5300600, "[znpdklib_updateQuorPortStatus] start (routerno=%d)", routerno);
    if (!valid_router(routerno)) {
        kTraceQuor(kLevelError, 0x5300601, "[znpdklib_updateQuorPortStatus] parameter error (routerno=%d)",
                   routerno);
        return -1;
    }

    const uint32_t para[1] = {kAllPorts};
    uint32_t link[kLinkCheckWords];
    memset(link, 0, sizeof(link));
    int ret = znlib_hce_exechap(target, "CPUICC_E_QNR_LINK_CHECK", "", para, link);
    if (ret != 0) {
        kTraceQuor(kLevelError, 0x5300602,
                   "[znpdklib_updateQuorPortStatus] Failed to exec HAP for QuorLinkCheck(ret=%d)", ret);
        if (znpdklib_check_rtnd_error(routerno) != 0) {
            return -2;
        }
        trace_continue(0x530060B, "[znpdklib_updateQuorPortStatus] continue to update quor port status");
        /* Whatever a failed check left behind is not a status. */
        memset(link, 0, sizeof(link));
        result = ret;
    }

    /* A physical port outside 0..9 from the port map has no status word:
     * the port is judged as status 0 (only its offline state counts). */
    uint32_t status[kPortCount];
    for (int n = 0; n < kPortCount; ++n) {
        int pport = physical_port(routerno, n);
        status[n] = valid_port(pport) ? link[pport] : 0;
    }
    for (int n = 0; n < kPortCount; ++n) {
        update_port_sensors(routerno, n, status[n], &result);
    }
    kTraceQuor(kLevelInfo, 0x53006FF, "[znpdklib_updateQuorPortStatus] end (routerno=%d)", routerno);
    return result;
}

int znpdklib_checkBeaconErrorPort(int routerno)
{
    char target[256];
    target_path(target, sizeof(target), routerno);
    uint32_t waitLogicalPort = kAllPorts;
    kTraceQuor(kLevelInfo, 0x5300700, "[znpdklib_checkBeaconErrorPort] start (routerno=%d)", routerno);
    if (!valid_router(routerno)) {
        kTraceQuor(kLevelError, 0x5300701, "[znpdklib_checkBeaconErrorPort] parameter error (routerno=%d)",
                   routerno);
        return -1;
    }
    int ret = znpdklib_checkWaitEnableLogicalPort(routerno, &waitLogicalPort);
    if (ret != 0) {
        kTraceQuor(kLevelError, 0x5300702,
                   "[znpdklib_checkBeaconErrorPort] Failed to checkWaitEnableLogicalPort(routerno=%d ret=%d)",
                   routerno, ret);
        return -1;
    }

    const uint32_t targetPort = beacon_target_ports(routerno, waitLogicalPort);
    kTraceQuor(kLevelInfo, 0x5300703,
               "[znpdklib_checkBeaconErrorPort] Target Physical Port 0x%08x (routerno=%d)",
               static_cast<int>(targetPort), routerno);
    const uint32_t para[2] = {targetPort, 0xFF};
    uint32_t out[1] = {0};
    ret = znlib_hce_exechap(target, "CPUICC_T_QNR_LINK_UP", "", para, out);
    if (ret != 0) {
        kTraceQuor(
            kLevelError, 0x5300704,
            "[znpdklib_checkBeaconErrorPort] Failed to exec HAP for Router#%d Beacon Error Check(ret=%d)",
            routerno, ret);
        if (znpdklib_check_rtnd_error(routerno) != 0) {
            return -2;
        }
        trace_continue(0x5300706, "[znpdklib_checkBeaconErrorPort] continue to check beacon error");
    }

    ret = znpdklib_updateQuorPortStatus(routerno);
    if (ret != 0) {
        kTraceQuor(kLevelError, 0x5300705,
                   "[znpdklib_checkBeaconErrorPort] Failed to updateQuorPortStatus(routerno=%d ret=%d)",
                   routerno, ret);
        return ret;
    }
    kTraceQuor(kLevelInfo, 0x53007FF, "[znpdklib_checkBeaconErrorPort] end (routerno=%d)", routerno);
    return 0;
}

int znpdklib_clearQuorPortErrorStatus(int routerno, int lportno)
{
    int result = 0;
    kTraceQuor(kLevelInfo, 0x5300A00, "[znpdklib_clearQuorPortErrorStatus] start (routerno=%d lportno=%d)",
               routerno, lportno);
    /* No range check here: a wild instance is refused by the sensor layer. */
    const int inst = router_inst(routerno);
    exset_port_sensor(sensor_no(kPortClearSensor1Base, lportno), 1, inst, 0x5300A01, &result);
    exset_port_sensor(sensor_no(kPortClearSensor2Base, lportno), 1, inst, 0x5300A02, &result);
    return result;
}

} // extern "C"
