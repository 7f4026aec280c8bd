/* Persistence: every change lands in the save file; a restart recovers it. */
#include "example_machine.h"

int main()
{
    ExampleMachine machine;
    const int kChassis = 17;
    const uint8_t kFanRedundancy = 0x82;

    CHECK_EQ(znpdklib_exSetSensorWoS(kFanRedundancy, 2, kChassis), 0x00); /* redundancy lost */

    /* Block 17, entry 0x82: SensorReading little-endian, then flags and level. */
    std::vector<uint8_t> save = zsim::read_file("/var/nvrdisk/current/sensor/snsdata");
    CHECK_EQ(save.size(), 18432);
    CHECK_EQ(save.at(17 * 1024 + kFanRedundancy * 4), 0x04);
    CHECK_EQ(save.at(17 * 1024 + kFanRedundancy * 4 + 1), 0x00);

    /* The IPMI stack restarts with its defaults; the saved state comes back. */
    zsim::set_sensor_reading(kChassis, kFanRedundancy, 0x0002);
    CHECK_EQ(ZNAPI_MemSensorInfoRecover(kChassis), 0);
    CHECK_EQ(state_of(kFanRedundancy, kChassis), 0x0004);
    return ExampleMachine::finish("persistence");
}
