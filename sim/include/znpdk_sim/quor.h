/*
 * Interconnect router model of the simulated platform: the routers' hardware
 * records, the setup record's interconnect space, and the two router
 * procedures "CPUICC_E_QNR_LINK_CHECK" and "CPUICC_T_QNR_LINK_UP".
 *
 * Record helpers write the shared component database (the router component
 * "/SYSTEM#0/ROUTER#n" is added below the root when missing). Procedure
 * scripts and recorded calls are process-local and reset by init()/attach().
 * A test that scripts one of the two procedures with script_hap() replaces
 * this model for it.
 */
#ifndef ZNPDK_SIM_QUOR_H
#define ZNPDK_SIM_QUOR_H

#include <stdint.h>

#include <vector>

namespace zsim {

/* ---- Router hardware record (key 264) ----------------------------------- */
/* Object id of ROUTER#router, added below the root when missing. */
int router_component(int router);
/* The `online` byte of one physical port (1 = online). */
void set_router_port_online(int router, int pport, uint8_t online);
/* All ten ports at once: bit p set = port p online (1), clear = offline (0). */
void set_router_online_mask(int router, uint32_t mask);
void set_router_port_config(int router, uint32_t port_config);

/* ---- Setup record (key 258 on the root) --------------------------------- */
/* quorSpace[0].Z and quorSpace[1].Z; a difference of 3 is small-scale. */
void set_quor_space_z(int8_t z0, int8_t z1);

/* ---- Link check: 30 output words per call -------------------------------- */
/* Status word of a physical port (0..9) of a router (default 0). */
void set_link_status(int router, int pport, uint32_t status);
/* Result code of the link check on a router (default 0). A failing check
 * still fills its output, so the caller must not trust it. */
void set_link_check_result(int router, int code);

/* ---- Link-up ------------------------------------------------------------- */
void set_link_up_result(int router, int code);
/* Target masks (first parameter word) passed to link-up on a router, and the
 * second parameter words, in call order. */
struct LinkUpCall {
    uint32_t target;
    uint32_t option;
};
std::vector<LinkUpCall> link_up_calls(int router);
/* Every router's link status words and procedure results as words, and
 * back (the recorded link-up calls stay): the links are hardware that every
 * process sees alike. */
std::vector<uint32_t> link_state();
void set_link_state(const std::vector<uint32_t>& words);

} // namespace zsim

#endif
