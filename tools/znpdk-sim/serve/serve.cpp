#include "serve/serve.h"

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "run/runner.h"
#include "serve/relay.h"

namespace zcmd {

namespace {

std::atomic<bool> g_stop{false};

void on_signal(int)
{
    g_stop = true;
}

bool on_path(const std::string& program)
{
    const char* path = getenv("PATH");
    std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
    size_t from = 0;
    while (from <= dirs.size()) {
        size_t to = dirs.find(':', from);
        std::string dir = dirs.substr(from, to == std::string::npos ? std::string::npos : to - from);
        if (!dir.empty() && access((dir + "/" + program).c_str(), X_OK) == 0) {
            return true;
        }
        if (to == std::string::npos) {
            break;
        }
        from = to + 1;
    }
    return false;
}

class IpmiServer : public RunObserver {
  public:
    explicit IpmiServer(const ServeConfig& cfg) : cfg_(cfg), ctls_(controllers(cfg.port)) {}
    ~IpmiServer() override { shut(); }

    /* Before the run: the tools are there and every client port is ours. */
    bool prepare(std::string& error)
    {
        for (const char* tool : {"ipmi_sim", "ipmitool"}) {
            if (!on_path(tool)) {
                error =
                    std::string(tool) + " not found: install openipmi and ipmitool (scripts/setup-deps.sh)";
                return false;
            }
        }
        std::vector<RelayPort> ports;
        for (Controller& c : ctls_) {
            c.engine_port = free_udp_port();
            ports.push_back({c.inst, c.port, c.engine_port});
        }
        if (!relay_.open(cfg_.address, ports, error)) {
            error = "cannot listen: " + error;
            return false;
        }
        char tmpl[] = "/tmp/znpdk-serve-XXXXXX";
        if (mkdtemp(tmpl) == nullptr) {
            error = "cannot make a scratch directory";
            return false;
        }
        cfg_.dir = tmpl;
        /* Started before the machine counts its threads, so that it is not taken for a library thread. */
        relay_.start();
        return true;
    }

    void after_setup(Runner&, StepReport& setup) override
    {
        std::string error;
        if (!mirror_.start(cfg_, ctls_, error)) {
            failed_ = error;
            g_stop = true;
            return;
        }
        started_ = true;
        for (const std::string& p : mirror_.sync()) {
            setup.failures.push_back({"/setup", "IPMI: " + p});
        }
        std::printf(
            "IPMI: %zu controllers on %s: the chassis (instance 17) at UDP port %u, node n at port %u + n\n"
            "      e.g. ipmitool -I lanplus -C 3 -H %s -p %u -U %s -P <password> -L USER sdr elist\n",
            ctls_.size(), cfg_.address.c_str(), cfg_.port, cfg_.port + 1, cfg_.address.c_str(), cfg_.port,
            cfg_.user.c_str());
        std::fflush(stdout);
    }

    void after_step(Runner&, const Step&, StepReport& step) override
    {
        if (!started_) {
            return;
        }
        for (const std::string& p : mirror_.sync()) {
            step.failures.push_back({step.where, "IPMI: " + p});
        }
    }

    void after_run(Runner&) override
    {
        if (!started_ || g_stop) {
            return;
        }
        std::printf("IPMI: the machine stays up; Ctrl-C or SIGTERM ends the server\n");
        std::fflush(stdout);
        while (!g_stop) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }

    std::string hold(int seconds, bool until_client) override
    {
        if (!started_) {
            return "nothing to wait for (the server is not up)";
        }
        std::printf("IPMI: holding%s%s; Ctrl-C ends the server\n",
                    until_client ? " until a client has looked" : "",
                    seconds ? (" for at most " + std::to_string(seconds) + " s").c_str() : "");
        std::fflush(stdout);
        const long long t0 = steady_ms();
        const uint64_t before = relay_.requests() + relay_.refused();
        for (;;) {
            if (g_stop) {
                return "stopped";
            }
            const long long now = steady_ms();
            /* A client has looked when it sent something and then went quiet for a second. */
            if (until_client && relay_.requests() + relay_.refused() > before &&
                now - relay_.last_request_ms() >= 1000) {
                return "a client looked (" + std::to_string(relay_.requests() + relay_.refused() - before) +
                       " datagrams)";
            }
            if (seconds > 0 && now - t0 >= seconds * 1000LL) {
                return "held " + std::to_string(seconds) + " s" + (until_client ? ", no client came" : "");
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }

    bool stopping() const override { return g_stop; }

    const std::string& failed() const { return failed_; }

    void shut()
    {
        relay_.stop();
        mirror_.stop();
        if (started_) {
            std::printf("IPMI: server ended: %llu client datagrams relayed, %llu refused, %llu clients\n",
                        static_cast<unsigned long long>(relay_.requests()),
                        static_cast<unsigned long long>(relay_.refused()),
                        static_cast<unsigned long long>(relay_.clients()));
            std::fflush(stdout);
            started_ = false;
        }
        if (!cfg_.dir.empty()) {
            std::error_code ec;
            std::filesystem::remove_all(cfg_.dir, ec);
            cfg_.dir.clear();
        }
    }

  private:
    ServeConfig cfg_;
    std::vector<Controller> ctls_;
    Relay relay_;
    Mirror mirror_;
    bool started_ = false;
    std::string failed_;
};

bool plain(const std::string& s, size_t max, bool name)
{
    if (s.empty() || s.size() > max) {
        return false;
    }
    for (char c : s) {
        const bool ok =
            name ? (std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '_' || c == '-')
                 : (c > ' ' && c < 0x7F && c != '"' && c != '\\');
        if (!ok) {
            return false;
        }
    }
    return true;
}

} // namespace

bool valid_credentials(const ServeConfig& cfg, std::string& error)
{
    if (!plain(cfg.user, 16, true)) {
        error = "--user: 1 to 16 letters, digits, '.', '_' or '-' (there is no anonymous access)";
        return false;
    }
    if (!plain(cfg.password, 16, false)) {
        error = "--password: 1 to 16 printable characters, no blank, '\"' or '\\'";
        return false;
    }
    return true;
}

std::string default_machine_scenario()
{
    std::string steps =
        R"({"label": "AC power-on: the sensor save area, then every instance's start-up states",
                            "call": "ZNAPI_MemSensorAreaInit", "args": []})";
    for (int inst : {17, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}) {
        steps += R"(, {"call": "ZNAPI_Sensor_Init", "args": [)" + std::to_string(inst) +
                 R"(], "report": "summary", "expect": {"ret": 0}})";
    }
    steps += R"(, {"label": "The system is powered on", "sensor": {"inst": 17, "num": 0, "reading": 0}})";
    return R"({"name": "default-machine", "description": "The default machine after its AC power-on.",
              "save_area": false,
              "setup": [{"file": {"path": "/tmp/.boot/.acon", "text": ""}},
                        {"record": {"path": "/SYSTEM#0", "record": "system", "set": {"available_psu_slots": 18}}}],
              "steps": [)" +
           steps + "]}";
}

int serve_scenario(const std::string& text, const std::string& file, Options o, const ServeConfig& cfg)
{
    Scenario s = load_scenario(text, file);
    if (std::vector<std::string> missing = missing_functions(s); !missing.empty()) {
        std::fprintf(stderr, "%s: not served: it needs %s, missing from this build\n", file.c_str(),
                     missing.front().c_str());
        return kExitMissingFunctions;
    }
    IpmiServer server(cfg);
    std::string error;
    if (!server.prepare(error)) {
        std::fprintf(stderr, "znpdk-sim serve: %s\n", error.c_str());
        return kExitCannotServe;
    }
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    o.observer = &server;
    int failed = run_scenario(s, o);
    server.shut();
    if (!server.failed().empty()) {
        std::fprintf(stderr, "znpdk-sim serve: %s\n", server.failed().c_str());
        return kExitCannotServe;
    }
    return failed < 0 ? 3 : failed > 0 ? 1 : 0;
}

} // namespace zcmd
