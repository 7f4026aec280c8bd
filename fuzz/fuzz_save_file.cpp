/* A sensor save file of any size and content, set up and recovered into
 * every instance's sensor table. The area is set up once per process, so
 * each input runs in a child; a crash there aborts the parent. */
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include <vector>

#include "fuzz_support.h"
#include "znpdklib.h"

namespace {

constexpr int kInstances = 18;
constexpr size_t kFileSize = 18432;

int recover_and_check(const std::vector<uint8_t>& file)
{
    ZNAPI_MemSensorAreaInit();
    /* Whatever the file held, the area covers the whole layout: short files
     * read as zeros past their end, longer ones keep their tail. */
    std::vector<uint8_t> now = zsim::read_file("/var/nvrdisk/current/sensor/snsdata");
    zfuzz::expect(now.size() == (file.size() > kFileSize ? file.size() : kFileSize), "save file size");
    for (size_t i = 0; i < now.size(); ++i) {
        zfuzz::expect(now[i] == (i < file.size() ? file[i] : 0), "save file bytes kept");
    }
    for (int inst = 0; inst < kInstances; ++inst) {
        zfuzz::expect(ZNAPI_MemSensorInfoRecover(inst) == 0, "recovery result");
        const SensorInfo_T* table = g_BMCInfo[inst].SensorSharedMem.SensorInfo;
        for (size_t s = 0; s < 256; ++s) {
            const uint8_t* e = &now[static_cast<size_t>(inst) * 1024 + s * 4];
            const uint16_t reading = static_cast<uint16_t>(e[0] | e[1] << 8);
            zfuzz::expect(table[s].SensorReading == reading && table[s].PreviousState == reading &&
                              table[s].EventFlags == e[2] && table[s].EventLevel == e[3],
                          "recovered entry");
        }
    }
    for (int inst : {-1, 18, 255}) {
        zfuzz::expect(ZNAPI_MemSensorInfoRecover(inst) == -1, "recovery of a wild instance");
    }
    return 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool ready = (zsim::init(zfuzz::root()), zsim::build_default_machine(), true);
    (void)ready;
    /* An empty input stands for a missing file. */
    const std::vector<uint8_t> file(data, data + size);
    zsim::remove_file("/tmp/.boot/.acon");
    if (size == 0) {
        zsim::remove_file("/var/nvrdisk/current/sensor/snsdata");
    } else {
        zsim::write_file("/var/nvrdisk/current/sensor/snsdata", file);
    }
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(recover_and_check(file));
    }
    zfuzz::expect(pid > 0, "child started");
    int status = 0;
    pid_t got;
    do { /* libFuzzer's time-out alarm interrupts the wait */
        got = waitpid(pid, &status, 0);
    } while (got < 0 && errno == EINTR);
    zfuzz::expect(got == pid, "child waited for");
    zfuzz::expect(WIFEXITED(status) && WEXITSTATUS(status) == 0, "child ended cleanly");
    return 0;
}
