#include "campaign/campaign.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>

#include "campaign/execute.h"
#include "campaign/generator.h"
#include "campaign/shrink.h"
#include "scenario/jsonutil.h"

namespace zcmd {

const char* const kCampaignUsage =
    "usage: znpdk-sim campaign [options]\n"
    "\n"
    "Runs random stories on the default machine (hardware faults and repairs, library calls\n"
    "of named processes, injected platform failures, time, restarts, kills, reboots, AC\n"
    "power cycles), each with the invariants on. A failing story is shrunk to the smallest\n"
    "one that fails the same way and written as DIR/SEED-RUN.json (a scenario that\n"
    "znpdk-sim run replays) with its timeline DIR/SEED-RUN.svg.\n"
    "\n"
    "options:\n"
    "  --seed S             seed of the campaign (default: from the clock); run R of seed S\n"
    "                       is the same story on every machine\n"
    "  --runs N             stories to run (default 100, or unlimited with --minutes)\n"
    "  --first-run R        start at run R (to run one story again: --first-run R --runs 1)\n"
    "  --steps M            steps per story (default 60)\n"
    "  --processes K        named processes per story, at most (default 3, up to 8)\n"
    "  --minutes T          start no run after T minutes\n"
    "  --out DIR            where failing stories go (default campaign-found)\n"
    "  --known DIR          stories found before (DIR/*.json): a failure that one of them\n"
    "                       still shows is not written again\n"
    "  --shrink-attempts N  runs the shrinker may make per failure (default 300)\n"
    "  --step-timeout MS    a step running longer (real time) blocks the run (default 60000)\n"
    "  --replays N          runs of a written story, to tell how often it fails (default 3)\n"
    "  --json               print the summary as JSON\n"
    "  --print              print the stories instead of running them\n"
    "  --stop               end the campaign at its first failure\n"
    "\n"
    "exit status: 0 no story failed, 1 some failed, 2 a usage mistake, 3 a drawn story did\n"
    "not read (a fault of the campaign itself).\n";

namespace {

using clock_type = std::chrono::steady_clock;

struct Config {
    uint64_t seed = 0;
    int64_t runs = -1;
    uint64_t first_run = 0;
    double minutes = 0;
    GenConfig gen;
    bool json = false;
    bool print = false;
    bool stop = false; /* end at the first failure */
    std::string out = "campaign-found";
    std::string known; /* a folder of stories found before */
    int shrink_attempts = 300;
    int replays = 3;
    ExecOptions exec;
};

struct Found {
    uint64_t run = 0;
    int step = -1;
    std::string signature;
    std::string what;
    std::string file; /* "" when a story of the same failure was written or known before */
    size_t steps = 0; /* of the shrunk story */
    int attempts = 0;
    int replayed = 0;
};

struct Tally {
    uint64_t runs = 0;
    uint64_t steps = 0;
    uint64_t checks = 0;
    uint64_t kills = 0;
    uint64_t reboots = 0;
    uint64_t ac_cycles = 0;
    double run_seconds = 0;
    std::map<std::string, uint64_t> faults;
    std::vector<Found> found;
    std::map<std::string, std::string> known; /* signature -> story that fails so */
};

bool parse_u64(const std::string& s, uint64_t& v)
{
    char* end = nullptr;
    errno = 0;
    unsigned long long n = std::strtoull(s.c_str(), &end, 0);
    if (s.empty() || s[0] == '-' || end == nullptr || *end != '\0' || errno != 0) {
        return false;
    }
    v = n;
    return true;
}

/* Reads the options; "" when they read, else the mistake. */
std::string parse(const std::vector<std::string>& args, Config& c)
{
    bool seeded = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--json" || a == "--print" || a == "--stop") {
            (a == "--json" ? c.json : a == "--print" ? c.print : c.stop) = true;
            continue;
        }
        if (i + 1 >= args.size()) {
            return "unknown option or missing value: " + a;
        }
        const std::string& v = args[++i];
        uint64_t n = 0;
        bool number = parse_u64(v, n);
        if (a == "--out" || a == "--known") {
            (a == "--out" ? c.out : c.known) = v;
        } else if (a == "--plant") { /* tests only: a failure the campaign must find */
            c.gen.plant = v == "expectation" ? Plant::Expectation
                          : v == "crash"     ? Plant::Crash
                          : v == "block"     ? Plant::Block
                                             : Plant::None;
            c.exec.plant = c.gen.plant;
            if (c.gen.plant == Plant::None) {
                return "--plant takes expectation, crash or block";
            }
        } else if (!number) {
            return a + " takes a number, not \"" + v + "\"";
        } else if (a == "--seed") {
            c.seed = n;
            seeded = true;
        } else if (a == "--runs" && n <= 100000000) {
            c.runs = static_cast<int64_t>(n);
        } else if (a == "--first-run") {
            c.first_run = n;
        } else if (a == "--steps" && n >= 1 && n <= 10000) {
            c.gen.steps = static_cast<int>(n);
        } else if (a == "--processes" && n >= 1 && n <= 8) {
            c.gen.processes = static_cast<int>(n);
        } else if (a == "--minutes" && n <= 100000) {
            c.minutes = static_cast<double>(n);
        } else if (a == "--shrink-attempts" && n <= 100000) {
            c.shrink_attempts = static_cast<int>(n);
        } else if (a == "--replays" && n <= 100) {
            c.replays = static_cast<int>(n);
        } else if (a == "--step-timeout" && n >= 100 && n <= 3600000) {
            c.exec.step_timeout_ms = static_cast<int>(n);
        } else {
            return "unknown option or value out of range: " + a + " " + v;
        }
    }
    if (!seeded) {
        c.seed = static_cast<uint64_t>(std::time(nullptr));
    }
    if (c.runs < 0 && c.minutes == 0) {
        c.runs = 100;
    }
    return "";
}

double seconds_since(clock_type::time_point t)
{
    return std::chrono::duration<double>(clock_type::now() - t).count();
}

/* The progress line, on a terminal only. */
class Progress {
  public:
    explicit Progress(bool json) : on_(!json && isatty(STDOUT_FILENO) != 0) {}

    void show(const Tally& t, const std::string& extra = "")
    {
        if (!on_ || seconds_since(last_) < 0.2) {
            return;
        }
        last_ = clock_type::now();
        double rate = t.run_seconds > 0 ? static_cast<double>(t.steps) / t.run_seconds : 0;
        std::printf("\r\033[Kruns %llu  steps %llu  steps/s %.0f  checks %llu  failures %zu%s",
                    static_cast<unsigned long long>(t.runs), static_cast<unsigned long long>(t.steps), rate,
                    static_cast<unsigned long long>(t.checks), t.found.size(), extra.c_str());
        std::fflush(stdout);
    }
    /* A line of its own: the progress line makes way. */
    void say(const std::string& line, bool json)
    {
        if (on_) {
            std::printf("\r\033[K");
        }
        std::fprintf(json ? stderr : stdout, "%s\n", line.c_str());
        std::fflush(nullptr);
    }
    void done()
    {
        if (on_) {
            std::printf("\r\033[K");
            std::fflush(stdout);
        }
    }

  private:
    bool on_;
    clock_type::time_point last_{};
};

void count_run(const Story& st, const Outcome& out, double seconds, Tally& t)
{
    ++t.runs;
    t.steps += static_cast<uint64_t>(out.steps_run);
    t.checks += static_cast<uint64_t>(out.checks);
    t.kills += static_cast<uint64_t>(out.kills);
    t.run_seconds += seconds;
    const ojson& steps = st.doc["steps"];
    for (size_t i = 0; i < static_cast<size_t>(out.steps_run) && i < st.info.size(); ++i) {
        if (st.info[i].fault) {
            ++t.faults[st.info[i].kind];
        }
        t.reboots += steps[i].contains("bmc_reboot") ? 1 : 0;
        t.ac_cycles += steps[i].contains("ac_power_cycle") ? 1 : 0;
    }
}

bool write_text(const std::string& path, const std::string& text)
{
    std::ofstream f(path, std::ios::binary);
    f << text;
    return static_cast<bool>(f);
}

/* Shrinks a failing story and writes it with its timeline. */
Found report_failure(const Config& c, const Story& st, const Outcome& out, uint64_t run, Tally& t,
                     Progress& progress)
{
    Found f;
    f.run = run;
    f.step = out.step;
    f.signature = out.signature;
    f.what = out.what;
    progress.say("run " + std::to_string(run) + ": step " + std::to_string(out.step) + " failed: " + out.what,
                 c.json);
    if (auto k = t.known.find(out.signature); k != t.known.end()) {
        progress.say("  the same failure as " + k->second, c.json);
        return f;
    }
    /* A failure that timing alone made may not come back: then the story is kept whole. */
    int attempts = c.shrink_attempts;
    bool reproduced = c.replays == 0; /* not asked to try */
    for (int i = 0; i < c.replays && !reproduced && attempts > 0; ++i) {
        Outcome o = execute(story_text(st.doc), c.exec);
        reproduced = o.failed && o.signature == out.signature;
    }
    if (!reproduced) {
        attempts = 0;
    }
    Shrunk sh = shrink(st.doc, out, c.exec, attempts, [&](const Shrunk& s) {
        progress.show(t, "  shrinking run " + std::to_string(run) + ": " +
                             std::to_string(s.doc["steps"].size()) + " steps, " + std::to_string(s.attempts) +
                             " runs");
    });
    f.steps = sh.doc["steps"].size();
    f.attempts = sh.attempts;
    const std::string base = std::to_string(c.seed) + "-" + std::to_string(run);
    ojson doc = sh.doc;
    doc["name"] = "found-" + base;
    const std::string text = story_text(doc);
    for (int i = 0; i < c.replays; ++i) {
        Outcome again = execute(text, c.exec);
        f.replayed += again.failed && again.signature == out.signature ? 1 : 0;
    }
    doc["description"] = "Found by znpdk-sim campaign --seed " + std::to_string(c.seed) + " (run " +
                         std::to_string(run) + ", step " + std::to_string(out.step) + " of " +
                         std::to_string(st.doc["steps"].size()) + "), shrunk to " + std::to_string(f.steps) +
                         " steps in " + std::to_string(f.attempts) + " runs; step " +
                         std::to_string(sh.outcome.step) + " fails: " + sh.outcome.what + " (" +
                         std::to_string(f.replayed) + " of " + std::to_string(c.replays) + " replays).";
    std::error_code ec;
    std::filesystem::create_directories(c.out, ec);
    const std::string path = (std::filesystem::path(c.out) / (base + ".json")).string();
    const std::string svg = (std::filesystem::path(c.out) / (base + ".svg")).string();
    if (!write_text(path, story_text(doc))) {
        progress.say("  cannot write " + path, c.json);
        return f;
    }
    f.file = path;
    t.known[out.signature] = path;
    ExecOptions drawn = c.exec;
    drawn.timeline = svg;
    execute(story_text(doc), drawn);
    progress.say("  shrunk to " + std::to_string(f.steps) + " steps (" + std::to_string(f.attempts) +
                     " runs), failed again in " + std::to_string(f.replayed) + " of " +
                     std::to_string(c.replays) + " replays: " + path + ", " + svg,
                 c.json);
    if (!sh.outcome.log.empty()) {
        write_text((std::filesystem::path(c.out) / (base + ".log")).string(), sh.outcome.log);
    }
    return f;
}

/* The failure a found story's description names ("... fails: WHAT (n of m replays)."). */
std::string described_failure(const std::string& description)
{
    const size_t from = description.find("fails: ");
    const size_t to = description.rfind(" (");
    if (from == std::string::npos || to == std::string::npos || to < from) {
        return "";
    }
    return description.substr(from + std::strlen("fails: "), to - from - std::strlen("fails: "));
}

/* The stories of a folder that still fail as their descriptions say. */
void read_known(const Config& c, Tally& t, Progress& progress)
{
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(c.known, ec)) {
        if (e.path().extension() != ".json") {
            continue;
        }
        std::ifstream in(e.path());
        ojson doc = ojson::parse(in, nullptr, false);
        if (doc.is_discarded() || !doc.contains("description") || !doc["description"].is_string()) {
            continue;
        }
        const std::string what = described_failure(doc["description"].get<std::string>());
        if (what.empty()) {
            continue;
        }
        Outcome out = execute(story_text(doc), c.exec);
        if (out.failed && out.signature == failure_signature(what)) {
            t.known[out.signature] = e.path().string();
        } else {
            progress.say("found before and passing now: " + e.path().string(), c.json);
        }
    }
}

void print_summary(const Config& c, const Tally& t, double seconds)
{
    double rate = t.run_seconds > 0 ? static_cast<double>(t.steps) / t.run_seconds : 0;
    uint64_t faults = 0;
    for (const auto& kv : t.faults) {
        faults += kv.second;
    }
    if (!c.json) {
        std::printf("seed %llu: %llu runs, %llu steps (%.0f steps/s), %llu faults injected, %llu kills, "
                    "%llu BMC reboots, %llu AC power cycles, %llu checks, %zu failures\n",
                    static_cast<unsigned long long>(c.seed), static_cast<unsigned long long>(t.runs),
                    static_cast<unsigned long long>(t.steps), rate, static_cast<unsigned long long>(faults),
                    static_cast<unsigned long long>(t.kills), static_cast<unsigned long long>(t.reboots),
                    static_cast<unsigned long long>(t.ac_cycles), static_cast<unsigned long long>(t.checks),
                    t.found.size());
        return;
    }
    json found = json::array();
    for (const Found& f : t.found) {
        json j = {{"run", f.run}, {"step", f.step}, {"signature", f.signature}, {"what", f.what}};
        if (!f.file.empty()) {
            j["file"] = f.file;
            j["shrunk_steps"] = f.steps;
            j["shrink_runs"] = f.attempts;
            j["replayed"] = std::to_string(f.replayed) + "/" + std::to_string(c.replays);
        }
        found.push_back(j);
    }
    json j = {{"seed", c.seed},     {"runs", t.runs},           {"steps", t.steps},
              {"seconds", seconds}, {"steps_per_second", rate}, {"faults", t.faults},
              {"kills", t.kills},   {"bmc_reboots", t.reboots}, {"ac_power_cycles", t.ac_cycles},
              {"checks", t.checks}, {"failures", found}};
    std::printf("%s\n", j.dump(2).c_str());
}

} // namespace

int campaign_command(const std::vector<std::string>& args)
{
    Config c;
    if (std::string mistake = parse(args, c); !mistake.empty()) {
        std::fprintf(stderr, "znpdk-sim campaign: %s\n\n%s", mistake.c_str(), kCampaignUsage);
        return 2;
    }
    const auto start = clock_type::now();
    stop_on_signals();
    const MachineInfo machine = read_machine();
    Tally t;
    Progress progress(c.json);
    if (!c.known.empty()) {
        read_known(c, t, progress);
    }
    if (!c.json && !c.print) {
        std::printf("campaign: seed %llu, %d steps per story, up to %d processes\n",
                    static_cast<unsigned long long>(c.seed), c.gen.steps, c.gen.processes);
    }
    for (uint64_t run = c.first_run;; ++run) {
        if ((c.runs >= 0 && run - c.first_run >= static_cast<uint64_t>(c.runs)) ||
            (c.minutes > 0 && seconds_since(start) >= c.minutes * 60) || stop_asked()) {
            break;
        }
        Story st = generate(c.seed, run, c.gen, machine);
        const std::string text = story_text(st.doc);
        if (c.print) {
            std::fputs(text.c_str(), stdout);
            continue;
        }
        const auto began = clock_type::now();
        Outcome out = execute(text, c.exec);
        if (out.stopped) {
            break;
        }
        count_run(st, out, seconds_since(began), t);
        if (out.unreadable) {
            progress.say("run " + std::to_string(run) + ": the story does not read: " + out.what, c.json);
            return 3;
        }
        if (out.failed) {
            t.found.push_back(report_failure(c, st, out, run, t, progress));
            if (c.stop) {
                break;
            }
        }
        progress.show(t);
    }
    progress.done();
    if (c.print) {
        return 0;
    }
    print_summary(c, t, seconds_since(start));
    return t.found.empty() ? 0 : 1;
}

} // namespace zcmd
