/* Escalation tables: the per-instance files and the backward search. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <vector>

#include "support.h"

namespace {

using Image = std::vector<uint8_t>;
using Entry = std::array<int, 3>; /* esc_spec, BMCInst, Sensor_No */

std::string esc_path(int inst)
{
    char path[64];
    snprintf(path, sizeof(path), "/var/nvrdisk/current/sensor/esctable_inst%02d", inst);
    return path;
}

void put(Image& img, int s, int t, int valid, int inst, int fru, int frue)
{
    uint8_t* e = &img[(s * 4 + t) * 4];
    e[0] = static_cast<uint8_t>(valid);
    e[1] = static_cast<uint8_t>(inst);
    e[2] = static_cast<uint8_t>(fru);
    e[3] = static_cast<uint8_t>(frue);
}

struct Found {
    std::vector<Entry> frue, esc;
};

Found query(int spec, int inst, int sensor)
{
    Esc_Sensor_t in{spec, inst, sensor};
    Esc_Table_t out;
    memset(&out, 0xA5, sizeof(out));
    znpdklib_get_escalation_info(&in, &out);
    EXPECT_NE(nullptr, out.frue_list); /* allocated even when empty */
    EXPECT_NE(nullptr, out.esc_list);
    Found f;
    for (int i = 0; i < out.frue_count; ++i) {
        f.frue.push_back({out.frue_list[i].esc_spec, out.frue_list[i].BMCInst, out.frue_list[i].Sensor_No});
    }
    for (int i = 0; i < out.esc_count; ++i) {
        f.esc.push_back({out.esc_list[i].esc_spec, out.esc_list[i].BMCInst, out.esc_list[i].Sensor_No});
    }
    free(out.frue_list);
    free(out.esc_list);
    return f;
}

void define_frue(int inst, int num, uint8_t oem, uint8_t type = 0xC2)
{
    zsim::SensorDef d;
    d.inst = inst;
    d.num = static_cast<uint8_t>(num);
    d.type = type;
    d.oem = oem;
    zsim::define_sensor(d);
}

/* Scripted lists: parent (17, 35) for every third sensor, node and chassis
 * targets on some; the expected files and search follow from these rules. */
splog_clear_sensor_list scripted(int inst, int s, int t)
{
    switch (t) {
    case 0:
        return {1, s % 3 == 0 ? 17 : inst, s % 3 == 0 ? 35 : 10, s};
    case 1:
        return {s % 2, 1 + (s + inst) % 16, 10, 0};
    case 2:
        return {s % 5 == 0 ? 1 : 0, 2 + s % 15, 10, 0};
    default:
        return {s % 7 == 0 ? 1 : 0, 17, 33 + s % 2, 0x49};
    }
}

TEST_F(SimTest, EscalationTablesOfTheDefaultMachine)
{
    std::vector<std::pair<int, int>> counted; /* (instance, sensor) asked for */
    for (int inst = 0; inst < 18; ++inst) {
        Image want(4096, 0);
        for (int s = 0; s < 256; ++s) {
            SensorInfo_T info = zsim::sensor(inst, static_cast<uint8_t>(s));
            bool counts = (inst == 17 && info.OEMField == 0) || (info.OEMField & (1 << (inst % 2))) != 0;
            if (!zsim::sensor_present(inst, static_cast<uint8_t>(s)) || info.SensorTypeCode != 0xC2 || !counts) {
                continue;
            }
            splog_clear_sensor_list list[4];
            for (int t = 0; t < 4; ++t) {
                list[t] = scripted(inst, s, t);
                put(want, s, t, list[t].valid, list[t].BMCInst, list[t].fru_sensor, list[t].frue_sensor);
            }
            zsim::set_clear_sensor_list(inst, s, list);
            counted.push_back({inst, s});
        }
        znpdklib_make_escalation_info(inst);
        EXPECT_EQ(want, zsim::read_file(esc_path(inst))) << "instance " << inst;
    }
    ASSERT_FALSE(counted.empty());
    EXPECT_EQ(static_cast<int>(counted.size()), zsim::clear_sensor_list_calls());

    Found want;
    bool inst_seen[18] = {};
    std::vector<Entry> chassis;
    for (const auto& [inst, s] : counted) {
        if (inst == 0 || s % 3 != 0) {
            continue; /* the search reads instances 1 to 17; parent (17, 35) only */
        }
        want.frue.push_back({0xFF, inst, s});
        for (int t = 1; t <= 2; ++t) {
            splog_clear_sensor_list e = scripted(inst, s, t);
            if (e.valid && !inst_seen[e.BMCInst]) {
                inst_seen[e.BMCInst] = true;
                want.esc.push_back({t, e.BMCInst, e.fru_sensor});
            }
        }
        if (scripted(inst, s, 3).valid && chassis.empty()) {
            chassis.push_back({3, 17, 33 + s % 2});
        }
    }
    want.esc.insert(want.esc.end(), chassis.begin(), chassis.end());
    Found got = query(0, 17, 35);
    EXPECT_EQ(want.frue, got.frue);
    EXPECT_EQ(want.esc, got.esc);
}

TEST_F(EmptySimTest, EscalationFileBytesAndCreatedList)
{
    define_frue(5, 9, 0x02);
    define_frue(5, 10, 0x01);       /* even instances only */
    define_frue(5, 11, 0x02, 0xC1); /* FRU status, not FRU error */
    define_frue(5, 255, 0x0A);
    splog_clear_sensor_list list[4] = {{1, 5, 10, 9}, {0, 0, 0, 0}, {0x101, -1, 0x1FF, 0x49}, {1, 17, 33, 9}};
    zsim::set_clear_sensor_list(5, 9, list);
    zsim::set_clear_sensor_list(5, 255, list);
    znpdklib_make_escalation_info(5);
    Image img = zsim::read_file(esc_path(5));
    ASSERT_EQ(4096u, img.size());
    Image want(4096, 0);
    for (int s : {9, 255}) {
        put(want, s, 0, 1, 5, 10, 9);
        put(want, s, 2, 1, 0xFF, 0xFF, 0x49);
        put(want, s, 3, 1, 17, 33, 9);
    }
    EXPECT_EQ(want, img);
    EXPECT_EQ((Image{0x01, 0xFF, 0xFF, 0x49}), Image(img.begin() + 152, img.begin() + 156));
    EXPECT_EQ(2, zsim::clear_sensor_list_calls());
    EXPECT_EQ((std::vector<std::string>{
                  "[znpdklib_make_escalation_info]:create sensor list=00400000 00000000 00000000 00000000",
                  "[znpdklib_make_escalation_info]:create sensor list=00000000 00000000 00000000 00000001"}),
              ztest::texts_with_id(0x05400001));
    EXPECT_EQ(std::vector<std::string>{"[znpdklib_make_escalation_info]:start. BMCInst=5"},
              ztest::texts_with_id(0x05400000));

    /* chassis: OEMField 0 and odd-node sensors count, even-node ones do not */
    define_frue(17, 0, 0x00);
    define_frue(17, 1, 0x02);
    define_frue(17, 2, 0x01);
    zsim::clear_traces();
    znpdklib_make_escalation_info(17);
    znpdklib_make_escalation_info(3); /* no FRU error sensor at all */
    EXPECT_EQ((std::vector<std::string>{
                  "[znpdklib_make_escalation_info]:create sensor list=c0000000 00000000 00000000 00000000",
                  "[znpdklib_make_escalation_info]:create sensor list=00000000 00000000 00000000 00000000",
                  "[znpdklib_make_escalation_info]:create sensor list=00000000 00000000 00000000 00000000",
                  "[znpdklib_make_escalation_info]:create sensor list=00000000 00000000 00000000 00000000"}),
              ztest::texts_with_id(0x05400001));
    EXPECT_EQ(Image(4096, 0), zsim::read_file(esc_path(3)));
}

TEST_F(EmptySimTest, EscalationBuildFailures)
{
    const std::string pid = std::to_string(getpid());
    zsim::write_file(esc_path(6), {1, 2, 3});
    zsim::fail_sensor_mutex_lock(6, EBUSY);
    znpdklib_make_escalation_info(6);
    EXPECT_EQ((Image{1, 2, 3}), zsim::read_file(esc_path(6)));
    std::vector<zsim::TraceLine> lines = zsim::traces();
    ASSERT_EQ(2u, lines.size()); /* start, then the debug line; no end */
    EXPECT_TRUE(lines[1].debug);
    EXPECT_EQ(130, lines[1].level);
    EXPECT_EQ(0u, lines[1].text.find("[znpdklib_init_sensor:")) << lines[1].text;
    EXPECT_NE(std::string::npos, lines[1].text.find("]Error acquiring mutex in Thread ID " + pid + " Errno:"));

    zsim::fail_sensor_mutex_lock(6, 0);
    zsim::fail_sensor_mutex_unlock(6, EPERM);
    zsim::clear_traces();
    znpdklib_make_escalation_info(6);
    EXPECT_EQ(Image(4096, 0), zsim::read_file(esc_path(6)));
    ASSERT_EQ(1u, zsim::traces_with_id(0).size());
    const std::string text = zsim::traces_with_id(0)[0].text;
    EXPECT_NE(std::string::npos, text.find("]Error in releasing mutex in Thread ID " + pid + "\n")) << text;
    zsim::fail_sensor_mutex_unlock(6, 0);

    ASSERT_EQ(0, mkdir(zsim::file_path(esc_path(7), true).c_str(), 0755)); /* cannot be opened for writing */
    zsim::clear_traces();
    znpdklib_make_escalation_info(7);
    ASSERT_EQ(1u, zsim::traces_with_id(0x05400002).size());
    EXPECT_EQ(0x8002, zsim::traces_with_id(0x05400002)[0].level);
    EXPECT_EQ(std::vector<std::string>{"[znpdklib_make_escalation_info]:end. BMCInst=7"},
              ztest::texts_with_id(0x054000FF));

    zsim::clear_traces();
    for (int inst : {-1, 18, 255}) {
        znpdklib_make_escalation_info(inst);
    }
    EXPECT_TRUE(zsim::traces().empty());
    EXPECT_EQ(0, zsim::clear_sensor_list_calls());
}

/* Files for instances 1 to 17, all empty unless a case fills them. */
struct Files {
    std::vector<Image> img = std::vector<Image>(18, Image(4096, 0));
    void write(int skip = -1)
    {
        for (int f = 1; f < 18; ++f) {
            if (f != skip) {
                zsim::write_file(esc_path(f), img[f]);
            }
        }
    }
};

TEST_F(EmptySimTest, EscalationSearch)
{
    Files files;
    put(files.img[2], 40, 0, 1, 5, 60, 40);   /* parent (5, 60) */
    put(files.img[3], 41, 2, 1, 5, 60, 41);   /* odd-node target (5, 60) */
    put(files.img[3], 42, 1, 1, 5, 60, 42);   /* even-node target (5, 60) */
    put(files.img[3], 43, 1, 1, 5, 60, 43);   /* both node targets: recorded twice */
    put(files.img[3], 43, 2, 1, 5, 60, 43);
    put(files.img[2], 44, 0, 0, 5, 60, 44);   /* not valid */
    put(files.img[2], 45, 0, 1, 4, 60, 45);   /* other instance */
    for (int f : {2, 7, 12}) {                /* three matches sharing their targets */
        put(files.img[f], 9, 0, 1, 17, 35, 9);
        put(files.img[f], 9, 1, 1, 5, 10, 9);
        put(files.img[f], 9, 3, 1, 17, 33, 9);
    }
    put(files.img[12], 9, 2, 1, 18, 10, 9);   /* target instance out of range */
    files.write(4);
    Found f = query(0, 5, 60);
    EXPECT_EQ((std::vector<Entry>{{0xFF, 2, 40}}), f.frue);
    EXPECT_TRUE(f.esc.empty());
    f = query(1, 5, 60);
    EXPECT_EQ((std::vector<Entry>{{0xFF, 3, 41}, {0xFF, 3, 42}, {0xFF, 3, 43}, {0xFF, 3, 43}}), f.frue);
    EXPECT_EQ((std::vector<Entry>{{2, 5, 60}}), f.esc);
    f = query(2, 5, 60);
    EXPECT_EQ(4u, f.frue.size());
    zsim::clear_traces();
    f = query(0, 17, 35);
    EXPECT_EQ((std::vector<Entry>{{0xFF, 2, 9}, {0xFF, 7, 9}, {0xFF, 12, 9}}), f.frue);
    EXPECT_EQ((std::vector<Entry>{{1, 5, 10}, {3, 17, 33}}), f.esc);
    EXPECT_EQ(std::vector<std::string>{"[znpdklib_get_escalation_info]:info file open failed. BMCInst=4. errno=2."},
              ztest::texts_with_id(0x05300001));
    EXPECT_EQ(std::vector<std::string>{"[znpdklib_get_escalation_info]:start. BMCInst=17 Sensor=35"},
              ztest::texts_with_id(0x05300000));
    EXPECT_EQ(std::vector<std::string>{"[znpdklib_get_escalation_info]:end. BMCInst=17 Sensor=35 Sensors=3 Escs=2"},
              ztest::texts_with_id(0x053000FF));

    Image short_file(40, 0); /* truncated: the rest reads as zeros */
    put(short_file, 1, 0, 1, 17, 35, 1);
    zsim::write_file(esc_path(4), short_file);
    zsim::clear_traces();
    EXPECT_EQ((std::vector<Entry>{{0xFF, 2, 9}, {0xFF, 4, 1}, {0xFF, 7, 9}, {0xFF, 12, 9}}), query(0, 17, 35).frue);
    EXPECT_TRUE(zsim::traces_with_id(0x05300001).empty());

    f = query(0, 9, 200);
    EXPECT_TRUE(f.frue.empty() && f.esc.empty());
    for (Entry bad : std::vector<Entry>{{4, 17, 35}, {-1, 17, 35}, {0, 18, 35}, {0, -1, 35}}) {
        f = query(bad[0], bad[1], bad[2]);
        EXPECT_TRUE(f.frue.empty() && f.esc.empty()) << bad[0] << " " << bad[1];
    }
    Esc_Table_t out;
    znpdklib_get_escalation_info(nullptr, &out);
    EXPECT_EQ(0, out.frue_count + out.esc_count);
    free(out.frue_list);
    free(out.esc_list);
    Esc_Sensor_t in{0, 17, 35};
    znpdklib_get_escalation_info(&in, nullptr);
}

} // namespace
