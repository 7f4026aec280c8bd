/* The simulator's field tables: every byte of the shared records is named
 * once, paths land on the compiler's offsets, values round-trip. */
#include <gtest/gtest.h>

#include <cstring>
#include <map>

#include "scenario/fields.h"
#include "ipmi_stack.h"
#include "znlib.h"
#include "znpdklib_types.h"

using namespace zcmd;

namespace {

/* Bytes of a type covered by its leaf fields (array elements expanded). */
void cover(const Type& t, size_t base, std::vector<int>& hits)
{
    for (const Member& m : t.members) {
        size_t n = 1;
        for (size_t d : m.dims) {
            n *= d;
        }
        for (size_t e = 0; e < n; ++e) {
            size_t at = base + m.offset + e * m.type->size;
            if (m.type->is_struct) {
                cover(*m.type, at, hits);
            } else {
                for (size_t b = 0; b < m.type->size; ++b) {
                    ASSERT_LT(at + b, hits.size()) << t.name << "." << m.name;
                    hits[at + b]++;
                }
            }
        }
    }
}

json parse(const char* text)
{
    return json::parse(text);
}

} // namespace

/* splog_linkup_info leaves bytes 20 to 23 unnamed; every other record none. */
TEST(SimFields, SharedRecordsAreCoveredByteForByte)
{
    const std::map<std::string, size_t> records = {
        {"splog_linkup_info", sizeof(splog_linkup_info)},
        {"current_common_info_t", sizeof(current_common_info_t)},
        {"current_system_info_t", sizeof(current_system_info_t)},
        {"setup_system_info_t", sizeof(setup_system_info_t)},
        {"current_psuc_info_t", sizeof(current_psuc_info_t)},
        {"current_router_hard_info_t", sizeof(current_router_hard_info_t)},
        {"Various_sharemem_t", sizeof(Various_sharemem_t)},
        {"splog_info", sizeof(splog_info)},
        {"SELEventRecord_T", sizeof(SELEventRecord_T)},
        {"unit_position_id_t", sizeof(unit_position_id_t)},
        {"Esc_Sensor_t", sizeof(Esc_Sensor_t)},
    };
    for (const auto& r : records) {
        const Type* t = find_type(r.first);
        ASSERT_NE(t, nullptr) << r.first;
        EXPECT_EQ(t->size, r.second) << r.first;
        std::vector<int> hits(t->size, 0);
        cover(*t, 0, hits);
        const bool unnamed = r.first == "splog_linkup_info";
        for (size_t b = 0; b < hits.size(); ++b) {
            EXPECT_EQ(hits[b], unnamed && b >= 20 && b < 24 ? 0 : 1) << r.first << " byte " << b;
        }
    }
}

TEST(SimFields, PathsLandWhereTheCompilerPutsTheFields)
{
    struct Case {
        const char* type;
        const char* path;
        size_t offset;
        size_t size;
    };
    const Case cases[] = {
        {"current_psuc_info_t", "psuc.bob[2].FRUStatus", offsetof(current_psuc_info_t, psuc.bob[2].FRUStatus),
         4},
        {"current_psuc_info_t", "psuc.common.ACOKSts", offsetof(current_psuc_info_t, psuc.common.ACOKSts), 4},
        {"setup_system_info_t", "debug_flags.debug_flag[8]",
         offsetof(setup_system_info_t, debug_flags.debug_flag[8]), 4},
        {"setup_system_info_t", "quorSpace[1].Z", offsetof(setup_system_info_t, quorSpace[1].Z), 1},
        {"setup_system_info_t", "ntp_server_ip[2][3]", offsetof(setup_system_info_t, ntp_server_ip[2][3]), 1},
        {"setup_system_info_t", "cdu_info[1].password", offsetof(setup_system_info_t, cdu_info[1].password),
         32},
        {"current_router_hard_info_t", "quordata.phyPort[9].online",
         offsetof(current_router_hard_info_t, quordata.phyPort[9].online), 1},
        {"current_system_info_t", "fan_start_time[7]", offsetof(current_system_info_t, fan_start_time[7]), 4},
        {"Various_sharemem_t", "hjob_regist_flag[1][17].regist_mode",
         offsetof(Various_sharemem_t, hjob_regist_flag[1][17].regist_mode), 1},
        {"Various_sharemem_t", "hjob_regist_flag[1]", offsetof(Various_sharemem_t, hjob_regist_flag[1]), 72},
        {"splog_info", "latch_code[7].latch_code", offsetof(splog_info, latch_code[7]), 4},
    };
    for (const Case& c : cases) {
        Ref r = resolve(*find_type(c.type), c.path);
        EXPECT_EQ(r.offset, c.offset) << c.path;
        EXPECT_EQ(r.size(), c.size) << c.path;
    }
}

TEST(SimFields, BadPathsAreRefusedWithTheReason)
{
    const Type& psuc = *find_type("current_psuc_info_t");
    struct Case {
        const char* path;
        const char* reason;
    };
    const Case cases[] = {
        {"psuc.bob[3].FRUStatus", "index 3 is outside \"psuc.bob\" (0 to 2)"},
        {"psuc.bob.FRUStatus", "is an array: give an index"},
        {"psuc.bobs[0]", "no field \"bobs\" in psuc_all_t"},
        {"psuc.common.PresentSts.x", "has no fields"},
        {"psuc.bob[x]", "bad index"},
        {"psuc.bob[1", "missing \"]\""},
        {"rsv[0]..", "empty field name"},
    };
    for (const Case& c : cases) {
        try {
            resolve(psuc, c.path);
            ADD_FAILURE() << c.path << " was accepted";
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find(c.reason), std::string::npos) << c.path << ": " << e.what();
        }
    }
}

TEST(SimFields, ValuesStoredByPathAppearInTheRealRecord)
{
    current_router_hard_info_t rec;
    std::memset(&rec, 0xAA, sizeof rec);
    json v = parse(R"({"quordata.phyPort[4].online": 1, "quordata.portConfig": "0x10",
                       "quordata.phyPort[0]": {"X": -2, "id": 7}, "reserve0": "01 02 03"})");
    fill(reinterpret_cast<uint8_t*>(&rec), *find_type("current_router_hard_info_t"), Node{&v, ""});
    const auto& q = rec.quordata;
    EXPECT_EQ((std::vector<long long>{q.phyPort[4].online, q.phyPort[3].online, q.portConfig, q.phyPort[0].X,
                                      q.phyPort[0].id, q.phyPort[0].Y, rec.reserve0[0], rec.reserve0[2],
                                      rec.reserve0[3]}),
              (std::vector<long long>{1, 0xAA, 0x10, -2, 7, static_cast<int8_t>(0xAA), 1, 3, 0xAA}));

    json back = to_json(reinterpret_cast<uint8_t*>(&rec), whole(*find_type("current_router_hard_info_t")));
    EXPECT_EQ(back["quordata"]["phyPort"][4]["online"], 1);
    EXPECT_EQ(back["quordata"]["phyPort"][0]["X"], -2);
    EXPECT_EQ(back["reserve0"].size(), 8u);
}

TEST(SimFields, TextsAndWideNumbers)
{
    splog_info li;
    std::memset(&li, 0, sizeof li);
    json v = parse(R"({"ras_code": "BFW_CFG_PSU_4", "BMCInst": 17, "part1_pos": [1, 2]})");
    fill(reinterpret_cast<uint8_t*>(&li), *find_type("splog_info"), Node{&v, ""});
    EXPECT_STREQ(li.ras_code, "BFW_CFG_PSU_4");
    EXPECT_EQ(li.part1_pos[1], 2);
    json back = to_json(reinterpret_cast<uint8_t*>(&li), whole(*find_type("splog_info")));
    EXPECT_EQ(back["ras_code"], "BFW_CFG_PSU_4");

    current_system_info_t sys;
    std::memset(&sys, 0, sizeof sys);
    json w = parse(R"({"fanfull_reason": "0x8000000000600000"})");
    fill(reinterpret_cast<uint8_t*>(&sys), *find_type("current_system_info_t"), Node{&w, ""});
    EXPECT_EQ(sys.fanfull_reason, 0x8000000000600000ull);
}

TEST(SimFields, BadValuesNameTheirPlace)
{
    struct Case {
        const char* type;
        const char* value;
        const char* where;
    };
    const Case cases[] = {
        {"splog_info", R"({"ras_code": "THIS_CODE_IS_TOO_LONG"})", "/ras_code"},
        {"splog_info", R"({"BMCInst": 256})", "/BMCInst"},
        {"splog_info", R"({"part1_pos": [1, 2, 3, 4, 5, 6, 7]})", "/part1_pos"},
        {"splog_info", R"({"detail": "zz"})", "/detail"},
        {"current_common_info_t", R"({"status": {"x": 1}})", "/status"},
        {"current_common_info_t", R"({"statu": 1})", "/statu"},
        {"current_common_info_t", R"({"hex": "00 11", "status": 1})", "/hex"},
        {"current_common_info_t",
         R"({"hex": "00 11 22 33 44 55 66 77 88 99 aa bb cc dd ee ff 00 11 22 33 44 55 66 77 88 99 aa bb cc dd ee ff 00"})",
         "/hex"},
        {"Esc_Table_t", R"({"frue_list": 5})", "/frue_list"},
    };
    for (const Case& c : cases) {
        const Type* t = find_type(c.type);
        std::vector<uint8_t> bytes(t->size, 0);
        json v = parse(c.value);
        try {
            fill(bytes.data(), *t, Node{&v, ""});
            ADD_FAILURE() << c.value << " was accepted";
        } catch (const ScenarioError& e) {
            EXPECT_EQ(e.where(), c.where) << c.value << ": " << e.what();
        }
    }
}

TEST(SimFields, RecordNamesMapToTheirKeys)
{
    EXPECT_EQ((std::vector<int>{find_record("common")->key, find_record("setup")->key,
                                find_record("psuc")->key, find_record("router")->key}),
              (std::vector<int>{PROP_CURRENT_COMMON_INFO, PROP_SETUP_INFO, PROP_CURRENT_INFO,
                                PROP_CURRENT_HARD_INFO}));
    EXPECT_EQ(find_record("system")->type->size, sizeof(current_system_info_t));
    EXPECT_EQ(find_record("routers"), nullptr);
}
