/* Sensor state operations, save-area writes and controller checks in one process. */
#include <errno.h>
#include <unistd.h>

#include <cstring>

#include "sensor_test_util.h"

using sensortest::dbg;
using sensortest::def;
using sensortest::kSave;
using sensortest::saved;
using Lines = std::vector<std::string>;

namespace {

class Sensor : public EmptySimTest {};

std::vector<uint8_t> sel_bytes(int inst)
{
    std::vector<uint8_t> b;
    for (const SELEventRecord_T& r : zsim::sel(inst)) {
        const uint8_t* p = reinterpret_cast<const uint8_t*>(&r);
        b.insert(b.end(), p, p + sizeof(r));
    }
    return b;
}

TEST_F(Sensor, SetWithoutSelChangesOneBitAndPersistsIt)
{
    const struct {
        int before, dir, offset, after;
    } rows[] = {{0x0001, 1, 9, 0x0201},  {0x0201, 0, 0, 0x0200},   {0x0201, 2, 9, 0x0001},
                {0x00FF, 1, 16, 0x00FF}, {0x8000, 0, 255, 0x8000}, {0x0000, 1, 15, 0x8000}};
    for (const auto& r : rows) {
        def(17, 42, r.before);
        GetSensorInfo(42, 0, 17)->PreviousState = 0x1234;
        EXPECT_EQ(ZNAPI_SetSensorWoS(42, r.dir, r.offset, 17), 0);
        EXPECT_EQ(zsim::sensor(17, 42).SensorReading, r.after);
        EXPECT_EQ(zsim::sensor(17, 42).PreviousState, r.after);
        EXPECT_EQ(saved(17, 42),
                  (std::array<uint8_t, 4>{uint8_t(r.after), uint8_t(r.after >> 8), 0x5A, 0xA5}));
    }
    def(17, 255, 0xBEEF);
    EXPECT_EQ(ZNAPI_MemSensorInfoWrite(255, 17), 0);
    std::vector<uint8_t> file = zsim::read_file(kSave);
    EXPECT_EQ(std::vector<uint8_t>(file.end() - 4, file.end()),
              (std::vector<uint8_t>{0xEF, 0xBE, 0x5A, 0xA5}));
    zsim::fail_sem_lock(-3);
    EXPECT_EQ(ZNAPI_MemSensorInfoWrite(255, 17), -1);
    EXPECT_TRUE(sel_bytes(17).empty());
    EXPECT_EQ(dbg(), Lines{"ZNAPI_MemSensorInfoWrite Error at sem_lock-3 sns:255 BMCInst:17"});
}

TEST_F(Sensor, SelRecordFieldsFollowTheSensorKind)
{
    zsim::set_slave_addr(0x20);
    zsim::set_time(0x11223344);
    const struct {
        int evt, dir, e1, before, after;
        uint8_t dirtype, d1, d2;
    } rows[] = {{0x6F, 1, 0x52, 0x0100, 0x0104, 0x6F, 0xA2, 0x33},
                {0x6F, 0, 0x02, 0x0104, 0x0100, 0xEF, 0xA2, 0x33},
                {0x01, 0, 0x57, 0x01C0, 0x0140, 0x81, 0x57, 0x40},
                {0x6F, 2, 0xF8, 0x0100, 0x0000, 0x6F, 0xA8, 0x33}};
    for (const auto& r : rows) {
        zsim::clear_sel(17);
        def(17, 0x81, r.before, r.evt);
        INT16U id = 0;
        EXPECT_EQ(znpdklib_SetSensorWS(0x81, r.dir, r.e1, 0x33, 0x99, 17, &id), 0);
        EXPECT_EQ(zsim::sensor(17, 0x81).SensorReading, r.after);
        EXPECT_NE(id, 0);
        const uint32_t t = zsim::now();
        EXPECT_EQ(sel_bytes(17), (std::vector<uint8_t>{0, 0, 2, uint8_t(t), uint8_t(t >> 8), uint8_t(t >> 16),
                                                       uint8_t(t >> 24), 0x20, 0x03, 0x04, 0x07, 0x81,
                                                       r.dirtype, r.d1, r.d2, 0x99}));
    }
    INT16U id = 5;
    EXPECT_EQ(ZNAPI_SetSensorWS(0x81, 1, 0x03, 0, 0, 17, nullptr), 0xFF);
    EXPECT_EQ(ZNAPI_SaveSensorTypeSEL(0x81, 1, 0x03, 0, 0, 17, nullptr), 0xFF);
    EXPECT_EQ(zsim::sensor(17, 0x81).SensorReading, 0x0000);
    for (uint8_t cc : {0xC0, 0x00}) {
        zsim::fail_sel_add(true, cc);
        EXPECT_EQ(ZNAPI_SaveSensorTypeSEL(0x81, 1, 0x03, 0, 0, 17, &id), cc);
        EXPECT_EQ(id, 0);
    }
}

TEST_F(Sensor, ExclusiveSetClearsBitByBitAndLogsOnlyTheAssertion)
{
    def(17, 0x82, 0x0005);
    INT16U id = 0;
    EXPECT_EQ(znpdklib_exSetSensorWS(0x82, 0x00, 0, 0, 17, &id), 0);
    EXPECT_EQ(zsim::sensor(17, 0x82).SensorReading, 0x0001);
    EXPECT_EQ(saved(17, 0x82)[0], 0x01);
    ASSERT_EQ(sel_bytes(17).size(), 16u);
    EXPECT_EQ(sel_bytes(17)[12], 0x6F);
    for (uint16_t w : {0x0004, 0x0000}) {
        def(17, 0x82, w);
        EXPECT_EQ(znpdklib_exSetSensorWoS(0x82, 2, 17), 0);
        EXPECT_EQ(zsim::sensor(17, 0x82).SensorReading, 0x0004);
    }
    /* A save failure stops at the first bit, which stays cleared in memory. */
    zsim::fail_sem_lock(7);
    def(17, 0x82, 0x0005);
    EXPECT_EQ(znpdklib_exSetSensorWoS(0x82, 2, 17), 0xFF);
    EXPECT_EQ(znpdklib_exSetSensorWS(0x82, 0x02, 0, 0, 17, &id), 0xFF);
    EXPECT_EQ(zsim::sensor(17, 0x82).SensorReading, 0x0000);
    const std::string lock = "ZNAPI_MemSensorInfoWrite Error at sem_lock7 sns:130 BMCInst:17";
    EXPECT_EQ(dbg(),
              (Lines{lock, "znpdklib_exSetSensorWoS Error at deassert sns:130 BMCInst:17 bit:0x0", lock,
                     "znpdklib_exSetSensorWS Error at bit deassert sns:130 BMCInst:17 bit:0x2"}));
    EXPECT_EQ(sel_bytes(17).size(), 16u);
}

TEST_F(Sensor, MutexFailuresAreReported)
{
    def(17, 9, 0x0002);
    const std::string pid = std::to_string(getpid());
    const std::string acq =
        "Error acquiring mutex in Thread ID " + pid + " Errno:" + std::to_string(EBUSY) + "\n";
    const std::string at = " Error at OS_THREAD_MUTEX_ACQUIRE_LOCK ";
    zsim::fail_sensor_mutex_lock(17, EBUSY);
    INT16U id = 0;
    const int got[] = {znpdklib_SetSensorWoS(9, 1, 0, 17),
                       znpdklib_SetSensorWS(9, 1, 0, 0, 0, 17, &id),
                       znpdklib_exSetSensorWoS(9, 0, 17),
                       znpdklib_exSetSensorWS(9, 0, 0, 0, 17, &id),
                       ZNAPI_MemSensorInfoRecover(17),
                       znpdklib_SetSensorWS(9, 1, 0, 0, 0, 17, nullptr),
                       znpdklib_exSetSensorWS(9, 0, 0, 0, 17, nullptr)};
    EXPECT_EQ(std::vector<int>(got, got + 7), (std::vector<int>{0xFF, 0xFF, 0xFF, 0xFF, -1, 0xFF, 0xFF}));
    EXPECT_EQ(zsim::sensor(17, 9).SensorReading, 0x0002);
    EXPECT_EQ(dbg(), (Lines{acq, "znpdklib_SetSensorWoS" + at + "BMCInst:17 ret:-1", acq,
                            "znpdklib_SetSensorWS" + at + "sns:9 BMCInst:17 ret:-1", acq,
                            "znpdklib_exSetSensorWoS" + at + "sns:9 BMCInst:17 ret:-1", acq,
                            "znpdklib_exSetSensorWS" + at + "sns:9 BMCInst:17 ret:-1", acq,
                            "ZNAPI_MemSensorInfoRecover" + at + "BMCInst:17 ret:-1",
                            "znpdklib_SetSensorWS param Error", "znpdklib_exSetSensorWS param Error"}));
    zsim::fail_sensor_mutex_lock(17, 0);
    zsim::fail_sensor_mutex_unlock(17, EPERM);
    zsim::clear_traces();
    EXPECT_EQ(znpdklib_SetSensorWoS(9, 1, 0, 17), 0);
    EXPECT_EQ(zsim::sensor(17, 9).SensorReading, 0x0003);
    EXPECT_EQ(dbg(), Lines{"Error in releasing mutex in Thread ID " + pid + "\n"});
}

TEST_F(Sensor, MembershipAndStateWord)
{
    const struct {
        int inst, oem, type, valid;
    } rows[] = {{17, 0x00, 7, 1}, {17, 0x01, 7, 0}, {17, 0x00, 0, 0}, {4, 0x01, 7, 1},  {0, 0x01, 7, 1},
                {3, 0x01, 7, 0},  {3, 0x02, 7, 1},  {3, 0x04, 7, 1},  {11, 0x04, 7, 1}, {5, 0x04, 7, 0},
                {5, 0x08, 7, 1},  {7, 0x08, 7, 0},  {16, 0x02, 7, 0}, {4, 0x00, 7, 0},  {15, 0x0B, 7, 1}};
    for (const auto& r : rows) {
        def(r.inst, 20, 0, 0x6F, r.oem, r.type);
        EXPECT_EQ(isValidSensorBMCInst(20, r.inst), r.valid) << r.inst << " oem " << int(r.oem);
        EXPECT_EQ(GetInstSensorType(20, r.inst), r.type);
        EXPECT_EQ(GetInstSensorOEM(20, r.inst), r.oem);
    }
    const int none[] = {isValidSensorBMCInst(21, 17), GetInstSensorType(21, 17), GetInstSensorOEM(21, 17)};
    EXPECT_EQ(std::vector<int>(none, none + 3), (std::vector<int>{0xCB, 0xFF, 0}));
    INT16U word = 0;
    for (uint16_t w : {0x0000, 0x4102, 0x00FF}) {
        def(8, 10, w);
        EXPECT_EQ(znpdklib_getDiscreteStatusSensorStatus(10, &word, 8), 0);
        EXPECT_EQ(word, 0x8000 | w);
    }
    EXPECT_EQ(znpdklib_getDiscreteStatusSensorStatus(11, &word, 8), 0);
    EXPECT_EQ(word, 0x8000);
}

TEST_F(Sensor, ControllerChecksJudgeTheirOwnInstances)
{
    const struct {
        int bob, inst, word, cmuc3, rtnd0, rtnd6;
    } rows[] = {{7, 0, 0, -1, -1, -1},     {4, 0, 0, 0, 0, 0},        {10, 0, 0, 0, 0, 0},
                {-1, 7, 1 << 4, 0, 0, 0},  {-1, 8, 1 << 9, -1, 0, 0}, {-1, 7, 1 << 5, -1, 0, -1},
                {-1, 1, 1 << 6, 0, -1, 0}, {-1, 6, 1 << 8, 0, 0, 0},  {-1, 9, 1 << 7, 0, 0, 0},
                {-1, 0, 1 << 7, 0, 0, 0},  {-1, 1, 1 << 10, 0, 0, 0}, {-1, 8, 0x7C1F, 0, 0, 0}};
    for (const auto& r : rows) {
        def(17, 33, r.bob < 0 ? 0x0002 : static_cast<uint16_t>(1u << r.bob));
        for (int inst = 0; inst < 17; ++inst) {
            def(inst, 10, inst == r.inst ? r.word : 0x0010);
        }
        EXPECT_EQ(znpdklib_check_bobc_error(), r.bob >= 5 && r.bob <= 9 ? -1 : 0);
        const int got[] = {znpdklib_check_cmuc_error(3), znpdklib_check_rtnd_error(0),
                           znpdklib_check_rtnd_error(6)};
        EXPECT_EQ(std::vector<int>(got, got + 3), (std::vector<int>{r.cmuc3, r.rtnd0, r.rtnd6})) << r.inst;
    }
}

} // namespace
