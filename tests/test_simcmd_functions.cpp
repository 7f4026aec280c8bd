/* The simulator's function table: exactly the library's exported
 * functions, each parameter read the way its prototype needs. */
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "run/functions.h"
#include "znpdklib.h"

using namespace zcmd;

namespace {

std::string slurp(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

/* Function names declared in the public header. */
std::set<std::string> header_functions()
{
    std::string text = slurp(std::string(ZNPDK_SOURCE_DIR) + "/include/znpdk/znpdklib.h");
    std::set<std::string> names;
    std::regex proto(R"(^[A-Za-z_][\w:]*\**\s+\**\s*([A-Za-z_]\w*)\()");
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::smatch m;
        if (std::regex_search(line, m, proto)) {
            names.insert(m[1]);
        }
    }
    return names;
}

/* The "# Functions" part of the checkout's export list (the version
 * script holds the same names; test_exports compares them). */
std::set<std::string> agreed_functions()
{
    std::istringstream in(slurp(std::string(ZNPDK_SOURCE_DIR) + "/exports.txt"));
    std::set<std::string> agreed;
    bool in_functions = false;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("#", 0) == 0) {
            in_functions = line.find("Functions") != std::string::npos;
        } else if (in_functions && !line.empty()) {
            agreed.insert(line.substr(0, line.find_first_of(" \t\r")));
        }
    }
    return agreed;
}

std::set<std::string> table_names()
{
    std::set<std::string> names;
    for (const Function& f : functions()) {
        names.insert(f.name);
    }
    return names;
}

/* Does a parameter kind fit the C type of the prototype? */
bool fits(const Param& p, const CType& c)
{
    auto pointee_is = [&](const std::type_info& t) { return c.pointer && *c.pointee == t; };
    switch (p.kind) {
    case PK::U8:
        return c.integral && c.size == 1 && !c.is_signed;
    case PK::I32:
        return c.integral && c.size == 4 && c.is_signed;
    case PK::U32:
        return c.integral && c.size == 4 && !c.is_signed;
    case PK::U64:
        return c.integral && c.size == 8 && !c.is_signed;
    case PK::U16Ref:
        return pointee_is(typeid(uint16_t)) && !c.pointee_const;
    case PK::I32Ref:
    case PK::I32Arr:
        return pointee_is(typeid(int)) && !c.pointee_const;
    case PK::U32Ref:
    case PK::U32Arr:
    case PK::WordsOut:
        return pointee_is(typeid(uint32_t)) && !c.pointee_const;
    case PK::WordsIn:
        return pointee_is(typeid(uint32_t)) && c.pointee_const;
    case PK::Struct:
        return c.pointer && (c.size == p.type->size || *c.pointee == typeid(void));
    case PK::EscTable:
        return pointee_is(typeid(Esc_Table_t));
    case PK::Component:
        return pointee_is(typeid(sp::sysobj::Component));
    case PK::Path:
        return pointee_is(typeid(char));
    }
    return false;
}

} // namespace

TEST(SimFunctions, TableHoldsEveryExportedFunctionOnce)
{
    std::set<std::string> names = table_names();
    EXPECT_EQ(names.size(), functions().size()) << "a function is listed twice";
    EXPECT_EQ(names, header_functions());
    EXPECT_EQ(names, agreed_functions());
}

TEST(SimFunctions, ParametersFitThePrototypes)
{
    for (const Function& f : functions()) {
        ASSERT_EQ(f.params.size(), f.ctypes.size()) << f.name;
        for (size_t i = 0; i < f.params.size(); ++i) {
            EXPECT_TRUE(fits(f.params[i], f.ctypes[i])) << f.name << " parameter " << f.params[i].name;
            if (f.params[i].kind == PK::Struct) {
                EXPECT_NE(f.params[i].type, nullptr) << f.name;
            }
        }
        EXPECT_TRUE(f.ret.is_void || f.ret.integral) << f.name;
    }
}

TEST(SimFunctions, EveryExportedNameResolvesInTheLibrary)
{
    const std::set<std::string> exported = agreed_functions();
    for (const Function& f : functions()) {
        if (exported.count(f.name)) {
            EXPECT_NE(library_symbol(f.name), nullptr) << f.name;
        }
    }
}

TEST(SimFunctions, ArgumentsAreCheckedAgainstTheParameters)
{
    struct Case {
        const char* function;
        const char* args;
        const char* where; /* "" = accepted */
    };
    const Case cases[] = {
        {"ZNAPI_SetSensorWS", R"([129, 1, 2, 0, 0, 17, "out"])", ""},
        {"ZNAPI_SetSensorWS", R"({"SensorNum": 129, "dir": 1, "eventData1": 2, "eventData2": 0,
                                  "eventData3": 0, "BMCInst": 17, "recordID": null})",
         ""},
        {"ZNAPI_SetSensorWS", R"([129, 1, 2, 0, 0, 17])", "/args"},
        {"ZNAPI_SetSensorWS", R"([256, 1, 2, 0, 0, 17, "out"])", "/args/0"},
        {"ZNAPI_SetSensorWS", R"([129, "one", 2, 0, 0, 17, "out"])", "/args/1"},
        {"ZNAPI_SetSensorWS", R"([129, 1, 2, 0, 0, 17, [1]])", "/args/6"},
        {"ZNAPI_SetSensorWS", R"({"SensorNum": 129})", "/args"},
        {"znpdklib_max_fan_speed", R"(["0xFFFFFFFFFFFFFFFF"])", ""},
        {"znpdklib_max_fan_speed", R"(["0x1FFFFFFFFFFFFFFFF"])", "/args/0"},
        {"znpdklib_set_check_fan_start_time", R"([5, [1, 2, 3, 4, 5, 6, 7, 8, 9]])", "/args/1"},
        {"znpdklib_get_escalation_info", R"([{"esc_spec": 0, "BMCInst": 17, "Sensor_No": 35}, "out"])", ""},
        {"znpdklib_get_escalation_info", R"([{"esc_spec": 0, "Sensor_no": 35}, "out"])", "/args/0/Sensor_no"},
        {"znpdklib_get_escalation_info", R"([{"esc_spec": 0}, {"frue_count": 1}])", "/args/1"},
        {"znpdklib_setEmergencyOutage", R"(["COMPO_NODE", 3, 1])", ""},
        {"znpdklib_exechap", R"(["/SYSTEM#0/BOBC#0", "P", "", null, "out"])", ""},
        {"znpdklib_exechap", R"(["/SYSTEM#0/BOBC#0", "P", "", [1, "x"], "out"])", "/args/3/1"},
        {"znpdklib_Various_sharemem_write",
         R"([{"job_in_sequence": 5, "hjob_regist_flag[1][3].BMCInst": 3}])", ""},
        {"znpdklib_Various_sharemem_write", R"([{"hjob_regist_flag[2][3].BMCInst": 3}])",
         "/args/0/hjob_regist_flag[2][3].BMCInst"},
        {"znpdklib_get_fan_check_phase", R"([1])", "/args"},
        {"znpdklib_get_fan_check_phase", R"(null)", ""},
    };
    for (const Case& c : cases) {
        const Function* f = find_function(c.function);
        ASSERT_NE(f, nullptr) << c.function;
        json args = json::parse(c.args);
        try {
            parse_args(*f, Node{&args, "/args"});
            EXPECT_STREQ(c.where, "") << c.function << " " << c.args << " was accepted";
        } catch (const ScenarioError& e) {
            EXPECT_EQ(e.where(), c.where) << c.function << " " << c.args << ": " << e.what();
        }
    }
}

TEST(SimFunctions, SpecsCarryTheValuesAndBuffers)
{
    const Function* f = find_function("znpdklib_set_check_fan_start_time");
    json args = json::parse(R"(["0x05", [10, 20]])");
    std::vector<ArgSpec> s = parse_args(*f, Node{&args, "/args"});
    EXPECT_EQ(s[0].bits, 5u);
    ASSERT_EQ(s[1].init.size(), 32u);
    uint32_t w[8];
    std::memcpy(w, s[1].init.data(), sizeof w);
    EXPECT_EQ(w[0], 10u);
    EXPECT_EQ(w[1], 20u);
    EXPECT_EQ(w[7], 0u);
    EXPECT_EQ(call_text(*f, s), "znpdklib_set_check_fan_start_time(5, &fan_start_time)");

    const Function* g = find_function("ZNAPI_Sensor_Init");
    json neg = json::parse("[-1]");
    EXPECT_EQ(static_cast<int32_t>(parse_args(*g, Node{&neg, "/args"})[0].bits), -1);
}

TEST(SimFunctions, NearNamesAreSuggested)
{
    EXPECT_EQ(nearest_names("znpdklib_check_fan_spinnup", function_names()),
              std::vector<std::string>{"znpdklib_check_fan_spinup"});
    EXPECT_TRUE(nearest_names("completely_different_name_here", function_names()).empty());
}
