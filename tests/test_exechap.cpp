#include "support.h"

#include <string.h>

#include <algorithm>
#include <map>
#include <set>

namespace {

using ExechapTest = SimTest;

/* A failing procedure is logged unless its target is in emergency outage
 * (scenario outage-explains-failed-procedure); one that answers is not checked. */
TEST_F(ExechapTest, AnsweringProcedureSkipsTheOutageCheck)
{
    zsim::script_hap("TEST_HAP", "",
                     [](const zsim::HapCall&, uint32_t*, splog_info*, splog_linkup_info*) { return 3; });
    uint32_t data[1] = {0};
    EXPECT_EQ(3, znpdklib_exechap("/SYSTEM#0/ROUTER#5,/SYSTEM#0/CMUC#2", "TEST_HAP", "READ", nullptr, data));
    EXPECT_TRUE(zsim::traces().empty());
    EXPECT_TRUE(zsim::ras_logs().empty());
}

current_common_info_t marked(int id)
{
    current_common_info_t info{};
    info.status = 0xC0000F0Fu;
    info.remcs_status = static_cast<uint32_t>(id);
    info.reserve2[8] = 0x5A;
    return info;
}

/* Marks every component, runs `clear`, and expects the installed bit cleared in
 * `unit`, in what lies at most two steps below it and in `extra`, and nothing else. */
template <typename F> void expect_cleared(int unit, const std::set<int>& extra, F clear)
{
    std::map<int, std::string> paths;
    std::vector<sp::sysobj::Component*> todo{sp::sysobj::Component::getRoot()};
    while (!todo.empty()) {
        sp::sysobj::Component* c = todo.back();
        todo.pop_back();
        if (paths.emplace(c->getComponentId(), zsim::path_of(c->getComponentId())).second) {
            zsim::put(c->getComponentId(), PROP_CURRENT_COMMON_INFO, marked(c->getComponentId()));
            c->getComponent(todo, false);
        }
    }
    clear();
    std::string top = zsim::path_of(unit);
    for (const auto& [id, path] : paths) {
        bool below = (path == top || path.rfind(top + "/", 0) == 0) &&
                     std::count(path.begin() + top.size(), path.end(), '/') <= 2;
        current_common_info_t expected = marked(id);
        expected.status &= (below || extra.count(id)) ? 0x7FFFFFFFu : ~0u;
        current_common_info_t got = zsim::get<current_common_info_t>(id, PROP_CURRENT_COMMON_INFO);
        EXPECT_EQ(0, memcmp(&expected, &got, sizeof(got))) << path << std::hex << " " << got.status;
    }
    EXPECT_TRUE(zsim::lock_violations().empty());
}

using ClearDbTest = SimTest;

TEST_F(ClearDbTest, FanuReachesFansAndTheirChildrenOnly)
{
    int fanu = zsim::find(COMPO_FANU, 1);
    int rom = zsim::add_component(COMPO_FRUROM, 90, {zsim::find_below(fanu, COMPO_FAN, 1)});
    int deep = zsim::add_component(COMPO_THRM, 0, {rom});
    expect_cleared(fanu, {}, [] { znpdklib_cleardb_fanu(1, 0x80000000u); });
    EXPECT_TRUE(zsim::get<current_common_info_t>(deep, PROP_CURRENT_COMMON_INFO).isInstalled());
}

TEST_F(ClearDbTest, CmuClearsItsControllerAndNodesAndSkipsMissingUnits)
{
    std::set<int> alone = {zsim::find(COMPO_CMUC, 2), zsim::find(COMPO_NODE, 4), zsim::find(COMPO_NODE, 5)};
    expect_cleared(zsim::find(COMPO_CMU, 2), alone, [] {
        znpdklib_cleardb_cmu(2, 0x80000000u);
        znpdklib_cleardb_system(0, 0);
        znpdklib_cleardb_biou(9, 0); // and BOBC#0
    });
}

} // namespace
