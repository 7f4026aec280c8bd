#include "support.h"

#include <string.h>

#include <atomic>
#include <thread>

namespace {

using SeqFlagsTest = SimTest;
using Texts = std::vector<std::string>;

Various_sharemem_t area()
{
    Various_sharemem_t a;
    memset(&a, 0, sizeof(a));
    znpdklib_Various_sharemem_read(&a);
    return a;
}
void set_sequence_bits(uint64_t bits)
{
    Various_sharemem_t a = area();
    a.job_in_sequence = bits;
    znpdklib_Various_sharemem_write(&a);
}
template <typename F> void edit_common(int oid, F change)
{
    auto info = zsim::get<current_common_info_t>(oid, PROP_CURRENT_COMMON_INFO);
    change(info);
    zsim::put(oid, PROP_CURRENT_COMMON_INFO, info);
}

TEST_F(SeqFlagsTest, SetAndClearTouchOnlyTheirBits)
{
    Various_sharemem_t before = area();
    before.rsv[871] = 0x77;
    before.hjob_regist_flag[1][17].regist_mode = 3;
    znpdklib_Various_sharemem_write(&before);
    EXPECT_EQ(0u, znpdklib_shmem_sequence_flags(1, 0x8000000100010001ull));
    EXPECT_EQ(0x8000000000000001ull, znpdklib_shmem_sequence_flags(3, 0x8000000000000003ull));
    EXPECT_EQ(0u, znpdklib_shmem_sequence_flags(2, 0x0000000200000000ull)); // not set: no change
    EXPECT_EQ(0x8000000100010001ull, area().job_in_sequence);
    EXPECT_EQ(0u, znpdklib_shmem_sequence_flags(2, 0x8000000100010001ull));
    Various_sharemem_t after = area();
    EXPECT_EQ(0, memcmp(&before, &after, sizeof(after)));
    EXPECT_EQ("znpdklib_shmem_sequence_flags():mode=2 target = 80000001 00010001",
              ztest::texts_with_id(0x0541100F).at(2));
}

/* Flags set one bit a call while another thread registers jobs in the same
 * area: a read-modify-write outside the lock loses bits for good. */
TEST_F(SeqFlagsTest, FlagsSetBesideJobRegistrationsAreKept)
{
    for (int round = 0; round < 10; ++round) {
        std::atomic<bool> started{false}, done{false};
        std::thread jobs([&] {
            while (!done) {
                znpdklib_shmem_corvo_job_regist_flags(1, 5, 7, 1, nullptr);
                started = true;
            }
        });
        while (!started) {
        }
        for (int b = 0; b < 64; ++b) {
            znpdklib_shmem_sequence_flags(1, 1ull << b);
        }
        done = true;
        jobs.join();
        ASSERT_EQ(~0ull, area().job_in_sequence) << round;
        znpdklib_shmem_sequence_flags(2, ~0ull);
    }
}

TEST_F(SeqFlagsTest, MonitorCheckMasksPerInstance)
{
    set_sequence_bits(~0ull);
    std::pair<int, std::string> cases[] = {
        {1, "00000001 00010001"}, {17, "0bffff00 00000000"}, {16, "00000080 80008000"}};
    for (const auto& [inst, mask] : cases) {
        edit_common(1, [](current_common_info_t& i) { i.status |= 0x40; }); // PSW power killed
        zsim::clear_traces();
        EXPECT_EQ(inst == 17 ? 1 : -1, znpdklib_monitor_enable_check(inst));
        edit_common(1, [](current_common_info_t& i) { i.status &= ~0x40u; });
        EXPECT_EQ(1, znpdklib_monitor_enable_check(inst));
        std::string pre =
            "znpdklib_monitor_enable_check():Inst=" + std::to_string(inst) + " now sequence go on. ";
        EXPECT_EQ(pre + "check = " + mask, ztest::texts_with_id(0x05411001).back());
        EXPECT_EQ(pre + "going = " + mask, ztest::texts_with_id(0x05411002).back());
    }
    EXPECT_ONLY_TEXT(0x05411000, "znpdklib_monitor_enable_check():Inst=16 PSW power killed");
    set_sequence_bits(1ull << 33); // CMU 1
    for (int inst = 0; inst < 6; ++inst) {
        EXPECT_EQ(inst == 3 || inst == 4, znpdklib_monitor_enable_check(inst)) << inst;
    }
    set_sequence_bits(~0x0BFFFF0000000000ull);
    for (int inst : {0, 17, 18, -1}) {
        EXPECT_EQ(0, znpdklib_monitor_enable_check(inst)) << inst;
    }
}

TEST_F(SeqFlagsTest, GioCheckLooksAtTheNodeOnlyForBusyStates)
{
    int node = zsim::find(COMPO_NODE, 2), reads = zsim::property_reads(node);
    zsim::set_sensor_reading(3, 0, 0x0007);
    EXPECT_EQ(1, znpdklib_monitor_enable_check_gio(3));
    EXPECT_EQ(reads, zsim::property_reads(node));
    EXPECT_EQ("znpdklib_monitor_enable_check_gio():Inst=3 node status = 0007",
              ztest::texts_with_id(0x05411100).at(0));
    zsim::set_sensor_reading(3, 0, 0x0008);
    EXPECT_EQ(0, znpdklib_monitor_enable_check_gio(3));
    edit_common(node, [](current_common_info_t& i) { i.sequence = 0x00400001u; });
    EXPECT_EQ(1, znpdklib_monitor_enable_check_gio(3));
    EXPECT_ONLY_TEXT(
        0x05411101,
        "znpdklib_monitor_enable_check_gio():Inst=3 node status = 0008 but off seq running(00400001)");
    zsim::set_sensor_reading(17, 0, 0x0100);
    EXPECT_EQ(0, znpdklib_monitor_enable_check_gio(17)); // no node behind the chassis
}

TEST_F(SeqFlagsTest, FanMonitorAsksTheFanStateOnlyForChassisFanSensors)
{
    auto sys = zsim::get<current_system_info_t>(1, PROP_CURRENT_INFO);
    sys.fan_start_time[3] = 100;
    zsim::put(1, PROP_CURRENT_INFO, sys);
    int cases[][3] = {{17, 229, 0}, {17, 236, 0}, {17, 237, 1}, {17, 228, 1}, {16, 230, 1}};
    for (auto& c : cases) {
        int reads = zsim::property_reads(1);
        EXPECT_EQ(c[2], znpdklib_fan_monitor_enable_check(c[0], static_cast<uint8_t>(c[1])));
        EXPECT_EQ(c[2] == 0, zsim::property_reads(1) != reads) << c[0] << " " << c[1];
    }
    sys.fan_start_time[3] = 0;
    zsim::put(1, PROP_CURRENT_INFO, sys);
    EXPECT_EQ(1, znpdklib_fan_monitor_enable_check(17, 230));
}

TEST_F(SeqFlagsTest, JobTableRowsByMethod)
{
    Various_sharemem_t want = area();
    want.hjob_regist_flag[0][5].rsv[0] = 0xAB;
    want.job_in_sequence = 0x55;
    znpdklib_Various_sharemem_write(&want);
    EXPECT_EQ(0, znpdklib_shmem_corvo_job_regist_flags(1, 5, 7, 1, nullptr));
    EXPECT_EQ(0, znpdklib_shmem_corvo_job_regist_flags(1, 5, 9, 3, nullptr));
    EXPECT_EQ(0, znpdklib_shmem_corvo_job_regist_flags(4, 0, 0, 0, nullptr)); // nowhere to hand out
    want.hjob_regist_flag[0][5] = {5, 1, 7, {0xAB}};
    want.hjob_regist_flag[1][5] = {5, 3, 9, {0}};
    Various_sharemem_t got = area();
    EXPECT_EQ(0, memcmp(&want, &got, sizeof(got)));
    EXPECT_EQ(0, znpdklib_shmem_corvo_job_regist_flags(2, 5, 0, 0, nullptr)); // row 1 stays
    want.hjob_regist_flag[0][5] = {};
    uint8_t taken[2][144];
    memset(taken, 0xEE, sizeof(taken));
    EXPECT_EQ(0, znpdklib_shmem_corvo_job_regist_flags(4, 0, 0, 0, taken[0]));
    EXPECT_EQ(0, znpdklib_shmem_corvo_job_regist_flags(4, 0, 0, 0, taken[1]));
    EXPECT_EQ(0, memcmp(taken[0], want.hjob_regist_flag, 144));
    EXPECT_EQ(std::vector<uint8_t>(144, 0), std::vector<uint8_t>(taken[1], taken[1] + 144));
    EXPECT_EQ(0x55u, area().job_in_sequence);
}

TEST_F(SeqFlagsTest, WaitBmcReadyReturnsWithinASecondOfTheBit)
{
    int biou = zsim::find(COMPO_BIOU, 0);
    edit_common(biou, [](current_common_info_t& i) { i.status &= ~0x40000000u; });
    uint32_t start = zsim::now(), set_at = 0;
    std::thread setter([&] {
        while (zsim::now() < start + 5) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        edit_common(biou, [](current_common_info_t& i) { i.status |= 0x40000000u; });
        set_at = zsim::now();
    });
    EXPECT_EQ(0, znpdklib_wait_BMCReady());
    uint32_t done = zsim::now();
    setter.join();
    EXPECT_GE(set_at, start + 5);
    EXPECT_LE(done, set_at + 1);
}

} // namespace
