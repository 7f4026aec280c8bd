/* The simulated platform itself, without the library. */
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "mbc_driver.h"
#include "support.h"
#include "sp_trace.h"
#include "sputil.h"
#include "znpdk_sim/detail.h"
#include "znpdk_sim/sim.h"
#include "znpdklib_types.h"

using sp::sysobj::Component;

namespace {

const std::string& make_root()
{
    static ztest::TempRoot root;
    return root.path;
}

class Sim : public ::testing::Test {
  protected:
    void SetUp() override
    {
        zsim::init(make_root());
        zsim::build_default_machine();
    }
};

void real_pause_ms(long ms)
{
    struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
    nanosleep(&ts, nullptr);
}

} // namespace

TEST_F(Sim, ClockRunsVirtuallyForEveryCaller)
{
    ASSERT_EQ(time(nullptr), 1767225600);
    /* The same clock through the global symbol, as another shared object binds it. */
    auto other_time = reinterpret_cast<time_t (*)(time_t*)>(dlsym(RTLD_DEFAULT, "time"));
    ASSERT_NE(other_time, nullptr);
    time_t stored = 0;
    EXPECT_EQ(other_time(&stored), 1767225600);
    EXPECT_EQ(stored, 1767225600);

    EXPECT_EQ(sleep(5), 0u);
    EXPECT_EQ(zsim::now(), 1767225605u);
    struct timeval tv = {3, 500000};
    EXPECT_EQ(select(0, nullptr, nullptr, nullptr, &tv), 0);
    EXPECT_EQ(zsim::now(), 1767225609u); /* a started second counts whole */
    EXPECT_EQ(tv.tv_sec + tv.tv_usec, 0);

    /* A sleeper moves the clock to its own wake time, never backwards. */
    zsim::set_time(1000);
    std::thread a([] { sleep(10); });
    std::thread b([] { sleep(3); });
    a.join();
    b.join();
    EXPECT_GE(zsim::now(), 1010u);
    EXPECT_LE(zsim::now(), 1013u);
}

TEST_F(Sim, SelectInterruptedLeavesRemainingTime)
{
    zsim::inject_select_eintr(2, 1);
    struct timeval tv = {5, 0};
    uint32_t start = zsim::now();
    errno = 0;
    EXPECT_EQ(select(0, nullptr, nullptr, nullptr, &tv), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(tv.tv_sec, 3);
    EXPECT_EQ(zsim::now(), start + 2);
    EXPECT_EQ(select(0, nullptr, nullptr, nullptr, &tv), 0); /* only one interruption */
    EXPECT_EQ(zsim::now(), start + 5);

    /* An interruption later than the timeout does not happen. */
    zsim::inject_select_eintr(9, 1);
    tv = {1, 0};
    EXPECT_EQ(select(0, nullptr, nullptr, nullptr, &tv), 0);

    /* Descriptors go to the real select: a pipe with data is readable at once. */
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    fd_set rd;
    FD_ZERO(&rd);
    FD_SET(fds[0], &rd);
    tv = {100, 0};
    uint32_t before = zsim::now();
    EXPECT_EQ(select(fds[0] + 1, &rd, nullptr, nullptr, &tv), 1);
    EXPECT_EQ(zsim::now(), before);
    close(fds[0]);
    close(fds[1]);
}

TEST_F(Sim, PathsResolveStepByStep)
{
    struct {
        const char* path;
        int type;
        int no;
    } good[] = {
        {"/SYSTEM#0", COMPO_SYSTEM, 0},          {"/SYSTEM#0/IORC#0/PSUC#0", COMPO_PSUC, 0},
        {"/SYSTEM#0/CMUC#3", COMPO_CMUC, 3},     {"/SYSTEM#0/CMU#1/NODE#3", COMPO_NODE, 3},
        {"/SYSTEM#0/NODE#15", COMPO_NODE, 15},   {"/SYSTEM#0/PSU#17/FRUROM#90", COMPO_FRUROM, 90},
        {"/SYSTEM#0/ROUTER#0", COMPO_ROUTER, 0}, {"/SYSTEM#0/CMU#7/CPU#1/MEM#3", COMPO_MEM, 3},
    };
    for (const auto& g : good) {
        sp::sysobj::TreePath tp(g.path);
        Component* c = tp.getComponent();
        ASSERT_NE(c, nullptr) << g.path;
        EXPECT_EQ(c->getType(), g.type) << g.path;
        EXPECT_EQ(c->getNo(), g.no) << g.path;
    }
    const char* bad[] = {"",
                         "/",
                         "SYSTEM#0",
                         "/SYSTEM#1",
                         "/SYSTEM#0/",
                         "/SYSTEM#0//PSU#1",
                         "/SYSTEM#0/PSU1",
                         "/SYSTEM#0/PSU#x",
                         "/SYSTEM#0/PSU#-1",
                         "/SYSTEM#0/PSU#18",
                         "/SYSTEM#0/XYZ#0",
                         "/SYSTEM#0/MEM#0",
                         "/SYSTEM#0/PSU#1 "};
    for (const char* p : bad) {
        EXPECT_EQ(sp::sysobj::TreePath(p).getComponent(), nullptr) << p;
    }
    EXPECT_EQ(zsim::path_of(zsim::find_path("/SYSTEM#0/CMU#7/CPU#1/MEM#3")), "/SYSTEM#0/CMU#7/CPU#1/MEM#3");
}

TEST_F(Sim, TreeQueriesAndParents)
{
    Component* root = Component::getRoot();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->getComponentId(), 1);

    Component* cmuc = root->getComponent(COMPO_CMUC, 3);
    ASSERT_NE(cmuc, nullptr);
    EXPECT_EQ(cmuc, zsim::component(cmuc->getComponentId())); /* one handle per object */
    std::vector<Component*> nodes;
    cmuc->getParents(COMPO_NODE, nodes);
    ASSERT_EQ(nodes.size(), 2u);
    EXPECT_EQ((std::vector<int>{nodes[0]->getNo(), nodes[1]->getNo()}), (std::vector<int>{6, 7}));
    EXPECT_EQ(cmuc->getParent(), root->getComponent(COMPO_CMU, 3));

    Component* fanu = root->getComponent(COMPO_FANU, 1);
    std::vector<Component*> children;
    fanu->getComponent(children, false);
    ASSERT_EQ(children.size(), 2u);
    EXPECT_EQ(children[1], fanu->getComponent(COMPO_FAN, 1));

    /* Searches look at any depth below, and only below. */
    Component* cmu2 = root->getComponent(COMPO_CMU, 2);
    Component* mem = cmu2->getComponent(COMPO_MEM, 3);
    ASSERT_NE(mem, nullptr);
    EXPECT_EQ(mem->getParent()->getParent(), cmu2);
    EXPECT_EQ(fanu->getComponent(COMPO_MEM, 3), nullptr);
    EXPECT_EQ(root->getComponent(COMPO_PSU, 18), nullptr);

    zsim::remove_component(cmu2->getComponentId());
    EXPECT_EQ(root->getComponent(COMPO_CMU, 2), nullptr);
    EXPECT_EQ(root->getComponent(COMPO_NODE, 4), nullptr);
    EXPECT_EQ(zsim::find_path("/SYSTEM#0/NODE#4"), -1);
}

TEST_F(Sim, RecordsCopyAndZeroFill)
{
    Component* psu = Component::getRoot()->getComponent(COMPO_PSU, 4);
    int oid = psu->getComponentId();
    current_common_info_t common;
    memset(&common, 0xAB, sizeof(common));
    ASSERT_EQ(psu->getProperty(PROP_CURRENT_COMMON_INFO, &common, sizeof(common)), 0);
    EXPECT_EQ(common.status, COMMON_STATUS_INSTALLED);
    EXPECT_EQ(common.emergency_outage, 0);

    const uint8_t bytes[4] = {1, 2, 3, 4};
    EXPECT_EQ(psu->setProperty(PROP_FRU_INFO, bytes, 4), 0);
    uint8_t buf[8];
    memset(buf, 0xEE, sizeof(buf));
    psu->getProperty(PROP_FRU_INFO, buf, sizeof(buf));
    const uint8_t expect_long[8] = {1, 2, 3, 4, 0, 0, 0, 0};
    EXPECT_EQ(memcmp(buf, expect_long, 8), 0);
    memset(buf, 0xEE, sizeof(buf));
    psu->getProperty(PROP_FRU_INFO, buf, 2);
    EXPECT_EQ(buf[1], 2);
    EXPECT_EQ(buf[2], 0xEE); /* nothing past the length given */

    memset(buf, 0xEE, sizeof(buf));
    EXPECT_EQ(psu->getProperty(PROP_SETUP_RCM_INFO, buf, sizeof(buf)), -1);
    EXPECT_EQ(memcmp(buf, "\0\0\0\0\0\0\0\0", 8), 0);
    EXPECT_EQ(psu->setProperty(PROP_FRU_INFO, bytes, 2049), -1);
    EXPECT_EQ(zsim::property_reads(oid), 4);
    EXPECT_EQ(zsim::property_writes(oid), 1);

    auto sys = zsim::get<current_system_info_t>(1, PROP_CURRENT_INFO);
    EXPECT_EQ(sys.available_psu_slots, 17);
    EXPECT_EQ(sys.psu_redandancy_check_enable, 1);
    current_router_hard_info_t router;
    ASSERT_EQ(znlib_DBGetProperty("/SYSTEM#0/ROUTER#15", PROP_CURRENT_HARD_INFO, sizeof(router), &router), 0);
    EXPECT_EQ(router.quordata.phyPort[9].online, 1);
    EXPECT_EQ(znlib_DBGetProperty("/SYSTEM#0/ROUTER#16", PROP_CURRENT_HARD_INFO, sizeof(router), &router),
              -1);
    zsim::fail_db_get_property("/SYSTEM#0", 5);
    EXPECT_EQ(znlib_DBGetProperty("/SYSTEM#0", PROP_SETUP_INFO, 4, buf), 5);
}

TEST_F(Sim, WriteLockExcludesOtherProcesses)
{
    Component* psu = Component::getRoot()->getComponent(COMPO_PSU, 0);
    uint32_t mark = 1;
    psu->writeLock();
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        {
            Component* c = Component::getRoot()->getComponent(COMPO_PSU, 0);
            Component::WriteLock lock(c);
            uint32_t v = 0;
            c->getProperty(PROP_FRU_INFO, &v, sizeof(v));
            v = v * 10 + 2; /* must see the parent's write */
            c->setProperty(PROP_FRU_INFO, &v, sizeof(v));
        }
        _exit(0);
    }
    ASSERT_GT(pid, 0);
    real_pause_ms(200);
    EXPECT_TRUE(zsim::record(psu->getComponentId(), PROP_FRU_INFO).empty()); /* child still waits */
    psu->setProperty(PROP_FRU_INFO, &mark, sizeof(mark));
    psu->writeUnlock();
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(zsim::get<uint32_t>(psu->getComponentId(), PROP_FRU_INFO), 12u);
    EXPECT_TRUE(zsim::lock_violations().empty());

    /* Nesting and stray unlocks are reported, and do not hang. */
    Component* bobc = Component::getRoot()->getComponent(COMPO_BOBC, 0);
    psu->writeLock();
    bobc->writeLock();
    bobc->writeUnlock();
    psu->writeUnlock();
    psu->writeUnlock();
    /* What this process holds is listed; a thread that ends holding a lock is a violation. */
    psu->writeLock();
    OS_THREAD_MUTEX_ACQUIRE_LOCK(&g_BMCInfo[17].SensorSharedMemMutex);
    EXPECT_EQ(zsim::locks_held(),
              (std::vector<std::string>{"the sensor mutex of instance 17",
                                        "the write lock of oid " + std::to_string(psu->getComponentId()) +
                                            " /SYSTEM#0/PSU#0"}));
    OS_THREAD_MUTEX_RELEASE_LOCK(&g_BMCInfo[17].SensorSharedMemMutex);
    psu->writeUnlock();
    std::thread([bobc] { bobc->writeLock(); }).join();
    EXPECT_TRUE(zsim::locks_held().empty());
    auto v = zsim::lock_violations();
    ASSERT_EQ(v.size(), 3u);
    EXPECT_NE(v[0].find("/SYSTEM#0/BOBC#0"), std::string::npos);
    EXPECT_NE(v[1].find("does not hold"), std::string::npos);
    EXPECT_NE(v[2].find("ended holding the write lock of oid"), std::string::npos);
}

/* A holder killed with the lock taken, left a zombie (not reaped): of three
 * waiting processes one takes the lock over, the others follow in turn. */
TEST_F(Sim, WriteLockOfAKilledHolderGoesToOneWaiterAtATime)
{
    Component* psu = Component::getRoot()->getComponent(COMPO_PSU, 0);
    fflush(nullptr);
    pid_t holder = fork();
    if (holder == 0) {
        psu->writeLock();
        kill(getpid(), SIGKILL);
    }
    ASSERT_GT(holder, 0);
    siginfo_t info = {};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(holder), &info, WEXITED | WNOWAIT), 0);
    ASSERT_EQ(info.si_status, SIGKILL);
    struct timespec began;
    clock_gettime(CLOCK_MONOTONIC, &began);
    pid_t waiters[3];
    for (pid_t& w : waiters) {
        w = fork();
        if (w == 0) {
            {
                Component::WriteLock lock(psu);
                uint32_t v = 0;
                psu->getProperty(PROP_FRU_INFO, &v, sizeof(v));
                real_pause_ms(60); /* a second holder at once would lose an increment */
                ++v;
                psu->setProperty(PROP_FRU_INFO, &v, sizeof(v));
            }
            _exit(0);
        }
        ASSERT_GT(w, 0);
    }
    for (pid_t w : waiters) {
        int status = -1;
        ASSERT_EQ(waitpid(w, &status, 0), w);
        EXPECT_EQ(status, 0);
    }
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    EXPECT_LT(now.tv_sec - began.tv_sec, 5); /* a few slices, not a wait bound */
    EXPECT_EQ(zsim::get<uint32_t>(psu->getComponentId(), PROP_FRU_INFO), 3u);
    ASSERT_EQ(waitpid(holder, nullptr, 0), holder);
    /* Free again for this process, which never saw the dead holder. */
    psu->writeLock();
    psu->writeUnlock();
    EXPECT_TRUE(zsim::lock_violations().empty());
}

TEST_F(Sim, BoardRegistersWithInjectedFailures)
{
    uint32_t value = 0x12345678;
    mbc_reg_rw rw;
    memset(&rw, 0, sizeof(rw));
    rw.cabinet = MBC_CABINET_BASE;
    rw.address = 0x030400C4;
    rw.size = 4;
    rw.data = &value;
    ASSERT_EQ(ioctl(global_sbcfd_env, MBC_IOCTL_SP_BOARD_W, &rw), 0);
    EXPECT_EQ(zsim::reg(0, 0x030400C4), 0x12345678u);

    zsim::fail_reg_read(EIO, 1);
    value = 0;
    errno = 0;
    EXPECT_EQ(ioctl(global_sbcfd_env, MBC_IOCTL_SP_BOARD_R, &rw), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(ioctl(global_sbcfd_env, MBC_IOCTL_SP_BOARD_R, &rw), 0);
    EXPECT_EQ(value, 0x12345678u);

    zsim::fail_reg_write(EBUSY, 1);
    value = 7;
    EXPECT_EQ(ioctl(global_sbcfd_env, MBC_IOCTL_SP_BOARD_W, &rw), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(zsim::reg(0, 0x030400C4), 0x12345678u);

    auto acc = zsim::reg_accesses();
    ASSERT_EQ(acc.size(), 2u); /* failed accesses are not recorded */
    EXPECT_TRUE(acc[0].write);
    EXPECT_FALSE(acc[1].write);
    EXPECT_EQ(acc[1].value, 0x12345678u);

    rw.cabinet = MBC_MAX_CABINET;
    EXPECT_EQ(ioctl(global_sbcfd_env, MBC_IOCTL_SP_BOARD_R, &rw), -1);
    EXPECT_EQ(errno, EINVAL);
    /* Any other descriptor reaches the real driver. */
    int fd = open("/dev/null", O_RDONLY);
    errno = 0;
    EXPECT_EQ(ioctl(fd, MBC_IOCTL_SP_BOARD_R, &rw), -1);
    EXPECT_TRUE(errno == ENOTTY || errno == ENOSYS) << errno; /* qemu-user answers ENOSYS */
    EXPECT_EQ(zsim::reg_accesses().size(), 2u);
    close(fd);
}

TEST_F(Sim, TraceLinesAreFormatted)
{
    std::vector<std::string> seen;
    zsim::set_trace_sink([&](const zsim::TraceLine& t) { seen.push_back(t.variant + ":" + t.text); });
    zsim::advance(7);
    sp_trace2(0x8001, T_REGION_POWER_MON, SP_MID_BASE_UTIL, 0x05410301, "a=%d b=0x%04x", 3, 0x2A, 0, 0);
    sp_trace4(0x8002, T_REGION_LIB_UTIL, SP_MID_BASE_UTIL, 0x05410601, "path=%s", "/SYSTEM#0/X#1");
    sp_trace28(1, 40, 30, 0x8010FFFF, "%d/%d/%d/%d/%d/%d/%d/%d", 1, 2, 3, 4, 5, 6, 7, 8);
    IDBG_LINUXAPP_DbgOut(IDBG_LEVEL_LINUXAPP, "[%s:%d]x", "znpdklib_sensor", 12);
    zsim::set_trace_sink(nullptr);

    std::vector<std::string> got;
    char head[96];
    for (const zsim::TraceLine& t : zsim::traces()) {
        snprintf(head, sizeof(head), "%d %d %d %d %08x %u %s:", t.debug, t.level, t.region, t.module, t.id,
                 t.time, t.variant.c_str());
        got.push_back(head + t.text);
    }
    EXPECT_EQ(got, (std::vector<std::string>{"0 32769 40 30 05410301 1767225607 sp_trace2:a=3 b=0x002a",
                                             "0 32770 44 30 05410601 1767225607 sp_trace4:path=/SYSTEM#0/X#1",
                                             "0 1 40 30 8010ffff 1767225607 sp_trace28:1/2/3/4/5/6/7/8",
                                             "1 130 0 0 00000000 1767225607 dbg:[znpdklib_sensor:12]x"}));
    EXPECT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen[3], "dbg:[znpdklib_sensor:12]x");
    EXPECT_EQ(zsim::traces_with_id(0x8010FFFF).size(), 1u);
}

TEST_F(Sim, SensorReadingAndSel)
{
    uint8_t req = 0x81;
    uint8_t res[5];
    zsim::set_sensor_reading(17, 0x81, 0x0304);
    ASSERT_EQ(GetSensorReading(&req, 1, res, 17), 5);
    const uint8_t expect[5] = {0x00, 0x00, 0xC0, 0x04, 0x83};
    EXPECT_EQ(memcmp(res, expect, 5), 0);
    req = 0xF0;
    GetSensorReading(&req, 1, res, 17);
    EXPECT_EQ(res[0], CC_SDR_REC_NOT_PRESENT);
    EXPECT_EQ(GetSensorInfo(0x81, 1, 17), nullptr);
    EXPECT_EQ(GetSensorInfo(0x81, 0, 18), nullptr);
    EXPECT_EQ(zsim::sensor(5, 10).SensorTypeCode, 0xC2);
    EXPECT_EQ(zsim::sensor(5, 46).OEMField, 0x02);

    SELEventRecord_T rec;
    memset(&rec, 0, sizeof(rec));
    rec.SensorNum = 0x81;
    AddSELRes_T out;
    auto add = [&] {
        AddSELEntry(reinterpret_cast<INT8U*>(&rec), 16, reinterpret_cast<INT8U*>(&out), 17);
        return std::vector<int>{out.CompletionCode, out.RecID};
    };
    add();
    EXPECT_EQ(add(), (std::vector<int>{0, 2}));
    zsim::fail_sel_add(true, 0xC5);
    EXPECT_EQ(add(), (std::vector<int>{0xC5, 0}));
    EXPECT_EQ(zsim::sel(17).size(), 2u);
    EXPECT_TRUE(zsim::sel(16).empty());

    zsim::fail_sensor_mutex_lock(4, EDEADLK);
    errno = 0;
    EXPECT_EQ(OS_THREAD_MUTEX_ACQUIRE_LOCK(&g_BMCInfo[4].SensorSharedMemMutex), EDEADLK);
    EXPECT_EQ(errno, EDEADLK);
    EXPECT_EQ(OS_THREAD_MUTEX_ACQUIRE_LOCK(&g_BMCInfo[3].SensorSharedMemMutex), 0);
    EXPECT_EQ(OS_THREAD_MUTEX_RELEASE_LOCK(&g_BMCInfo[3].SensorSharedMemMutex), 0);
}

TEST_F(Sim, ProceduresDispatchToScriptsBeforeModels)
{
    zsim::detail::set_builtin_hap("SIM_T_DISPATCH", "",
                                  [](const zsim::HapCall&, uint32_t* d, splog_info*, splog_linkup_info*) {
                                      if (d != nullptr) {
                                          d[0] = 111;
                                      }
                                      return 0;
                                  });
    uint32_t para[4] = {0xA00, 0xA00, 0xA00, 0xF};
    uint32_t data[2] = {0, 0};
    EXPECT_EQ(znlib_hce_exechap("/SYSTEM#0/BOBC#0", "SIM_T_DISPATCH", "READ_FANSPEED", para, data), 0);
    EXPECT_EQ(data[0], 111u);
    zsim::script_hap("SIM_T_DISPATCH", "READ_FANSPEED",
                     [](const zsim::HapCall& c, uint32_t*, splog_info* li, splog_linkup_info*) {
                         if (li != nullptr) {
                             strcpy(li->ras_code, "X");
                         }
                         return c.with_log ? -5 : -6;
                     });
    splog_info li;
    splog_linkup_info ll;
    memset(&li, 0, sizeof(li));
    EXPECT_EQ(znlib_hce_exechap_noerrlogregist_withlinklog("/SYSTEM#0/BOBC#0", "SIM_T_DISPATCH",
                                                           "READ_FANSPEED", para, data, &li, &ll),
              -5);
    EXPECT_STREQ(li.ras_code, "X");
    ll.log_id = 77;
    zsim::advance(3);
    EXPECT_EQ(znpdklib_log_save_sel_error_log(&li, &ll), 0);
    auto logs = zsim::ras_logs();
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(memcmp(&logs[0].info, &li, sizeof(li)), 0);
    EXPECT_EQ(logs[0].link.log_id, 77u);
    EXPECT_EQ(logs[0].time, 1767225603u);
    EXPECT_EQ(znlib_hce_exechap("/SYSTEM#0/BOBC#0", "SIM_T_DISPATCH", "SET", nullptr, data), 0);
    zsim::clear_hap_scripts();
    data[0] = 0;
    EXPECT_EQ(znlib_hce_exechap("/SYSTEM#0/BOBC#0", "SIM_T_DISPATCH", "READ_FANSPEED", para, data), 0);
    EXPECT_EQ(data[0], 111u);
    EXPECT_EQ(znlib_hce_exechap("T", "BOB_R_BOBC_PSUC", "READ", para, nullptr), 0);
    EXPECT_EQ(znlib_hce_exechap("T", "OTHER", "M", para, nullptr), 0);

    auto calls = zsim::hap_calls();
    ASSERT_EQ(calls.size(), 6u);
    EXPECT_EQ(calls[0].para, std::vector<uint32_t>({0xA00}));
    EXPECT_TRUE(calls[1].with_log);
    EXPECT_TRUE(calls[2].para.empty());
    EXPECT_EQ(calls[4].para, std::vector<uint32_t>({0xA00, 0xA00, 0xA00, 0xF}));
    EXPECT_EQ(calls[5].para.size(), 1u);
}

TEST_F(Sim, PlatformAnswersOfTheDefaultMachine)
{
    zsim::set_psu_ctlinfo(2, 256, 0xFF00);
    uint32_t info[5] = {~0u, ~0u, ~0u};
    const int rc[] = {znlib_psu_ctlinfo(13, &info[0]), znlib_psu_ctlinfo(8, &info[1]),
                      znlib_psu_ctlinfo(9, &info[2]), znlib_psu_ctlinfo(18, &info[3]),
                      znlib_psu_ctlinfo(2, &info[4])};
    EXPECT_EQ(std::vector<int>(rc, rc + 5), (std::vector<int>{0, 0, 0, -1, 256}));
    EXPECT_EQ(std::vector<uint32_t>(info, info + 3), (std::vector<uint32_t>{0x100, 0x200, 0}));
    EXPECT_EQ(znlib_led_read(COMPO_SYSTEM, 0, 1, 0), 1);
    EXPECT_EQ(znlib_led_control(COMPO_SYSTEM, 0, 1, 3), 0);
    EXPECT_EQ(zsim::led(COMPO_SYSTEM, 0, 1), 3);
    zsim::fail_led_read(true, 0);
    EXPECT_EQ(znlib_led_read(COMPO_SYSTEM, 0, 1, 0), 0);
    EXPECT_EQ(znlib_getLogic2PhysicPortNo(4, 7), 7);
    zsim::set_port_map(4, 7, 2);
    EXPECT_EQ(znlib_getLogic2PhysicPortNo(4, 7), 2);

    splog_clear_sensor_list l[4];
    EXPECT_EQ(znlib_log_get_clear_sensor_list(17, 179, l), 0);
    EXPECT_EQ(l[LOG_CLEAR_PARENT].fru_sensor, 35);
    EXPECT_EQ(l[LOG_CLEAR_BOB].fru_sensor, 33);
    EXPECT_EQ(l[LOG_CLEAR_EVEN_NODE].valid, 0);
    znlib_log_get_clear_sensor_list(17, 100, l);
    EXPECT_EQ(l[LOG_CLEAR_PARENT].valid, 0);
    EXPECT_EQ(zsim::clear_sensor_list_calls(), 2);

    sem_t* s = _znlib_sem_open("/filelock_snsdata17", 0);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(_znlib_sem_open("/filelock_snsdata17", 0), s);
    EXPECT_NE(_znlib_sem_open("/filelock_snsdata16", 0), s);
    EXPECT_EQ(_znlib_sem_lock(s, "/filelock_snsdata17", 0), 0);
    const std::vector<zsim::TakenSemaphore> taken = zsim::semaphores_taken();
    ASSERT_EQ(taken.size(), 1u);
    EXPECT_EQ(taken[0].name, "/filelock_snsdata17");
    EXPECT_EQ(taken[0].pid, getpid());
    EXPECT_EQ(ztest::run_in_child([] { /* held by the parent: another process cannot take it */
                                       sem_t* c = _znlib_sem_open("/filelock_snsdata17", 0);
                                       return c != nullptr && sem_trywait(c) == -1 && errno == EAGAIN ? 0 : 1;
              }),
              0);
    EXPECT_EQ(_znlib_sem_unlock(s, "/filelock_snsdata17", 0), 0);
    EXPECT_TRUE(zsim::semaphores_taken().empty());
    zsim::fail_sem_lock(11);
    EXPECT_EQ(_znlib_sem_lock(s, "/filelock_snsdata17", 0), 11);
    EXPECT_EQ(znlib_sem_close(s), 0);
    zsim::fail_sem_open(true);
    EXPECT_EQ(_znlib_sem_open("/filelock_snsdata17", 0), nullptr);

    EXPECT_EQ(sputil_ntz16(0), 16);
    EXPECT_EQ(sputil_ntz16(0x8000), 15);
    EXPECT_EQ(getSPFilePath("/tmp/x"), make_root() + "/tmp/x");
    EXPECT_TRUE(sp::util::file::FileCheck::exist("/tmp/.boot"));
    EXPECT_FALSE(sp::util::file::FileCheck::exist("/tmp/.boot/.acon"));
    EXPECT_EQ(zsim::library_threads_running(), 0);
}

TEST_F(Sim, SensorStatesByKindOfSensor)
{
    using R = zsim::StateRule;
    struct Case {
        int inst;
        uint8_t num;
        R rule;
        uint16_t defined;
        uint16_t start;
    };
    const Case cases[] = {
        {17, 129, R::One, 0x000E, 0x0002}, {17, 0, R::Flags, 0x0001, 0x0001},   /* redundancy, power */
        {17, 55, R::One, 0x00FF, 0x0002},  {17, 182, R::One, 0x03FF, 0x0001},   /* PSU FRU, FRUE */
        {17, 4, R::AtMostOne, 0xFFFF, 1},  {17, 111, R::Flags, 0x054F, 0x0001}, /* maintenance, PSU */
        {17, 91, R::One, 0x7FFF, 0x0002},  {17, 230, R::Unchecked, 0, 0},       /* table, fan monitor */
        {1, 1, R::One, 0x7FFF, 0x0001},    {2, 1, R::Unchecked, 0, 0},          /* CMU sensor: odd only */
        {5, 86, R::Flags, 0x0003, 0},      {5, 80, R::One, 0x0007, 0x0001},     /* port offline, status */
        {5, 2, R::One, 0x7FFF, 0x0001},    {17, 250, R::Unchecked, 0, 0},       /* node pass; absent */
    };
    for (const Case& c : cases) {
        const zsim::SensorStates st = zsim::sensor_states(c.inst, c.num);
        EXPECT_EQ(st.rule, c.rule) << c.inst << "/" << int(c.num);
        EXPECT_EQ(st.defined, c.defined) << c.inst << "/" << int(c.num);
        EXPECT_EQ(st.start, c.start) << c.inst << "/" << int(c.num);
    }
}

TEST_F(Sim, AttachedProcessSharesRecordsClockAndRegisters)
{
    zsim::set_reg(0, 0x020400C0, 0x5A);
    int psu = zsim::find(COMPO_PSU, 9);
    EXPECT_EQ(ztest::run_in_child([&] {
                  zsim::attach(make_root());
                  bool ok = zsim::reg(0, 0x020400C0) == 0x5A && zsim::find(COMPO_PSU, 9) == psu &&
                            zsim::sensor(17, 0x81).SensorTypeCode == 0; /* sensors are per process */
                  sleep(30);
                  zsim::set_reg(0, 0x020400C0, 0xA5);
                  uint8_t b = 9;
                  zsim::component(psu)->setProperty(PROP_FRU_INFO, &b, 1);
                  return ok ? 0 : 1;
              }),
              0);
    EXPECT_EQ(zsim::now(), 1767225630u);
    EXPECT_EQ(zsim::reg(0, 0x020400C0), 0xA5u);
    EXPECT_EQ(zsim::record(psu, PROP_FRU_INFO), std::vector<uint8_t>({9}));
    EXPECT_EQ(zsim::sensor(17, 0x81).SensorTypeCode, 0x08); /* our own table is untouched */
}

TEST_F(Sim, InitKeepsFilesAndCountsThreads)
{
    zsim::write_text("/var/nvrdisk/keep", "abc");
    zsim::init(make_root());
    EXPECT_EQ(zsim::read_file("/var/nvrdisk/keep"), std::vector<uint8_t>({'a', 'b', 'c'}));
    EXPECT_EQ(zsim::find(COMPO_PSU, 0), -1); /* the machine itself is new */
    EXPECT_EQ(zsim::find(COMPO_SYSTEM, 0), 1);
    zsim::remove_file("/var/nvrdisk/keep");
    EXPECT_FALSE(zsim::file_exists("/var/nvrdisk/keep"));
    EXPECT_TRUE(zsim::read_file("/var/nvrdisk/keep").empty());

    std::atomic<bool> go{false};
    std::thread t([&] {
        while (!go) {
            real_pause_ms(1);
        }
    });
    EXPECT_EQ(zsim::library_threads_running(), 1);
    EXPECT_FALSE(zsim::wait_library_threads(20));
    go = true;
    t.join();
    EXPECT_TRUE(zsim::wait_library_threads(2000));
}
