/*
 * Library operations on the simulated machine, each beside its floor: the
 * platform calls it made, replayed without the library, plus the file work
 * it must do. Counters: allocs (heap allocations per call, platform's
 * included; the floor's show the platform's share).
 *
 *   znpdk-bench [--smoke] [--table] [--count=N] [benchmark flags]
 *     --smoke: every case once; --table: one table at the end (fastest
 *     repetition of each case), instead of the usual report; --count=N:
 *     under callgrind, the instructions of N calls of each case and floor
 *     (scripts/bench.sh --check).
 */
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform_calls.h"
#include "znpdk_sim/sim.h"
#include "znpdklib.h"

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#define ZB_CALLGRIND 1
#else
#define ZB_CALLGRIND 0
#endif

namespace {

constexpr int kChassis = 17;
constexpr INT8U kPlainSensor = 0x49;     /* FRUE Environment, instance 17 */
constexpr INT8U kExclusiveSensor = 0x81; /* PSU redundancy, instance 17 */
constexpr INT8U kNodeSensor = 10;        /* node FRU error status, node instances */
constexpr size_t kEscFileSize = 4096;

/* A page of a file mapped shared, holding the floor's stored word, the
 * bare floor's semaphore and a saved instance's 256 entries. */
struct SharedPage {
    uint32_t word;
    sem_t sem;
    uint32_t saved[256];
};
static_assert(sizeof(SharedPage) <= 4096, "one page");
SharedPage* g_page = nullptr;
pthread_mutex_t g_bare_mutex = PTHREAD_MUTEX_INITIALIZER;

void die(const char* what)
{
    perror(what);
    exit(1);
}

void map_shared_page()
{
    const int fd =
        open(zsim::file_path("/bench/shared_page", true).c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd < 0 || ftruncate(fd, 4096) != 0) {
        die("znpdk-bench: shared page");
    }
    void* p = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (p == MAP_FAILED) {
        die("znpdk-bench: mmap");
    }
    g_page = static_cast<SharedPage*>(p);
    sem_init(&g_page->sem, 1, 1);
}

/* Keeps the simulated platform's logs from growing without end. */
void housekeeping()
{
    zsim::clear_traces();
    for (int i = 0; i < BMC_INSTANCE_COUNT; ++i) {
        zsim::clear_sel(i);
    }
    zsim::clear_hap_calls();
    zsim::clear_ras_logs();
    zsim::clear_reg_accesses();
}

std::string esc_path(int inst)
{
    char rel[64];
    snprintf(rel, sizeof(rel), "/var/nvrdisk/current/sensor/esctable_inst%02d", inst);
    return zsim::file_path(rel, true);
}

/* Reads one escalation file whole, as the library must. */
void read_esc_file(const std::string& path)
{
    uint8_t image[kEscFileSize];
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd >= 0) {
        ssize_t got = read(fd, image, sizeof(image));
        benchmark::DoNotOptimize(got);
        close(fd);
    }
    benchmark::DoNotOptimize(image);
}

/* The file work an escalation build must do at the least: snapshot the
 * table and read the file it keeps (an unchanged table need not be written;
 * a library that always writes pays that beside this floor). */
std::function<void()> escalation_file_work(int inst)
{
    return [inst, path = esc_path(inst)] {
        static SensorSharedMem_T snap;
        memcpy(&snap, &g_BMCInfo[inst].SensorSharedMem, sizeof(snap));
        benchmark::DoNotOptimize(snap);
        read_esc_file(path);
    };
}

void build_all_escalation_tables()
{
    for (int i = 1; i <= kChassis; ++i) {
        znpdklib_make_escalation_info(i);
    }
}

/* Every entry of every file names node instance 5's sensor 10; with
 * `distinct`, each row's odd-node entry instead names an instance of its
 * own outside 0..17, so no two rows are alike. */
void write_matching_tables(bool distinct)
{
    std::vector<uint8_t> image(kEscFileSize);
    for (size_t k = 0; k < image.size(); k += 4) {
        const bool odd_node = k / 4 % 4 == LOG_CLEAR_ODD_NODE;
        image[k] = 1;
        image[k + 1] = distinct && odd_node ? static_cast<uint8_t>(20 + k / 16 % 100) : 5;
        image[k + 2] = kNodeSensor;
        image[k + 3] = kNodeSensor;
    }
    for (int i = 1; i <= kChassis; ++i) {
        zsim::write_file(esc_path(i).substr(zsim::root().size()), image);
    }
}

/* One search; its result counts (frue, esc). */
std::pair<int, int> search(Esc_Sensor_t query)
{
    Esc_Table_t out;
    znpdklib_get_escalation_info(&query, &out);
    free(out.frue_list);
    free(out.esc_list);
    return {out.frue_count, out.esc_count};
}

/* The caller-owned result lists a search hands back, each entry stored:
 * storing thousands of results is work the reads alone do not show. */
void result_lists(int frue, int esc)
{
    auto* a =
        static_cast<Esc_Sensor_t*>(malloc(static_cast<size_t>(std::max(frue, 1)) * sizeof(Esc_Sensor_t)));
    auto* b =
        static_cast<Esc_Sensor_t*>(malloc(static_cast<size_t>(std::max(esc, 1)) * sizeof(Esc_Sensor_t)));
    for (int i = 0; i < frue; ++i) {
        a[i] = {0xFF, i >> 8, i & 0xFF};
    }
    for (int i = 0; i < esc; ++i) {
        b[i] = {i & 3, i, i};
    }
    benchmark::DoNotOptimize(a);
    benchmark::DoNotOptimize(b);
    benchmark::ClobberMemory();
    free(a);
    free(b);
}

/* What a run of platform calls leaves behind: trace texts, SEL records,
 * procedures run and RAS logs. */
std::string trail()
{
    std::string t;
    for (const zsim::TraceLine& l : zsim::traces()) {
        t += l.text + "\n";
    }
    for (int i = 0; i < BMC_INSTANCE_COUNT; ++i) {
        t += "sel " + std::to_string(zsim::sel(i).size()) + "\n";
    }
    for (const zsim::HapCall& h : zsim::hap_calls()) {
        t += h.target + " " + h.procedure + " " + h.mode + "\n";
    }
    return t + "ras " + std::to_string(zsim::ras_logs().size());
}

bool g_replay_differs = false;

struct Case {
    std::string name;
    std::function<void()> op;
    std::function<void()> file_work{}; /* beside the replayed calls in the floor */
    std::function<void()> setup{};     /* before each run of op and floor */
    int every = 1024;                  /* iterations between housekeeping */
};

/* Times `body`, housekeeping every c.every iterations outside the timing;
 * allocs counts the body's allocations only. */
void run_loop(benchmark::State& state, const Case& c, const std::function<void()>& body)
{
    const uint64_t before = zbench::allocations();
    uint64_t housekeeping_allocs = 0;
    int64_t n = 0;
    for (auto _ : state) {
        body();
        if (++n % c.every == 0) {
            state.PauseTiming();
            const uint64_t at = zbench::allocations();
            housekeeping();
            housekeeping_allocs += zbench::allocations() - at;
            state.ResumeTiming();
        }
    }
    state.counters["allocs"] = static_cast<double>(zbench::allocations() - before - housekeeping_allocs) /
                               static_cast<double>(state.iterations());
}

/* The case from its setup and a warm first call. */
void prepare(const Case& c)
{
    housekeeping();
    if (c.setup) {
        c.setup();
    }
    c.op();
}

/* The case's floor, prepared and warm: the platform calls its operation
 * made, replayed, and the file work beside them. Empty when the replay
 * leaves another trail than the operation (the floor would measure
 * something else). */
std::function<void()> floor_of(const Case& c, std::string* label)
{
    prepare(c);
    housekeeping();
    auto plan = std::make_shared<const zbench::Plan>(zbench::record(c.op));
    *label = zbench::summary(*plan);
    const std::string by_op = trail();
    housekeeping();
    zbench::replay(*plan, &g_page->word);
    if (trail() != by_op) {
        g_replay_differs = true;
        return {};
    }
    return [plan, work = c.file_work] {
        zbench::replay(*plan, &g_page->word);
        if (work) {
            work();
        }
    };
}

void register_case(const Case& c)
{
    benchmark::RegisterBenchmark(c.name.c_str(), [c](benchmark::State& state) {
        prepare(c);
        run_loop(state, c, c.op);
    });
    benchmark::RegisterBenchmark((c.name + "/floor").c_str(), [c](benchmark::State& state) {
        std::string label;
        const std::function<void()> floor = floor_of(c, &label);
        if (!floor) {
            state.SkipWithError("replayed calls leave another trail than the operation");
            return;
        }
        state.SetLabel(label);
        run_loop(state, c, floor);
    });
}

/* Every operation measured beside its floor. */
std::vector<Case> all_cases()
{
    static INT16U rec = 0;
    std::vector<Case> cases = {
        {"znpdklib_SetSensorWoS", [] { znpdklib_SetSensorWoS(kPlainSensor, 1, 3, kChassis); }},
        {"znpdklib_SetSensorWS", [] { znpdklib_SetSensorWS(kPlainSensor, 1, 3, 0, 0, kChassis, &rec); }},
        {"znpdklib_exSetSensorWoS", [] { znpdklib_exSetSensorWoS(kExclusiveSensor, 1, kChassis); }},
        {"znpdklib_exSetSensorWS", [] { znpdklib_exSetSensorWS(kExclusiveSensor, 1, 0, 0, kChassis, &rec); }},
        {"ZNAPI_SetSensorWoS", [] { ZNAPI_SetSensorWoS(kPlainSensor, 1, 3, kChassis); }},
        {"ZNAPI_SetSensorWS", [] { ZNAPI_SetSensorWS(kPlainSensor, 1, 3, 0, 0, kChassis, &rec); }},
        /* Recovery: the marker test and 256 saved entries copied back, each
         * into its state word, previous state, event flags and level. */
        {"ZNAPI_MemSensorInfoRecover", [] { ZNAPI_MemSensorInfoRecover(kChassis); },
         [marker = zsim::file_path("/tmp/.boot/.acon")] {
             static SensorInfo_T table[256];
             benchmark::DoNotOptimize(access(marker.c_str(), F_OK));
             for (int i = 0; i < 256; ++i) {
                 const uint32_t w = __atomic_load_n(&g_page->saved[i], __ATOMIC_RELAXED);
                 table[i].SensorReading = static_cast<INT16U>(w);
                 table[i].PreviousState = table[i].SensorReading;
                 table[i].EventFlags = static_cast<INT8U>(w >> 16);
                 table[i].EventLevel = static_cast<INT8U>(w >> 24);
             }
             benchmark::ClobberMemory();
         }},
        {"znpdklib_make_escalation_info", [] { znpdklib_make_escalation_info(kChassis); },
         escalation_file_work(kChassis), nullptr, 64},
    };

    /* Searches read 17 files and store the results they hand back. */
    const struct {
        const char* name;
        Esc_Sensor_t query;
        void (*tables)();
    } searches[] = {{"empty", {0, kChassis, 200}, build_all_escalation_tables},
                    {"typical", {0, kChassis, 35}, build_all_escalation_tables},
                    {"all_matching", {1, 5, kNodeSensor}, [] { write_matching_tables(false); }},
                    {"all_rows_differ", {1, 5, kNodeSensor}, [] { write_matching_tables(true); }}};
    std::vector<std::string> files;
    for (int i = 1; i <= kChassis; ++i) {
        files.push_back(esc_path(i));
    }
    for (const auto& s : searches) {
        const Esc_Sensor_t q = s.query;
        auto counts = std::make_shared<std::pair<int, int>>(); /* of the setup's search */
        cases.push_back({std::string("znpdklib_get_escalation_info/") + s.name, [q] { search(q); },
                         [files, counts] {
                             for (const std::string& f : files) {
                                 read_esc_file(f);
                             }
                             result_lists(counts->first, counts->second);
                         },
                         [tables = s.tables, q, counts] {
                             tables();
                             *counts = search(q);
                         },
                         64});
    }

    cases.push_back({"ZNAPI_Sensor_Init/chassis", [] { ZNAPI_Sensor_Init(kChassis); },
                     escalation_file_work(kChassis), nullptr, 1});
    cases.push_back(
        {"ZNAPI_Sensor_Init/node", [] { ZNAPI_Sensor_Init(1); }, escalation_file_work(1), nullptr, 1});
    cases.push_back(
        {"znpdklib_check_psu_redundancy", [] { znpdklib_check_psu_redundancy(3); }, nullptr, nullptr, 16});
    cases.push_back({"znpdklib_check_fan_redundancy",
                     [] {
                         static int fanc_err;
                         znpdklib_check_fan_redundancy(1, &fanc_err);
                     },
                     nullptr, nullptr, 16});
    /* Settled fans pass the start-up check on its first poll. */
    cases.push_back({"znpdklib_check_fan_spinup", [] { znpdklib_check_fan_spinup(); }, nullptr,
                     [] { zsim::advance(60); }, 16});
    return cases;
}

void register_all()
{
    for (const Case& c : all_cases()) {
        register_case(c);
    }

    /* The least a persisted sensor write can cost. */
    benchmark::RegisterBenchmark("bare_mutex_sem_store", [](benchmark::State& state) {
        for (auto _ : state) {
            pthread_mutex_lock(&g_bare_mutex);
            sem_wait(&g_page->sem);
            __atomic_store_n(&g_page->word, g_page->word + 1, __ATOMIC_RELAXED);
            sem_post(&g_page->sem);
            pthread_mutex_unlock(&g_bare_mutex);
        }
        state.counters["allocs"] = 0;
    });

    /* Writes on 1 and 2 threads: each thread on its own node instance, or
     * all on the chassis instance. */
    for (bool same : {false, true}) {
        const std::string name = std::string("throughput/znpdklib_SetSensorWoS/") +
                                 (same ? "same_instance" : "different_instances");
        benchmark::RegisterBenchmark(name.c_str(),
                                     [same](benchmark::State& state) {
                                         const int inst = same ? kChassis : 1 + state.thread_index();
                                         const INT8U num = same ? kPlainSensor : kNodeSensor;
                                         for (auto _ : state) {
                                             znpdklib_SetSensorWoS(num, 1, 1, inst);
                                         }
                                         state.SetItemsProcessed(state.iterations());
                                     })
            ->Threads(1)
            ->Threads(2)
            ->UseRealTime();
    }
}

/* Under callgrind (started with collection off): each case's operation and
 * floor, warm, called `calls` times with collection on, housekeeping every
 * c.every calls with it off; each block's cost dumped under its name. */
int count_instructions(int calls)
{
#if ZB_CALLGRIND
    if (RUNNING_ON_VALGRIND == 0) {
        fprintf(stderr, "znpdk-bench: --count runs under valgrind --tool=callgrind --collect-atstart=no\n");
        return 1;
    }
    for (const Case& c : all_cases()) {
        std::string label;
        for (const bool floor : {false, true}) {
            std::function<void()> body = c.op;
            if (floor) {
                body = floor_of(c, &label);
            } else {
                prepare(c);
            }
            if (!body) {
                fprintf(stderr, "znpdk-bench: %s: replayed calls leave another trail than the operation\n",
                        c.name.c_str());
                return 1;
            }
            housekeeping();
            CALLGRIND_TOGGLE_COLLECT;
            for (int n = 1; n <= calls; ++n) {
                body();
                if (n % c.every == 0) {
                    CALLGRIND_TOGGLE_COLLECT;
                    housekeeping();
                    CALLGRIND_TOGGLE_COLLECT;
                }
            }
            CALLGRIND_TOGGLE_COLLECT;
            const std::string name = c.name + (floor ? "/floor" : ""); /* outlives the request */
            CALLGRIND_DUMP_STATS_AT(name.c_str());
        }
    }
    return 0;
#else
    (void)calls;
    fprintf(stderr, "znpdk-bench: built without <valgrind/callgrind.h>, --count unavailable\n");
    return 1;
#endif
}

bool ends_with(const std::string& s, const std::string& tail)
{
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

std::string time_text(double ns)
{
    char buf[32];
    snprintf(buf, sizeof(buf),
             ns < 1e3   ? "%.1f ns"
             : ns < 1e6 ? "%.2f us"
                        : "%.2f ms",
             ns < 1e3   ? ns
             : ns < 1e6 ? ns / 1e3
                        : ns / 1e6);
    return buf;
}

/* Collects the runs and prints one table: operation, time, floor, ratio and
 * allocations per call, then the throughput runs and the floors' calls. */
class TableReporter : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context&) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& r : runs) {
            if (r.run_type != Run::RT_Iteration || r.error_occurred) {
                continue;
            }
            const auto rate = r.counters.find("items_per_second");
            const bool throughput = rate != r.counters.end();
            /* Single-thread cases in CPU time, which other processes on the
             * machine cannot stretch; throughput in real time. */
            const double ns = (throughput ? r.GetAdjustedRealTime() : r.GetAdjustedCPUTime()) * 1e9 /
                              benchmark::GetTimeUnitMultiplier(r.time_unit);
            const std::string name = r.benchmark_name();
            const auto a = r.counters.find("allocs");
            const double allocs = a != r.counters.end() ? a->second.value : 0;
            Row& row = rows_[name];
            if (row.runs++ == 0) {
                order_.emplace_back(r.family_index * 64 + r.per_family_instance_index, name);
                row.allocs = allocs;
            }
            /* The fewest allocations: a log of the simulated platform grows
             * now and then, more in short runs. */
            row.allocs = std::min(row.allocs, allocs);
            if (row.runs > 1 && ns >= row.ns) {
                continue; /* the fastest repetition: the others lost time to the machine */
            }
            row.ns = ns;
            row.rate = throughput ? rate->second.value : 0;
            row.label = r.report_label;
        }
    }

    void Finalize() override
    {
        std::sort(order_.begin(), order_.end()); /* as registered, whatever order the runs took */
        printf("%-46s %11s %11s %7s %8s %8s\n", "operation", "time", "floor", "ratio", "allocs", "floor");
        for (const auto& [index, name] : order_) {
            const Row& row = rows_[name];
            if (row.rate != 0 || ends_with(name, "/floor")) {
                continue;
            }
            const auto f = rows_.find(name + "/floor");
            if (f == rows_.end()) {
                printf("%-46s %11s %11s %7s %8.1f %8s\n", name.c_str(), time_text(row.ns).c_str(), "-", "-",
                       row.allocs, "-");
            } else {
                printf("%-46s %11s %11s %7.3f %8.1f %8.1f\n", name.c_str(), time_text(row.ns).c_str(),
                       time_text(f->second.ns).c_str(), row.ns / f->second.ns, row.allocs, f->second.allocs);
            }
        }
        printf("\n%-66s %14s\n", "throughput", "calls/s");
        for (const auto& [index, name] : order_) {
            if (rows_[name].rate != 0) {
                printf("%-66s %14.0f\n", name.c_str(), rows_[name].rate);
            }
        }
        printf("\nfloors: the platform calls each operation made, replayed\n");
        for (const auto& [index, name] : order_) {
            if (ends_with(name, "/floor")) {
                printf("  %s: %s\n", name.substr(0, name.size() - 6).c_str(), rows_[name].label.c_str());
            }
        }
    }

  private:
    struct Row {
        double ns = 0;
        double rate = 0;
        double allocs = 0;
        int runs = 0;
        std::string label;
    };
    std::map<std::string, Row> rows_;
    std::vector<std::pair<int64_t, std::string>> order_;
};

/* The timed runs; a smoke run takes each case once, so that a broken case
 * shows without taking time (nothing is asserted about speed). */
int run_benchmarks(std::vector<char*> args, bool smoke, bool table)
{
    register_all();
    static char once[] = "--benchmark_min_time=0";
    if (smoke) {
        args.push_back(once);
    }
    int n = static_cast<int>(args.size());
    benchmark::Initialize(&n, args.data());
    if (table) {
        TableReporter reporter;
        benchmark::RunSpecifiedBenchmarks(&reporter);
    } else {
        benchmark::RunSpecifiedBenchmarks();
    }
    benchmark::Shutdown();
    if (g_replay_differs) {
        fprintf(stderr, "znpdk-bench: a replay differs from its operation\n");
        return 1;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    bool smoke = false;
    bool table = false;
    int count = 0;
    std::vector<char*> args;
    for (int i = 0; i < argc; ++i) {
        const bool is_smoke = strcmp(argv[i], "--smoke") == 0, is_table = strcmp(argv[i], "--table") == 0;
        const bool is_count = strncmp(argv[i], "--count=", 8) == 0;
        smoke |= is_smoke;
        table |= is_table;
        if (is_count) {
            count = atoi(argv[i] + 8);
        } else if (!is_smoke && !is_table) {
            args.push_back(argv[i]);
        }
    }
    char root[] = "/tmp/znpdk-bench-XXXXXX";
    if (mkdtemp(root) == nullptr) {
        die("znpdk-bench: mkdtemp");
    }
    zsim::init(root);
    zsim::build_default_machine();
    ZNAPI_MemSensorAreaInit();
    map_shared_page();
    for (const auto& [inst, num] : {std::pair<int, INT8U>{kChassis, kPlainSensor},
                                    {kChassis, kExclusiveSensor},
                                    {1, kNodeSensor},
                                    {2, kNodeSensor}}) {
        if (!zsim::sensor_present(inst, num)) {
            fprintf(stderr, "znpdk-bench: sensor %d of instance %d missing from the machine\n", num, inst);
            return 1;
        }
    }
    build_all_escalation_tables();

    int rc = 1;
    if (count > 0) {
        /* On a thread of its own, whose stack starts at one place in a page
         * whatever the size of the environment and arguments: string
         * functions take other paths, and count otherwise, by alignment. */
        std::thread([&rc, count] { rc = count_instructions(count); }).join();
    } else {
        rc = run_benchmarks(args, smoke, table);
    }
    housekeeping();
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
    return rc;
}
