#include "support.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdio.h>

#include <cstring>
#include <chrono>
#include <filesystem>
#include <thread>
#include <vector>

namespace ztest {

TempRoot::TempRoot()
{
    char tmpl[] = "/tmp/znpdk-test-XXXXXX";
    char* dir = mkdtemp(tmpl);
    if (dir == nullptr) {
        abort();
    }
    path = dir;
}

TempRoot::~TempRoot()
{
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
}

MeetAtTrace::MeetAtTrace(uint32_t id, int ms)
{
    zsim::set_trace_sink([this, id, ms](const zsim::TraceLine& t) {
        if (t.debug || t.id != id || ++arrived > 1) {
            return;
        }
        for (int i = 0; i < ms && arrived < 2; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
}

MeetAtTrace::~MeetAtTrace()
{
    zsim::set_trace_sink(nullptr);
}

namespace {

const char* const kSaveFile = "/var/nvrdisk/current/sensor/snsdata";

/* Removes library files below the root; zeroes the save file in place. */
void clean_library_files(const std::string& root)
{
    namespace fs = std::filesystem;
    std::error_code ec;
    for (const char* dir : {"/var", "/tmp"}) {
        fs::path base = fs::path(root + dir);
        if (!fs::exists(base, ec)) {
            continue;
        }
        for (auto it = fs::recursive_directory_iterator(base, ec); it != fs::recursive_directory_iterator();
             it.increment(ec)) {
            if (!it->is_regular_file(ec)) {
                continue;
            }
            std::string p = it->path().string();
            if (p == root + kSaveFile) {
                int fd = open(p.c_str(), O_WRONLY);
                if (fd >= 0) {
                    struct stat st;
                    if (fstat(fd, &st) == 0 && st.st_size > 0) {
                        std::vector<char> zeros(static_cast<size_t>(st.st_size), 0);
                        ssize_t n = pwrite(fd, zeros.data(), zeros.size(), 0);
                        (void)n;
                    }
                    close(fd);
                }
            } else if (p.find("/znpdk-sim") == std::string::npos) {
                fs::remove(it->path(), ec);
            }
        }
    }
}
} // namespace

const std::string& process_root()
{
    static TempRoot holder;
    return holder.path;
}

int run_in_child(const std::function<int()>& body)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int rc = body();
        _exit(rc);
    }
    if (pid < 0) {
        return -1;
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

std::vector<std::string> texts_with_id(uint32_t id)
{
    std::vector<std::string> out;
    for (const auto& t : zsim::traces_with_id(id)) {
        out.push_back(t.text);
    }
    return out;
}

uint16_t state(int inst, uint8_t sensor)
{
    return static_cast<uint16_t>(zsim::sensor(inst, sensor).SensorReading & 0x7FFF);
}

std::vector<std::string> ras_codes()
{
    std::vector<std::string> out;
    for (const zsim::RasLog& l : zsim::ras_logs()) {
        EXPECT_EQ(17, l.info.BMCInst) << l.info.ras_code;
        out.push_back(l.info.ras_code);
    }
    return out;
}

std::string esc_path(int inst)
{
    char path[64];
    snprintf(path, sizeof(path), "/var/nvrdisk/current/sensor/esctable_inst%02d", inst);
    return path;
}

EscFound esc_query(int target, int inst, int sensor)
{
    Esc_Sensor_t in{target, inst, sensor};
    Esc_Table_t out;
    memset(&out, 0xA5, sizeof(out));
    znpdklib_get_escalation_info(&in, &out);
    EXPECT_NE(nullptr, out.frue_list);
    EXPECT_NE(nullptr, out.esc_list);
    EscFound f;
    for (int i = 0; i < out.frue_count; ++i) {
        f.frue.push_back({out.frue_list[i].esc_spec, out.frue_list[i].BMCInst, out.frue_list[i].Sensor_No});
    }
    for (int i = 0; i < out.esc_count; ++i) {
        f.esc.push_back({out.esc_list[i].esc_spec, out.esc_list[i].BMCInst, out.esc_list[i].Sensor_No});
    }
    free(out.frue_list);
    free(out.esc_list);
    return f;
}

} // namespace ztest

void SimTest::SetUp()
{
    const std::string& root = ztest::process_root();
    zsim::init(root);
    ztest::clean_library_files(root);
    if (default_machine_) {
        zsim::build_default_machine();
    }
    static bool area_ready = (ZNAPI_MemSensorAreaInit(), true);
    (void)area_ready;
    zsim::clear_traces();
}

void SimTest::TearDown()
{
    EXPECT_TRUE(zsim::wait_library_threads()) << "library threads still running";
    EXPECT_TRUE(zsim::lock_violations().empty()) << "component write-lock rules broken";
}
