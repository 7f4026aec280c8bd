/* The out-of-line part of the shared internal layer. */
#include "znpdklib_internal.h"

#include <stdio.h>
#include <string.h>

#include <exception>

#include "sputil.h"
#include "znpdklib.h"

namespace znpdk {

namespace {

/* Where an exception stopped an exported function. */
constexpr uint32_t kCaughtId = 0x05FF0001;

} // namespace

void trace(int region, int module, int level, uint32_t id, const char* fmt, int a1, int a2, int a3, int a4)
{
    sp_trace2(level, region, module, id, fmt, a1, a2, a3, a4);
}

Component* root()
{
    return Component::getRoot();
}

Component* child(Component* parent, int type, int no)
{
    return parent != nullptr ? parent->getComponent(type, no) : nullptr;
}

std::vector<Component*> children(Component* parent, int type)
{
    std::vector<Component*> list;
    if (parent != nullptr) {
        parent->getComponent(type, list);
    }
    return list;
}

uint16_t sensor_word(int sensor, int BMCInst)
{
    INT16U word = 0;
    znpdklib_getDiscreteStatusSensorStatus(sensor, &word, BMCInst);
    return static_cast<uint16_t>(word & 0x7FFF);
}

int sensor_offset(int sensor, int BMCInst)
{
    return sputil_ntz16(sensor_word(sensor, BMCInst));
}

std::vector<std::string> split(const std::string& line, char delim)
{
    std::vector<std::string> pieces;
    std::string piece;
    for (char c : line) {
        if (c == delim) {
            pieces.push_back(piece);
            piece.clear();
        } else {
            piece += c;
        }
    }
    pieces.push_back(piece);
    return pieces;
}

bool platform_file(const char* path, char* buf, size_t len)
{
    /* Joined by hand: recovery builds a path on every call, and a
     * formatter costs more than the copy. */
    const std::string top = getSPRoot();
    const size_t head = strlen(top.c_str()); /* as %s would: up to a NUL */
    const size_t tail = strlen(path);
    if (len == 0) {
        return false;
    }
    if (head + tail >= len) {
        buf[0] = '\0';
        return false;
    }
    memcpy(buf, top.data(), head);
    memcpy(buf + head, path, tail + 1);
    return true;
}

void trace_caught(const char* function) noexcept
{
    char line[160];
    try {
        throw;
    } catch (const std::exception& e) {
        snprintf(line, sizeof(line), "%s():caught exception. what=%s", function, e.what());
    } catch (...) {
        snprintf(line, sizeof(line), "%s():caught unknown exception", function);
    }
    sp_trace4(kLevelError, T_REGION_LIB_UTIL, SP_MID_BASE_UTIL, kCaughtId, "%s", line);
}

} // namespace znpdk
