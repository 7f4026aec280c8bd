/* Unit position ids from components, paths and caller codes. */
#include <string.h>

#include <string>
#include <vector>

#include "support.h"

namespace {

using sp::sysobj::Component;

struct Upid {
    int rc;
    std::vector<int> bytes; /* nameID, count, six layers */
};

Upid make(int rc, int name, int count, std::vector<int> layers)
{
    Upid u{rc, {name, count}};
    layers.resize(6, 0);
    u.bytes.insert(u.bytes.end(), layers.begin(), layers.end());
    return u;
}

const Upid kNone = make(-1, 0, 0, {});

Upid bytes_of(int rc, const unit_position_id_t& id)
{
    unsigned char raw[8];
    memcpy(raw, &id, sizeof(raw));
    Upid u{rc, {}};
    for (unsigned char b : raw) {
        u.bytes.push_back(b);
    }
    return u;
}

unit_position_id_t garbage()
{
    unit_position_id_t id;
    memset(&id, 0xA5, sizeof(id));
    return id;
}

Upid from_compo(int oid)
{
    unit_position_id_t id = garbage();
    int rc = znpdklib_compo2upid(oid < 0 ? nullptr : zsim::component(oid), &id);
    return bytes_of(rc, id);
}

Upid from_path(const std::string& path)
{
    unit_position_id_t id = garbage();
    std::vector<char> p(path.begin(), path.end());
    p.push_back('\0');
    return bytes_of(znpdklib_path2upid(p.data(), &id), id);
}

Upid from_code(int up, int no, int oid)
{
    unit_position_id_t id = garbage();
    int rc = znpdklib_upid2upid(up, no, oid < 0 ? nullptr : zsim::component(oid), &id);
    return bytes_of(rc, id);
}

void expect_upid(const Upid& want, const Upid& got, const std::string& what)
{
    EXPECT_EQ(want.rc, got.rc) << what;
    EXPECT_EQ(want.bytes, got.bytes) << what;
}

class UnitPosition : public EmptySimTest {
protected:
    int add(int type, int no, int parent = -1)
    {
        return parent < 0 ? zsim::add_component(type, no) : zsim::add_component(type, no, {parent});
    }
};

TEST_F(UnitPosition, ComponentsOfEveryTable)
{
    int cmu = add(COMPO_CMU, 3);
    int cpu = add(COMPO_CPU, 1, cmu);
    int biou = add(COMPO_BIOU, 0);
    int giou = add(COMPO_GIOU, 2);
    int psu = add(COMPO_PSU, 4);
    int iorc = add(COMPO_IORC, 0);
    int node = add(COMPO_NODE, 6, cmu);
    int fanu = add(COMPO_FANU, 2);
    struct Case {
        const char* what;
        int oid;
        Upid want;
    } cases[] = {
        {"CMU 3", cmu, make(0, 16, 1, {3})},
        {"BIOU 0", biou, make(0, 64, 1, {0})},
        {"GIOU 2", giou, make(0, 48, 1, {2})},
        {"PSU 4", psu, make(0, 160, 1, {4})},
        {"ROUTER 9", add(COMPO_ROUTER, 9), make(0, 21, 1, {9})},
        {"NODE 6", node, make(0, 144, 1, {6})},
        {"FANU 2", fanu, make(0, 192, 1, {2})},
        {"CMU 260 keeps the low byte", add(COMPO_CMU, 260), make(0, 16, 1, {4})},
        {"FAN 2 below BIOU", add(COMPO_FAN, 2, biou), make(0, 66, 2, {0, 2})},
        {"FAN 1 below FANU 2", add(COMPO_FAN, 1, fanu), make(0, 66, 2, {0, 1})},
        {"FANC", add(COMPO_FANC, 0, biou), make(0, 71, 2, {0, 0})},
        {"SSD below a node", add(COMPO_SSD, 5, node), make(0, 65, 2, {0, 5})},
        {"SBCRAM_B", add(COMPO_SBCRAM_B, 1, biou), make(0, 81, 2, {0, 1})},
        {"FWFMEM", add(COMPO_FWFMEM, 3, biou), make(0, 83, 2, {0, 3})},
        {"CPU 1 of CMU 3", cpu, make(0, 18, 2, {3, 1})},
        {"PSW of CMU 3", add(COMPO_PSW, 0, cmu), make(0, 28, 2, {3, 0})},
        {"AOC 2 of CMU 3", add(COMPO_AOC, 2, cmu), make(0, 32, 2, {3, 2})},
        {"FRUROM below BIOU", add(COMPO_FRUROM, 7, biou), make(0, 67, 2, {0, 7})},
        {"FRUROM below GIOU", add(COMPO_FRUROM, 1, giou), make(0, 50, 2, {2, 1})},
        {"FRUROM below CMU", add(COMPO_FRUROM, 0, cmu), make(0, 17, 2, {3, 0})},
        {"FRUROM 90 below PSU 4", add(COMPO_FRUROM, 90, psu), make(0, 161, 2, {4, 90})},
        {"FRUROM below a node", add(COMPO_FRUROM, 1, node), kNone},
        {"GPIO below BIOU", add(COMPO_GPIO, 1, biou), make(0, 73, 2, {0, 1})},
        {"GPIO below a PSU", add(COMPO_GPIO, 1, psu), kNone},
        {"ADC below CMU", add(COMPO_ADC, 2, cmu), make(0, 24, 2, {3, 2})},
        {"PCIESW below GIOU", add(COMPO_PCIESW, 0, giou), make(0, 54, 2, {2, 0})},
        {"POL below CMU", add(COMPO_POL, 3, cmu), make(0, 27, 2, {3, 3})},
        {"THRM below GIOU", add(COMPO_THRM, 4, giou), make(0, 49, 2, {2, 4})},
        {"PCIECARD below GIOU", add(COMPO_PCIECARD, 3, giou), make(0, 56, 2, {2, 3})},
        {"PCIECARD below a node", add(COMPO_PCIECARD, 1, node), kNone},
        {"PSUC has no id", add(COMPO_PSUC, 0, iorc), kNone},
        {"SYSFMEM below IORC", add(COMPO_SYSFMEM, 1, iorc), make(0, 178, 2, {0, 1})},
        {"MEM 5 of CPU 1 of CMU 3", add(COMPO_MEM, 5, cpu), make(0, 22, 3, {3, 1, 5})},
        {"QNR 4 of CPU 1 of CMU 3", add(COMPO_QNR, 4, cpu), make(0, 21, 3, {3, 1, 4})},
        {"core inside a CPU", add(COMPO_CORE, 2, cpu), make(0, 18, 2, {3, 1})},
        {"MAC inside a CPU", add(COMPO_MAC, 0, cpu), make(0, 18, 2, {3, 1})},
        {"IOC inside a CPU", add(COMPO_IOC, 7, cpu), make(0, 18, 2, {3, 1})},
        {"QNI inside a CPU", add(COMPO_QNI, 1, cpu), make(0, 18, 2, {3, 1})},
        {"type in no table", add(COMPO_JOB, 0), kNone},
        {"the root", 1, kNone},
        {"null component", -1, kNone},
    };
    for (const Case& c : cases) {
        expect_upid(c.want, from_compo(c.oid), c.what);
    }
}

TEST_F(UnitPosition, PathsWithAndWithoutTheRootStep)
{
    int psu = add(COMPO_PSU, 1);
    add(COMPO_FRUROM, 90, psu);
    int cpu = add(COMPO_CPU, 1, add(COMPO_CMU, 3));
    add(COMPO_MEM, 5, cpu);
    expect_upid(make(0, 160, 1, {1}), from_path("/PSU#1"), "short PSU path");
    expect_upid(make(0, 160, 1, {1}), from_path("/SYSTEM#0/PSU#1"), "full PSU path");
    expect_upid(make(0, 161, 2, {1, 90}), from_path("/PSU#1/FRUROM#90"), "short FRUROM path");
    expect_upid(make(0, 22, 3, {3, 1, 5}), from_path("/SYSTEM#0/CMU#3/CPU#1/MEM#5"), "full MEM path");
    expect_upid(kNone, from_path("/PSU#7"), "unknown component");
    expect_upid(kNone, from_path(""), "empty path (the root)");
    expect_upid(kNone, from_path("/SYSTEM#0/NOSUCH#1"), "unknown type");

    unit_position_id_t id = garbage();
    EXPECT_EQ(-1, znpdklib_path2upid(nullptr, &id));
    expect_upid(bytes_of(-1, garbage()), bytes_of(-1, id), "null path leaves the id alone");
    char path[] = "/PSU#1";
    EXPECT_EQ(-1, znpdklib_path2upid(path, nullptr));
    EXPECT_EQ(-1, znpdklib_compo2upid(zsim::component(psu), nullptr));
}

TEST_F(UnitPosition, CallerCodes)
{
    int cmu = add(COMPO_CMU, 3);
    int cpu = add(COMPO_CPU, 1, cmu);
    int mem = add(COMPO_MEM, 5, cpu);
    for (int up : {1, 2, 3, 4, 5, 7, 8, 128}) {
        expect_upid(make(0, up, 1, {7}), from_code(up, 7, mem), "one layer, code " + std::to_string(up));
    }
    expect_upid(make(0, 128, 1, {44}), from_code(128, 300, mem), "number kept to its low byte");
    expect_upid(make(0, 23, 2, {1, 9}), from_code(23, 9, mem), "SBCC below the CPU's layer");
    for (int up : {19, 20, 33, 34}) {
        expect_upid(make(0, up, 3, {3, 1, 2}), from_code(up, 2, mem), "three layers, code " + std::to_string(up));
    }
    for (int up : {0, 6, 9, 16, 18, 22, 255, 256 + 1, -1}) {
        expect_upid(kNone, from_code(up, 1, mem), "rejected code " + std::to_string(up));
    }
    expect_upid(kNone, from_code(1, 7, -1), "null component");
    expect_upid(kNone, from_code(19, 2, cmu), "no grandparent above a CMU");

    unit_position_id_t id = garbage();
    char path[] = "/CMU#3/CPU#1/MEM#5";
    EXPECT_EQ(0, znpdklib_upid2upid_pc(20, 6, path, &id));
    expect_upid(make(0, 20, 3, {3, 1, 6}), bytes_of(0, id), "code with a short path");
    char missing[] = "/CMU#3/CPU#0/MEM#5";
    id = garbage();
    expect_upid(kNone, bytes_of(znpdklib_upid2upid_pc(20, 6, missing, &id), id), "code with an unknown path");
    id = garbage();
    EXPECT_EQ(-1, znpdklib_upid2upid_pc(20, 6, nullptr, &id));
    expect_upid(bytes_of(-1, garbage()), bytes_of(-1, id), "null path leaves the id alone");
    EXPECT_EQ(-1, znpdklib_upid2upid(1, 1, zsim::component(mem), nullptr));
}

} // namespace
