/* Simulated fans and the fan part of the BoB controller. */
#include "znpdk_sim/fan.h"

#include <string.h>

#include <algorithm>
#include <map>
#include <mutex>

#include "znpdk_sim/detail.h"
#include "znpdk_sim/sim.h"

namespace zsim {
namespace {

constexpr int kFans = 8;
constexpr uint32_t kNoLimit = 0xFFFFFFFFu;

struct Fan {
    uint32_t since = 0; /* start of the transition under way */
    uint32_t from = 0;  /* speed before it */
    uint32_t ramp = kFanDefaultRamp;
    uint32_t limit = kNoLimit; /* 0 = stalled */
};

struct Failure {
    int ret = 0;
    uint32_t word = 0;
    int count = 0;
};

struct FanModel {
    std::mutex mutex;
    Fan fans[kFans];
    bool full = false;
    uint32_t fanc_error = 0;
    Failure read_failure;
    std::map<std::string, Failure> change_failures;
};

FanModel& model()
{
    static FanModel m;
    return m;
}

bool valid(int fan)
{
    return fan >= 0 && fan < kFans;
}

/* Speed of a fan at virtual time t; the model's mutex is held. */
uint32_t speed_at(const FanModel& m, const Fan& f, uint32_t t)
{
    const uint32_t settled = m.full ? kFanFullSpeed : kFanNormalSpeed;
    const uint32_t v = t >= f.since + f.ramp ? settled : f.from;
    return std::min(v, f.limit);
}

void power_on_locked(FanModel& m, uint32_t t)
{
    for (Fan& f : m.fans) {
        f.since = t;
        f.from = 0;
    }
}

/* Takes one injected failure, if any is left. */
bool take(Failure& f, Failure* out)
{
    if (f.count <= 0) {
        return false;
    }
    --f.count;
    *out = f;
    return true;
}

void fill_logs(splog_info* loginfo, splog_linkup_info* loglink, uint32_t word)
{
    if (loginfo != nullptr) {
        memset(loginfo, 0, sizeof(*loginfo));
        strncpy(loginfo->ras_code, kFanHapRasCode, sizeof(loginfo->ras_code) - 1);
        loginfo->BMCInst = 17;
        loginfo->latch_code[0].latch_code = word;
    }
    if (loglink != nullptr) {
        memset(loglink, 0, sizeof(*loglink));
        loglink->log_id = 0xFA;
        loglink->num = 1;
        loglink->BMCInst = 17;
    }
}

int read_speed(const HapCall& call, uint32_t* data, splog_info* loginfo, splog_linkup_info* loglink)
{
    FanModel& m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    Failure fail;
    if (take(m.read_failure, &fail)) {
        if (data != nullptr) {
            data[kFans] = fail.word;
        }
        fill_logs(loginfo, loglink, fail.word);
        return fail.ret;
    }
    if (data == nullptr) {
        return 0;
    }
    const uint32_t para = call.para.empty() ? 0xFFu : call.para[0];
    for (int i = 0; i < kFans; ++i) {
        data[i] = (para & (1u << i)) != 0 ? speed_at(m, m.fans[i], call.time) : 0;
    }
    data[kFans] = m.fanc_error;
    return 0;
}

int change_speed(const HapCall& call, uint32_t* data, splog_info* loginfo, splog_linkup_info* loglink)
{
    FanModel& m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    Failure fail;
    if (take(m.change_failures[call.mode], &fail)) {
        if (data != nullptr) {
            data[0] = fail.word;
        }
        fill_logs(loginfo, loglink, fail.word);
        return fail.ret;
    }
    const bool full = call.mode == "MAX_FANSPEED";
    if (full != m.full) {
        for (Fan& f : m.fans) {
            f.from = speed_at(m, f, call.time);
            f.since = call.time;
        }
        m.full = full;
    }
    if (data != nullptr) {
        data[0] = 0;
    }
    return 0;
}

void reset()
{
    FanModel& m = model();
    {
        std::lock_guard<std::mutex> lock(m.mutex);
        for (Fan& f : m.fans) {
            f = Fan();
        }
        m.full = false;
        m.fanc_error = 0;
        m.read_failure = Failure();
        m.change_failures.clear();
        power_on_locked(m, now());
    }
    detail::set_builtin_hap("BOB_R_BOBC_FANC", "READ_FANSPEED", read_speed);
    detail::set_builtin_hap("BOB_R_BOBC_FANC", "MAX_FANSPEED", change_speed);
    detail::set_builtin_hap("BOB_R_BOBC_FANC", "RESTORE_FANSPEED", change_speed);
}

const bool registered = (detail::register_model("fans", reset), true);

/* Runs `change` on a valid fan under the model's mutex. */
template <typename F> void with_fan(int fan, F&& change)
{
    if (!valid(fan)) {
        return;
    }
    FanModel& m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    change(m, m.fans[fan], now());
}

constexpr size_t kFanWords = 4;
constexpr size_t kStateWords = kFans * kFanWords + 2 + 3 * 3;
const char* const kChangeModes[] = {"MAX_FANSPEED", "RESTORE_FANSPEED"};

void put_failure(std::vector<uint32_t>& w, const Failure& f)
{
    w.push_back(static_cast<uint32_t>(f.ret));
    w.push_back(f.word);
    w.push_back(static_cast<uint32_t>(f.count));
}

Failure get_failure(const uint32_t* w)
{
    return Failure{static_cast<int>(w[0]), w[1], static_cast<int>(w[2])};
}

} // namespace

std::vector<uint32_t> fan_state()
{
    FanModel& m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    std::vector<uint32_t> w;
    w.reserve(kStateWords);
    for (const Fan& f : m.fans) {
        w.insert(w.end(), {f.since, f.from, f.ramp, f.limit});
    }
    w.push_back(m.full ? 1 : 0);
    w.push_back(m.fanc_error);
    put_failure(w, m.read_failure);
    for (const char* mode : kChangeModes) {
        auto it = m.change_failures.find(mode);
        put_failure(w, it == m.change_failures.end() ? Failure() : it->second);
    }
    return w;
}

void set_fan_state(const std::vector<uint32_t>& w)
{
    if (w.size() != kStateWords) {
        return;
    }
    FanModel& m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    const uint32_t* p = w.data();
    for (Fan& f : m.fans) {
        f = Fan{p[0], p[1], p[2], p[3]};
        p += kFanWords;
    }
    m.full = *p++ != 0;
    m.fanc_error = *p++;
    m.read_failure = get_failure(p);
    p += 3;
    m.change_failures.clear();
    for (const char* mode : kChangeModes) {
        Failure f = get_failure(p);
        p += 3;
        if (f.count > 0) {
            m.change_failures[mode] = f;
        }
    }
}

void fan_power_on()
{
    FanModel& m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    power_on_locked(m, now());
}

void fan_spin_up(int fan, uint32_t seconds)
{
    with_fan(fan, [&](FanModel&, Fan& f, uint32_t) { f.ramp = seconds; });
}

void fan_stall(int fan)
{
    with_fan(fan, [](FanModel&, Fan& f, uint32_t) { f.limit = 0; });
}

void fan_slow(int fan, uint32_t speed)
{
    with_fan(fan, [&](FanModel&, Fan& f, uint32_t) { f.limit = speed; });
}

void fan_replace(int fan)
{
    with_fan(fan, [](FanModel&, Fan& f, uint32_t t) {
        f = Fan();
        f.since = t;
    });
}

bool fan_full_speed()
{
    FanModel& m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    return m.full;
}

uint32_t fan_speed(int fan)
{
    uint32_t v = 0;
    with_fan(fan, [&](FanModel& m, Fan& f, uint32_t t) { v = speed_at(m, f, t); });
    return v;
}

void set_fanc_error(uint32_t word)
{
    FanModel& m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    m.fanc_error = word;
}

void fail_fan_read(int ret, uint32_t fanc_error, int count)
{
    FanModel& m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    m.read_failure = Failure{ret, fanc_error, count};
}

void fail_fan_speed_change(const std::string& mode, int ret, uint32_t data, int count)
{
    FanModel& m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    m.change_failures[mode] = Failure{ret, data, count};
}

} // namespace zsim
