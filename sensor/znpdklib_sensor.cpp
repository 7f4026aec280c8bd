/*
 * Sensor state layer: the library's only way of changing a discrete sensor,
 * the persistent save area of sensor states, the shared flags area and the
 * controller error checks built on the sensor states.
 */
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "sputil.h"
#include "znlib.h"
#include "znpdklib.h"
#include "znpdklib_internal.h"

/* Globals of the IPMI stack that this library defines on its behalf. */
__attribute__((visibility("default"))) pthread_t g_ipmithread;
__attribute__((visibility("default"))) int g_FileTransMonitor;

/* Debug output of this file: level 130, file name and line first. */
#define SNS_DBG(fmt, ...)                                                                                    \
    IDBG_LINUXAPP_DbgOut(IDBG_LEVEL_LINUXAPP, fmt, "znpdklib_sensor", __LINE__, ##__VA_ARGS__)

namespace {

using namespace znpdk;

constexpr size_t kBlockSize = 1024;
constexpr size_t kSaveFileSize = kBlockSize * kInstCount;
constexpr size_t kEntrySize = 4;
constexpr int kSensorsPerInst = 256;
constexpr int kStateBits = 16;
const char* const kSaveFile = "/var/nvrdisk/current/sensor/snsdata";
const char* const kAcOnMarker = "/tmp/.boot/.acon";

/* Completion codes of the set operations. */
constexpr INT8U kOk = CC_NORMAL;
constexpr INT8U kNoRecord = CC_SDR_REC_NOT_PRESENT;
constexpr INT8U kFailed = CC_UNSPECIFIED_ERR;

/* SEL system event record. */
constexpr INT8U kSelRecordType = 0x02;
constexpr INT8U kEvmRev = 0x04;
constexpr INT8U kThresholdEvent = 0x01;
constexpr INT8U kDeassertion = 0x80;
constexpr INT8U kDiscreteData1 = 0xA0;

/* Offsets 5 to 9 of a controller status sensor are its error states. */
constexpr INT16U kControllerErrorStates = 0x03E0;
constexpr int kBobcSensor = 33;
constexpr int kNodeStatusSensor = 10;
constexpr int kCmucCount = 8;
constexpr int kRouterCount = 16;

/* The save area's semaphore of an instance (0..17). Named on every
 * persisted write, so built without a formatter. */
using LockName = char[sizeof("/filelock_snsdata17")];

void lock_name(int BMCInst, LockName& name)
{
    static constexpr char kPrefix[] = "/filelock_snsdata";
    std::memcpy(name, kPrefix, sizeof(kPrefix) - 1);
    char* p = name + sizeof(kPrefix) - 1;
    if (BMCInst >= 10) {
        *p++ = static_cast<char>('0' + BMCInst / 10);
    }
    *p++ = static_cast<char>('0' + BMCInst % 10);
    *p = '\0';
}

/* The stack's sensor record; an instance outside 0..17 has none (the
 * stack's lookup is never asked about it). */
SensorInfo_T* find_sensor(INT8U SensorNum, int BMCInst)
{
    if (!valid_inst(BMCInst)) {
        return nullptr;
    }
    return GetSensorInfo(SensorNum, 0, BMCInst);
}

/* Takes the instance's sensor mutex; the caller logs its own lock line. */
bool lock_sensor_mutex(int BMCInst)
{
    if (OS_THREAD_MUTEX_ACQUIRE_LOCK(&g_BMCInfo[BMCInst].SensorSharedMemMutex) != 0) {
        int err = errno;
        SNS_DBG("[%s:%d]Error acquiring mutex in Thread ID %d Errno:%d\n", static_cast<int>(getpid()), err);
        return false;
    }
    return true;
}

/* A failed unlock is only reported; the operation's result stands. */
void unlock_sensor_mutex(int BMCInst)
{
    if (OS_THREAD_MUTEX_RELEASE_LOCK(&g_BMCInfo[BMCInst].SensorSharedMemMutex) != 0) {
        SNS_DBG("[%s:%d]Error in releasing mutex in Thread ID %d\n", static_cast<int>(getpid()));
    }
}

/* Runs `op` under the instance's sensor mutex and returns its code. An
 * instance outside 0..17 has no mutex: `op` then runs unlocked, and its own
 * sensor lookup reports the missing record (0xCB). */
template <typename Op, typename LockFailed>
INT8U under_sensor_mutex(int BMCInst, Op op, LockFailed lock_failed)
{
    const bool has_mutex = valid_inst(BMCInst);
    if (has_mutex && !lock_sensor_mutex(BMCInst)) {
        lock_failed();
        return kFailed;
    }
    INT8U ret = op();
    if (has_mutex) {
        unlock_sensor_mutex(BMCInst);
    }
    return ret;
}

/* Clears every asserted offset of an exclusive sensor, lowest first, each
 * change persisted on its own; the state word is read afresh before every
 * bit. Returns 0, or the failing code with its bit in `failed_bit`. */
INT8U clear_all_offsets(const SensorInfo_T* info, INT8U SensorNum, int BMCInst, int* failed_bit)
{
    for (int bit = 0; bit < kStateBits; ++bit) {
        if ((info->SensorReading & (1u << bit)) == 0) {
            continue;
        }
        INT8U ret = ZNAPI_SetSensorWoS(SensorNum, 0, static_cast<INT8U>(bit), BMCInst);
        if (ret != kOk) {
            *failed_bit = bit;
            return ret;
        }
    }
    return kOk;
}

/* The debug lines of one exclusive set form. */
struct ExclusiveTexts {
    const char* no_record;
    const char* clear_failed;
    const char* lock_failed;
};

/* Holds a sensor to one offset: under the instance's sensor mutex every
 * asserted offset is cleared, then `assert_one` sets the new one. */
template <typename Assert>
INT8U exclusive_set(INT8U SensorNum, int BMCInst, const ExclusiveTexts& texts, Assert assert_one)
{
    return under_sensor_mutex(
        BMCInst,
        [&]() -> INT8U {
            SensorInfo_T* info = find_sensor(SensorNum, BMCInst);
            if (info == nullptr) {
                SNS_DBG(texts.no_record, SensorNum, BMCInst);
                return kNoRecord;
            }
            int bit = 0;
            INT8U ret = clear_all_offsets(info, SensorNum, BMCInst, &bit);
            if (ret != kOk) {
                SNS_DBG(texts.clear_failed, SensorNum, BMCInst, bit);
                return ret;
            }
            return assert_one();
        },
        [&] { SNS_DBG(texts.lock_failed, SensorNum, BMCInst, -1); });
}

/* ---- Save area -------------------------------------------------------- */

/* Block k of the mapped save file, or MAP_FAILED while unavailable. */
uint8_t* Sensor_Save_Mapp[kInstCount] = {
    static_cast<uint8_t*>(MAP_FAILED), static_cast<uint8_t*>(MAP_FAILED), static_cast<uint8_t*>(MAP_FAILED),
    static_cast<uint8_t*>(MAP_FAILED), static_cast<uint8_t*>(MAP_FAILED), static_cast<uint8_t*>(MAP_FAILED),
    static_cast<uint8_t*>(MAP_FAILED), static_cast<uint8_t*>(MAP_FAILED), static_cast<uint8_t*>(MAP_FAILED),
    static_cast<uint8_t*>(MAP_FAILED), static_cast<uint8_t*>(MAP_FAILED), static_cast<uint8_t*>(MAP_FAILED),
    static_cast<uint8_t*>(MAP_FAILED), static_cast<uint8_t*>(MAP_FAILED), static_cast<uint8_t*>(MAP_FAILED),
    static_cast<uint8_t*>(MAP_FAILED), static_cast<uint8_t*>(MAP_FAILED), static_cast<uint8_t*>(MAP_FAILED)};
int sns_fd = -1;
/* The flags area of this process while block 0 is not mapped. */
uint8_t alt[kBlockSize];

/* The instance's save block, or null (not set up, failed, bad instance). */
uint8_t* save_block(int BMCInst)
{
    if (!valid_inst(BMCInst) || Sensor_Save_Mapp[BMCInst] == MAP_FAILED) {
        return nullptr;
    }
    return Sensor_Save_Mapp[BMCInst];
}

constexpr size_t kPathMax = 512;

/* Writes zero blocks into a newly created save file (results not checked:
 * the size is verified before mapping). */
void fill_new_save_file(int fd)
{
    const uint8_t zeros[kBlockSize] = {};
    for (int k = 0; k < kInstCount; ++k) {
        ssize_t n = write(fd, zeros, sizeof(zeros));
        (void)n;
    }
}

/* A mapping past the end of the file faults on access, so a file left short
 * (truncated by something else, or a failed first fill) is extended with
 * zeros to its full size; bytes already there are kept. */
bool ensure_full_size(int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0) {
        return false;
    }
    if (st.st_size >= static_cast<off_t>(kSaveFileSize)) {
        return true;
    }
    return ftruncate(fd, static_cast<off_t>(kSaveFileSize)) == 0;
}

/* Maps the open save file (or marks every block unavailable). */
void map_save_file(int fd)
{
    void* map = MAP_FAILED;
    if (fd >= 0 && ensure_full_size(fd)) {
        map = mmap(nullptr, kSaveFileSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    sns_fd = fd;
    Sensor_Save_Mapp[0] = static_cast<uint8_t*>(map);
    for (int k = 1; k < kInstCount; ++k) {
        Sensor_Save_Mapp[k] = map == MAP_FAILED
                                  ? static_cast<uint8_t*>(MAP_FAILED)
                                  : static_cast<uint8_t*>(map) + static_cast<size_t>(k) * kBlockSize;
    }
}

/* Entry k of the save file's block for one sensor. Blocks start on 1 KiB
 * boundaries of a page-aligned mapping, so every entry is 4-byte aligned. */
uint32_t* save_entry(uint8_t* block, INT8U SensorNum)
{
    return reinterpret_cast<uint32_t*>(block + static_cast<size_t>(SensorNum) * kEntrySize);
}

/* One entry is stored and loaded as a single aligned word, so that another
 * process never sees half of a write; the bytes keep their file order
 * (reading low, reading high, event flags, event level) on any byte order. */
void store_entry(uint32_t* entry, const SensorInfo_T& info)
{
    const uint8_t bytes[kEntrySize] = {static_cast<uint8_t>(info.SensorReading & 0xFF),
                                       static_cast<uint8_t>(info.SensorReading >> 8), info.EventFlags,
                                       info.EventLevel};
    uint32_t word = 0;
    std::memcpy(&word, bytes, sizeof(word));
    __atomic_store_n(entry, word, __ATOMIC_RELAXED);
}

void load_entry(const uint32_t* entry, uint8_t (&bytes)[kEntrySize])
{
    const uint32_t word = __atomic_load_n(entry, __ATOMIC_RELAXED);
    std::memcpy(bytes, &word, sizeof(word));
}

/* The state word is read without a lock by the IPMI stack, so it is stored
 * in one access; callers hold the instance's sensor mutex. */
void store_reading(SensorInfo_T* info, INT16U word)
{
    __atomic_store_n(&info->SensorReading, word, __ATOMIC_RELAXED);
    info->PreviousState = word;
}

/* The flags area: block 0 when mapped, else this process's own buffer. */
uint8_t* flags_area()
{
    uint8_t* block = save_block(0);
    return block != nullptr ? block : alt;
}

/* True when the controller status sensor shows one of its error states. */
bool controller_in_error(int sensor, int BMCInst)
{
    INT16U word = 0;
    znpdklib_getDiscreteStatusSensorStatus(sensor, &word, BMCInst);
    return (word & kControllerErrorStates) != 0;
}

} // namespace

extern "C" {

/* ---- Sensor state operations ------------------------------------------- */

INT8U ZNAPI_SetSensorWoS(INT8U SensorNum, int dir, INT8U offset, int BMCInst)
{
    /* Offsets of 16 or more give mask 0 and change no bit. */
    const INT16U mask = offset < kStateBits ? static_cast<INT16U>(1u << offset) : 0;
    SensorInfo_T* info = find_sensor(SensorNum, BMCInst);
    if (info == nullptr) {
        SNS_DBG("[%s:%d]ZNAPI_SetSensorWoS Error at GetSensorInfo sns:%d dir:%d bit:0x%0x BMCInst:%d",
                SensorNum, dir, offset, BMCInst);
        return kNoRecord;
    }
    const INT16U old = info->SensorReading;
    store_reading(info, static_cast<INT16U>(dir == 1 ? (old | mask) : (old & ~mask)));
    if (ZNAPI_MemSensorInfoWrite(SensorNum, BMCInst) != 0) {
        return kFailed;
    }
    return kOk;
}

INT8U ZNAPI_SaveSensorTypeSEL(INT8U SensorNum, int dir, INT8U eventData1, INT8U eventData2, INT8U eventData3,
                              int BMCInst, INT16U* recordId)
{
    if (recordId == nullptr) {
        return kFailed;
    }
    SensorInfo_T* info = find_sensor(SensorNum, BMCInst);
    if (info == nullptr) {
        SNS_DBG("[%s:%d]ZNAPI_SaveSensorTypeSEL Error at GetSensorInfo sns:%d BMCInst:%d", SensorNum,
                BMCInst);
        return kNoRecord;
    }

    /* The system event record, built byte by byte (little-endian fields). */
    INT8U req[sizeof(SELEventRecord_T)] = {};
    const INT32U stamp = GetSelTimeStamp(BMCInst);
    const bool threshold = info->EventTypeCode == kThresholdEvent;
    req[0] = 0; /* the SEL assigns the record id */
    req[1] = 0;
    req[2] = kSelRecordType;
    req[3] = static_cast<INT8U>(stamp);
    req[4] = static_cast<INT8U>(stamp >> 8);
    req[5] = static_cast<INT8U>(stamp >> 16);
    req[6] = static_cast<INT8U>(stamp >> 24);
    req[7] = g_BMCInfo[BMCInst].IpmiConfig.BMCSlaveAddr;
    req[8] = static_cast<INT8U>(info->SensorOwnerLun & 0x03);
    req[9] = kEvmRev;
    req[10] = info->SensorTypeCode;
    req[11] = info->SensorNumber;
    req[12] = static_cast<INT8U>(dir == 0 ? (info->EventTypeCode | kDeassertion) : info->EventTypeCode);
    req[13] = threshold ? eventData1 : static_cast<INT8U>(kDiscreteData1 | (eventData1 & 0x0F));
    req[14] = threshold ? static_cast<INT8U>(info->SensorReading & 0xFF) : eventData2;
    req[15] = eventData3;

    INT8U res[sizeof(AddSELRes_T)] = {};
    AddSELEntry(req, sizeof(req), res, BMCInst);
    const INT16U id = static_cast<INT16U>(res[1] | (res[2] << 8));
    *recordId = id;
    return id != 0 ? kOk : res[0];
}

INT8U ZNAPI_SetSensorWS(INT8U SensorNum, int dir, INT8U eventData1, INT8U eventData2, INT8U eventData3,
                        int BMCInst, INT16U* recordID)
{
    if (recordID == nullptr) {
        return kFailed;
    }
    INT8U ret = ZNAPI_SetSensorWoS(SensorNum, dir, static_cast<INT8U>(eventData1 & 0x0F), BMCInst);
    if (ret != kOk) {
        return ret;
    }
    return ZNAPI_SaveSensorTypeSEL(SensorNum, dir, eventData1, eventData2, eventData3, BMCInst, recordID);
}

int ZNAPI_GetSensorReading(int sensor, GetSensorReadingRes_T* SensorRead, int BMCInst)
{
    /* An instance outside 0..17 is a bad parameter like a missing buffer:
     * the stack is not asked and the buffer is left as it is. */
    if (SensorRead == nullptr || !valid_inst(BMCInst)) {
        SNS_DBG("[%s:%d]ZNAPI_GetSensorReading param Error");
        return -1;
    }
    INT8U req = static_cast<INT8U>(sensor & 0xFF);
    GetSensorReading(&req, 1, reinterpret_cast<INT8U*>(SensorRead), BMCInst);
    return SensorRead->CompletionCode != 0 ? -1 : 0;
}

INT8U znpdklib_SetSensorWoS(INT8U SensorNum, INT8U dir, INT8U offset, int BMCInst)
{
    return under_sensor_mutex(
        BMCInst,
        [&] {
            INT8U ret = ZNAPI_SetSensorWoS(SensorNum, dir, offset, BMCInst);
            if (ret != kOk) {
                SNS_DBG("[%s:%d]znpdklib_SetSensorWoS Error sns:%d dir:%d bit:0x%x BMCInst:%d", SensorNum,
                        dir, offset, BMCInst);
            }
            return ret;
        },
        [&] {
            SNS_DBG("[%s:%d]znpdklib_SetSensorWoS Error at OS_THREAD_MUTEX_ACQUIRE_LOCK BMCInst:%d ret:%d",
                    BMCInst, -1);
        });
}

INT8U znpdklib_SetSensorWS(INT8U SensorNum, int dir, INT8U eventData1, INT8U eventData2, INT8U eventData3,
                           int BMCInst, INT16U* recordID)
{
    if (recordID == nullptr) {
        SNS_DBG("[%s:%d]znpdklib_SetSensorWS param Error");
        return kFailed;
    }
    return under_sensor_mutex(
        BMCInst,
        [&] {
            INT8U ret =
                ZNAPI_SetSensorWS(SensorNum, dir, eventData1, eventData2, eventData3, BMCInst, recordID);
            if (ret != kOk) {
                SNS_DBG("[%s:%d]znpdklib_SetSensorWS Error sns:%d dir:%d e1:0x%x e2:0x%x e3:0x%x BMCInst:%d",
                        SensorNum, dir, eventData1, eventData2, eventData3, BMCInst);
            }
            return ret;
        },
        [&] {
            SNS_DBG(
                "[%s:%d]znpdklib_SetSensorWS Error at OS_THREAD_MUTEX_ACQUIRE_LOCK sns:%d BMCInst:%d ret:%d",
                SensorNum, BMCInst, -1);
        });
}

INT8U znpdklib_exSetSensorWoS(INT8U SensorNum, INT8U offset, int BMCInst)
{
    const ExclusiveTexts texts = {
        "[%s:%d]znpdklib_exSetSensorWoS Error at GetSensorInfo sns:%d BMCInst:%d",
        "[%s:%d]znpdklib_exSetSensorWoS Error at deassert sns:%d BMCInst:%d bit:0x%x",
        "[%s:%d]znpdklib_exSetSensorWoS Error at OS_THREAD_MUTEX_ACQUIRE_LOCK sns:%d BMCInst:%d ret:%d"};
    return exclusive_set(SensorNum, BMCInst, texts,
                         [&] { return ZNAPI_SetSensorWoS(SensorNum, 1, offset, BMCInst); });
}

INT8U znpdklib_exSetSensorWS(INT8U SensorNum, INT8U eventData1, INT8U eventData2, INT8U eventData3,
                             int BMCInst, INT16U* recordID)
{
    const ExclusiveTexts texts = {
        "[%s:%d]znpdklib_exSetSensorWS Error at GetSensorInfo sns:%d BMCInst:%d",
        "[%s:%d]znpdklib_exSetSensorWS Error at bit deassert sns:%d BMCInst:%d bit:0x%x",
        "[%s:%d]znpdklib_exSetSensorWS Error at OS_THREAD_MUTEX_ACQUIRE_LOCK sns:%d BMCInst:%d ret:%d"};
    if (recordID == nullptr) {
        SNS_DBG("[%s:%d]znpdklib_exSetSensorWS param Error");
        return kFailed;
    }
    /* Clearing adds no SEL record; only the assertion does. */
    return exclusive_set(SensorNum, BMCInst, texts, [&] {
        return ZNAPI_SetSensorWS(SensorNum, 1, eventData1, eventData2, eventData3, BMCInst, recordID);
    });
}

int znpdklib_getDiscreteStatusSensorStatus(int sensor, INT16U* status, int BMCInst)
{
    GetSensorReadingRes_T res;
    std::memset(&res, 0, sizeof(res));
    ZNAPI_GetSensorReading(sensor, &res, BMCInst);
    /* Without a place to store the word there is nothing to answer. */
    if (status != nullptr) {
        *status = static_cast<INT16U>(res.ComparisonStatus | ((res.OptionalStatus | 0x80) << 8));
    }
    return 0;
}

int isValidSensorBMCInst(INT8U SensorNum, int BMCInst)
{
    const SensorInfo_T* info = find_sensor(SensorNum, BMCInst);
    if (info == nullptr) {
        return kNoRecord;
    }
    if (info->SensorTypeCode == 0) {
        return 0;
    }
    const INT8U oem = info->OEMField;
    if (BMCInst == kChassisInst) {
        return oem == 0 ? 1 : 0;
    }
    if ((BMCInst == 3 || BMCInst == 11) && (oem & 0x04) != 0) {
        return 1;
    }
    if (BMCInst == 5 && (oem & 0x08) != 0) {
        return 1;
    }
    if ((oem & (1u << (BMCInst % 2))) != 0) {
        return 1;
    }
    return 0;
}

INT8U GetInstSensorType(INT8U SensorNum, int BMCInst)
{
    const SensorInfo_T* info = find_sensor(SensorNum, BMCInst);
    return info != nullptr ? info->SensorTypeCode : 0xFF;
}

INT8U GetInstSensorOEM(INT8U SensorNum, int BMCInst)
{
    const SensorInfo_T* info = find_sensor(SensorNum, BMCInst);
    return info != nullptr ? info->OEMField : 0;
}

/* ---- Sensor state persistence ------------------------------------------ */

/* Meant to run once per process. Called again, it maps the file afresh and
 * leaves the earlier mapping and descriptor in place, so that pointers
 * another thread may still hold stay valid. */
void ZNAPI_MemSensorAreaInit(void)
{
    guard_void(__func__, [] {
        char path[kPathMax];
        platform_file(kSaveFile, path, sizeof(path));
        int fd;
        if (access(path, F_OK) != 0) {
            fd = open(path, O_RDWR | O_CREAT, 0770);
            if (fd >= 0) {
                fill_new_save_file(fd);
            }
        } else {
            fd = open(path, O_RDWR);
        }
        map_save_file(fd);
    });
}

int ZNAPI_MemSensorInfoWrite(INT8U SensorNum, int BMCInst)
{
    /* An instance outside 0..17 has no block and counts as invalid. */
    uint8_t* block = save_block(BMCInst);
    if (block == nullptr) {
        SNS_DBG("[%s:%d]ZNAPI_MemSensorInfoWrite Error at save area invalid BMCInst:%d", BMCInst);
        return -1;
    }
    const SensorInfo_T* info = GetSensorInfo(SensorNum, 0, BMCInst);
    if (info == nullptr) {
        SNS_DBG("[%s:%d]ZNAPI_MemSensorInfoWrite Error at GetSensorInfo sns:%d BMCInst:%d", SensorNum,
                BMCInst);
        return -1;
    }
    LockName name;
    lock_name(BMCInst, name);
    sem_t* sem = _znlib_sem_open(name, 0);
    if (sem == nullptr) {
        SNS_DBG("[%s:%d]ZNAPI_MemSensorInfoWrite Error at sem_open sns:%d BMCInst:%d", SensorNum, BMCInst);
        return -1;
    }
    int ret = _znlib_sem_lock(sem, name, 0);
    if (ret != 0) {
        SNS_DBG("[%s:%d]ZNAPI_MemSensorInfoWrite Error at sem_lock%d sns:%d BMCInst:%d", ret, SensorNum,
                BMCInst);
        znlib_sem_close(sem);
        return -1;
    }
    store_entry(save_entry(block, SensorNum), *info);
    _znlib_sem_unlock(sem, name, 0);
    _znlib_sem_close(sem, 0);
    return ret;
}

int ZNAPI_MemSensorInfoRecover(int BMCInst)
{
    /* After an AC power-on the sensors start from their initial states. */
    char marker[kPathMax];
    if (guard(__func__, false, [&] { return platform_file(kAcOnMarker, marker, sizeof(marker)); }) &&
        access(marker, F_OK) == 0) {
        return 0;
    }
    uint8_t* block = save_block(BMCInst);
    if (block == nullptr) {
        SNS_DBG("[%s:%d]ZNAPI_MemSensorInfoRecover Error at save area invalid BMCInst:%d", BMCInst);
        return -1;
    }
    if (!lock_sensor_mutex(BMCInst)) {
        SNS_DBG("[%s:%d]ZNAPI_MemSensorInfoRecover Error at OS_THREAD_MUTEX_ACQUIRE_LOCK BMCInst:%d ret:%d",
                BMCInst, -1);
        return -1;
    }
    SensorInfo_T* table = g_BMCInfo[BMCInst].SensorSharedMem.SensorInfo;
    for (int i = 0; i < kSensorsPerInst; ++i) {
        uint8_t entry[kEntrySize];
        load_entry(save_entry(block, static_cast<INT8U>(i)), entry);
        store_reading(&table[i], static_cast<INT16U>(entry[0] | (entry[1] << 8)));
        table[i].EventFlags = entry[2];
        table[i].EventLevel = entry[3];
    }
    unlock_sensor_mutex(BMCInst);
    return 0;
}

/* ---- Shared flags area and controller error checks --------------------- */

/* A null buffer is ignored: nothing is copied. */
void znpdklib_Various_sharemem_read(void* dp)
{
    if (dp == nullptr) {
        return;
    }
    std::memcpy(dp, flags_area(), kBlockSize);
}

void znpdklib_Various_sharemem_write(void* dp)
{
    if (dp == nullptr) {
        return;
    }
    std::memcpy(flags_area(), dp, kBlockSize);
}

int znpdklib_check_bobc_error(void)
{
    return controller_in_error(kBobcSensor, kChassisInst) ? -1 : 0;
}

/* A CMU number outside 0..7 names no controller: answered as in error
 * (-1), so that no caller goes on to talk to it. */
int znpdklib_check_cmuc_error(int cmuc_no)
{
    if (cmuc_no < 0 || cmuc_no >= kCmucCount) {
        return -1;
    }
    if (znpdklib_check_bobc_error() == -1) {
        return -1;
    }
    if (controller_in_error(kNodeStatusSensor, 2 * cmuc_no + 1) ||
        controller_in_error(kNodeStatusSensor, 2 * cmuc_no + 2)) {
        return -1;
    }
    return 0;
}

/* A router number outside 0..15 names no node: answered as in error (-1). */
int znpdklib_check_rtnd_error(int rtnd_no)
{
    if (rtnd_no < 0 || rtnd_no >= kRouterCount) {
        return -1;
    }
    if (znpdklib_check_bobc_error() == -1) {
        return -1;
    }
    return controller_in_error(kNodeStatusSensor, rtnd_no + 1) ? -1 : 0;
}

} /* extern "C" */
