/*
 * Controller support library interface: hardware access procedures, RAS
 * error logs, path-based record reads, LEDs, PSU control information, port
 * mapping, clear-sensor lists and named semaphores.
 */
#ifndef ZNPDK_PLATFORM_ZNLIB_H
#define ZNPDK_PLATFORM_ZNLIB_H

#include <semaphore.h>
#include <stddef.h>
#include <stdint.h>

typedef struct {
    uint32_t latch_code;
} splog_latch_code;

/* RAS error log record (80 bytes, native byte order). */
typedef struct {
    char ras_code[16];
    uint8_t BMCInst;
    uint8_t direction;
    uint8_t rsv[2];
    uint8_t part1_pos[6];
    uint8_t part2_pos[6];
    splog_latch_code latch_code[8];
    uint8_t detail[16];
} splog_info;

typedef struct {
    int32_t tv_sec;
    int32_t tv_usec;
} splog_time_stamp;

/* Companion record of splog_info (32 bytes); 4 unnamed bytes at 20. */
typedef struct {
    splog_time_stamp time;
    uint32_t log_id;
    int32_t num;
    int32_t BMCInst;
    uint64_t link_type;
} splog_linkup_info;

/* Clear targets of one sensor, as the log component knows them. */
typedef enum {
    LOG_CLEAR_PARENT = 0,
    LOG_CLEAR_EVEN_NODE = 1,
    LOG_CLEAR_ODD_NODE = 2,
    LOG_CLEAR_BOB = 3,
    MAX_CLEAR_SENSOR_TARGET = 4,
} LOG_CLEAR_SENSOR_TARGET;

typedef struct {
    int valid;
    int BMCInst;
    int fru_sensor;
    int frue_sensor;
} splog_clear_sensor_list;

#ifdef __cplusplus
static_assert(sizeof(splog_latch_code) == 4, "latch code is 4 bytes");
static_assert(offsetof(splog_info, ras_code) == 0, "ras_code at 0");
static_assert(offsetof(splog_info, BMCInst) == 16, "BMCInst at 16");
static_assert(offsetof(splog_info, direction) == 17, "direction at 17");
static_assert(offsetof(splog_info, rsv) == 18, "rsv at 18");
static_assert(offsetof(splog_info, part1_pos) == 20, "part1_pos at 20");
static_assert(offsetof(splog_info, part2_pos) == 26, "part2_pos at 26");
static_assert(offsetof(splog_info, latch_code) == 32, "latch_code at 32");
static_assert(offsetof(splog_info, detail) == 64, "detail at 64");
static_assert(sizeof(splog_info) == 80, "splog_info is 80 bytes");
static_assert(sizeof(splog_time_stamp) == 8, "time stamp is 8 bytes");
static_assert(offsetof(splog_linkup_info, time) == 0, "time at 0");
static_assert(offsetof(splog_linkup_info, log_id) == 8, "log_id at 8");
static_assert(offsetof(splog_linkup_info, num) == 12, "num at 12");
static_assert(offsetof(splog_linkup_info, BMCInst) == 16, "BMCInst at 16");
static_assert(offsetof(splog_linkup_info, link_type) == 24, "link_type at 24");
static_assert(sizeof(splog_linkup_info) == 32, "splog_linkup_info is 32 bytes");
static_assert(sizeof(splog_clear_sensor_list) == 16, "clear sensor list entry is 16 bytes");
extern "C" {
#endif

/* Runs a hardware access procedure; 0 on success, else an error code. */
int znlib_hce_exechap(const char* target, const char* procedure, const char* mode, const uint32_t* para,
                      uint32_t* data);
/* The same, registering no log itself: on failure it fills both records. */
int znlib_hce_exechap_noerrlogregist_withlinklog(const char* target, const char* procedure, const char* mode,
                                                 const uint32_t* para, uint32_t* data, splog_info* loginfo,
                                                 splog_linkup_info* loglink);
/* Registers a RAS error log and its SEL entry (a platform function). */
int znpdklib_log_save_sel_error_log(splog_info* loginfo, splog_linkup_info* loglink);

/* Reads a record by component path; 0 on success. */
int znlib_DBGetProperty(const char* path, int key, unsigned int size, void* buffer);

/* LED state of a component's LED; a result of 0 or less is a failure. */
int znlib_led_read(int compo_type, int compo_no, int led, int option);
/* Sets a component's LED; 0 on success. */
int znlib_led_control(int compo_type, int compo_no, int led, int state);

/* PSU control information; negative on error. */
int znlib_psu_ctlinfo(int psuno, uint32_t* psuinfo);

/* Physical port (0 to 9) of a logical router port. */
int znlib_getLogic2PhysicPortNo(int router, int lportno);

/* Fills the four clear targets of one sensor. */
int znlib_log_get_clear_sensor_list(int BMCInst, int sensor, splog_clear_sensor_list* list);

/* Named semaphores shared between processes. */
sem_t* _znlib_sem_open(const char* name, int flag);
int _znlib_sem_lock(sem_t* handle, const char* name, int flag);
int _znlib_sem_unlock(sem_t* handle, const char* name, int flag);
int _znlib_sem_close(sem_t* handle, int flag);
int znlib_sem_close(sem_t* handle);

#ifdef __cplusplus
}
#endif

#endif
