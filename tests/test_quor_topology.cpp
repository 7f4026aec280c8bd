/* Router port topology: wiring tables, offline/external answers, small-scale rule. */
#include <set>
#include <sstream>

#include "support.h"
#include "znpdk_sim/quor.h"

namespace {

/* Slots 0..3 of every row: routers normal, small; ports normal, small. */
const char* const WIRING[4] = {
    "8,2,-1,-1 9,3,-1,-1 0,10,4,-1 1,11,5,-1 2,12,6,-1 3,13,7,-1 4,14,-1,-1 5,15,-1,-1 0,10,-1,-1 "
    "1,11,-1,-1 8,2,12,-1 9,3,13,-1 10,4,14,-1 11,5,15,-1 12,6,-1,-1 13,7,-1,-1",
    "6,8,2,-1 7,9,3,-1 0,10,4,-1 1,11,5,-1 2,12,6,-1 3,13,7,-1 4,14,0,-1 5,15,1,-1 14,0,10,-1 "
    "15,1,11,-1 8,2,12,-1 9,3,13,-1 10,4,14,-1 11,5,15,-1 12,6,8,-1 13,7,9,-1",
    "2,-1,8,1 3,-1,9,0 0,4,10,3 1,5,11,2 6,2,12,5 7,3,13,4 4,-1,14,7 5,-1,15,6 10,-1,0,9 11,-1,1,8 "
    "8,12,2,11 9,13,3,10 14,10,4,13 15,11,5,12 12,-1,6,15 13,-1,7,14",
    "2,6,8,1 3,7,9,0 0,4,10,3 1,5,11,2 6,2,12,5 7,3,13,4 4,0,14,7 5,1,15,6 10,14,0,9 11,15,1,8 "
    "8,12,2,11 9,13,3,10 14,10,4,13 15,11,5,12 12,8,6,15 13,9,7,14",
};
const int (*const TABLES[4])[10] = {remote_router_no_list, remote_router_no_list_small, remote_port_no_list,
                                    remote_port_no_list_small};

std::vector<int> expected_row(int table, int router)
{
    std::istringstream rows(WIRING[table]);
    std::string row, cell;
    for (int r = 0; r <= router; ++r) {
        rows >> row;
    }
    std::vector<int> out(10, -1);
    std::istringstream cells(row);
    for (int i = 0; std::getline(cells, cell, ','); ++i) {
        out[i] = std::stoi(cell);
    }
    return out;
}

class QuorTopology : public SimTest {
  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        zsim::set_quor_space_z(0, 0);
    }
};

TEST_F(QuorTopology, WiringRowsInBothConfigurations)
{
    for (int small = 0; small <= 1; ++small) {
        zsim::set_quor_space_z(small ? -1 : 1, small ? 2 : 1);
        for (int r = 0; r < 16; ++r) {
            int routers[10], ports[10];
            ASSERT_EQ(0, znpdklib_getRemoteRouterNo(r, routers));
            ASSERT_EQ(0, znpdklib_getConnectedInternalPortNo(r, ports));
            EXPECT_EQ(expected_row(small, r), std::vector<int>(routers, routers + 10)) << r;
            EXPECT_EQ(expected_row(2 + small, r), std::vector<int>(ports, ports + 10)) << r;
            for (int t = small; t < 4; t += 2) {
                EXPECT_EQ(expected_row(t, r), std::vector<int>(TABLES[t][r], TABLES[t][r] + 10)) << t << r;
            }
        }
    }
    int buf[10];
    EXPECT_EQ(-1, znpdklib_getRemoteRouterNo(16, buf));
    EXPECT_EQ(-1, znpdklib_getRemoteRouterNo(0, nullptr));
    EXPECT_EQ(-1, znpdklib_getConnectedInternalPortNo(-1, buf));
    EXPECT_EQ(-1, znpdklib_getConnectedInternalPortNo(15, nullptr));
    EXPECT_ONLY_TEXT(0x5300901, "[znpdklib_getRemoteRouterNo] parameter error (routerno=16)");
    EXPECT_ONLY_TEXT(0x5300B02, "[znpdklib_getConnectedInternalPortNo] parameter error (portno=NULL)");
}

TEST_F(QuorTopology, SmallScaleIsADifferenceOfThree)
{
    const struct {
        int8_t z0, z1;
        int want;
    } cases[] = {{-1, 2, 1}, {0, 3, 1}, {-128, -125, 1}, {0, 4, 0}, {3, 0, 0}, {126, -127, 0}};
    for (const auto& c : cases) {
        zsim::set_quor_space_z(c.z0, c.z1);
        EXPECT_EQ(c.want, znpdklib_isSmallScaleSystemConfiguration()) << int(c.z0) << " " << int(c.z1);
    }
    zsim::fail_db_get_property("/SYSTEM#0", 7);
    EXPECT_EQ(-1, znpdklib_isSmallScaleSystemConfiguration());
    auto err = zsim::traces_with_id(0x5300C01);
    ASSERT_EQ(1u, err.size());
    EXPECT_EQ("[znpdklib_isSmallScaleSystemConfiguration] Failed to get SetupInfo DB(ret=7)", err[0].text);
    EXPECT_EQ(0x8002, err[0].level);

    /* Unreadable setup record: small-scale rows, ports 0 and 1 internal. */
    int buf[10];
    ASSERT_EQ(0, znpdklib_getConnectedInternalPortNo(0, buf));
    EXPECT_EQ(expected_row(3, 0), std::vector<int>(buf, buf + 10));
    ASSERT_EQ(0, znpdklib_getRemoteRouterNo(8, buf));
    EXPECT_EQ(expected_row(1, 8), std::vector<int>(buf, buf + 10));
    EXPECT_EQ(0, znpdklib_isPhysicalPortExternal(8, 0));
}

TEST_F(QuorTopology, Ports0And1OfEveryRouter)
{
    const std::set<int> first = {0, 1, 8, 9}, second = {6, 7, 14, 15};
    for (int small = 0; small <= 1; ++small) {
        zsim::set_quor_space_z(10, small ? 13 : 12);
        for (uint32_t cfg : {0x00u, 0x10u, 0xEFu, 0xFFu}) {
            const bool swapped = (cfg & 0x10) != 0;
            for (int r = 0; r < 16; ++r) {
                zsim::set_router_port_config(r, cfg);
                int want0 = !small && (swapped ? second : first).count(r);
                int want1 = !small && (swapped ? first : second).count(r);
                EXPECT_EQ(want0, znpdklib_isPhysicalPortExternal(r, 0))
                    << r << " cfg " << cfg << " s" << small;
                EXPECT_EQ(want1, znpdklib_isPhysicalPortExternal(r, 1))
                    << r << " cfg " << cfg << " s" << small;
            }
        }
    }
}

TEST_F(QuorTopology, OtherPortsAndTheOnlineByte)
{
    for (int p = 2; p < 10; ++p) {
        EXPECT_EQ(p >= 4 ? 1 : 0, znpdklib_isPhysicalPortExternal(3, p)) << p;
    }
    for (uint8_t online : {1, 0, 2, 0xFF}) {
        zsim::set_router_port_online(5, 7, online);
        EXPECT_EQ(online == 1 ? 0 : 1, znpdklib_isPhysicalPortOffline(5, 7)) << int(online);
    }
    zsim::clear_traces();
    EXPECT_EQ(1, znpdklib_isPhysicalPortExternal(3, 9));
    auto lines = zsim::traces(); /* no setup record read for port 9 */
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("[znpdklib_isPhysicalPortExternal] end (routerno=3 pportno=9 ret=1)", lines[1].text);
    EXPECT_EQ(std::vector<int>({0x801, 39, 30}),
              std::vector<int>({lines[1].level, lines[1].region, lines[1].module}));
}

/* Their error texts and levels: the bad-input table; here the trace ids, and no read before refusing. */
TEST_F(QuorTopology, PhysicalQueriesRefuseBeforeReading)
{
    const std::pair<int (*)(int, int), uint32_t> fns[] = {{znpdklib_isPhysicalPortOffline, 0x5300100},
                                                          {znpdklib_isPhysicalPortExternal, 0x5300300}};
    const int reads = zsim::property_reads(zsim::router_component(0));
    for (const auto& [fn, base] : fns) {
        for (auto [r, p] : {std::pair{16, 0}, {-1, 0}, {0, 10}, {0, -1}}) {
            zsim::clear_traces();
            EXPECT_EQ(-1, fn(r, p));
            EXPECT_EQ(1u, zsim::traces_with_id(base + (p == 0 ? 1 : 2)).size()) << std::hex << base << r << p;
        }
    }
    EXPECT_EQ(reads, zsim::property_reads(zsim::router_component(0)));
    zsim::fail_db_get_property("/SYSTEM#0/ROUTER#2", -5);
    EXPECT_EQ(-1, znpdklib_isPhysicalPortOffline(2, 0));
    EXPECT_ONLY_TEXT(0x5300103, "[znpdklib_isPhysicalPortOffline] Failed to get CurrentInfo DB(ret=-5)");
    EXPECT_EQ(-1, znpdklib_isPhysicalPortExternal(2, 0));
    EXPECT_ONLY_TEXT(0x5300303, "[znpdklib_isPhysicalPortExternal] Failed to get CurrentInfo DB(ret=-5)");
}

TEST_F(QuorTopology, LogicalPortsGoThroughThePortMap)
{
    zsim::set_router_online_mask(4, 0x1FF);
    zsim::set_port_map(5, 2, 9); /* router 4 is passed as 5 */
    zsim::set_port_map(5, 3, 2);
    zsim::set_port_map(5, 4, 10);
    EXPECT_EQ(1, znpdklib_isLogicalPortOffline(4, 2));
    EXPECT_EQ(1, znpdklib_isLogicalPortExternal(4, 2));
    EXPECT_EQ(0, znpdklib_isLogicalPortOffline(4, 3));
    EXPECT_EQ(0, znpdklib_isLogicalPortExternal(4, 3));
    zsim::clear_traces();
    EXPECT_EQ(-1, znpdklib_isLogicalPortOffline(4, 4));
    EXPECT_EQ(-1, znpdklib_isLogicalPortExternal(4, 4));
    EXPECT_ONLY_TEXT(0x5300200, "[znpdklib_isLogicalPortOffline] start (routerno=4 lportno=4)");
    EXPECT_ONLY_TEXT(0x5300400, "[znpdklib_isLogicalPortExternal] start (routerno=4 lportno=4)");
    EXPECT_ONLY_TEXT(0x5300102, "[znpdklib_isPhysicalPortOffline] parameter error (pportno=10)");
}

} // namespace
