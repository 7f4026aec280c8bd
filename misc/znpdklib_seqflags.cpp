/* Power-sequence and job flags in the shared flags area, the monitor-enable
 * decisions built on them, and the wait for the BMC unit. */
#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include "ipmi_stack.h"
#include "sp_trace.h"
#include "znpdklib.h"
#include "znpdklib_internal.h"

namespace {

using namespace znpdk;

constexpr uint64_t kChassisSequenceMask = 0x0BFFFF0000000000ull;

/* Serialises this process's read-modify-writes of the shared flags area. */
pthread_mutex_t v_mutex = PTHREAD_MUTEX_INITIALIZER;

/* Sequence bits of an instance: its node and that node's CMU, or the chassis. */
uint64_t instance_sequence_mask(int BMCInst)
{
    if (BMCInst == kChassisInst) {
        return kChassisSequenceMask;
    }
    if (BMCInst < 1 || BMCInst > 16) {
        return 0; /* no node: no sequence concerns it */
    }
    int node = BMCInst - 1;
    return (1ull << node) | (1ull << (16 + node)) | (1ull << (32 + node / 2));
}

} // namespace

/* Polls once a second, with no limit; a missing BIOU#0 is looked up again. */
int znpdklib_wait_BMCReady(void)
{
    Component* biou = nullptr;
    for (;;) {
        if (biou == nullptr) {
            biou = child(root(), COMPO_BIOU, 0);
        }
        if (read_common(biou).isInitializeComplete()) {
            return 0;
        }
        sleep(1);
    }
}

uint64_t znpdklib_shmem_sequence_flags(int mode, uint64_t target)
{
    Various_sharemem_t area;
    memset(&area, 0, sizeof(area));
    if (mode != 1 && mode != 2) {
        znpdklib_Various_sharemem_read(&area);
        return area.job_in_sequence & target;
    }
    kTracePowerMon(kLevelInfo, 0x0541100F, "znpdklib_shmem_sequence_flags():mode=%d target = %8.8x %8.8x",
                   mode, hi32(target), lo32(target));
    ScopeLock lock(&v_mutex);
    znpdklib_Various_sharemem_read(&area);
    if (mode == 1) {
        area.job_in_sequence |= target;
    } else {
        area.job_in_sequence &= ~target;
    }
    znpdklib_Various_sharemem_write(&area);
    return 0;
}

/* An instance without a node (0, or outside 0..17) has no sequence bits: 0 unless PSW power is killed. */
int znpdklib_monitor_enable_check(int BMCInst)
{
    if (BMCInst != kChassisInst) {
        if ((read_common(root()).status & COMMON_STATUS_PSW_POWER_KILLED) != 0) {
            kTracePowerMon(kLevelInfo, 0x05411000, "znpdklib_monitor_enable_check():Inst=%d PSW power killed",
                           BMCInst);
            return -1;
        }
    }
    uint64_t mask = instance_sequence_mask(BMCInst);
    uint64_t going = mask != 0 ? znpdklib_shmem_sequence_flags(3, mask) : 0;
    if (going == 0) {
        return 0;
    }
    kTracePowerMon(kLevelDetail, 0x05411001,
                   "znpdklib_monitor_enable_check():Inst=%d now sequence go on. check = %8.8x %8.8x", BMCInst,
                   hi32(mask), lo32(mask));
    kTracePowerMon(kLevelDetail, 0x05411002,
                   "znpdklib_monitor_enable_check():Inst=%d now sequence go on. going = %8.8x %8.8x", BMCInst,
                   hi32(going), lo32(going));
    return 1;
}

/*
 * An instance outside 0..17 is not asked (the stack has no such table) and
 * answers 1, as an all-zero status would; an instance without a node (0, 17)
 * has no power-off sequence to report.
 */
int znpdklib_monitor_enable_check_gio(int BMCInst)
{
    if (BMCInst < 0 || BMCInst >= kInstCount) {
        return 1;
    }
    INT8U req = 0; /* sensor 0: node status */
    GetSensorReadingRes_T res;
    memset(&res, 0, sizeof(res));
    GetSensorReading(&req, sizeof(req), reinterpret_cast<INT8U*>(&res), BMCInst);
    int status = ((res.OptionalStatus & 0x7F) << 8) | res.ComparisonStatus;
    kTracePowerMon(kLevelInfo, 0x05411100, "znpdklib_monitor_enable_check_gio():Inst=%d node status = %4.4x",
                   BMCInst, status);
    if ((status & 0x01F8) == 0) {
        return 1;
    }
    Component* node = nullptr;
    if (BMCInst >= 1 && BMCInst <= 16) {
        node = child(root(), COMPO_NODE, BMCInst - 1);
    }
    if (node == nullptr) {
        return 0;
    }
    uint32_t sequence = read_common(node).sequence;
    if ((sequence & COMMON_SEQUENCE_POWER_OFF) != 0) {
        kTracePowerMon(
            kLevelInfo, 0x05411101,
            "znpdklib_monitor_enable_check_gio():Inst=%d node status = %4.4x but off seq running(%8.8x)",
            BMCInst, status, static_cast<int>(sequence));
        return 1;
    }
    return 0;
}

int znpdklib_fan_monitor_enable_check(int BMCInst, uint8_t SensorNumber)
{
    if (BMCInst == kChassisInst && SensorNumber >= 229 && SensorNumber <= 236 &&
        znpdklib_is_check_fan_executing()) {
        return 0;
    }
    return 1;
}

/*
 * Register and unregister ignore an instance outside 0..17 (the table has
 * 18 entries a row); take-all with a null `datap` hands out and clears nothing.
 */
int znpdklib_shmem_corvo_job_regist_flags(int mode, int BMCInst, uint8_t regist_mode, uint8_t regist_method,
                                          void* datap)
{
    ScopeLock lock(&v_mutex);
    Various_sharemem_t area;
    memset(&area, 0, sizeof(area));
    znpdklib_Various_sharemem_read(&area);
    Corvo_Job_regist_flag_t* row = area.hjob_regist_flag[regist_method == 3 ? 1 : 0];
    bool in_table = BMCInst >= 0 && BMCInst < kInstCount;
    if (mode == 1 && in_table) {
        row[BMCInst].BMCInst = static_cast<uint8_t>(BMCInst);
        row[BMCInst].regist_method = regist_method;
        row[BMCInst].regist_mode = regist_mode;
    } else if (mode == 2 && in_table) {
        memset(&row[BMCInst], 0, sizeof(row[BMCInst]));
    } else if (mode == 4 && datap != nullptr) {
        memcpy(datap, area.hjob_regist_flag, sizeof(area.hjob_regist_flag));
        memset(area.hjob_regist_flag, 0, sizeof(area.hjob_regist_flag));
    }
    znpdklib_Various_sharemem_write(&area);
    return 0;
}
