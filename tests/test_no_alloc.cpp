/*
 * No heap work of the library's own on its hot paths. Every allocation made
 * while a call runs is charged to the nearest caller that is the library or
 * the simulated platform (the platform may allocate; the library may not).
 */
#include <execinfo.h>
#include <link.h>
#include <string.h>

#include <atomic>
#include <functional>
#include <new>

#include "fan_support.h"
#include "heap_counter.h"
#include "znpdk_sim/psu.h"

namespace {

struct Text {
    uintptr_t lo = 0;
    uintptr_t hi = 0;
};

Text g_lib;
Text g_sim;
__thread int t_counting;  /* > 0 while a measured call runs on this thread */
__thread int t_inside;    /* an allocation made while charging one */
__thread int t_fail_next; /* the library's next allocation throws */
std::atomic<int> g_lib_allocs{0};

int find_texts(dl_phdr_info* info, size_t, void*)
{
    Text* text = nullptr;
    if (strstr(info->dlpi_name, "/libznpdk.so") != nullptr) {
        text = &g_lib;
    } else if (strstr(info->dlpi_name, "/libznpdk_sim.so") != nullptr) {
        text = &g_sim;
    }
    for (int i = 0; text != nullptr && i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        if (ph.p_type == PT_LOAD && (ph.p_flags & PF_X) != 0) {
            text->lo = info->dlpi_addr + ph.p_vaddr;
            text->hi = text->lo + ph.p_memsz;
        }
    }
    return 0;
}

bool in(const Text& t, void* pc)
{
    const uintptr_t a = reinterpret_cast<uintptr_t>(pc);
    return a >= t.lo && a < t.hi;
}

/* True when the nearest owning frame of this allocation is the library's;
 * `caller` is malloc's own caller where known (a direct call needs no unwinding). */
bool library_allocates(void* caller = nullptr)
{
    if (t_counting == 0 || t_inside != 0) {
        return false;
    }
    if (caller != nullptr && (in(g_lib, caller) || in(g_sim, caller))) {
        return in(g_lib, caller);
    }
    t_inside = 1;
    void* frames[64];
    const int n = backtrace(frames, 64);
    bool lib = false;
    for (int i = 0; i < n; ++i) {
        if (in(g_lib, frames[i]) || in(g_sim, frames[i])) {
            lib = in(g_lib, frames[i]);
            break;
        }
    }
    t_inside = 0;
    return lib;
}

void charge(void* caller = nullptr)
{
    if (library_allocates(caller)) {
        ++g_lib_allocs;
    }
}

} // namespace

namespace {
/* Set by operator new for the malloc it makes: its own caller says more than
 * malloc's, and unwinding is not to be relied on on every target. */
__thread void* t_new_caller;
} // namespace

void on_heap_alloc(void* caller)
{
    void* const hint = t_new_caller;
    t_new_caller = nullptr;
    charge(hint != nullptr ? hint : caller);
}

/* C++ allocations go through malloc; an armed failure hits the library's next one. */
void* operator new(size_t size)
{
    if (t_fail_next != 0 && library_allocates()) {
        t_fail_next = 0;
        throw std::bad_alloc();
    }
    t_new_caller = __builtin_return_address(0);
    void* p = malloc(size);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}

void* operator new[](size_t size)
{
    return operator new(size);
}

/* The operator new above takes its memory from malloc, so free is the matching
 * release; gcc cannot see that once the two are inlined. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#define ZT_DELETE(...)                                                                                       \
    void operator __VA_ARGS__ noexcept                                                                       \
    {                                                                                                        \
        free(p);                                                                                             \
    }
ZT_DELETE(delete (void* p))
ZT_DELETE(delete[](void* p))
ZT_DELETE(delete (void* p, size_t))
ZT_DELETE(delete[](void* p, size_t))
#pragma GCC diagnostic pop

namespace {

/* The library's own allocations during `call`. */
int library_allocations(const std::function<void()>& call)
{
    g_lib_allocs = 0;
    ++t_counting;
    call();
    --t_counting;
    return g_lib_allocs.load();
}

class NoAllocTest : public SimTest {
  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        dl_iterate_phdr(find_texts, nullptr);
        ASSERT_NE(0u, g_lib.lo);
        ASSERT_NE(0u, g_sim.lo);
        void* warm[4];
        backtrace(warm, 4); /* loads the unwinder outside any measured call */
    }
};

TEST_F(NoAllocTest, HotPathsAllocateNothingOfTheirOwn)
{
    INT16U id = 0;
    int fanc_err = 0;
    Esc_Sensor_t query{0, 17, 35};
    Esc_Table_t found{};
    struct Case {
        const char* name;
        std::function<int()> call;
        int result;     /* what the call answers */
        int own_allocs; /* the caller's lists only */
    };
    const std::vector<Case> cases = {
        {"ZNAPI_MemSensorInfoRecover", [] { return ZNAPI_MemSensorInfoRecover(17); }, 0, 0},
        {"ZNAPI_SetSensorWoS", [] { return ZNAPI_SetSensorWoS(33, 1, 4, 17); }, 0, 0},
        {"ZNAPI_SetSensorWS", [&] { return ZNAPI_SetSensorWS(33, 0, 4, 0xFF, 0xFF, 17, &id); }, 0, 0},
        {"ZNAPI_MemSensorInfoWrite", [] { return ZNAPI_MemSensorInfoWrite(33, 17); }, 0, 0},
        {"znpdklib_SetSensorWoS", [] { return znpdklib_SetSensorWoS(33, 1, 5, 17); }, 0, 0},
        {"znpdklib_SetSensorWS", [&] { return znpdklib_SetSensorWS(33, 0, 5, 0xFF, 0xFF, 17, &id); }, 0, 0},
        {"znpdklib_exSetSensorWoS", [] { return znpdklib_exSetSensorWoS(33, 6, 17); }, 0, 0},
        {"znpdklib_exSetSensorWS", [&] { return znpdklib_exSetSensorWS(33, 1, 0xFF, 0xFF, 17, &id); }, 0, 0},
        {"znpdklib_get_escalation_info",
         [&] {
             znpdklib_get_escalation_info(&query, &found);
             free(found.frue_list);
             free(found.esc_list);
             return found.frue_count * 10 + found.esc_count;
         },
         11, 2},
        {"znpdklib_check_psu_redundancy", [] { return znpdklib_check_psu_redundancy(1); }, 0, 0},
        {"znpdklib_check_fan_redundancy", [&] { return znpdklib_check_fan_redundancy(1, &fanc_err); }, 0, 0},
        {"znpdklib_check_fan_spinup", [] { return znpdklib_check_fan_spinup(); }, 0, 0},
        {"znpdklib_check_fan_rotation", [] { return znpdklib_check_fan_rotation(); }, 0, 0},
        {"znpdklib_make_escalation_info", [] { return znpdklib_make_escalation_info(17), 0; }, 0, 0},
    };
    std::vector<uint8_t> table(4096, 0);
    const uint8_t parent[4] = {1, 17, 35, 9}, chassis[4] = {1, 17, 33, 9};
    memcpy(&table[(9 * 4 + 0) * 4], parent, 4);
    memcpy(&table[(9 * 4 + 3) * 4], chassis, 4);
    zsim::write_file("/var/nvrdisk/current/sensor/esctable_inst02", table);
    zsim::fan_power_on();
    for (int fan = 0; fan < 8; ++fan) { /* every fan usable, saved so that recovery restores it */
        ASSERT_EQ(0, znpdklib_exSetSensorWoS(static_cast<INT8U>(0xD1 + fan), 1, 17));
    }
    for (int i = 0; i < 18; ++i) {
        zsim::set_psu_present(i, true);
    }
    for (const Case& c : cases) {
        int result = -100;
        EXPECT_EQ(c.own_allocs, library_allocations([&] { result = c.call(); })) << c.name;
        EXPECT_EQ(c.result, result) << c.name;
    }
    EXPECT_EQ(0x0002, ztest::state(17, 33)); /* the last exclusive set holds offset 1 alone */
    EXPECT_EQ(0x02, znpdklib_get_fan_check_phase());
}

/* Start-up builds its marker paths on its first call only. */
TEST_F(NoAllocTest, SensorInitAllocatesOnlyOnItsFirstCall)
{
    ZNAPI_Sensor_Init(17);
    for (int inst : {17, 1, 17}) {
        EXPECT_EQ(0, library_allocations([inst] { ZNAPI_Sensor_Init(inst); })) << inst;
    }
}

TEST_F(NoAllocTest, AllocationsOfTheLibraryAreCounted)
{
    std::string path = "/SYSTEM#0/BOBC#0";
    EXPECT_LT(0, library_allocations([&] { znpdklib_checkEmergencyOutageByPath(path.c_str()); }));
    EXPECT_EQ(0, library_allocations([] { zsim::clear_traces(); }));
}

/* An exception inside an exported function ends there: traced, failure result. */
TEST_F(NoAllocTest, ExceptionIsTracedAndGivesTheFailureResult)
{
    zsim::clear_traces();
    int result = 0;
    library_allocations([&] {
        t_fail_next = 1;
        result = znpdklib_checkEmergencyOutageByPath("/SYSTEM#0/BOBC#0");
    });
    EXPECT_EQ(0, t_fail_next);
    EXPECT_EQ(-1, result);
    EXPECT_EQ(
        std::vector<std::string>{
            "znpdklib_checkEmergencyOutageByPath():caught exception. what=std::bad_alloc"},
        ztest::texts_with_id(0x05FF0001));
    EXPECT_EQ(0x8002, zsim::traces_with_id(0x05FF0001).at(0).level);
}

} // namespace
