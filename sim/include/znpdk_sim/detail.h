/*
 * Extension points of the simulated platform for hardware models.
 *
 * A model (PSU controller, fans, router links, ...) lives in its own
 * sim/sim_<model>.cpp with its own public header and registers itself from a
 * static initialiser:
 *
 *     static const bool registered = (zsim::detail::register_model("fans", [] {
 *         zsim::detail::set_builtin_hap("BOB_R_BOBC_FANC", "READ_FANSPEED", handler);
 *     }), true);
 *
 * init() and attach() reset the model's state by calling every on_reset hook
 * in registration order, after every built-in handler has been dropped. A
 * handler scripted with zsim::script_hap() takes precedence over a built-in
 * one; zsim::clear_hap_scripts() brings the built-in ones back.
 */
#ifndef ZNPDK_SIM_DETAIL_H
#define ZNPDK_SIM_DETAIL_H

#include <functional>
#include <string>

#include "znpdk_sim/sim.h"

namespace zsim
{
namespace detail
{

/* Registers a model; `on_reset` runs at every init()/attach(). A second
 * registration under the same name replaces the first. */
void register_model(const std::string& name, std::function<void()> on_reset);

/* Installs the built-in handler of a procedure ("" mode = any mode). */
void set_builtin_hap(const std::string& procedure, const std::string& mode, HapHandler h);

} // namespace detail
} // namespace zsim

#endif
