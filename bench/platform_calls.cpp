/* Forwarding, recording and replay of the platform calls; heap counting. */
#include "platform_calls.h"

#include "heap_counter.h"

#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
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

/* Every recorded platform function: kind and report name. */
#define ZB_KINDS(X)                                                                                          \
    X(kMutexLock, "mutex_lock"), X(kMutexUnlock, "mutex_unlock"), X(kSensorInfo, "GetSensorInfo"),           \
        X(kSensorReading, "GetSensorReading"), X(kSensorType, "GetSensorType"), X(kSelAdd, "AddSELEntry"),   \
        X(kSelTime, "GetSelTimeStamp"), X(kTrace2, "sp_trace2"), X(kTrace4, "sp_trace4"),                    \
        X(kTrace25, "sp_trace25"), X(kTrace26, "sp_trace26"), X(kTrace27, "sp_trace27"),                     \
        X(kTrace28, "sp_trace28"), X(kHap, "exechap"), X(kHapLog, "exechap_withlog"),                        \
        X(kSaveLog, "save_sel_error_log"), X(kDbGet, "DBGetProperty"), X(kLedRead, "led_read"),              \
        X(kLedControl, "led_control"), X(kPsuInfo, "psu_ctlinfo"), X(kClearList, "clear_sensor_list"),       \
        X(kSemOpen, "sem_open"), X(kSemLock, "sem_lock"), X(kSemUnlock, "sem_unlock"),                       \
        X(kSemClose, "sem_close"), X(kSemCloseAll, "znlib_sem_close"), X(kRoot, "getRoot"),                  \
        X(kChild, "getComponent"), X(kChildren, "getComponent(list)"), X(kGetProp, "getProperty"),           \
        X(kSetProp, "setProperty"), X(kWriteLock, "writeLock"), X(kWriteUnlock, "writeUnlock"),              \
        X(kFileExists, "FileCheck::exist"), X(kFilePath, "getSPFilePath"), X(kSpRoot, "getSPRoot")

#define ZB_KIND(kind, name) kind
enum Kind { ZB_KINDS(ZB_KIND), kKinds };
#undef ZB_KIND
#define ZB_NAME(kind, name) name
const char* const kKindNames[] = {ZB_KINDS(ZB_NAME)};
#undef ZB_NAME

std::atomic<uint64_t> g_allocs{0};

thread_local bool t_recording = false;
thread_local int t_depth = 0;
Plan* g_plan = nullptr;

/* Scratch output of replayed calls: large enough for any record or image. */
thread_local uint8_t t_scratch[64 * 1024];

/* The simulated platform's definition of a symbol this binary also defines. */
template <typename F> F next_fn(const char* name)
{
    void* p = dlsym(RTLD_NEXT, name);
    if (p == nullptr) {
        fprintf(stderr, "znpdk-bench: platform symbol %s missing\n", name);
        abort();
    }
    return reinterpret_cast<F>(p);
}

/* Marks one call into the platform; only the outermost call of a recording
 * thread is kept, with what replays it. */
class Entry {
  public:
    explicit Entry(int kind) : call_(nullptr)
    {
        if (t_recording && t_depth == 0) {
            g_plan->push_back(Call{kind, {}});
            call_ = &g_plan->back();
        }
        ++t_depth;
    }
    ~Entry() { --t_depth; }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;
    bool recording() const { return call_ != nullptr; }
    void replay_as(std::function<int()> run) { call_->run = std::move(run); }

  private:
    Call* call_;
};

/* Strings of recorded calls, each kept once for the life of the process. */
const std::string* intern(const char* text)
{
    static std::set<std::string>* pool = new std::set<std::string>();
    return &*pool->insert(text != nullptr ? text : "").first;
}

/* An argument as a replay passes it: strings interned, output buffers
 * replaced by scratch, numbers, mutexes and semaphores as they were. */
template <typename T> T replay_arg(T v)
{
    if constexpr (std::is_same_v<T, const char*>) {
        return intern(v)->c_str();
    } else if constexpr (std::is_same_v<T, void*> || std::is_same_v<T, uint32_t*> ||
                         std::is_same_v<T, splog_clear_sensor_list*>) {
        return reinterpret_cast<T>(t_scratch);
    } else {
        return v;
    }
}

/* Runs `fn` again; its result as an int (0 for none). */
template <typename R, typename... A> std::function<int()> again(R (*fn)(A...), A... args)
{
    return [fn, args...]() -> int {
        if constexpr (std::is_integral_v<R>) {
            return static_cast<int>(fn(args...));
        } else {
            fn(args...);
            return 0;
        }
    };
}

/* Forwards a call of this binary's `self` to the simulated platform's
 * `name`; a replay calls `self` again, with the same arguments. */
template <int Kind, typename R, typename... A> R forward(R (*self)(A...), const char* name, A... args)
{
    static const auto next = next_fn<R (*)(A...)>(name);
    Entry e(Kind);
    if (e.recording()) {
        e.replay_as(again(self, replay_arg(args)...));
    }
    return next(args...);
}

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

/* Each semaphore-guarded section also stores 4 bytes into the shared word. */
void replay(const Plan& plan, uint32_t* shared_word)
{
    for (const Call& c : plan) {
        if (c.run() == 0 && c.kind == kSemLock) {
            __atomic_store_n(shared_word, __atomic_load_n(shared_word, __ATOMIC_RELAXED) + 1,
                             __ATOMIC_RELAXED);
        }
    }
}

} // namespace zbench

using sp::sysobj::Component;
using zbench::Entry;
using zbench::intern;
using zbench::next_fn;

/* ---- Heap counting ------------------------------------------------------ */

void on_heap_alloc(void*)
{
    zbench::g_allocs.fetch_add(1, std::memory_order_relaxed);
}

/* ---- Forwarding entry points -------------------------------------------- */

/* A plain forwarder: the function's parameters, then its argument names. */
#define ZB_DEF(kind, ret, name, params, ...)                                                                 \
    ret name params                                                                                          \
    {                                                                                                        \
        return zbench::forward<zbench::kind, ret>(&name, #name, __VA_ARGS__);                                \
    }
/* The trace functions share their head of parameters. */
#define ZB_TRACE_HEAD int level, int region, int module, uint32_t id, const char *fmt
#define ZB_TRACE_ARGS level, region, module, id, fmt
/* A forwarder that keeps its own replay: `next` is the simulated platform's
 * `symbol`; the replay runs `...` (a statement list) in a copy of the scope. */
#define ZB_NEXT(type, symbol) static const auto next = next_fn<type>(symbol)
#define ZB_KEEP(e, ...)                                                                                      \
    if (e.recording()) {                                                                                     \
        e.replay_as([=]() -> int { __VA_ARGS__; });                                                          \
    }

extern "C" {
ZB_DEF(kMutexLock, int, OS_THREAD_MUTEX_ACQUIRE_LOCK, (pthread_mutex_t * m), m)
ZB_DEF(kMutexUnlock, int, OS_THREAD_MUTEX_RELEASE_LOCK, (pthread_mutex_t * m), m)
ZB_DEF(kSensorInfo, SensorInfo_T*, GetSensorInfo, (INT8U num, INT8U lun, int inst), num, lun, inst)
ZB_DEF(kSelTime, INT32U, GetSelTimeStamp, (int inst), inst)
ZB_DEF(kTrace2, void, sp_trace2, (ZB_TRACE_HEAD, int a1, int a2, int a3, int a4), ZB_TRACE_ARGS, a1, a2, a3,
       a4)
ZB_DEF(kTrace4, void, sp_trace4, (ZB_TRACE_HEAD, const char* s), ZB_TRACE_ARGS, s)
ZB_DEF(kTrace25, void, sp_trace25, (ZB_TRACE_HEAD, int a1, int a2, int a3, int a4, int a5), ZB_TRACE_ARGS, a1,
       a2, a3, a4, a5)
ZB_DEF(kTrace26, void, sp_trace26, (ZB_TRACE_HEAD, int a1, int a2, int a3, int a4, int a5, int a6),
       ZB_TRACE_ARGS, a1, a2, a3, a4, a5, a6)
ZB_DEF(kTrace27, void, sp_trace27, (ZB_TRACE_HEAD, int a1, int a2, int a3, int a4, int a5, int a6, int a7),
       ZB_TRACE_ARGS, a1, a2, a3, a4, a5, a6, a7)
ZB_DEF(kTrace28, void, sp_trace28,
       (ZB_TRACE_HEAD, int a1, int a2, int a3, int a4, int a5, int a6, int a7, int a8), ZB_TRACE_ARGS, a1, a2,
       a3, a4, a5, a6, a7, a8)
ZB_DEF(kDbGet, int, znlib_DBGetProperty, (const char* path, int key, unsigned int size, void* buf), path, key,
       size, buf)
ZB_DEF(kLedRead, int, znlib_led_read, (int type, int no, int led, int option), type, no, led, option)
ZB_DEF(kLedControl, int, znlib_led_control, (int type, int no, int led, int state), type, no, led, state)
ZB_DEF(kPsuInfo, int, znlib_psu_ctlinfo, (int psuno, uint32_t* info), psuno, info)
ZB_DEF(kClearList, int, znlib_log_get_clear_sensor_list,
       (int inst, int sensor, splog_clear_sensor_list* list), inst, sensor, list)
ZB_DEF(kSemOpen, sem_t*, _znlib_sem_open, (const char* name, int flag), name, flag)
ZB_DEF(kSemLock, int, _znlib_sem_lock, (sem_t * sem, const char* name, int flag), sem, name, flag)
ZB_DEF(kSemUnlock, int, _znlib_sem_unlock, (sem_t * sem, const char* name, int flag), sem, name, flag)
ZB_DEF(kSemClose, int, _znlib_sem_close, (sem_t * sem, int flag), sem, flag)
ZB_DEF(kSemCloseAll, int, znlib_sem_close, (sem_t * sem), sem)

} // extern "C"

namespace {

/* The parameter words the simulated procedure read (it keeps them), with
 * room past what the model reads. */
std::vector<uint32_t> hap_words(const uint32_t* para)
{
    std::vector<zsim::HapCall> calls = zsim::hap_calls();
    std::vector<uint32_t> words =
        para != nullptr && !calls.empty() ? calls.back().para : std::vector<uint32_t>();
    words.resize(words.size() + 16, 0);
    return words;
}

/* Keeps a procedure call for replay, with the words it read; `run` makes
 * the call from target, procedure, mode and words. */
template <typename Run>
void keep_hap(Entry& e, const char* target, const char* procedure, const char* mode, const uint32_t* para,
              Run run)
{
    if (e.recording()) {
        const char *t = intern(target)->c_str(), *p = intern(procedure)->c_str(), *m = intern(mode)->c_str();
        const std::vector<uint32_t> words = hap_words(para);
        const bool has = para != nullptr;
        e.replay_as([=] { return run(t, p, m, has ? words.data() : nullptr); });
    }
}

} // namespace

extern "C" {

/* IPMI commands: the request bytes are kept, the response goes to scratch. */
#define ZB_IPMI(kind, name)                                                                                  \
    int name(INT8U* pReq, INT8U ReqLen, INT8U* pRes, int BMCInst)                                            \
    {                                                                                                        \
        ZB_NEXT(int (*)(INT8U*, INT8U, INT8U*, int), #name);                                                 \
        zbench::Entry e(zbench::kind);                                                                       \
        const bool has = pReq != nullptr;                                                                    \
        const std::vector<INT8U> kept(pReq,                                                                  \
                                      pReq + (has && e.recording() ? std::min<size_t>(ReqLen, 64) : 0));     \
        ZB_KEEP(e, INT8U req[64] = {}; memcpy(req, kept.data(), kept.size()); return name(                   \
                    has ? req : nullptr, static_cast<INT8U>(kept.size()), zbench::t_scratch, BMCInst))       \
        return next(pReq, ReqLen, pRes, BMCInst);                                                            \
    }
ZB_IPMI(kSensorReading, GetSensorReading)
ZB_IPMI(kSensorType, GetSensorType)
ZB_IPMI(kSelAdd, AddSELEntry)

int znlib_hce_exechap(const char* target, const char* procedure, const char* mode, const uint32_t* para,
                      uint32_t* data)
{
    ZB_NEXT(decltype(&znlib_hce_exechap), "znlib_hce_exechap");
    Entry e(zbench::kHap);
    const int ret = next(target, procedure, mode, para, data);
    keep_hap(e, target, procedure, mode, para,
             [](const char* t, const char* p, const char* m, const uint32_t* w) {
                 return znlib_hce_exechap(t, p, m, w, reinterpret_cast<uint32_t*>(zbench::t_scratch));
             });
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
    keep_hap(e, target, procedure, mode, para,
             [](const char* t, const char* p, const char* m, const uint32_t* w) {
                 splog_info info;
                 splog_linkup_info link;
                 memset(&info, 0, sizeof(info));
                 memset(&link, 0, sizeof(link));
                 return znlib_hce_exechap_noerrlogregist_withlinklog(
                     t, p, m, w, reinterpret_cast<uint32_t*>(zbench::t_scratch), &info, &link);
             });
    return ret;
}

int znpdklib_log_save_sel_error_log(splog_info* loginfo, splog_linkup_info* loglink)
{
    ZB_NEXT(decltype(&znpdklib_log_save_sel_error_log), "znpdklib_log_save_sel_error_log");
    Entry e(zbench::kSaveLog);
    splog_info kept_info;
    splog_linkup_info kept_link;
    memset(&kept_info, 0, sizeof(kept_info));
    memset(&kept_link, 0, sizeof(kept_link));
    if (e.recording() && loginfo != nullptr) {
        kept_info = *loginfo;
    }
    if (e.recording() && loglink != nullptr) {
        kept_link = *loglink;
    }
    ZB_KEEP(e, splog_info info = kept_info; splog_linkup_info link = kept_link;
            return znpdklib_log_save_sel_error_log(&info, &link))
    return next(loginfo, loglink);
}

} // extern "C"

/* The component database and file helpers are C++: the simulated platform's
 * definitions are found by their mangled names and called with the object
 * as first argument. */
/* A forwarder whose replay runs `again` (a statement list) in a copy of its
 * scope; `next` is the platform's `symbol`, called with `...`. */
#define ZB_CPP(kind, ret, head, type, symbol, again, ...)                                                    \
    ret head                                                                                                 \
    {                                                                                                        \
        ZB_NEXT(type, symbol);                                                                               \
        Entry e(zbench::kind);                                                                               \
        ZB_KEEP(e, again; return 0)                                                                          \
        return next(__VA_ARGS__);                                                                            \
    }
ZB_CPP(kRoot, Component*, Component::getRoot(), Component* (*)(), "_ZN2sp6sysobj9Component7getRootEv",
       getRoot())
ZB_CPP(kChild, Component*, Component::getComponent(int type, int no), Component* (*)(Component*, int, int),
       "_ZN2sp6sysobj9Component12getComponentEii", getComponent(type, no), this, type, no)
ZB_CPP(kChildren, void, Component::getComponent(int type, std::vector<Component*>& list),
       void (*)(Component*, int, std::vector<Component*>&),
       "_ZN2sp6sysobj9Component12getComponentEiRSt6vectorIPS1_SaIS3_EE", std::vector<Component*> found;
       getComponent(type, found), this, type, list)
ZB_CPP(kWriteLock, void, Component::writeLock(), void (*)(Component*), "_ZN2sp6sysobj9Component9writeLockEv",
       writeLock(), this)
ZB_CPP(kWriteUnlock, void, Component::writeUnlock(), void (*)(Component*),
       "_ZN2sp6sysobj9Component11writeUnlockEv", writeUnlock(), this)
ZB_CPP(kSpRoot, std::string, getSPRoot(), std::string (*)(), "_Z9getSPRootB5cxx11v", getSPRoot())

int Component::getProperty(int key, void* buffer, unsigned int length)
{
    ZB_NEXT(int (*)(Component*, int, void*, unsigned int), "_ZN2sp6sysobj9Component11getPropertyEiPvj");
    Entry e(zbench::kGetProp);
    ZB_KEEP(e, return getProperty(key, zbench::t_scratch, length))
    return next(this, key, buffer, length);
}

int Component::setProperty(int key, const void* buffer, unsigned int length)
{
    ZB_NEXT(int (*)(Component*, int, const void*, unsigned int),
            "_ZN2sp6sysobj9Component11setPropertyEiPKvj");
    Entry e(zbench::kSetProp);
    const uint8_t* b = static_cast<const uint8_t*>(buffer);
    const std::vector<uint8_t> kept =
        e.recording() && b != nullptr ? std::vector<uint8_t>(b, b + length) : std::vector<uint8_t>();
    ZB_KEEP(e, return setProperty(key, kept.data(), static_cast<unsigned>(kept.size())))
    return next(this, key, buffer, length);
}

bool sp::util::file::FileCheck::exist(const std::string& path_)
{
    ZB_NEXT(bool (*)(const std::string&),
            "_ZN2sp4util4file9FileCheck5existERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE");
    Entry e(zbench::kFileExists);
    const std::string* kept = e.recording() ? intern(path_.c_str()) : nullptr;
    ZB_KEEP(e, return static_cast<int>(exist(*kept)))
    return next(path_);
}

std::string getSPFilePath(const std::string& filePath)
{
    ZB_NEXT(std::string(*)(const std::string&),
            "_Z13getSPFilePathRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE");
    Entry e(zbench::kFilePath);
    const std::string* kept = e.recording() ? intern(filePath.c_str()) : nullptr;
    ZB_KEEP(e, getSPFilePath(*kept); return 0)
    return next(filePath);
}
