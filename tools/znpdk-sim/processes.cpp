#include "processes.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "functions.h"
#include "runner.h"
#include "sp_trace.h"
#include "znlib.h"
#include "znpdk_sim/psu.h"
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

/* Sensor records of the IPMI stack by "inst/num", the PSU controller image and the clock. */
json world()
{
    json sensors = json::object();
    for (int i = 0; i < kInstances; ++i) {
        for (int n = 0; n < 256; ++n) {
            uint8_t num = static_cast<uint8_t>(n);
            if (zsim::sensor_present(i, num)) {
                SensorInfo_T s = zsim::sensor(i, num);
                sensors[std::to_string(i) + "/" + std::to_string(n)] = bytes_hex(&s, sizeof s);
            }
        }
    }
    psuc_all_t image = zsim::psuc_image();
    return {{"sensors", sensors}, {"psuc", bytes_hex(&image, sizeof image)}, {"now", zsim::now()}};
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

void apply_world(const json& w)
{
    const json& sensors = w["sensors"];
    for (int i = 0; i < kInstances; ++i) {
        for (int n = 0; n < 256; ++n) {
            uint8_t num = static_cast<uint8_t>(n);
            auto it = sensors.find(std::to_string(i) + "/" + std::to_string(n));
            if (it != sensors.end()) {
                apply_sensor(i, num, from_hex<SensorInfo_T>(*it));
            } else if (zsim::sensor_present(i, num)) {
                zsim::remove_sensor(i, num);
            }
        }
    }
    zsim::set_psuc_image(from_hex<psuc_all_t>(w["psuc"]));
    if (w["now"].get<uint32_t>() > zsim::now()) {
        zsim::set_time(w["now"].get<uint32_t>());
    }
}

/* ---- In the child ---------------------------------------------------------- */

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

json run_here(const Step& st, Runner& run, const json& request)
{
    apply_world(request["world"]);
    LogMarks before = log_marks();
    StepReport rep;
    rep.where = st.where;
    try {
        st.action(run, rep);
    } catch (const std::exception& e) {
        run.fail(rep, rep.where, std::string("the step broke down: ") + e.what());
    }
    if (!st.background && !zsim::wait_library_threads(20000)) {
        run.fail(rep, rep.where, "library threads still running after 20 s of real time");
    }
    json failures = json::array();
    for (const Failure& f : rep.failures) {
        failures.push_back({{"where", f.where}, {"what", f.what}});
    }
    return {{"has_call", rep.has_call}, {"ret", rep.ret},           {"out", rep.out},
            {"failures", failures},     {"logs", new_logs(before)}, {"world", world()}};
}

/* A named process: the steps the runner sends, one at a time, until it hangs up. */
[[noreturn]] void serve(int fd, const Scenario& s, Runner& run)
{
    if (s.save_area) {
        const Function* init = find_function("ZNAPI_MemSensorAreaInit");
        if (init != nullptr) {
            call_function(*init, {});
        }
    }
    json request;
    while (recv_msg(fd, request)) {
        const std::vector<Step>& list = request["setup"].get<bool>() ? s.setup : s.steps;
        const Step& st = list.at(request["index"].get<size_t>());
        if (!send_msg(fd, run_here(st, run, request))) {
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
        sp_trace4(t["level"].get<int>(), t["region"].get<int>(), t["module"].get<int>(),
                  t["id"].get<uint32_t>(), "%s", t["text"].get<std::string>().c_str());
    }
}

} // namespace

std::vector<std::string> process_names(const Scenario& s)
{
    std::vector<std::string> names;
    for (const std::vector<Step>* list : {&s.setup, &s.steps}) {
        for (const Step& st : *list) {
            if (!st.process.empty() && std::find(names.begin(), names.end(), st.process) == names.end()) {
                names.push_back(st.process);
            }
        }
    }
    return names;
}

Processes::~Processes()
{
    stop();
}

void Processes::start(const std::vector<std::string>& names, const Scenario& s, Runner& run)
{
    for (const std::string& name : names) {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
            continue;
        }
        std::fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            close(fds[0]);
            for (const auto& other : children_) {
                close(other.second.fd);
            }
            serve(fds[1], s, run);
        }
        close(fds[1]);
        if (pid < 0) {
            close(fds[0]);
            continue;
        }
        children_[name] = Child{pid, fds[0]};
    }
}

void Processes::run(const Step& st, Runner& run, StepReport& rep)
{
    auto it = children_.find(st.process);
    json answer;
    bool in_setup = st.where.compare(0, 7, "/setup/") == 0;
    size_t index = std::stoul(st.where.substr(st.where.rfind('/') + 1));
    if (it == children_.end() ||
        !send_msg(it->second.fd, {{"setup", in_setup}, {"index", index}, {"world", world()}}) ||
        !recv_msg(it->second.fd, answer)) {
        run.fail(rep, rep.where, "process " + st.process + " did not answer (it ended?)");
        return;
    }
    merge_logs(answer["logs"]);
    apply_world(answer["world"]);
    for (const json& f : answer["failures"]) {
        run.fail(rep, f["where"].get<std::string>(), f["what"].get<std::string>());
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

void Processes::stop()
{
    for (auto& c : children_) {
        close(c.second.fd);
        int status = 0;
        waitpid(c.second.pid, &status, 0);
    }
    children_.clear();
}

} // namespace zcmd
