/* Fan rotation checks and their threads, on the virtual clock. */
#include <chrono>
#include <thread>

#include "fan_support.h"

using namespace fant;

class FanCheckTest : public SimTest {
  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        zsim::fan_power_on();
        t0 = zsim::now();
    }
    uint32_t t0 = 0;
};

/* Phase 2 reached with every fan healthy. */
static void start_up_done()
{
    znpdklib_set_fan_check_phase(0x02);
}

TEST_F(FanCheckTest, StartUpThenStallAtFullSpeedThenReplace)
{
    EXPECT_EQ(0, znpdklib_check_fan_spinup()); /* 0 at the first poll, 9000 at the second */
    EXPECT_EQ(every(t0, 2, 2), hap_times("READ_FANSPEED"));
    EXPECT_EQ(0x01, znpdklib_get_fan_check_phase());
    EXPECT_EQ(t0, sys().fan_start_time[7]);
    EXPECT_EQ(0, znpdklib_check_fan_rotation());
    EXPECT_EQ((std::vector<uint32_t>{t0, t0 + 2, t0 + 2}), hap_times("READ_FANSPEED"));
    EXPECT_EQ(0x02, znpdklib_get_fan_check_phase());
    EXPECT_FALSE(znpdklib_is_check_fan_executing());
    EXPECT_EQ(1, znpdklib_check_fan_rotation());
    EXPECT_EQ(3u, hap_times("READ_FANSPEED").size());

    zsim::fan_stall(5);
    zsim::clear_hap_calls();
    const uint32_t t1 = zsim::now();
    EXPECT_EQ(0, znpdklib_max_fan_speed(0x1));
    ASSERT_TRUE(zsim::wait_library_threads());
    EXPECT_EQ(std::vector<uint32_t>{t1 + 5}, hap_times("READ_FANSPEED")); /* one poll decides */
    const uint8_t results[8] = {0, 0, 0, 0, 0, 1, 0, 0};
    EXPECT_EQ(0, memcmp(results, sys().fan_check_result, 8));
    EXPECT_FALSE(znpdklib_is_check_fan_executing());
    ASSERT_EQ(std::vector<std::string>{"BFW_FAN_CHK_H0"}, ras_codes());
    splog_info expect;
    memset(&expect, 0, sizeof(expect));
    strcpy(expect.ras_code, "BFW_FAN_CHK_H0");
    expect.BMCInst = 17;
    expect.part1_pos[0] = 2;
    expect.part1_pos[1] = 1;
    EXPECT_EQ(0, memcmp(&expect, &zsim::ras_logs()[0].info, sizeof(expect)));

    /* The monitor marks the fan failed and judges redundancy again. */
    frue(5, 0x0010);
    EXPECT_EQ(1, znpdklib_check_fan_redundancy(1, nullptr));
    EXPECT_EQ(0x4, ztest::state(17, kRedSns));
    EXPECT_EQ(1, znpdklib_restore_fan_speed(0x1));
    EXPECT_EQ(0x200000u, sys().fanfull_reason);
    EXPECT_TRUE(zsim::fan_full_speed());

    zsim::fan_replace(5);
    frue(5, 0x0002);
    zsim::clear_hap_calls();
    zsim::clear_ras_logs();
    const uint32_t t2 = zsim::now();
    znpdklib_create_fan_rotation_check_thread(2, 1u << 5);
    ASSERT_TRUE(zsim::wait_library_threads());
    EXPECT_EQ(every(t2, 2, 2), hap_times("READ_FANSPEED"));
    EXPECT_EQ("check_fan_rotation():start. fan_check_target=0x00000020 max_time=15 threshold=12000",
              ztest::texts_with_id(0x80090001).back());
    EXPECT_EQ(std::vector<std::string>{"BFW_CFG_FAN_H2"}, ras_codes());
    EXPECT_EQ(0x2, ztest::state(17, kRedSns));
    EXPECT_EQ(0u, sys().fanfull_reason);
    EXPECT_EQ(0u, sys().fan_start_time_by_attach);
    EXPECT_EQ(std::vector<uint32_t>{t2 + 2}, hap_times("RESTORE_FANSPEED"));
    EXPECT_FALSE(zsim::fan_full_speed());
}

TEST_F(FanCheckTest, SpinUpOutcomes)
{
    struct Case { /* fans stuck at 1500; fan 7 uninstalled in FANU#3 under maintenance */
        int slow, mainte7, rtn, phase;
    };
    const Case cases[] = {{0x04, false, 2, 0x01}, {0x44, false, -1, 0x81}, {0x04, true, -1, 0x81}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.slow);
        zsim::clear_hap_calls();
        zsim::clear_ras_logs();
        for (int i = 0; i < 8; ++i) {
            zsim::fan_replace(i); /* healthy, starting now */
        }
        frue(7, 0x0002);
        zsim::set_sensor_reading(17, 0xE0, 0x0000);
        const uint32_t t = zsim::now();
        for (int i = 0; i < 8; ++i) {
            if ((c.slow >> i) & 1) {
                zsim::fan_slow(i, 1500);
            }
        }
        if (c.mainte7) {
            frue(7, 0x0001);
            zsim::set_sensor_reading(17, 0xE0, 0x0002);
        }
        EXPECT_EQ(c.rtn, znpdklib_check_fan_spinup());
        EXPECT_EQ(every(t, 2, 6), hap_times("READ_FANSPEED")); /* time-out 10 s after the stamp */
        EXPECT_EQ(c.phase, znpdklib_get_fan_check_phase());
        EXPECT_EQ(c.rtn < 0 ? 0u : t, sys().fan_start_time[0]);
        EXPECT_EQ(1, sys().fan_check_result[2]);
        ASSERT_FALSE(zsim::ras_logs().empty());
        EXPECT_EQ(1, zsim::ras_logs()[0].info.part1_pos[0]);
        EXPECT_EQ(0, zsim::ras_logs()[0].info.part1_pos[1]);
    }
}

TEST_F(FanCheckTest, SleepRestartedAfterSignal)
{
    zsim::fan_spin_up(3, 4);
    zsim::inject_select_eintr(1, 1);
    EXPECT_EQ(0, znpdklib_check_fan_spinup());
    EXPECT_EQ(every(t0, 2, 3), hap_times("READ_FANSPEED"));
}

TEST_F(FanCheckTest, SpeedReadFailureMarksFanControllerFans)
{
    zsim::fail_fan_read(-3, 0x5);
    EXPECT_EQ(-2, znpdklib_check_fan_spinup());
    const uint8_t results[8] = {2, 0, 2, 0, 2, 0, 2, 0};
    EXPECT_EQ(0, memcmp(results, sys().fan_check_result, 8));
    EXPECT_EQ(0x81, znpdklib_get_fan_check_phase());
    EXPECT_FALSE(znpdklib_is_check_fan_executing());
    EXPECT_EQ(std::vector<std::string>{zsim::kFanHapRasCode}, ras_codes());
    EXPECT_EQ(0u, count(0x80040001)); /* no redundancy check */
    ASSERT_EQ(1u, count(0x80090004));
    EXPECT_EQ(0x8002, zsim::traces_with_id(0x80090004)[0].level);
    /* Start times cleared: the second check has nothing to do. */
    EXPECT_EQ(1, znpdklib_check_fan_rotation());
    EXPECT_EQ(1u, count(0x80080002));
}

TEST_F(FanCheckTest, DebugDummySpeedsAndSuspension)
{
    set_debug(DBGW_BMCFW_MODULE_COMMON0, 0xC0); /* the first check is never held */
    frue(0, 0x0001);
    EXPECT_EQ(2, znpdklib_check_fan_spinup()); /* fan 0 uninstalled: redundancy lost, full speed */
    EXPECT_EQ(std::vector<std::string>(
                  2, "debug_fan_check_dummy_data():debug file(/tmp/debug_fan_check_dummy_data) not exist"),
              ztest::texts_with_id(0x80170003)); /* once per poll */
    EXPECT_EQ(0u, count(0x80160001));

    zsim::fan_stall(3);
    zsim::write_text("/tmp/debug_fan_check_dummy_data", "3:12500\n8:100\nx:1\n0:100\n3\n3:13500\n");
    zsim::clear_traces();
    std::thread second([] { EXPECT_EQ(2, znpdklib_check_fan_rotation()); });
    for (int i = 0; i < 20000 && count(0x80160001) == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_EQ(1u, count(0x80160001));
    const uint32_t suspended = zsim::traces_with_id(0x80160001)[0].time;
    set_debug(DBGW_BMCFW_MODULE_COMMON0, 0x40);
    second.join();
    ASSERT_EQ(1u, count(0x80160002));
    const uint32_t first_read = hap_times("READ_FANSPEED").back();
    EXPECT_EQ(0u, (first_read - suspended) % 5);
    EXPECT_LE(suspended + 5, first_read);
    EXPECT_EQ((std::vector<std::string>{
                  "debug_fan_check_dummy_data():/FANU#1/FAN#1 set dummy rotaion 0=>12500",
                  "debug_fan_check_dummy_data():/FANU#1/FAN#1 set dummy rotaion 12500=>13500"}),
              ztest::texts_with_id(0x80170002));
    EXPECT_EQ(0, sys().fan_check_result[3]);
}

TEST_F(FanCheckTest, FullSpeedSetDuringSecondCheck)
{
    znpdklib_set_check_fan_start_time(0xFF, nullptr);
    znpdklib_set_fan_check_phase(0x01);
    zsim::advance(2);
    zsim::fan_slow(4, 10000);
    bool first = true;
    zsim::script_hap("BOB_R_BOBC_FANC", "READ_FANSPEED",
                     [&](const zsim::HapCall&, uint32_t* data, splog_info*, splog_linkup_info*) {
                         if (first) {
                             first = false;
                             znpdklib_max_fan_speed(0x8);
                         }
                         for (int i = 0; i < 8; ++i) {
                             data[i] = zsim::fan_speed(i);
                         }
                         data[8] = 0;
                         return 0;
                     });
    const uint32_t t = zsim::now();
    EXPECT_EQ(2, znpdklib_check_fan_rotation());
    EXPECT_EQ((std::vector<uint32_t>{t, t + 5}), hap_times("READ_FANSPEED"));
    EXPECT_EQ(1u, count(0x80080007));
    EXPECT_EQ(1u, count(0x80110003)); /* no thread before phase 2 */
    EXPECT_EQ(0x02, znpdklib_get_fan_check_phase());
    EXPECT_EQ(1, sys().fan_check_result[4]);
    EXPECT_FALSE(znpdklib_is_check_fan_executing());
}

TEST_F(FanCheckTest, ThreadsStartOnlyInPhaseTwoWithPowerOn)
{
    const uint8_t phases[] = {0x00, 0x01, 0x81, 0x82, 0x02};
    for (uint8_t phase : phases) {
        znpdklib_set_fan_check_phase(phase);
        zsim::set_sensor_reading(17, 0x00, phase == 0x02 ? 0x0001 : 0x0000);
        znpdklib_create_fan_rotation_check_thread(1, 0xFF);
    }
    EXPECT_EQ(4u, count(0x80110003));
    EXPECT_EQ(1u, count(0x80110002));
    EXPECT_EQ(0u, count(0x8011FFFF));

    zsim::set_sensor_reading(17, 0x00, 0x0000);
    zsim::advance(2); /* fans settled: one reading decides, whichever thread runs first */
    for (uint8_t mode : {0, 3, 2}) {
        znpdklib_create_fan_rotation_check_thread(mode, 0xFF);
    }
    ASSERT_TRUE(zsim::wait_library_threads());
    /* No full-speed reason: the max speed threads skip their reading. */
    EXPECT_EQ(2u, count(0x800D0003));
    EXPECT_EQ(2u, count(0x800D0005));
    EXPECT_EQ("check_fan_rotation():start. fan_check_target=0x000000ff max_time=15 threshold=8000",
              ztest::texts_with_id(0x80090001).back());
    EXPECT_EQ(1u, hap_times("READ_FANSPEED").size());
    EXPECT_FALSE(znpdklib_is_check_fan_executing());
}

TEST_F(FanCheckTest, RestartedFanIsDropped)
{
    start_up_done();
    zsim::fan_slow(3, 1000);
    uint32_t restamp = 0;
    zsim::script_hap("BOB_R_BOBC_FANC", "READ_FANSPEED",
                     [&](const zsim::HapCall&, uint32_t*, splog_info*, splog_linkup_info*) {
                         zsim::advance(1);
                         restamp = zsim::now();
                         znpdklib_set_check_fan_start_time(0x08, nullptr);
                         return 0;
                     });
    znpdklib_create_fan_rotation_check_thread(2, 0x08);
    ASSERT_TRUE(zsim::wait_library_threads());
    EXPECT_EQ(1u, hap_times("READ_FANSPEED").size());
    EXPECT_EQ(1u, count(0x8009000D));
    EXPECT_EQ(restamp, sys().fan_start_time[3]);
    EXPECT_EQ(0, sys().fan_check_result[3]);
    EXPECT_EQ(1u, count(0x80120003));
}

TEST_F(FanCheckTest, FullSpeedChangeInsideCheckKeepsLockOrder)
{
    start_up_done();
    frue(4, 0x0010);
    zsim::fan_stall(3);
    znpdklib_create_fan_rotation_check_thread(2, 0x08);
    ASSERT_TRUE(zsim::wait_library_threads());
    std::vector<uint32_t> polls = every(t0, 2, 9); /* time-out at 16 >= 15 */
    polls.push_back(t0 + 21);                      /* the max speed thread it started */
    EXPECT_EQ(polls, hap_times("READ_FANSPEED"));
    EXPECT_EQ((std::vector<std::string>{"BFW_FAN_CHK_H0", "BFW_CFG_FAN_H0", "BFW_FAN_CHK_H0"}), ras_codes());
    EXPECT_EQ(1u, count(0x800D0004));
    EXPECT_EQ(0x200000u, sys().fanfull_reason);
    EXPECT_TRUE(zsim::lock_violations().empty());
}

TEST_F(FanCheckTest, RotationFailureAfterReasonsWithdrawnIsNotLogged)
{
    start_up_done();
    edit_sys([](current_system_info_t& s) { s.fanfull_reason = 0x1; });
    zsim::script_hap("BOB_R_BOBC_FANC", "READ_FANSPEED",
                     [&](const zsim::HapCall&, uint32_t*, splog_info*, splog_linkup_info*) {
                         znpdklib_restore_fan_speed(0x1);
                         return 0;
                     });
    znpdklib_create_fan_rotation_check_thread(1, 0x01);
    ASSERT_TRUE(zsim::wait_library_threads());
    EXPECT_EQ(1, sys().fan_check_result[0]);
    EXPECT_EQ(1u, count(0x800F0004));
    EXPECT_EQ(1u, count(0x8009000C));
    EXPECT_TRUE(zsim::ras_logs().empty());
}
