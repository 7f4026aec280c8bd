/* Helpers shared by the fan tests. */
#ifndef ZNPDK_TESTS_FAN_SUPPORT_H
#define ZNPDK_TESTS_FAN_SUPPORT_H

#include <string>
#include <vector>

#include "support.h"
#include "znpdk_sim/fan.h"

namespace fant {

constexpr int kRoot = 1;
constexpr uint8_t kRedSns = 0x82;

inline current_system_info_t sys()
{
    return zsim::get<current_system_info_t>(kRoot, PROP_CURRENT_INFO);
}

template <typename F> void edit_sys(F&& change)
{
    current_system_info_t s = sys();
    change(s);
    zsim::put(kRoot, PROP_CURRENT_INFO, s);
}

inline void set_debug(int word, uint32_t value)
{
    auto setup = zsim::get<setup_system_info_t>(kRoot, PROP_SETUP_INFO);
    setup.debug_flags.debug_flag[word] = value;
    zsim::put(kRoot, PROP_SETUP_INFO, setup);
}

inline void frue(int fan, uint16_t state)
{
    zsim::set_sensor_reading(17, static_cast<uint8_t>(0xD1 + fan), state);
}

using ztest::ras_codes;

/* Virtual times of the calls of one fan procedure mode. */
inline std::vector<uint32_t> hap_times(const std::string& mode)
{
    std::vector<uint32_t> out;
    for (const zsim::HapCall& c : zsim::hap_calls()) {
        if (c.procedure == "BOB_R_BOBC_FANC" && c.mode == mode) {
            out.push_back(c.time);
        }
    }
    return out;
}

inline std::vector<std::string> hap_modes()
{
    std::vector<std::string> out;
    for (const zsim::HapCall& c : zsim::hap_calls()) {
        out.push_back(c.mode);
    }
    return out;
}

inline size_t count(uint32_t id)
{
    return zsim::traces_with_id(id).size();
}

/* Times t0, t0 + step, ... (n values). */
inline std::vector<uint32_t> every(uint32_t t0, uint32_t step, int n)
{
    std::vector<uint32_t> out;
    for (int i = 0; i < n; ++i) {
        out.push_back(t0 + step * static_cast<uint32_t>(i));
    }
    return out;
}

} // namespace fant

#endif
