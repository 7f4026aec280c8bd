#include "serve/mirror.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <thread>

#include "scenario/jsonutil.h"
#include "znpdk_sim/sim.h"

namespace zcmd {

namespace {

constexpr int kInstances = 18;
constexpr int kChassis = 17;
constexpr uint8_t kBmcAddr = 0x20;
constexpr int kAnswerMs = 10000;
constexpr const char* kSyncUser = "znpdk-sync";
constexpr const char* kNoEvents = "000000000000000";

std::string hex_list(const uint8_t* p, size_t n)
{
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += (i ? " " : "") + hex(p[i], 2);
    }
    return s;
}

std::string sensor_key(const Controller& c, const SensorInfo_T& s)
{
    return hex(c.addr, 2) + " " + std::to_string(s.SensorOwnerLun & 3) + " " + hex(s.SensorNumber, 2);
}

std::string name_of(int inst, uint8_t num)
{
    std::string n = zsim::sensor_name(inst, num);
    return n.empty() ? "Sensor " + hex(num, 2) : n;
}

/* The emulator commands that define one sensor with its state word. */
void add_sensor(const Controller& c, const SensorInfo_T& s, std::vector<std::string>& out)
{
    const std::string key = sensor_key(c, s);
    out.push_back("sensor_add " + key + " " + hex(s.SensorTypeCode, 2) + " " + hex(s.EventTypeCode, 2));
    /* Scanning on, so that readings are valid; no events of the engine's own. */
    out.push_back("sensor_set_event_support " + key + " enable scanning per-state " + kNoEvents + " " +
                  kNoEvents + " " + kNoEvents + " " + kNoEvents);
    std::vector<uint8_t> sdr = sensor_sdr(s, name_of(c.inst, s.SensorNumber), c.inst);
    out.push_back("main_sdr_add " + hex(c.addr, 2) + " " + hex_list(sdr.data(), sdr.size()));
}

void set_bits(const Controller& c, const SensorInfo_T& s, uint16_t from, uint16_t to,
              std::vector<std::string>& out)
{
    for (int bit = 0; bit < 15; ++bit) {
        if (((from ^ to) >> bit) & 1) {
            out.push_back("sensor_set_bit " + sensor_key(c, s) + " " + std::to_string(bit) + " " +
                          std::to_string((to >> bit) & 1) + " 0");
        }
    }
}

const Controller* controller_of(const std::vector<Controller>& ctls, int inst)
{
    for (const Controller& c : ctls) {
        if (c.inst == inst) {
            return &c;
        }
    }
    return nullptr;
}

std::string random_password()
{
    uint8_t b[8] = {0};
    std::ifstream in("/dev/urandom", std::ios::binary);
    in.read(reinterpret_cast<char*>(b), sizeof b);
    std::string s;
    for (uint8_t x : b) {
        char h[3];
        std::snprintf(h, sizeof h, "%02x", x);
        s += h;
    }
    return s;
}

std::string join_lines(const std::vector<std::string>& lines)
{
    std::string t;
    for (const std::string& l : lines) {
        t += l + "\n";
    }
    return t;
}

bool write_text(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    return out.good() && chmod(path.c_str(), 0600) == 0;
}

std::string lan_config(const ServeConfig& cfg, const std::vector<Controller>& ctls,
                       const std::string& sync_pw)
{
    std::string t = "name \"znpdk\"\n";
    for (const Controller& c : ctls) {
        const bool bmc = c.addr == kBmcAddr;
        char guid[40];
        std::snprintf(guid, sizeof guid, "7a6e70646b2d73696d2d%012x", static_cast<unsigned>(c.inst));
        t += "set_working_mc " + hex(c.addr, 2) + "\n  startlan 1\n    addr 127.0.0.1 " +
             std::to_string(c.engine_port) + "\n    priv_limit " + (bmc ? "admin" : "user") + "\n";
        /* MD5 only: IPMI 1.5 sessions with "none" or "straight" would skip or expose the password. */
        for (const char* level : {"callback", "user", "operator", "admin"}) {
            t += std::string("    allowed_auths_") + level + " md5\n";
        }
        t += std::string("    guid ") + guid + "\n  endlan\n";
        t += "  user 2 true \"" + cfg.user + "\" \"" + cfg.password + "\" user 10 md5\n";
        if (bmc) {
            t += std::string("  user 3 true \"") + kSyncUser + "\" \"" + sync_pw + "\" admin 4 md5\n";
        }
    }
    return t;
}

} // namespace

std::vector<Controller> controllers(uint16_t base_port)
{
    std::vector<Controller> out;
    for (int inst = 1; inst <= kChassis; ++inst) {
        Controller c;
        c.inst = inst;
        c.addr = inst == kChassis ? kBmcAddr : static_cast<uint8_t>(0x40 + 2 * (inst - 1));
        c.port = static_cast<uint16_t>(base_port + (inst == kChassis ? 0 : inst));
        out.push_back(c);
    }
    return out;
}

std::vector<uint8_t> sensor_sdr(const SensorInfo_T& s, const std::string& name, int inst)
{
    const size_t len = std::min<size_t>(name.size(), 16);  /* the longest ID string IPMI allows */
    const uint8_t entity = inst == kChassis ? 0x17 : 0x07; /* system chassis, system board */
    std::vector<uint8_t> r = {0,
                              0,
                              0x51,
                              0x02,
                              0,
                              kBmcAddr,
                              static_cast<uint8_t>(s.SensorOwnerLun & 3),
                              s.SensorNumber,
                              entity,
                              static_cast<uint8_t>(inst),
                              0x63, /* scanning and events on */
                              0x40, /* auto re-arm, events per state */
                              s.SensorTypeCode,
                              s.EventTypeCode,
                              0xFF,
                              0x7F,
                              0xFF,
                              0x7F,
                              0xFF,
                              0x7F, /* every offset supported and readable */
                              0xC0,
                              0,
                              0, /* no analog reading */
                              0x01,
                              0,
                              0,
                              0,
                              0,
                              0,
                              0,
                              s.OEMField,
                              static_cast<uint8_t>(0xC0 | len)};
    for (size_t i = 0; i < len; ++i) {
        r.push_back(static_cast<uint8_t>(name[i]));
    }
    r[4] = static_cast<uint8_t>(r.size() - 5);
    return r;
}

std::vector<std::string> machine_commands(const std::vector<Controller>& ctls)
{
    std::vector<std::string> out = {"mc_setbmc " + hex(kBmcAddr, 2)};
    for (const Controller& c : ctls) {
        const std::string a = hex(c.addr, 2);
        /* Get Device ID: device id and product id the instance, firmware 1.0; sensor, SDR
         * repository and SEL device, and chassis device for the chassis. */
        out.push_back("mc_add " + a + " " + hex(c.inst, 2) + " no-device-sdrs 0x01 1 0 " +
                      (c.inst == kChassis ? "0x87" : "0x07") + " 0 " + hex(c.inst, 2));
        out.push_back("sel_enable " + a + " 4096 0x02");
        out.push_back("mc_enable " + a);
    }
    return out;
}

bool Mirror::start(const ServeConfig& cfg, const std::vector<Controller>& ctls, std::string& error)
{
    ctls_ = ctls;
    words_.assign(kInstances * 256, 0);
    present_.assign(kInstances * 256, 0);
    records_.assign(kInstances, 0);
    const std::string sync_pw = random_password();
    const std::string conf = cfg.dir + "/lan.conf", emu = cfg.dir + "/machine.emu", pw = cfg.dir + "/sync.pw";
    const std::string state = cfg.dir + "/state";
    mkdir(state.c_str(), 0700);
    if (!write_text(conf, lan_config(cfg, ctls, sync_pw)) ||
        !write_text(emu, join_lines(machine_commands(ctls))) || !write_text(pw, sync_pw + "\n")) {
        error = "cannot write the engine's files in " + cfg.dir;
        return false;
    }
    if (!engine_.start({"ipmi_sim", "-c", conf, "-f", emu, "-s", state, "-p"}, "> ", kAnswerMs, error)) {
        error = "the IPMI engine (ipmi_sim) did not start: " + error;
        return false;
    }
    if (engine_.banner().find("\n**") != std::string::npos) {
        error = "the engine refused its set-up: " + engine_.banner();
        return false;
    }
    const Controller* bmc = controller_of(ctls, kChassis);
    if (!control_.start({"ipmitool", "-I", "lanplus", "-C", "3", "-H", "127.0.0.1", "-p",
                         std::to_string(bmc->engine_port), "-U", kSyncUser, "-f", pw, "shell"},
                        "ipmitool> ", kAnswerMs, error)) {
        error = "the control session (ipmitool) did not start: " + error;
        return false;
    }
    return true;
}

bool Mirror::console(const std::vector<std::string>& cmds, std::vector<std::string>& problems)
{
    std::vector<std::string> answers;
    std::string error;
    bool ok = engine_.ask(cmds, answers, kAnswerMs, error);
    for (size_t i = 0; i < answers.size(); ++i) {
        ConsoleResult r = read_console_answer(answer_lines(answers[i], cmds[i]));
        if (!r.ok) {
            problems.push_back("engine refused \"" + cmds[i] + "\": " + r.error);
        }
    }
    if (!ok) {
        problems.push_back("engine console: " + error);
    }
    return ok;
}

bool Mirror::raw(uint8_t addr, const std::string& request, RawResult& r, std::string& problem)
{
    std::vector<std::string> cmds;
    if (addr != target_) {
        cmds.push_back("set targetaddr " + hex(addr, 2));
    }
    cmds.push_back("raw " + request);
    std::vector<std::string> answers;
    if (!control_.ask(cmds, answers, kAnswerMs, problem)) {
        problem = "control session: " + problem;
        return false;
    }
    target_ = addr;
    r = read_raw_answer(answer_lines(answers.back(), cmds.back()));
    if (!r.answered || r.cc != 0) {
        problem = "controller " + hex(addr, 2) + " did not take \"raw " + request + "\"" +
                  (r.answered ? " (completion code " + hex(r.cc, 2) + ")" : "");
        return false;
    }
    return true;
}

/* The engine stamps a record with its SEL clock; the clock is set to the
 * record's own time stamp right before, in the same real second, and the
 * stored bytes are read back. */
void Mirror::push_record(const Controller& c, const SELEventRecord_T& rec, uint16_t id,
                         std::vector<std::string>& problems)
{
    const uint8_t* b = reinterpret_cast<const uint8_t*>(&rec);
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto into_second = std::chrono::duration_cast<std::chrono::milliseconds>(now).count() % 1000;
    if (into_second > 700) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1005 - into_second));
    }
    std::string problem;
    RawResult r;
    if (!raw(c.addr, "0x0a 0x49 " + hex_list(b + 3, 4), r, problem)) {
        problems.push_back(problem);
        return;
    }
    std::vector<std::string> answers;
    const std::string add = "sel_add " + hex(c.addr, 2) + " " + hex(b[2], 2) + " " + hex_list(b + 3, 13);
    std::string error;
    if (!engine_.ask({add}, answers, kAnswerMs, error)) {
        problems.push_back("engine console: " + error);
        return;
    }
    ConsoleResult added = read_console_answer(answer_lines(answers[0], add));
    const std::string where =
        "SEL of instance " + std::to_string(c.inst) + ", record " + std::to_string(id) + ": ";
    if (!added.ok || added.record != id) {
        problems.push_back(where + (added.ok ? "the engine numbered it " + std::to_string(added.record)
                                             : "the engine refused it: " + added.error));
        return;
    }
    ++pushed_records_;
    if (!raw(c.addr, "0x0a 0x43 0 0 " + hex(id & 0xFF, 2) + " " + hex(id >> 8, 2) + " 0 0xff", r, problem)) {
        problems.push_back(where + problem);
        return;
    }
    std::vector<uint8_t> want = {static_cast<uint8_t>(id), static_cast<uint8_t>(id >> 8)};
    for (int i = 2; i < 16; ++i) {
        want.push_back(b[i]);
    }
    std::vector<uint8_t> got(r.data.begin() + std::min<size_t>(2, r.data.size()), r.data.end());
    if (got != want) {
        problems.push_back(where + "the engine holds " + hex_list(got.data(), got.size()) +
                           ", the library wrote " + hex_list(want.data(), want.size()));
    }
}

std::vector<std::string> Mirror::sync()
{
    std::vector<std::string> problems;
    std::vector<std::string> cmds;
    for (const Controller& c : ctls_) {
        for (int n = 0; n < 256; ++n) {
            const size_t k = static_cast<size_t>(c.inst) * 256 + n;
            const uint8_t num = static_cast<uint8_t>(n);
            const bool present = zsim::sensor_present(c.inst, num);
            if (!present && !present_[k]) {
                continue;
            }
            SensorInfo_T s = zsim::sensor(c.inst, num);
            s.SensorNumber = num;
            if (present && !present_[k]) {
                add_sensor(c, s, cmds);
                present_[k] = 1;
            }
            /* A removed sensor keeps its record in the engine and reads 0. */
            const uint16_t word = present ? (s.SensorReading & 0x7FFF) : 0;
            if (word != words_[k]) {
                set_bits(c, s, words_[k], word, cmds);
                words_[k] = word;
            }
        }
    }
    pushed_bits_ += cmds.size();
    if (!cmds.empty() && !console(cmds, problems)) {
        return problems;
    }
    for (const Controller& c : ctls_) {
        std::vector<SELEventRecord_T> sel = zsim::sel(c.inst);
        if (sel.size() < records_[c.inst]) {
            problems.push_back("SEL of instance " + std::to_string(c.inst) +
                               " was cleared; the engine keeps the records it has");
            records_[c.inst] = sel.size();
        }
        for (size_t i = records_[c.inst]; i < sel.size(); ++i) {
            push_record(c, sel[i], static_cast<uint16_t>(i + 1), problems);
        }
        records_[c.inst] = sel.size();
    }
    /* Get SEL Time answers the virtual clock as of the last step. */
    const uint32_t now = zsim::now();
    if (now != clock_ && problems.empty()) {
        const uint8_t t[4] = {static_cast<uint8_t>(now), static_cast<uint8_t>(now >> 8),
                              static_cast<uint8_t>(now >> 16), static_cast<uint8_t>(now >> 24)};
        for (const Controller& c : ctls_) {
            RawResult r;
            std::string problem;
            if (!raw(c.addr, "0x0a 0x49 " + hex_list(t, 4), r, problem)) {
                problems.push_back(problem);
            }
        }
        clock_ = now;
    }
    return problems;
}

void Mirror::stop()
{
    control_.stop("exit", 1000);
    engine_.stop("quit", 2000);
}

} // namespace zcmd
