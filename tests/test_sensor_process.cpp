/* The sensor save area across processes: set-up, sharing, restarts. This
 * process never sets the area up itself; every case runs in children. */
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "sensor_test_util.h"

using sensortest::dbg;
using sensortest::def;
using sensortest::kSave;
using Bytes = std::vector<uint8_t>;
using ztest::TempRoot;

namespace {

/* Runs `body` in a child; its gtest failures print there and fail here. */
void in_child(const std::function<void()>& body)
{
    EXPECT_EQ(ztest::run_in_child([&] {
                  body();
                  return ::testing::Test::HasFailure() ? 1 : 0;
              }),
              0);
}

Bytes pattern(size_t n, uint8_t salt)
{
    Bytes v(n);
    for (size_t i = 0; i < n; ++i) {
        v[i] = static_cast<uint8_t>(i * 13 + salt);
    }
    return v;
}

Bytes area()
{
    Bytes a(1024);
    znpdklib_Various_sharemem_read(a.data());
    return a;
}

TEST(SensorProcess, AreaWithoutSaveFileIsPrivateToTheProcess)
{
    TempRoot root;
    in_child([&] {
        zsim::init(root.path);
        const Bytes mine = pattern(1024, 5), other = pattern(1024, 9);
        EXPECT_EQ(area(), Bytes(1024));
        znpdklib_Various_sharemem_write(const_cast<uint8_t*>(mine.data()));
        in_child([&] { znpdklib_Various_sharemem_write(const_cast<uint8_t*>(other.data())); });
        def(17, 3, 0);
        EXPECT_EQ(znpdklib_SetSensorWoS(3, 1, 0, 17), 0xFF); /* not set up yet */
        ASSERT_EQ(mkdir(zsim::file_path(kSave, true).c_str(), 0700), 0);
        ZNAPI_MemSensorAreaInit(); /* the save file cannot be opened */
        EXPECT_EQ(ZNAPI_MemSensorInfoRecover(17), -1);
        EXPECT_EQ(area(), mine);
        EXPECT_EQ(zsim::sensor(17, 3).SensorReading, 0x0001);
        EXPECT_EQ(dbg(), (std::vector<std::string>{
                             "ZNAPI_MemSensorInfoWrite Error at save area invalid BMCInst:17",
                             "znpdklib_SetSensorWoS Error sns:3 dir:1 bit:0x0 BMCInst:17",
                             "ZNAPI_MemSensorInfoRecover Error at save area invalid BMCInst:17"}));
    });
}

TEST(SensorProcess, TwoProcessesWriteTheSameInstance)
{
    TempRoot root;
    in_child([&] {
        zsim::init(root.path);
        zsim::file_path(kSave, true);
        ZNAPI_MemSensorAreaInit();
    });
    pid_t writers[2];
    for (int w = 0; w < 2; ++w) {
        fflush(nullptr);
        if ((writers[w] = fork()) == 0) {
            zsim::attach(root.path);
            ZNAPI_MemSensorAreaInit();
            int rc = 0;
            for (int num = w; num < 256; num += 2) {
                def(17, static_cast<uint8_t>(num), 0);
            }
            for (int bit = 4 * w; bit < 4 * w + 4; ++bit) {
                for (int num = w; num < 256; num += 2) {
                    rc |= znpdklib_SetSensorWoS(static_cast<uint8_t>(num), 1, static_cast<uint8_t>(bit), 17);
                }
            }
            _exit(rc);
        }
    }
    for (pid_t pid : writers) {
        int status = -1;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    zsim::attach(root.path);
    Bytes f = zsim::read_file(kSave);
    ASSERT_EQ(f.size(), 18432u);
    for (int num = 0; num < 256; ++num) {
        const uint8_t* e = &f[17 * 1024 + num * 4];
        EXPECT_EQ(Bytes(e, e + 4), (Bytes{uint8_t(num % 2 ? 0xF0 : 0x0F), 0, 0x5A, 0xA5})) << num;
    }
}

/* A platform file's path is used while it fits its 512-byte buffer with the
 * final NUL: with a root one character longer the AC marker is not found. */
TEST(SensorProcess, PlatformPathsUpToTheirBufferSize)
{
    TempRoot root;
    for (size_t len : {495, 496}) {
        in_child([&] {
            std::string top = root.path;
            while (top.size() + 200 < len) {
                top += "/" + std::string(199, 'r');
            }
            zsim::init(top + "/" + std::string(len - top.size() - 1, 'r'));
            ZNAPI_MemSensorAreaInit(); /* the save file's path does not fit: no area */
            zsim::write_text("/tmp/.boot/.acon", "");
            EXPECT_EQ(ZNAPI_MemSensorInfoRecover(17), len == 495 ? 0 : -1);
        });
    }
}

/* A save file left short is extended without losing its bytes; what one
 * process saved is put back by the next one after a restart. */
TEST(SensorProcess, ShortSaveFileSurvivesAndRestartRestoresEverySensor)
{
    TempRoot root;
    const Bytes head = pattern(3000, 1), flags = pattern(1024, 7);
    in_child([&] {
        zsim::init(root.path);
        zsim::file_path(kSave, true);
        zsim::write_file(kSave, head);
        for (int num = 0; num < 256; ++num) {
            def(17, static_cast<uint8_t>(num), 0xFFFF);
        }
        ZNAPI_MemSensorAreaInit();
        EXPECT_EQ(area(), Bytes(head.begin(), head.begin() + 1024));
        for (int num = 0; num < 256; ++num) {
            ASSERT_EQ(znpdklib_exSetSensorWoS(static_cast<uint8_t>(num), static_cast<uint8_t>(num % 16), 17),
                      0);
        }
        znpdklib_Various_sharemem_write(const_cast<uint8_t*>(flags.data()));
        const Bytes f = zsim::read_file(kSave);
        ASSERT_EQ(f.size(), 18432u);
        EXPECT_EQ(Bytes(f.begin(), f.begin() + 1024), flags);
        EXPECT_TRUE(std::equal(head.begin() + 1024, head.end(), f.begin() + 1024));
        EXPECT_TRUE(std::all_of(f.begin() + 3000, f.begin() + 17 * 1024, [](uint8_t b) { return b == 0; }));
    });
    in_child([&] {
        zsim::attach(root.path);
        ZNAPI_MemSensorAreaInit();
        zsim::write_text("/tmp/.boot/.acon", "");
        EXPECT_EQ(ZNAPI_MemSensorInfoRecover(17), 0);
        EXPECT_EQ(g_BMCInfo[17].SensorSharedMem.SensorInfo[1].SensorReading, 0);
        zsim::remove_file("/tmp/.boot/.acon");
        EXPECT_EQ(ZNAPI_MemSensorInfoRecover(17), 0);
        EXPECT_EQ(ZNAPI_MemSensorInfoRecover(1), 0);
        for (int num = 0; num < 256; ++num) {
            const SensorInfo_T& s = g_BMCInfo[17].SensorSharedMem.SensorInfo[num];
            const SensorInfo_T& h = g_BMCInfo[1].SensorSharedMem.SensorInfo[num];
            const uint8_t* e = &head[1024 + 4 * num];
            const int want = 1 << (num % 16), hw = e[0] | e[1] << 8;
            EXPECT_EQ((std::vector<int>{s.SensorReading, s.PreviousState, s.EventFlags, s.EventLevel,
                                        h.SensorReading, h.PreviousState, h.EventFlags, h.EventLevel}),
                      (std::vector<int>{want, want, 0x5A, 0xA5, hw, hw, e[2], e[3]}))
                << num;
        }
        EXPECT_EQ(area(), flags);
    });
}

} // namespace
