/* znpdk-sim: runs libznpdk on the simulated platform, from scenarios. */
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "campaign/campaign.h"
#include "scenario/fields.h"
#include "run/functions.h"
#include "scenario/scenario.h"
#include "serve/serve.h"
#include "znpdk_sim/sim.h"
#include "znpdk_version.h"

namespace {

using namespace zcmd;

const char* const kUsage =
    "usage: znpdk-sim COMMAND [options]\n"
    "\n"
    "commands:\n"
    "  demo                 run the built-in scenario: AC power-on of the default machine,\n"
    "                       a PSU pulled and put back, a fan that stalls at full speed,\n"
    "                       a BMC reboot\n"
    "  run FILE...          run scenario files (each on a fresh simulated machine)\n"
    "  check FILE...        read scenario files and list every mistake (FILE:LINE:COLUMN:\n"
    "                       place: what, with the nearest known name), running nothing\n"
    "  campaign [options]   run random fault stories with the invariants on; shrink and write\n"
    "                       every failing one (znpdk-sim campaign --help)\n"
    "  functions            list the library functions a scenario can call\n"
    "  fields [NAME]        list the fields of the records (common, system, setup, psuc,\n"
    "                       router) or of a structure type by name\n"
    "  machine              list the components and sensors of the default machine\n"
    "  --version            print the version (of znpdk-sim and the library it was built with)\n"
    "\n"
    "options of demo and run:\n"
    "  --json               print each run as JSON\n"
    "  --trace              print every trace line as it is written\n"
    "  --verbose            list every sensor change, also of large initialisations\n"
    "  --timeline FILE.svg  draw the run: a lane per sensor that changed, the alarm LED, fan\n"
    "                       reasons and check phase, SEL/RAS marks, restarts and kills, a\n"
    "                       legend (one scenario)\n"
    "  --keep-root DIR      run in DIR and keep the machine's files there (with several\n"
    "                       files, each in DIR/NAME, NAME being the file's name without .json)\n"
    "  --invariants         check the library's promises after every step (as a scenario's\n"
    "                       \"invariants\": true does; docs/scenarios.md lists them)\n"
    "  --serve              (run, one file) serve it as `serve` does\n"
    "\n"
    "options of serve and run --serve:\n"
    "  --user NAME          the clients' user name (required; no anonymous access)\n"
    "  --password TEXT      the clients' password (required)\n"
    "  --port N             UDP port of the chassis controller (default 9623); node n at N + n + 1\n"
    "  --address A          address to listen on (default 127.0.0.1)\n"
    "\n"
    "exit status: 0 all expectations held, 1 some failed, 2 a scenario could not be read,\n"
    "3 a run crashed, 4 a scenario calls functions the library does not export (not run),\n"
    "5 the IPMI server could not start (a port in use, ipmi_sim or ipmitool missing).\n"
    "The scenario format is described in docs/scenarios.md.\n";

bool read_file(const std::string& path, std::string& text)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::stringstream ss;
    ss << in.rdbuf();
    text = ss.str();
    return true;
}

/* Runs one scenario in a child process: the library's per-process state
 * (save area, threads) starts afresh, and a crash stays a report. */
int run_isolated(const Scenario& s, const Options& o)
{
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        std::perror("znpdk-sim: fork");
        return 3;
    }
    if (pid == 0) {
        int failed = run_scenario(s, o);
        std::fflush(nullptr);
        _exit(failed < 0 ? 3 : failed > 0 ? 1 : 0);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) {
        return 3;
    }
    if (WIFSIGNALED(status)) {
        std::fprintf(stderr, "%s: the run crashed (signal %d, %s)\n", s.file.c_str(), WTERMSIG(status),
                     strsignal(WTERMSIG(status)));
        return 3;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 3;
}

/* With several files, each keeps its machine in a folder of its own below
 * the --keep-root directory, named after the file, so that no run starts
 * from another's files. */
Options own_root(const Options& o, const std::string& file)
{
    if (o.root.empty()) {
        return o;
    }
    Options mine = o;
    mine.root = (std::filesystem::path(o.root) / std::filesystem::path(file).stem()).string();
    std::error_code ec;
    std::filesystem::create_directories(mine.root, ec);
    return mine;
}

/* A scenario that did not run matters less than one that failed. */
int severity(int rc)
{
    return rc == kExitMissingFunctions ? 1 : rc == 0 ? 0 : rc + 1;
}

/* Every mistake of a file, one line each (or one JSON object listing them). */
void report_error(const std::string& file, const ScenarioError& e, bool as_json)
{
    std::vector<Mistake> all = e.mistakes();
    if (all.empty()) {
        all.push_back(Mistake{e.where(), e.what()});
    }
    if (as_json) {
        json list = json::array();
        for (const Mistake& m : all) {
            list.push_back({{"where", m.where}, {"line", m.line}, {"column", m.column}, {"message", m.what}});
        }
        std::cout << json({{"file", file}, {"errors", list}}).dump(2) << std::endl;
        return;
    }
    for (const Mistake& m : all) {
        std::fprintf(stderr, "%s\n", m.text(file).c_str());
    }
}

int run_files(const std::vector<std::string>& files, const Options& o, bool check_only)
{
    int worst = 0;
    if (o.json && !check_only) {
        std::cout << "[" << std::endl;
    }
    for (size_t i = 0; i < files.size(); ++i) {
        const std::string& file = files[i];
        if (o.json && !check_only && i != 0) {
            std::cout << "," << std::endl;
        }
        std::string text;
        int rc = 0;
        if (file == "-demo-") {
            text = demo_scenario_text();
        } else if (!read_file(file, text)) {
            std::fprintf(stderr, "%s: cannot read the file\n", file.c_str());
            if (o.json && !check_only) {
                json error = {{"message", "cannot read the file"}};
                std::cout << json({{"file", file}, {"errors", json::array({error})}}).dump(2);
            }
            worst = severity(2) > severity(worst) ? 2 : worst;
            continue;
        }
        try {
            Scenario s = load_scenario(text, file == "-demo-" ? "(built-in)" : file);
            if (check_only) {
                std::printf("%s: %s, %zu set-up steps, %zu steps\n", file.c_str(), s.name.c_str(),
                            s.setup.size(), s.steps.size());
            } else if (std::vector<std::string> missing = missing_functions(s); !missing.empty()) {
                std::string names;
                for (const std::string& m : missing) {
                    names += (names.empty() ? "" : ", ") + m;
                }
                std::fprintf(stderr, "%s: not run: it needs %s, missing from this build\n", file.c_str(),
                             names.c_str());
                if (o.json) {
                    std::cout << json({{"file", file}, {"skipped", missing}}).dump(2) << std::endl;
                }
                rc = kExitMissingFunctions;
            } else {
                rc = run_isolated(s, files.size() > 1 ? own_root(o, file) : o);
            }
        } catch (const ScenarioError& e) {
            report_error(file, e, o.json && !check_only);
            rc = 2;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "%s: %s\n", file.c_str(), e.what());
            rc = 2;
        }
        worst = severity(rc) > severity(worst) ? rc : worst;
    }
    if (o.json && !check_only) {
        std::cout << "]" << std::endl;
    }
    return worst;
}

int list_functions()
{
    std::string family;
    for (const Function& f : functions()) {
        if (f.family != family) {
            family = f.family;
            std::printf("\n%s:\n", family.c_str());
        }
        std::printf("  %s\n", f.signature().c_str());
    }
    return 0;
}

int list_fields(const std::string& name)
{
    if (name.empty()) {
        std::printf("records (\"record\" in scenarios):\n");
        for (const RecordKind& k : record_kinds()) {
            std::printf("  %-8s key %d, %s (%zu bytes), on %s\n", k.name, k.key, k.type->name.c_str(),
                        k.type->size, k.holder);
        }
        std::printf("\nstructure types:\n");
        for (const Type* t : all_types()) {
            if (t->is_struct) {
                std::printf("  %s (%zu bytes)\n", t->name.c_str(), t->size);
            }
        }
        return 0;
    }
    const RecordKind* k = find_record(name);
    const Type* t = k != nullptr ? k->type : find_type(name);
    if (t == nullptr || !t->is_struct) {
        std::fprintf(stderr, "znpdk-sim: no record or structure named %s\n", name.c_str());
        return 2;
    }
    std::printf("%s (%zu bytes): field, type, offset\n", t->name.c_str(), t->size);
    for (const std::string& line : describe(*t)) {
        std::printf("  %s\n", line.c_str());
    }
    return 0;
}

void list_tree(sp::sysobj::Component* c, int depth)
{
    std::vector<sp::sysobj::Component*> kids;
    c->getComponent(kids, false);
    for (sp::sysobj::Component* k : kids) {
        std::printf("%*s%s\n", 2 * depth, "", zsim::path_of(k->getComponentId()).c_str());
        list_tree(k, depth + 1);
    }
}

int list_machine()
{
    char tmpl[] = "/tmp/znpdk-sim-XXXXXX";
    char* dir = mkdtemp(tmpl);
    if (dir == nullptr) {
        return 3;
    }
    zsim::init(dir);
    zsim::build_default_machine();
    std::printf("components of the default machine:\n/SYSTEM#0\n");
    list_tree(sp::sysobj::Component::getRoot(), 1);
    std::printf("\nsensors (instance/number type oem name):\n");
    for (int i = 0; i < 18; ++i) {
        for (int n = 0; n < 256; ++n) {
            uint8_t num = static_cast<uint8_t>(n);
            if (zsim::sensor_present(i, num)) {
                SensorInfo_T s = zsim::sensor(i, num);
                std::printf("  %2d/0x%02x type 0x%02x oem 0x%02x %s\n", i, n, s.SensorTypeCode, s.OEMField,
                            zsim::sensor_name(i, num).c_str());
            }
        }
    }
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return 0;
}

/* serve [FILE] and run --serve FILE: one scenario, in this process. */
int serve_files(const std::string& cmd, const std::vector<std::string>& files, const Options& o,
                const ServeConfig& serve)
{
    std::string error;
    if ((cmd != "serve" && cmd != "run") || files.size() > 1 || (cmd == "run" && files.empty())) {
        std::fprintf(stderr, "znpdk-sim: serve takes at most one file, run --serve exactly one\n");
        return 2;
    }
    if (!valid_credentials(serve, error)) {
        std::fprintf(stderr, "znpdk-sim: %s\n", error.c_str());
        return 2;
    }
    std::string text = default_machine_scenario();
    std::string file = "(default machine)";
    if (!files.empty() && !read_file(files[0], text)) {
        std::fprintf(stderr, "%s: cannot read the file\n", files[0].c_str());
        return 2;
    }
    if (!files.empty()) {
        file = files[0];
    }
    try {
        return serve_scenario(text, file, o, serve);
    } catch (const ScenarioError& e) {
        report_error(file, e, o.json);
        return 2;
    }
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty() || args[0] == "-h" || args[0] == "--help" || args[0] == "help") {
        std::fputs(kUsage, args.empty() ? stderr : stdout);
        return args.empty() ? 2 : 0;
    }
    if (args[0] == "--version" || args[0] == "version") {
        std::printf("znpdk-sim %s\n", ZNPDK_VERSION);
        return 0;
    }
    std::string cmd = args[0];
    if (cmd == "campaign") {
        if (args.size() > 1 && (args[1] == "--help" || args[1] == "-h")) {
            std::fputs(kCampaignUsage, stdout);
            return 0;
        }
        return campaign_command(std::vector<std::string>(args.begin() + 1, args.end()));
    }
    Options o;
    ServeConfig serve;
    bool serving = cmd == "serve";
    std::vector<std::string> rest;
    for (size_t i = 1; i < args.size(); ++i) {
        if (args[i] == "--json") {
            o.json = true;
        } else if (args[i] == "--trace") {
            o.trace = true;
        } else if (args[i] == "--verbose") {
            o.verbose = true;
        } else if (args[i] == "--timeline" && i + 1 < args.size()) {
            o.timeline = args[++i];
        } else if (args[i] == "--invariants") {
            o.invariants = true;
        } else if (args[i] == "--serve") {
            serving = true;
        } else if ((args[i] == "--user" || args[i] == "--password" || args[i] == "--address") &&
                   i + 1 < args.size()) {
            (args[i] == "--user"       ? serve.user
             : args[i] == "--password" ? serve.password
                                       : serve.address) = args[i + 1];
            ++i;
        } else if (args[i] == "--port" && i + 1 < args.size()) {
            char* end = nullptr;
            long port = std::strtol(args[++i].c_str(), &end, 10);
            if (*end != '\0' || port < 1 || port > 65535 - 16) {
                std::fprintf(stderr, "znpdk-sim: --port takes 1 to %d (17 ports from it)\n", 65535 - 16);
                return 2;
            }
            serve.port = static_cast<uint16_t>(port);
        } else if (args[i] == "--keep-root" && i + 1 < args.size()) {
            o.keep_root = true;
            o.root = args[++i];
        } else if (args[i].size() > 1 && args[i][0] == '-') {
            std::fprintf(stderr, "znpdk-sim: unknown option %s\n\n%s", args[i].c_str(), kUsage);
            return 2;
        } else {
            rest.push_back(args[i]);
        }
    }
    try {
        if (serving) {
            return serve_files(cmd, rest, o, serve);
        }
        if (cmd == "demo") {
            return run_files({"-demo-"}, o, false);
        }
        if (!o.timeline.empty() && cmd == "run" && rest.size() != 1) {
            std::fprintf(stderr, "znpdk-sim: --timeline pictures one scenario; give one file\n");
            return 2;
        }
        if ((cmd == "run" || cmd == "check") && !rest.empty()) {
            return run_files(rest, o, cmd == "check");
        }
        if (cmd == "functions") {
            return list_functions();
        }
        if (cmd == "fields") {
            return list_fields(rest.empty() ? "" : rest[0]);
        }
        if (cmd == "machine") {
            return list_machine();
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "znpdk-sim: %s\n", e.what());
        return 3;
    }
    std::fprintf(stderr, "znpdk-sim: unknown command or missing files: %s\n\n%s", cmd.c_str(), kUsage);
    return 2;
}
