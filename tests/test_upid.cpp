/* Unit position ids from components, paths and caller codes. */
#include <string.h>

#include <functional>
#include <string>
#include <vector>

#include "support.h"

namespace {

using R = std::vector<int>; /* result code, then the 8 bytes of the id */

R U(int rc, int name, int count, int l0 = 0, int l1 = 0, int l2 = 0)
{
    return {rc, name, count, l0, l1, l2, 0, 0, 0};
}

const R kNone = U(-1, 0, 0);
const R kUntouched = {-1, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5};

/* Runs a conversion on an id filled with 0xA5 and returns code and bytes. */
R run(const std::function<int(unit_position_id_t*)>& call)
{
    unit_position_id_t id;
    memset(&id, 0xA5, sizeof(id));
    R r = {call(&id)};
    const uint8_t* b = reinterpret_cast<const uint8_t*>(&id);
    r.insert(r.end(), b, b + sizeof(id));
    return r;
}

sp::sysobj::Component* compo(int oid)
{
    return oid < 0 ? nullptr : zsim::component(oid);
}

R of(int oid)
{
    return run([&](unit_position_id_t* id) { return znpdklib_compo2upid(compo(oid), id); });
}

R of_path(std::string path)
{
    return run([&](unit_position_id_t* id) { return znpdklib_path2upid(path.data(), id); });
}

R of_code(int up, int no, int oid)
{
    return run([&](unit_position_id_t* id) { return znpdklib_upid2upid(up, no, compo(oid), id); });
}

int add(int type, int no, int parent = 1)
{
    return zsim::add_component(type, no, {parent});
}

TEST_F(EmptySimTest, UnitPositionOfEveryTable)
{
    int cmu = add(COMPO_CMU, 3), cpu = add(COMPO_CPU, 1, cmu), biou = add(COMPO_BIOU, 0);
    int giou = add(COMPO_GIOU, 2), psu = add(COMPO_PSU, 4), iorc = add(COMPO_IORC, 0);
    int node = add(COMPO_NODE, 6, cmu), fanu = add(COMPO_FANU, 2);
    const std::vector<std::pair<int, R>> cases = {
        {cmu, U(0, 16, 1, 3)},
        {biou, U(0, 64, 1, 0)},
        {giou, U(0, 48, 1, 2)},
        {psu, U(0, 160, 1, 4)},
        {add(COMPO_ROUTER, 9), U(0, 21, 1, 9)},
        {node, U(0, 144, 1, 6)},
        {fanu, U(0, 192, 1, 2)},
        {add(COMPO_CMU, 260), U(0, 16, 1, 4)}, /* low byte of the number */
        {add(COMPO_FAN, 2, biou), U(0, 66, 2, 0, 2)},
        {add(COMPO_FAN, 1, fanu), U(0, 66, 2, 0, 1)}, /* wherever it sits */
        {add(COMPO_FANC, 0, biou), U(0, 71, 2, 0, 0)},
        {add(COMPO_SSD, 5, node), U(0, 65, 2, 0, 5)},
        {add(COMPO_SBCRAM_B, 1, biou), U(0, 81, 2, 0, 1)},
        {add(COMPO_FWFMEM, 3, biou), U(0, 83, 2, 0, 3)},
        {cpu, U(0, 18, 2, 3, 1)},
        {add(COMPO_PSW, 0, cmu), U(0, 28, 2, 3, 0)},
        {add(COMPO_AOC, 2, cmu), U(0, 32, 2, 3, 2)},
        {add(COMPO_FRUROM, 7, biou), U(0, 67, 2, 0, 7)},
        {add(COMPO_FRUROM, 1, giou), U(0, 50, 2, 2, 1)},
        {add(COMPO_FRUROM, 0, cmu), U(0, 17, 2, 3, 0)},
        {add(COMPO_FRUROM, 90, psu), U(0, 161, 2, 4, 90)},
        {add(COMPO_FRUROM, 1, node), kNone},
        {add(COMPO_GPIO, 1, biou), U(0, 73, 2, 0, 1)},
        {add(COMPO_GPIO, 1, psu), kNone},
        {add(COMPO_ADC, 2, cmu), U(0, 24, 2, 3, 2)},
        {add(COMPO_PCIESW, 0, giou), U(0, 54, 2, 2, 0)},
        {add(COMPO_POL, 3, cmu), U(0, 27, 2, 3, 3)},
        {add(COMPO_THRM, 4, giou), U(0, 49, 2, 2, 4)},
        {add(COMPO_PCIECARD, 3, giou), U(0, 56, 2, 2, 3)},
        {add(COMPO_PCIECARD, 1, node), kNone},
        {add(COMPO_PSUC, 0, iorc), kNone},
        {add(COMPO_SYSFMEM, 1, iorc), U(0, 178, 2, 0, 1)},
        {add(COMPO_MEM, 5, cpu), U(0, 22, 3, 3, 1, 5)},
        {add(COMPO_QNR, 4, cpu), U(0, 21, 3, 3, 1, 4)},
        {add(COMPO_CORE, 2, cpu), U(0, 18, 2, 3, 1)}, /* the CPU's id */
        {add(COMPO_QNI, 1, cpu), U(0, 18, 2, 3, 1)},
        {add(COMPO_JOB, 0), kNone},
        {1, kNone}, /* the root */
        {-1, kNone},
    };
    for (const auto& [oid, want] : cases) {
        EXPECT_EQ(want, of(oid)) << (oid < 0 ? "null" : zsim::path_of(oid));
    }
    EXPECT_EQ(kUntouched, run([&](unit_position_id_t*) { return znpdklib_compo2upid(compo(cmu), nullptr); }));
}

TEST_F(EmptySimTest, UnitPositionOfPathsAndCodes)
{
    int psu = add(COMPO_PSU, 1);
    add(COMPO_FRUROM, 90, psu);
    int cmu = add(COMPO_CMU, 3), cpu = add(COMPO_CPU, 1, cmu), mem = add(COMPO_MEM, 5, cpu);
    EXPECT_EQ(U(0, 160, 1, 1), of_path("/PSU#1"));
    EXPECT_EQ(U(0, 160, 1, 1), of_path("/SYSTEM#0/PSU#1"));
    EXPECT_EQ(U(0, 161, 2, 1, 90), of_path("/PSU#1/FRUROM#90"));
    EXPECT_EQ(U(0, 22, 3, 3, 1, 5), of_path("/SYSTEM#0/CMU#3/CPU#1/MEM#5"));
    for (const char* none : {"/PSU#7", "", "/SYSTEM#0/NOSUCH#1", "PSU#1"}) {
        EXPECT_EQ(kNone, of_path(none)) << none;
    }
    EXPECT_EQ(kUntouched, run([](unit_position_id_t* id) { return znpdklib_path2upid(nullptr, id); }));

    /* One-layer codes need no component; the others read its ancestors. */
    struct Code {
        int up, no, oid;
        R want;
    };
    std::vector<Code> codes = {
        {128, 300, mem, U(0, 128, 1, 44)},
        {23, 9, mem, U(0, 23, 2, 1, 9)},
        {23, 9, -1, kNone},
        {19, 2, cmu, kNone}, /* a CMU has no grandparent */
        {6, 1, -1, kNone},
        {0, 1, -1, kNone},
    };
    for (int up : {1, 2, 3, 4, 5, 7, 8, 128}) {
        codes.push_back({up, 7, mem, U(0, up, 1, 7)});
        codes.push_back({up, 7, -1, U(0, up, 1, 7)});
    }
    for (int up : {19, 20, 33, 34}) {
        codes.push_back({up, 2, mem, U(0, up, 3, 3, 1, 2)});
        codes.push_back({up, 2, -1, kNone});
    }
    for (int up : {0, 6, 9, 16, 18, 22, 255, 257, -1}) {
        codes.push_back({up, 1, mem, kNone});
    }
    for (const Code& c : codes) {
        EXPECT_EQ(c.want, of_code(c.up, c.no, c.oid)) << c.up << " on " << c.oid;
    }

    std::string path = "/CMU#3/CPU#1/MEM#5", missing = "/CMU#3/CPU#0/MEM#5";
    EXPECT_EQ(U(0, 20, 3, 3, 1, 6),
              run([&](unit_position_id_t* id) { return znpdklib_upid2upid_pc(20, 6, path.data(), id); }));
    EXPECT_EQ(kNone,
              run([&](unit_position_id_t* id) { return znpdklib_upid2upid_pc(20, 6, missing.data(), id); }));
    EXPECT_EQ(U(0, 7, 1, 6),
              run([&](unit_position_id_t* id) { return znpdklib_upid2upid_pc(7, 6, missing.data(), id); }));
    EXPECT_EQ(kUntouched,
              run([](unit_position_id_t* id) { return znpdklib_upid2upid_pc(20, 6, nullptr, id); }));
    EXPECT_EQ(-1, znpdklib_upid2upid(1, 1, compo(mem), nullptr));
    EXPECT_EQ(-1, znpdklib_upid2upid_pc(1, 1, path.data(), nullptr));
    EXPECT_EQ(-1, znpdklib_path2upid(path.data(), nullptr));
}

} // namespace
