/*
 * Platform trace facility. Each line carries a level, a region, a module,
 * a 32-bit trace id and a printf-style format with its values.
 */
#ifndef ZNPDK_PLATFORM_SP_TRACE_H
#define ZNPDK_PLATFORM_SP_TRACE_H

#include <stdint.h>

/* Regions used by libznpdk. */
#define T_REGION_LIB_QUOR 39
#define T_REGION_POWER_MON 40
#define T_REGION_LIB_POWER_INIT 43
#define T_REGION_LIB_UTIL 44

/* Module. */
#define SP_MID_BASE_UTIL 30

#ifdef __cplusplus
extern "C" {
#endif

/* Four integer values (unused ones 0). */
void sp_trace2(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
               int a4);
/* One string value. */
void sp_trace4(int level, int region, int module, uint32_t id, const char* fmt, const char* s);
/* Five to eight integer values. */
void sp_trace25(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
                int a4, int a5);
void sp_trace26(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
                int a4, int a5, int a6);
void sp_trace27(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
                int a4, int a5, int a6, int a7);
void sp_trace28(int level, int region, int module, uint32_t id, const char* fmt, int a1, int a2, int a3,
                int a4, int a5, int a6, int a7, int a8);

#ifdef __cplusplus
}
#endif

#endif
