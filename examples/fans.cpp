/* Fans: start-up rotation check, full-speed reasons, fan redundancy. */
#include "example_machine.h"
#include "znpdk_sim/fan.h"

static uint64_t fanfull_reason()
{
    return zsim::get<current_system_info_t>(zsim::find(COMPO_SYSTEM, 0), PROP_CURRENT_INFO).fanfull_reason;
}

int main()
{
    ExampleMachine machine;

    /* First check after the fans were started: all eight reach 2000 in time. */
    CHECK_EQ(znpdklib_check_fan_spinup(), 0);
    CHECK_EQ(znpdklib_get_fan_check_phase(), 0x01);
    CHECK_EQ(znpdklib_is_check_fan_executing(), true); /* start times kept for the second check */

    /* Reasons: full speed while any is set. */
    CHECK_EQ(znpdklib_max_fan_speed(0x1), 0); /* runs "MAX_FANSPEED" */
    CHECK_EQ(zsim::fan_full_speed(), true);
    CHECK_EQ(znpdklib_max_fan_speed(0x2), 1); /* already at full speed */
    CHECK_EQ(znpdklib_restore_fan_speed(0x1), 1);
    CHECK_EQ(znpdklib_restore_fan_speed(0x2), 0); /* last reason gone: "RESTORE_FANSPEED" */
    CHECK_EQ(zsim::fan_full_speed(), false);
    CHECK_EQ(znpdklib_change_fan_speed(0x4, 0x4), -2);

    /* One failed fan (FRUE sensor of fan index 3): redundancy lost, reason 0x200000. */
    zsim::set_sensor_reading(17, 0xD1 + 3, 0x0010);
    int fanc_err = -1; /* written only when the reasons change */
    CHECK_EQ(znpdklib_check_fan_redundancy(1, &fanc_err), 1);
    CHECK_EQ(fanc_err, 0);
    CHECK_EQ(state_of(0x82, 17), 0x0004);
    CHECK_EQ(fanfull_reason(), 0x200000);
    CHECK_EQ(znpdklib_check_fan_redundancy_for_enter_mainte(0), 1);
    return ExampleMachine::finish("fans");
}
