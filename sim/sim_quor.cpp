/* Interconnect router model: hardware records, setup space, link procedures. */
#include "znpdk_sim/quor.h"

#include <stdio.h>

#include <algorithm>
#include <map>
#include <mutex>

#include "znpdk_sim/detail.h"
#include "znpdk_sim/sim.h"
#include "znpdklib_types.h"

namespace zsim {
namespace {

const int ROUTERS = 16;
const int PORTS = 10;
const int LINK_CHECK_WORDS = 30;

struct RouterState {
    uint32_t status[PORTS] = {};
    int check_result = 0;
    int link_up_result = 0;
    std::vector<LinkUpCall> link_ups;
};

struct QuorState {
    std::mutex mutex;
    std::map<int, RouterState> routers;
};

QuorState& qs()
{
    static QuorState* s = new QuorState(); /* outlives every static destructor */
    return *s;
}

/* Router number of a "/SYSTEM#0/ROUTER#%d,..." target, or -1. */
int target_router(const std::string& target)
{
    int r = -1;
    if (sscanf(target.c_str(), "/SYSTEM#0/ROUTER#%d", &r) != 1 || r < 0 || r >= ROUTERS) {
        return -1;
    }
    return r;
}

int link_check(const HapCall& call, uint32_t* data, splog_info*, splog_linkup_info*)
{
    int r = target_router(call.target);
    if (r < 0) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(qs().mutex);
    RouterState& st = qs().routers[r];
    if (data != nullptr) {
        for (int i = 0; i < LINK_CHECK_WORDS; ++i) {
            data[i] = i < PORTS ? st.status[i] : 0;
        }
    }
    return st.check_result;
}

int link_up(const HapCall& call, uint32_t*, splog_info*, splog_linkup_info*)
{
    int r = target_router(call.target);
    if (r < 0) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(qs().mutex);
    RouterState& st = qs().routers[r];
    LinkUpCall rec{};
    rec.target = call.para.size() > 0 ? call.para[0] : 0;
    rec.option = call.para.size() > 1 ? call.para[1] : 0;
    st.link_ups.push_back(rec);
    return st.link_up_result;
}

void reset()
{
    {
        std::lock_guard<std::mutex> lock(qs().mutex);
        qs().routers.clear();
    }
    detail::set_builtin_hap("CPUICC_E_QNR_LINK_CHECK", "", link_check);
    detail::set_builtin_hap("CPUICC_T_QNR_LINK_UP", "", link_up);
}

const bool registered = (detail::register_model("quor", reset), true);

template <typename F> void with_router(int router, F change)
{
    if (router < 0 || router >= ROUTERS) {
        return;
    }
    std::lock_guard<std::mutex> lock(qs().mutex);
    change(qs().routers[router]);
}

/* Read-modify-write of a router's hardware record. */
template <typename F> void change_hard_info(int router, F change)
{
    int oid = router_component(router);
    if (oid < 0) {
        return;
    }
    auto info = get<current_router_hard_info_t>(oid, PROP_CURRENT_HARD_INFO);
    change(info.quordata);
    put(oid, PROP_CURRENT_HARD_INFO, info);
}

} // namespace

int router_component(int router)
{
    (void)registered;
    if (router < 0 || router >= ROUTERS) {
        return -1;
    }
    int oid = find_path("/SYSTEM#0/ROUTER#" + std::to_string(router));
    return oid >= 0 ? oid : add_component(COMPO_ROUTER, router);
}

void set_router_port_online(int router, int pport, uint8_t online)
{
    if (pport < 0 || pport >= PORTS) {
        return;
    }
    change_hard_info(router, [&](quor_node_config_t& q) { q.phyPort[pport].online = online; });
}

void set_router_online_mask(int router, uint32_t mask)
{
    change_hard_info(router, [&](quor_node_config_t& q) {
        for (int p = 0; p < PORTS; ++p) {
            q.phyPort[p].online = (mask >> p) & 1u;
        }
    });
}

void set_router_port_config(int router, uint32_t port_config)
{
    change_hard_info(router, [&](quor_node_config_t& q) { q.portConfig = port_config; });
}

void set_quor_space_z(int8_t z0, int8_t z1)
{
    int root = find_path("/SYSTEM#0");
    auto setup = get<setup_system_info_t>(root, PROP_SETUP_INFO);
    setup.quorSpace[0].Z = z0;
    setup.quorSpace[1].Z = z1;
    put(root, PROP_SETUP_INFO, setup);
}

void set_link_status(int router, int pport, uint32_t status)
{
    if (pport < 0 || pport >= PORTS) {
        return;
    }
    with_router(router, [&](RouterState& st) { st.status[pport] = status; });
}

void set_link_check_result(int router, int code)
{
    with_router(router, [&](RouterState& st) { st.check_result = code; });
}

void set_link_up_result(int router, int code)
{
    with_router(router, [&](RouterState& st) { st.link_up_result = code; });
}

std::vector<LinkUpCall> link_up_calls(int router)
{
    std::vector<LinkUpCall> out;
    with_router(router, [&](RouterState& st) { out = st.link_ups; });
    return out;
}

std::vector<uint32_t> link_state()
{
    static const RouterState kUntouched;
    std::vector<uint32_t> w;
    std::lock_guard<std::mutex> lock(qs().mutex);
    for (int r = 0; r < ROUTERS; ++r) {
        auto it = qs().routers.find(r);
        const RouterState& st = it == qs().routers.end() ? kUntouched : it->second;
        w.insert(w.end(), st.status, st.status + PORTS);
        w.push_back(static_cast<uint32_t>(st.check_result));
        w.push_back(static_cast<uint32_t>(st.link_up_result));
    }
    return w;
}

void set_link_state(const std::vector<uint32_t>& w)
{
    constexpr size_t kRouterWords = PORTS + 2;
    if (w.size() != ROUTERS * kRouterWords) {
        return;
    }
    std::lock_guard<std::mutex> lock(qs().mutex);
    for (int r = 0; r < ROUTERS; ++r) {
        const uint32_t* p = w.data() + r * kRouterWords;
        RouterState& st = qs().routers[r];
        std::copy(p, p + PORTS, st.status);
        st.check_result = static_cast<int>(p[PORTS]);
        st.link_up_result = static_cast<int>(p[PORTS + 1]);
    }
}

} // namespace zsim
