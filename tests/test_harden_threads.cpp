/* Every thread-safe entry point from many threads at once: sensor writes
 * and unlocked reads, the flags area through the sequence flags, fan
 * full-speed reasons and the check threads they start. Run under
 * ThreadSanitizer by CI; the end state is exact whatever the interleaving. */
#include <bitset>
#include <chrono>
#include <thread>

#include "fan_support.h"
#include "sensor_test_util.h"

namespace {

using HardenThreads = SimTest;

constexpr uint8_t kSensor = 250;
constexpr int kWriterInsts[] = {1, 2, 17};

/* The 15-bit state of an exclusive sensor as an unlocked reader sees it. */
uint16_t read_state(int inst)
{
    GetSensorReadingRes_T res = {};
    if (ZNAPI_GetSensorReading(kSensor, &res, inst) != 0) {
        return 0xFFFF;
    }
    return static_cast<uint16_t>(res.ComparisonStatus | (res.OptionalStatus & 0x7F) << 8);
}

TEST_F(HardenThreads, EveryThreadSafeEntryPointAtOnce)
{
#if defined(__arm__)
    const int kRounds = 60;
#else
    const int kRounds = 400;
#endif
    const int kFanRounds = kRounds / 8;
    for (int inst : kWriterInsts) {
        ASSERT_FALSE(zsim::sensor_present(inst, kSensor));
        zsim::SensorDef d;
        d.inst = inst;
        d.num = kSensor;
        d.type = 7;
        d.reading = 0x0001;
        zsim::define_sensor(d);
    }
    znpdklib_set_fan_check_phase(0x02);
    std::atomic<int> bad{0};
    auto expect = [&bad](bool ok) { bad += ok ? 0 : 1; };
    std::vector<std::function<void()>> work;
    for (int inst : kWriterInsts) { /* exclusive sets, one writer per instance */
        work.push_back([&, inst] {
            for (int r = 0; r < kRounds; ++r) {
                expect(znpdklib_exSetSensorWoS(kSensor, static_cast<uint8_t>(r % 15), inst) == 0);
            }
        });
    }
    for (int t = 0; t < 2; ++t) { /* unlocked readers and the controller checks */
        work.push_back([&] {
            for (int r = 0; r < kRounds; ++r) {
                for (int inst : kWriterInsts) {
                    expect(std::bitset<16>(read_state(inst)).count() <= 1);
                    INT16U word = 0;
                    expect(znpdklib_getDiscreteStatusSensorStatus(kSensor, &word, inst) == 0 &&
                           (word & 0x8000));
                }
                expect(znpdklib_check_bobc_error() == 0 && znpdklib_check_cmuc_error(r % 8) == 0 &&
                       znpdklib_check_rtnd_error(r % 16) == 0);
            }
        });
    }
    /* The flags area through its locked users: sequence flags set and
     * cleared, job registrations, each thread its own bit and instance. The
     * unlocked test mode is left out: it reads the area beside the writers
     * without a lock by design, so it is no thread-safe entry point. */
    for (int t = 0; t < 2; ++t) {
        work.push_back([&, t] {
            const uint64_t bit = 1ull << (60 + t);
            for (int r = 0; r < kRounds; ++r) {
                expect(znpdklib_shmem_sequence_flags(1, bit) == 0);
                expect(znpdklib_shmem_corvo_job_regist_flags(1, 1 + t, 2, 3, nullptr) == 0);
                expect(znpdklib_shmem_sequence_flags(2, bit) == 0);
                expect(znpdklib_shmem_corvo_job_regist_flags(2, 1 + t, 2, 3, nullptr) == 0);
            }
            expect(znpdklib_shmem_sequence_flags(1, bit) == 0);
            expect(znpdklib_shmem_corvo_job_regist_flags(1, 3 + t, 2, 0, nullptr) == 0);
        });
    }
    for (int t = 0; t < 2; ++t) { /* full-speed reasons; full speed starts check threads */
        work.push_back([&, t] {
            const uint64_t reason = 1ull << t;
            for (int r = 0; r < kFanRounds; ++r) {
                const int up = znpdklib_max_fan_speed(reason), down = znpdklib_restore_fan_speed(reason);
                expect((up == 0 || up == 1) && (down == 0 || down == 1));
            }
        });
    }
    work.push_back([&] { /* attach checks beside them */
                         for (int r = 0; r < kFanRounds; ++r) {
                             znpdklib_create_fan_rotation_check_thread(2, 0x03);
                             expect(znpdklib_fan_monitor_enable_check(17, 1) == 1);
                         }
    });
    ASSERT_GE(work.size(), 8u);
    std::vector<std::thread> threads;
    for (auto& w : work) {
        threads.emplace_back(w);
    }
    for (std::thread& t : threads) {
        t.join();
    }
    ASSERT_TRUE(zsim::wait_library_threads());
    EXPECT_EQ(bad.load(), 0);
    for (int inst : kWriterInsts) {
        EXPECT_EQ(ztest::state(inst, kSensor), 1u << ((kRounds - 1) % 15)) << inst;
        const std::array<uint8_t, 4> saved = sensortest::saved(inst, kSensor);
        EXPECT_EQ(saved[0] | saved[1] << 8, 1 << ((kRounds - 1) % 15)) << inst;
    }
    /* Every thread's last set and registration, and nothing else. */
    Various_sharemem_t area;
    znpdklib_Various_sharemem_read(&area);
    EXPECT_EQ(area.job_in_sequence, 3ull << 60);
    std::vector<uint8_t> jobs(reinterpret_cast<uint8_t*>(area.hjob_regist_flag),
                              reinterpret_cast<uint8_t*>(area.hjob_regist_flag) + 144);
    std::vector<uint8_t> want(144, 0);
    for (int t = 0; t < 2; ++t) {
        const uint8_t e[4] = {uint8_t(3 + t), 0, 2, 0};
        std::copy(e, e + 4, want.begin() + (3 + t) * 4);
    }
    EXPECT_EQ(jobs, want);
    EXPECT_EQ(fant::sys().fanfull_reason, 0u);
    /* Every change to full speed was undone by exactly one change back (the
     * procedures run after the record lock, so their order may cross). */
    const std::vector<uint32_t> up = fant::hap_times("MAX_FANSPEED"),
                                down = fant::hap_times("RESTORE_FANSPEED");
    EXPECT_EQ(up.size(), down.size());
    EXPECT_GE(up.size(), 1u);
    /* A max speed check may read fans that a crossing restore slowed down:
     * its failure is the only log a healthy machine can get here. */
    for (const zsim::RasLog& l : zsim::ras_logs()) {
        EXPECT_STREQ(l.info.ras_code, "BFW_FAN_CHK_H0");
    }
}

/* A new machine is not set up under a check thread of the old one. */
TEST_F(HardenThreads, MachineResetWaitsForARunningCheckThread)
{
    znpdklib_set_fan_check_phase(0x02);
    std::atomic<bool> polled{false}, released{false};
    zsim::script_hap("BOB_R_BOBC_FANC", "READ_FANSPEED",
                     [&](const zsim::HapCall&, uint32_t*, splog_info*, splog_linkup_info*) {
                         polled = true;
                         while (!released) {
                             std::this_thread::sleep_for(std::chrono::milliseconds(1));
                         }
                         return 0;
                     });
    ASSERT_EQ(znpdklib_max_fan_speed(1), 0);
    for (int i = 0; i < 20000 && !polled; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_TRUE(polled);
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        released = true;
    });
    zsim::init(ztest::process_root());
    EXPECT_TRUE(released);
    EXPECT_EQ(zsim::library_threads_running(), 0);
    release.join();
}

} // namespace
