#include "support.h"

#include <string.h>

#include <algorithm>
#include <map>
#include <set>

namespace {

using ExechapTest = SimTest;

TEST_F(ExechapTest, OutageOfTheTargetSuppressesTheErrorLog)
{
    zsim::script_hap("TEST_HAP", "",
                     [](const zsim::HapCall&, uint32_t* data, splog_info* info, splog_linkup_info* link) {
                         strcpy(info->ras_code, "HAP_FAILED");
                         link->log_id = 77;
                         return data[0] == 1 ? 3 : -5;
                     });
    const char* path = "/SYSTEM#0/ROUTER#5,/SYSTEM#0/CMUC#2";
    uint32_t data[1] = {0};
    ASSERT_EQ(0, znpdklib_setEmergencyOutage(COMPO_CMUC, 2, 1));
    EXPECT_EQ(0, znpdklib_exechap(path, "TEST_HAP", "READ", nullptr, data));
    EXPECT_TRUE(zsim::ras_logs().empty());
    ASSERT_EQ(0, znpdklib_clearEmergencyOutage(COMPO_CMUC, 2));
    EXPECT_EQ(-5, znpdklib_exechap(path, "TEST_HAP", "READ", nullptr, data));
    ASSERT_EQ(1u, zsim::ras_logs().size());
    EXPECT_STREQ("HAP_FAILED", zsim::ras_logs()[0].info.ras_code);
    EXPECT_EQ(77u, zsim::ras_logs()[0].link.log_id);
    EXPECT_TRUE(zsim::hap_calls()[1].with_log && zsim::hap_calls()[1].target == path);
    EXPECT_EQ(-5, znpdklib_exechap("/SYSTEM#0/NOSUCH#0", "TEST_HAP", "READ", nullptr, data));
    EXPECT_EQ(2u, zsim::ras_logs().size());
    zsim::clear_traces();
    data[0] = 1; // success: no outage check at all
    EXPECT_EQ(3, znpdklib_exechap(path, "TEST_HAP", "READ", nullptr, data));
    EXPECT_TRUE(zsim::traces().empty());
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
