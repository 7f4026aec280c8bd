/* Outage: marks, the procedure wrapper, record clearing, the alarm LED. */
#include "example_machine.h"

int main()
{
    ExampleMachine machine;

    CHECK_EQ(znpdklib_setEmergencyOutage(COMPO_NODE, 3, 1), 0);
    CHECK_EQ(znpdklib_checkEmergencyOutage(COMPO_NODE, 3), 1);
    CHECK_EQ(znpdklib_checkEmergencyOutageByPath("/SYSTEM#0/ROUTER#3,/SYSTEM#0/CMUC#1"), 1);
    CHECK_EQ(znpdklib_clearBMCRebootOutage(COMPO_NODE, 3), 0); /* leaves an emergency mark */
    CHECK_EQ(znpdklib_checkEmergencyOutage(COMPO_NODE, 3), 1);
    CHECK_EQ(znpdklib_setEmergencyOutage(COMPO_CMUC, 8, 1), -1); /* CMUC 0 to 7, or 255 */

    /* A failing procedure on a unit in outage is not an error worth a log. */
    zsim::script_hap("EXAMPLE_PROC", "",
                     [](const zsim::HapCall&, uint32_t*, splog_info*, splog_linkup_info*) { return -5; });
    uint32_t para = 0, data = 0;
    CHECK_EQ(znpdklib_exechap("/SYSTEM#0/NODE#3", "EXAMPLE_PROC", "READ", &para, &data), 0);
    CHECK_EQ(zsim::ras_logs().size(), 0);
    CHECK_EQ(znpdklib_clearEmergencyOutage(COMPO_NODE, 3), 0);
    CHECK_EQ(znpdklib_exechap("/SYSTEM#0/NODE#3", "EXAMPLE_PROC", "READ", &para, &data), -5);
    CHECK_EQ(zsim::ras_logs().size(), 1);

    /* Close node 5's Emergency Active State Mask Register, and only that one. */
    zsim::clear_reg_accesses();
    CHECK_EQ(znpdklib_setEmergencyMaskReg(COMPO_NODE, 5), 0);
    CHECK_EQ(zsim::reg_accesses().size(), 1);
    CHECK_EQ(zsim::reg_accesses().at(0).address, 0x00A400C4);

    /* Clear the installed bit of FANU#1 and everything below it. */
    znpdklib_cleardb_fanu(1, 0x80000000);
    CHECK_EQ(zsim::get<current_common_info_t>(zsim::find(COMPO_FANU, 1), PROP_CURRENT_COMMON_INFO).status, 0);

    /* Nothing reports an error or EPO: the alarm LED goes off (state 1). */
    zsim::set_led(COMPO_SYSTEM, 0, 1, 3);
    CHECK_EQ(znpdklib_clear_bob_alarm_led(), 0);
    CHECK_EQ(zsim::led(COMPO_SYSTEM, 0, 1), 1);
    return ExampleMachine::finish("outage");
}
