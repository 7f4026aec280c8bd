/* The simulated IPMI stack under concurrent writers: each instance keeps its
 * own SEL numbering and no write is lost, whether the writers share an
 * instance or not. */
#include <algorithm>
#include <thread>
#include <vector>

#include "support.h"

namespace {

struct Writers {
    const char* name;
    int inst[2];
    uint8_t sensor;
};

class SimIpmiWriters : public SimTest, public ::testing::WithParamInterface<Writers> {};

TEST_P(SimIpmiWriters, EveryWriteKeepsItsRecordAndBit)
{
    constexpr int kWrites = 301; /* odd: each writer's last write asserts its bit */
    const Writers w = GetParam();
    std::vector<INT16U> ids[2];
    int failures[2] = {0, 0};
    auto writer = [&](int k) {
        for (int i = 0; i < kWrites; ++i) {
            INT16U id = 0;
            /* Offset k + 1: the two writers never touch each other's bit. */
            if (znpdklib_SetSensorWS(w.sensor, i % 2 == 0 ? 1 : 0, static_cast<INT8U>(k + 1), 0, 0, w.inst[k],
                                     &id) != 0) {
                ++failures[k];
            }
            ids[k].push_back(id);
        }
    };
    std::thread a(writer, 0);
    std::thread b(writer, 1);
    a.join();
    b.join();
    EXPECT_EQ(0, failures[0]);
    EXPECT_EQ(0, failures[1]);

    const bool shared = w.inst[0] == w.inst[1];
    for (int k = 0; k < (shared ? 1 : 2); ++k) {
        std::vector<INT16U> got = ids[k];
        if (shared) {
            got.insert(got.end(), ids[1].begin(), ids[1].end());
        }
        std::sort(got.begin(), got.end());
        std::vector<INT16U> want(got.size());
        for (size_t i = 0; i < want.size(); ++i) {
            want[i] = static_cast<INT16U>(i + 1);
        }
        EXPECT_EQ(want, got) << "instance " << w.inst[k];
        EXPECT_EQ(got.size(), zsim::sel(w.inst[k]).size());
        const uint16_t bits = shared ? 0x0006 : static_cast<uint16_t>(1u << (k + 1));
        EXPECT_EQ(bits, zsim::sensor(w.inst[k], w.sensor).SensorReading & bits) << "instance " << w.inst[k];
    }
}

INSTANTIATE_TEST_SUITE_P(, SimIpmiWriters,
                         ::testing::Values(Writers{"different_instances", {1, 2}, 10},
                                           Writers{"same_instance", {17, 17}, 0x49}),
                         [](const ::testing::TestParamInfo<Writers>& info) {
                             return std::string(info.param.name);
                         });

} // namespace
