/* Forwarding, recording and replay of the platform calls; heap counting. */
#include "platform_calls.h"

#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <map>
#include <set>
#include <type_traits>

#include "ipmi_stack.h"
#include "sp_sysobj.h"
#include "sp_trace.h"
#include "sputil.h"
#include "znlib.h"
#include "znpdk_sim/sim.h"

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
    kTrace25,
    kTrace26,
    kTrace27,
    kTrace28,
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
    kSpRoot,
    kKinds
};

const char* const kKindNames[] = {
    "mutex_lock",         "mutex_unlock",     "GetSensorInfo",   "GetSensorReading",
    "GetSensorType",      "AddSELEntry",      "GetSelTimeStamp", "sp_trace2",
    "sp_trace4",          "sp_trace25",       "sp_trace26",      "sp_trace27",
    "sp_trace28",         "exechap",          "exechap_withlog", "save_sel_error_log",
    "DBGetProperty",      "led_read",         "led_control",     "psu_ctlinfo",
    "clear_sensor_list",  "sem_open",         "sem_lock",        "sem_unlock",
    "sem_close",          "znlib_sem_close",  "getRoot",         "getComponent",
    "getComponent(list)", "getProperty",      "setProperty",     "writeLock",
    "writeUnlock",        "FileCheck::exist", "getSPFilePath",   "getSPRoot"};
/* One name per kind: a kind added without its name fails to build. */
static_assert(sizeof(kKindNames) / sizeof(kKindNames[0]) == kKinds, "every kind has a name");

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

/* Strings of recorded calls, each kept once for the life of the process. */
const std::string* intern(const std::string& text)
{
    static std::set<std::string>* pool = new std::set<std::string>();
    return &*pool->insert(text).first;
}

/* Keeps one argument: integers in order in a[], strings in order in s[],
 * the first other pointer in ptr (output buffers are not kept). */
template <typename T> void keep(Call* c, int& ai, int& si, T v)
{
    if constexpr (std::is_integral_v<T>) {
        c->a[ai++] = static_cast<int>(v);
    } else if constexpr (std::is_same_v<T, const char*>) {
        c->s[si++] = intern(v != nullptr ? v : "");
    } else if (c->ptr == nullptr) {
        c->ptr = v;
    }
}

/* Forwards a call to the simulated platform's `name`, recording it. */
template <int Kind, typename R, typename... A> R forward(const char* name, A... args)
{
    static const auto next = next_fn<R (*)(A...)>(name);
    Entry e(Kind);
    if (Call* c = e.call()) {
        [[maybe_unused]] int ai = 0;
        [[maybe_unused]] int si = 0;
        (keep(c, ai, si, args), ...);
    }
    return next(args...);
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
using zbench::intern;
using zbench::next_fn;

/* ---- Heap counting ------------------------------------------------------ */

#ifdef ZNPDK_BENCH_SANITIZE
/* The sanitizer runtime owns malloc; it calls these hooks instead. */
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*malloc_hook)(const volatile void*, size_t),
                                                         void (*free_hook)(const volatile void*));
namespace {
void count_malloc(const volatile void*, size_t)
{
    zbench::g_allocs.fetch_add(1, std::memory_order_relaxed);
}
void ignore_free(const volatile void*) {}
struct HookInstall { /* both hooks are required */
    HookInstall() { __sanitizer_install_malloc_and_free_hooks(count_malloc, ignore_free); }
} g_hooks;
} // namespace
#else
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

/* Every way to get heap memory counts one allocation. */
#define ZB_COUNTED(ret, name, params, call)                                                                  \
    ret name params                                                                                          \
    {                                                                                                        \
        zbench::g_allocs.fetch_add(1, std::memory_order_relaxed);                                            \
        return call;                                                                                         \
    }
ZB_COUNTED(void*, malloc, (size_t n), __libc_malloc(n))
ZB_COUNTED(void*, calloc, (size_t n, size_t size), __libc_calloc(n, size))
ZB_COUNTED(void*, realloc, (void* p, size_t n), __libc_realloc(p, n))
ZB_COUNTED(void*, aligned_alloc, (size_t align, size_t n), __libc_memalign(align, n))
ZB_COUNTED(void*, memalign, (size_t align, size_t n), __libc_memalign(align, n))
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
/* The plain forwarders: every argument kept by its type. */
#define ZB_FORWARD(kind, name, ...)                                                                          \
    return zbench::forward<zbench::kind, decltype(name(__VA_ARGS__))>(#name, __VA_ARGS__)

extern "C" {

int OS_THREAD_MUTEX_ACQUIRE_LOCK(pthread_mutex_t* mutex)
{
    ZB_FORWARD(kMutexLock, OS_THREAD_MUTEX_ACQUIRE_LOCK, mutex);
}

int OS_THREAD_MUTEX_RELEASE_LOCK(pthread_mutex_t* mutex)
{
    ZB_FORWARD(kMutexUnlock, OS_THREAD_MUTEX_RELEASE_LOCK, mutex);
}

SensorInfo_T* GetSensorInfo(INT8U SensorNum, INT8U OwnerLUN, int BMCInst)
{
    ZB_FORWARD(kSensorInfo, GetSensorInfo, SensorNum, OwnerLUN, BMCInst);
}

INT32U GetSelTimeStamp(int BMCInst)
{
    ZB_FORWARD(kSelTime, GetSelTimeStamp, BMCInst);
}

void sp_trace2(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
               int a4)
{
    ZB_FORWARD(kTrace2, sp_trace2, level, region, module, id, fmt, a1, a2, a3, a4);
}

void sp_trace4(int level, int region, int module, uint32_t id, const char* fmt, const char* s)
{
    ZB_FORWARD(kTrace4, sp_trace4, level, region, module, id, fmt, s);
}

void sp_trace25(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
                int a4, int a5)
{
    ZB_FORWARD(kTrace25, sp_trace25, level, region, module, id, fmt, a1, a2, a3, a4, a5);
}

void sp_trace26(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
                int a4, int a5, int a6)
{
    ZB_FORWARD(kTrace26, sp_trace26, level, region, module, id, fmt, a1, a2, a3, a4, a5, a6);
}

void sp_trace27(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
                int a4, int a5, int a6, int a7)
{
    ZB_FORWARD(kTrace27, sp_trace27, level, region, module, id, fmt, a1, a2, a3, a4, a5, a6, a7);
}

void sp_trace28(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
                int a4, int a5, int a6, int a7, int a8)
{
    ZB_FORWARD(kTrace28, sp_trace28, level, region, module, id, fmt, a1, a2, a3, a4, a5, a6, a7, a8);
}

int znlib_DBGetProperty(const char* path, int key, unsigned int size, void* buffer)
{
    ZB_FORWARD(kDbGet, znlib_DBGetProperty, path, key, size, buffer);
}

int znlib_led_read(int compo_type, int compo_no, int led, int option)
{
    ZB_FORWARD(kLedRead, znlib_led_read, compo_type, compo_no, led, option);
}

int znlib_led_control(int compo_type, int compo_no, int led, int state)
{
    ZB_FORWARD(kLedControl, znlib_led_control, compo_type, compo_no, led, state);
}

int znlib_psu_ctlinfo(int psuno, uint32_t* psuinfo)
{
    ZB_FORWARD(kPsuInfo, znlib_psu_ctlinfo, psuno, psuinfo);
}

int znlib_log_get_clear_sensor_list(int BMCInst, int sensor, splog_clear_sensor_list* list)
{
    ZB_FORWARD(kClearList, znlib_log_get_clear_sensor_list, BMCInst, sensor, list);
}

sem_t* _znlib_sem_open(const char* name, int flag)
{
    ZB_FORWARD(kSemOpen, _znlib_sem_open, name, flag);
}

int _znlib_sem_lock(sem_t* handle, const char* name, int flag)
{
    ZB_FORWARD(kSemLock, _znlib_sem_lock, handle, name, flag);
}

int _znlib_sem_unlock(sem_t* handle, const char* name, int flag)
{
    ZB_FORWARD(kSemUnlock, _znlib_sem_unlock, handle, name, flag);
}

int _znlib_sem_close(sem_t* handle, int flag)
{
    ZB_FORWARD(kSemClose, _znlib_sem_close, handle, flag);
}

int znlib_sem_close(sem_t* handle)
{
    ZB_FORWARD(kSemCloseAll, znlib_sem_close, handle);
}

} // extern "C"

namespace {

using IpmiCmd = int (*)(INT8U*, INT8U, INT8U*, int);

/* The request bytes are kept; the response goes to the caller. */
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

/* The parameter words the simulated procedure read (it keeps them). */
void record_hap(Call* c, const char* target, const char* procedure, const char* mode, const uint32_t* para)
{
    c->s[0] = intern(target != nullptr ? target : "");
    c->s[1] = intern(procedure != nullptr ? procedure : "");
    c->s[2] = intern(mode != nullptr ? mode : "");
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

} // extern "C"

/* The component database and file helpers are C++: the simulated platform's
 * definitions are found by their mangled names and called with the object
 * as first argument. */
Component* Component::getRoot()
{
    return zbench::forward<zbench::kRoot, Component*>("_ZN2sp6sysobj9Component7getRootEv");
}

Component* Component::getComponent(int type, int no)
{
    return zbench::forward<zbench::kChild, Component*>("_ZN2sp6sysobj9Component12getComponentEii", this, type,
                                                       no);
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
    return zbench::forward<zbench::kGetProp, int>("_ZN2sp6sysobj9Component11getPropertyEiPvj", this, key,
                                                  buffer, length);
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
    zbench::forward<zbench::kWriteLock, void>("_ZN2sp6sysobj9Component9writeLockEv", this);
}

void Component::writeUnlock()
{
    zbench::forward<zbench::kWriteUnlock, void>("_ZN2sp6sysobj9Component11writeUnlockEv", this);
}

bool sp::util::file::FileCheck::exist(const std::string& path_)
{
    ZB_NEXT(bool (*)(const std::string&),
            "_ZN2sp4util4file9FileCheck5existERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE");
    Entry e(zbench::kFileExists);
    if (Call* c = e.call()) {
        c->s[0] = intern(path_);
    }
    return next(path_);
}

std::string getSPFilePath(const std::string& filePath)
{
    ZB_NEXT(std::string(*)(const std::string&),
            "_Z13getSPFilePathRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE");
    Entry e(zbench::kFilePath);
    if (Call* c = e.call()) {
        c->s[0] = intern(filePath);
    }
    return next(filePath);
}

std::string getSPRoot()
{
    return zbench::forward<zbench::kSpRoot, std::string>("_Z9getSPRootB5cxx11v");
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
            sp_trace2(a[0], a[1], a[2], static_cast<uint32_t>(a[3]), c.s[0]->c_str(), a[4], a[5], a[6], a[7]);
            break;
        case kTrace4:
            sp_trace4(a[0], a[1], a[2], static_cast<uint32_t>(a[3]), c.s[0]->c_str(), c.s[1]->c_str());
            break;
        case kTrace25:
            sp_trace25(a[0], a[1], a[2], static_cast<uint32_t>(a[3]), c.s[0]->c_str(), a[4], a[5], a[6], a[7],
                       a[8]);
            break;
        case kTrace26:
            sp_trace26(a[0], a[1], a[2], static_cast<uint32_t>(a[3]), c.s[0]->c_str(), a[4], a[5], a[6], a[7],
                       a[8], a[9]);
            break;
        case kTrace27:
            sp_trace27(a[0], a[1], a[2], static_cast<uint32_t>(a[3]), c.s[0]->c_str(), a[4], a[5], a[6], a[7],
                       a[8], a[9], a[10]);
            break;
        case kTrace28:
            sp_trace28(a[0], a[1], a[2], static_cast<uint32_t>(a[3]), c.s[0]->c_str(), a[4], a[5], a[6], a[7],
                       a[8], a[9], a[10], a[11]);
            break;
        case kHap:
        case kHapLog: {
            const uint32_t* para = a[0] != 0 ? reinterpret_cast<const uint32_t*>(c.bytes.data()) : nullptr;
            uint32_t* data = reinterpret_cast<uint32_t*>(out);
            if (c.kind == kHap) {
                znlib_hce_exechap(c.s[0]->c_str(), c.s[1]->c_str(), c.s[2]->c_str(), para, data);
            } else {
                splog_info info;
                splog_linkup_info link;
                memset(&info, 0, sizeof(info));
                memset(&link, 0, sizeof(link));
                znlib_hce_exechap_noerrlogregist_withlinklog(c.s[0]->c_str(), c.s[1]->c_str(),
                                                             c.s[2]->c_str(), para, data, &info, &link);
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
            znlib_DBGetProperty(c.s[0]->c_str(), a[0], static_cast<unsigned>(a[1]), out);
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
            _znlib_sem_open(c.s[0]->c_str(), a[0]);
            break;
        case kSemLock:
            if (_znlib_sem_lock(static_cast<sem_t*>(const_cast<void*>(c.ptr)), c.s[0]->c_str(), a[0]) == 0) {
                __atomic_store_n(shared_word, __atomic_load_n(shared_word, __ATOMIC_RELAXED) + 1,
                                 __ATOMIC_RELAXED);
            }
            break;
        case kSemUnlock:
            _znlib_sem_unlock(static_cast<sem_t*>(const_cast<void*>(c.ptr)), c.s[0]->c_str(), a[0]);
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
            sp::util::file::FileCheck::exist(*c.s[0]);
            break;
        case kFilePath:
            getSPFilePath(*c.s[0]);
            break;
        case kSpRoot:
            getSPRoot();
            break;
        default:
            break;
        }
    }
}

} // namespace zbench
