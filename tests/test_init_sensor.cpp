/* Start-up states of every sensor, escalation tables and node evaluation. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <semaphore.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <future>
#include <map>
#include <vector>

#include "support.h"

namespace {

using ztest::esc_path;
using ztest::esc_query;
using Key = std::pair<int, int>; /* instance, sensor */
using States = std::map<Key, uint16_t>;

/* The default tables as ranges: {first, last, value}. */
const std::vector<std::array<int, 3>> kBob = {
    {0, 0, 1},     {34, 34, 1},   {36, 47, 1},   {53, 67, 1},  {69, 71, 1},  {74, 86, 1},
    {89, 90, 1},   {108, 109, 1}, {182, 196, 1}, {33, 33, 2},  {35, 35, 2},  {48, 48, 2},
    {50, 52, 2},   {68, 68, 2},   {72, 73, 2},   {87, 87, 2},  {91, 100, 2}, {103, 107, 2},
    {110, 110, 2}, {129, 130, 2}, {177, 181, 2}, {197, 220, 2}};
const std::vector<std::array<int, 3>> kNode = {{0, 1, 1},   {4, 7, 1},   {15, 35, 1}, {46, 64, 1},
                                               {67, 68, 1}, {76, 85, 1}, {3, 3, 2},   {8, 14, 2},
                                               {36, 45, 2}, {65, 66, 2}, {69, 75, 2}, {145, 152, 2}};

uint16_t table(const std::vector<std::array<int, 3>>& ranges, int s)
{
    for (const auto& r : ranges) {
        if (s >= r[0] && s <= r[1]) {
            return static_cast<uint16_t>(r[2]);
        }
    }
    return 0;
}

TEST(DefaultTables, ExactlyTheDocumentedRanges)
{
    for (int s = 0; s < 256; ++s) {
        EXPECT_EQ(table(kBob, s), BOB_SENSOR_INIT_VALUE[s]) << "chassis sensor " << s;
        EXPECT_EQ(table(kNode, s), NODE_SENSOR_INIT_VALUE[s]) << "node sensor " << s;
    }
}

bool is_fru(int inst, int s)
{
    uint8_t t = zsim::sensor(inst, static_cast<uint8_t>(s)).SensorTypeCode;
    return t == 0xC1 || t == 0xC2;
}

void sns(int inst, int num, int type, int oem, unsigned reading = 0)
{
    zsim::define_sensor({inst, static_cast<uint8_t>(num), static_cast<uint8_t>(type), 0x6F,
                         static_cast<uint8_t>(oem), 0, static_cast<uint16_t>(reading), 0, 0, ""});
}

/* Gives every sensor a state unlike its default (FRU sensors a non-error one)
 * and puts a few FRU sensors into error states that must survive. */
States scramble(const States& errors)
{
    States before;
    for (int inst = 0; inst < 18; ++inst) {
        for (int s = 0; s < 256; ++s) {
            if (zsim::sensor_present(inst, static_cast<uint8_t>(s))) {
                auto e = errors.find({inst, s});
                uint16_t w = e != errors.end() ? e->second : is_fru(inst, s) ? 0x0000 : 0x3000;
                zsim::set_sensor_reading(inst, static_cast<uint8_t>(s), w);
                before[{inst, s}] = w;
            }
        }
    }
    return before;
}

/* The state each sensor of the default machine ends in after an AC power-on
 * with every component installed and healthy. */
uint16_t healthy(int inst, int s, uint16_t before)
{
    SensorInfo_T info = zsim::sensor(inst, static_cast<uint8_t>(s));
    int oem = info.OEMField;
    bool valid = inst == 17 ? oem == 0
                            : ((oem >> (inst % 2)) & 1) || ((inst == 3 || inst == 11) && (oem & 4)) ||
                                  (inst == 5 && (oem & 8));
    bool skipped = (inst == 3 || inst == 11) && (oem & 4);
    bool error = is_fru(inst, s) && before > 2;
    uint16_t v = table(inst == 17 ? kBob : kNode, s);
    uint16_t r = (valid && v != 0 && !error && !skipped) ? v : before;
    if (inst == 17) {
        if (s >= 111 && s <= 128) {
            r |= 0x0001; /* PSU present, added */
        } else if (s >= 50 && s <= 67) {
            r = 0x0002; /* PSU FRU normal */
        } else if ((s >= 4 && s <= 32) || (s >= 221 && s <= 224)) {
            r = 0x0001; /* maintenance offset 0 */
        }
    } else if (s == 0 || s == 2 || (s == 1 && inst % 2 == 1)) {
        r = 0x0001;
    }
    return r;
}

void init_all()
{
    for (int inst = 0; inst < 18; ++inst) {
        EXPECT_EQ(0, ZNAPI_Sensor_Init(inst));
    }
}

void expect_states(const States& before, const States& changed)
{
    for (const auto& [key, w] : before) {
        auto c = changed.find(key);
        uint16_t want = c != changed.end() ? c->second : healthy(key.first, key.second, w);
        EXPECT_EQ(want, ztest::state(key.first, static_cast<uint8_t>(key.second)))
            << "instance " << key.first << " sensor " << key.second;
    }
}

const States kErrors = {{{17, 33}, 0x0010}, {{17, 180}, 0x0020}, {{4, 36}, 0x0008}, {{9, 8}, 0x0004}};

TEST_F(SimTest, AcPowerOnInitialisesEveryInstance)
{
    sns(3, 3, 0x12, 0x04); /* instance 3 only */
    States before = scramble(kErrors);
    init_all();
    expect_states(before, {});
    for (int inst = 0; inst < 18; ++inst) {
        EXPECT_EQ(4096u, zsim::read_file(esc_path(inst)).size()) << inst;
    }
    EXPECT_EQ(18u, zsim::traces_with_id(0x05020003).size());
    EXPECT_EQ("[ZN_INIT_SENSOR_PSU]:/PSU#4 FRU/FRUE sensor setting completed.(FRU=1. FRUE=1)",
              zsim::traces_with_id(0x05020003)[4].text);
    zsim::clear_traces();
    ZNAPI_Sensor_Init(3); /* again, to see the passes of one node instance */
    std::vector<uint32_t> ids;
    for (const zsim::TraceLine& t : zsim::traces()) {
        EXPECT_EQ(43, t.region);
        ids.push_back(t.id);
    }
    EXPECT_EQ((std::vector<uint32_t>{0x05110000, 0x05110001, 0x05110002, 0x05120000, 0x05120011, 0x051200FF,
                                     0x05110004, 0x05130000, 0x05130011, 0x05130020, 0x051300FF, 0x051100FF,
                                     0x05400000, 0x05400001, 0x05400001, 0x054000FF}),
              ids);
}

void set_status(int oid, uint32_t status)
{
    auto c = zsim::get<current_common_info_t>(oid, PROP_CURRENT_COMMON_INFO);
    c.status = status;
    zsim::put(oid, PROP_CURRENT_COMMON_INFO, c);
}

TEST_F(SimTest, AcPowerOnWithMissingUnits)
{
    const uint32_t inst_bit = COMMON_STATUS_INSTALLED;
    int fanu1 = zsim::find(COMPO_FANU, 1);
    set_status(zsim::find(COMPO_PSU, 4), 0);
    set_status(fanu1, 0);
    set_status(zsim::find_below(fanu1, COMPO_FAN, 0), 0);
    set_status(zsim::find_below(fanu1, COMPO_FAN, 1), 0);
    set_status(zsim::find(COMPO_CMU, 3), 0);
    set_status(zsim::find_path("/SYSTEM#0/CMU#0/AOC#1"), 0);
    set_status(zsim::find_path("/SYSTEM#0/CMU#2/CPU#1/MEM#2"), 0);
    zsim::remove_component(zsim::find_path("/SYSTEM#0/CMU#1/CPU#0")); /* node 2: no memory at all */
    set_status(zsim::find_path("/SYSTEM#0/NODE#9/PCIECARD#0"), 0);
    zsim::remove_component(zsim::find_path("/SYSTEM#0/NODE#5/SSD#0"));
    /* PSU status bits: 0x1000 wins over 0x8000, 0x8000 over 0x4000; FRUROM 90 decides 8 or 6 */
    set_status(zsim::find(COMPO_PSU, 2), inst_bit | 0x8000 | 0x4000);
    set_status(zsim::find(COMPO_PSU, 5), inst_bit | 0x1000 | 0x8000 | 0x0004 | 0x0080);
    set_status(zsim::find_path("/SYSTEM#0/PSU#5/FRUROM#90"), 0x0004);
    set_status(zsim::find(COMPO_PSU, 6), inst_bit | 0x0004 | 0x0020 | 0x20000000);
    setup_system_info_t setup = zsim::get<setup_system_info_t>(1, PROP_SETUP_INFO);
    setup.maintenance_sensor[0] = 3;
    setup.maintenance_sensor[28] = 16; /* clears the sensor */
    setup.maintenance_sensor[33] = 2;
    zsim::put(1, PROP_SETUP_INFO, setup);

    sns(1, 58, 0xC2, 0x02); /* AOC 1's error sensor 58, in error: not installed all the same */
    States before = scramble({{{17, 54}, 0x0010}, {{1, 58}, 0x0010}});
    States changed = {{{17, 54}, 1},       {{17, 183}, 1},     {{17, 115}, 0x3000}, {{17, 52}, 0x0040},
                      {{17, 113}, 0x3003}, {{17, 55}, 0x0080}, {{17, 116}, 0x310B}, {{17, 117}, 0x3445},
                      {{17, 202}, 1},      {{17, 206}, 1},     {{17, 211}, 1},      {{17, 212}, 1},
                      {{17, 4}, 0x0008},   {{17, 32}, 0},      {{17, 222}, 0x0004}, {{6, 36}, 1},
                      {{10, 8}, 1},        {{10, 66}, 1},      {{3, 36}, 1}};
    for (int s : {1, 4, 5, 6, 12, 13, 40, 41, 42, 43, 44, 45, 46, 47, 48, 71}) {
        changed[{7, s}] = 1; /* CMU 3 not installed: its FRU sensors on instance 7 */
    }
    for (int s : {5, 47, 51, 52, 57, 58}) {
        changed[{1, s}] = 1; /* AOC 1 of CMU 0 */
    }
    init_all();
    expect_states(before, changed);
    EXPECT_ONLY_TEXT(0x05020001, "[ZN_INIT_SENSOR_PSU]:/PSU#4 not install value set to sensor.");
    EXPECT_EQ("[ZN_INIT_SENSOR_PSU]:/PSU#5 FRU/FRUE sensor setting completed.(FRU=7. FRUE=9)",
              zsim::traces_with_id(0x05020003)[4].text);
    EXPECT_EQ((std::vector<std::string>{
                  "[ZN_INIT_SENSOR_BOB]:/BMCU#0/FANU#1/FAN#0 not install value set to sensor.",
                  "[ZN_INIT_SENSOR_BOB]:/BMCU#0/FANU#1/FAN#1 not install value set to sensor."}),
              ztest::texts_with_id(0x05158002));
    EXPECT_ONLY_TEXT(0x05010006, "[ZN_INIT_SENSOR_BOB]:/CMU#4/PCIECARD#10 not install value set to sensor.");
    EXPECT_EQ(15u, zsim::traces_with_id(0x05140001).size() + zsim::traces_with_id(0x05140002).size());
    EXPECT_EQ("[INIT_SENSOR_CMU]:Init_Sensor_notins sensor=4 type=c1 set to not-install.[BMCInst=7]",
              zsim::traces_with_id(0x05140001)[0].text);
    EXPECT_EQ(0x0801, zsim::traces_with_id(0x05140001)[0].level);
}

TEST_F(SimTest, RestartWithoutAcLossInitialisesNothing)
{
    States before = scramble({});
    zsim::write_text("/var/nvrdisk/.bmcinit_acon_ready", "");
    init_all();
    for (const auto& [key, w] : before) {
        ASSERT_EQ(w, ztest::state(key.first, static_cast<uint8_t>(key.second)));
    }
    EXPECT_FALSE(zsim::file_exists("/var/nvrdisk/current/sensor/esctable_inst17"));
    EXPECT_TRUE(zsim::traces().empty());
    EXPECT_EQ(0, zsim::clear_sensor_list_calls());
    zsim::write_text("/tmp/.boot/.acon", ""); /* AC was lost after all */
    EXPECT_EQ(0, ZNAPI_Sensor_Init(2));
    EXPECT_EQ(0x0001, ztest::state(2, 0));
    EXPECT_TRUE(zsim::file_exists("/var/nvrdisk/current/sensor/esctable_inst02"));
}

TEST_F(SimTest, FailedDefaultsAreTracedAndThePassGoesOn)
{
    zsim::fail_sensor_mutex_lock(2, EBUSY);
    EXPECT_EQ(0, znpdklib_Init_Sensor_Node(2));
    std::vector<zsim::TraceLine> failed = zsim::traces_with_id(0x05000000);
    ASSERT_FALSE(failed.empty());
    EXPECT_EQ("[SetAllStatusWoS]:SetSensorWoS snsno:0 offset:0x0 BMCInst:2", failed[0].text);
    EXPECT_EQ(0x8002, failed[0].level);
    EXPECT_EQ(1u, zsim::traces_with_id(0x051100FF).size());
    zsim::clear_traces();
    for (int inst : {-1, 18, 0x7FFFFFFF}) {
        EXPECT_EQ(0, ZNAPI_Sensor_Init(inst));
    }
    EXPECT_EQ(0, znpdklib_Init_Sensor_Node(17));
    EXPECT_EQ(0, znpdklib_Init_Sensor_Giou(3));
    EXPECT_TRUE(zsim::traces().empty());
}

/* ---- Escalation tables ---- */

using Image = std::vector<uint8_t>;
using Entry = ztest::EscRow;

void put(Image& img, int s, int t, int valid, int inst, int fru, int frue)
{
    uint8_t* e = &img[(s * 4 + t) * 4];
    e[0] = static_cast<uint8_t>(valid);
    e[1] = static_cast<uint8_t>(inst);
    e[2] = static_cast<uint8_t>(fru);
    e[3] = static_cast<uint8_t>(frue);
}

TEST_F(EmptySimTest, EscalationFileBytesAndCreatedList)
{
    sns(5, 9, 0xC2, 0x02);
    sns(5, 10, 0xC2, 0x01); /* even instances only */
    sns(5, 11, 0xC1, 0x02); /* FRU status, not FRU error */
    sns(5, 255, 0xC2, 0x0A);
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
    EXPECT_ONLY_TEXT(0x05400000, "[znpdklib_make_escalation_info]:start. BMCInst=5");
    /* the same table again: the file is left as it is; a changed one is a new file */
    struct stat first, same, changed;
    ASSERT_EQ(0, stat(zsim::file_path(esc_path(5)).c_str(), &first));
    znpdklib_make_escalation_info(5);
    ASSERT_EQ(0, stat(zsim::file_path(esc_path(5)).c_str(), &same));
    sns(5, 9, 0xC1, 0x02);
    znpdklib_make_escalation_info(5);
    ASSERT_EQ(0, stat(zsim::file_path(esc_path(5)).c_str(), &changed));
    EXPECT_EQ(first.st_ino, same.st_ino);
    EXPECT_NE(first.st_ino, changed.st_ino);
    EXPECT_EQ(first.st_mode, changed.st_mode);
    Image without9 = want;
    std::fill(without9.begin() + 9 * 16, without9.begin() + 10 * 16, 0);
    EXPECT_EQ(without9, zsim::read_file(esc_path(5)));
    sns(5, 9, 0xC2, 0x02);
    znpdklib_make_escalation_info(5);
    EXPECT_EQ(want, zsim::read_file(esc_path(5)));

    /* chassis: OEMField 0 and odd-node sensors count, even-node ones do not */
    sns(17, 0, 0xC2, 0x00);
    sns(17, 1, 0xC2, 0x02);
    sns(17, 2, 0xC2, 0x01);
    zsim::clear_traces();
    znpdklib_make_escalation_info(17);
    sns(4, 7, 0xC2, 0x02); /* odd nodes only: none on this even one */
    znpdklib_make_escalation_info(4);
    EXPECT_EQ((std::vector<std::string>{
                  "[znpdklib_make_escalation_info]:create sensor list=c0000000 00000000 00000000 00000000",
                  "[znpdklib_make_escalation_info]:create sensor list=00000000 00000000 00000000 00000000",
                  "[znpdklib_make_escalation_info]:create sensor list=00000000 00000000 00000000 00000000",
                  "[znpdklib_make_escalation_info]:create sensor list=00000000 00000000 00000000 00000000"}),
              ztest::texts_with_id(0x05400001));
    EXPECT_EQ(Image(4096, 0), zsim::read_file(esc_path(4)));
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
    EXPECT_NE(std::string::npos,
              lines[1].text.find("]Error acquiring mutex in Thread ID " + pid + " Errno:"));

    zsim::fail_sensor_mutex_lock(6, 0);
    zsim::fail_sensor_mutex_unlock(6, EPERM); /* only logged: the file is written */
    znpdklib_make_escalation_info(6);
    EXPECT_EQ(Image(4096, 0), zsim::read_file(esc_path(6)));
    EXPECT_NE(std::string::npos,
              zsim::traces()[3].text.find("]Error in releasing mutex in Thread ID " + pid + "\n"));
    zsim::fail_sensor_mutex_unlock(6, 0);

    ASSERT_EQ(0, mkdir(zsim::file_path(esc_path(7), true).c_str(), 0755)); /* cannot be opened for writing */
    zsim::clear_traces();
    znpdklib_make_escalation_info(7);
    ASSERT_EQ(1u, zsim::traces_with_id(0x05400002).size());
    EXPECT_EQ(0x8002, zsim::traces_with_id(0x05400002)[0].level);
    EXPECT_ONLY_TEXT(0x054000FF, "[znpdklib_make_escalation_info]:end. BMCInst=7");
    rmdir(zsim::file_path(esc_path(7)).c_str());

    zsim::clear_traces();
    for (int inst : {-1, 18, 255}) {
        znpdklib_make_escalation_info(inst);
    }
    EXPECT_TRUE(zsim::traces().empty());
    EXPECT_EQ(0, zsim::clear_sensor_list_calls());
}

TEST_F(EmptySimTest, EscalationSearch)
{
    struct {
        std::vector<Image> img = std::vector<Image>(18, Image(4096, 0));
    } files;                                /* instances 1 to 17; instance 4 gets no file */
    put(files.img[2], 40, 0, 1, 5, 60, 40); /* parent (5, 60) */
    put(files.img[3], 41, 2, 1, 5, 60, 41); /* odd-node target (5, 60) */
    put(files.img[3], 42, 1, 1, 5, 60, 42); /* even-node target (5, 60) */
    put(files.img[3], 43, 1, 1, 5, 60, 43); /* both node targets: recorded twice */
    put(files.img[3], 43, 2, 1, 5, 60, 43);
    put(files.img[2], 44, 0, 0, 5, 60, 44);  /* not valid */
    put(files.img[2], 45, 0, 1, 4, 60, 45);  /* other instance */
    put(files.img[2], 46, 0, 1, 5, 255, 46); /* parent (5, 255): the last sensor number */
    for (int f : {2, 7, 12}) {               /* three matches sharing their targets */
        put(files.img[f], 9, 0, 1, 17, 35, 9);
        put(files.img[f], 9, 1, 1, 5, 10, 9);
        put(files.img[f], 9, 3, 1, 17, f == 12 ? 34 : 33, 9); /* the first chassis target counts */
    }
    put(files.img[12], 9, 2, 1, 18, 10, 9); /* target instance out of range */
    for (int s : {10, 11, 12}) {            /* rows alike but for their chassis target */
        put(files.img[5], s, 1, s == 12 ? 0x80 : 1, 6, 61, 10);
    }
    put(files.img[5], 11, 3, 1, 17, 33, 11);
    for (int inst = 1; inst < 18; ++inst) {
        if (inst != 4) { /* instance 13's file is cut short: the rest reads as zeros */
            zsim::write_file(esc_path(inst), inst == 13 ? Image(100, 0) : files.img[inst]);
        }
    }
    ztest::EscFound f = esc_query(0, 5, 60);
    EXPECT_EQ((std::vector<Entry>{{0xFF, 2, 40}}), f.frue);
    EXPECT_TRUE(f.esc.empty());
    EXPECT_EQ((std::vector<Entry>{{0xFF, 2, 46}}), esc_query(0, 5, 255).frue);
    f = esc_query(1, 5, 60);
    EXPECT_EQ((std::vector<Entry>{{0xFF, 3, 41}, {0xFF, 3, 42}, {0xFF, 3, 43}, {0xFF, 3, 43}}), f.frue);
    EXPECT_EQ((std::vector<Entry>{{2, 5, 60}}), f.esc);
    f = esc_query(2, 5, 60);
    EXPECT_EQ(4u, f.frue.size());
    zsim::clear_traces();
    f = esc_query(0, 17, 35);
    EXPECT_EQ((std::vector<Entry>{{0xFF, 2, 9}, {0xFF, 7, 9}, {0xFF, 12, 9}}), f.frue);
    EXPECT_EQ((std::vector<Entry>{{1, 5, 10}, {3, 17, 33}}), f.esc);
    EXPECT_ONLY_TEXT(0x05300001, "[znpdklib_get_escalation_info]:info file open failed. BMCInst=4. errno=2.");
    EXPECT_ONLY_TEXT(0x05300000, "[znpdklib_get_escalation_info]:start. BMCInst=17 Sensor=35");
    EXPECT_ONLY_TEXT(0x053000FF, "[znpdklib_get_escalation_info]:end. BMCInst=17 Sensor=35 Sensors=3 Escs=2");

    f = esc_query(1, 6, 61);
    EXPECT_EQ((std::vector<Entry>{{0xFF, 5, 10}, {0xFF, 5, 11}, {0xFF, 5, 12}}), f.frue);
    EXPECT_EQ((std::vector<Entry>{{1, 6, 61}, {3, 17, 33}}), f.esc);

    /* Runs of rows alike in all the search reads, ending at the last sensor:
     * FRUE bytes differ throughout, the chassis entry first appears in the
     * third row and differs after it. A run never reaches into the next file. */
    for (int s = 250; s < 256; ++s) {
        put(files.img[8], s, 1, 1, 7, 70, s);
        put(files.img[8], s, 2, 1, 7, 70, s + 1);
        if (s >= 252) {
            put(files.img[8], s, 3, 1, 17, 40 + s % 2, 0);
        }
    }
    for (int s = 0; s < 2; ++s) {
        put(files.img[9], s, 1, 1, 7, 70, 0);
        put(files.img[9], s, 2, 1, 7, 70, 0);
    }
    zsim::write_file(esc_path(8), files.img[8]);
    zsim::write_file(esc_path(9), files.img[9]);
    f = esc_query(2, 7, 70);
    std::vector<Entry> twice;
    for (Entry e : std::vector<Entry>{{0xFF, 8, 250},
                                      {0xFF, 8, 251},
                                      {0xFF, 8, 252},
                                      {0xFF, 8, 253},
                                      {0xFF, 8, 254},
                                      {0xFF, 8, 255},
                                      {0xFF, 9, 0},
                                      {0xFF, 9, 1}}) {
        twice.insert(twice.end(), {e, e});
    }
    EXPECT_EQ(twice, f.frue);
    EXPECT_EQ((std::vector<Entry>{{1, 7, 70}, {3, 17, 40}}), f.esc);

    f = esc_query(0, 9, 200);
    EXPECT_TRUE(f.frue.empty() && f.esc.empty());
    /* Bad queries, and sensor numbers that agree with a stored one only in their low byte. */
    for (Entry bad : std::vector<Entry>{
             {4, 17, 35}, {-1, 17, 35}, {0, 18, 35}, {0, -1, 35}, {0, 17, 35 + 256}, {0, 17, 35 - 256}}) {
        f = esc_query(bad[0], bad[1], bad[2]);
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

/* Each instance's saved states are written under that instance's own lock. */
TEST_F(SimTest, SensorSaveWaitsForTheInstancesLock)
{
    for (int inst : {1, 9, 10, 16, 17}) {
        char name[32];
        snprintf(name, sizeof(name), "/filelock_snsdata%d", inst);
        sem_t* sem = _znlib_sem_open(name, 0);
        ASSERT_NE(nullptr, sem);
        ASSERT_EQ(0, sem_wait(sem));
        auto write = std::async(std::launch::async,
                                [inst] { return ZNAPI_MemSensorInfoWrite(inst == 17 ? 33 : 10, inst); });
        EXPECT_EQ(std::future_status::timeout, write.wait_for(std::chrono::milliseconds(50))) << inst;
        sem_post(sem);
        EXPECT_EQ(0, write.get()) << inst;
    }
}

/* ---- Node error evaluation ---- */

struct Sns { /* offset -1: state word 0; oem 0: the instance's own parity bit */
    int inst, num, offset, type, oem;
};

struct Case {
    const char* what;
    std::vector<Sns> sensors;
    int sum_a, sum_b;        /* summary offsets before (instances 3 and 4) */
    uint16_t want_a, want_b; /* summary words after */
};

void define(const Sns& s)
{
    sns(s.inst, s.num, s.type, s.oem != 0 ? s.oem : (s.inst % 2 != 0 ? 0x02 : 0x01),
        s.offset < 0 ? 0 : 1u << s.offset);
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
    /* Outside the ranges, of another type, or not on that instance. */
    const std::vector<Sns> ignored = {{3, 15, 9, C2, 0},   {3, 34, 9, C2, 0},   {3, 49, 9, C2, 0},
                                      {3, 60, 9, C2, 0},   {3, 37, 9, 0xC1, 0}, {3, 38, 9, C2, 0x01},
                                      {4, 38, 9, C2, 0x02}};
    const Case cases[] = {
        {"offset 6 on node A", {{3, 37, 6, C2, 0}}, 1, 1, 0x0020, 0x0002},
        {"B not normal goes back to 1", {{3, 37, 6, C2, 0}}, 1, 3, 0x0020, 0x0002},
        {"offsets 2 and 3 are normal", {{3, 37, 2, C2, 0}, {4, 37, 3, C2, 0}}, 2, 3, 0x0002, 0x0002},
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
        {"ignored ranges, types, instances", ignored, 2, 2, 0x0002, 0x0002},
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
        {0x05160000, "start. BMCInst=3"},
        {0x05160002, "detect own node error. Node#2 sensor=37 offset=6"},
        {0x05160002, "detect own node error. Node#3 sensor=40 offset=9"},
        {0x05160003, "detect CMU common error. Node#3 sensor=40 offset=9"},
        {0x05160004, "Node#2 cur_node_error=1 eval_node_error=8"},
        {0x05160005, "set offset(8) to Node#2 FRU Error Status"},
        {0x05160004, "Node#3 cur_node_error=1 eval_node_error=8"},
        {0x05160005, "set offset(8) to Node#3 FRU Error Status"},
        {0x051600FF, "end. BMCInst=3"}};
    std::vector<std::pair<uint32_t, std::string>> got;
    for (const zsim::TraceLine& t : zsim::traces()) {
        got.push_back({t.id, t.variant + " " + std::to_string(t.level) + " " + std::to_string(t.region) +
                                 " " + std::to_string(t.module) + " " + t.text});
    }
    for (auto& w : want) {
        w.second = "sp_trace2 32769 44 30 [SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node " + w.second;
    }
    EXPECT_EQ(want, got);
}

TEST_F(EmptySimTest, NodeEvaluationRejectsTheChassisAndOutOfRangeInstances)
{
    define({17, 10, 6, 0xC2, 0x00});
    define({16, 10, 6, 0xC2, 0});
    define({16, 37, 9, 0xC2, 0});
    zsim::clear_traces();
    EXPECT_EQ(-1, znpdklib_Set_Sensor_Node(17));
    EXPECT_ONLY_TEXT(0x05160001, "[SET_SENSOR_NODE]:znpdklib_Set_Sensor_Node not support chassis instance . "
                                 "BMCInst=17");
    EXPECT_EQ(2u, zsim::traces().size());
    for (int inst : {16, -1, 18, 1000}) {
        EXPECT_EQ(-1, znpdklib_Set_Sensor_Node(inst)) << inst;
    }
    EXPECT_EQ(0x0040, ztest::state(17, 10));
    EXPECT_EQ(0x0040, ztest::state(16, 10));
}

} // namespace
