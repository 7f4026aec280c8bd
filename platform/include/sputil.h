/* Platform utilities: bit helpers and platform file paths. */
#ifndef ZNPDK_PLATFORM_SPUTIL_H
#define ZNPDK_PLATFORM_SPUTIL_H

#include <stdint.h>

#include <string>

extern "C" {
/* Number of trailing zero bits of a 16-bit value (16 for 0). */
int sputil_ntz16(uint16_t value);
}

/* Root directory prefix of the platform's files. */
std::string getSPRoot();
/* getSPRoot() followed by filePath. */
std::string getSPFilePath(const std::string& filePath);

namespace sp {
namespace util {
namespace file {
class FileCheck {
  public:
    /* True when stat succeeds on getSPFilePath(path_). */
    static bool exist(const std::string& path_);
};
} // namespace file
} // namespace util
} // namespace sp

#endif
