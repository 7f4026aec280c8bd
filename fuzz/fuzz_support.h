/* Helpers shared by the fuzz targets. */
#ifndef ZNPDK_FUZZ_SUPPORT_H
#define ZNPDK_FUZZ_SUPPORT_H

#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "znpdk_sim/sim.h"

namespace zfuzz {

/* A broken expectation is a finding: abort so that libFuzzer keeps the input. */
inline void expect(bool ok, const char* what)
{
    if (!ok) {
        fprintf(stderr, "fuzz expectation failed: %s\n", what);
        abort();
    }
}

/* One machine root per fuzzing process, below the temporary directory. */
inline const std::string& root()
{
    static const std::string path = [] {
        char tmpl[] = "/tmp/znpdk-fuzz-XXXXXX";
        const char* dir = mkdtemp(tmpl);
        expect(dir != nullptr, "temporary root");
        return std::string(dir);
    }();
    return path;
}

/* Little-endian reader over the fuzzer's bytes; reads past the end give 0. */
struct Bytes {
    const uint8_t* p;
    size_t n;
    uint8_t u8() { return n > 0 ? (--n, *p++) : 0; }
    uint32_t u32()
    {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) {
            v |= static_cast<uint32_t>(u8()) << (8 * i);
        }
        return v;
    }
    std::string rest()
    {
        std::string s(reinterpret_cast<const char*>(p), n);
        p += n;
        n = 0;
        return s;
    }
};

} // namespace zfuzz

#endif
