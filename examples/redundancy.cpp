/* Redundancy: PSU redundancy lost and regained, and the PSU-control pre-check. */
#include <string.h>

#include "example_machine.h"
#include "znpdk_sim/psu.h"

int main()
{
    ExampleMachine machine;
    const int kChassis = 17;
    const uint8_t kPsuRedundancy = 0x81;

    /* 18 PSUs against 17 required slots: one may be switched off. */
    CHECK_EQ(znpdklib_check_psu_redundancy(3), 0);
    CHECK_EQ(znpdklib_check_psu_redundancy_for_psu_control(17, 5), 0);

    /* Two PSUs pulled: 16 usable, redundancy lost. */
    zsim::set_psu_present(2, false);
    zsim::set_psu_present(7, false);
    CHECK_EQ(znpdklib_check_psu_redundancy(1), 1);
    CHECK_EQ(state_of(kPsuRedundancy, kChassis), 0x0004);
    CHECK_EQ(zsim::ras_logs().size(), 1);
    CHECK_EQ(strcmp(zsim::ras_logs().at(0).info.ras_code, "BFW_CFG_PSU_4"), 0);

    /* Both back: only mode 3 acts on the recovery. */
    zsim::set_psu_present(2, true);
    zsim::set_psu_present(7, true);
    CHECK_EQ(znpdklib_check_psu_redundancy(1), 0);
    CHECK_EQ(state_of(kPsuRedundancy, kChassis), 0x0004);
    CHECK_EQ(znpdklib_check_psu_redundancy(3), 0);
    CHECK_EQ(state_of(kPsuRedundancy, kChassis), 0x0002);
    CHECK_EQ(strcmp(zsim::ras_logs().at(1).info.ras_code, "BFW_CFG_PSU_8"), 0);

    CHECK_EQ(znpdklib_check_psu_redundancy(4), -1); /* mode refused */
    return ExampleMachine::finish("redundancy");
}
