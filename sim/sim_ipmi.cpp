/* The IPMI stack's part: per-instance sensor tables, SEL, debug output, mutex operations. */
#include <errno.h>
#include <stdarg.h>
#include <string.h>

#include <atomic>
#include <map>
#include <mutex>
#include <vector>

#include "sim_internal.h"

BMCInfo_t g_BMCInfo[BMC_INSTANCE_COUNT];

namespace zsim {
namespace internal {
namespace {

constexpr int kSensors = 256;

/* One instance of the stack. As in the real stack each instance has its own
 * lock, so that work on different instances runs in parallel; the flags read
 * on every call are atomics, so the lookup and the mutex calls take no lock. */
struct InstState {
    std::mutex mutex; /* guards names, sel, next_id */
    std::atomic<bool> present[kSensors] = {};
    std::map<int, std::string> names;
    std::vector<SELEventRecord_T> sel;
    uint16_t next_id = 1;
    std::atomic<int> fail_lock{0};
    std::atomic<int> fail_unlock{0};
};

/* The injected SEL failure: kSelFailing set, completion code in the low byte
 * (one word, so that a reader never sees the flag without its code). */
constexpr unsigned kSelFailing = 0x100;

struct IpmiState {
    InstState inst[BMC_INSTANCE_COUNT];
    std::atomic<unsigned> fail_sel{0};
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
    const uintptr_t first = reinterpret_cast<uintptr_t>(&g_BMCInfo[0].SensorSharedMemMutex);
    const uintptr_t at = reinterpret_cast<uintptr_t>(m);
    if (at < first || (at - first) % sizeof(BMCInfo_t) != 0) {
        return -1;
    }
    const uintptr_t inst = (at - first) / sizeof(BMCInfo_t);
    return inst < BMC_INSTANCE_COUNT ? static_cast<int>(inst) : -1;
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
    for (int i = 0; i < BMC_INSTANCE_COUNT; ++i) {
        InstState& in = s.inst[i];
        std::lock_guard<std::mutex> lock(in.mutex);
        memset(&g_BMCInfo[i].SensorSharedMem, 0, sizeof(g_BMCInfo[i].SensorSharedMem));
        pthread_mutex_init(&g_BMCInfo[i].SensorSharedMemMutex, nullptr);
        g_BMCInfo[i].IpmiConfig.BMCSlaveAddr = 0x20;
        in.sel.clear();
        in.next_id = 1;
        in.fail_lock = 0;
        in.fail_unlock = 0;
        for (std::atomic<bool>& p : in.present) {
            p.store(false, std::memory_order_relaxed);
        }
        in.names.clear();
    }
    s.fail_sel = 0;
}

std::vector<int> sensor_mutexes_held()
{
    std::vector<int> out;
    for (int i = 0; i < BMC_INSTANCE_COUNT; ++i) {
        pthread_mutex_t* m = &g_BMCInfo[i].SensorSharedMemMutex;
        if (pthread_mutex_trylock(m) == 0) {
            pthread_mutex_unlock(m);
        } else {
            out.push_back(i);
        }
    }
    return out;
}

} // namespace internal

using internal::st;
using internal::valid_inst;

void define_sensor(const SensorDef& def)
{
    if (!valid_inst(def.inst)) {
        return;
    }
    internal::InstState& in = st().inst[def.inst];
    std::lock_guard<std::mutex> lock(in.mutex);
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
    in.present[def.num].store(true, std::memory_order_release); /* after the record */
    in.names[def.num] = def.name;
}

void remove_sensor(int inst, uint8_t num)
{
    if (!valid_inst(inst)) {
        return;
    }
    internal::InstState& in = st().inst[inst];
    std::lock_guard<std::mutex> lock(in.mutex);
    in.present[num].store(false, std::memory_order_release);
    memset(&g_BMCInfo[inst].SensorSharedMem.SensorInfo[num], 0, sizeof(SensorInfo_T));
    in.names.erase(num);
}

bool sensor_present(int inst, uint8_t num)
{
    return valid_inst(inst) && st().inst[inst].present[num].load(std::memory_order_acquire);
}

SensorInfo_T sensor(int inst, uint8_t num)
{
    SensorInfo_T r;
    memset(&r, 0, sizeof(r));
    if (sensor_present(inst, num)) {
        /* The whole record under the instance's sensor mutex, as the stack reads it: a library
         * thread may be changing it (the reading and its previous state) at this moment. */
        pthread_mutex_t* m = &g_BMCInfo[inst].SensorSharedMemMutex;
        pthread_mutex_lock(m);
        r = g_BMCInfo[inst].SensorSharedMem.SensorInfo[num];
        pthread_mutex_unlock(m);
    }
    return r;
}

std::string sensor_name(int inst, uint8_t num)
{
    if (!valid_inst(inst)) {
        return std::string();
    }
    internal::InstState& in = st().inst[inst];
    std::lock_guard<std::mutex> lock(in.mutex);
    auto it = in.names.find(num);
    return it == in.names.end() ? std::string() : it->second;
}

void set_sensor_reading(int inst, uint8_t num, uint16_t reading)
{
    if (!sensor_present(inst, num)) {
        return;
    }
    SensorInfo_T& r = g_BMCInfo[inst].SensorSharedMem.SensorInfo[num];
    pthread_mutex_t* m = &g_BMCInfo[inst].SensorSharedMemMutex;
    pthread_mutex_lock(m);
    __atomic_store_n(&r.SensorReading, reading, __ATOMIC_RELAXED);
    r.PreviousState = reading;
    pthread_mutex_unlock(m);
}

std::vector<SELEventRecord_T> sel(int inst)
{
    if (!valid_inst(inst)) {
        return {};
    }
    internal::InstState& in = st().inst[inst];
    std::lock_guard<std::mutex> lock(in.mutex);
    return in.sel;
}

void clear_sel(int inst)
{
    if (!valid_inst(inst)) {
        return;
    }
    internal::InstState& in = st().inst[inst];
    std::lock_guard<std::mutex> lock(in.mutex);
    in.sel.clear();
    in.next_id = 1;
}

void fail_sel_add(bool on, uint8_t cc)
{
    st().fail_sel = on ? (internal::kSelFailing | cc) : 0u;
}

void fail_sensor_mutex_lock(int inst, int err)
{
    if (valid_inst(inst)) {
        st().inst[inst].fail_lock = err;
    }
}

void fail_sensor_mutex_unlock(int inst, int err)
{
    if (valid_inst(inst)) {
        st().inst[inst].fail_unlock = err;
    }
}

void set_slave_addr(uint8_t addr)
{
    for (int i = 0; i < BMC_INSTANCE_COUNT; ++i) {
        std::lock_guard<std::mutex> lock(st().inst[i].mutex);
        g_BMCInfo[i].IpmiConfig.BMCSlaveAddr = addr;
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
    /* The library stores the word atomically under the instance's sensor
     * mutex; readers here take no lock. */
    const uint16_t word = __atomic_load_n(&r->SensorReading, __ATOMIC_RELAXED);
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
    const unsigned fail = zsim::internal::st().fail_sel;
    if (pReq == nullptr || ReqLen < sizeof(SELEventRecord_T) || !zsim::internal::valid_inst(BMCInst)) {
        res.CompletionCode = 0xC7; /* request data length invalid */
    } else if ((fail & zsim::internal::kSelFailing) != 0) {
        res.CompletionCode = static_cast<INT8U>(fail & 0xFF);
    } else {
        SELEventRecord_T rec;
        memcpy(&rec, pReq, sizeof(rec)); /* kept as the caller built it */
        zsim::internal::InstState& in = zsim::internal::st().inst[BMCInst];
        std::lock_guard<std::mutex> lock(in.mutex);
        in.sel.push_back(rec);
        res.RecID = in.next_id++;
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
    const zsim::internal::InstState& in = zsim::internal::st().inst[inst];
    const int err = unlock ? in.fail_unlock.load() : in.fail_lock.load();
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
