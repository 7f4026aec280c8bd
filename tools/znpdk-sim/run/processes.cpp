#include "run/processes.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "run/functions.h"
#include "ipmi_stack.h"
#include "run/runner.h"
#include "sp_trace.h"
#include "znlib.h"
#include "znpdk_sim/fan.h"
#include "znpdk_sim/psu.h"
#include "znpdk_sim/quor.h"
#include "znpdk_sim/sim.h"
#include "znpdklib_types.h"

namespace zcmd {

namespace {

constexpr int kInstances = 18;

/* ---- Messages: a 4-byte length, then JSON text ---------------------------- */

bool send_msg(int fd, const json& j)
{
    std::string text = j.dump();
    uint32_t n = static_cast<uint32_t>(text.size());
    std::string all(reinterpret_cast<const char*>(&n), 4);
    all += text;
    for (size_t done = 0; done < all.size();) {
        ssize_t w = write(fd, all.data() + done, all.size() - done);
        if (w <= 0) {
            return false;
        }
        done += static_cast<size_t>(w);
    }
    return true;
}

bool read_all(int fd, char* p, size_t n)
{
    for (size_t done = 0; done < n;) {
        ssize_t r = read(fd, p + done, n - done);
        if (r <= 0) {
            return false;
        }
        done += static_cast<size_t>(r);
    }
    return true;
}

bool recv_msg(int fd, json& j)
{
    uint32_t n = 0;
    if (!read_all(fd, reinterpret_cast<char*>(&n), 4)) {
        return false;
    }
    std::string text(n, '\0');
    if (!read_all(fd, text.data(), n)) {
        return false;
    }
    j = json::parse(text, nullptr, false);
    return !j.is_discarded();
}

std::string bytes_hex(const void* p, size_t n)
{
    return hex_bytes(static_cast<const uint8_t*>(p), n);
}

template <typename T> T from_hex(const json& j)
{
    T v;
    std::memset(&v, 0, sizeof v);
    std::vector<uint8_t> b;
    parse_hex_bytes(j.get<std::string>(), b);
    std::memcpy(&v, b.data(), std::min(b.size(), sizeof v));
    return v;
}

/* ---- The process-local parts of the machine that travel with a step ------- */

constexpr size_t kSlots = kInstances * 256;

/* The IPMI stack's sensor records of this process, by (instance, number). */
SensorTable sensor_table()
{
    SensorTable t(kSlots);
    for (size_t k = 0; k < kSlots; ++k) {
        int inst = static_cast<int>(k / 256);
        uint8_t num = static_cast<uint8_t>(k % 256);
        if (zsim::sensor_present(inst, num)) {
            t[k] = zsim::sensor(inst, num);
        }
    }
    return t;
}

bool same_record(const std::optional<SensorInfo_T>& a, const std::optional<SensorInfo_T>& b)
{
    return a.has_value() == b.has_value() && (!a || std::memcmp(&*a, &*b, sizeof *a) == 0);
}

/* Where `now` differs from `was`, as text: per slot its number (2 bytes),
 * whether a sensor is there (1 byte) and its record. A step sends only
 * these, as most steps change a few sensors of the 1900. */
std::string table_changes(const SensorTable& now, const SensorTable& was)
{
    std::vector<uint8_t> bytes;
    for (size_t k = 0; k < kSlots; ++k) {
        if (!same_record(now[k], was[k])) {
            SensorInfo_T rec{};
            if (now[k]) {
                rec = *now[k];
            }
            const uint8_t* p = reinterpret_cast<const uint8_t*>(&rec);
            bytes.insert(bytes.end(), {static_cast<uint8_t>(k & 0xFF), static_cast<uint8_t>(k >> 8),
                                       static_cast<uint8_t>(now[k] ? 1 : 0)});
            bytes.insert(bytes.end(), p, p + sizeof rec);
        }
    }
    return hex_bytes(bytes.data(), bytes.size());
}

void apply_sensor(int inst, uint8_t num, const SensorInfo_T& s)
{
    if (!zsim::sensor_present(inst, num)) {
        zsim::SensorDef d;
        d.inst = inst;
        d.num = num;
        d.type = s.SensorTypeCode;
        d.event_type = s.EventTypeCode;
        d.oem = s.OEMField;
        d.lun = s.SensorOwnerLun;
        d.reading = s.SensorReading;
        d.flags = s.EventFlags;
        d.level = s.EventLevel;
        zsim::define_sensor(d);
    } else if (zsim::sensor(inst, num).SensorReading != s.SensorReading) {
        zsim::set_sensor_reading(inst, num, s.SensorReading);
    }
}

/* Applies the changes of table_changes(); `known` (when given) follows them. */
void apply_changes(const json& text, SensorTable* known)
{
    std::vector<uint8_t> bytes;
    constexpr size_t kEntry = 3 + sizeof(SensorInfo_T);
    if (!text.is_string() || !parse_hex_bytes(text.get<std::string>(), bytes)) {
        return;
    }
    for (size_t at = 0; at + kEntry <= bytes.size(); at += kEntry) {
        size_t k = bytes[at] | static_cast<size_t>(bytes[at + 1]) << 8;
        if (k >= kSlots) {
            continue;
        }
        std::optional<SensorInfo_T> rec;
        if (bytes[at + 2] != 0) {
            rec.emplace();
            std::memcpy(&*rec, bytes.data() + at + 3, sizeof(SensorInfo_T));
        }
        int inst = static_cast<int>(k / 256);
        uint8_t num = static_cast<uint8_t>(k % 256);
        if (rec) {
            apply_sensor(inst, num, *rec);
        } else if (zsim::sensor_present(inst, num)) {
            zsim::remove_sensor(inst, num);
        }
        if (known != nullptr) {
            (*known)[k] = rec;
        }
    }
}

/* What travels whole with every step: the PSU controller image, the fans,
 * the routers' links and the clock. */
json devices()
{
    psuc_all_t image = zsim::psuc_image();
    return {{"psuc", bytes_hex(&image, sizeof image)},
            {"fans", zsim::fan_state()},
            {"links", zsim::link_state()},
            {"now", zsim::now()}};
}

/* Takes the devices of `w`; with a `base`, only what differs from it (the
 * changes of one of several processes: the others' stay). */
void apply_devices(const json& w, const json* base)
{
    if (base == nullptr || w["psuc"] != (*base)["psuc"]) {
        zsim::set_psuc_image(from_hex<psuc_all_t>(w["psuc"]));
    }
    if (base == nullptr || w["fans"] != (*base)["fans"]) {
        zsim::set_fan_state(w["fans"].get<std::vector<uint32_t>>());
    }
    if (base == nullptr || w["links"] != (*base)["links"]) {
        zsim::set_link_state(w["links"].get<std::vector<uint32_t>>());
    }
    if (w["now"].get<uint32_t>() > zsim::now()) {
        zsim::set_time(w["now"].get<uint32_t>());
    }
}

/* ---- In the child ---------------------------------------------------------- */

const Step* find_step(const std::vector<Step>& list, const std::string& where)
{
    for (const Step& st : list) {
        if (st.where == where) {
            return &st;
        }
        if (const Step* p = find_step(st.parts, where)) {
            return p;
        }
    }
    return nullptr;
}

struct LogMarks {
    std::vector<size_t> sel = std::vector<size_t>(kInstances, 0);
    size_t ras = 0;
    size_t traces = 0;
};

LogMarks log_marks()
{
    LogMarks m;
    for (int i = 0; i < kInstances; ++i) {
        m.sel[i] = zsim::sel(i).size();
    }
    m.ras = zsim::ras_logs().size();
    m.traces = zsim::traces().size();
    return m;
}

/* What the step left in this process's logs since `m`. */
json new_logs(const LogMarks& m)
{
    json sel = json::array(), ras = json::array(), traces = json::array();
    for (int i = 0; i < kInstances; ++i) {
        std::vector<SELEventRecord_T> all = zsim::sel(i);
        for (size_t k = m.sel[i]; k < all.size(); ++k) {
            sel.push_back({{"inst", i}, {"rec", bytes_hex(&all[k], sizeof all[k])}});
        }
    }
    std::vector<zsim::RasLog> all_ras = zsim::ras_logs();
    for (size_t k = m.ras; k < all_ras.size(); ++k) {
        const zsim::RasLog& r = all_ras[k];
        ras.push_back({{"info", bytes_hex(&r.info, sizeof r.info)},
                       {"link", bytes_hex(&r.link, sizeof r.link)},
                       {"time", r.time}});
    }
    std::vector<zsim::TraceLine> all_traces = zsim::traces();
    for (size_t k = m.traces; k < all_traces.size(); ++k) {
        const zsim::TraceLine& t = all_traces[k];
        traces.push_back({{"debug", t.debug},
                          {"level", t.level},
                          {"region", t.region},
                          {"module", t.module},
                          {"id", t.id},
                          {"text", t.text},
                          {"time", t.time}});
    }
    return {{"sel", sel}, {"ras", ras}, {"traces", traces}};
}

json run_here(const Step& st, Runner& run, const json& request, int fd)
{
    apply_changes(request["sensors"], nullptr);
    apply_devices(request["world"], nullptr);
    const SensorTable sensors = sensor_table();
    LogMarks before = log_marks();
    StepReport rep;
    rep.where = st.where;
    rep.step = &st;
    if (request.contains("barrier")) {
        json go;
        if (!send_msg(fd, {{"ready", true}}) || !recv_msg(fd, go)) {
            _exit(0); /* the runner has gone */
        }
    }
    const int point = request.value("kill_point", -1);
    if (point >= 0) {
        zsim::kill_at(static_cast<zsim::KillPoint>(point), request["kill_visit"].get<int>());
    }
    try {
        st.action(run, rep);
    } catch (const std::exception& e) {
        run.fail(rep, rep.where, std::string("the step broke down: ") + e.what());
    }
    if (!st.background && !zsim::wait_library_threads(20000)) {
        run.fail(rep, rep.where, "library threads still running after 20 s of real time");
    }
    int hits = 0;
    if (point >= 0) {
        hits = zsim::kill_point_hits(static_cast<zsim::KillPoint>(point));
        zsim::kill_at(static_cast<zsim::KillPoint>(point), 0); /* lived through it: only count from now */
    }
    json failures = json::array();
    for (const Failure& f : rep.failures) {
        failures.push_back({{"where", f.where}, {"what", f.what}});
    }
    return {{"has_call", rep.has_call},
            {"ret", rep.ret},
            {"out", rep.out},
            {"failures", failures},
            {"logs", new_logs(before)},
            {"sensors", table_changes(sensor_table(), sensors)},
            {"world", devices()},
            {"hits", hits},
            {"held", zsim::locks_held()}};
}

/* A named process: the steps the runner sends, one at a time, until it hangs up. */
[[noreturn]] void serve(int fd, const Scenario& s, Runner& run)
{
    zsim::rebase_library_threads();
    if (s.sem_wait_ms > 0) {
        zsim::set_sem_wait_limit(s.sem_wait_ms);
    }
    if (s.save_area) {
        const Function* init = find_function("ZNAPI_MemSensorAreaInit");
        if (init != nullptr) {
            call_function(*init, {});
        }
    }
    json request;
    while (recv_msg(fd, request)) {
        if (request.contains("end")) {
            zsim::wait_library_threads();
            send_msg(fd, {{"ended", true}});
            break;
        }
        const std::string where = request["where"].get<std::string>();
        const Step* st = find_step(s.setup, where);
        st = st != nullptr ? st : find_step(s.steps, where);
        if (st == nullptr || !send_msg(fd, run_here(*st, run, request, fd))) {
            break;
        }
    }
    zsim::wait_library_threads();
    std::fflush(nullptr);
    _exit(0);
}

/* ---- In the runner ------------------------------------------------------------ */

/* The child's logs join this process's, so that reports and expectations see them. */
void merge_logs(const json& logs)
{
    for (const json& s : logs["sel"]) {
        SELEventRecord_T rec = from_hex<SELEventRecord_T>(s["rec"]);
        uint8_t res[16] = {0};
        AddSELEntry(reinterpret_cast<INT8U*>(&rec), sizeof rec, res, s["inst"].get<int>());
    }
    for (const json& r : logs["ras"]) {
        if (r["time"].get<uint32_t>() > zsim::now()) {
            zsim::set_time(r["time"].get<uint32_t>()); /* the log is stamped when it was made */
        }
        splog_info info = from_hex<splog_info>(r["info"]);
        splog_linkup_info link = from_hex<splog_linkup_info>(r["link"]);
        znpdklib_log_save_sel_error_log(&info, &link);
    }
    for (const json& t : logs["traces"]) {
        if (t["debug"].get<bool>()) { /* the IPMI stack's debug output stays what it was */
            IDBG_LINUXAPP_DbgOut(t["level"].get<int>(), "%s", t["text"].get<std::string>().c_str());
            continue;
        }
        sp_trace4(t["level"].get<int>(), t["region"].get<int>(), t["module"].get<int>(),
                  t["id"].get<uint32_t>(), "%s", t["text"].get<std::string>().c_str());
    }
}

} // namespace

bool process_alive(int pid)
{
    if (pid <= 0 || (kill(pid, 0) != 0 && errno == ESRCH)) {
        return false;
    }
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
    FILE* in = std::fopen(path, "r");
    if (in == nullptr) {
        return false;
    }
    char buf[256] = {0};
    size_t n = std::fread(buf, 1, sizeof buf - 1, in);
    std::fclose(in);
    const char* p = std::strrchr(buf, ')');
    return n > 0 && !(p != nullptr && (p[2] == 'Z' || p[2] == 'X'));
}

std::vector<std::string> process_names(const Scenario& s)
{
    std::vector<std::string> names;
    for (const std::vector<Step>* list : {&s.setup, &s.steps}) {
        for (const Step& st : *list) {
            std::vector<std::string> here = {st.process, st.restarts};
            for (const Step& p : st.parts) {
                here.push_back(p.process);
            }
            for (const std::string& n : here) {
                if (!n.empty() && n != "*" && std::find(names.begin(), names.end(), n) == names.end()) {
                    names.push_back(n);
                }
            }
        }
    }
    return names;
}

Processes::~Processes()
{
    stop();
}

/* The zygote: forked before this process uses the library, it forks every
 * named process (also restarted ones) with a library that was never used.
 * Each incarnation gets one of the socket pairs made beforehand. */
[[noreturn]] void Processes::zygote(int ctl, const Scenario& s, Runner& run)
{
    signal(SIGCHLD, SIG_IGN); /* ended processes are reaped at once */
    for (const Slot& slot : slots_) {
        close(slot.runner_fd);
    }
    int k = 0;
    while (read_all(ctl, reinterpret_cast<char*>(&k), sizeof k)) {
        std::fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            close(ctl);
            for (size_t i = 0; i < slots_.size(); ++i) {
                if (static_cast<int>(i) != k) {
                    close(slots_[i].child_fd);
                }
            }
            serve(slots_[k].child_fd, s, run);
        }
        close(slots_[k].child_fd);
        if (write(ctl, &pid, sizeof pid) != sizeof pid) {
            break;
        }
    }
    _exit(0);
}

void Processes::start(const std::vector<std::string>& names, const Scenario& s, Runner& run)
{
    if (names.empty()) {
        return;
    }
    for (int i = 0; i < kIncarnations; ++i) {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
            break;
        }
        slots_.push_back({fds[0], fds[1]});
    }
    int ctl[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ctl) != 0) {
        return;
    }
    initial_ = sensor_table();
    std::fflush(nullptr);
    zygote_ = fork();
    if (zygote_ == 0) {
        close(ctl[0]);
        zygote(ctl[1], s, run);
    }
    close(ctl[1]);
    ctl_ = ctl[0];
    for (const Slot& slot : slots_) {
        close(slot.child_fd);
    }
    for (const std::string& name : names) {
        spawn(name);
    }
}

bool Processes::spawn(const std::string& name)
{
    if (ctl_ < 0 || next_slot_ >= static_cast<int>(slots_.size())) {
        return false;
    }
    int k = next_slot_++;
    pid_t pid = -1;
    if (write(ctl_, &k, sizeof k) != sizeof k || !read_all(ctl_, reinterpret_cast<char*>(&pid), sizeof pid) ||
        pid < 0) {
        return false;
    }
    children_[name] = Child{pid, slots_[k].runner_fd, initial_};
    killed_.erase(std::remove(killed_.begin(), killed_.end(), name), killed_.end());
    return true;
}

void Processes::end(const std::string& name)
{
    killed_.erase(std::remove(killed_.begin(), killed_.end(), name), killed_.end());
    auto it = children_.find(name);
    if (it == children_.end()) {
        return;
    }
    json answer;
    if (send_msg(it->second.fd, {{"end", true}})) {
        recv_msg(it->second.fd, answer); /* the process has let its threads end */
    }
    close(it->second.fd);
    children_.erase(it);
}

bool Processes::restart(const std::string& name)
{
    end(name);
    return spawn(name);
}

std::vector<std::string> Processes::names() const
{
    std::vector<std::string> out;
    for (const auto& c : children_) {
        out.push_back(c.first);
    }
    out.insert(out.end(), killed_.begin(), killed_.end());
    return out;
}

Processes::Child* Processes::child_for(const Step& st, Runner& run, StepReport& rep)
{
    if (std::find(killed_.begin(), killed_.end(), st.process) != killed_.end()) {
        if (!spawn(st.process)) {
            return nullptr;
        }
        rep.restarts = st.process;
        Event e;
        e.t = run.now();
        e.kind = "restart";
        e.data = {{"process", st.process}};
        e.text = "process " + st.process + " starts afresh (it was killed) and sets up its save area";
        rep.events.push_back(e);
    }
    auto it = children_.find(st.process);
    return it == children_.end() ? nullptr : &it->second;
}

void Processes::take_answer(const json& answer, const Step& st, Runner& run, StepReport& rep)
{
    merge_logs(answer["logs"]);
    for (const json& f : answer["failures"]) {
        run.fail(rep, f["where"].get<std::string>(), f["what"].get<std::string>());
    }
    for (const json& h : answer["held"]) {
        rep.held_locks.push_back("process " + st.process + " holds " + h.get<std::string>());
    }
    if (answer["has_call"].get<bool>()) {
        rep.has_call = true;
        rep.ret = answer["ret"];
        rep.out = answer["out"];
        run.has_call = true;
        run.last_ret = rep.ret;
        run.last_out = rep.out;
    }
}

json Processes::request(Child& c, const Step& st, const SensorTable& now, const json& dev)
{
    json r = {{"where", st.where}, {"sensors", table_changes(now, c.known)}, {"world", dev}};
    c.known = now;
    return r;
}

void Processes::take_world(Child& c, const json& answer, const json* base)
{
    apply_changes(answer["sensors"], &c.known);
    apply_devices(answer["world"], base);
}

void Processes::run(const Step& st, Runner& run, StepReport& rep)
{
    Child* c = child_for(st, run, rep);
    json answer;
    if (c == nullptr || !send_msg(c->fd, request(*c, st, sensor_table(), devices())) ||
        !recv_msg(c->fd, answer)) {
        run.fail(rep, rep.where, "process " + st.process + " did not answer (it ended?)");
        return;
    }
    take_world(*c, answer, nullptr);
    take_answer(answer, st, run, rep);
}

void Processes::kill(const Step& st, Runner& run, StepReport& rep)
{
    const Step& during = st.parts.at(0);
    const std::string& name = during.process;
    rep.process = name;
    Child* c = child_for(during, run, rep);
    json answer;
    json req;
    if (c != nullptr) {
        req = request(*c, during, sensor_table(), devices());
        req["kill_point"] = st.kill_point;
        req["kill_visit"] = st.kill_visit;
    }
    if (c == nullptr || !send_msg(c->fd, req)) {
        run.fail(rep, rep.where, "process " + name + " did not answer (it ended?)");
        return;
    }
    if (recv_msg(c->fd, answer)) {
        take_world(*c, answer, nullptr);
        take_answer(answer, during, run, rep);
        run.fail(rep, rep.where,
                 "process " + name + " was not killed: it was " + st.kill_while + " " +
                     std::to_string(answer["hits"].get<int>()) + " times in the step, not " +
                     std::to_string(st.kill_visit));
        return;
    }
    /* The socket closed: the process is dying, and what it held in memory with it. It
     * closes its files before it has quite died: the step ends when it has. */
    for (int i = 0; i < 5000 && process_alive(c->pid); ++i) {
        struct timespec pause = {0, 1000000L};
        nanosleep(&pause, nullptr);
    }
    close(c->fd);
    children_.erase(name);
    killed_.push_back(name);
    rep.kills = name;
    Event e;
    e.t = run.now();
    e.kind = "kill";
    e.data = {{"process", name}, {"while", st.kill_while}, {"at", st.kill_visit}};
    e.text = "process " + name + " killed (SIGKILL) while " + st.kill_while +
             (st.kill_visit > 1 ? " (visit " + std::to_string(st.kill_visit) + ")" : "") +
             "; what it made in this step dies with it";
    rep.events.push_back(e);
}

void Processes::together(const Step& st, Runner& run, StepReport& rep)
{
    const SensorTable base_sensors = sensor_table();
    const json base = devices();
    std::vector<Child*> cs;
    for (const Step& p : st.parts) {
        Child* c = child_for(p, run, rep);
        if (c != nullptr) {
            json req = request(*c, p, base_sensors, base);
            req["barrier"] = true;
            c = send_msg(c->fd, req) ? c : nullptr;
        }
        cs.push_back(c);
    }
    json msg;
    for (Child*& c : cs) {
        if (c != nullptr && !recv_msg(c->fd, msg)) {
            c = nullptr; /* every other one is at the barrier */
        }
    }
    for (Child* c : cs) {
        if (c != nullptr) {
            send_msg(c->fd, {{"go", true}});
        }
    }
    std::string text;
    for (size_t i = 0; i < cs.size(); ++i) {
        const Step& p = st.parts[i];
        json answer;
        if (cs[i] == nullptr || !recv_msg(cs[i]->fd, answer)) {
            run.fail(rep, p.where, "process " + p.process + " did not answer (it ended?)");
            continue;
        }
        take_world(*cs[i], answer, &base);
        rep.has_call = false;
        take_answer(answer, p, run, rep);
        text += (text.empty() ? "" : "; ") + p.process + ": " + p.text +
                (rep.has_call ? " = " + (rep.ret.is_null() ? std::string("(void)") : rep.ret.dump()) : "");
        for (const Check& chk : p.checks) {
            try {
                chk(run, rep);
            } catch (const std::exception& e) {
                run.fail(rep, p.where, std::string("an expectation broke down: ") + e.what());
            }
        }
    }
    rep.has_call = false; /* each part's result is in the text */
    rep.text = "together: " + text;
}

void Processes::stop()
{
    for (const std::string& name : names()) {
        end(name);
    }
    for (size_t k = static_cast<size_t>(next_slot_); k < slots_.size(); ++k) {
        close(slots_[k].runner_fd);
    }
    slots_.clear();
    if (ctl_ >= 0) {
        close(ctl_);
        ctl_ = -1;
        waitpid(zygote_, nullptr, 0);
    }
}

} // namespace zcmd
