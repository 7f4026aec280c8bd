/* Lifecycle of the simulated machine: root, shared mapping, files, models. */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "sim_internal.h"
#include "sputil.h"

namespace zsim {
namespace internal {

namespace {

const uint32_t kMagic = 0x5A53494Du; /* "ZSIM" */

std::mutex g_root_mutex;
std::string g_root;
Shared* g_shared = nullptr;
size_t g_shared_size = 0;
std::atomic<int> g_thread_baseline{0};
constexpr int kResetWaitMs = 5000;

struct Model {
    std::string name;
    std::function<void()> on_reset;
};

std::vector<Model>& models()
{
    static std::vector<Model> list;
    return list;
}

std::mutex& models_mutex()
{
    static std::mutex m;
    return m;
}

void make_dirs(const std::string& path)
{
    std::string cur;
    size_t pos = 0;
    while (pos != std::string::npos) {
        size_t next = path.find('/', pos + 1);
        cur = path.substr(0, next);
        if (!cur.empty()) {
            mkdir(cur.c_str(), 0777);
        }
        pos = next;
    }
}

int count_tasks()
{
    DIR* d = opendir("/proc/self/task");
    if (d == nullptr) {
        return 0;
    }
    int n = 0;
    while (struct dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') {
            ++n;
        }
    }
    closedir(d);
    return n;
}

/* Maps <root>/.znpdk-sim/db, growing the file to the mapping's size. */
Shared* map_shared(const std::string& root)
{
    std::string dir = root + "/.znpdk-sim";
    make_dirs(dir);
    std::string file = dir + "/db";
    int fd = open(file.c_str(), O_RDWR | O_CREAT, 0666);
    if (fd < 0) {
        return nullptr;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || static_cast<size_t>(st.st_size) < sizeof(Shared)) {
        if (ftruncate(fd, static_cast<off_t>(sizeof(Shared))) != 0) {
            close(fd);
            return nullptr;
        }
    }
    void* p = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (p == MAP_FAILED) {
        return nullptr;
    }
    return static_cast<Shared*>(p);
}

void reset_shared(Shared* s)
{
    /* Everything up to the record slots; a slot is cleared when handed out. */
    memset(s, 0, offsetof(Shared, slots)); /* the locks too: free */
    s->clock = kEpoch;
    s->size = static_cast<uint32_t>(sizeof(Shared));
    reset_db_shared(s);
    s->magic = kMagic;
}

/* Runtimes that start a helper thread lazily at the first thread creation
 * (ThreadSanitizer's background thread) start it here, before the baseline
 * is taken, so it never counts as a library thread. */
void settle_runtime_threads()
{
    static const bool settled = [] {
        long tid = 0;
        std::thread([&tid] { tid = syscall(SYS_gettid); }).join();
        /* A joined thread can still be listed for a moment (qemu-user):
         * wait until it is gone, or it would count in the baseline. */
        const std::string task = "/proc/self/task/" + std::to_string(tid);
        struct stat st;
        for (int i = 0; i < 2000 && stat(task.c_str(), &st) == 0; ++i) {
            struct timespec pause = {0, 500000L};
            nanosleep(&pause, nullptr);
        }
        return true;
    }();
    (void)settled;
}

void reset_process_local()
{
    reset_kill_points();
    reset_ipmi();
    reset_db_local();
    reset_znlib();
    reset_trace();
    reset_driver();
    reset_clock_local();
    run_model_hooks();
    settle_runtime_threads();
    g_thread_baseline = count_tasks();
}

void start(const std::string& root, bool fresh)
{
    /* A check thread of the previous machine still running would see the
     * sensor tables and mutexes reset under it: let it end first (bounded,
     * a thread the caller keeps running must not hang the reset). */
    if (g_shared != nullptr) {
        wait_library_threads(kResetWaitMs);
        /* A detached thread is never joined: taking every lock that such a
         * thread releases last orders its last accesses before the reset. */
        {
            MetaLock lock;
        }
        reset_trace();
        reset_znlib();
        reset_ipmi();
        reset_driver();
        reset_clock_local();
    }
    make_dirs(root);
    make_dirs(root + "/var/nvrdisk/current/sensor");
    make_dirs(root + "/tmp/.boot");
    {
        std::lock_guard<std::mutex> lock(g_root_mutex);
        if (g_shared == nullptr || g_root != root) {
            if (g_shared != nullptr) {
                munmap(g_shared, g_shared_size);
                g_shared = nullptr;
            }
            g_shared = map_shared(root);
            g_shared_size = sizeof(Shared);
        }
        g_root = root;
    }
    if (g_shared == nullptr) {
        abort(); /* nothing of the machine can work without its mapping */
    }
    if (fresh || g_shared->magic != kMagic || g_shared->size != sizeof(Shared)) {
        reset_shared(g_shared);
    }
    open_board_device();
    reset_process_local();
}

} // namespace

Shared* shared()
{
    return g_shared;
}

MetaLock::MetaLock() : held_(false)
{
    Shared* s = shared();
    if (s != nullptr) {
        held_ = lock_shared(&s->meta, 0) == 0;
    }
}

MetaLock::~MetaLock()
{
    if (held_) {
        unlock_shared(&shared()->meta);
    }
}

void run_model_hooks()
{
    std::vector<Model> copy;
    {
        std::lock_guard<std::mutex> lock(models_mutex());
        copy = models();
    }
    for (const Model& m : copy) {
        if (m.on_reset) {
            m.on_reset();
        }
    }
}

} // namespace internal

namespace detail {

void register_model(const std::string& name, std::function<void()> on_reset)
{
    std::lock_guard<std::mutex> lock(internal::models_mutex());
    for (internal::Model& m : internal::models()) {
        if (m.name == name) {
            m.on_reset = std::move(on_reset);
            return;
        }
    }
    internal::models().push_back({name, std::move(on_reset)});
}

} // namespace detail

void init(const std::string& root)
{
    internal::start(root, true);
}

void attach(const std::string& root)
{
    internal::start(root, false);
}

std::string root()
{
    std::lock_guard<std::mutex> lock(internal::g_root_mutex);
    return internal::g_root;
}

int library_threads_running()
{
    int n = internal::count_tasks() - internal::g_thread_baseline;
    return n > 0 ? n : 0;
}

void rebase_library_threads()
{
    internal::g_thread_baseline = internal::count_tasks();
}

bool wait_library_threads(int timeout_ms)
{
    /* Real time: the virtual clock does not move while threads finish. */
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        if (library_threads_running() == 0) {
            return true;
        }
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        long elapsed = (now.tv_sec - start.tv_sec) * 1000L + (now.tv_nsec - start.tv_nsec) / 1000000L;
        if (elapsed >= timeout_ms) {
            return false;
        }
        struct timespec pause = {0, 1000000L};
        nanosleep(&pause, nullptr);
    }
}

std::string file_path(const std::string& path, bool mkdirs)
{
    std::string full = root();
    if (path.empty() || path[0] != '/') {
        full += '/';
    }
    full += path;
    if (mkdirs) {
        size_t slash = full.rfind('/');
        if (slash != std::string::npos && slash > 0) {
            internal::make_dirs(full.substr(0, slash));
        }
    }
    return full;
}

void write_file(const std::string& path, const std::vector<uint8_t>& bytes)
{
    std::string full = file_path(path, true);
    int fd = open(full.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd < 0) {
        return;
    }
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n <= 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    close(fd);
}

void write_text(const std::string& path, const std::string& text)
{
    write_file(path, std::vector<uint8_t>(text.begin(), text.end()));
}

std::vector<uint8_t> read_file(const std::string& path)
{
    std::vector<uint8_t> out;
    int fd = open(file_path(path).c_str(), O_RDONLY);
    if (fd < 0) {
        return out;
    }
    uint8_t buf[4096];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0) {
            break;
        }
        out.insert(out.end(), buf, buf + n);
    }
    close(fd);
    return out;
}

bool file_exists(const std::string& path)
{
    struct stat st;
    return stat(file_path(path).c_str(), &st) == 0;
}

void remove_file(const std::string& path)
{
    unlink(file_path(path).c_str());
}

} // namespace zsim

/* ---- Platform utilities ------------------------------------------------- */

extern "C" int sputil_ntz16(uint16_t value)
{
    if (value == 0) {
        return 16;
    }
    int n = 0;
    while ((value & 1u) == 0) {
        value = static_cast<uint16_t>(value >> 1);
        ++n;
    }
    return n;
}

std::string getSPRoot()
{
    return zsim::root();
}

std::string getSPFilePath(const std::string& filePath)
{
    return getSPRoot() + filePath;
}

namespace sp {
namespace util {
namespace file {
bool FileCheck::exist(const std::string& path_)
{
    struct stat st;
    return stat(getSPFilePath(path_).c_str(), &st) == 0;
}
} // namespace file
} // namespace util
} // namespace sp
