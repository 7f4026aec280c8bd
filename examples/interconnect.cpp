/* Interconnect: router wiring, port judgement and the port sensors. */
#include "example_machine.h"
#include "znpdk_sim/quor.h"

int main()
{
    ExampleMachine machine;

    int neighbours[10];
    CHECK_EQ(znpdklib_getRemoteRouterNo(0, neighbours), 0);
    CHECK_EQ(neighbours[0], 8);
    CHECK_EQ(neighbours[1], 2);
    CHECK_EQ(neighbours[2], -1);
    CHECK_EQ(znpdklib_isSmallScaleSystemConfiguration(), 0);
    CHECK_EQ(znpdklib_isPhysicalPortExternal(3, 9), 1);
    CHECK_EQ(znpdklib_isPhysicalPortExternal(3, 2), 0);
    CHECK_EQ(znpdklib_isPhysicalPortOffline(16, 0), -1); /* routers are 0 to 15 */

    /* Router 2 (sensors on instance 3): port 4 offline, port 5 in error state B. */
    zsim::set_router_port_online(2, 4, 0);
    zsim::set_link_status(2, 5, 0x2);
    CHECK_EQ(znpdklib_isPhysicalPortOffline(2, 4), 1);
    CHECK_EQ(znpdklib_updateQuorPortStatus(2), 0);
    CHECK_EQ(state_of(86 + 4, 3), 0x0001); /* offline asserted */
    CHECK_EQ(state_of(76 + 4, 3), 0x0001);
    CHECK_EQ(state_of(86 + 5, 3), 0x0000); /* online */
    CHECK_EQ(state_of(76 + 5, 3), 0x0004); /* offset 2: error state B */

    /* Only internal online ports stay waited for. */
    uint32_t wait = 0x3FF;
    CHECK_EQ(znpdklib_checkWaitEnableInternalLogicalPort(2, &wait), 0);
    CHECK_EQ(wait, 0x00F); /* 0-3 internal; 4-9 external (4 also offline) */
    return ExampleMachine::finish("interconnect");
}
