/* Node error evaluation: the worst FRU error of a CMU's two nodes. */
#include <vector>

#include "support.h"

namespace {

struct Sns {
    int inst;
    int num;
    int offset; /* -1: state word 0 */
    int type;
    int oem; /* 0: the instance's own parity bit */
};

struct Case {
    const char* what;
    std::vector<Sns> sensors;
    int sum_a, sum_b;       /* summary offsets before (instances 3 and 4) */
    uint16_t want_a, want_b; /* summary words after */
};

void define(const Sns& s)
{
    zsim::SensorDef d;
    d.inst = s.inst;
    d.num = static_cast<uint8_t>(s.num);
    d.type = static_cast<uint8_t>(s.type);
    d.oem = static_cast<uint8_t>(s.oem != 0 ? s.oem : (s.inst % 2 != 0 ? 0x02 : 0x01));
    d.reading = static_cast<uint16_t>(s.offset < 0 ? 0 : 1u << s.offset);
    zsim::define_sensor(d);
}

/* Instances 3 and 4 are nodes 2 and 3 of CMU 1. */
void run(const Case& c)
{
    zsim::init(ztest::process_root());
    define({3, 10, c.sum_a, 0xC2, 0});
    define({4, 10, c.sum_b, 0xC2, 0});
    for (int inst : {3, 4}) {
        define({inst, 36, 1, 0xC2, 0}); /* a normal unit on each node */
    }
    for (const Sns& s : c.sensors) {
        define(s);
    }
    EXPECT_EQ(0, znpdklib_Set_Sensor_Node(3)) << c.what;
    EXPECT_EQ(c.want_a, ztest::state(3, 10)) << c.what;
    EXPECT_EQ(c.want_b, ztest::state(4, 10)) << c.what;
}

TEST_F(EmptySimTest, NodeSummaryFollowsTheWorstFruError)
{
    const int C2 = 0xC2;
    const Case cases[] = {
        {"offset 6 on node A", {{3, 37, 6, C2, 0}}, 1, 1, 0x0020, 0x0002},
        {"B not normal goes back to 1", {{3, 37, 6, C2, 0}}, 1, 3, 0x0020, 0x0002},
        {"offsets 2 and 3 are normal", {{3, 37, 2, C2, 0}, {4, 37, 3, C2, 0}}, 4, 4, 0x0002, 0x0002},
        {"offset 4", {{3, 37, 4, C2, 0}}, 1, 1, 0x0004, 0x0002},
        {"offset 5", {{4, 37, 5, C2, 0}}, 1, 1, 0x0002, 0x0010},
        {"offset 7", {{3, 37, 7, C2, 0}}, 1, 1, 0x0008, 0x0002},
        {"offset 10 and above count as normal", {{3, 37, 10, C2, 0}}, 2, 1, 0x0002, 0x0002},
        {"CMU common offset 9 on both", {{3, 40, 9, C2, 0}}, 1, 1, 0x0100, 0x0100},
        {"CMU common 71 from B", {{4, 71, 9, C2, 0}}, 1, 1, 0x0100, 0x0100},
        {"router 35 at 8, other at 8", {{3, 35, 8, C2, 0}, {4, 37, 8, C2, 0}}, 1, 1, 0x0100, 0x0020},
        {"router 35 at 9, other at 9", {{3, 35, 9, C2, 0}, {4, 37, 9, C2, 0}}, 1, 1, 0x0100, 0x0040},
        {"tie at 8: lower number wins", {{3, 14, 8, C2, 0}, {3, 35, 8, C2, 0}}, 1, 1, 0x0020, 0x0002},
        {"tie at 9: 11 beats common 12", {{3, 11, 9, C2, 0}, {3, 12, 9, C2, 0}}, 1, 1, 0x0040, 0x0100},
        {"ignored ranges, types, instances",
         {{3, 15, 9, C2, 0}, {3, 34, 9, C2, 0}, {3, 49, 9, C2, 0}, {3, 60, 9, C2, 0}, {3, 37, 9, 0xC1, 0},
          {3, 38, 9, C2, 0x01}, {4, 38, 9, C2, 0x02}},
         2, 2, 0x0002, 0x0002},
        {"summary at 0 is never changed", {{3, 37, 6, C2, 0}, {4, 40, 9, C2, 0}}, 0, 0, 0x0001, 0x0001},
        {"state word 0 counts as offset 16", {{3, 37, -1, C2, 0}, {3, 38, 6, C2, 0}}, 1, 1, 0x0002, 0x0002},
    };
    for (const Case& c : cases) {
        run(c);
    }
}

TEST_F(EmptySimTest, NodeEvaluationTraces)
{
    run({"traced", {{3, 37, 6, 0xC2, 0}, {4, 40, 9, 0xC2, 0}}, 1, 1, 0x0100, 0x0100});
    std::vector<std::pair<uint32_t, std::string>> want = {
        {0x05160000, "[SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node start. BMCInst=3"},
        {0x05160002, "[SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node detect own node error. Node#2 sensor=37 offset=6"},
        {0x05160002, "[SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node detect own node error. Node#3 sensor=40 offset=9"},
        {0x05160003, "[SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node detect CMU common error. Node#3 sensor=40 offset=9"},
        {0x05160004, "[SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node Node#2 cur_node_error=1 eval_node_error=8"},
        {0x05160005, "[SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node set offset(8) to Node#2 FRU Error Status"},
        {0x05160004, "[SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node Node#3 cur_node_error=1 eval_node_error=8"},
        {0x05160005, "[SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node set offset(8) to Node#3 FRU Error Status"},
        {0x051600FF, "[SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node end. BMCInst=3"}};
    std::vector<zsim::TraceLine> got = zsim::traces();
    ASSERT_EQ(want.size(), got.size());
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(want[i].first, got[i].id) << i;
        EXPECT_EQ(want[i].second, got[i].text) << i;
        EXPECT_EQ(0x8001, got[i].level) << i;
        EXPECT_EQ(44, got[i].region) << i;
        EXPECT_EQ(30, got[i].module) << i;
        EXPECT_EQ("sp_trace2", got[i].variant) << i;
    }
}

TEST_F(EmptySimTest, NodeEvaluationRejectsTheChassisAndOutOfRangeInstances)
{
    define({17, 10, 6, 0xC2, 0x00});
    define({16, 10, 6, 0xC2, 0});
    define({16, 37, 9, 0xC2, 0});
    zsim::clear_traces();
    EXPECT_EQ(-1, znpdklib_Set_Sensor_Node(17));
    EXPECT_EQ(std::vector<std::string>{"[SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node not support chassis instance . "
                                       "BMCInst=17"},
              ztest::texts_with_id(0x05160001));
    EXPECT_EQ(2u, zsim::traces().size());
    for (int inst : {16, -1, 18, 1000}) {
        EXPECT_EQ(-1, znpdklib_Set_Sensor_Node(inst)) << inst;
    }
    EXPECT_EQ(0x0040, ztest::state(17, 10));
    EXPECT_EQ(0x0040, ztest::state(16, 10));
}

} // namespace
