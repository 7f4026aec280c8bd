/* Fan check bookkeeping, full-speed reasons and the fan redundancy check. */
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "fan_support.h"

using namespace fant;

using FanBookTest = SimTest;

TEST_F(FanBookTest, StampAndClearKeepOtherFansAndRestampedTimes)
{
    edit_sys([](current_system_info_t& s) {
        for (int i = 0; i < 8; ++i) {
            s.fan_start_time[i] = 500;
            s.fan_check_result[i] = static_cast<uint8_t>(i + 1);
        }
    });
    zsim::set_time(1000);
    uint32_t mine[8] = {7, 7, 7, 7, 7, 7, 7, 7};
    znpdklib_set_check_fan_start_time(0x05, mine);
    current_system_info_t s = sys();
    const uint32_t times[8] = {1000, 500, 1000, 500, 500, 500, 500, 500};
    const uint8_t results[8] = {0, 2, 0, 4, 5, 6, 7, 8};
    const uint32_t array[8] = {1000, 7, 1000, 7, 7, 7, 7, 7};
    EXPECT_EQ(0, memcmp(times, s.fan_start_time, sizeof(times)));
    EXPECT_EQ(0, memcmp(results, s.fan_check_result, sizeof(results)));
    EXPECT_EQ(0, memcmp(array, mine, sizeof(array)));

    /* Fan 3 was restamped by someone else: the caller's clear leaves it. */
    uint32_t stale[8] = {1000, 500, 1000, 499, 500, 500, 500, 500};
    znpdklib_clear_check_fan_start_time(0xFF, stale);
    s = sys();
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(i == 3 ? 500u : 0u, s.fan_start_time[i]) << i;
    }
    EXPECT_ONLY_TEXT(
        0x80100003,
        "znpdklib_clear_check_fan_start_time():/FANU#1/FAN#1 not clear fan_start_time_param=499 fan_start_time_db=500");
    EXPECT_TRUE(znpdklib_is_check_fan_executing());
    znpdklib_clear_check_fan_start_time(0xFF, nullptr);
    EXPECT_FALSE(znpdklib_is_check_fan_executing());
    EXPECT_EQ(0, memcmp(results, sys().fan_check_result, sizeof(results)));
}

TEST_F(FanBookTest, AttachTimeAndPhase)
{
    zsim::set_time(2000);
    uint32_t t = 0;
    znpdklib_set_check_fan_start_time_by_attach(&t);
    EXPECT_EQ(2000u, t);
    EXPECT_TRUE(znpdklib_is_check_fan_executing_by_attach());
    const int writes = zsim::property_writes(kRoot);
    znpdklib_clear_check_fan_start_time_by_attach(1999);
    EXPECT_EQ(writes, zsim::property_writes(kRoot));
    EXPECT_EQ(2000u, sys().fan_start_time_by_attach);
    znpdklib_clear_check_fan_start_time_by_attach(2000);
    EXPECT_FALSE(znpdklib_is_check_fan_executing_by_attach());
    znpdklib_set_check_fan_start_time_by_attach(nullptr);
    EXPECT_EQ(0u, sys().fan_start_time_by_attach);

    znpdklib_set_fan_check_phase(0x82);
    EXPECT_EQ(0x82, znpdklib_get_fan_check_phase());
    EXPECT_ONLY_TEXT(0x800E0002, "znpdklib_set_fan_check_phase():set phase:0x00=>0x82");
}

using FanSpeedTest = SimTest;

TEST_F(FanSpeedTest, MaskArithmeticAndProcedureOnTransitionsOnly)
{
    struct Case {
        uint64_t mask, set, reset, expect;
        int rtn;
        std::vector<std::string> modes; /* procedures run */
    };
    const Case cases[] = {
        {0x5, 0x0, 0x0, 0x5, -2, {}},
        {0x5, 0x1, 0x1, 0x5, -2, {}},
        {0x0, 0x3, 0x2, 0x0, -2, {}},
        {0x0, 0x1, 0x0, 0x1, 0, {"MAX_FANSPEED"}},
        {0x1, 0x2, 0x0, 0x3, 1, {}},
        {0x1, 0x1, 0x0, 0x1, 1, {}},
        {0x3, 0x0, 0x4, 0x3, 1, {}},
        {0x3, 0x0, 0x3, 0x0, 0, {"RESTORE_FANSPEED"}},
        {0xF0, 0x0F, 0xF0, 0x0F, 1, {}},
        {0x8000000000000000ull, 0x100000000ull, 0x8000000000000000ull, 0x100000000ull, 1, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mask);
        edit_sys([&](current_system_info_t& s) { s.fanfull_reason = c.mask; });
        zsim::clear_hap_calls();
        const int writes = zsim::property_writes(kRoot);
        EXPECT_EQ(c.rtn, znpdklib_change_fan_speed(c.set, c.reset));
        EXPECT_EQ(c.expect, sys().fanfull_reason);
        EXPECT_EQ(c.expect == c.mask ? writes : writes + 1, zsim::property_writes(kRoot));
        EXPECT_EQ(c.modes, hap_modes());
    }
    EXPECT_EQ(-2, znpdklib_max_fan_speed(0));
    EXPECT_EQ(0x8002, zsim::traces_with_id(0x80030002).at(0).level);
    EXPECT_EQ(
        "znpdklib_change_fan_speed():specified same reason. set_reason=0x0000000000000003 reset_reason=0x0000000000000002",
        ztest::texts_with_id(0x80030003).back());
}

TEST_F(FanSpeedTest, FullSpeedStartsCheckOfUsableFansOnly)
{
    znpdklib_set_fan_check_phase(0x02);
    const uint16_t states[8] = {0x0000, 0x0001, 0x0010, 0x8001, 0x0002, 0x0004, 0x0008, 0x0020};
    for (int i = 0; i < 8; ++i) {
        frue(i, states[i]);
    }
    EXPECT_EQ(0, znpdklib_max_fan_speed(0x10));
    EXPECT_ONLY_TEXT(0x80110001,
                     "znpdklib_create_fan_rotation_check_thread():start. mode=0x01 fan_target=0x000000f0");
    EXPECT_EQ(
        "znpdklib_change_fan_speed(): /FANU#1/FAN#1 is not max speed check target. frue_sns=0x0001 fan_target=0x00000000",
        ztest::texts_with_id(0x8003000B).at(3));
    ASSERT_TRUE(zsim::wait_library_threads());
    EXPECT_EQ(1u, count(0x800D0001));
    EXPECT_TRUE(zsim::fan_full_speed());
    /* Four unusable fans: the check's redundancy run added the shortage. */
    EXPECT_EQ(0x400010u, sys().fanfull_reason);

    EXPECT_EQ(1, znpdklib_max_fan_speed(0x20));
    EXPECT_EQ(1, znpdklib_restore_fan_speed(0x30));
    EXPECT_EQ(0, znpdklib_restore_fan_speed(0x400000));
    EXPECT_FALSE(zsim::fan_full_speed());
    EXPECT_EQ(1u, count(0x80110001)); /* no check after a restore */
}

TEST_F(FanSpeedTest, FailureKeepsMaskAndLogs)
{
    zsim::fail_fan_speed_change("MAX_FANSPEED", -5, 0x12);
    EXPECT_EQ(-1, znpdklib_max_fan_speed(0x1));
    EXPECT_EQ(0x1u, sys().fanfull_reason);
    EXPECT_EQ(std::vector<std::string>{zsim::kFanHapRasCode}, ras_codes());
    EXPECT_ONLY_TEXT(0x80030009,
                     "znpdklib_change_fan_speed():change fan speed failed. ret=-5 data=0x00000012");
    EXPECT_EQ(1, znpdklib_max_fan_speed(0x1));
    EXPECT_FALSE(zsim::fan_full_speed());
    EXPECT_EQ(0u, count(0x80110001));
}

/* Each worker adds its own bits one call at a time and withdraws them, in
 * rounds; the last round withdraws only the even ones. A lost update shows
 * as a bit of one worker missing or left behind after its own round. */
static int add_bits(int worker, int per_worker)
{
    int lost = 0;
    const uint64_t mine = (per_worker == 64 ? ~0ull : ((1ull << per_worker) - 1)) << (worker * per_worker);
    for (int round = 0; round < 16; ++round) {
        for (int b = 0; b < per_worker; ++b) {
            znpdklib_max_fan_speed(1ull << (worker * per_worker + b));
        }
        lost += (sys().fanfull_reason & mine) != mine;
        for (int b = 0; b < per_worker; b += round == 15 ? 2 : 1) {
            znpdklib_restore_fan_speed(1ull << (worker * per_worker + b));
        }
    }
    return lost;
}

TEST_F(FanSpeedTest, ConcurrentThreadsAndProcessesLoseNoBit)
{
    std::atomic<int> lost{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < 4; ++w) {
        workers.emplace_back([w, &lost] { lost += add_bits(w, 16); });
    }
    for (std::thread& t : workers) {
        t.join();
    }
    EXPECT_EQ(0, lost.load());
    EXPECT_EQ(0xAAAAAAAAAAAAAAAAull, sys().fanfull_reason);

    edit_sys([](current_system_info_t& s) { s.fanfull_reason = 0; });
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(add_bits(1, 32));
    }
    EXPECT_EQ(0, add_bits(0, 32));
    int status = -1;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(0xAAAAAAAAAAAAAAAAull, sys().fanfull_reason);
    EXPECT_TRUE(zsim::lock_violations().empty());
    /* A change waits for another holder of the root's write lock. */
    std::future<int> add;
    {
        sp::sysobj::Component::WriteLock hold(zsim::component(1));
        add = std::async(std::launch::async, [] { return znpdklib_max_fan_speed(1); });
        EXPECT_EQ(std::future_status::timeout, add.wait_for(std::chrono::milliseconds(100)));
    }
    EXPECT_EQ(1, add.get());
    EXPECT_EQ(0xAAAAAAAAAAAAAAABull, sys().fanfull_reason);
}

using FanRedundancyTest = SimTest;

TEST_F(FanRedundancyTest, Transitions)
{
    /* Before: fans whose FRUE is failed, redundancy sensor, reasons, attach check start time, FANU#1
     * maintenance sensor; the code logged ("" none); after: sensor, reasons, shortage-to-lost recoveries. */
    struct Case {
        uint64_t failed, sns, reason, attach, mainte1;
        int mode, result;
        const char* ras;
        uint64_t sns_after, reason_after, to_lost;
    };
    const Case cases[] = {
        {0x00, 0x2, 0, 0, 0, 1, 0, "", 0x2, 0, 0},
        {0x08, 0x2, 0, 0, 0, 1, 1, "BFW_CFG_FAN_H0", 0x4, 0x200000, 0},
        {0x08, 0x4, 0x200000, 0, 0, 1, 1, "", 0x4, 0x200000, 0},
        {0x18, 0x2, 0, 0, 0, 1, 2, "BFW_CFG_FAN_H1", 0x8, 0x400000, 0},
        {0x18, 0x4, 0x200000, 0, 0, 2, 2, "BFW_CFG_FAN_H1", 0x8, 0x600000, 0},
        {0x08, 0x8, 0x400000, 0, 0, 1, 1, "BFW_CFG_FAN_H0", 0x4, 0x600000, 1},
        {0x00, 0x4, 0x600000, 0, 0, 1, 0, "", 0x4, 0x600000, 0},
        {0x00, 0x4, 0x600000, 5, 0, 2, 0, "", 0x4, 0x600000, 0},          /* attach check running */
        {0x04, 0x4, 0x600000, 0, 0x2, 2, 0, "", 0x4, 0x600000, 0},        /* fan 2 good by maintenance */
        {0x04, 0x2, 0, 0, 0x1, 1, 1, "BFW_CFG_FAN_H0", 0x4, 0x200000, 0}, /* other offsets: no maintenance */
        {0x00, 0x4, 0x600000, 0, 0, 2, 0, "BFW_CFG_FAN_H2", 0x2, 0, 0},
        {0x00, 0x8, 0x400001, 0, 0, 2, 0, "BFW_CFG_FAN_H2", 0x2, 0x1, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "failed=" << c.failed << " sns=" << c.sns << " mode=" << c.mode);
        zsim::clear_ras_logs();
        zsim::clear_traces();
        for (int i = 0; i < 8; ++i) {
            frue(i, (c.failed >> i) & 1 ? 0x0010 : 0x0002);
        }
        zsim::set_sensor_reading(17, kRedSns, c.sns);
        zsim::set_sensor_reading(17, 0xDE, c.mainte1);
        edit_sys([&](current_system_info_t& s) {
            s.fanfull_reason = c.reason;
            s.fan_start_time_by_attach = c.attach;
        });
        int fanc_err = 7;
        EXPECT_EQ(c.result, znpdklib_check_fan_redundancy(c.mode, &fanc_err));
        EXPECT_EQ(c.reason == c.reason_after ? 7 : 0, fanc_err);
        EXPECT_EQ(std::string(c.ras).empty() ? std::vector<std::string>{} : std::vector<std::string>{c.ras},
                  ras_codes());
        for (const zsim::RasLog& l : zsim::ras_logs()) {
            EXPECT_EQ(0, l.info.part1_pos[0]);
        }
        EXPECT_EQ(c.sns_after, ztest::state(17, kRedSns));
        EXPECT_EQ(c.reason_after, sys().fanfull_reason);
        EXPECT_EQ(c.to_lost, count(0x8006000D));
    }
    ASSERT_TRUE(zsim::wait_library_threads());
}

TEST_F(FanRedundancyTest, SkippedByDebugBitsAndBadMode)
{
    frue(0, 0x0010);
    int fanc_err = 9;
    set_debug(DBGW_BMCFW_MODULE_COMMON0, 0x2);
    EXPECT_EQ(0, znpdklib_check_fan_redundancy(1, &fanc_err));
    set_debug(DBGW_BMCFW_MODULE_COMMON0, 0xFFFFFFFD);
    set_debug(DBGW_BMCFW_MODULE_BMCINIT, 0x10000);
    EXPECT_EQ(0, znpdklib_check_fan_redundancy(1, &fanc_err));
    EXPECT_EQ(9, fanc_err);
    EXPECT_EQ(-1, znpdklib_check_fan_redundancy(3, nullptr));
    EXPECT_EQ(0x2, ztest::state(17, kRedSns));
    EXPECT_TRUE(zsim::ras_logs().empty());
}

TEST_F(FanRedundancyTest, FancErrorWhenSpeedChangeFails)
{
    frue(6, 0x0010);
    zsim::fail_fan_speed_change("MAX_FANSPEED", -1);
    int fanc_err = 0;
    EXPECT_EQ(1, znpdklib_check_fan_redundancy(1, &fanc_err));
    EXPECT_EQ(1, fanc_err);
    EXPECT_EQ((std::vector<std::string>{"BFW_CFG_FAN_H0", zsim::kFanHapRasCode}), ras_codes());
}

TEST_F(FanRedundancyTest, ConcurrentChecksActOnOneTransitionOnce)
{
    frue(3, 0x0010);
    ztest::MeetAtTrace meet(0x80060007, 500); /* the verdict line, written under the lock */
    std::atomic<int> lost{0};
    std::thread other([&] { lost += znpdklib_check_fan_redundancy(1, nullptr); });
    lost += znpdklib_check_fan_redundancy(1, nullptr);
    other.join();
    EXPECT_EQ(2, lost.load());
    EXPECT_EQ(std::vector<std::string>{"BFW_CFG_FAN_H0"}, ras_codes());
    EXPECT_EQ(0x4, ztest::state(17, kRedSns));
}

TEST_F(FanRedundancyTest, MaintenancePreCheck)
{
    struct Case {
        int fanu, failed, mainte_unit /* -1 none */, poff, answer;
    };
    const Case cases[] = {
        {2, 0x00, 0, false, 1},   {2, 0x30, -1, false, 0}, {2, 0x31, -1, false, 1},
        {1, 0x10, -1, false, 1},  {0, 0x00, -1, false, 0}, {4, 0x00, -1, false, 1},
        {-1, 0x00, -1, false, 0}, {2, 0xFF, 1, true, 0},   {0, 0x00, 3, false, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fanu);
        for (int i = 0; i < 8; ++i) {
            frue(i, (c.failed >> i) & 1 ? 0x0010 : 0x0002);
        }
        for (int u = 0; u < 4; ++u) {
            zsim::set_sensor_reading(17, static_cast<uint8_t>(0xDD + u), u == c.mainte_unit ? 0x2 : 0x0);
        }
        zsim::set_sensor_reading(17, 0x00, c.poff ? 0x1 : 0x0);
        EXPECT_EQ(c.answer, znpdklib_check_fan_redundancy_for_enter_mainte(c.fanu));
    }
    EXPECT_EQ(0x2, ztest::state(17, kRedSns));
    EXPECT_TRUE(zsim::ras_logs().empty());
    EXPECT_EQ(0u, sys().fanfull_reason);
}
