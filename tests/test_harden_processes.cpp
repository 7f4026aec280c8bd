/* Several processes on one machine: a recovering reader beside writers of
 * the save area, and processes killed at every write point of a save-area
 * write, a component record write and an escalation table rebuild. */
#include <errno.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <functional>

#include "sensor_test_util.h"

using sensortest::dbg;
using sensortest::def;
using sensortest::kSave;
using sensortest::saved;
using Bytes = std::vector<uint8_t>;
using Entry = std::array<uint8_t, 4>;
using ztest::TempRoot;

namespace {

/* Forks `body`; the child exits 1 when a check failed in it (failures the
 * parent had before the fork do not count). */
pid_t spawn(const std::function<void()>& body)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        const ::testing::TestResult* r = ::testing::UnitTest::GetInstance()->current_test_info()->result();
        const int first = r->total_part_count();
        body();
        bool failed = false;
        for (int i = first; i < r->total_part_count(); ++i) {
            failed = failed || r->GetTestPartResult(i).failed();
        }
        _exit(failed ? 1 : 0);
    }
    return pid;
}

/* How a child ended: "exit N" or "signal N". */
std::string reap(pid_t pid)
{
    int st = 0;
    if (pid <= 0 || waitpid(pid, &st, 0) != pid) {
        return "lost";
    }
    return WIFEXITED(st) ? "exit " + std::to_string(WEXITSTATUS(st))
                         : "signal " + std::to_string(WTERMSIG(st));
}

std::string run(const std::function<void()>& body)
{
    return reap(spawn(body));
}

/* Counters shared with the children (an anonymous shared page). */
template <typename T> T* shared_page()
{
    void* p = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? nullptr : new (p) T();
}

/* Every byte of a written entry follows from its first one, so an entry
 * made of two writes shows. */
Entry written(uint8_t k)
{
    return {k, uint8_t(k ^ 0x5A), uint8_t(k + 0x33), uint8_t(~k)};
}

struct ReaderCounts {
    std::atomic<int> stop{0};
    std::atomic<long> entries{0};
    std::atomic<long> torn{0};
    std::atomic<long> changes{0};
};

TEST(HardenProcesses, RecoveringReaderNeverSeesHalfAnEntry)
{
#if defined(__arm__)
    const long kEntries = 1L << 18; /* emulated: a quarter, still thousands of recoveries */
#else
    const long kEntries = 1000000;
#endif
    constexpr int kWriters = 3;
    TempRoot root;
    ASSERT_EQ(run([&] {
                  zsim::init(root.path);
                  zsim::file_path(kSave, true);
                  ZNAPI_MemSensorAreaInit();
              }),
              "exit 0");
    ReaderCounts* counts = shared_page<ReaderCounts>();
    ASSERT_NE(counts, nullptr);
    std::vector<pid_t> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.push_back(spawn([&, w] {
            zsim::attach(root.path);
            ZNAPI_MemSensorAreaInit();
            for (int num = 0; num < 256; ++num) {
                def(17, static_cast<uint8_t>(num), 0);
            }
            for (uint32_t i = static_cast<uint32_t>(w) * 85; counts->stop.load() == 0; ++i) {
                const uint8_t num = static_cast<uint8_t>(i % 256);
                const Entry e = written(static_cast<uint8_t>(i / 256 + static_cast<uint32_t>(w) * 85));
                SensorInfo_T& s = g_BMCInfo[17].SensorSharedMem.SensorInfo[num];
                s.SensorReading = static_cast<INT16U>(e[0] | e[1] << 8);
                s.EventFlags = e[2];
                s.EventLevel = e[3];
                ASSERT_EQ(ZNAPI_MemSensorInfoWrite(num, 17), 0);
            }
        }));
    }
    const std::string reader = run([&] {
        zsim::attach(root.path);
        ZNAPI_MemSensorAreaInit();
        std::vector<Entry> last(256, Entry{});
        while (counts->entries.load() < kEntries) {
            ASSERT_EQ(ZNAPI_MemSensorInfoRecover(17), 0);
            for (int num = 0; num < 256; ++num) {
                const SensorInfo_T& s = g_BMCInfo[17].SensorSharedMem.SensorInfo[num];
                const Entry e = {uint8_t(s.SensorReading), uint8_t(s.SensorReading >> 8), s.EventFlags,
                                 s.EventLevel};
                counts->torn += (e != Entry{} && e != written(e[0])) || s.PreviousState != s.SensorReading;
                counts->changes += e != last[num];
                last[num] = e;
            }
            counts->entries += 256;
        }
    });
    counts->stop = 1;
    for (pid_t pid : writers) {
        EXPECT_EQ(reap(pid), "exit 0");
    }
    EXPECT_EQ(reader, "exit 0");
    std::printf("save-area entries read %ld, torn %ld, changes seen %ld\n", counts->entries.load(),
                counts->torn.load(), counts->changes.load());
    EXPECT_GE(counts->entries.load(), kEntries);
    EXPECT_EQ(counts->torn.load(), 0);
    EXPECT_GT(counts->changes.load(), 256); /* the writers really ran beside the reader */
}

/* One kind of write that a process can be killed in: `prepare` sets the
 * machine up with the old values (fresh machine), `act` is the victim's
 * work, `check` runs in a new process after the victim ended, `done`
 * being the number of whole units of work the victim finished. */
struct KillCase {
    const char* name;
    zsim::KillPoint point;
    int min_points;
    std::function<void()> prepare;
    std::function<void()> act;
    std::function<void(int done, bool killed)> check;
    std::function<int(int n)> done; /* units finished when killed at point n */
};

const uint8_t kSensors[] = {10, 11, 12};
const Entry kOldEntry = {0x01, 0x00, 0x5A, 0xA5};
const Entry kNewEntry = {0x11, 0x00, 0x5A, 0xA5};

uint8_t mark(int type, int no)
{
    return zsim::get<current_common_info_t>(zsim::find(type, no), PROP_CURRENT_COMMON_INFO).emergency_outage;
}

const char* const kEscFile = "/var/nvrdisk/current/sensor/esctable_inst17";

/* The old table names sensor 0x30 of instance 3 as parent of sensor 5;
 * the new one, sensor 0x40 of instance 4 as parent of sensor 0x60. */
Bytes esc_table(bool fresh)
{
    Bytes t(4096, 0);
    const int s = fresh ? 0x60 : 5;
    const Entry e = fresh ? Entry{1, 4, 0x40, 0x60} : Entry{1, 3, 0x30, 0x05};
    std::copy(e.begin(), e.end(), t.begin() + s * 16);
    return t;
}

std::vector<KillCase> kill_cases(const std::string& root)
{
    auto fresh_machine = [root] {
        zsim::init(root);
        zsim::file_path(kSave, true);
        zsim::build_default_machine();
    };
    std::vector<KillCase> cases;
    /* Three sensor changes, each one save-area write under the semaphore. */
    cases.push_back({"save-area write", zsim::KillPoint::SaveAreaSemHeld, 6,
                     [fresh_machine] {
                         fresh_machine();
                         ZNAPI_MemSensorAreaInit();
                         for (uint8_t num : kSensors) {
                             def(17, num, 0x0001);
                             ASSERT_EQ(ZNAPI_MemSensorInfoWrite(num, 17), 0);
                         }
                     },
                     [] {
                         ZNAPI_MemSensorAreaInit();
                         for (uint8_t num : kSensors) {
                             def(17, num, 0x0001);
                         }
                         for (uint8_t num : kSensors) {
                             znpdklib_SetSensorWoS(num, 1, 4, 17);
                         }
                     },
                     [](int done, bool killed) {
                         ZNAPI_MemSensorAreaInit();
                         for (int i = 0; i < 3; ++i) {
                             EXPECT_EQ(saved(17, kSensors[i]), i < done ? kNewEntry : kOldEntry) << i;
                         }
                         /* The recovery takes no semaphore: it goes on. */
                         EXPECT_EQ(ZNAPI_MemSensorInfoRecover(17), 0);
                         EXPECT_EQ(g_BMCInfo[17].SensorSharedMem.SensorInfo[kSensors[0]].SensorReading,
                                   done > 0 ? 0x11 : 1);
                         /* A writer of the instance whose semaphore died held waits out
                          * the platform's bound and takes the failure path; the memory
                          * change stays. Other instances go on. */
                         zsim::set_sem_wait_limit(100);
                         def(17, 20, 0);
                         def(16, 20, 0);
                         zsim::clear_traces();
                         EXPECT_EQ(znpdklib_SetSensorWoS(20, 1, 0, 17), killed ? 0xFF : 0);
                         EXPECT_EQ(zsim::sensor(17, 20).SensorReading, 1);
                         EXPECT_EQ(saved(17, 20), killed ? Entry{} : kOldEntry);
                         const std::vector<std::string> failed = {
                             "ZNAPI_MemSensorInfoWrite Error at sem_lock" + std::to_string(ETIMEDOUT) +
                                 " sns:20 BMCInst:17",
                             "znpdklib_SetSensorWoS Error sns:20 dir:1 bit:0x0 BMCInst:17"};
                         EXPECT_EQ(dbg(), killed ? failed : std::vector<std::string>{});
                         EXPECT_EQ(znpdklib_SetSensorWoS(20, 1, 0, 16), 0);
                         EXPECT_EQ(saved(16, 20), kOldEntry);
                     },
                     [](int n) { return n / 2; }});
    /* One outage mark on CMUC#1 and its two nodes: three record writes. */
    cases.push_back(
        {"component record write", zsim::KillPoint::RecordWrite, 6, fresh_machine,
         [] { znpdklib_setEmergencyOutage(COMPO_CMUC, 1, 1); },
         [](int done, bool) {
             const uint8_t marks[] = {mark(COMPO_CMUC, 1), mark(COMPO_NODE, 2), mark(COMPO_NODE, 3)};
             for (int i = 0; i < 3; ++i) {
                 EXPECT_EQ(marks[i], i < done ? 1 : 0) << i;
             }
             EXPECT_EQ(znpdklib_setEmergencyOutage(COMPO_NODE, 9, 2), 0);
             EXPECT_EQ(mark(COMPO_NODE, 9), 2);
             /* A lock the victim died holding is taken over. */
             EXPECT_EQ(znpdklib_setEmergencyOutage(COMPO_CMUC, 1, 1), 0);
             EXPECT_EQ(mark(COMPO_CMUC, 1) + mark(COMPO_NODE, 2) + mark(COMPO_NODE, 3), 3);
         },
         [](int n) { return n / 2; }});
    /* A rebuild of instance 17's table: the old table or the new one,
     * never a cut one, for a search in another process. */
    cases.push_back({"escalation table rebuild", zsim::KillPoint::EscalationWrite, 2,
                     [fresh_machine] {
                         fresh_machine();
                         zsim::write_file(kEscFile, esc_table(false));
                     },
                     [] {
                         def(17, 0x60, 0, 0x6F, 0, 0xC2);
                         splog_clear_sensor_list list[4] = {{1, 4, 0x40, 0x60}, {}, {}, {}};
                         zsim::set_clear_sensor_list(17, 0x60, list);
                         znpdklib_make_escalation_info(17);
                     },
                     [](int done, bool) {
                         EXPECT_EQ(zsim::read_file(kEscFile), esc_table(done > 0));
                         EXPECT_EQ(ztest::esc_query(0, 3, 0x30).frue.size(), done > 0 ? 0u : 1u);
                         EXPECT_EQ(ztest::esc_query(0, 4, 0x40).frue.size(), done > 0 ? 1u : 0u);
                     },
                     [](int) { return 0; }});
    /* The start-up fan check, killed at each of its polls: another process
     * then runs the same check to the end an unbroken one reaches. */
    struct FanEnd {
        int rtn, phase;
    };
    FanEnd* fan_end = shared_page<FanEnd>();
    cases.push_back({"fan check poll", zsim::KillPoint::FanCheckPoll, 1,
                     [fresh_machine, fan_end, root] {
                         fresh_machine();
                         run([&] {
                             zsim::attach(root);
                             fan_end->rtn = znpdklib_check_fan_spinup();
                             fan_end->phase = znpdklib_get_fan_check_phase();
                         });
                         fresh_machine();
                     },
                     [] { znpdklib_check_fan_spinup(); },
                     [fan_end](int, bool) {
                         EXPECT_EQ(znpdklib_check_fan_spinup(), fan_end->rtn);
                         EXPECT_EQ(znpdklib_get_fan_check_phase(), fan_end->phase);
                     },
                     [](int) { return 0; }});
    return cases;
}

TEST(HardenProcesses, KilledAtEveryWritePointLeavesOldOrNewValues)
{
    TempRoot root;
    int checked = 0, consistent = 0;
    for (const KillCase& c : kill_cases(root.path)) {
        SCOPED_TRACE(c.name);
        int points = 0;
        for (int n = 1; n <= 32; ++n) {
            SCOPED_TRACE("killed at point " + std::to_string(n));
            ASSERT_EQ(run([&] { c.prepare(); }), "exit 0");
            const std::string victim = run([&] {
                zsim::attach(root.path);
                zsim::kill_at(c.point, n);
                c.act();
            });
            const bool killed = victim == "signal " + std::to_string(SIGKILL);
            ASSERT_TRUE(killed || victim == "exit 0") << victim;
            const std::string checker = run([&] {
                zsim::attach(root.path);
                c.check(killed ? c.done(n) : 1 << 20, killed);
            });
            EXPECT_EQ(checker, "exit 0");
            if (!killed) {
                break;
            }
            ++points;
            ++checked;
            consistent += checker == "exit 0";
        }
        EXPECT_GE(points, c.min_points);
    }
    std::printf("kill points checked %d, consistent %d\n", checked, consistent);
    EXPECT_EQ(consistent, checked);
}

} // namespace
