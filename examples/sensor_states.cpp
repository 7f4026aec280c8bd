/* Sensor states: exclusive and single-offset sets, with and without SEL. */
#include "example_machine.h"

int main()
{
    ExampleMachine machine;
    const int kChassis = 17;
    const uint8_t kFrueEnvironment = 0x49;

    CHECK_EQ(isValidSensorBMCInst(kFrueEnvironment, kChassis), 1);
    CHECK_EQ(GetInstSensorType(kFrueEnvironment, kChassis), 0xC2);

    /* Hold exactly one state (offset 5), no SEL entry. */
    CHECK_EQ(znpdklib_exSetSensorWoS(kFrueEnvironment, 5, kChassis), 0x00);
    CHECK_EQ(state_of(kFrueEnvironment, kChassis), 0x0020);

    /* Add offset 1 on top of it (dir 1 asserts, 0 deasserts). */
    CHECK_EQ(znpdklib_SetSensorWoS(kFrueEnvironment, 1, 1, kChassis), 0x00);
    CHECK_EQ(state_of(kFrueEnvironment, kChassis), 0x0022);

    /* Back to offset 1 alone, with one SEL record for the assertion. */
    INT16U record_id = 0;
    CHECK_EQ(znpdklib_exSetSensorWS(kFrueEnvironment, 0x01, 0xFF, 0xFF, kChassis, &record_id), 0x00);
    CHECK_EQ(state_of(kFrueEnvironment, kChassis), 0x0002);
    CHECK_EQ(record_id, 1);
    CHECK_EQ(zsim::sel(kChassis).size(), 1);

    /* A sensor the instance does not have. */
    CHECK_EQ(znpdklib_exSetSensorWoS(250, 1, kChassis), 0xCB);
    return ExampleMachine::finish("sensor_states");
}
