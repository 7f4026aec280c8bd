/* Forwarding, recording and replay of the platform calls; heap counting. */
#include "platform_calls.h"

#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <map>

#include "ipmi_stack.h"
#include "sp_sysobj.h"
#include "sp_trace.h"
#include "sputil.h"
#include "znlib.h"
#include "znpdk_sim/sim.h"

#ifdef ZNPDK_BENCH_SANITIZE
#include <sanitizer/allocator_interface.h>
#endif

namespace zbench {
namespace {

enum Kind {
    kMutexLock,
    kMutexUnlock,
    kSensorInfo,
    kSensorReading,
    kSensorType,
    kSelAdd,
    kSelTime,
    kTrace2,
    kTrace4,
    kTraceN, /* sp_trace25 to sp_trace28: a[4] holds the value count */
    kHap,
    kHapLog,
    kSaveLog,
    kDbGet,
    kLedRead,
    kLedControl,
    kPsuInfo,
    kClearList,
    kSemOpen,
    kSemLock,
    kSemUnlock,
    kSemClose,
    kSemCloseAll,
    kRoot,
    kChild,
    kChildren,
    kGetProp,
    kSetProp,
    kWriteLock,
    kWriteUnlock,
    kFileExists,
    kFilePath,
    kKinds
};

const char* const kKindNames[kKinds] = {
    "mutex_lock",         "mutex_unlock",       "GetSensorInfo",    "GetSensorReading",
    "GetSensorType",      "AddSELEntry",        "GetSelTimeStamp",  "sp_trace2",
    "sp_trace4",          "sp_trace2N",         "exechap",          "exechap_withlog",
    "save_sel_error_log", "DBGetProperty",      "led_read",         "led_control",
    "psu_ctlinfo",        "clear_sensor_list",  "sem_open",         "sem_lock",
    "sem_unlock",         "sem_close",          "znlib_sem_close",  "getRoot",
    "getComponent",       "getComponent(list)", "getProperty",      "setProperty",
    "writeLock",          "writeUnlock",        "FileCheck::exist", "getSPFilePath"};

std::atomic<uint64_t> g_allocs{0};

thread_local bool t_recording = false;
thread_local int t_depth = 0;
Plan* g_plan = nullptr;

/* The simulated platform's definition of a symbol this binary also defines. */
void* next_symbol(const char* name)
{
    void* p = dlsym(RTLD_NEXT, name);
    if (p == nullptr) {
        fprintf(stderr, "znpdk-bench: platform symbol %s missing\n", name);
        abort();
    }
    return p;
}

template <typename F> F next_fn(const char* name)
{
    return reinterpret_cast<F>(next_symbol(name));
}

/* Marks one call into the platform; only the outermost call is recorded. */
class Entry {
  public:
    explicit Entry(int kind) : call_(nullptr)
    {
        if (t_recording && t_depth == 0) {
            g_plan->emplace_back();
            call_ = &g_plan->back();
            call_->kind = kind;
        }
        ++t_depth;
    }
    ~Entry() { --t_depth; }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;
    /* The call being recorded, or null. */
    Call* call() const { return call_; }

  private:
    Call* call_;
};

void set_ints(Call* c, std::initializer_list<int> v)
{
    int i = 0;
    for (int x : v) {
        c->a[i++] = x;
    }
}

/* Scratch output of replayed calls: large enough for any record or image. */
thread_local uint8_t t_scratch[64 * 1024];

} // namespace

void start_recording()
{
    g_plan = new Plan();
    t_recording = true;
}

Plan stop_recording()
{
    t_recording = false;
    Plan plan = std::move(*g_plan);
    delete g_plan;
    g_plan = nullptr;
    return plan;
}

uint64_t allocations()
{
    return g_allocs.load(std::memory_order_relaxed);
}

std::string summary(const Plan& plan)
{
    std::map<std::string, int> n;
    for (const Call& c : plan) {
        ++n[kKindNames[c.kind]];
    }
    std::string out;
    for (const auto& kv : n) {
        out += (out.empty() ? "" : " ") + kv.first + "=" + std::to_string(kv.second);
    }
    return out;
}

} // namespace zbench

using sp::sysobj::Component;
using zbench::Call;
using zbench::Entry;
using zbench::next_fn;
using zbench::set_ints;

/* ---- Heap counting ------------------------------------------------------ */

#ifdef ZNPDK_BENCH_SANITIZE
namespace {
void count_malloc(const volatile void*, size_t)
{
    zbench::g_allocs.fetch_add(1, std::memory_order_relaxed);
}
struct HookInstall {
    HookInstall() { __sanitizer_install_malloc_and_free_hooks(count_malloc, nullptr); }
} g_hooks;
} // namespace
#else
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

void* malloc(size_t n)
{
    zbench::g_allocs.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(n);
}
void* calloc(size_t n, size_t size)
{
    zbench::g_allocs.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(n, size);
}
void* realloc(void* p, size_t n)
{
    zbench::g_allocs.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(p, n);
}
void* aligned_alloc(size_t align, size_t n)
{
    zbench::g_allocs.fetch_add(1, std::memory_order_relaxed);
    return __libc_memalign(align, n);
}
void* memalign(size_t align, size_t n)
{
    zbench::g_allocs.fetch_add(1, std::memory_order_relaxed);
    return __libc_memalign(align, n);
}
int posix_memalign(void** out, size_t align, size_t n)
{
    zbench::g_allocs.fetch_add(1, std::memory_order_relaxed);
    void* p = __libc_memalign(align, n);
    if (p == nullptr) {
        return 12; /* ENOMEM */
    }
    *out = p;
    return 0;
}
void free(void* p)
{
    __libc_free(p);
}
} // extern "C"
#endif

/* ---- Forwarding entry points -------------------------------------------- */

#define ZB_NEXT(type, name) static const auto next = next_fn<type>(name)

extern "C" {

int OS_THREAD_MUTEX_ACQUIRE_LOCK(pthread_mutex_t* mutex)
{
    ZB_NEXT(int (*)(pthread_mutex_t*), "OS_THREAD_MUTEX_ACQUIRE_LOCK");
    Entry e(zbench::kMutexLock);
    if (Call* c = e.call()) {
        c->ptr = mutex;
    }
    return next(mutex);
}

int OS_THREAD_MUTEX_RELEASE_LOCK(pthread_mutex_t* mutex)
{
    ZB_NEXT(int (*)(pthread_mutex_t*), "OS_THREAD_MUTEX_RELEASE_LOCK");
    Entry e(zbench::kMutexUnlock);
    if (Call* c = e.call()) {
        c->ptr = mutex;
    }
    return next(mutex);
}

SensorInfo_T* GetSensorInfo(INT8U SensorNum, INT8U OwnerLUN, int BMCInst)
{
    ZB_NEXT(SensorInfo_T * (*)(INT8U, INT8U, int), "GetSensorInfo");
    Entry e(zbench::kSensorInfo);
    if (Call* c = e.call()) {
        set_ints(c, {SensorNum, OwnerLUN, BMCInst});
    }
    return next(SensorNum, OwnerLUN, BMCInst);
}

} // extern "C"

namespace {

using IpmiCmd = int (*)(INT8U*, INT8U, INT8U*, int);

int ipmi_command(IpmiCmd next, int kind, INT8U* pReq, INT8U ReqLen, INT8U* pRes, int BMCInst)
{
    Entry e(kind);
    if (Call* c = e.call()) {
        c->a[0] = BMCInst;
        c->a[1] = pReq != nullptr;
        if (pReq != nullptr) {
            c->bytes.assign(pReq, pReq + ReqLen);
        }
    }
    return next(pReq, ReqLen, pRes, BMCInst);
}

void record_trace(Call* c, int level, int region, int module, uint32_t id, const char* fmt)
{
    c->ptr = fmt;
    set_ints(c, {level, region, module, static_cast<int>(id)});
}

} // namespace

extern "C" {

int GetSensorReading(INT8U* pReq, INT8U ReqLen, INT8U* pRes, int BMCInst)
{
    ZB_NEXT(IpmiCmd, "GetSensorReading");
    return ipmi_command(next, zbench::kSensorReading, pReq, ReqLen, pRes, BMCInst);
}

int GetSensorType(INT8U* pReq, INT8U ReqLen, INT8U* pRes, int BMCInst)
{
    ZB_NEXT(IpmiCmd, "GetSensorType");
    return ipmi_command(next, zbench::kSensorType, pReq, ReqLen, pRes, BMCInst);
}

int AddSELEntry(INT8U* pReq, INT8U ReqLen, INT8U* pRes, int BMCInst)
{
    ZB_NEXT(IpmiCmd, "AddSELEntry");
    return ipmi_command(next, zbench::kSelAdd, pReq, ReqLen, pRes, BMCInst);
}

INT32U GetSelTimeStamp(int BMCInst)
{
    ZB_NEXT(INT32U(*)(int), "GetSelTimeStamp");
    Entry e(zbench::kSelTime);
    if (Call* c = e.call()) {
        c->a[0] = BMCInst;
    }
    return next(BMCInst);
}

void sp_trace2(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
               int a4)
{
    ZB_NEXT(void (*)(int, int, int, uint32_t, const char*, int, int, int, int), "sp_trace2");
    Entry e(zbench::kTrace2);
    if (Call* c = e.call()) {
        record_trace(c, level, region, module, id, fmt);
        c->a[4] = a1;
        c->a[5] = a2;
        c->a[6] = a3;
        c->a[7] = a4;
    }
    next(level, region, module, id, fmt, a1, a2, a3, a4);
}

void sp_trace4(int level, int region, int module, uint32_t id, const char* fmt, const char* s)
{
    ZB_NEXT(void (*)(int, int, int, uint32_t, const char*, const char*), "sp_trace4");
    Entry e(zbench::kTrace4);
    if (Call* c = e.call()) {
        record_trace(c, level, region, module, id, fmt);
        c->a[4] = s != nullptr;
        c->s[0] = s != nullptr ? s : "";
    }
    next(level, region, module, id, fmt, s);
}

/* sp_trace25 to sp_trace28 share one replay: the value count in a[4], the
 * values from a[5] on (at most 5 are kept; the others replay as 0). */
#define ZB_TRACE_N(name, count, ...)                                                                         \
    ZB_NEXT(decltype(&name), #name);                                                                         \
    Entry e(zbench::kTraceN);                                                                                \
    if (Call* c = e.call()) {                                                                                \
        record_trace(c, level, region, module, id, fmt);                                                     \
        const int v[] = {__VA_ARGS__};                                                                       \
        c->a[4] = count;                                                                                     \
        c->bytes.assign(reinterpret_cast<const uint8_t*>(v), reinterpret_cast<const uint8_t*>(v + count));   \
    }

void sp_trace25(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
                int a4, int a5)
{
    ZB_TRACE_N(sp_trace25, 5, a1, a2, a3, a4, a5);
    next(level, region, module, id, fmt, a1, a2, a3, a4, a5);
}

void sp_trace26(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
                int a4, int a5, int a6)
{
    ZB_TRACE_N(sp_trace26, 6, a1, a2, a3, a4, a5, a6);
    next(level, region, module, id, fmt, a1, a2, a3, a4, a5, a6);
}

void sp_trace27(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
                int a4, int a5, int a6, int a7)
{
    ZB_TRACE_N(sp_trace27, 7, a1, a2, a3, a4, a5, a6, a7);
    next(level, region, module, id, fmt, a1, a2, a3, a4, a5, a6, a7);
}

void sp_trace28(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
                int a4, int a5, int a6, int a7, int a8)
{
    ZB_TRACE_N(sp_trace28, 8, a1, a2, a3, a4, a5, a6, a7, a8);
    next(level, region, module, id, fmt, a1, a2, a3, a4, a5, a6, a7, a8);
}

} // extern "C"

namespace {

/* The parameter words the simulated procedure read (it keeps them). */
void record_hap(Call* c, const char* target, const char* procedure, const char* mode, const uint32_t* para)
{
    c->s[0] = target != nullptr ? target : "";
    c->s[1] = procedure != nullptr ? procedure : "";
    c->s[2] = mode != nullptr ? mode : "";
    c->a[0] = para != nullptr;
    std::vector<zsim::HapCall> calls = zsim::hap_calls();
    if (para != nullptr && !calls.empty()) {
        const std::vector<uint32_t>& words = calls.back().para;
        c->bytes.assign(reinterpret_cast<const uint8_t*>(words.data()),
                        reinterpret_cast<const uint8_t*>(words.data() + words.size()));
        c->bytes.resize(c->bytes.size() + 64, 0); /* room past what the model reads */
    }
}

} // namespace

extern "C" {

int znlib_hce_exechap(const char* target, const char* procedure, const char* mode, const uint32_t* para,
                      uint32_t* data)
{
    ZB_NEXT(decltype(&znlib_hce_exechap), "znlib_hce_exechap");
    Entry e(zbench::kHap);
    const int ret = next(target, procedure, mode, para, data);
    if (Call* c = e.call()) {
        record_hap(c, target, procedure, mode, para);
    }
    return ret;
}

int znlib_hce_exechap_noerrlogregist_withlinklog(const char* target, const char* procedure, const char* mode,
                                                 const uint32_t* para, uint32_t* data, splog_info* loginfo,
                                                 splog_linkup_info* loglink)
{
    ZB_NEXT(decltype(&znlib_hce_exechap_noerrlogregist_withlinklog),
            "znlib_hce_exechap_noerrlogregist_withlinklog");
    Entry e(zbench::kHapLog);
    const int ret = next(target, procedure, mode, para, data, loginfo, loglink);
    if (Call* c = e.call()) {
        record_hap(c, target, procedure, mode, para);
    }
    return ret;
}

int znpdklib_log_save_sel_error_log(splog_info* loginfo, splog_linkup_info* loglink)
{
    ZB_NEXT(decltype(&znpdklib_log_save_sel_error_log), "znpdklib_log_save_sel_error_log");
    Entry e(zbench::kSaveLog);
    if (Call* c = e.call()) {
        c->bytes.resize(sizeof(splog_info) + sizeof(splog_linkup_info));
        if (loginfo != nullptr) {
            memcpy(c->bytes.data(), loginfo, sizeof(splog_info));
        }
        if (loglink != nullptr) {
            memcpy(c->bytes.data() + sizeof(splog_info), loglink, sizeof(splog_linkup_info));
        }
    }
    return next(loginfo, loglink);
}

int znlib_DBGetProperty(const char* path, int key, unsigned int size, void* buffer)
{
    ZB_NEXT(decltype(&znlib_DBGetProperty), "znlib_DBGetProperty");
    Entry e(zbench::kDbGet);
    if (Call* c = e.call()) {
        c->s[0] = path != nullptr ? path : "";
        set_ints(c, {key, static_cast<int>(size)});
    }
    return next(path, key, size, buffer);
}

int znlib_led_read(int compo_type, int compo_no, int led, int option)
{
    ZB_NEXT(decltype(&znlib_led_read), "znlib_led_read");
    Entry e(zbench::kLedRead);
    if (Call* c = e.call()) {
        set_ints(c, {compo_type, compo_no, led, option});
    }
    return next(compo_type, compo_no, led, option);
}

int znlib_led_control(int compo_type, int compo_no, int led, int state)
{
    ZB_NEXT(decltype(&znlib_led_control), "znlib_led_control");
    Entry e(zbench::kLedControl);
    if (Call* c = e.call()) {
        set_ints(c, {compo_type, compo_no, led, state});
    }
    return next(compo_type, compo_no, led, state);
}

int znlib_psu_ctlinfo(int psuno, uint32_t* psuinfo)
{
    ZB_NEXT(decltype(&znlib_psu_ctlinfo), "znlib_psu_ctlinfo");
    Entry e(zbench::kPsuInfo);
    if (Call* c = e.call()) {
        c->a[0] = psuno;
    }
    return next(psuno, psuinfo);
}

int znlib_log_get_clear_sensor_list(int BMCInst, int sensor, splog_clear_sensor_list* list)
{
    ZB_NEXT(decltype(&znlib_log_get_clear_sensor_list), "znlib_log_get_clear_sensor_list");
    Entry e(zbench::kClearList);
    if (Call* c = e.call()) {
        set_ints(c, {BMCInst, sensor});
    }
    return next(BMCInst, sensor, list);
}

sem_t* _znlib_sem_open(const char* name, int flag)
{
    ZB_NEXT(decltype(&_znlib_sem_open), "_znlib_sem_open");
    Entry e(zbench::kSemOpen);
    if (Call* c = e.call()) {
        c->s[0] = name != nullptr ? name : "";
        c->a[0] = flag;
    }
    return next(name, flag);
}

int _znlib_sem_lock(sem_t* handle, const char* name, int flag)
{
    ZB_NEXT(decltype(&_znlib_sem_lock), "_znlib_sem_lock");
    Entry e(zbench::kSemLock);
    if (Call* c = e.call()) {
        c->ptr = handle;
        c->s[0] = name != nullptr ? name : "";
        c->a[0] = flag;
    }
    return next(handle, name, flag);
}

int _znlib_sem_unlock(sem_t* handle, const char* name, int flag)
{
    ZB_NEXT(decltype(&_znlib_sem_unlock), "_znlib_sem_unlock");
    Entry e(zbench::kSemUnlock);
    if (Call* c = e.call()) {
        c->ptr = handle;
        c->s[0] = name != nullptr ? name : "";
        c->a[0] = flag;
    }
    return next(handle, name, flag);
}

int _znlib_sem_close(sem_t* handle, int flag)
{
    ZB_NEXT(decltype(&_znlib_sem_close), "_znlib_sem_close");
    Entry e(zbench::kSemClose);
    if (Call* c = e.call()) {
        c->ptr = handle;
        c->a[0] = flag;
    }
    return next(handle, flag);
}

int znlib_sem_close(sem_t* handle)
{
    ZB_NEXT(decltype(&znlib_sem_close), "znlib_sem_close");
    Entry e(zbench::kSemCloseAll);
    if (Call* c = e.call()) {
        c->ptr = handle;
    }
    return next(handle);
}

} // extern "C"

/* The component database and file helpers are C++: the simulated platform's
 * definitions are found by their mangled names and called with the object
 * as first argument. */
Component* Component::getRoot()
{
    ZB_NEXT(Component * (*)(), "_ZN2sp6sysobj9Component7getRootEv");
    Entry e(zbench::kRoot);
    return next();
}

Component* Component::getComponent(int type, int no)
{
    ZB_NEXT(Component * (*)(Component*, int, int), "_ZN2sp6sysobj9Component12getComponentEii");
    Entry e(zbench::kChild);
    if (Call* c = e.call()) {
        c->ptr = this;
        set_ints(c, {type, no});
    }
    return next(this, type, no);
}

void Component::getComponent(int type, std::vector<Component*>& list)
{
    ZB_NEXT(void (*)(Component*, int, std::vector<Component*>&),
            "_ZN2sp6sysobj9Component12getComponentEiRSt6vectorIPS1_SaIS3_EE");
    Entry e(zbench::kChildren);
    if (Call* c = e.call()) {
        c->ptr = this;
        c->a[0] = type;
    }
    next(this, type, list);
}

int Component::getProperty(int key, void* buffer, unsigned int length)
{
    ZB_NEXT(int (*)(Component*, int, void*, unsigned int), "_ZN2sp6sysobj9Component11getPropertyEiPvj");
    Entry e(zbench::kGetProp);
    if (Call* c = e.call()) {
        c->ptr = this;
        set_ints(c, {key, static_cast<int>(length)});
    }
    return next(this, key, buffer, length);
}

int Component::setProperty(int key, const void* buffer, unsigned int length)
{
    ZB_NEXT(int (*)(Component*, int, const void*, unsigned int),
            "_ZN2sp6sysobj9Component11setPropertyEiPKvj");
    Entry e(zbench::kSetProp);
    if (Call* c = e.call()) {
        c->ptr = this;
        c->a[0] = key;
        if (buffer != nullptr) {
            c->bytes.assign(static_cast<const uint8_t*>(buffer),
                            static_cast<const uint8_t*>(buffer) + length);
        }
    }
    return next(this, key, buffer, length);
}

void Component::writeLock()
{
    ZB_NEXT(void (*)(Component*), "_ZN2sp6sysobj9Component9writeLockEv");
    Entry e(zbench::kWriteLock);
    if (Call* c = e.call()) {
        c->ptr = this;
    }
    next(this);
}

void Component::writeUnlock()
{
    ZB_NEXT(void (*)(Component*), "_ZN2sp6sysobj9Component11writeUnlockEv");
    Entry e(zbench::kWriteUnlock);
    if (Call* c = e.call()) {
        c->ptr = this;
    }
    next(this);
}

bool sp::util::file::FileCheck::exist(const std::string& path_)
{
    ZB_NEXT(bool (*)(const std::string&),
            "_ZN2sp4util4file9FileCheck5existERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE");
    Entry e(zbench::kFileExists);
    if (Call* c = e.call()) {
        c->s[0] = path_;
    }
    return next(path_);
}

std::string getSPFilePath(const std::string& filePath)
{
    ZB_NEXT(std::string(*)(const std::string&),
            "_Z13getSPFilePathRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE");
    Entry e(zbench::kFilePath);
    if (Call* c = e.call()) {
        c->s[0] = filePath;
    }
    return next(filePath);
}

/* ---- Replay ------------------------------------------------------------- */

namespace zbench {

void replay(const Plan& plan, uint32_t* shared_word)
{
    uint8_t* out = t_scratch;
    for (const Call& c : plan) {
        const int* a = c.a;
        switch (c.kind) {
        case kMutexLock:
            OS_THREAD_MUTEX_ACQUIRE_LOCK(static_cast<pthread_mutex_t*>(const_cast<void*>(c.ptr)));
            break;
        case kMutexUnlock:
            OS_THREAD_MUTEX_RELEASE_LOCK(static_cast<pthread_mutex_t*>(const_cast<void*>(c.ptr)));
            break;
        case kSensorInfo:
            GetSensorInfo(static_cast<INT8U>(a[0]), static_cast<INT8U>(a[1]), a[2]);
            break;
        case kSensorReading:
        case kSensorType:
        case kSelAdd: {
            INT8U req[64] = {};
            const size_t n = c.bytes.size() < sizeof(req) ? c.bytes.size() : sizeof(req);
            memcpy(req, c.bytes.data(), n);
            INT8U* p = a[1] != 0 ? req : nullptr;
            const INT8U len = static_cast<INT8U>(n);
            if (c.kind == kSensorReading) {
                GetSensorReading(p, len, out, a[0]);
            } else if (c.kind == kSensorType) {
                GetSensorType(p, len, out, a[0]);
            } else {
                AddSELEntry(p, len, out, a[0]);
            }
            break;
        }
        case kSelTime:
            GetSelTimeStamp(a[0]);
            break;
        case kTrace2:
            sp_trace2(a[0], a[1], a[2], static_cast<uint32_t>(a[3]), static_cast<const char*>(c.ptr), a[4],
                      a[5], a[6], a[7]);
            break;
        case kTrace4:
            sp_trace4(a[0], a[1], a[2], static_cast<uint32_t>(a[3]), static_cast<const char*>(c.ptr),
                      a[4] != 0 ? c.s[0].c_str() : nullptr);
            break;
        case kTraceN: {
            int v[8] = {};
            memcpy(v, c.bytes.data(), c.bytes.size() < sizeof(v) ? c.bytes.size() : sizeof(v));
            const char* fmt = static_cast<const char*>(c.ptr);
            const uint32_t id = static_cast<uint32_t>(a[3]);
            switch (a[4]) {
            case 5:
                sp_trace25(a[0], a[1], a[2], id, fmt, v[0], v[1], v[2], v[3], v[4]);
                break;
            case 6:
                sp_trace26(a[0], a[1], a[2], id, fmt, v[0], v[1], v[2], v[3], v[4], v[5]);
                break;
            case 7:
                sp_trace27(a[0], a[1], a[2], id, fmt, v[0], v[1], v[2], v[3], v[4], v[5], v[6]);
                break;
            default:
                sp_trace28(a[0], a[1], a[2], id, fmt, v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7]);
                break;
            }
            break;
        }
        case kHap:
        case kHapLog: {
            const uint32_t* para = a[0] != 0 ? reinterpret_cast<const uint32_t*>(c.bytes.data()) : nullptr;
            uint32_t* data = reinterpret_cast<uint32_t*>(out);
            if (c.kind == kHap) {
                znlib_hce_exechap(c.s[0].c_str(), c.s[1].c_str(), c.s[2].c_str(), para, data);
            } else {
                splog_info info;
                splog_linkup_info link;
                memset(&info, 0, sizeof(info));
                memset(&link, 0, sizeof(link));
                znlib_hce_exechap_noerrlogregist_withlinklog(c.s[0].c_str(), c.s[1].c_str(), c.s[2].c_str(),
                                                             para, data, &info, &link);
            }
            break;
        }
        case kSaveLog: {
            splog_info info;
            splog_linkup_info link;
            memcpy(&info, c.bytes.data(), sizeof(info));
            memcpy(&link, c.bytes.data() + sizeof(info), sizeof(link));
            znpdklib_log_save_sel_error_log(&info, &link);
            break;
        }
        case kDbGet:
            znlib_DBGetProperty(c.s[0].c_str(), a[0], static_cast<unsigned>(a[1]), out);
            break;
        case kLedRead:
            znlib_led_read(a[0], a[1], a[2], a[3]);
            break;
        case kLedControl:
            znlib_led_control(a[0], a[1], a[2], a[3]);
            break;
        case kPsuInfo:
            znlib_psu_ctlinfo(a[0], reinterpret_cast<uint32_t*>(out));
            break;
        case kClearList:
            znlib_log_get_clear_sensor_list(a[0], a[1], reinterpret_cast<splog_clear_sensor_list*>(out));
            break;
        case kSemOpen:
            _znlib_sem_open(c.s[0].c_str(), a[0]);
            break;
        case kSemLock:
            if (_znlib_sem_lock(static_cast<sem_t*>(const_cast<void*>(c.ptr)), c.s[0].c_str(), a[0]) == 0) {
                __atomic_store_n(shared_word, __atomic_load_n(shared_word, __ATOMIC_RELAXED) + 1,
                                 __ATOMIC_RELAXED);
            }
            break;
        case kSemUnlock:
            _znlib_sem_unlock(static_cast<sem_t*>(const_cast<void*>(c.ptr)), c.s[0].c_str(), a[0]);
            break;
        case kSemClose:
            _znlib_sem_close(static_cast<sem_t*>(const_cast<void*>(c.ptr)), a[0]);
            break;
        case kSemCloseAll:
            znlib_sem_close(static_cast<sem_t*>(const_cast<void*>(c.ptr)));
            break;
        case kRoot:
            Component::getRoot();
            break;
        case kChild:
            static_cast<Component*>(const_cast<void*>(c.ptr))->getComponent(a[0], a[1]);
            break;
        case kChildren: {
            std::vector<Component*> list;
            static_cast<Component*>(const_cast<void*>(c.ptr))->getComponent(a[0], list);
            break;
        }
        case kGetProp:
            static_cast<Component*>(const_cast<void*>(c.ptr))
                ->getProperty(a[0], out, static_cast<unsigned>(a[1]));
            break;
        case kSetProp:
            static_cast<Component*>(const_cast<void*>(c.ptr))
                ->setProperty(a[0], c.bytes.data(), static_cast<unsigned>(c.bytes.size()));
            break;
        case kWriteLock:
            static_cast<Component*>(const_cast<void*>(c.ptr))->writeLock();
            break;
        case kWriteUnlock:
            static_cast<Component*>(const_cast<void*>(c.ptr))->writeUnlock();
            break;
        case kFileExists:
            sp::util::file::FileCheck::exist(c.s[0]);
            break;
        case kFilePath:
            getSPFilePath(c.s[0]);
            break;
        default:
            break;
        }
    }
}

} // namespace zbench
