/* The simulated machine's IPMI view in the engine: one management
 * controller per BMC instance, each on a LAN port of its own, with an SDR
 * per sensor, the sensors' state words and the SEL records the library
 * added. */
#ifndef ZNPDK_SIM_TOOL_SERVE_MIRROR_H
#define ZNPDK_SIM_TOOL_SERVE_MIRROR_H

#include <cstdint>
#include <string>
#include <vector>

#include "ipmi_stack.h"
#include "serve/console.h"

namespace zcmd {

struct Controller {
    int inst = 0;
    uint8_t addr = 0;         /* IPMB slave address inside the engine */
    uint16_t port = 0;        /* where clients reach it */
    uint16_t engine_port = 0; /* where the engine listens for the relay */
};

/* Instances 1 to 17: the chassis (17) at `base_port` and 0x20, node n
 * (instance n + 1) at base_port + n + 1 and 0x40 + 2n. */
std::vector<Controller> controllers(uint16_t base_port);

/* The compact sensor record (type 02h) of a sensor, owned by the controller
 * as a client sees it (0x20: each instance answers as a BMC of its own). */
std::vector<uint8_t> sensor_sdr(const SensorInfo_T& s, const std::string& name, int inst);

/* Every emulator command that sets up the controllers and their sensors as
 * the machine holds them now. */
std::vector<std::string> machine_commands(const std::vector<Controller>& ctls);

struct ServeConfig {
    std::string address = "127.0.0.1";
    uint16_t port = 9623;
    std::string user;
    std::string password;
    std::string dir; /* scratch directory: the engine's configuration and state */
};

class Mirror {
  public:
    /* Starts the engine on the machine as it is now, and the control session. */
    bool start(const ServeConfig& cfg, const std::vector<Controller>& ctls, std::string& error);
    /* Pushes what changed since the last push; each problem as a line. */
    std::vector<std::string> sync();
    void stop();
    uint64_t pushed_bits() const { return pushed_bits_; }
    uint64_t pushed_records() const { return pushed_records_; }

  private:
    bool console(const std::vector<std::string>& cmds, std::vector<std::string>& problems);
    bool raw(uint8_t addr, const std::string& request, RawResult& r, std::string& problem);
    void push_record(const Controller& c, const SELEventRecord_T& rec, uint16_t id,
                     std::vector<std::string>& problems);

    std::vector<Controller> ctls_;
    PromptedChild engine_;
    PromptedChild control_;
    uint8_t target_ = 0x20;
    std::vector<uint16_t> words_;  /* 18 x 256 state words as pushed */
    std::vector<uint8_t> present_; /* ... and which sensors the engine has */
    std::vector<size_t> records_;  /* SEL records pushed per instance */
    uint32_t clock_ = 0;           /* virtual time the SEL clocks were last set to */
    uint64_t pushed_bits_ = 0;
    uint64_t pushed_records_ = 0;
};

} // namespace zcmd

#endif
