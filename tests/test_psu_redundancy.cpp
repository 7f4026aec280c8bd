/* PSU redundancy check: verdicts, transitions of sensor 0x81, RAS logs, register layout. */
#include <string.h>

#include <algorithm>
#include <thread>

#include "support.h"
#include "znpdk_sim/psu.h"

namespace {

constexpr uint8_t kPsuSns = 0x81;
using ztest::ras_codes;

void configure(int slots, int enable = 1, uint32_t common0 = 0, uint32_t bmcinit = 0)
{
    auto sys = zsim::get<current_system_info_t>(1, PROP_CURRENT_INFO);
    sys.available_psu_slots = static_cast<uint8_t>(slots);
    sys.psu_redandancy_check_enable = static_cast<uint8_t>(enable);
    zsim::put(1, PROP_CURRENT_INFO, sys);
    auto setup = zsim::get<setup_system_info_t>(1, PROP_SETUP_INFO);
    setup.debug_flags.debug_flag[DBGW_BMCFW_MODULE_COMMON0] = common0;
    setup.debug_flags.debug_flag[DBGW_BMCFW_MODULE_BMCINIT] = bmcinit;
    zsim::put(1, PROP_SETUP_INFO, setup);
}

void change_image(const std::function<void(psuc_all_t&)>& change)
{
    psuc_all_t im = zsim::psuc_image();
    change(im);
    zsim::set_psuc_image(im);
}

/* Sensor 0x81 at `sensor`, PSUs 0 .. usable-1 in, the others pulled, nothing recorded yet. */
void fresh(uint16_t sensor, int usable)
{
    zsim::set_sensor_reading(17, kPsuSns, sensor);
    for (int i = 0; i < 18; ++i) {
        zsim::set_psu_present(i, i < usable);
    }
    zsim::clear_ras_logs();
    zsim::clear_traces();
    zsim::clear_hap_calls();
}

class PsuCheck : public SimTest {
  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        for (int n = 0; n < 18; ++n) { /* the controller's wiring: one byte (three PSUs) per BoB */
            zsim::set_psu_ctlinfo(n, 0, static_cast<uint32_t>(zsim::psu_ctlbob(n)) << 8);
        }
        configure(18);
        fresh(0x2, 18);
    }
};

} // namespace

TEST_F(PsuCheck, EveryTransitionOfTheRedundancySensor)
{
    struct Row { /* ... recovery: start trace of the recovery that ran, 0 = none */
        int from, usable, mode, result, to;
        const char* ras;
        uint32_t recovery;
    };
    const Row rows[] = {
        {0x2, 17, 1, 1, 0x4, "BFW_CFG_PSU_4", 0},
        {0x2, 16, 2, 2, 0x8, "BFW_CFG_PSU_1", 0},
        {0x8, 17, 1, 1, 0x4, "BFW_CFG_PSU_4", 0x81020001},
        {0x8, 17, 3, 1, 0x4, "BFW_CFG_PSU_4", 0x81020001},
        {0x8, 18, 3, 0, 0x2, "BFW_CFG_PSU_7", 0x81010001},
        {0x4, 16, 1, 2, 0x8, "BFW_CFG_PSU_1", 0},
        {0x4, 17, 2, 1, 0x4, nullptr, 0},
        {0x8, 16, 3, 2, 0x8, nullptr, 0},
        {0x8, 18, 1, 0, 0x8, nullptr, 0},
        {0x4, 18, 2, 0, 0x4, nullptr, 0},
        {0x2, 18, 3, 0, 0x2, nullptr, 0},
        {0x4, 18, 3, 0, 0x2, "BFW_CFG_PSU_8", 0x81010001}, /* last: its trace lines are looked at below */
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << "row " << (&r - rows));
        fresh(r.from, r.usable);
        EXPECT_EQ(znpdklib_check_psu_redundancy(r.mode), r.result);
        EXPECT_EQ(ztest::state(17, kPsuSns), r.to);
        EXPECT_EQ(ras_codes(), r.ras ? std::vector<std::string>{r.ras} : std::vector<std::string>{});
        for (uint32_t id : {0x81010001u, 0x81020001u}) {
            EXPECT_EQ(zsim::traces_with_id(id).size(), id == r.recovery ? 1u : 0u) << std::hex << id;
        }
    }
    std::string seen; /* call variant, level, region and module of a few lines */
    for (uint32_t id : {0x5400300u, 0x5400303u, 0x5400320u, 0x540030Fu}) {
        auto t = zsim::traces_with_id(id).at(0);
        seen += t.variant + ":" + std::to_string(t.level) + ":" + std::to_string(t.region) + ":" +
                std::to_string(t.module) + " ";
    }
    EXPECT_EQ(seen,
              "sp_trace2:2049:40:30 sp_trace27:32769:40:30 sp_trace25:32769:40:30 sp_trace4:32769:40:30 ");
}

/* Each row starts from 18 healthy PSUs, sensor 0x2, no debug bits, and runs mode 1. */
TEST_F(PsuCheck, EdgeCases)
{
    auto fru = [](int psu, uint32_t v) { return [=] { zsim::set_psu_fru_status(psu, v); }; };
    struct Row {
        int slots, enable, usable;
        std::function<void()> extra;
        int result, to;
        uint32_t id;
        const char* text;
    };
    const Row rows[] = {
        {0, 1, 0, nullptr, 0, 0x2, 0x5400320,
         "check_psu_redundancy():okpsu=0 psu_slots=0 redundancy_sns=0x0002 result=0 check_enable=1"},
        {1, 1, 0, nullptr, 1, 0x4, 0x5400310,
         "check_psu_redundancy():psu redundancy lost. ras_code=BFW_CFG_PSU_4"},
        {2, 0, 1, nullptr, 0, 0x2, 0x5400318,
         "check_psu_redundancy():redundancy check disable end. okpsu=1 psu_slots=2 check_enable=0 result=1"},
        {3, 0, 2, nullptr, 0, 0x2, 0x5400319, nullptr},
        {3, 0, 1, nullptr, 2, 0x8, 0x5400311, nullptr},
        {4, 0, 3, nullptr, 1, 0x4, 0x5400310, nullptr},
        {18, 1, 17, [&] { configure(18, 1, 0x2); }, 0, 0x2, 0x5400315, nullptr},
        {18, 1, 17, [&] { configure(18, 1, 0, 0x2000); }, 0, 0x2, 0x5400315,
         "check_psu_redundancy():redundancy check ignore end. debug_flag_common0=0x00000000 debug_flag_bmcinit=0x00002000"},
        {18, 1, 18, [&] { configure(18, 1, 0x10), zsim::set_psu_fru_status(0, 0); }, 0, 0x2, 0x5400313,
         "check_psu_redundancy():PSU#00 unknown. frustate=0x00000000. ignore unknown by debug_flag=0x00000010"},
        {18, 1, 18, fru(0, 0), 1, 0x4, 0x5400314, "check_psu_redundancy():PSU#00 NG. frustate=0x00000000"},
        /* PSU 4 and PSU 11 maintenance targets: the later one is judged */
        {19, 1, 18, [&] { fru(4, 9)(), fru(11, 9)(); }, 1, 0x4, 0x5400500,
         "is_regist_redundancy_lost():mnt_bob=0 mnt_psu_no=11"},
        {18, 1, 18, [&] { fru(4, 9)(), fru(11, 8)(); }, 1, 0x2, 0x5400501, nullptr},
        {18, 1, 18, fru(11, 0xB), 1, 0x4, 0x5400505, nullptr},
        {18, 1, 18, [&] { fru(11, 9)(), zsim::set_psu_present(11, false); }, 1, 0x2, 0x5400502, nullptr},
        /* PSU 9 by the raw register bits */
        {18, 1, 18, [] { change_image([](psuc_all_t& im) { im.common.PresentSts &= ~0x10u; }); }, 1, 0x4,
         0x5400308, "check_psu_redundancy():PSU#09 NG. not present."},
        {18, 1, 18, [] { change_image([](psuc_all_t& im) { im.common.ACOKSts &= ~0x10u; }); }, 1, 0x4,
         0x5400309, "check_psu_redundancy():PSU#09 NG. AC Lost"},
        {18, 1, 18, [] { change_image([](psuc_all_t& im) { im.bob[0].PSONAndCntl &= ~0x10u; }); }, 1, 0x4,
         0x540030A, "check_psu_redundancy():PSU#09 NG. PSONAndCntl off"},
        {18, 1, 18, [] { change_image([](psuc_all_t& im) { im.bob[0].FRUStatus ^= 0x500u; }); }, 1, 0x4,
         0x5400307, "check_psu_redundancy():PSU#09 NG. frustate=0x00000004"},
        {18, 1, 18, [] { zsim::set_psu_ctlinfo(5, 0, 0x0300); }, 1, 0x4, 0x5400317,
         "check_psu_redundancy():PSU#05 invalid ctlbob. ctlbob=3"},
        {18, 1, 18, [] { zsim::set_psu_ctlinfo(5, -1, 0); }, 1, 0x4, 0x5400316, nullptr},
        {18, 1, 18, [] { zsim::set_psu_ctlinfo(5, 0, 0xFF00); }, 1, 0x4, 0x5400305, nullptr},
        /* nowhere to store the register image: the event is still logged */
        {18, 1, 17, [] { zsim::remove_component(zsim::find(COMPO_PSUC, 0)); }, 1, 0x4, 0x5400310, nullptr},
        {18, 1, 16, [] { zsim::fail_psuc_read(7); }, -1, 0x2, 0x5400302,
         "check_psu_redundancy():read PSUC register failed. ret=7"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << "row " << (&r - rows));
        SetUp();
        configure(r.slots, r.enable);
        fresh(0x2, r.usable);
        if (r.extra) {
            r.extra();
        }
        EXPECT_EQ(znpdklib_check_psu_redundancy(1), r.result);
        EXPECT_EQ(ztest::state(17, kPsuSns), r.to);
        auto texts = ztest::texts_with_id(r.id);
        ASSERT_EQ(texts.size(), 1u);
        EXPECT_EQ(texts[0], r.text ? r.text : texts[0]);
    }
    EXPECT_EQ(znpdklib_check_psu_redundancy(4) + znpdklib_check_psu_redundancy(17) +
                  znpdklib_check_psu_redundancy_for_psu_control(3, 0),
              -3);
    EXPECT_ONLY_TEXT(0x5400201, "znpdklib_check_psu_redundancy_for_psu_control():invalid mode(=3)");
}

TEST_F(PsuCheck, PreCheckForPsuControlChangesNothing)
{
    for (auto [from, usable] : {std::pair{0x2, 18}, {0x2, 16}, {0x4, 18}, {0x4, 17}, {0x8, 18}, {0x8, 16}}) {
        fresh(static_cast<uint16_t>(from), usable);
        EXPECT_EQ(znpdklib_check_psu_redundancy_for_psu_control(17, 5), usable == 18 ? 1 : 2);
        EXPECT_EQ(ztest::state(17, kPsuSns), from);
        EXPECT_TRUE(zsim::ras_logs().empty());
        EXPECT_ONLY_TEXT(0x540030C, "check_psu_redundancy():PSU#05 NG. PSU Control POFF target");
    }
    EXPECT_TRUE(zsim::sel(17).empty());
    fresh(0x2, 18);
    zsim::set_psu_present(5, false); /* rejected for that first */
    EXPECT_EQ(znpdklib_check_psu_redundancy_for_psu_control(17, 5), 1);
    EXPECT_TRUE(zsim::traces_with_id(0x540030C).empty());
}

TEST_F(PsuCheck, ConcurrentChecksActOnOneTransitionOnce)
{
    fresh(0x2, 17);
    ztest::MeetAtTrace meet(0x5400320, 500); /* the verdict line, written under the lock */
    std::vector<int> results(4, 0);
    std::vector<std::thread> threads;
    for (int& r : results) {
        threads.emplace_back([&r] { r = znpdklib_check_psu_redundancy(1); });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(results, std::vector<int>(4, 1));
    EXPECT_EQ(ras_codes(), std::vector<std::string>{"BFW_CFG_PSU_4"});
    EXPECT_EQ(ztest::state(17, kPsuSns), 0x4);
    psuc_all_t im = zsim::psuc_image(); /* stored whole, read once with every field selected */
    auto rec = zsim::get<current_psuc_info_t>(zsim::find(COMPO_PSUC, 0), PROP_CURRENT_INFO);
    EXPECT_EQ(memcmp(&rec.psuc, &im, sizeof(im)), 0);
    const std::vector<uint32_t> whole = {0x1FFF, 0x1FFF, 0x1FFF, 0xFF};
    const auto haps = zsim::hap_calls();
    EXPECT_EQ(
        std::count_if(haps.begin(), haps.end(), [&](const zsim::HapCall& h) { return h.para == whole; }), 1);
}
