/* Helpers shared by the sensor layer tests. */
#ifndef ZNPDK_TESTS_SENSOR_TEST_UTIL_H
#define ZNPDK_TESTS_SENSOR_TEST_UTIL_H

#include <array>
#include <regex>
#include <string>
#include <vector>

#include "support.h"

namespace sensortest {

const char* const kSave = "/var/nvrdisk/current/sensor/snsdata";

/* Debug lines without their "[znpdklib_sensor:line]" prefix; a line with
 * another prefix or level is kept whole, marked with '?'. */
inline std::vector<std::string> dbg()
{
    static const std::regex prefix(R"(^\[znpdklib_sensor:[1-9][0-9]*\]([\s\S]*)$)");
    std::vector<std::string> out;
    std::smatch m;
    for (const zsim::TraceLine& t : zsim::traces()) {
        if (t.debug) {
            out.push_back(t.level == 130 && std::regex_match(t.text, m, prefix) ? m[1].str() : "?" + t.text);
        }
    }
    return out;
}

/* Sensor `num` of `inst` with flags 0x5A, level 0xA5 and owner LUN 7. */
inline void def(int inst, uint8_t num, uint16_t reading, uint8_t evt = 0x6F, uint8_t oem = 0,
                uint8_t type = 7)
{
    zsim::SensorDef d;
    d.inst = inst;
    d.num = num;
    d.type = type;
    d.event_type = evt;
    d.oem = oem;
    d.lun = 7;
    d.reading = reading;
    d.flags = 0x5A;
    d.level = 0xA5;
    zsim::define_sensor(d);
}

/* The four saved bytes of one sensor. */
inline std::array<uint8_t, 4> saved(int inst, int num)
{
    std::vector<uint8_t> f = zsim::read_file(kSave);
    std::array<uint8_t, 4> e{};
    size_t at = static_cast<size_t>(inst * 1024 + num * 4);
    for (size_t i = 0; i < 4 && at + i < f.size(); ++i) {
        e[i] = f[at + i];
    }
    return e;
}

} // namespace sensortest

#endif
