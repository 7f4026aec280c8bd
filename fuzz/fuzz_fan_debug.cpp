/* The fan debug input file of any content, read by the start-up rotation
 * check on a healthy machine. Each fan ends as the file's last accepted
 * line for it says: passed at or above the threshold, timed out below it. */
#include <stdio.h>

#include <sstream>
#include <string>

#include "fuzz_support.h"
#include "znpdk_sim/fan.h"
#include "znpdklib.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    /* One machine per process; each input starts from its system record
     * and freshly powered fans. */
    static const current_system_info_t initial = [] {
        zsim::init(zfuzz::root());
        zsim::build_default_machine();
        ZNAPI_MemSensorAreaInit();
        auto setup = zsim::get<setup_system_info_t>(1, PROP_SETUP_INFO);
        /* 0x40 reads the file; 0x02 keeps the redundancy check (and the
         * full-speed thread that would rewrite the results) out of the way. */
        setup.debug_flags.debug_flag[DBGW_BMCFW_MODULE_COMMON0] = 0x42;
        zsim::put(1, PROP_SETUP_INFO, setup);
        return zsim::get<current_system_info_t>(1, PROP_CURRENT_INFO);
    }();
    zsim::put(1, PROP_CURRENT_INFO, initial);
    zsim::fan_power_on();
    zsim::clear_traces();
    zsim::clear_hap_calls();
    zsim::clear_ras_logs();
    const std::string text(reinterpret_cast<const char*>(data), size);
    zsim::write_text("/tmp/debug_fan_check_dummy_data", text);
    zsim::advance(10); /* every fan turns at normal speed */

    uint32_t speed[8];
    for (int i = 0; i < 8; ++i) {
        speed[i] = zsim::fan_speed(i);
    }
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        int fan = 0;
        int val = 0;
        if (sscanf(line.c_str(), "%d:%d", &fan, &val) == 2 && fan >= 0 && fan < 8) {
            speed[fan] = static_cast<uint32_t>(val);
        }
    }
    int failed = 0;
    for (uint32_t s : speed) {
        failed += s < 2000 ? 1 : 0;
    }

    const int rc = znpdklib_check_fan_spinup();
    zfuzz::expect(rc == (failed == 0 ? 0 : failed == 1 ? 2 : -1), "spin-up result");
    const auto sys = zsim::get<current_system_info_t>(1, PROP_CURRENT_INFO);
    for (int i = 0; i < 8; ++i) {
        zfuzz::expect(sys.fan_check_result[i] == (speed[i] < 2000 ? 1 : 0), "fan check result");
    }
    zfuzz::expect(zsim::wait_library_threads(), "library threads end");
    zfuzz::expect(zsim::lock_violations().empty(), "component write-lock rules");
    return 0;
}
