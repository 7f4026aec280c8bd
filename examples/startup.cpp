/* Start-up: initial sensor states after AC power-on, and the escalation table. */
#include <stdlib.h>

#include "example_machine.h"

int main()
{
    ExampleMachine machine;
    const int kChassis = 17;

    /* PSU 4 is not installed: its FRU (50 + 4) and FRU error (179 + 4)
     * sensors go to offset 0 (not installed). */
    zsim::remove_component(zsim::find(COMPO_PSU, 4));
    CHECK_EQ(ZNAPI_Sensor_Init(kChassis), 0);
    CHECK_EQ(state_of(50 + 4, kChassis), 0x0001);
    CHECK_EQ(state_of(179 + 4, kChassis), 0x0001);
    CHECK_EQ(state_of(50 + 5, kChassis), 0x0002);
    CHECK_EQ(state_of(0, kChassis), 0x0001); /* system power: off until powered on */
    CHECK_EQ(zsim::read_file("/var/nvrdisk/current/sensor/esctable_inst17").size(), 4096);

    /* Which FRU error sensors escalate to the chassis sensor 35? */
    Esc_Sensor_t query = {0, kChassis, 35};
    Esc_Table_t table;
    znpdklib_get_escalation_info(&query, &table);
    CHECK_EQ(table.frue_count, 31); /* 73, 179-196, 205-216 */
    CHECK_EQ(table.frue_list[0].Sensor_No, 73);
    CHECK_EQ(table.esc_count, 1); /* their chassis target: sensor 33 */
    CHECK_EQ(table.esc_list[0].Sensor_No, 33);
    free(table.frue_list); /* both lists belong to the caller */
    free(table.esc_list);
    return ExampleMachine::finish("startup");
}
