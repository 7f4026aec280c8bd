/* Controller support library: procedures, RAS logs, LEDs, PSU info, ports, clear lists, semaphores. */
#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <list>
#include <map>
#include <mutex>
#include <tuple>
#include <utility>

#include "sim_internal.h"

namespace zsim {
namespace internal {
namespace {

using HapKey = std::pair<std::string, std::string>;

struct ZnlibState {
    std::mutex mutex;
    std::map<HapKey, HapHandler> scripts;
    std::map<HapKey, HapHandler> builtins;
    std::vector<HapCall> calls;
    std::list<RasLog> logs; /* a list: no ABI note for 8-byte-aligned vector growth on ARM */
    std::map<std::string, int> db_failures;
    std::map<std::tuple<int, int, int>, int> leds;
    bool fail_led_read = false;
    int led_read_ret = 0;
    bool fail_led_control = false;
    int led_control_ret = -1;
    int led_control_calls = 0;
    std::map<int, std::pair<int, uint32_t>> psu_info;
    std::map<std::pair<int, int>, int> port_map;
    std::map<std::pair<int, int>, std::vector<splog_clear_sensor_list>> clear_lists;
    int clear_list_calls = 0;
    /* Read on every semaphore call: atomics, so that the calls of different
     * names share no lock. */
    std::atomic<bool> fail_sem_open{false};
    std::atomic<int> sem_lock_code{0};
};

ZnlibState& zs()
{
    static ZnlibState* s = new ZnlibState(); /* outlives every static destructor */
    return *s;
}

/* Number of parameter words a procedure reads. */
size_t para_words(const std::string& procedure, const std::string& mode, const uint32_t* para)
{
    if (procedure == "BOB_R_BOBC_PSUC") {
        return 4;
    }
    if (procedure == "BOB_R_BOBC_FANC") {
        return mode == "READ_FANSPEED" ? 1 : 0;
    }
    if (procedure == "CPUICC_E_QNR_LINK_CHECK") {
        return 1;
    }
    if (procedure == "CPUICC_T_QNR_LINK_UP") {
        return 2;
    }
    return para != nullptr ? 1 : 0;
}

HapHandler lookup(const std::map<HapKey, HapHandler>& table, const std::string& proc, const std::string& mode)
{
    auto it = table.find({proc, mode});
    if (it == table.end()) {
        it = table.find({proc, ""});
    }
    return it == table.end() ? HapHandler() : it->second;
}

int run_hap(const char* target, const char* procedure, const char* mode, const uint32_t* para, uint32_t* data,
            splog_info* loginfo, splog_linkup_info* loglink, bool with_log)
{
    HapCall call;
    call.target = target != nullptr ? target : "";
    call.procedure = procedure != nullptr ? procedure : "";
    call.mode = mode != nullptr ? mode : "";
    call.with_log = with_log;
    call.time = now();
    if (para != nullptr) {
        size_t n = para_words(call.procedure, call.mode, para);
        call.para.assign(para, para + n);
    }
    if (call.procedure == "BOB_R_BOBC_FANC") {
        reach(KillPoint::FanCheckPoll);
    }
    HapHandler handler;
    {
        ZnlibState& s = zs();
        std::lock_guard<std::mutex> lock(s.mutex);
        s.calls.push_back(call);
        handler = lookup(s.scripts, call.procedure, call.mode);
        if (!handler) {
            handler = lookup(s.builtins, call.procedure, call.mode);
        }
    }
    if (!handler) {
        return 0;
    }
    try {
        return handler(call, data, loginfo, loglink);
    } catch (...) {
        return -1;
    }
}

} // namespace

void reset_znlib()
{
    ZnlibState& s = zs();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.scripts.clear();
    s.builtins.clear();
    s.calls.clear();
    s.logs.clear();
    s.db_failures.clear();
    s.leds.clear();
    s.leds[std::make_tuple(257, 0, 1)] = 1;
    s.fail_led_read = false;
    s.led_read_ret = 0;
    s.fail_led_control = false;
    s.led_control_ret = -1;
    s.led_control_calls = 0;
    s.psu_info.clear();
    s.port_map.clear();
    s.clear_lists.clear();
    s.clear_list_calls = 0;
    s.fail_sem_open = false;
    s.sem_lock_code = 0;
}

} // namespace internal

using internal::zs;

namespace detail {
void set_builtin_hap(const std::string& procedure, const std::string& mode, HapHandler h)
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    zs().builtins[{procedure, mode}] = std::move(h);
}
} // namespace detail

void script_hap(const std::string& procedure, const std::string& mode, HapHandler handler)
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    zs().scripts[{procedure, mode}] = std::move(handler);
}

void clear_hap_scripts()
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    zs().scripts.clear();
}

bool hap_scripted(const std::string& procedure)
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    for (const auto& kv : zs().scripts) {
        if (kv.first.first == procedure) {
            return true;
        }
    }
    return false;
}

std::vector<TakenSemaphore> semaphores_taken()
{
    std::vector<TakenSemaphore> out;
    internal::Shared* s = internal::shared();
    if (s == nullptr) {
        return out;
    }
    const int count = __atomic_load_n(&s->sem_count, __ATOMIC_ACQUIRE);
    for (int i = 0; i < count; ++i) {
        int value = 1;
        if (sem_getvalue(&s->sems[i].sem, &value) == 0 && value <= 0) {
            out.push_back({s->sems[i].name, __atomic_load_n(&s->sems[i].holder, __ATOMIC_RELAXED)});
        }
    }
    return out;
}

std::vector<HapCall> hap_calls()
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    return zs().calls;
}

void clear_hap_calls()
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    zs().calls.clear();
}

std::vector<RasLog> ras_logs()
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    return std::vector<RasLog>(zs().logs.begin(), zs().logs.end());
}

void clear_ras_logs()
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    zs().logs.clear();
}

void fail_db_get_property(const std::string& path, int code)
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    if (code == 0) {
        zs().db_failures.erase(path);
    } else {
        zs().db_failures[path] = code;
    }
}

void set_led(int type, int no, int led, int state)
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    zs().leds[std::make_tuple(type, no, led)] = state;
}

int led(int type, int no, int led)
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    auto it = zs().leds.find(std::make_tuple(type, no, led));
    return it == zs().leds.end() ? 1 : it->second; /* an LED never set is off (1) */
}

void fail_led_read(bool on, int ret)
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    zs().fail_led_read = on;
    zs().led_read_ret = ret;
}

void fail_led_control(bool on, int ret)
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    zs().fail_led_control = on;
    zs().led_control_ret = ret;
}

int led_control_calls()
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    return zs().led_control_calls;
}

void set_psu_ctlinfo(int psuno, int ret, uint32_t info)
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    zs().psu_info[psuno] = {ret, info};
}

void set_port_map(int router_arg, int lport, int pport)
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    zs().port_map[{router_arg, lport}] = pport;
}

void set_clear_sensor_list(int inst, int sensor, const splog_clear_sensor_list list[4])
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    if (list == nullptr) {
        zs().clear_lists.erase({inst, sensor});
        return;
    }
    zs().clear_lists[{inst, sensor}] = std::vector<splog_clear_sensor_list>(list, list + 4);
}

int clear_sensor_list_calls()
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    return zs().clear_list_calls;
}

void fail_sem_open(bool on)
{
    zs().fail_sem_open = on;
}

void fail_sem_lock(int code)
{
    zs().sem_lock_code = code;
}

} // namespace zsim

/* ---- The controller support library's interface -------------------------- */

using zsim::internal::zs;

/* The semaphore named `name` among the first `count` slots, or null. */
static sem_t* find_sem(zsim::internal::Shared* s, const char* name, int count)
{
    for (int i = 0; i < count; ++i) {
        if (strncmp(s->sems[i].name, name, sizeof(s->sems[i].name)) == 0) {
            return &s->sems[i].sem;
        }
    }
    return nullptr;
}

static bool is_save_area_sem(const char* name)
{
    static const char kPrefix[] = "/filelock_snsdata";
    return name != nullptr && strncmp(name, kPrefix, sizeof(kPrefix) - 1) == 0;
}

static zsim::internal::SemSlot* slot_of(sem_t* handle)
{
    return reinterpret_cast<zsim::internal::SemSlot*>(reinterpret_cast<char*>(handle) -
                                                      offsetof(zsim::internal::SemSlot, sem));
}

/* A save-area semaphore just taken is a kill point. */
static int sem_taken(sem_t* handle, const char* name)
{
    __atomic_store_n(&slot_of(handle)->holder, static_cast<int32_t>(getpid()), __ATOMIC_RELAXED);
    if (is_save_area_sem(name)) {
        zsim::internal::reach(zsim::KillPoint::SaveAreaSemHeld);
    }
    return 0;
}

/* Waits for a semaphore held by someone else, up to the wait bound. */
static int timed_sem_wait(sem_t* handle, const char* name)
{
    const long limit_ms = zsim::internal::sem_wait_limit_ms();
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += limit_ms / 1000;
    deadline.tv_nsec += (limit_ms % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    while (sem_timedwait(handle, &deadline) != 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    return sem_taken(handle, name);
}

extern "C" {

int znlib_hce_exechap(const char* target, const char* procedure, const char* mode, const uint32_t* para,
                      uint32_t* data)
{
    return zsim::internal::run_hap(target, procedure, mode, para, data, nullptr, nullptr, false);
}

int znlib_hce_exechap_noerrlogregist_withlinklog(const char* target, const char* procedure, const char* mode,
                                                 const uint32_t* para, uint32_t* data, splog_info* loginfo,
                                                 splog_linkup_info* loglink)
{
    return zsim::internal::run_hap(target, procedure, mode, para, data, loginfo, loglink, true);
}

int znpdklib_log_save_sel_error_log(splog_info* loginfo, splog_linkup_info* loglink)
{
    zsim::RasLog log;
    memset(&log, 0, sizeof(log));
    if (loginfo != nullptr) {
        log.info = *loginfo;
    }
    if (loglink != nullptr) {
        log.link = *loglink;
    }
    log.time = zsim::now();
    std::lock_guard<std::mutex> lock(zs().mutex);
    zs().logs.push_back(log);
    return 0;
}

int znlib_DBGetProperty(const char* path, int key, unsigned int size, void* buffer)
{
    if (path == nullptr || buffer == nullptr) {
        return -1;
    }
    {
        std::lock_guard<std::mutex> lock(zs().mutex);
        auto it = zs().db_failures.find(path);
        if (it != zs().db_failures.end()) {
            return it->second;
        }
    }
    int oid = zsim::internal::resolve_path(path);
    if (oid <= 0) {
        return -1;
    }
    zsim::internal::read_record(oid, key, buffer, size);
    return 0;
}

int znlib_led_read(int compo_type, int compo_no, int led, int option)
{
    (void)option;
    {
        std::lock_guard<std::mutex> lock(zs().mutex);
        if (zs().fail_led_read) {
            return zs().led_read_ret;
        }
    }
    return zsim::led(compo_type, compo_no, led);
}

int znlib_led_control(int compo_type, int compo_no, int led, int state)
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    ++zs().led_control_calls;
    if (zs().fail_led_control) {
        return zs().led_control_ret;
    }
    zs().leds[std::make_tuple(compo_type, compo_no, led)] = state;
    return 0;
}

int znlib_psu_ctlinfo(int psuno, uint32_t* psuinfo)
{
    if (psuinfo == nullptr) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(zs().mutex);
    auto it = zs().psu_info.find(psuno);
    if (it != zs().psu_info.end()) {
        *psuinfo = it->second.second;
        return it->second.first;
    }
    if (psuno < 0 || psuno > 17) {
        return -1;
    }
    /* Each BoB controls one PSU group of three in every row of nine, as the
     * controller's register layout expects: PSUs 0-2 and 9-11 on BoB 0,
     * 3-5 and 12-14 on BoB 1, 6-8 and 15-17 on BoB 2. */
    *psuinfo = static_cast<uint32_t>((psuno / 3) % 3) << 8;
    return 0;
}

int znlib_getLogic2PhysicPortNo(int router, int lportno)
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    auto it = zs().port_map.find({router, lportno});
    return it == zs().port_map.end() ? lportno : it->second;
}

int znlib_log_get_clear_sensor_list(int BMCInst, int sensor, splog_clear_sensor_list* list)
{
    std::lock_guard<std::mutex> lock(zs().mutex);
    ++zs().clear_list_calls;
    if (list == nullptr) {
        return -1;
    }
    auto it = zs().clear_lists.find({BMCInst, sensor});
    if (it == zs().clear_lists.end()) {
        memset(list, 0, sizeof(splog_clear_sensor_list) * MAX_CLEAR_SENSOR_TARGET);
    } else {
        memcpy(list, it->second.data(), sizeof(splog_clear_sensor_list) * MAX_CLEAR_SENSOR_TARGET);
    }
    return 0;
}

sem_t* _znlib_sem_open(const char* name, int flag)
{
    (void)flag;
    if (name == nullptr || zs().fail_sem_open) {
        return nullptr;
    }
    zsim::internal::Shared* s = zsim::internal::shared();
    if (s == nullptr) {
        return nullptr;
    }
    /* Slots are only ever added, each published by the count after it is
     * set up: a name already there is found without a lock, so opens of
     * different names never wait for each other. */
    if (sem_t* sem = find_sem(s, name, __atomic_load_n(&s->sem_count, __ATOMIC_ACQUIRE))) {
        return sem;
    }
    zsim::internal::MetaLock lock;
    const int count = __atomic_load_n(&s->sem_count, __ATOMIC_ACQUIRE);
    if (sem_t* sem = find_sem(s, name, count)) {
        return sem; /* added by another opener meanwhile */
    }
    if (count >= zsim::internal::kMaxSemNames || strlen(name) >= sizeof(s->sems[0].name)) {
        return nullptr;
    }
    zsim::internal::SemSlot& slot = s->sems[count];
    snprintf(slot.name, sizeof(slot.name), "%s", name);
    sem_init(&slot.sem, 1, 1);
    __atomic_store_n(&s->sem_count, count + 1, __ATOMIC_RELEASE);
    return &slot.sem;
}

int _znlib_sem_lock(sem_t* handle, const char* name, int flag)
{
    (void)flag;
    if (const int code = zs().sem_lock_code) {
        return code;
    }
    if (handle == nullptr) {
        return EINVAL;
    }
    /* Bounded in real time, so that a crashed holder cannot hang a test
     * forever; a free semaphore is taken without reading the clock. */
    while (sem_trywait(handle) != 0) {
        if (errno != EINTR) {
            return timed_sem_wait(handle, name);
        }
    }
    return sem_taken(handle, name);
}

int _znlib_sem_unlock(sem_t* handle, const char* name, int flag)
{
    (void)flag;
    if (handle == nullptr) {
        return EINVAL;
    }
    if (is_save_area_sem(name)) {
        zsim::internal::reach(zsim::KillPoint::SaveAreaSemHeld);
    }
    __atomic_store_n(&slot_of(handle)->holder, 0, __ATOMIC_RELAXED);
    return sem_post(handle) == 0 ? 0 : errno;
}

int _znlib_sem_close(sem_t* handle, int flag)
{
    (void)flag;
    /* The semaphore lives in the machine's mapping: nothing to release. */
    return handle != nullptr ? 0 : -1;
}

int znlib_sem_close(sem_t* handle)
{
    return _znlib_sem_close(handle, 0);
}

} // extern "C"
