/* The IPMI stack's part: per-instance sensor tables, SEL, debug output, mutex operations. */
#include <errno.h>
#include <stdarg.h>
#include <string.h>

#include <map>
#include <mutex>
#include <vector>

#include "sim_internal.h"

BMCInfo_t g_BMCInfo[BMC_INSTANCE_COUNT];

namespace zsim {
namespace internal {
namespace {

constexpr int kSensors = 256;

struct IpmiState {
    std::mutex mutex;
    bool present[BMC_INSTANCE_COUNT][kSensors] = {};
    std::map<int, std::string> names; /* inst * 256 + num */
    std::vector<SELEventRecord_T> sel[BMC_INSTANCE_COUNT];
    uint16_t next_id[BMC_INSTANCE_COUNT] = {};
    bool fail_sel = false;
    uint8_t fail_sel_cc = 0xFF;
    int fail_lock[BMC_INSTANCE_COUNT] = {};
    int fail_unlock[BMC_INSTANCE_COUNT] = {};
    uint8_t slave_addr = 0x20;
};

IpmiState& st()
{
    static IpmiState* s = new IpmiState(); /* outlives every static destructor */
    return *s;
}

bool valid_inst(int inst)
{
    return inst >= 0 && inst < BMC_INSTANCE_COUNT;
}

/* The instance owning a sensor mutex, or -1 for any other mutex. */
int inst_of_mutex(const pthread_mutex_t* m)
{
    for (int i = 0; i < BMC_INSTANCE_COUNT; ++i) {
        if (m == &g_BMCInfo[i].SensorSharedMemMutex) {
            return i;
        }
    }
    return -1;
}

struct StaticInit {
    StaticInit()
    {
        for (BMCInfo_t& info : g_BMCInfo) {
            pthread_mutex_init(&info.SensorSharedMemMutex, nullptr);
            info.IpmiConfig.BMCSlaveAddr = 0x20;
        }
    }
} g_static_init;

} // namespace

void reset_ipmi()
{
    IpmiState& s = st();
    std::lock_guard<std::mutex> lock(s.mutex);
    for (int i = 0; i < BMC_INSTANCE_COUNT; ++i) {
        memset(&g_BMCInfo[i].SensorSharedMem, 0, sizeof(g_BMCInfo[i].SensorSharedMem));
        pthread_mutex_init(&g_BMCInfo[i].SensorSharedMemMutex, nullptr);
        g_BMCInfo[i].IpmiConfig.BMCSlaveAddr = 0x20;
        s.sel[i].clear();
        s.next_id[i] = 1;
        s.fail_lock[i] = 0;
        s.fail_unlock[i] = 0;
    }
    memset(s.present, 0, sizeof(s.present));
    s.names.clear();
    s.fail_sel = false;
    s.fail_sel_cc = 0xFF;
    s.slave_addr = 0x20;
}

} // namespace internal

using internal::st;
using internal::valid_inst;

void define_sensor(const SensorDef& def)
{
    if (!valid_inst(def.inst)) {
        return;
    }
    internal::IpmiState& s = st();
    std::lock_guard<std::mutex> lock(s.mutex);
    SensorInfo_T& r = g_BMCInfo[def.inst].SensorSharedMem.SensorInfo[def.num];
    memset(&r, 0, sizeof(r));
    r.SensorReading = def.reading;
    r.PreviousState = def.reading;
    r.SensorNumber = def.num;
    r.SensorTypeCode = def.type;
    r.EventTypeCode = def.event_type;
    r.SensorOwnerLun = def.lun;
    r.OEMField = def.oem;
    r.EventFlags = def.flags;
    r.EventLevel = def.level;
    s.present[def.inst][def.num] = true;
    s.names[def.inst * 256 + def.num] = def.name;
}

void remove_sensor(int inst, uint8_t num)
{
    if (!valid_inst(inst)) {
        return;
    }
    internal::IpmiState& s = st();
    std::lock_guard<std::mutex> lock(s.mutex);
    memset(&g_BMCInfo[inst].SensorSharedMem.SensorInfo[num], 0, sizeof(SensorInfo_T));
    s.present[inst][num] = false;
    s.names.erase(inst * 256 + num);
}

bool sensor_present(int inst, uint8_t num)
{
    if (!valid_inst(inst)) {
        return false;
    }
    std::lock_guard<std::mutex> lock(st().mutex);
    return st().present[inst][num];
}

SensorInfo_T sensor(int inst, uint8_t num)
{
    SensorInfo_T r;
    memset(&r, 0, sizeof(r));
    if (sensor_present(inst, num)) {
        r = g_BMCInfo[inst].SensorSharedMem.SensorInfo[num];
    }
    return r;
}

std::string sensor_name(int inst, uint8_t num)
{
    std::lock_guard<std::mutex> lock(st().mutex);
    auto it = st().names.find(inst * 256 + num);
    return it == st().names.end() ? std::string() : it->second;
}

void set_sensor_reading(int inst, uint8_t num, uint16_t reading)
{
    if (!sensor_present(inst, num)) {
        return;
    }
    SensorInfo_T& r = g_BMCInfo[inst].SensorSharedMem.SensorInfo[num];
    r.SensorReading = reading;
    r.PreviousState = reading;
}

std::vector<SELEventRecord_T> sel(int inst)
{
    if (!valid_inst(inst)) {
        return {};
    }
    std::lock_guard<std::mutex> lock(st().mutex);
    return st().sel[inst];
}

void clear_sel(int inst)
{
    if (!valid_inst(inst)) {
        return;
    }
    std::lock_guard<std::mutex> lock(st().mutex);
    st().sel[inst].clear();
    st().next_id[inst] = 1;
}

void fail_sel_add(bool on, uint8_t cc)
{
    std::lock_guard<std::mutex> lock(st().mutex);
    st().fail_sel = on;
    st().fail_sel_cc = cc;
}

void fail_sensor_mutex_lock(int inst, int err)
{
    if (valid_inst(inst)) {
        std::lock_guard<std::mutex> lock(st().mutex);
        st().fail_lock[inst] = err;
    }
}

void fail_sensor_mutex_unlock(int inst, int err)
{
    if (valid_inst(inst)) {
        std::lock_guard<std::mutex> lock(st().mutex);
        st().fail_unlock[inst] = err;
    }
}

void set_slave_addr(uint8_t addr)
{
    std::lock_guard<std::mutex> lock(st().mutex);
    st().slave_addr = addr;
    for (BMCInfo_t& info : g_BMCInfo) {
        info.IpmiConfig.BMCSlaveAddr = addr;
    }
}

} // namespace zsim

/* ---- The stack's interface ---------------------------------------------- */

extern "C" {

SensorInfo_T* GetSensorInfo(INT8U SensorNum, INT8U OwnerLUN, int BMCInst)
{
    if (OwnerLUN != 0 || !zsim::sensor_present(BMCInst, SensorNum)) {
        return nullptr;
    }
    return &g_BMCInfo[BMCInst].SensorSharedMem.SensorInfo[SensorNum];
}

/* The sensor a one-byte command request names; when there is none the
 * response is the single completion code 0xCB. */
static SensorInfo_T* requested_sensor(const INT8U* pReq, INT8U ReqLen, INT8U* pRes, int BMCInst)
{
    SensorInfo_T* r = (pReq != nullptr && ReqLen >= 1) ? GetSensorInfo(pReq[0], 0, BMCInst) : nullptr;
    if (r == nullptr) {
        pRes[0] = CC_SDR_REC_NOT_PRESENT;
    }
    return r;
}

int GetSensorReading(INT8U* pReq, INT8U ReqLen, INT8U* pRes, int BMCInst)
{
    if (pRes == nullptr) {
        return 0;
    }
    GetSensorReadingRes_T res;
    memset(&res, 0, sizeof(res));
    SensorInfo_T* r = requested_sensor(pReq, ReqLen, pRes, BMCInst);
    if (r == nullptr) {
        return 1;
    }
    uint16_t word = r->SensorReading;
    res.CompletionCode = CC_NORMAL;
    res.SensorReading = r->EventTypeCode == 1 ? static_cast<INT8U>(word & 0xFF) : 0;
    res.Flags = 0xC0; /* event messages and scanning enabled */
    res.ComparisonStatus = static_cast<INT8U>(word & 0xFF);
    res.OptionalStatus = static_cast<INT8U>(((word >> 8) & 0x7F) | 0x80);
    memcpy(pRes, &res, sizeof(res));
    return static_cast<int>(sizeof(res));
}

int GetSensorType(INT8U* pReq, INT8U ReqLen, INT8U* pRes, int BMCInst)
{
    if (pRes == nullptr) {
        return 0;
    }
    GetSensorTypeRes_T res;
    memset(&res, 0, sizeof(res));
    SensorInfo_T* r = requested_sensor(pReq, ReqLen, pRes, BMCInst);
    if (r == nullptr) {
        return 1;
    }
    res.CompletionCode = CC_NORMAL;
    res.SensorType = r->SensorTypeCode;
    res.EventTypeCode = r->EventTypeCode;
    memcpy(pRes, &res, sizeof(res));
    return static_cast<int>(sizeof(res));
}

int AddSELEntry(INT8U* pReq, INT8U ReqLen, INT8U* pRes, int BMCInst)
{
    AddSELRes_T res;
    memset(&res, 0, sizeof(res));
    zsim::internal::IpmiState& s = zsim::internal::st();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (pReq == nullptr || ReqLen < sizeof(SELEventRecord_T) || !zsim::internal::valid_inst(BMCInst)) {
            res.CompletionCode = 0xC7; /* request data length invalid */
        } else if (s.fail_sel) {
            res.CompletionCode = s.fail_sel_cc;
        } else {
            SELEventRecord_T rec;
            memcpy(&rec, pReq, sizeof(rec)); /* kept as the caller built it */
            s.sel[BMCInst].push_back(rec);
            res.RecID = s.next_id[BMCInst]++;
        }
    }
    if (pRes != nullptr) {
        memcpy(pRes, &res, sizeof(res));
    }
    return static_cast<int>(sizeof(res));
}

INT32U GetSelTimeStamp(int BMCInst)
{
    (void)BMCInst;
    return zsim::now();
}

void IDBG_LINUXAPP_DbgOut(int level, const char* fmt, ...)
{
    zsim::TraceLine line;
    line.debug = true;
    line.level = level;
    line.variant = "dbg";
    if (fmt != nullptr) {
        va_list ap;
        va_start(ap, fmt);
        line.text = zsim::internal::vformat(fmt, ap);
        va_end(ap);
    }
    zsim::internal::add_trace(std::move(line));
}

/* The error injected for a sensor mutex (0 = none); sets errno when there is one. */
static int injected_mutex_error(pthread_mutex_t* mutex, bool unlock)
{
    if (mutex == nullptr) {
        errno = EINVAL;
        return EINVAL;
    }
    int inst = zsim::internal::inst_of_mutex(mutex);
    if (inst < 0) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(zsim::internal::st().mutex);
    int err = unlock ? zsim::internal::st().fail_unlock[inst] : zsim::internal::st().fail_lock[inst];
    if (err != 0) {
        errno = err;
    }
    return err;
}

static int mutex_result(int rc)
{
    if (rc != 0) {
        errno = rc;
    }
    return rc;
}

int OS_THREAD_MUTEX_ACQUIRE_LOCK(pthread_mutex_t* mutex)
{
    int err = injected_mutex_error(mutex, false);
    if (err != 0) {
        return err;
    }
    return mutex_result(pthread_mutex_lock(mutex));
}

int OS_THREAD_MUTEX_RELEASE_LOCK(pthread_mutex_t* mutex)
{
    int err = injected_mutex_error(mutex, true);
    if (err != 0) {
        if (mutex != nullptr) {
            /* Released all the same, so that a test cannot wedge the instance. */
            pthread_mutex_unlock(mutex);
        }
        return err;
    }
    return mutex_result(pthread_mutex_unlock(mutex));
}

} // extern "C"
