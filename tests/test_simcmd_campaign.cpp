/* Fault campaigns: a seed draws the same story everywhere, every story
 * reads and the vocabulary is used, a failure is found, told apart from
 * others, shrunk and written as a scenario that fails again. */
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "campaign/campaign.h"
#include "campaign/execute.h"
#include "campaign/generator.h"
#include "campaign/random.h"
#include "campaign/shrink.h"

using namespace zcmd;

namespace {

const MachineInfo& machine()
{
    static const MachineInfo m = read_machine();
    return m;
}

std::string slurp(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

/* Two PSUs made unusable, then a PSU check: PSU redundancy is lost. */
const char* const kLossStory = R"({"name": "loss", "steps": [
  {"psu": {"psu": 0, "acok": false}}, {"psu": {"psu": 1, "pson": false}},
  {"process": "psumon", "call": "znpdklib_check_psu_redundancy", "args": [1]}]})";

} // namespace

TEST(Campaign, ASeedDrawsTheSameStoryOnEveryMachine)
{
    GenConfig cfg;
    const std::string text = story_text(generate(7, 3, cfg, machine()).doc);
    EXPECT_EQ(fnv1a(text), 0xd52649fee38fc08full) << text;
    EXPECT_EQ(text, story_text(generate(7, 3, cfg, machine()).doc));
    EXPECT_NE(text, story_text(generate(7, 4, cfg, machine()).doc));
    EXPECT_NE(text, story_text(generate(8, 3, cfg, machine()).doc));
}

TEST(Campaign, EveryStoryReadsAndEveryKindOfStepIsDrawn)
{
    GenConfig cfg;
    cfg.processes = 8;
    cfg.steps = 80;
    std::set<std::string> drawn;
    for (uint64_t run = 0; run < 60; ++run) {
        Story s = generate(1, run, cfg, machine());
        ASSERT_EQ(s.info.size(), s.doc["steps"].size());
        ASSERT_TRUE(readable(story_text(s.doc))) << story_text(s.doc);
        for (const StepInfo& i : s.info) {
            drawn.insert(i.kind);
        }
    }
    for (const std::string& kind : step_kinds()) {
        EXPECT_TRUE(drawn.count(kind)) << kind;
    }
}

TEST(Campaign, FailuresAreToldApartByWhatBroke)
{
    const std::pair<const char*, const char*> table[] = {
        {"invariant save-file: seen 0x0002, expected 0x0004", "invariant save-file"},
        {"sensor 17/0x81 state: expected 2, seen 4 (0x0004)", "sensor 17/0x81 state"},
        {"process psumon did not answer (it ended?)", "process * did not answer (it ended?)"},
        {"library threads still running at the end", "library threads still running at the end"},
    };
    for (const auto& [what, signature] : table) {
        EXPECT_EQ(failure_signature(what), signature);
    }
    EXPECT_TRUE(
        is_unmet_kill("process fan was not killed: it was fan check poll 0 times in the step, not 1"));
    EXPECT_FALSE(is_unmet_kill("process fan did not answer (it ended?)"));
}

/* A crash and a hang in the run are failures at the step they happened in. */
TEST(Campaign, CrashesAndBlockedStepsAreFailuresOfTheirStep)
{
    ExecOptions o;
    EXPECT_FALSE(execute(kLossStory, o).failed);
    o.plant = Plant::Crash;
    Outcome crash = execute(kLossStory, o);
    EXPECT_TRUE(crash.failed);
    EXPECT_EQ(crash.signature, "crash: signal 6");
    EXPECT_EQ(crash.step, 2);
    EXPECT_EQ(crash.steps_run, 2);
    o.plant = Plant::Block;
    o.step_timeout_ms = 1500;
    Outcome blocked = execute(kLossStory, o);
    EXPECT_EQ(blocked.signature, "blocked");
    EXPECT_EQ(blocked.step, 2);
    EXPECT_TRUE(execute(R"({"name": "x", "steps": [{"nothing": 1}]})", ExecOptions()).unreadable);
}

/* The whole way: a planted expectation fails in one of the first runs of seed
 * 1; the story is shrunk and written, and the file fails the same way when run again. */
TEST(Campaign, AFailingStoryIsShrunkWrittenAndFailsAgain)
{
    const std::string dir = "/tmp/znpdk-campaign-test-" + std::to_string(getpid());
    int rc = campaign_command({"--seed", "1", "--runs", "20", "--steps", "30", "--stop", "--plant",
                               "expectation", "--shrink-attempts", "60", "--out", dir});
    EXPECT_EQ(rc, 1);
    std::vector<std::filesystem::path> written;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(dir, ec)) {
        written.push_back(e.path());
    }
    std::sort(written.begin(), written.end());
    ASSERT_EQ(written.size(), 2u); /* SEED-RUN.json and its timeline */
    ASSERT_EQ(written[0].extension(), ".json");
    EXPECT_EQ(written[1], std::filesystem::path(written[0]).replace_extension(".svg"));
    const std::string run = written[0].stem().string().substr(2); /* "1-RUN" */
    const std::string text = slurp(written[0].string());
    ojson doc = ojson::parse(text);
    EXPECT_EQ(doc["name"], "found-1-" + run);
    EXPECT_NE(doc["description"].get<std::string>().find("--seed 1 (run " + run + ", step "),
              std::string::npos);
    EXPECT_LE(doc["steps"].size(), 3u) << text;
    Outcome again = execute(text, ExecOptions());
    EXPECT_TRUE(again.failed);
    EXPECT_EQ(again.signature, "result");
    EXPECT_EQ(slurp(written[1].string()).rfind("<svg", 0), 0u);
    std::filesystem::remove_all(dir, ec);
}
