/* Redundancy recovery over a scripted escalation table, and the BoB alarm LED. */
#include <array>

#include "support.h"

namespace {

constexpr uint8_t kFan = 0x82, kPsu = 0x81, kEnv = 0x49, kParent = 35, kLed = 33, kFrueA = 0x60,
                  kFrueB = 0x61;

void define(int inst, uint8_t num, uint8_t type, uint16_t reading = 0)
{
    uint8_t oem = inst == 17 ? 0 : static_cast<uint8_t>(inst % 2 ? 0x02 : 0x01); /* exists on that instance */
    zsim::define_sensor({inst, num, type, 0x6F, oem, 0, reading, 0, 0, ""});
}

/*
 * FRU error sensors A and B of the chassis both point at 35; A also at 33, B
 * at node sensor (2, 10). So 35 sees {A, B}; its targets (2,10) see {B}, 33 sees {A}.
 */
class Recover : public EmptySimTest {
  protected:
    void SetUp() override
    {
        EmptySimTest::SetUp();
        for (uint8_t s : {kFan, kPsu, kEnv, kParent, kLed, kFrueA, kFrueB}) {
            define(17, s, s == kFrueA || s == kFrueB ? 0xC2 : 0xC1);
        }
        define(2, 10, 0xC1);
        std::vector<uint8_t> file(4096, 0);
        const int targets[][4] = {
            {kFrueA, 0, 17, kParent}, {kFrueA, 3, 17, kLed}, {kFrueB, 0, 17, kParent}, {kFrueB, 1, 2, 10}};
        for (const auto& t : targets) {
            uint8_t* e = &file[static_cast<size_t>((t[0] * 4 + t[1]) * 4)];
            e[0] = 1, e[1] = static_cast<uint8_t>(t[2]), e[2] = static_cast<uint8_t>(t[3]);
        }
        zsim::write_file("/var/nvrdisk/current/sensor/esctable_inst17", file);
    }
    /* Sensor words before the run; 35, 33 and (2,10) all start at `targets`. */
    void given(uint16_t fan, uint16_t psu, uint16_t a, uint16_t b, uint16_t env, uint16_t targets)
    {
        const std::pair<uint8_t, uint16_t> words[] = {{kFan, fan},    {kPsu, psu}, {kFrueA, a},
                                                      {kFrueB, b},    {kEnv, env}, {kParent, targets},
                                                      {kLed, targets}};
        for (auto& w : words) {
            zsim::set_sensor_reading(17, w.first, w.second);
        }
        zsim::set_sensor_reading(2, 10, targets);
        zsim::set_led(COMPO_SYSTEM, 0, 1, 3);
        zsim::clear_traces();
    }
    /* 0x49, 35, (2,10), 33 */
    std::vector<uint16_t> after()
    {
        return {ztest::state(17, kEnv), ztest::state(17, kParent), ztest::state(2, 10),
                ztest::state(17, kLed)};
    }
};

} // namespace

TEST_F(Recover, NormalOnlyWhenBothSensorsAreFullyRedundantAndNoFrueError)
{
    struct Row {
        uint16_t fan, psu, a, b;
        int clear;
        std::vector<uint16_t> after;
        int led;
    };
    const Row rows[] = {
        {0x0, 0x0, 0x2, 0x2, 1, {0x02, 0x02, 0x02, 0x02}, 1},  /* 0 passes as fully redundant */
        {0x2, 0x2, 0x2, 0x1, 0, {0x10, 0x10, 0x10, 0x10}, 1},  /* checks only: the LED still goes off */
        {0x2, 0x2, 0x10, 0x8, 1, {0x02, 0x10, 0x02, 0x10}, 3}, /* offset 4 on A is an error */
        {0x2, 0x2, 0x2, 0x20, 1, {0x02, 0x10, 0x10, 0x02}, 1}, /* so is CER on B */
        {0x2, 0x2, 0x2, 0x0, 1, {0x02, 0x10, 0x10, 0x02}, 1},  /* and a word of 0 */
        {0x4, 0x2, 0x2, 0x2, 1, {0x10, 0x10, 0x10, 0x10}, 3},  /* stops at the fan sensor */
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << "row " << (&r - rows));
        given(r.fan, r.psu, r.a, r.b, 0x10, 0x10);
        znpdklib_redundancy_recover(r.clear);
        EXPECT_EQ(after(), r.after);
        EXPECT_EQ(zsim::led(COMPO_SYSTEM, 0, 1), r.led);
    }
    EXPECT_EQ(zsim::traces_with_id(0x81010002).size(), 1u);
    EXPECT_EQ(zsim::traces_with_id(0x81010002).at(0).level, 0x8002);
    EXPECT_EQ(
        zsim::traces_with_id(0x81010002).at(0).text,
        "znpdklib_redundancy_recover():Redundansy sensor is not Fully. SensorNum=130 SensorReading=0x0004");
}

TEST_F(Recover, ShortageToLostLowersToWarning)
{
    struct Row {
        uint16_t fan, psu, parent, a, b;
        std::vector<uint16_t> after;
    };
    const Row rows[] = {
        {0x8, 0x4, 0x40, 0x2, 0x2, {0x02, 0x40, 0x40, 0x40}},  /* fan shortage seen first: nothing */
        {0x2, 0x2, 0x40, 0x2, 0x2, {0x02, 0x40, 0x40, 0x40}},  /* no loss: nothing */
        {0x2, 0x4, 0x40, 0x2, 0x20, {0x20, 0x10, 0x10, 0x10}}, /* CER is no error here */
        {0x2, 0x4, 0x40, 0x10, 0x2, {0x20, 0x40, 0x10, 0x40}}, /* A in error guards 35 and 33 */
        {0x4, 0x2, 0x08, 0x2, 0x2, {0x20, 0x08, 0x10, 0x10}},  /* offset 3 stays */
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << "row " << (&r - rows));
        given(r.fan, r.psu, r.a, r.b, 0x02, 0x40);
        zsim::set_sensor_reading(17, kParent, r.parent);
        znpdklib_redundancy_recover_shortage2lost();
        EXPECT_EQ(after(), r.after);
    }
    EXPECT_EQ(zsim::led_control_calls(), 0);
    EXPECT_EQ(
        zsim::traces_with_id(0x81020008).at(0).text,
        "znpdklib_redundancy_recover_shortage2lost():skip set warning. BMCInst=17 SensorNum=35 SensorReading=0x0008 offset=3");
}

using AlarmLed = EmptySimTest;

TEST_F(AlarmLed, OffOnlyWhenNoSensorShowsEpoOrError)
{
    struct Row {
        std::vector<std::array<int, 3>> sensors; /* instance, number, status; type 0xC1 unless number 21 */
        int led_before, led_after;
        const char* found; /* trace 0x05410401 (chassis) or 0x05410402 (node) */
    };
    const Row rows[] = {
        {{}, 3, 1, nullptr},
        {{}, 1, 1, nullptr}, /* already off: left alone */
        {{{17, 20, 0x24}, {17, 21, 0x10}, {4, 9, 0x2}}, 2, 1, nullptr},
        {{{5, 40, 0x200}, {6, 40, 0x1}}, 3, 3, "eval_led_state=2 by Node#4 sensor"},
        {{{17, 30, 0x10}, {1, 10, 0x200}}, 1, 1, "eval_led_state=3 by Chassis sensor"},
        {{{17, 52, 0x100}}, 3, 1, nullptr}, /* PSU 2 answers 256 */
        {{{17, 53, 0x100}}, 3, 3, "eval_led_state=3 by Chassis sensor"},
        {{{3, 10, 0x200}, {3, 20, 0x20}}, 3, 3, "eval_led_state=3 by Node#2 sensor"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << "row " << (&r - rows));
        SetUp();
        zsim::set_psu_ctlinfo(2, 256, 0);
        zsim::set_psu_ctlinfo(3, 0, 0x100);
        for (const auto& s : r.sensors) {
            define(s[0], static_cast<uint8_t>(s[1]), s[1] == 21 ? 0xC2 : 0xC1, static_cast<uint16_t>(s[2]));
        }
        zsim::set_led(COMPO_SYSTEM, 0, 1, r.led_before);
        EXPECT_EQ(znpdklib_clear_bob_alarm_led(), 0);
        EXPECT_EQ(zsim::led(COMPO_SYSTEM, 0, 1), r.led_after);
        EXPECT_EQ(zsim::led_control_calls(), r.led_before != r.led_after ? 1 : 0);
        std::string found = r.found ? std::string("znpdklib_clear_bob_alarm_led():") + r.found : "";
        auto texts =
            ztest::texts_with_id(found.find("Chassis") != std::string::npos ? 0x05410401 : 0x05410402);
        EXPECT_EQ(texts, found.empty() ? std::vector<std::string>{} : std::vector<std::string>{found});
        EXPECT_EQ(zsim::traces_with_id(0x05410401).size() + zsim::traces_with_id(0x05410402).size(),
                  texts.size());
        if (found.find("Chassis") != std::string::npos) { /* nodes not evaluated */
            EXPECT_TRUE(zsim::traces_with_id(0x05410301).empty());
        }
    }
    auto epo = zsim::traces_with_id(0x05410301).at(0);
    EXPECT_EQ(
        epo.variant + " " + epo.text,
        "sp_trace25 eval_bob_alarm_led():detect EPO. BMCInst=3 sensor=10 status=0x8200 offset=9 result=2");

    zsim::fail_led_read(true, 0);
    EXPECT_EQ(znpdklib_clear_bob_alarm_led(), -1);
    EXPECT_ONLY_TEXT(0x05410404, "znpdklib_clear_bob_alarm_led():znlib_led_read error. ret=0");
    EXPECT_EQ(zsim::led_control_calls(), 0);
}
