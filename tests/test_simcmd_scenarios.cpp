/* Scenario files: mistakes are reported at their place, expectations
 * compare as documented, and a run counts exactly the failed ones. */
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <tuple>

#include "run/functions.h"
#include "scenario/jsonutil.h"
#include "scenario/scenario.h"
#include "support.h"

using namespace zcmd;

namespace {

/* The place of the first mistake, or "" when the scenario reads. */
std::string mistake(const std::string& text)
{
    try {
        load_scenario(text, "test.json");
        return "";
    } catch (const ScenarioError& e) {
        return e.where();
    }
}

std::string wrap(const std::string& steps)
{
    return R"({"name": "t", "steps": [)" + steps + "]}";
}

std::string slurp(const char* path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

/* Runs a scenario in a child process; its result is the failure count.
 * What the run prints goes to `printed` when given. */
int run_child(const std::string& text, bool as_json = false, std::string* printed = nullptr,
              const std::string& timeline = "")
{
    Scenario s = load_scenario(text, "test.json");
    char path[] = "/tmp/znpdk-simcmd-out-XXXXXX";
    int fd = mkstemp(path);
    if (fd >= 0) {
        close(fd);
    }
    int rc = ztest::run_in_child([&]() {
        std::FILE* out = std::freopen(path, "w", stdout);
        (void)out;
        Options o;
        o.json = as_json;
        o.timeline = timeline;
        return run_scenario(s, o);
    });
    if (printed != nullptr) {
        *printed = slurp(path);
    }
    unlink(path);
    return rc;
}

/* Runs a scenario with a timeline; the picture, or "" when the run failed a check. */
std::string draw(const std::string& text)
{
    char path[] = "/tmp/znpdk-simcmd-svg-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) {
        return "";
    }
    close(fd);
    int failed = run_child(text, false, nullptr, path);
    std::string svg = slurp(path);
    unlink(path);
    return failed == 0 ? svg : "";
}

/* The texts of a picture that leave it or cover one another. Every text is
 * measured as the picture's font promises: monospace, 0.6 em per character,
 * 0.8 em above the baseline and 0.2 em below; size, anchor and family are
 * inherited through the elements as SVG does. */
std::vector<std::string> misplaced_texts(const std::string& svg)
{
    struct Box {
        double x0, y0, x1, y1;
        std::string text;
    };
    std::vector<Box> boxes;
    std::vector<std::string> bad;
    std::vector<std::map<std::string, std::string>> open{{{"text-anchor", "start"}}};
    double width = -1, height = -1;
    const std::regex attr(R"re(([a-z-]+)="([^"]*)")re");
    for (size_t at = svg.find('<'); at != std::string::npos; at = svg.find('<', at + 1)) {
        size_t end = svg.find('>', at);
        if (svg[at + 1] == '/') {
            open.pop_back();
            continue;
        }
        std::string tag = svg.substr(at + 1, end - at - 1);
        std::map<std::string, std::string> a = open.back();
        a.erase("x"); /* the place is not inherited */
        a.erase("y");
        for (std::sregex_iterator m(tag.begin(), tag.end(), attr), none; m != none; ++m) {
            a[(*m)[1]] = (*m)[2];
        }
        if (tag.rfind("svg ", 0) == 0 && width < 0) {
            width = std::stod(a["width"]);
            height = std::stod(a["height"]);
        } else if (tag.rfind("text ", 0) == 0) {
            std::string s = svg.substr(end + 1, svg.find("</text>", end) - end - 1);
            size_t chars = 0;
            for (size_t i = 0; i < s.size(); ++i) {
                chars += (s[i] & 0xC0) != 0x80;                           /* code points */
                i = s[i] == '&' ? std::min(s.find(';', i), s.size()) : i; /* an entity is one */
            }
            auto num = [&](const char* k) { return a[k].empty() ? 0 : std::stod(a[k]); };
            double size = num("font-size"), w = 0.6 * size * chars, x = num("x"), y = num("y");
            x -= a["text-anchor"] == "end" ? w : a["text-anchor"] == "middle" ? w / 2 : 0;
            boxes.push_back({x, y - 0.8 * size, x + w, y + 0.2 * size, s});
            if (a["font-family"] != "monospace") {
                bad.push_back("\"" + s + "\" is not monospace");
            }
        }
        if (tag.back() != '/') {
            open.push_back(a);
        }
    }
    if (open.size() != 1 || boxes.empty()) {
        return {"not a whole picture with texts"};
    }
    for (size_t i = 0; i < boxes.size(); ++i) {
        const Box& b = boxes[i];
        if (b.x0 < 0 || b.y0 < 0 || b.x1 > width || b.y1 > height) {
            bad.push_back("\"" + b.text + "\" leaves the picture");
        }
        for (size_t j = 0; j < i; ++j) {
            const Box& o = boxes[j];
            if (b.x0 < o.x1 && o.x0 < b.x1 && b.y0 < o.y1 && o.y0 < b.y1) {
                bad.push_back("\"" + b.text + "\" covers \"" + o.text + "\"");
            }
        }
    }
    return bad;
}

} // namespace

TEST(SimScenarioFile, MistakesAreReportedWhereTheyAre)
{
    struct Case {
        std::string text;
        std::string where;
    };
    const Case cases[] = {
        {wrap(R"({"note": "fine"})"), ""},
        {R"({"name": "t", "steps": [{"note": "x"}], "extra": 1})", "/extra"},
        {R"({"steps": []})", "/"},
        {R"({"name": "t", "steps": {}})", "/steps"},
        {R"({"name": "t", "machine": "big", "steps": []})", "/machine"},
        {R"({"name": "t", "invariants": "on", "steps": []})", "/invariants"},
        {wrap(R"({"call": "ZNAPI_SetSensorWs", "args": []})"), "/steps/0/call"},
        {wrap(R"({"call": "ZNAPI_Sensor_Init", "args": [17, 1]})"), "/steps/0/args"},
        {wrap(R"({"call": "ZNAPI_Sensor_Init", "args": ["seventeen"]})"), "/steps/0/args/0"},
        {wrap(R"({"call": "ZNAPI_Sensor_Init", "args": [17], "expect": {"rett": 0}})"),
         "/steps/0/expect/rett"},
        {wrap(R"({"advance": 5, "expect": {"ret": 0}})"), "/steps/0/expect/ret"},
        {wrap(R"({"advance": -5})"), "/steps/0/advance"},
        {wrap(R"({"advance": 5, "note": "two things"})"), "/steps/0"},
        {wrap(R"({"lable": "typo"})"), "/steps/0/lable"},
        {wrap(R"({"label": "only"})"), "/steps/0"},
        {wrap(R"({"record": {"path": "/SYSTEM#0", "record": "system", "set": {"fanfull_reasons": 1}}})"),
         "/steps/0/record/set/fanfull_reasons"},
        {wrap(R"({"record": {"path": "/SYSTEM#0", "record": "sys", "set": {}}})"), "/steps/0/record/record"},
        {wrap(R"({"record": {"path": "SYSTEM#0", "record": "system"}})"), "/steps/0/record/path"},
        {wrap(R"({"record": {"path": "/SYSTEM#0/PSU", "record": "common"}})"), "/steps/0/record/path"},
        {wrap(
             R"({"record": {"path": "/SYSTEM#0/PSU#1", "record": "common", "set_bits": {"status": "0xG"}}})"),
         "/steps/0/record/set_bits/status"},
        {wrap(
             R"({"record": {"path": "/SYSTEM#0/PSU#1", "record": "common", "set_bits": {"control_no": 1}}})"),
         "/steps/0/record/set_bits/control_no"},
        {wrap(R"({"sensor": {"inst": 18, "num": 129, "reading": 2}})"), "/steps/0/sensor/inst"},
        {wrap(R"({"sensor": {"inst": 17, "num": 129}})"), "/steps/0/sensor"},
        {wrap(R"({"file": {"path": "/tmp/x", "text": "a", "remove": true}})"), "/steps/0/file"},
        {wrap(R"({"file": {"path": "/tmp/x", "hex": "0g"}})"), "/steps/0/file/hex"},
        {wrap(R"({"hap": {"procedure": "BOB_R_BOBC_FANC", "mode": "READ_FANSPEED",
                          "answers": [{"data": [1, 2, 3, 4, 5, 6, 7, 8, 9, 10]}]}})"),
         "/steps/0/hap/answers/0/data"},
        {wrap(R"({"hap": {"procedure": "BOB_R_BOBC_FANC", "answers": [{"fields": {"x": 1}}]}})"),
         "/steps/0/hap/answers/0/fields"},
        {wrap(
             R"({"hap": {"procedure": "BOB_R_BOBC_PSUC", "answers": [{"fields": {"bob[0].FRUStatus": 1}}]}})"),
         ""},
        {wrap(R"({"hap": {"procedure": "X", "answers": [{"ret": -1, "log": {"ras_code": 5}}]}})"),
         "/steps/0/hap/answers/0/log/ras_code"},
        {wrap(R"({"inject": {"sel_add": {"on": true}, "sem_open": true}})"), "/steps/0/inject"},
        {wrap(R"({"inject": {"reg_reed": {"errno": 5}}})"), "/steps/0/inject/reg_reed"},
        {wrap(R"({"expect": {"sensors": [{"inst": 17, "num": 129, "state": {"maks": 2}}]}})"),
         "/steps/0/expect/sensors/0/state/maks"},
        {wrap(R"({"expect": {"traces": {"contains": [{"text": {"matches": "("}}]}}})"),
         "/steps/0/expect/traces/contains/0/text/matches"},
        {wrap(R"({"expect": {"ras": {"since": "yesterday"}}})"), "/steps/0/expect/ras/since"},
        {wrap(R"({"expect": {"records": [{"path": "/SYSTEM#0", "record": "setup",
                                          "fields": {"debug_flags.debug_flag[64]": 0}}]}})"),
         "/steps/0/expect/records/0/fields/debug_flags.debug_flag[64]"},
        {wrap(R"({"expect": {"sel": {"count": 1}}})"), "/steps/0/expect/sel"},
        {wrap(R"({"expect": {"files": [{"path": "/x", "at": 4}]}})"), "/steps/0/expect/files/0/at"},
        {R"({"name": "t", "setup": [{"note": "x", "expect": {"time": 0}}], "steps": []})", "/setup/0/expect"},
        /* A false event is no event: the step must still say what it is. */
        {wrap(R"({"hap": {"clear": false}})"), "/steps/0/hap"},
        {wrap(R"({"fan": {"fan": 3}})"), "/steps/0/fan"},
        {wrap(R"({"fan": {"fan": 3, "stall": false}})"), ""},
        {wrap(R"({"fan": {"fan": 3, "stall": "yes"}})"), "/steps/0/fan/stall"},
        {wrap(R"({"process": "Fan monitor", "note": "x"})"), "/steps/0/process"},
        {wrap(R"({"process": "fan-mon_2", "note": "x"})"), ""},
        {wrap(R"({"restart": 5})"), "/steps/0/restart"},
        {wrap(R"({"bmc_reboot": true}, {"process": "a", "call": "ZNAPI_Sensor_Init", "args": [17]})"), ""},
        {wrap(R"({"ac_power_cycle": true}, {"note": "x"}, {"call": "ZNAPI_Sensor_Init", "args": [17]})"),
         "/steps/2"},
        {wrap(R"({"bmc_reboot": false}, {"call": "ZNAPI_Sensor_Init", "args": [17]})"), ""},
        /* A killed step runs in the process that is killed, also after a reboot. */
        {wrap(R"({"bmc_reboot": true}, {"kill": {"process": "a", "while": "fan check poll",
                                                 "during": {"call": "ZNAPI_Sensor_Init", "args": [17]}}})"),
         ""},
        /* Components named must exist at that step. */
        {wrap(R"({"remove_component": "/SYSTEM#0/PSU#18"})"), "/steps/0/remove_component"},
        {wrap(R"({"remove_component": "/PSU#17"})"), ""},
        {wrap(R"({"remove_component": "/SYSTEM#0/FANU#1"}, {"remove_component": "/SYSTEM#0/FANU#1/FAN#0"})"),
         "/steps/1/remove_component"},
        {wrap(R"({"add_component": {"path": "/SYSTEM#0/PSU#18"}}, {"remove_component": "/SYSTEM#0/PSU#18"})"),
         ""},
        {wrap(R"({"add_component": {"path": "/SYSTEM#0/CMU#9/CPU#0"}})"), "/steps/0/add_component/path"},
        {wrap(R"({"add_component": {"path": "/SYSTEM#0/NODE#20", "parents": ["/SYSTEM#0/CMU#8"]}})"),
         "/steps/0/add_component/parents/0"},
        {wrap(
             R"({"remove_component": "/SYSTEM#0/NODE#3"}, {"record": {"path": "/SYSTEM#0/NODE#3", "record": "common"}})"),
         "/steps/1/record/path"},
        {wrap(R"({"record": {"path": "/SYSTEM#0/CMU#1/NODE#3", "record": "common"}})"), ""},
        {R"({"name": "t", "machine": "empty", "steps": [{"remove_component": "/SYSTEM#0/PSU#1"}]})",
         "/steps/0/remove_component"},
        /* Expected values against the type of what they expect. */
        {wrap(R"({"call": "ZNAPI_Sensor_Init", "args": [17], "expect": {"ret": "one"}})"),
         "/steps/0/expect/ret"},
        {wrap(R"({"call": "ZNAPI_Sensor_Init", "args": [17], "expect": {"ret": {"one_of": [0, "x"]}}})"),
         "/steps/0/expect/ret/one_of/1"},
        {wrap(R"({"call": "ZNAPI_Sensor_Init", "args": [17], "expect": {"ret": {"not": -1}}})"), ""},
        {wrap(
             R"({"call": "znpdklib_create_fan_rotation_check_thread", "args": [2, 1], "expect": {"ret": 0}})"),
         "/steps/0/expect/ret"},
        {wrap(
             R"({"call": "znpdklib_check_fan_redundancy", "args": [0, "out"], "expect": {"out": {"fanc_er": 0}}})"),
         "/steps/0/expect/out/fanc_er"},
        {wrap(
             R"({"call": "znpdklib_check_fan_redundancy", "args": [0, "out"], "expect": {"out": {"mode": 0}}})"),
         "/steps/0/expect/out/mode"},
        {wrap(R"({"call": "znpdklib_check_fan_redundancy", "args": [0, "out"],
                  "expect": {"out": {"fanc_err": {"contains": "1"}}}})"),
         "/steps/0/expect/out/fanc_err/contains"},
        {wrap(R"({"expect": {"sensors": [{"inst": 17, "num": 129, "state": "0x8002"}]}})"),
         "/steps/0/expect/sensors/0/state"},
        {wrap(R"({"expect": {"sel": {"inst": 17, "count": "two"}}})"), "/steps/0/expect/sel/count"},
        {wrap(R"({"expect": {"time": -1}})"), "/steps/0/expect/time"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(mistake(c.text), c.where) << c.text;
    }
}

TEST(SimScenarioFile, MessagesNameTheTypeRangeAndTheUnknownName)
{
    struct Case {
        std::string step;
        std::string message;
    };
    const Case cases[] = {
        {R"({"call": "znpdklib_check_psu_redundancy", "args": [2147483648]})",
         "expected znpdklib_check_psu_redundancy argument 0 (mode, int) (an integer from -2147483648 to "
         "2147483647), got 2147483648"},
        {R"({"call": "znpdklib_SetSensorWoS", "args": [-1, 1, 0, 17]})",
         "expected znpdklib_SetSensorWoS argument 0 (SensorNum, INT8U) (an integer from 0 to 255), got -1"},
        {R"({"call": "znpdklib_cleardb_psu", "args": [0, -1]})",
         "expected znpdklib_cleardb_psu argument 1 (offbit, uint32_t) (an integer from 0 to 4294967295), got -1"},
        {R"({"call": "znpdklib_check_psu_redundancy", "args": {"mdoe": 3}})",
         "znpdklib_check_psu_redundancy has no parameter \"mdoe\" (did you mean \"mode\"?); it takes mode"},
        {R"({"bmc_rebot": true})", "unknown step \"bmc_rebot\" (did you mean \"bmc_reboot\"?)"},
        {R"({"advance": 1, "lable": "x"})", "unknown member \"lable\" (did you mean \"label\"?)"},
        {R"({"advance": 1, "colour": "red"})", "unknown member \"colour\""},
        {R"({"call": "ZNAPI_Sensor_Init", "args": [17], "expect": {"ret": "one"}})",
         "expected the result of ZNAPI_Sensor_Init (an integer from -2147483648 to 2147483647), got \"one\""},
        {R"({"kill": {"process": "fan", "while": "sleeping", "during": {"advance": 1}}})",
         "unknown kill point \"sleeping\" (kill points: \"fan check poll\", \"holding save-area semaphore\", "
         "\"rebuilding escalation table\", \"writing component record\")"},
        {R"({"kill": {"process": "fan", "while": "fan check poll", "during": {"process": "ipmi", "advance": 1}}})",
         "this step runs in the process that is killed, fan"},
        {R"({"remove_component": "/SYSTEM#0/PSU#18"})",
         "the machine has no component /SYSTEM#0/PSU#18 at this step (\"znpdk-sim machine\" lists the default "
         "machine; add_component adds one)"},
    };
    for (const Case& c : cases) {
        try {
            load_scenario(wrap(c.step), "test.json");
            ADD_FAILURE() << c.step << " was accepted";
        } catch (const ScenarioError& e) {
            EXPECT_EQ(std::string(e.what()), c.message) << c.step;
        }
    }
}

TEST(SimScenarioFile, EveryMistakeIsListedWithLineAndColumn)
{
    struct Case {
        std::string text;
        std::vector<std::string> lines;
    };
    const Case cases[] = {
        {"{\"name\": \"t\", \"colour\": 1,\n"
         " \"steps\": [\n"
         "  {\"advance\": -5},\n"
         "  {\"note\": \"fine\"}, {\"bmc_rebot\": true}\n"
         " ]}",
         {"test.json:1:15: /colour: unknown member \"colour\"",
          "test.json:3:15: /steps/0/advance: expected seconds (an integer from 0 to 100000000), got -5",
          "test.json:4:22: /steps/2/bmc_rebot: unknown step \"bmc_rebot\" (did you mean \"bmc_reboot\"?)"}},
        /* Names are placed as the parser reads them: escapes decoded, the later of two alike. */
        {R"({"name": "t", "steps": [], "a/b": 1, "st\u0065ps": 2})",
         {"test.json:1:28: /a~1b: unknown member \"a/b\"",
          "test.json:1:52: /steps: expected a list of steps"}},
    };
    for (const Case& c : cases) {
        std::vector<std::string> lines;
        try {
            load_scenario(c.text, "test.json");
        } catch (const ScenarioError& e) {
            for (const Mistake& m : e.mistakes()) {
                lines.push_back(m.text("test.json"));
            }
        }
        EXPECT_EQ(lines, c.lines) << c.text;
    }
}

/* Nothing after a syntax error can be read: it is the one mistake, without a JSON pointer. */
TEST(SimScenarioFile, SyntaxErrorsGiveLineAndColumn)
{
    const std::tuple<std::string, int, int> cases[] = {
        {"{\"name\": \"t\",\n  \"steps\": [\n    {\"advance\" 5}\n  ]\n}", 3, 16},
        {"", 1, 1},
        {"{\"name\": \"t\", \"steps\": [],}", 1, 27},
    };
    for (const auto& [text, line, column] : cases) {
        const std::string place = std::to_string(line) + ":" + std::to_string(column) + ": ";
        try {
            load_scenario(text, "test.json");
            ADD_FAILURE() << text << " was accepted";
        } catch (const ScenarioError& e) {
            EXPECT_EQ(e.where(), "line " + std::to_string(line) + ", column " + std::to_string(column));
            ASSERT_EQ(e.mistakes().size(), 1u) << text;
            EXPECT_EQ(e.mistakes()[0].text("f"), "f:" + place + e.what());
        }
    }
}

TEST(SimMatch, ComparesAsDocumented)
{
    struct Case {
        const char* expected;
        const char* seen;
        bool same;
    };
    const Case cases[] = {
        {"16", "16", true},
        {"\"0x10\"", "16", true},
        {"\"0x11\"", "16", false},
        {"-1", "4294967295", false},
        {"\"0xFFFFFFFFFFFFFFFF\"", "18446744073709551615", true},
        {"true", "1", true},
        {R"({"a": 1})", R"({"a": 1, "b": 2})", true},
        {R"({"c": 1})", R"({"a": 1})", false},
        {R"({"a.b[1]": 5})", R"({"a": {"b": [4, 5]}})", true},
        {R"({"a.b[2]": 5})", R"({"a": {"b": [4, 5]}})", false},
        {"[1, 2]", "[1, 2, 3]", false},
        {R"("01 0a")", "[1, 10]", true},
        {R"("01 0b")", "[1, 10]", false},
        {R"({"mask": "0xF0", "value": "0x10"})", "31", true},
        {R"({"mask": "0xF0", "value": "0x20"})", "31", false},
        {R"({"any_bits": 4})", "2", false},
        {R"({"no_bits": 4})", "2", true},
        {R"({"contains": "PSU_4"})", R"("BFW_CFG_PSU_4")", true},
        {R"({"matches": "^BFW_CFG_FAN_H[0-2]$"})", R"("BFW_CFG_FAN_H3")", false},
        {R"({"one_of": [1, 2]})", "2", true},
        {R"({"not": 3})", "3", false},
        {R"({"min": 1, "max": 3})", "3", true},
        {R"({"min": 1, "max": 3})", "4", false},
        {R"({"value": 3})", R"({"value": 3, "address": 7})", true},
    };
    for (const Case& c : cases) {
        std::string d = match(json::parse(c.expected), json::parse(c.seen));
        EXPECT_EQ(d.empty(), c.same) << c.expected << " vs " << c.seen << ": " << d;
    }
}

TEST(SimScenarioRun, CountsExactlyTheFailedExpectations)
{
    const std::string text = R"({
      "name": "engine", "save_area": false,
      "steps": [
        {"record": {"path": "/SYSTEM#0", "record": "system",
                    "set": {"fan_check_phase": 2, "fan_start_time": [5, 6]}, "set_bits": {"fanfull_reason": "0x300"}},
         "expect": {"records": [{"path": "/SYSTEM#0", "record": "system",
                                 "fields": {"fan_check_phase": 2, "fan_start_time[1]": 6, "fanfull_reason": "0x300"}}]}},
        {"record": {"path": "/SYSTEM#0", "record": "system", "clear_bits": {"fanfull_reason": "0x100"}},
         "expect": {"records": [{"path": "/SYSTEM#0", "record": "system", "fields": {"fanfull_reason": "0x200"}}]}},
        {"file": {"path": "/tmp/.boot/.acon", "text": "on"}},
        {"reg": {"cabinet": 0, "address": "0x030400C0", "value": "0x08000000"}},
        {"advance": 7},
        {"expect": {"files": [{"path": "/tmp/.boot/.acon", "text": "on", "size": 2},
                              {"path": "/tmp/none", "exists": false}],
                    "regs": [{"cabinet": 0, "address": "0x030400C0", "value": "0x08000000"}],
                    "time": 7}},
        {"expect": {"time": 8, "regs": [{"cabinet": 0, "address": "0x030400C0", "value": 0}]}}
      ]})";
    EXPECT_EQ(run_child(text), 2);
}

TEST(SimScenarioRun, ScriptedProcedureAnswersFollowTheClock)
{
    if (library_symbol("znpdklib_exechap") == nullptr) {
        GTEST_SKIP() << "the procedure wrapper is not in this build of the library";
    }
    const std::string text = R"({
      "name": "hap", "save_area": false,
      "steps": [
        {"hap": {"procedure": "TEST_PROC", "mode": "READ",
                 "answers": [{"until": 10, "ret": 0, "data": [7]},
                             {"times": 1, "ret": -5, "log": {"ras_code": "TEST_RAS"}},
                             {"ret": 0, "data": [9]}]}},
        {"call": "znpdklib_exechap", "args": ["/SYSTEM#0/BOBC#0", "TEST_PROC", "READ", null, [0]],
         "expect": {"ret": 0, "out": {"data": [7]},
                    "hap_calls": [{"procedure": "TEST_PROC", "mode": "READ", "time": 0}]}},
        {"advance": 10},
        {"call": "znpdklib_exechap", "args": ["/SYSTEM#0/BOBC#0", "TEST_PROC", "READ", null, [0]],
         "expect": {"ret": -5}},
        {"call": "znpdklib_exechap", "args": ["/SYSTEM#0/BOBC#0", "TEST_PROC", "READ", null, [0]],
         "expect": {"ret": 0, "out": {"data": [9]}, "hap_calls": {"count": 1, "since": "step"}}}
      ]})";
    EXPECT_EQ(run_child(text), 0);
}

namespace {
const char* const kSensorRun = R"({
  "name": "sensors", "save_area": false,
  "steps": [
    {"label": "redundancy lost", "sensor": {"inst": 17, "num": 129, "reading": "0x0004"},
     "expect": {"sensors": [{"inst": 17, "num": 129, "state": "0x0008"}]}},
    {"sensor": {"inst": 5, "num": 36, "reading": "0x0040"}},
    {"reset_sensors": 5}
  ]})";
} // namespace

TEST(SimScenarioRun, PrintsWhatChangedWithItsTime)
{
    std::string printed;
    EXPECT_EQ(run_child(kSensorRun, false, &printed), 1);
    /* Setting every sensor of instance 5 to 0 is counted, not listed. */
    for (const char* line :
         {"== redundancy lost",
          "t=0     sensor 17/0x81 PSU Redundancy: 0x0002 (offset 1) -> 0x0004 (offset 2)",
          "FAILED at /steps/0/expect/sensors/0: sensor 17/0x81 state: expected \"0x0008\", seen 4",
          "instance 5 (node 4): ", "sensors: ", "1 failed"}) {
        EXPECT_NE(printed.find(line), std::string::npos) << line << "\n" << printed;
    }
}

TEST(SimScenarioRun, JsonCarriesEventsAndFailures)
{
    std::string printed;
    EXPECT_EQ(run_child(kSensorRun, true, &printed), 1);
    json run = json::parse(printed);
    EXPECT_EQ(run["scenario"], "sensors");
    EXPECT_EQ(run["failed"], 1);
    ASSERT_EQ(run["steps"].size(), 3u);
    const json& first = run["steps"][0];
    EXPECT_EQ(first["label"], "redundancy lost");
    ASSERT_EQ(first["events"].size(), 1u);
    EXPECT_EQ(first["events"][0]["kind"], "sensor");
    EXPECT_EQ(first["events"][0]["inst"], 17);
    EXPECT_EQ(first["events"][0]["num"], 129);
    EXPECT_EQ(first["events"][0]["old"], 2);
    EXPECT_EQ(first["events"][0]["new"], 4);
    ASSERT_EQ(first["failures"].size(), 1u);
    EXPECT_EQ(first["failures"][0]["where"], "/steps/0/expect/sensors/0");
    EXPECT_EQ(run["steps"][1]["events"][0]["name"], "Memory FRU Error Status");
}

TEST(SimScenarioRun, ListExpectationsCoverTheStepOrTheRun)
{
    const std::string text = R"({
      "name": "lists",
      "steps": [
        {"call": "znpdklib_SetSensorWS", "args": [129, 1, "0x03", 0, 0, 17, "out"],
         "expect": {"ret": 0, "sel": {"inst": 17, "count": 1, "records": [{"SensorNum": 129, "offset": 3, "assert": true}]}}},
        {"call": "znpdklib_SetSensorWS", "args": [129, 0, "0x03", 0, 0, 17, "out"],
         "expect": {"sel": {"inst": 17, "records": [{"assert": false, "EvtDirType": "0x8B"}]}}},
        {"expect": {"sel": [{"inst": 17, "since": "start", "count": 2,
                             "contains": [{"assert": true}, {"assert": false}], "absent": [{"SensorNum": 130}]},
                            {"inst": 5, "count": 0}]}},
        {"expect": {"sel": {"inst": 17, "contains": [{"assert": false}, {"assert": true}], "since": "start"}}}
      ]})";
    EXPECT_EQ(run_child(text), 1);
}

TEST(SimScenarioRun, FalseBooleansDoNothing)
{
    struct Case {
        const char* step;
        const char* expect;
    };
    const Case cases[] = {
        {R"({"fan": {"fan": 3, "stall": false}})",
         R"({"fans": {"speeds": [9000, 9000, 9000, 9000, 9000, 9000, 9000, 9000]}})"},
        {R"({"fan": {"fan": 3, "stall": true}})",
         R"({"fans": {"speeds": [9000, 9000, 9000, 0, 9000, 9000, 9000, 9000]}})"},
        {R"({"file": {"path": "/tmp/f", "remove": false}})",
         R"({"files": [{"path": "/tmp/f", "text": "kept"}]})"},
        {R"({"file": {"path": "/tmp/f", "remove": true}})",
         R"({"files": [{"path": "/tmp/f", "exists": false}]})"},
    };
    for (const Case& c : cases) {
        std::string text = std::string(R"({"name": "b", "save_area": false, "steps": [
            {"file": {"path": "/tmp/f", "text": "kept"}}, {"advance": 120}, )") +
                           c.step + R"(, {"advance": 120, "expect": )" + c.expect + "}]}";
        EXPECT_EQ(run_child(text), 0) << c.step;
    }
}

TEST(SimScenarioRun, SetupCallsAreSavedAndErrorLinesShown)
{
    const std::string text = R"({
      "name": "setup",
      "setup": [{"call": "znpdklib_SetSensorWoS", "args": [129, 1, 2, 17]}],
      "steps": [
        {"expect": {"saved_sensors": [{"inst": 17, "num": 129, "reading": "0x0006"}]}},
        {"call": "znpdklib_SetSensorWoS", "args": [250, 1, 0, 17], "expect": {"ret": 203}}
      ]})";
    std::string printed;
    EXPECT_EQ(run_child(text, false, &printed), 0) << printed;
    for (const char* line : {"debug output: [znpdklib_sensor:",
                             "znpdklib_SetSensorWoS Error sns:250 dir:1 bit:0x0 BMCInst:17"}) {
        EXPECT_NE(printed.find(line), std::string::npos) << line << "\n" << printed;
    }
}

TEST(SimScenarioRun, NamedProcessesHandBackStatesAndLogs)
{
    const std::string text = R"({
      "name": "procs",
      "steps": [
        {"process": "a", "call": "znpdklib_SetSensorWS", "args": [35, 1, "0x04", 0, 0, 17, "out"],
         "expect": {"sensors": [{"inst": 17, "num": 35, "state": "0x0012"}]}},
        {"process": "b", "call": "znpdklib_getDiscreteStatusSensorStatus", "args": [35, "out", 17],
         "expect": {"ret": 0, "out": {"status": "0x0013"}}}
      ]})";
    std::string printed;
    EXPECT_EQ(run_child(text, true, &printed), 1);
    json run = json::parse(printed);
    ASSERT_EQ(run["steps"].size(), 2u);
    const json& first = run["steps"][0];
    EXPECT_EQ(first["process"], "a");
    ASSERT_EQ(first["events"].size(), 2u);
    EXPECT_EQ(first["events"][0]["kind"], "sel");
    EXPECT_EQ(first["events"][0]["SensorNum"], 35);
    EXPECT_EQ(first["events"][1]["kind"], "sensor");
    EXPECT_EQ(first["events"][1]["new"], 0x12);
    EXPECT_EQ(run["steps"][1]["process"], "b");
    EXPECT_EQ(run["steps"][1]["out"]["status"], 0x8012); /* bit 15 as the stack keeps it */
    ASSERT_EQ(run["steps"][1]["failures"].size(), 1u);
    EXPECT_EQ(run["steps"][1]["failures"][0]["where"], "/steps/1/expect/out/status");
}

TEST(SimScenarioRun, RebootsKeepWhatTheNonVolatileDiskHolds)
{
    struct Case {
        const char* step;
        bool acon;             /* the AC power-on marker after the step */
        const char* recovered; /* after an AC power-on nothing is recovered */
    };
    const Case cases[] = {{R"({"bmc_reboot": true})", false, "0x000a"},
                          {R"({"ac_power_cycle": true})", true, "0"}};
    for (const Case& c : cases) {
        std::string text = std::string(R"({"name": "r", "steps": [
            {"file": {"path": "/tmp/x", "text": "1"}}, {"file": {"path": "/var/nvrdisk/x", "text": "2"}},
            {"process": "a", "call": "znpdklib_SetSensorWoS", "args": [129, 1, 3, 17]}, )") +
                           c.step + R"(,
            {"expect": {"files": [{"path": "/tmp/x", "exists": false}, {"path": "/var/nvrdisk/x", "text": "2"},
                                  {"path": "/tmp/.boot/.acon", "exists": )" +
                           (c.acon ? "true" : "false") + R"(}],
                        "sensors": [{"inst": 17, "num": 129, "state": 0}],
                        "saved_sensors": [{"inst": 17, "num": 129, "reading": "0x000a"}]}},
            {"process": "a", "call": "ZNAPI_MemSensorInfoRecover", "args": [17],
             "expect": {"ret": 0, "sensors": [{"inst": 17, "num": 129, "state": ")" +
                           c.recovered + R"("}]}}]})";
        EXPECT_EQ(run_child(text), 0) << c.step;
    }
}

/* Each row a story that breaks invariants on purpose (the names of those it
 * breaks), or that leaves only what an invariant lists as its exceptions
 * (none). */
TEST(SimScenarioRun, InvariantsNameWhatAStoryBreaks)
{
    const std::string save_file = R"({"file": {"path": "/var/nvrdisk/current/sensor/snsdata", )";
    const std::string fans =
        R"({"call": "znpdklib_exechap", "args": ["/SYSTEM#0/BOBC#0", "BOB_R_BOBC_FANC", )";
    struct Case {
        std::string steps;
        std::set<std::string> broken;
    };
    const Case cases[] = {
        {R"({"sensor": {"inst": 17, "num": 129, "reading": "0x0006"}})", {"exclusive-state"}},
        {R"({"sensor": {"inst": 4, "num": 86, "reading": "0x0004"}})", {"exclusive-state"}},
        {R"({"call": "znpdklib_SetSensorWoS", "args": [129, 1, 3, 17]},
            {"call": "znpdklib_exSetSensorWoS", "args": [33, 16, 17]})",
         {}},
        {R"({"call": "ZNAPI_Sensor_Init", "args": [17]}, )" + save_file + R"("hex": ")" +
             std::string(2 * 18432, '0') + R"("}})",
         {"save-file"}},
        {R"({"process": "a", "call": "ZNAPI_Sensor_Init", "args": [17]}, )" + save_file +
             R"("remove": true}}, {"process": "a", "call": "ZNAPI_MemSensorInfoRecover", "args": [17]})",
         {"save-file", "recovery"}},
        {R"({"define_sensor": {"inst": 17, "num": 240, "type": "0xC2", "reading": 2, "flags": 1, "level": 2}},
            {"call": "znpdklib_exSetSensorWoS", "args": [240, 4, 17]},
            {"sensor": {"inst": 17, "num": 240, "reading": 2}},
            {"call": "ZNAPI_MemSensorInfoRecover", "args": [17], "expect": {"sensors": [{"inst": 17, "num": 240, "state": 16}]}})",
         {}},
        {R"({"record": {"path": "/SYSTEM#0", "record": "system", "set": {"available_psu_slots": 18}}},
            {"psu_ctlinfo": {"psu": 4, "ret": 0, "info": "0xFF00"}},
            {"process": "psumon", "call": "znpdklib_check_psu_redundancy", "args": [1]})",
         {"psu-verdict"}},
        {fans + R"("MAX_FANSPEED", null, "out"]})", {"full-speed"}},
        {R"({"fan": {"fail_speed_change": {"mode": "MAX_FANSPEED", "ret": -1}}},
            {"call": "znpdklib_max_fan_speed", "args": [1], "expect": {"ret": -1, "ras": {"count": 1}}})",
         {}},
    };
    for (const Case& c : cases) {
        std::string printed;
        run_child(R"({"name": "inv", "invariants": true, "steps": [)" + c.steps + "]}", true, &printed);
        const json run = json::parse(printed);
        std::set<std::string> broken;
        for (const json& step : run["steps"]) {
            for (const json& f : step["failures"]) {
                const std::string what = f["what"];
                EXPECT_EQ(what.rfind("invariant ", 0), 0u) << what;
                broken.insert(what.substr(10, what.find(':') - 10));
            }
        }
        EXPECT_EQ(broken, c.broken) << c.steps.substr(0, 200) << "\n" << printed.substr(0, 4000);
    }
}

TEST(SimScenarioRun, TimelineHasLanesMarksAndTimes)
{
    const std::string text = R"({
      "name": "picture",
      "steps": [
        {"sensor": {"inst": 17, "num": 129, "reading": "0x0004"}},
        {"advance": 10},
        {"sensor": {"inst": 17, "num": 129, "reading": "0x0002"}},
        {"sensor": {"inst": 17, "num": 129, "reading": "0x0008"}},
        {"process": "a", "call": "znpdklib_SetSensorWS", "args": [35, 1, "0x04", 0, 0, 17, "out"]},
        {"advance": 10},
        {"restart": "a"},
        {"reset_sensors": 5},
        {"kill": {"process": "a", "while": "holding save-area semaphore",
                  "during": {"call": "znpdklib_SetSensorWoS", "args": [35, 1, 2, 5]}},
         "expect": {"saved_sensors": [{"inst": 5, "num": 35, "reading": 0}]}},
        {"process": "a", "note": "started afresh"}
      ]})";
    const std::string svg = draw(text);
    ASSERT_NE(svg, "");
    EXPECT_EQ(misplaced_texts(svg), std::vector<std::string>{}) << svg;
    auto count = [&](const std::string& needle) {
        size_t n = 0;
        for (size_t at = svg.find(needle); at != std::string::npos; at = svg.find(needle, at + 1)) {
            ++n;
        }
        return n;
    };
    const std::pair<const char*, size_t> expected[] = {
        {"class=\"lane\"", 4},
        {"data-name=\"17/0x81 PSU Redundancy\"", 1},
        {"data-name=\"17/0x23 Environment\"", 1},
        {"data-name=\"SEL records and RAS logs\"", 1},
        {"class=\"change\"", 4},
        {"<g class=\"change\" data-t=\"0\" data-value=\"4\">", 1},
        {"<g class=\"change\" data-t=\"10\" data-value=\"2\">", 1},
        {"<g class=\"change\" data-t=\"10\" data-process=\"a\" data-value=\"18\">", 1},
        /* Each change a mark; at one moment they share the bar, and the value kept is written. */
        {"<rect x=\"299\" y=\"81\" width=\"2\" height=\"16\" fill=\"#37474f\"/><text x=\"302\" y=\"93\">0x4<",
         1},
        {"<rect x=\"799\" y=\"81\" width=\"2\" height=\"8\" fill=\"#37474f\"/></g>", 1},
        {"<rect x=\"799\" y=\"89\" width=\"2\" height=\"8\" fill=\"#37474f\"/><text x=\"802\" y=\"93\">0x8<",
         1},
        {"<text x=\"802\" y=\"71\">0x12<", 1},
        /* Lines at one moment: their texts in rows below the lanes, moved inside the picture. */
        {"<text x=\"1276\" y=\"164\">restart a<", 1},
        {"<text x=\"1296\" y=\"178\" fill=\"#c62828\">kill a<", 1},
        {"<text x=\"1276\" y=\"192\">restart a<", 1},
        /* The legend names what is drawn. */
        {">SEL record<", 1},
        {">RAS log<", 0},
        {">process restart<", 1},
        {">process killed<", 1},
        {"<circle class=\"sel\" data-t=\"10\" data-process=\"a\"", 1},
        {"<circle class=\"ras\"", 0},
        {"<g class=\"restart\" data-t=\"20\" data-process=\"a\">",
         2}, /* restart, then start after the kill */
        {"<g class=\"tick\" data-t=\"20\">", 1},
        {"<rect class=\"bulk\" data-t=\"20\"", 1}, /* node 4's 97 sensors: one mark, no lanes */
        {"<g class=\"kill\" data-t=\"20\" data-process=\"a\">", 1},
        {"data-name=\"5/", 0},
    };
    for (const auto& e : expected) {
        EXPECT_EQ(count(e.first), e.second) << e.first << "\n" << svg;
    }
}

TEST(SimScenarioRun, TimelineTextsOfEveryScenarioStayInsideAndApart)
{
    std::vector<std::string> files;
    for (const auto& f : std::filesystem::directory_iterator(ZNPDK_SOURCE_DIR "/scenarios")) {
        if (f.path().extension() == ".json") {
            files.push_back(f.path().string());
        }
    }
    std::sort(files.begin(), files.end());
    const std::string demo = ZNPDK_SOURCE_DIR "/scenarios/demo.json"; /* the built-in demo's text */
    ASSERT_EQ(std::count(files.begin(), files.end(), demo), 1);
    for (const std::string& f : files) {
        const std::string svg = draw(slurp(f.c_str()));
        EXPECT_NE(svg, "") << f;
        EXPECT_EQ(misplaced_texts(svg), std::vector<std::string>{}) << f;
    }
}
