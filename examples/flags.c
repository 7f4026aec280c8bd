/*
 * Flags, from C: sequence flags, the monitor-enable check and job
 * registrations in the shared flags area. This program never sets up the
 * sensor save area, so the area is this process's own buffer.
 */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "znpdklib.h"

static int failures = 0;

static void check(const char* what, unsigned long long actual, unsigned long long expected)
{
    if (actual != expected) {
        fprintf(stderr, "%s is 0x%llx, expected 0x%llx\n", what, actual, expected);
        ++failures;
    }
}

int main(void)
{
    const uint64_t kChassisSequence = 1ULL << 40; /* one of the chassis bits 0x0BFFFF00_00000000 */

    check("set", znpdklib_shmem_sequence_flags(1, kChassisSequence), 0);
    check("test", znpdklib_shmem_sequence_flags(3, kChassisSequence | 1), kChassisSequence);
    check("monitor while sequence", (unsigned)znpdklib_monitor_enable_check(17), 1);
    check("clear", znpdklib_shmem_sequence_flags(2, kChassisSequence), 0);
    check("monitor after sequence", (unsigned)znpdklib_monitor_enable_check(17), 0);

    /* Register instance 4 with method 3 (row 1), then take both rows. */
    check("register", (unsigned)znpdklib_shmem_corvo_job_regist_flags(1, 4, 7, 3, NULL), 0);
    Corvo_Job_regist_flag_t rows[2][18];
    memset(rows, 0xEE, sizeof(rows));
    check("take all", (unsigned)znpdklib_shmem_corvo_job_regist_flags(4, 0, 0, 0, rows), 0);
    check("row 1 entry 4", rows[1][4].BMCInst << 16 | rows[1][4].regist_method << 8 | rows[1][4].regist_mode,
          0x040307);
    check("row 0 entry 4", rows[0][4].BMCInst, 0);

    Various_sharemem_t area;
    znpdklib_Various_sharemem_read(&area);
    check("taken rows cleared", area.hjob_regist_flag[1][4].BMCInst, 0);

    printf("flags: %s\n", failures == 0 ? "ok" : "FAILED");
    return failures == 0 ? 0 : 1;
}
