/* znpdk-sim serve: the simulated BMC answers IPMI clients (ipmitool,
 * FreeIPMI) over LAN while a scenario runs and after it. */
#ifndef ZNPDK_SIM_TOOL_SERVE_SERVE_H
#define ZNPDK_SIM_TOOL_SERVE_SERVE_H

#include <string>

#include "scenario/scenario.h"
#include "serve/mirror.h"

namespace zcmd {

/* Exit status when the server cannot start (a port in use, the engine missing). */
constexpr int kExitCannotServe = 5;

/* The user name and password a client may use; false with the reason. */
bool valid_credentials(const ServeConfig& cfg, std::string& error);

/* The scenario served without a file: the default machine after its AC power-on. */
std::string default_machine_scenario();

/* Runs the scenario (file text) in this process with the IPMI server
 * watching it, and serves until SIGINT or SIGTERM. */
int serve_scenario(const std::string& text, const std::string& file, Options o, const ServeConfig& cfg);

} // namespace zcmd

#endif
