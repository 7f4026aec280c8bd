/*
 * IPMI stack interface: the parts of the BMC's IPMI stack that libznpdk uses.
 * The IPMI stack owns these definitions; an integrator may build against the
 * stack's own headers instead (ZNPDK_PLATFORM_INCLUDE_DIR).
 */
#ifndef ZNPDK_PLATFORM_IPMI_STACK_H
#define ZNPDK_PLATFORM_IPMI_STACK_H

#include <pthread.h>
#include <stdint.h>

typedef uint8_t INT8U;
typedef uint16_t INT16U;
typedef uint32_t INT32U;

#define BMC_INSTANCE_COUNT 18
#define MAX_SENSOR_NUMBERS 513

/* Debug output level used by the sensor layer. */
#define IDBG_LEVEL_LINUXAPP 130

/* IPMI completion codes used by the library. */
#define CC_NORMAL 0x00
#define CC_SDR_REC_NOT_PRESENT 0xCB
#define CC_UNSPECIFIED_ERR 0xFF

/* One sensor record of the stack's per-instance sensor table. */
typedef struct {
    INT16U SensorReading; /* discrete state word */
    INT16U PreviousState;
    INT8U SensorNumber;
    INT8U SensorTypeCode;
    INT8U EventTypeCode;
    INT8U SensorOwnerLun;
    INT8U OEMField;
    INT8U EventFlags;
    INT8U EventLevel;
    INT8U Reserved;
} SensorInfo_T;

/* Sensor table of one instance: LUN 0 sensors at entries 0 to 255. */
typedef struct {
    SensorInfo_T SensorInfo[MAX_SENSOR_NUMBERS];
} SensorSharedMem_T;

typedef struct {
    INT8U BMCSlaveAddr;
} IpmiConfig_T;

typedef struct {
    pthread_mutex_t SensorSharedMemMutex;
    SensorSharedMem_T SensorSharedMem;
    IpmiConfig_T IpmiConfig;
} BMCInfo_t;

#pragma pack(push, 1)
typedef struct {
    INT16U ID;
    INT8U Type;
    INT32U TimeStamp;
} SELRecHdr_T;

typedef struct {
    SELRecHdr_T hdr;
    INT8U GenID[2];
    INT8U EvMRev;
    INT8U SensorType;
    INT8U SensorNum;
    INT8U EvtDirType;
    INT8U EvtData1;
    INT8U EvtData2;
    INT8U EvtData3;
} SELEventRecord_T;

typedef struct {
    INT8U CompletionCode;
    INT16U RecID;
} AddSELRes_T;

typedef struct {
    INT8U CompletionCode;
    INT8U SensorReading;
    INT8U Flags;
    INT8U ComparisonStatus;
    INT8U OptionalStatus;
} GetSensorReadingRes_T;

typedef struct {
    INT8U CompletionCode;
    INT8U SensorType;
    INT8U EventTypeCode;
} GetSensorTypeRes_T;
#pragma pack(pop)

#ifdef __cplusplus
static_assert(sizeof(SELRecHdr_T) == 7, "SEL record header is 7 bytes");
static_assert(sizeof(SELEventRecord_T) == 16, "SEL event record is 16 bytes");
static_assert(sizeof(AddSELRes_T) == 3, "Add SEL response is 3 bytes");
static_assert(sizeof(GetSensorReadingRes_T) == 5, "Get Sensor Reading response is 5 bytes");
static_assert(sizeof(GetSensorTypeRes_T) == 3, "Get Sensor Type response is 3 bytes");
extern "C" {
#endif

extern BMCInfo_t g_BMCInfo[BMC_INSTANCE_COUNT];

/* Stack globals that libznpdk defines on the stack's behalf (unused by it). */
extern pthread_t g_ipmithread;
extern int g_FileTransMonitor;

SensorInfo_T* GetSensorInfo(INT8U SensorNum, INT8U OwnerLUN, int BMCInst);
int GetSensorReading(INT8U* pReq, INT8U ReqLen, INT8U* pRes, int BMCInst);
int GetSensorType(INT8U* pReq, INT8U ReqLen, INT8U* pRes, int BMCInst);
int AddSELEntry(INT8U* pReq, INT8U ReqLen, INT8U* pRes, int BMCInst);
INT32U GetSelTimeStamp(int BMCInst);
void IDBG_LINUXAPP_DbgOut(int level, const char* fmt, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;

/* The stack's mutex operations; 0 on success, an error number otherwise. */
int OS_THREAD_MUTEX_ACQUIRE_LOCK(pthread_mutex_t* mutex);
int OS_THREAD_MUTEX_RELEASE_LOCK(pthread_mutex_t* mutex);

#ifdef __cplusplus
}
#endif

#endif
