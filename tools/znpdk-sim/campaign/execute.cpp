#include "campaign/execute.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "scenario/scenario.h"
#include "znpdk_sim/sim.h"

namespace zcmd {

namespace {

constexpr int kChassis = 17;
constexpr uint8_t kPsuRedundancy = 0x81;
constexpr uint16_t kFull = 0x0002;

void send_line(int fd, const json& j)
{
    std::string line = j.dump() + "\n";
    for (size_t done = 0; done < line.size();) {
        ssize_t w = write(fd, line.data() + done, line.size() - done);
        if (w <= 0) {
            return;
        }
        done += static_cast<size_t>(w);
    }
}

json failure_list(const StepReport& r)
{
    json f = json::array();
    for (const Failure& x : r.failures) {
        f.push_back({x.where, x.what});
    }
    return f;
}

/* In the child: tells the campaign after each step how it went. */
class Watch : public RunObserver {
  public:
    Watch(int fd, Plant plant) : fd_(fd), plant_(plant) {}

    void after_step(Runner&, const Step&, StepReport& r) override
    {
        json j = {{"i", r.index}, {"c", r.checks}};
        if (!r.kills.empty()) {
            j["k"] = 1;
        }
        if (!r.failures.empty()) {
            j["f"] = failure_list(r);
        }
        for (const Failure& f : r.failures) {
            failed_ = failed_ || !is_unmet_kill(f.what);
        }
        if (plant_ == Plant::Crash || plant_ == Plant::Block) {
            uint16_t w = zsim::sensor(kChassis, kPsuRedundancy).SensorReading & 0x7FFF;
            if (w != 0 && w != kFull) {
                if (plant_ == Plant::Crash) {
                    std::abort();
                }
                for (;;) {
                    pause();
                }
            }
        }
        send_line(fd_, j);
    }

    /* The set-up and the run's end, as step -1. */
    void after_setup(Runner&, StepReport& r) override { send_line(fd_, {{"f", failure_list(r)}}); }
    void after_end(Runner&, StepReport& r) override
    {
        send_line(fd_, {{"c", r.checks}, {"f", failure_list(r)}});
    }

    /* A failure ends the story: what follows it plays no part. */
    bool stopping() const override { return failed_; }

  private:
    int fd_;
    Plant plant_;
    bool failed_ = false;
};

/* Runs live in memory where they can: the library syncs its escalation
 * tables to disk, and a run's files die with it anyway. */
std::string scratch_root()
{
    const char* tmp = std::getenv("TMPDIR");
    std::string base = tmp != nullptr && *tmp != '\0'  ? tmp
                       : access("/dev/shm", W_OK) == 0 ? "/dev/shm"
                                                       : "/tmp";
    std::string tmpl = base + "/znpdk-campaign-XXXXXX";
    return mkdtemp(tmpl.data()) != nullptr ? tmpl : "";
}

[[noreturn]] void child(const std::string& text, const ExecOptions& o, const std::string& root, int fd,
                        int log_fd)
{
    setpgid(0, 0);
    int null_fd = open("/dev/null", O_WRONLY);
    dup2(null_fd, STDOUT_FILENO);
    dup2(log_fd, STDERR_FILENO);
    close(null_fd);
    close(log_fd);
    try {
        Scenario s = load_scenario(text, "campaign.json");
        Watch watch(fd, o.plant);
        Options opts;
        opts.quiet = true;
        opts.observer = &watch;
        opts.timeline = o.timeline;
        opts.root = root;
        int failed = run_scenario(s, opts);
        send_line(fd, {{"end", failed}});
    } catch (const ScenarioError& e) {
        send_line(fd, {{"error", e.where() + ": " + e.what()}});
    } catch (const std::exception& e) {
        send_line(fd, {{"error", e.what()}});
    }
    std::fflush(nullptr);
    _exit(0);
}

std::string read_text(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

/* The kind of the first sanitizer report in a log, or "". */
std::string sanitizer_report(const std::string& log)
{
    size_t at = log.find("ERROR: AddressSanitizer: ");
    if (at != std::string::npos) {
        at += std::strlen("ERROR: AddressSanitizer: ");
        return "AddressSanitizer: " + log.substr(at, log.find_first_of(" \n", at) - at);
    }
    at = log.find("runtime error: ");
    if (at != std::string::npos) {
        /* Its kind without the values, which a shrunk story may change. */
        size_t end = log.find_first_of(":\n'0123456789", at + std::strlen("runtime error: "));
        std::string kind = log.substr(at, end - at);
        kind.erase(kind.find_last_not_of(' ') + 1);
        return "UndefinedBehaviorSanitizer: " + kind;
    }
    at = log.find("ERROR: LeakSanitizer");
    return at == std::string::npos ? "" : "LeakSanitizer: detected memory leaks";
}

/* What the run told, line by line. */
struct Told {
    bool ended = false;
    int failed = 0;
    int seen = 0; /* failures in step and end reports */
    std::string error;
    std::vector<std::pair<int, json>> failures; /* step index (-1 end), [where, what] */
};

void take_line(const std::string& line, Outcome& out, Told& told)
{
    json j = json::parse(line, nullptr, false);
    if (j.is_discarded() || !j.is_object()) {
        return;
    }
    if (j.contains("error")) {
        told.error = j["error"].get<std::string>();
        return;
    }
    if (j.contains("end")) {
        told.ended = true;
        told.failed = j["end"].get<int>();
        return;
    }
    out.checks += j.value("c", 0);
    int step = j.contains("i") ? j["i"].get<int>() : -1;
    if (step >= 0) {
        out.steps_run = step + 1;
        out.kills += j.value("k", 0);
    }
    for (const json& f : j.value("f", json::array())) {
        ++told.seen;
        if (is_unmet_kill(f[1].get<std::string>())) {
            out.lived.push_back(step);
        } else {
            told.failures.emplace_back(step, f);
        }
    }
}

/* Set by SIGINT or SIGTERM: the run under way is stopped and no other starts. */
volatile sig_atomic_t g_stop = 0;

void on_stop_signal(int)
{
    g_stop = 1;
}

enum class Ending { Ended, Blocked, Stopped };

/* Reads what the child sends until it has ended, or kills its process group
 * when a step outlasts the bound or the campaign is asked to stop. */
Ending follow(pid_t pid, int fd, const ExecOptions& o, Outcome& out, Told& told, int& status)
{
    using clock = std::chrono::steady_clock;
    auto last = clock::now();
    std::string pending;
    char buf[4096];
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        int ready = poll(&p, 1, 100);
        bool ended = waitpid(pid, &status, WNOHANG) == pid;
        while (ready > 0 || ended) {
            ssize_t n = read(fd, buf, sizeof buf);
            if (n <= 0) {
                break;
            }
            pending.append(buf, static_cast<size_t>(n));
            last = clock::now();
            ready = 0;
        }
        for (size_t nl = pending.find('\n'); nl != std::string::npos; nl = pending.find('\n')) {
            take_line(pending.substr(0, nl), out, told);
            pending.erase(0, nl + 1);
        }
        if (ended) {
            kill(-pid, SIGKILL); /* named processes a crash left behind */
            return Ending::Ended;
        }
        if (g_stop != 0 || clock::now() - last > std::chrono::milliseconds(o.step_timeout_ms)) {
            kill(-pid, SIGKILL);
            waitpid(pid, &status, 0);
            return g_stop != 0 ? Ending::Stopped : Ending::Blocked;
        }
    }
}

void set_failure(Outcome& out, int step, const std::string& where, const std::string& what)
{
    out.failed = true;
    out.step = step;
    out.where = where;
    out.what = what;
    out.signature = failure_signature(what);
}

} // namespace

void stop_on_signals()
{
    struct sigaction sa {};
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

bool stop_asked()
{
    return g_stop != 0;
}

bool is_unmet_kill(const std::string& what)
{
    return what.find(" was not killed: it was ") != std::string::npos;
}

std::string failure_signature(const std::string& what)
{
    if (what.rfind("invariant ", 0) == 0) {
        return what.substr(0, what.find(':'));
    }
    std::string s = what.substr(0, what.find(':'));
    size_t at = s.find("process ");
    if (at != std::string::npos) {
        size_t name = at + std::strlen("process ");
        s.replace(name, s.find(' ', name) - name, "*");
    }
    return s;
}

Outcome execute(const std::string& text, const ExecOptions& o)
{
    Outcome out;
    char log_path[] = "/tmp/znpdk-campaign-log-XXXXXX";
    int log_fd = mkstemp(log_path);
    int fds[2];
    if (log_fd < 0 || pipe(fds) != 0) {
        set_failure(out, -1, "", "the campaign could not start a run (no pipe or log file)");
        return out;
    }
    const std::string root = scratch_root();
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        child(text, o, root, fds[1], log_fd);
    }
    close(fds[1]);
    close(log_fd);
    fcntl(fds[0], F_SETFL, O_NONBLOCK); /* named processes a crash left behind may hold the other end */
    Told told;
    int status = 0;
    Ending ending = Ending::Ended;
    if (pid > 0) {
        setpgid(pid, pid);
        ending = follow(pid, fds[0], o, out, told, status);
    }
    close(fds[0]);
    std::error_code ec;
    if (!root.empty()) {
        std::filesystem::remove_all(root, ec);
    }
    out.log = read_text(log_path);
    unlink(log_path);

    const std::string report = sanitizer_report(out.log);
    if (pid < 0) {
        set_failure(out, -1, "", "the campaign could not fork a run");
    } else if (!told.error.empty()) {
        out.unreadable = true;
        out.what = told.error;
    } else if (ending == Ending::Stopped) {
        out.stopped = true;
    } else if (ending == Ending::Blocked) {
        set_failure(out, out.steps_run, "/steps/" + std::to_string(out.steps_run),
                    "blocked: the step ran past " + std::to_string(o.step_timeout_ms) + " ms of real time");
        out.signature = "blocked";
    } else if (!report.empty() || WIFSIGNALED(status) || !told.ended) {
        int step = told.failures.empty() ? out.steps_run : told.failures.front().first;
        std::string what =
            !report.empty() ? report
            : WIFSIGNALED(status)
                ? std::string("crash: signal ") + std::to_string(WTERMSIG(status)) + " (" +
                      strsignal(WTERMSIG(status)) + ")"
                : "the run ended early (exit status " + std::to_string(WEXITSTATUS(status)) + ")";
        set_failure(out, step, "/steps/" + std::to_string(step), what);
        out.signature = what.substr(0, what.find(" ("));
    } else if (!told.failures.empty()) {
        const auto& [step, f] = told.failures.front();
        set_failure(out, step, f[0].get<std::string>(), f[1].get<std::string>());
    } else if (told.failed > told.seen) {
        set_failure(out, -1, "/steps", "the run counted more failures than it reported");
    }
    return out;
}

} // namespace zcmd
