/*
 * Library operations on the simulated machine, each beside its floor: the
 * platform calls it made, replayed without the library, plus the file work
 * it must do. Counters: allocs (heap allocations per call, platform's
 * included; the floor's show the platform's share).
 *
 *   znpdk-bench [--smoke] [--table] [benchmark flags]
 *     --smoke: every case once; --table: one table at the end (fastest
 *     repetition of each case), instead of the usual report.
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
#include <vector>

#include "platform_calls.h"
#include "znpdk_sim/sim.h"
#include "znpdklib.h"

namespace {

constexpr int kChassis = 17;
constexpr INT8U kPlainSensor = 0x49;     /* FRUE Environment, instance 17 */
constexpr INT8U kExclusiveSensor = 0x81; /* PSU redundancy, instance 17 */
constexpr INT8U kNodeSensor = 10;        /* node FRU error status, node instances */
constexpr size_t kEscFileSize = 4096;
const char* const kEscFile = "/var/nvrdisk/current/sensor/esctable_inst%02d";
const char* const kAcOnMarker = "/tmp/.boot/.acon";

/* A page of a file mapped shared, holding the floor's stored word and the
 * bare floor's semaphore. */
struct SharedPage {
    uint32_t word;
    sem_t sem;
};
SharedPage* g_page = nullptr;
pthread_mutex_t g_bare_mutex = PTHREAD_MUTEX_INITIALIZER;

void map_shared_page()
{
    const std::string path = zsim::file_path("/bench/shared_page", true);
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd < 0 || ftruncate(fd, 4096) != 0) {
        perror("znpdk-bench: shared page");
        exit(1);
    }
    void* p = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (p == MAP_FAILED) {
        perror("znpdk-bench: mmap");
        exit(1);
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
    snprintf(rel, sizeof(rel), kEscFile, inst);
    return zsim::file_path(rel, true);
}

/* Reads one escalation file whole, as the library must. */
void read_esc_file(const std::string& path)
{
    uint8_t image[kEscFileSize];
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd >= 0) {
        ssize_t n = read(fd, image, sizeof(image));
        benchmark::DoNotOptimize(n);
        close(fd);
    }
    benchmark::DoNotOptimize(image);
}

/* The file work the escalation search must do: read 17 files. */
void read_esc_files(const std::vector<std::string>& paths)
{
    for (const std::string& p : paths) {
        read_esc_file(p);
    }
}

/* The file work an escalation build must do at the least: snapshot the
 * table and read the file it keeps (an unchanged table need not be written;
 * a library that always writes pays that beside this floor). */
void escalation_file_work(int inst, const std::string& path)
{
    static SensorSharedMem_T snap;
    memcpy(&snap, &g_BMCInfo[inst].SensorSharedMem, sizeof(snap));
    benchmark::DoNotOptimize(snap);
    read_esc_file(path);
}

void build_all_escalation_tables()
{
    for (int i = 1; i <= kChassis; ++i) {
        znpdklib_make_escalation_info(i);
    }
}

/* Every entry of every file names node instance 5's sensor 10. */
void write_all_matching_tables()
{
    std::vector<uint8_t> image(kEscFileSize);
    for (size_t k = 0; k < image.size(); k += 4) {
        image[k] = 1;
        image[k + 1] = 5;
        image[k + 2] = kNodeSensor;
        image[k + 3] = kNodeSensor;
    }
    for (int i = 1; i <= kChassis; ++i) {
        zsim::write_file(esc_path(i).substr(zsim::root().size()), image);
    }
}

void search(Esc_Sensor_t query)
{
    Esc_Table_t out;
    znpdklib_get_escalation_info(&query, &out);
    free(out.frue_list);
    free(out.esc_list);
}

/* The caller-owned result lists the search must hand back. */
void result_lists(int frue, int esc)
{
    void* a = malloc((frue > 0 ? frue : 1) * sizeof(Esc_Sensor_t));
    void* b = malloc((esc > 0 ? esc : 1) * sizeof(Esc_Sensor_t));
    benchmark::DoNotOptimize(a);
    benchmark::DoNotOptimize(b);
    free(a);
    free(b);
}

/* What a run of platform calls leaves behind: trace texts, SEL records,
 * procedures run and RAS logs. */
struct Trail {
    std::vector<std::string> traces;
    size_t sel = 0;
    std::vector<std::string> procedures;
    size_t ras = 0;
    bool operator!=(const Trail& o) const
    {
        return traces != o.traces || sel != o.sel || procedures != o.procedures || ras != o.ras;
    }
};

Trail trail()
{
    Trail t;
    for (const zsim::TraceLine& l : zsim::traces()) {
        t.traces.push_back(l.text);
    }
    for (int i = 0; i < BMC_INSTANCE_COUNT; ++i) {
        t.sel += zsim::sel(i).size();
    }
    for (const zsim::HapCall& h : zsim::hap_calls()) {
        t.procedures.push_back(h.target + " " + h.procedure + " " + h.mode);
    }
    t.ras = zsim::ras_logs().size();
    return t;
}

bool g_replay_differs = false;

struct Case {
    std::string name;
    std::function<void()> op;
    std::function<void()> file_work{}; /* beside the replayed calls in the floor */
    std::function<void()> setup{};     /* before each run of op and floor */
    int every = 1024;                  /* iterations between housekeeping */
};

void run_loop(benchmark::State& state, const Case& c, const std::function<void()>& body)
{
    const uint64_t allocs_before = zbench::allocations();
    uint64_t housekeeping_allocs = 0;
    int64_t n = 0;
    for (auto _ : state) {
        body();
        if (++n % c.every == 0) {
            state.PauseTiming();
            const uint64_t before = zbench::allocations();
            housekeeping();
            housekeeping_allocs += zbench::allocations() - before;
            state.ResumeTiming();
        }
    }
    const double calls = static_cast<double>(state.iterations());
    state.counters["allocs"] =
        static_cast<double>(zbench::allocations() - allocs_before - housekeeping_allocs) / calls;
}

void register_case(const Case& c)
{
    benchmark::RegisterBenchmark(c.name.c_str(), [c](benchmark::State& state) {
        housekeeping();
        if (c.setup) {
            c.setup();
        }
        c.op(); /* steady state before timing */
        run_loop(state, c, c.op);
    });
    benchmark::RegisterBenchmark((c.name + "/floor").c_str(), [c](benchmark::State& state) {
        housekeeping();
        if (c.setup) {
            c.setup();
        }
        c.op();
        housekeeping();
        const zbench::Plan plan = zbench::record(c.op);
        state.SetLabel(zbench::summary(plan));
        uint32_t* word = &g_page->word;
        /* The replay must leave the same trail as the operation: else the
         * floor measures something else. */
        const Trail by_op = trail();
        housekeeping();
        zbench::replay(plan, word);
        if (trail() != by_op) {
            g_replay_differs = true;
            state.SkipWithError("replayed calls leave another trail than the operation");
            return;
        }
        run_loop(state, c, [&] {
            zbench::replay(plan, word);
            if (c.file_work) {
                c.file_work();
            }
        });
    });
}

void require_sensor(int inst, INT8U num)
{
    if (!zsim::sensor_present(inst, num)) {
        fprintf(stderr, "znpdk-bench: sensor %d of instance %d missing from the machine\n", num, inst);
        exit(1);
    }
}

void register_all()
{
    static INT16U rec = 0;
    std::vector<Case> cases = {
        {"znpdklib_SetSensorWoS", [] { znpdklib_SetSensorWoS(kPlainSensor, 1, 3, kChassis); }},
        {"znpdklib_SetSensorWS", [] { znpdklib_SetSensorWS(kPlainSensor, 1, 3, 0, 0, kChassis, &rec); }},
        {"znpdklib_exSetSensorWoS", [] { znpdklib_exSetSensorWoS(kExclusiveSensor, 1, kChassis); }},
        {"znpdklib_exSetSensorWS", [] { znpdklib_exSetSensorWS(kExclusiveSensor, 1, 0, 0, kChassis, &rec); }},
        {"ZNAPI_SetSensorWoS", [] { ZNAPI_SetSensorWoS(kPlainSensor, 1, 3, kChassis); }},
        {"ZNAPI_SetSensorWS", [] { ZNAPI_SetSensorWS(kPlainSensor, 1, 3, 0, 0, kChassis, &rec); }},
    };

    /* Recovery: the marker test and 256 entries copied back. */
    const std::string marker = zsim::file_path(kAcOnMarker);
    cases.push_back({"ZNAPI_MemSensorInfoRecover", [] { ZNAPI_MemSensorInfoRecover(kChassis); },
                     [marker] {
                         static SensorInfo_T table[256];
                         benchmark::DoNotOptimize(access(marker.c_str(), F_OK));
                         for (SensorInfo_T& t : table) {
                             t.SensorReading = static_cast<INT16U>(g_page->word);
                             t.PreviousState = t.SensorReading;
                         }
                         benchmark::ClobberMemory();
                     }});

    const std::string esc17 = esc_path(kChassis);
    cases.push_back({"znpdklib_make_escalation_info", [] { znpdklib_make_escalation_info(kChassis); },
                     [esc17] { escalation_file_work(kChassis, esc17); }, nullptr, 64});

    std::vector<std::string> files;
    for (int i = 1; i <= kChassis; ++i) {
        files.push_back(esc_path(i));
    }
    struct Search {
        const char* name;
        Esc_Sensor_t query;
        bool all_matching;
    };
    const Search searches[] = {{"znpdklib_get_escalation_info/empty", {0, kChassis, 200}, false},
                               {"znpdklib_get_escalation_info/typical", {0, kChassis, 35}, false},
                               {"znpdklib_get_escalation_info/all_matching", {1, 5, kNodeSensor}, true}};
    for (const Search& s : searches) {
        const Esc_Sensor_t q = s.query;
        auto setup = s.all_matching ? std::function<void()>(write_all_matching_tables)
                                    : std::function<void()>(build_all_escalation_tables);
        /* The result sizes, for the floor's two lists. */
        auto counts = std::make_shared<std::pair<int, int>>(0, 0);
        cases.push_back({s.name, [q] { search(q); },
                         [files, counts] {
                             read_esc_files(files);
                             result_lists(counts->first, counts->second);
                         },
                         [setup, q, counts] {
                             setup();
                             Esc_Sensor_t query = q;
                             Esc_Table_t out;
                             znpdklib_get_escalation_info(&query, &out);
                             *counts = {out.frue_count, out.esc_count};
                             free(out.frue_list);
                             free(out.esc_list);
                         },
                         64});
    }

    const std::string esc1 = esc_path(1);
    cases.push_back({"ZNAPI_Sensor_Init/chassis", [] { ZNAPI_Sensor_Init(kChassis); },
                     [esc17] { escalation_file_work(kChassis, esc17); }, nullptr, 1});
    cases.push_back({"ZNAPI_Sensor_Init/node", [] { ZNAPI_Sensor_Init(1); },
                     [esc1] { escalation_file_work(1, esc1); }, nullptr, 1});

    cases.push_back(
        {"znpdklib_check_psu_redundancy", [] { znpdklib_check_psu_redundancy(3); }, nullptr, nullptr, 16});
    cases.push_back({"znpdklib_check_fan_redundancy",
                     [] {
                         int fanc_err = 0;
                         znpdklib_check_fan_redundancy(1, &fanc_err);
                     },
                     nullptr, nullptr, 16});
    /* Settled fans pass the start-up check on its first poll. */
    cases.push_back({"znpdklib_check_fan_spinup", [] { znpdklib_check_fan_spinup(); }, nullptr,
                     [] { zsim::advance(60); }, 16});

    for (const Case& c : cases) {
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
            /* Single-thread cases in CPU time, which other processes on the
             * machine cannot stretch; throughput in real time. */
            const double t = r.threads > 1 || r.counters.count("items_per_second") != 0
                                 ? r.GetAdjustedRealTime()
                                 : r.GetAdjustedCPUTime();
            const double ns = t * 1e9 / benchmark::GetTimeUnitMultiplier(r.time_unit);
            Row& row = rows_[r.benchmark_name()];
            if (row.runs == 0) {
                order_.emplace_back(r.family_index * 64 + r.per_family_instance_index, r.benchmark_name());
            }
            /* The fastest repetition: the others lost time to the machine. */
            if (row.runs == 0 || ns < row.ns) {
                row.ns = ns;
                auto it = r.counters.find("items_per_second");
                row.rate = it != r.counters.end() ? it->second.value : 0;
            }
            auto a = r.counters.find("allocs");
            row.allocs = a != r.counters.end() ? a->second.value : 0;
            row.label = r.report_label;
            ++row.runs;
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
            auto f = rows_.find(name + "/floor");
            if (f == rows_.end()) {
                printf("%-46s %11s %11s %7s %8.1f %8s\n", name.c_str(), time_text(row.ns).c_str(), "-", "-",
                       row.allocs, "-");
                continue;
            }
            printf("%-46s %11s %11s %7.3f %8.1f %8.1f\n", name.c_str(), time_text(row.ns).c_str(),
                   time_text(f->second.ns).c_str(), row.ns / f->second.ns, row.allocs, f->second.allocs);
        }
        printf("\n%-66s %14s\n", "throughput", "calls/s");
        for (const auto& [index, name] : order_) {
            const Row& row = rows_[name];
            if (row.rate != 0) {
                printf("%-66s %14.0f\n", name.c_str(), row.rate);
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

    static bool ends_with(const std::string& s, const std::string& tail)
    {
        return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
    }

    static std::string time_text(double ns)
    {
        char buf[32];
        if (ns < 1e3) {
            snprintf(buf, sizeof(buf), "%.1f ns", ns);
        } else if (ns < 1e6) {
            snprintf(buf, sizeof(buf), "%.2f us", ns / 1e3);
        } else {
            snprintf(buf, sizeof(buf), "%.2f ms", ns / 1e6);
        }
        return buf;
    }

    std::map<std::string, Row> rows_;
    std::vector<std::pair<int64_t, std::string>> order_;
};

} // namespace

int main(int argc, char** argv)
{
    bool smoke = false;
    bool table = false;
    std::vector<char*> args;
    for (int i = 0; i < argc; ++i) {
        if (strcmp(argv[i], "--smoke") == 0) {
            smoke = true;
        } else if (strcmp(argv[i], "--table") == 0) {
            table = true;
        } else {
            args.push_back(argv[i]);
        }
    }
    char root[] = "/tmp/znpdk-bench-XXXXXX";
    if (mkdtemp(root) == nullptr) {
        perror("znpdk-bench: mkdtemp");
        return 1;
    }
    zsim::init(root);
    zsim::build_default_machine();
    ZNAPI_MemSensorAreaInit();
    map_shared_page();
    require_sensor(kChassis, kPlainSensor);
    require_sensor(kChassis, kExclusiveSensor);
    for (int i = 1; i <= 2; ++i) {
        require_sensor(i, kNodeSensor);
    }
    build_all_escalation_tables();

    register_all();
    /* A smoke run: each case once, so that a broken case shows without
     * taking time; nothing is asserted about speed. */
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
    housekeeping();
    if (g_replay_differs) {
        fprintf(stderr, "znpdk-bench: a replay differs from its operation\n");
    }
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
    return g_replay_differs ? 1 : 0;
}
