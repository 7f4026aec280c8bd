/* Router port status: waited ports, link check, beacon (link-up) check, error clearing. */
#include <climits>

#include "support.h"
#include "znpdk_sim/quor.h"

namespace {

const std::string WAIT = "[znpdklib_checkWaitEnableLogicalPort] ";
const std::string UPDATE = "[znpdklib_updateQuorPortStatus] ";
const std::string BEACON = "[znpdklib_checkBeaconErrorPort] ";

/* Level, region and module of the only line with that id. */
std::vector<int> where(uint32_t id)
{
    auto lines = zsim::traces_with_id(id);
    return lines.size() == 1 ? std::vector<int>{lines[0].level, lines[0].region, lines[0].module}
                             : std::vector<int>{};
}

const uint32_t ALL = 0x3FF;

class QuorStatus : public SimTest {
  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        zsim::set_quor_space_z(0, 0);
        for (int r = 0; r < 16; ++r) {
            zsim::set_router_online_mask(r, ALL);
            zsim::set_router_port_config(r, 0);
            for (int n = 0; n < 10; ++n) {
                zsim::set_port_map(r + 1, n, n);
            }
            set_maintenance(r, 1, 1);
        }
    }
    /* Chassis sensor 4 and the CMU's maintenance sensor 5 + r / 2. */
    static void set_maintenance(int router, uint16_t s4, uint16_t cmu)
    {
        zsim::set_sensor_reading(17, 4, s4);
        zsim::set_sensor_reading(17, static_cast<uint8_t>(5 + router / 2), cmu);
    }
    static void set_port_sensors(int router, uint16_t s86, uint16_t s76)
    {
        for (int n = 0; n < 10; ++n) {
            zsim::set_sensor_reading(router + 1, static_cast<uint8_t>(86 + n), s86);
            zsim::set_sensor_reading(router + 1, static_cast<uint8_t>(76 + n), s76);
        }
    }
    /* Node sensor 10 bit 5: the router's controller is in error. */
    static void set_controller_error(int router, bool on)
    {
        zsim::set_sensor_reading(router + 1, 10, on ? 0x20 : 0);
    }
};

TEST_F(QuorStatus, WaitedExternalPortsNeedBothMaintenanceSensors)
{
    /* Router 2: ports 0..3 internal, 4..9 external; port 1 offline. */
    zsim::set_router_port_online(2, 1, 0);
    const struct {
        uint16_t s4, cmu;
        uint32_t want;
    } cases[] = {
        {0x1, 0x1, 0x3FD}, {0x101, 0x7F03, 0x3FD}, {0x1, 0x0, 0x00D}, {0x0, 0x1, 0x00D}, {0x100, 0x1, 0x00D}};
    for (const auto& c : cases) {
        set_maintenance(2, c.s4, c.cmu);
        uint32_t mask = ALL, none = 0;
        ASSERT_EQ(0, znpdklib_checkWaitEnableLogicalPort(2, &mask));
        ASSERT_EQ(0, znpdklib_checkWaitEnableLogicalPort(2, &none));
        EXPECT_EQ(c.want, mask) << c.s4 << " " << c.cmu;
        EXPECT_EQ(0u, none);
    }
    uint32_t mask = ALL | 0xC00;
    ASSERT_EQ(0, znpdklib_checkWaitEnableInternalLogicalPort(2, &mask));
    EXPECT_EQ(0xC0Du, mask);
    EXPECT_ONLY_TEXT(
        0x53008FF,
        "[znpdklib_checkWaitEnableInternalLogicalPort] end (routerno=2 waitLogicalPort=0x00000c0d)");

    set_maintenance(2, 0x1, 0x1);
    zsim::remove_sensor(17, 6);
    EXPECT_EQ(-1, znpdklib_checkWaitEnableLogicalPort(2, &mask));
    EXPECT_ONLY_TEXT(0x5300504, WAIT + "Failed to ZNAPI_GetSensorReading(snsno=6 BMCInst=17 ret=-1)");
    zsim::remove_sensor(17, 4);
    mask = ALL;
    EXPECT_EQ(-1, znpdklib_checkWaitEnableLogicalPort(2, &mask));
    EXPECT_EQ(0x3FDu, mask); /* the offline port was already cleared */
    EXPECT_ONLY_TEXT(0x5300503, WAIT + "Failed to ZNAPI_GetSensorReading(snsno=4 BMCInst=17 ret=-1)");

    for (auto fn : {znpdklib_checkWaitEnableLogicalPort, znpdklib_checkWaitEnableInternalLogicalPort}) {
        EXPECT_EQ(-1, fn(16, &mask));
        EXPECT_EQ(-1, fn(0, nullptr));
    }
    EXPECT_ONLY_TEXT(0x5300501, WAIT + "parameter error (routerno=16)");
    EXPECT_ONLY_TEXT(0x5300502, WAIT + "parameter error (waitLogicalPort=NULL)");
    EXPECT_EQ(1u, zsim::traces_with_id(0x5300802).size());
}

/* Router 8 with a rotated port map, two offline ports and every kind of
 * link status; the CMU's maintenance sensor leaves external ports unwaited. */
TEST_F(QuorStatus, BeaconCheckOnAMixedRouter)
{
    const struct {
        uint32_t pport, online, status, init86, want86, want76;
    } ports[10] = {
        {3, true, 0x130, 0x1, 0x0, 0x2},   {4, true, 0xF0, 0x1, 0x0, 0x1}, {5, false, 0x4, 0x0, 0x2, 0x1},
        {6, true, 0x3FFF0, 0x1, 0x0, 0x2}, {7, true, 0x30, 0x3, 0x2, 0x2}, {8, true, 0x10, 0x1, 0x0, 0x1},
        {9, true, 0x400F0, 0x1, 0x0, 0x1}, {0, true, 0x6, 0x1, 0x2, 0x1},  {1, true, 0x2, 0x1, 0x0, 0x4},
        {2, false, 0x0, 0x0, 0x1, 0x1},
    };
    set_maintenance(8, 0x1, 0x0);
    for (int n = 0; n < 10; ++n) {
        zsim::set_port_map(9, n, ports[n].pport);
        zsim::set_router_port_online(8, ports[n].pport, ports[n].online ? 1 : 0);
        zsim::set_link_status(8, ports[n].pport, ports[n].status);
        zsim::set_sensor_reading(9, static_cast<uint8_t>(86 + n), ports[n].init86);
        zsim::set_sensor_reading(9, static_cast<uint8_t>(76 + n), 0x8);
    }
    ASSERT_EQ(0, znpdklib_checkBeaconErrorPort(8));

    /* Waited: the internal online ports 1 and 3; offline 2 and 5 dropped. */
    auto calls = zsim::link_up_calls(8);
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(0x3D1u, calls[0].target);
    EXPECT_EQ(0xFFu, calls[0].option);
    EXPECT_ONLY_TEXT(0x5300703, BEACON + "Target Physical Port 0x000003d1 (routerno=8)");
    auto haps = zsim::hap_calls();
    ASSERT_EQ(2u, haps.size());
    for (const auto& h : haps) {
        EXPECT_EQ("/SYSTEM#0/ROUTER#8,/SYSTEM#0/CMUC#4", h.target);
        EXPECT_EQ("", h.mode);
    }
    EXPECT_EQ("CPUICC_E_QNR_LINK_CHECK", haps[1].procedure);
    EXPECT_EQ(std::vector<uint32_t>{0x3FF}, haps[1].para);
    for (int n = 0; n < 10; ++n) {
        EXPECT_EQ(ports[n].want86, ztest::state(9, static_cast<uint8_t>(86 + n))) << "lport " << n;
        EXPECT_EQ(ports[n].want76, ztest::state(9, static_cast<uint8_t>(76 + n))) << "lport " << n;
    }
    EXPECT_TRUE(zsim::sel(9).empty());

    /* Everything waited: nothing to target, the procedure still runs. */
    set_maintenance(8, 0x1, 0x1);
    zsim::set_router_online_mask(8, ALL);
    ASSERT_EQ(0, znpdklib_checkBeaconErrorPort(8));
    zsim::set_router_port_online(8, 4, 0); /* no longer waited, but offline */
    ASSERT_EQ(0, znpdklib_checkBeaconErrorPort(8));
    calls = zsim::link_up_calls(8);
    ASSERT_EQ(3u, calls.size());
    EXPECT_EQ(0u, calls[1].target | calls[2].target);
    EXPECT_EQ(0xFFu, calls[2].option);
}

TEST_F(QuorStatus, LinkCheckFailure)
{
    set_port_sensors(5, 0x3, 0x4);
    zsim::set_router_port_online(5, 7, 0);
    zsim::set_link_status(5, 3, 0x4); /* a failed check's output is ignored */
    zsim::set_link_check_result(5, 5);
    set_controller_error(5, true);
    EXPECT_EQ(-2, znpdklib_updateQuorPortStatus(5));
    for (int n = 0; n < 10; ++n) {
        EXPECT_EQ(0x3, ztest::state(6, static_cast<uint8_t>(86 + n)));
        EXPECT_EQ(0x4, ztest::state(6, static_cast<uint8_t>(76 + n)));
    }
    EXPECT_ONLY_TEXT(0x5300602, UPDATE + "Failed to exec HAP for QuorLinkCheck(ret=5)");
    EXPECT_TRUE(zsim::traces_with_id(0x530060B).empty());
    EXPECT_EQ(std::vector<int>({0x8002, 39, 30}), where(0x5300602));

    set_controller_error(5, false);
    EXPECT_EQ(5, znpdklib_updateQuorPortStatus(5));
    for (int n = 0; n < 10; ++n) {
        EXPECT_EQ(n == 7 ? 0x3 : 0x2, ztest::state(6, static_cast<uint8_t>(86 + n))) << n;
        EXPECT_EQ(0x1, ztest::state(6, static_cast<uint8_t>(76 + n))) << n;
    }
    EXPECT_ONLY_TEXT(0x530060B, UPDATE + "continue to update quor port status");
    EXPECT_EQ(std::vector<int>({0x8001, 127, 144}), where(0x530060B));

    zsim::remove_sensor(6, 79); /* a sensor failure outranks the procedure's code */
    EXPECT_EQ(-1, znpdklib_updateQuorPortStatus(5));
    EXPECT_ONLY_TEXT(0x5300609, UPDATE + "Failed to znpdklib_exSetSensorWoS(snsno=79 BMCInst=6 ret=203)");
}

TEST_F(QuorStatus, BeaconFailures)
{
    zsim::set_link_up_result(8, 9);
    set_controller_error(8, true);
    EXPECT_EQ(-2, znpdklib_checkBeaconErrorPort(8));
    ASSERT_EQ(1u, zsim::hap_calls().size()); /* the link-up only */
    EXPECT_ONLY_TEXT(0x5300704, BEACON + "Failed to exec HAP for Router#8 Beacon Error Check(ret=9)");

    set_controller_error(8, false);
    zsim::set_link_check_result(8, 5);
    EXPECT_EQ(5, znpdklib_checkBeaconErrorPort(8));
    EXPECT_ONLY_TEXT(0x5300706, BEACON + "continue to check beacon error");
    EXPECT_EQ(std::vector<int>({0x8001, 127, 144}), where(0x5300706));
    EXPECT_ONLY_TEXT(0x5300705, BEACON + "Failed to updateQuorPortStatus(routerno=8 ret=5)");

    zsim::remove_sensor(17, 4);
    zsim::clear_hap_calls();
    EXPECT_EQ(-1, znpdklib_checkBeaconErrorPort(8));
    EXPECT_EQ(-1, znpdklib_checkBeaconErrorPort(-1));
    EXPECT_EQ(-1, znpdklib_updateQuorPortStatus(16));
    EXPECT_TRUE(zsim::hap_calls().empty());
    EXPECT_ONLY_TEXT(0x5300702, BEACON + "Failed to checkWaitEnableLogicalPort(routerno=8 ret=-1)");
    EXPECT_ONLY_TEXT(0x5300701, BEACON + "parameter error (routerno=-1)");
    EXPECT_ONLY_TEXT(0x5300601, UPDATE + "parameter error (routerno=16)");
}

TEST_F(QuorStatus, UnmappablePortHasNoStatusWord)
{
    /* Logical port 0 maps to physical 12: offline, status 0, whatever the
     * output holds beyond port 9. */
    zsim::set_port_map(1, 0, 12);
    zsim::script_hap("CPUICC_E_QNR_LINK_CHECK", "",
                     [](const zsim::HapCall&, uint32_t* data, splog_info*, splog_linkup_info*) {
                         for (int i = 0; i < 30; ++i) {
                             data[i] = i >= 10 ? 0x4 : 0;
                         }
                         return 0;
                     });
    set_port_sensors(0, 0x0, 0x8);
    EXPECT_EQ(0, znpdklib_updateQuorPortStatus(0));
    EXPECT_EQ(0x1, ztest::state(1, 86));
    EXPECT_EQ(0x1, ztest::state(1, 76));
}

TEST_F(QuorStatus, ClearPortErrorStatus)
{
    zsim::set_sensor_reading(4, 17, 0x10);
    zsim::set_sensor_reading(4, 27, 0x5);
    EXPECT_EQ(0, znpdklib_clearQuorPortErrorStatus(3, 2));
    EXPECT_EQ(0x2, ztest::state(4, 17));
    EXPECT_EQ(0x2, ztest::state(4, 27));
    EXPECT_ONLY_TEXT(0x5300A00, "[znpdklib_clearQuorPortErrorStatus] start (routerno=3 lportno=2)");

    zsim::remove_sensor(4, 17);
    zsim::set_sensor_reading(4, 27, 0x1);
    EXPECT_EQ(-1, znpdklib_clearQuorPortErrorStatus(3, 2));
    EXPECT_EQ(0x2, ztest::state(4, 27));
    EXPECT_ONLY_TEXT(0x5300A01, UPDATE + "Failed to znpdklib_exSetSensorWoS(snsno=17 BMCInst=4 ret=203)");

    /* Unchecked arguments: wild instances are refused by the sensor layer. */
    EXPECT_EQ(-1, znpdklib_clearQuorPortErrorStatus(17, 0));
    EXPECT_EQ(-1, znpdklib_clearQuorPortErrorStatus(INT_MAX, INT_MAX));
    EXPECT_EQ(-1, znpdklib_clearQuorPortErrorStatus(-5, 0));
    EXPECT_EQ(3u, ztest::texts_with_id(0x5300A02).size());
}

} // namespace
