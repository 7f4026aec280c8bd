/**
 * @file znpdklib.h
 * @brief libznpdk: the machine-specific platform library of the BMC firmware.
 *
 * Every function and table here has C linkage and is exported under its plain
 * name; libznpdk.so exports nothing else.
 *
 * **Language.** The header compiles as C++ (C++11 or later) and as C (C11 or
 * later, for the layout checks of znpdklib_types.h). A C caller gets every
 * function and table except the two that take a component database handle
 * (znpdklib_compo2upid() and znpdklib_upid2upid()), which exist only for C++;
 * their path forms znpdklib_path2upid() and znpdklib_upid2upid_pc() serve C.
 * The library itself is C++ and needs the C++ runtime at link time.
 *
 * **Version.** ZNPDK_VERSION_MAJOR, ZNPDK_VERSION_MINOR, ZNPDK_VERSION_PATCH
 * and ZNPDK_VERSION (znpdk_version.h, included here) name the release these
 * headers belong to; they are macros, not exports.
 *
 * **Set-up order.** Each process that uses any sensor function (and the
 * shared flags area) calls ZNAPI_MemSensorAreaInit() once before anything
 * else. At BMC start ZNAPI_Sensor_Init() runs per instance after AC power-on;
 * after a restart without AC loss ZNAPI_MemSensorInfoRecover() brings the
 * saved states back instead.
 *
 * **Instances.** `BMCInst` 0 to 17: 17 is the chassis (BoB, PSUs, fans,
 * maintenance), n + 1 is node n (nodes 0 to 15; node n sits in CMU n / 2).
 *
 * **State words.** A discrete sensor's state is a 16-bit word, bit n set =
 * state offset n asserted. Read back through
 * znpdklib_getDiscreteStatusSensorStatus() bit 15 is always set; compare
 * whole words after masking with 0x7FFF.
 *
 * **Locks, in the order they nest.** Per instance the IPMI stack's sensor
 * mutex `g_BMCInfo[BMCInst].SensorSharedMemMutex`, then the named semaphore
 * "/filelock_snsdata%d" of the save file. Process-wide library mutexes:
 * the fan rotation check mutex (`chk_fan_rotation_mutex`), then the fan
 * redundancy mutex (`chk_fan_redundacy_mutex`), then one component write
 * lock; the PSU redundancy mutex (`chk_redundacy_mutex`), then one component
 * write lock; the flags-area mutex (`v_mutex`). The library never holds two
 * component write locks at once. No `znpdklib_` sensor set function may be
 * called while the caller holds the instance's sensor mutex.
 *
 * **Threads.** Only znpdklib_create_fan_rotation_check_thread() (also reached
 * through the fan speed and redundancy functions) starts threads: detached,
 * one rotation check each.
 *
 * **IPMI stack globals.** libznpdk.so also defines `g_ipmithread` and
 * `g_FileTransMonitor`, declared in ipmi_stack.h and exported: the stack's
 * shared code refers to them, and a service process that loads the library
 * without the IPMI stack's own program must still resolve them. The library
 * never reads or writes them; a program that defines them itself wins.
 *
 * **Files** (below the platform root, getSPRoot()):
 * "/var/nvrdisk/current/sensor/snsdata" (sensor save area, its first block
 * the shared flags area), "/var/nvrdisk/current/sensor/esctable_inst%02d"
 * (escalation tables), the markers "/tmp/.boot/.acon" and
 * "/var/nvrdisk/.bmcinit_acon_ready", the fan debug input
 * "/tmp/debug_fan_check_dummy_data".
 */
#ifndef ZNPDK_ZNPDKLIB_H
#define ZNPDK_ZNPDKLIB_H

#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#include "ipmi_stack.h"
#include "znpdk_version.h"
#include "znpdklib_types.h"

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

/**
 * @defgroup sensor_states Sensor states
 * Setting, clearing and reading discrete IPMI sensors of one instance.
 *
 * Result codes of the INT8U functions are IPMI completion codes: 0x00
 * success, 0xCB no sensor record for (`SensorNum`, `BMCInst`), 0xFF any other
 * failure (null output pointer, sensor mutex failure, save-area write
 * failure), or, from the SEL path only, the completion code of the stack's
 * SEL add. Every change copies `SensorReading` into `PreviousState` and is
 * written to the save area (ZNAPI_MemSensorInfoWrite()); a save failure
 * gives 0xFF although the bit has changed in memory.
 * The `ZNAPI_` set functions take no lock: the caller must hold the
 * instance's sensor mutex. The `znpdklib_` set functions take it themselves:
 * the caller must not hold it.
 * @{
 */

/**
 * @brief Sets or clears one state offset of a sensor, without a SEL entry
 *        (caller holds the sensor mutex).
 * @param SensorNum Sensor number 0 to 255 of the instance.
 * @param dir 1 asserts (sets) the offset; any other value clears it.
 * @param offset State offset 0 to 15; 16 or more changes no bit, yet the
 *        record is still saved.
 * @param BMCInst Instance 0 to 17.
 * @return 0x00, 0xCB (no record), 0xFF (save area write failed).
 * @pre `g_BMCInfo[BMCInst].SensorSharedMemMutex` held by the caller.
 */
INT8U ZNAPI_SetSensorWoS(INT8U SensorNum, int dir, INT8U offset, int BMCInst);

/**
 * @brief Adds the SEL event record of a sensor (caller holds the sensor mutex).
 *
 * Builds a 16-byte system event record (type 0x02, EvM revision 4, time from
 * GetSelTimeStamp(), generator id from the instance's slave address and the
 * sensor's LUN) and adds it with AddSELEntry(). A threshold sensor (event
 * type 1) carries `eventData1` unchanged and its current reading in event
 * data 2; any other sensor carries 0xA0 | (`eventData1` & 0x0F) and
 * `eventData2`.
 * @param SensorNum Sensor number 0 to 255.
 * @param dir 0 marks the event as a deassertion; any other value as an assertion.
 * @param eventData1 Event data 1 (its low nibble is the offset).
 * @param eventData2 Event data 2.
 * @param eventData3 Event data 3.
 * @param BMCInst Instance 0 to 17.
 * @param recordId Receives the SEL record id (0 when the SEL did not add it).
 * @return 0x00 when a record id was given back, else the SEL add's completion
 *         code; 0xCB no sensor record; 0xFF `recordId` null.
 */
INT8U ZNAPI_SaveSensorTypeSEL(INT8U SensorNum, int dir, INT8U eventData1, INT8U eventData2, INT8U eventData3,
                              int BMCInst, INT16U* recordId);

/**
 * @brief Sets or clears the offset `eventData1` & 0x0F and adds its SEL
 *        record (caller holds the sensor mutex).
 * @param SensorNum Sensor number 0 to 255.
 * @param dir 1 asserts; any other value clears (the record is a deassertion only for 0).
 * @param eventData1 Low nibble: the state offset; see ZNAPI_SaveSensorTypeSEL().
 * @param eventData2 Event data 2.
 * @param eventData3 Event data 3.
 * @param BMCInst Instance 0 to 17.
 * @param recordID Receives the SEL record id; must not be null.
 * @return As ZNAPI_SetSensorWoS(), then as ZNAPI_SaveSensorTypeSEL(); 0xFF for
 *         a null `recordID` (sensor untouched). No SEL record is added when
 *         the set fails.
 */
INT8U ZNAPI_SetSensorWS(INT8U SensorNum, int dir, INT8U eventData1, INT8U eventData2, INT8U eventData3,
                        int BMCInst, INT16U* recordID);

/**
 * @brief Runs the IPMI stack's Get Sensor Reading command for one sensor. Takes no lock.
 * @param sensor Sensor number (its low byte is used).
 * @param SensorRead Receives the 5-byte response; must not be null.
 * @param BMCInst Instance 0 to 17.
 * @return 0 when the completion code is 0; -1 otherwise or for a null `SensorRead`.
 */
int ZNAPI_GetSensorReading(int sensor, GetSensorReadingRes_T* SensorRead, int BMCInst);

/**
 * @brief Locked ZNAPI_SetSensorWoS(): takes the instance's sensor mutex around it.
 * @param SensorNum Sensor number 0 to 255.
 * @param dir 1 asserts; any other value clears.
 * @param offset State offset 0 to 15 (16 or more: no bit changes).
 * @param BMCInst Instance 0 to 17.
 * @return As ZNAPI_SetSensorWoS(); 0xFF when the mutex cannot be taken.
 */
INT8U znpdklib_SetSensorWoS(INT8U SensorNum, INT8U dir, INT8U offset, int BMCInst);

/**
 * @brief Locked ZNAPI_SetSensorWS(): one offset and its SEL record under the sensor mutex.
 * @param SensorNum Sensor number 0 to 255.
 * @param dir 1 asserts; any other value clears.
 * @param eventData1 Low nibble: the state offset.
 * @param eventData2 Event data 2.
 * @param eventData3 Event data 3.
 * @param BMCInst Instance 0 to 17.
 * @param recordID Receives the SEL record id; must not be null.
 * @return As ZNAPI_SetSensorWS(); 0xFF for a null `recordID` or a mutex failure.
 */
INT8U znpdklib_SetSensorWS(INT8U SensorNum, int dir, INT8U eventData1, INT8U eventData2, INT8U eventData3,
                           int BMCInst, INT16U* recordID);

/**
 * @brief Makes `offset` the sensor's only asserted state, without a SEL entry.
 *
 * Under the sensor mutex, clears every asserted offset from 0 to 15 one by
 * one (each change saved separately; the target offset too, if set), then
 * asserts `offset`.
 * @param SensorNum Sensor number 0 to 255.
 * @param offset State offset 0 to 15 (16 or more: the sensor ends all clear).
 * @param BMCInst Instance 0 to 17.
 * @return 0x00, 0xCB no record, 0xFF mutex failure, or the code of the first
 *         failed clearing step (later bits stay as they were).
 */
INT8U znpdklib_exSetSensorWoS(INT8U SensorNum, INT8U offset, int BMCInst);

/**
 * @brief Makes offset `eventData1` & 0x0F the sensor's only asserted state and
 *        adds one SEL record, for the assertion only.
 * @param SensorNum Sensor number 0 to 255.
 * @param eventData1 Low nibble: the state offset.
 * @param eventData2 Event data 2.
 * @param eventData3 Event data 3.
 * @param BMCInst Instance 0 to 17.
 * @param recordID Receives the SEL record id; must not be null.
 * @return As znpdklib_exSetSensorWoS(), then as ZNAPI_SetSensorWS(); 0xFF for
 *         a null `recordID` (nothing locked or changed).
 */
INT8U znpdklib_exSetSensorWS(INT8U SensorNum, INT8U eventData1, INT8U eventData2, INT8U eventData3,
                             int BMCInst, INT16U* recordID);

/**
 * @brief Reads a sensor's discrete state word. Takes no lock.
 * @param sensor Sensor number 0 to 255.
 * @param status Receives `ComparisonStatus` | ((`OptionalStatus` | 0x80) << 8):
 *        bit 15 is always set, so mask with 0x7FFF. A failed read yields 0x8000.
 * @param BMCInst Instance 0 to 17.
 * @return Always 0.
 */
int znpdklib_getDiscreteStatusSensorStatus(int sensor, INT16U* status, int BMCInst);

/**
 * @brief Tells whether a sensor exists on an instance, from its `OEMField`.
 *
 * `OEMField` 0 marks a chassis sensor (instance 17 only); bit 0x01 even
 * instances, 0x02 odd instances, 0x04 also instances 3 and 11, 0x08 also
 * instance 5. A `SensorTypeCode` of 0 is never valid.
 * @param SensorNum Sensor number 0 to 255.
 * @param BMCInst Instance 0 to 17.
 * @return 1 valid, 0 not valid, 0xCB no sensor record. Only 1 means valid.
 */
int isValidSensorBMCInst(INT8U SensorNum, int BMCInst);

/**
 * @brief The sensor's `SensorTypeCode` (0xC1 FRU status, 0xC2 FRU error status, ...).
 * @param SensorNum Sensor number 0 to 255.
 * @param BMCInst Instance 0 to 17.
 * @return The type code; 0xFF when there is no record.
 */
INT8U GetInstSensorType(INT8U SensorNum, int BMCInst);

/**
 * @brief The sensor's `OEMField` (instance membership bits, see isValidSensorBMCInst()).
 * @param SensorNum Sensor number 0 to 255.
 * @param BMCInst Instance 0 to 17.
 * @return The field; 0 when there is no record.
 */
INT8U GetInstSensorOEM(INT8U SensorNum, int BMCInst);

/** @} */

/**
 * @defgroup persistence Persistence and the shared flags area
 * Sensor states kept in "/var/nvrdisk/current/sensor/snsdata": 18432 bytes,
 * block k (1024 bytes at k * 1024) for instance k, entry i (4 bytes at
 * i * 4) for sensor i: `SensorReading` (uint16, little-endian),
 * `EventFlags`, `EventLevel`. The file is mapped shared by every process; a
 * write is visible to all at once. Block 0 is also the 1024-byte shared flags
 * area (`Various_sharemem_t`).
 * @{
 */

/**
 * @brief Sets up the sensor save area of this process. Call once per process,
 *        before any other sensor or flags-area function.
 *
 * Creates the save file (mode 0770, 18 zeroed blocks) when missing, opens and
 * maps it; the file stays open and mapped for the life of the process. When
 * it cannot be opened or mapped, every save fails (sensor sets return 0xFF)
 * and the flags area is a process-local buffer.
 */
void ZNAPI_MemSensorAreaInit(void);

/**
 * @brief Writes one sensor's `SensorReading`, `EventFlags` and `EventLevel`
 *        to its entry of the save area.
 *
 * Takes the named semaphore "/filelock_snsdata%d" of the instance for the
 * write (the caller may hold the sensor mutex: mutex first, semaphore second).
 * @param SensorNum Sensor number 0 to 255.
 * @param BMCInst Instance 0 to 17.
 * @return 0; -1 when the area is not set up, the sensor has no record, or
 *         the semaphore cannot be opened or locked.
 */
int ZNAPI_MemSensorInfoWrite(INT8U SensorNum, int BMCInst);

/**
 * @brief Puts an instance's saved states back into the IPMI stack after a
 *        BMC restart without loss of AC power.
 *
 * Under the instance's sensor mutex sets, for all 256 entries,
 * `SensorReading` and `PreviousState` to the saved word and `EventFlags`,
 * `EventLevel` to the saved bytes. Does nothing while "/tmp/.boot/.acon"
 * exists (after AC power-on ZNAPI_Sensor_Init() gives the initial states).
 * @param BMCInst Instance 0 to 17.
 * @return 0 (also when skipped); -1 when the area is not set up or the mutex
 *         cannot be taken.
 */
int ZNAPI_MemSensorInfoRecover(int BMCInst);

/**
 * @brief Copies the 1024-byte shared flags area (`Various_sharemem_t`) to `dp`. No lock.
 * @param dp Buffer of at least 1024 bytes.
 */
void znpdklib_Various_sharemem_read(void* dp);

/**
 * @brief Copies 1024 bytes from `dp` over the shared flags area. No lock:
 *        writers in different processes can overwrite each other.
 * @param dp 1024 bytes (a whole `Various_sharemem_t`).
 */
void znpdklib_Various_sharemem_write(void* dp);

/**
 * @brief Tells whether the BoB controller is in error: sensor 33 of instance
 *        17 has any of the offsets 5 to 9 (mask 0x03E0).
 * @return -1 error, 0 no error.
 */
int znpdklib_check_bobc_error(void);

/**
 * @brief Tells whether a CMU controller is in error: the BoB controller, or
 *        sensor 10 of either node instance 2 * `cmuc_no` + 1 or + 2 at offsets 5 to 9.
 * @param cmuc_no CMU controller 0 to 7.
 * @return -1 error, 0 no error.
 */
int znpdklib_check_cmuc_error(int cmuc_no);

/**
 * @brief Tells whether a router's node is in error: the BoB controller, or
 *        sensor 10 of instance `rtnd_no` + 1 at offsets 5 to 9.
 * @param rtnd_no Router 0 to 15.
 * @return -1 error, 0 no error.
 */
int znpdklib_check_rtnd_error(int rtnd_no);

/** @} */

/**
 * @defgroup upid Unit position ids
 * Conversion of components and paths into `unit_position_id_t` (8 bytes:
 * part-name code `nameID`, `count` layer numbers, `partLayer` outermost
 * first). Every conversion clears the whole id first; on failure it stays
 * all zero. Read-only; no lock.
 * @{
 */

#ifdef __cplusplus
/**
 * @brief Converts a component into its unit position id, from its type and
 *        its place in the tree (C++ only).
 * @param compo Component handle of the database (not freed).
 * @param upid Receives the id.
 * @return 0; -1 when the type has no position id (or, for parts whose code
 *         depends on the parent, the parent's type matches none).
 */
int znpdklib_compo2upid(sp::sysobj::Component* compo, unit_position_id_t* upid);
#endif

/**
 * @brief As znpdklib_compo2upid() for the component that `path` names.
 * @param path Component path; "/SYSTEM#0" is put in front when it does not
 *        begin with it (so "/PSU#1" works).
 * @param upid Receives the id.
 * @return 0; -1 for a path naming no component or a type without an id.
 */
int znpdklib_path2upid(char* path, unit_position_id_t* upid);

#ifdef __cplusplus
/**
 * @brief Builds a unit position id from a caller-given part-name code (C++ only).
 * @param up `UPID_DEFINE` code: 1 to 5, 7, 8, 128 give [`no`]; 23 gives
 *        [parent's number, `no`]; 19, 20, 33, 34 give [grandparent's number,
 *        parent's number, `no`]; every other code is refused.
 * @param no The part's own number (last layer).
 * @param compo Component whose parent and grandparent give the outer layers.
 * @param upid Receives the id (`nameID` = `up` & 0xFF).
 * @return 0; -1 for a code not accepted.
 */
int znpdklib_upid2upid(int up, int no, sp::sysobj::Component* compo, unit_position_id_t* upid);
#endif

/**
 * @brief As znpdklib_upid2upid() with the component that `path` names.
 * @param up Part-name code, as for znpdklib_upid2upid().
 * @param no The part's own number.
 * @param path Component path ("/SYSTEM#0" put in front when missing).
 * @param upid Receives the id.
 * @return 0; -1 for a code not accepted or a path naming no component.
 */
int znpdklib_upid2upid_pc(int up, int no, char* path, unit_position_id_t* upid);

/** @} */

/**
 * @defgroup startup Start-up sensor states and escalation
 * Initial states after AC power-on, node error evaluation and the
 * escalation tables. All sensor changes are exclusive sets without SEL
 * (znpdklib_exSetSensorWoS()), so the caller must not hold the sensor mutex.
 * A FRU (0xC1) or FRU error (0xC2) sensor already in an error state (masked
 * word other than 0, 0x0001, 0x0002) keeps it.
 * @{
 */

/**
 * @brief Gives every sensor of one instance its start-up state and builds the
 *        instance's escalation table. Call once per instance at BMC start.
 *
 * Instance 17 runs the BoB, PSU, FANU and maintenance passes; a node
 * instance runs znpdklib_Init_Sensor_Node(). Then
 * znpdklib_make_escalation_info(). Does nothing when
 * "/var/nvrdisk/.bmcinit_acon_ready" exists and "/tmp/.boot/.acon" does not
 * (restart without AC loss: use ZNAPI_MemSensorInfoRecover()).
 * @param BMCInst Instance 1 to 17.
 * @return Always 0.
 * @pre ZNAPI_MemSensorAreaInit() in this process.
 */
int ZNAPI_Sensor_Init(int BMCInst);

/**
 * @brief BoB pass: applies every non-zero entry of BOB_SENSOR_INIT_VALUE on
 *        instance 17 (sensors valid there only).
 * @return Always 0.
 */
int znpdklib_Init_Sensor_Bob(void);

/**
 * @brief PSU pass: PSU sensors of instance 17 from each PSU's common record.
 *
 * A PSU not installed: FRU status 50 + n and FRU error status 179 + n to
 * offset 0. Installed: status sensor 111 + n gets offsets added (0 always;
 * 3, 2, 8 or 6, 1, 10 by status bits) and FRU status 50 + n goes to 7, 6, 4
 * or 1 by status bits 0x1000, 0x8000, 0x4000. The PSU redundancy sensor is
 * left to znpdklib_check_psu_redundancy().
 * @return Always 0.
 */
int znpdklib_Init_Sensor_PSU(void);

/**
 * @brief FANU pass: for each fan unit n not installed, sensors 201 + n and
 *        205 + n and the FRU error sensor 209 + 2n + m of each fan m not
 *        installed go to offset 0 (instance 17). Installed units are left alone.
 * @return Always 0.
 */
int znpdklib_Init_Sensor_FANU(void);

/**
 * @brief Maintenance pass: sensors 4 + i (i 0 to 28) and 221 + j (j 0 to 3)
 *        of instance 17 go to the offsets `maintenance_sensor`[i] and
 *        [32 + j] of the root's setup record (16 or more: all clear).
 * @return Always 0.
 */
int znpdklib_Init_Sensor_Maintenance(void);

/**
 * @brief Node pass: NODE_SENSOR_INIT_VALUE on the node instance, then the
 *        CMU pass (even node only), the node-unit pass and the first SSD and
 *        PCIe card of the node; absent units send their sensors to offset 0.
 * @param BMCInst Node instance 1 to 16.
 * @return Always 0.
 */
int znpdklib_Init_Sensor_Node(int BMCInst);

/**
 * @brief GIOU pass: there is nothing to initialise; kept for callers.
 * @param BMCInst Ignored.
 * @return Always 0.
 */
int znpdklib_Init_Sensor_Giou(int BMCInst);

/** Initial state words of the chassis instance, by sensor number (bit n = offset n; 0 = leave alone). */
extern const uint16_t BOB_SENSOR_INIT_VALUE[256];
/** Initial state words of every node instance, by sensor number (bit n = offset n; 0 = leave alone). */
extern const uint16_t NODE_SENSOR_INIT_VALUE[256];

/**
 * @brief Re-evaluates the FRU error summary (sensor 10) of both nodes of one CMU.
 *
 * Scans the FRU error sensors (type 0xC2) of instances `BMCInst` and
 * `BMCInst` + 1 (not 15 to 34, 49 to 60) for the worst offset; CMU-wide
 * sensors (12, 13, 40 to 48, 71) count for both nodes. Worst offset 1-3
 * gives summary 1, 4 gives 2, 5 gives 4, 6 gives 5, 7 gives 3, 8 gives 8
 * for the router sensor 35 else 5, 9 gives 8 for 35 or a CMU-wide sensor
 * else 6. A summary at offset 0 (not installed) is never changed.
 * @param BMCInst Instance of the CMU's first node (odd, 1 to 15).
 * @return 0; -1 for the chassis instance 17 (nothing changed).
 */
int znpdklib_Set_Sensor_Node(int BMCInst);

/**
 * @brief Builds the escalation table file of one instance.
 *
 * Copies the instance's sensor table under its sensor mutex, asks
 * znlib_log_get_clear_sensor_list() for each FRU error sensor (type 0xC2)
 * of the instance and writes "/var/nvrdisk/current/sensor/esctable_inst%02d"
 * (4096 bytes: entry of sensor s, target t at (s * 4 + t) * 4). Called by
 * ZNAPI_Sensor_Init(). Keeps the old file when the mutex or the file fails.
 * @param BMCInst Instance 0 to 17.
 */
void znpdklib_make_escalation_info(int BMCInst);

/**
 * @brief Searches the escalation files of instances 1 to 17 for the FRU error
 *        sensors that point at one target sensor. Takes no lock.
 * @param in Query: `esc_spec` the target index (0 parent, 1 even node, 2 odd
 *        node, 3 BoB; 1 and 2 also match each other), `BMCInst` and
 *        `Sensor_No` the target sensor. An `esc_spec` outside 0 to 3 or an
 *        instance outside 0 to 17 finds nothing (counts 0, lists allocated).
 * @param out Receives `frue_list` (`frue_count` entries: `esc_spec` 0xFF,
 *        instance, sensor) and `esc_list` (`esc_count` entries: the node
 *        targets, one per instance, then at most one chassis target).
 * @post The caller frees both lists with free(), even when the counts are 0.
 */
void znpdklib_get_escalation_info(Esc_Sensor_t* in, Esc_Table_t* out);

/** @} */

/**
 * @defgroup interconnect Interconnect ports
 * Routers 0 to 15 with ten physical and ten logical ports each (0 to 9);
 * router r sits on CMUC r / 2 and its port sensors are on instance r + 1.
 * Records are read afresh on every call; no state, no library lock.
 * Predicates answer 1 yes, 0 no, -1 bad argument or unreadable record.
 * @{
 */

/**
 * @brief Is the physical port offline (its `online` byte in the router's hardware record is not 1)?
 * @param routerno Router 0 to 15.
 * @param pportno Physical port 0 to 9.
 * @return 1 offline, 0 online, -1 bad argument or record unreadable.
 */
int znpdklib_isPhysicalPortOffline(int routerno, int pportno);

/**
 * @brief znpdklib_isPhysicalPortOffline() for the physical port of a logical port.
 * @param routerno Router 0 to 15.
 * @param lportno Logical port 0 to 9 (mapped by znlib_getLogic2PhysicPortNo()).
 * @return As znpdklib_isPhysicalPortOffline().
 */
int znpdklib_isLogicalPortOffline(int routerno, int lportno);

/**
 * @brief Is the physical port external? Ports 4 to 9 always, 2 and 3 never;
 *        ports 0 and 1 never in the small-scale configuration, else by
 *        router and `portConfig` bit 0x10 (routers 0, 1, 8, 9 or 6, 7, 14, 15).
 * @param routerno Router 0 to 15.
 * @param pportno Physical port 0 to 9.
 * @return 1 external, 0 internal, -1 bad argument or record unreadable.
 */
int znpdklib_isPhysicalPortExternal(int routerno, int pportno);

/**
 * @brief znpdklib_isPhysicalPortExternal() for the physical port of a logical port.
 * @param routerno Router 0 to 15.
 * @param lportno Logical port 0 to 9.
 * @return As znpdklib_isPhysicalPortExternal().
 */
int znpdklib_isLogicalPortExternal(int routerno, int lportno);

/**
 * @brief Copies the router's row of the neighbour-router table of the current
 *        configuration (remote_router_no_list or remote_router_no_list_small).
 * @param routerno Router 0 to 15.
 * @param rrouterno Receives 10 ints; -1 marks an empty slot.
 * @return 0; -1 bad router or null pointer. An unreadable setup record counts as small-scale.
 */
int znpdklib_getRemoteRouterNo(int routerno, int* rrouterno);

/**
 * @brief Copies the router's row of the connection table of the current
 *        configuration (remote_port_no_list or remote_port_no_list_small).
 * @param routerno Router 0 to 15.
 * @param portno Receives 10 ints; -1 marks an empty slot.
 * @return 0; -1 bad router or null pointer.
 */
int znpdklib_getConnectedInternalPortNo(int routerno, int* portno);

/**
 * @brief Is the machine in its small-scale configuration
 *        (`quorSpace`[1].Z - `quorSpace`[0].Z == 3 in the root's setup record)?
 * @return 1 small-scale, 0 normal, -1 setup record unreadable.
 */
int znpdklib_isSmallScaleSystemConfiguration(void);

/** Neighbour routers of each router, normal configuration ([router][slot], -1 = empty). */
extern const int remote_router_no_list[16][10];
/** Neighbour routers of each router, small-scale configuration ([router][slot], -1 = empty). */
extern const int remote_router_no_list_small[16][10];
/** Connection slots of each router, normal configuration (slot 3 = the CMU partner r ^ 1). */
extern const int remote_port_no_list[16][10];
/** Connection slots of each router, small-scale configuration (slot 3 = the CMU partner r ^ 1). */
extern const int remote_port_no_list_small[16][10];

/**
 * @brief Reduces a mask of logical ports to those still to be waited for.
 *
 * Clears bit n for an offline port; keeps it for an internal port; for an
 * external port keeps it only while sensor 4 and sensor 5 + `routerno` / 2
 * of instance 17 both have bit 0x1. Never sets a bit.
 * @param routerno Router 0 to 15.
 * @param waitLogicalPort In/out mask, bit n = logical port n.
 * @return 0; -1 bad argument or a failed sensor read (bits cleared so far stay cleared).
 */
int znpdklib_checkWaitEnableLogicalPort(int routerno, uint32_t* waitLogicalPort);

/**
 * @brief Reduces a mask of logical ports to the internal online ones.
 * @param routerno Router 0 to 15.
 * @param waitLogicalPort In/out mask, bit n = logical port n.
 * @return 0; -1 bad argument.
 */
int znpdklib_checkWaitEnableInternalLogicalPort(int routerno, uint32_t* waitLogicalPort);

/**
 * @brief Runs the link check "CPUICC_E_QNR_LINK_CHECK" on the router and its
 *        CMUC and sets the port sensors of instance `routerno` + 1.
 *
 * Per logical port n: sensor 86 + n offset 0 deasserted when online,
 * asserted when offline; link status bit 0x4 asserts 86 + n offset 1 and
 * sets 76 + n to 0, bit 0x2 sets 76 + n to 2, bits 0x30 with
 * (status & 0x3FFC0) != 0xC0 set 76 + n to 1, else 76 + n goes to 0.
 * @param routerno Router 0 to 15.
 * @return 0; -1 bad router or any sensor update failed; -2 the link check
 *         failed with the router's controller in error (no sensor touched);
 *         else the link check's error code (ports updated as status 0).
 */
int znpdklib_updateQuorPortStatus(int routerno);

/**
 * @brief Beacon error check: runs "CPUICC_T_QNR_LINK_UP" on the online
 *        physical ports that are not waited for, then znpdklib_updateQuorPortStatus().
 * @param routerno Router 0 to 15.
 * @return 0; -1 bad router or the wait-port evaluation failed; -2 the link-up
 *         failed with the controller in error; else the non-zero result of
 *         the status update.
 */
int znpdklib_checkBeaconErrorPort(int routerno);

/**
 * @brief Clears a port's error state: sensors 15 + `lportno` and 25 + `lportno`
 *        of instance `routerno` + 1 both set to offset 1 (exclusive).
 * @param routerno Router 0 to 15 (not range-checked).
 * @param lportno Logical port 0 to 9 (not range-checked).
 * @return 0; -1 when either set failed.
 */
int znpdklib_clearQuorPortErrorStatus(int routerno, int lportno);

/** @} */

/**
 * @defgroup outage Outage, procedures, records and the alarm LED
 * Outage marks live in `emergency_outage` of a unit's common record
 * (0 none, 1 emergency outage, 2 outage by BMC reboot); each record change
 * holds that component's write lock only. Units: `type` COMPO_BOBC (303,
 * `no` 0), COMPO_CMUC (302, 0 to 7), COMPO_NODE (301, 0 to 15); the set
 * functions also take `no` 255 for every CMUC or node. Arguments are checked
 * in the order type, type/number, value; the first failure is traced and -1
 * returned. Registers are reached by ioctl on `global_sbcfd_env`.
 * @{
 */

/**
 * @brief Sets the emergency outage mark of a unit and of every unit below it
 *        (BOBC: all CMUCs and nodes; CMUC: its nodes).
 * @param type COMPO_BOBC, COMPO_CMUC or COMPO_NODE.
 * @param no Unit number, or 255 for every CMUC / node.
 * @param val 0, 1 or 2. Marks that already equal `val` are not rewritten.
 * @return 0; -1 bad argument.
 */
int znpdklib_setEmergencyOutage(int type, int no, uint8_t val);

/**
 * @brief znpdklib_setEmergencyOutage() with `val` 0.
 * @param type COMPO_BOBC, COMPO_CMUC or COMPO_NODE.
 * @param no Unit number, or 255.
 * @return 0; -1 bad argument.
 */
int znpdklib_clearEmergencyOutage(int type, int no);

/**
 * @brief Sets the BMC-reboot outage mark like znpdklib_setEmergencyOutage(),
 *        but never overwrites an emergency mark (1).
 * @param type COMPO_BOBC, COMPO_CMUC or COMPO_NODE.
 * @param no Unit number, or 255.
 * @param val 0 or 2.
 * @return 0; -1 bad argument.
 */
int znpdklib_setBMCRebootOutage(int type, int no, uint8_t val);

/**
 * @brief znpdklib_setBMCRebootOutage() with `val` 0: clears reboot marks, keeps emergency marks.
 * @param type COMPO_BOBC, COMPO_CMUC or COMPO_NODE.
 * @param no Unit number, or 255.
 * @return 0; -1 bad argument.
 */
int znpdklib_clearBMCRebootOutage(int type, int no);

/**
 * @brief Is a unit out of service? Reads the Emergency Active State Registers
 *        of the unit and of what it depends on (node: its CMUC, the BOBC;
 *        CMUC: the BOBC), then the unit's own mark.
 *
 * A BOBC register counts with any of 0xD8000000 set, any other when non-zero.
 * A failed register read stops the register reads; the mark still decides.
 * @param type COMPO_BOBC, COMPO_CMUC or COMPO_NODE.
 * @param no Unit number (255 refused).
 * @return 1 out of service, 0 not, -1 bad argument.
 */
int znpdklib_checkEmergencyOutage(int type, int no);

/**
 * @brief znpdklib_checkEmergencyOutage() for the most specific unit of a
 *        procedure target: a node (or router n, meaning node n) over a CMUC
 *        over the BOBC.
 * @param path One or more full component paths separated by ",", e.g.
 *        "/SYSTEM#0/ROUTER#3,/SYSTEM#0/CMUC#1".
 * @return 1, 0; -1 when an element names no component or a component of another type.
 */
int znpdklib_checkEmergencyOutageByPath(const char* path);

/**
 * @brief Closes (writes 0 to) the Emergency Active State Mask Registers of a
 *        unit and the units below it (BOBC: every CMUC and node; CMUC: its nodes).
 * @param type COMPO_BOBC, COMPO_CMUC or COMPO_NODE.
 * @param no Unit number (255 refused).
 * @return 0; -1 bad argument; the negative ioctl result of the first failed
 *         write (later registers are not written).
 */
int znpdklib_setEmergencyMaskReg(int type, int no);

/**
 * @brief Runs a hardware access procedure and registers its failure as a RAS
 *        error log, unless the target is in outage.
 *
 * Calls znlib_hce_exechap_noerrlogregist_withlinklog(); on a negative result
 * asks znpdklib_checkEmergencyOutageByPath(`path`): 1 suppresses the log.
 * @param path Target component path, or several separated by ",".
 * @param hapName Procedure name.
 * @param mode Procedure mode word, e.g. "READ".
 * @param para Input words of the procedure (may be null where it takes none).
 * @param data Output words of the procedure.
 * @return The executor's result; 0 instead of a negative result when the
 *         target is in outage.
 */
int znpdklib_exechap(const char* path, const char* hapName, const char* mode, const uint32_t* para,
                     uint32_t* data);

/**
 * @brief Clears `offbit` in the common-record status of BIOU#0, its children
 *        and grandchildren (under BIOU#0's write lock), then of BOBC#0.
 * @param no Not used.
 * @param offbit Status bits to clear (e.g. 0x80000000 installed).
 */
void znpdklib_cleardb_biou(int no, uint32_t offbit);

/**
 * @brief Clears `offbit` in GIOU#`no`, its children and grandchildren, under the GIOU's write lock.
 * @param no GIOU number (a missing unit is skipped).
 * @param offbit Status bits to clear.
 */
void znpdklib_cleardb_giou(int no, uint32_t offbit);

/**
 * @brief Clears `offbit` in PSU#`no`, its children and grandchildren, under the PSU's write lock.
 * @param no PSU number 0 to 17.
 * @param offbit Status bits to clear.
 */
void znpdklib_cleardb_psu(int no, uint32_t offbit);

/**
 * @brief Clears `offbit` in CMU#`no` with its children and grandchildren,
 *        then in CMUC#`no`, node 2 * `no` and node 2 * `no` + 1 (each alone,
 *        one write lock at a time).
 * @param no CMU number 0 to 7.
 * @param offbit Status bits to clear.
 */
void znpdklib_cleardb_cmu(int no, uint32_t offbit);

/**
 * @brief Clears `offbit` in IORC#`no`, its children and grandchildren, under the IORC's write lock.
 * @param no IORC number.
 * @param offbit Status bits to clear.
 */
void znpdklib_cleardb_iorc(int no, uint32_t offbit);

/**
 * @brief Clears `offbit` in the root's common record only.
 * @param no Not used.
 * @param offbit Status bits to clear.
 */
void znpdklib_cleardb_system(int no, uint32_t offbit);

/**
 * @brief Clears `offbit` in FANU#`no`, its fans and their children, under the FANU's write lock.
 * @param no Fan unit 0 to 3.
 * @param offbit Status bits to clear.
 */
void znpdklib_cleardb_fanu(int no, uint32_t offbit);

/**
 * @brief Switches the BoB alarm LED off (state 1) when no FRU status sensor
 *        (type 0xC1) of the chassis or of any node shows an error (offsets 4
 *        to 8) or EPO (offset 9). Never switches it on.
 *
 * Chassis PSU sensors 50 to 67 are skipped when the PSU's control
 * information answers -1 or 256.
 * @return 0 done (switched off or left as it was); -1 the LED could not be read or set.
 */
int znpdklib_clear_bob_alarm_led(void);

/** @} */

/**
 * @defgroup flags Sequence flags and monitor-enable checks
 * Power-sequence bits (`job_in_sequence`) and job registrations of the
 * shared flags area. Read-modify-writes are serialised within a process by
 * the flags-area mutex, not between processes.
 * `job_in_sequence` bits: node n: n and 16 + n; CMU m: 32 + m; chassis:
 * 0x0BFFFF00_00000000.
 * @{
 */

/**
 * @brief Blocks until BIOU#0 reports its initialisation complete (common
 *        status bit 30), polling once a second, with no time limit.
 * @return 0.
 */
int znpdklib_wait_BMCReady(void);

/**
 * @brief Sets, clears or tests sequence bits of `job_in_sequence`.
 * @param mode 1 set the bits of `target`; 2 clear them; any other value
 *        (3 by convention) tests them without the mutex.
 * @param target Bit mask.
 * @return 0 in modes 1 and 2; otherwise `job_in_sequence` & `target`.
 */
uint64_t znpdklib_shmem_sequence_flags(int mode, uint64_t target);

/**
 * @brief Should a monitor judge the sensors of an instance now?
 * @param BMCInst 1 to 16 node `BMCInst` - 1; 17 the chassis.
 * @return -1 PSW power killed (root status bit 6; not tested for 17);
 *         1 a sequence concerning the instance is going on; 0 neither.
 */
int znpdklib_monitor_enable_check(int BMCInst);

/**
 * @brief Node monitor check from the node status (sensor 0 of the instance).
 * @param BMCInst Node instance 1 to 16 (outside 0 to 17: 1 without a read).
 * @return 1 when none of the status bits 3 to 8 (0x01F8) is set, or when
 *         the node's power-off sequence runs (common `sequence` bit 22);
 *         0 otherwise.
 */
int znpdklib_monitor_enable_check_gio(int BMCInst);

/**
 * @brief Fan monitor check: the fan monitor sensors are not judged while a fan check is pending.
 * @param BMCInst Instance.
 * @param SensorNumber Sensor number.
 * @return 0 when `BMCInst` is 17, `SensorNumber` is 229 to 236 and
 *         znpdklib_is_check_fan_executing() is true; 1 otherwise.
 */
int znpdklib_fan_monitor_enable_check(int BMCInst, uint8_t SensorNumber);

/**
 * @brief Registers, unregisters or takes the job registrations of the shared flags area.
 * @param mode 1 register (`BMCInst`, `regist_method`, `regist_mode`);
 *        2 unregister (entry zeroed); 4 copy both rows (144 bytes,
 *        `Corvo_Job_regist_flag_t`[2][18], row 0 first) to `datap` and clear
 *        them; any other mode changes nothing.
 * @param BMCInst Instance 0 to 17, the entry of the row; any other value
 *        registers and unregisters nothing.
 * @param regist_mode Stored by mode 1.
 * @param regist_method 3 selects row 1, any other value row 0.
 * @param datap Mode 4: buffer of 144 bytes. Otherwise unused.
 * @return Always 0.
 */
int znpdklib_shmem_corvo_job_regist_flags(int mode, int BMCInst, uint8_t regist_mode, uint8_t regist_method,
                                          void* datap);

/** @} */

/**
 * @defgroup redundancy PSU redundancy and recovery
 * The PSU redundancy sensor 0x81 and the fan redundancy sensor 0x82 of
 * instance 17: offset 1 full (0x0002), 2 lost (0x0004), 3 shortage
 * (0x0008). Sensor moves are exclusive sets without SEL.
 * @{
 */

/**
 * @brief Judges PSU redundancy from the PSU controller's registers and moves sensor 0x81.
 *
 * Reads the registers with "BOB_R_BOBC_PSUC" ("READ") on "/SYSTEM#0/BOBC#0";
 * a PSU is usable when mounted, its FRU status is not 3, 4 or 0 (unknown),
 * and present, AC-OK and PS-ON-and-control are set. The verdict compares the
 * usable count with `available_psu_slots` of the root's system record.
 * Under the PSU redundancy mutex: a new loss registers "BFW_CFG_PSU_4" and
 * sets offset 2 (unless caused by the maintenance target PSU; after a
 * shortage also the shortage-to-lost recovery); a new shortage registers
 * "BFW_CFG_PSU_1" and sets offset 3 (both store the full register image in
 * PSUC#0's record); in mode 3 a return to 0 registers "BFW_CFG_PSU_7" (from
 * shortage) or "BFW_CFG_PSU_8" (from lost), sets offset 1 and runs
 * znpdklib_redundancy_recover(). Debug bits 0x2 of `debug_flag`[0] or
 * 0x2000 of `debug_flag`[8] skip the check.
 * With `psu_redandancy_check_enable` 0 and 2 slots, or 3 slots without a
 * shortage, it returns 0 and changes nothing.
 * @param mode 1 or 2 (alike), or 3 (also acts on a recovery).
 * @return 0 redundant (or skipped), 1 lost, 2 shortage; -1 mode refused or register read failed.
 */
int znpdklib_check_psu_redundancy(int mode);

/**
 * @brief Pre-check before PSU power control switches one PSU off: the verdict
 *        with PSU `psuno` counted as unusable. Logs nothing and changes no sensor.
 * @param mode 17 only.
 * @param psuno The PSU about to be switched off, 0 to 17.
 * @return 0, 1, 2 as znpdklib_check_psu_redundancy(); -1 mode refused or register read failed.
 */
int znpdklib_check_psu_redundancy_for_psu_control(int mode, int psuno);

/**
 * @brief Brings the chassis sensors back to normal after a redundancy sensor
 *        recovered, when both 0x82 and 0x81 are full (or 0).
 *
 * Sets the FRUE Environment sensor 0x49 to offset 1, then sensor 35 and its
 * escalation targets to offset 1 where none of their FRU error sensors is
 * in error; switches the BoB alarm LED off for an error-free target 33.
 * Takes no lock of its own.
 * @param sensor_clear Non-zero sets sensors; 0 only checks and switches the LED.
 */
void znpdklib_redundancy_recover(int sensor_clear);

/**
 * @brief After a shortage became a loss: when no redundancy sensor shows a
 *        shortage and one shows lost, sets sensor 0x49 to offset 5 (CER) and
 *        moves sensor 35 and its escalation targets to offset 4 (warning)
 *        where their lowest offset is above 4 and no FRU error sensor below
 *        them is in error.
 */
void znpdklib_redundancy_recover_shortage2lost(void);

/** @} */

/**
 * @defgroup fans Fans
 * Fan index 0 to 7 (FANU index / 2, FAN index % 2); fan sets are uint32
 * masks, bit n = fan index n. Chassis sensors: 0x00 system power-off (0x0001
 * = off), 0xD1 + n FRU error of fan n (usable with any of 0x002E), 0xDD + m
 * FANU m maintenance (0x0002). Bookkeeping lives in the root's
 * `current_system_info_t`: `fanfull_reason`, `fan_start_time`[8],
 * `fan_check_result`[8] (0 none, 1 timeout, 2 controller error),
 * `fan_start_time_by_attach`, `fan_check_phase` (0x00, 0x01 / 0x81 after the
 * first check, 0x02 / 0x82 after the second). Every change is a
 * read-modify-write under the root's write lock.
 * @{
 */

/**
 * @brief Adds full-speed reasons: znpdklib_change_fan_speed(`reason`, 0).
 * @param reason Reason bits (the caller's own meanings; 0x200000 and
 *        0x400000 belong to the fan redundancy check).
 * @return As znpdklib_change_fan_speed().
 */
int znpdklib_max_fan_speed(uint64_t reason);

/**
 * @brief Withdraws full-speed reasons: znpdklib_change_fan_speed(0, `reason`).
 * @param reason Reason bits.
 * @return As znpdklib_change_fan_speed().
 */
int znpdklib_restore_fan_speed(uint64_t reason);

/**
 * @brief Changes the set of full-speed reasons (`fanfull_reason`) and drives the fans.
 *
 * New mask = (old | `set_reason`) & ~`reset_reason`. On 0 to non-zero runs
 * "BOB_R_BOBC_FANC" "MAX_FANSPEED" on "/SYSTEM#0/BOBC#0" and asks for a max
 * speed check of the usable fans (znpdklib_create_fan_rotation_check_thread()
 * with mode 1); on non-zero to 0 runs "RESTORE_FANSPEED". The procedure runs
 * after the write lock is released; a failure registers its RAS log and
 * keeps the new mask.
 * @param set_reason Bits to add.
 * @param reset_reason Bits to withdraw; must not share a bit with `set_reason`.
 * @return 0 the procedure ran and succeeded; 1 nothing to do (mask unchanged,
 *         or already at full speed); -1 the procedure failed; -2 both masks 0
 *         or overlapping (nothing read or written).
 */
int znpdklib_change_fan_speed(uint64_t set_reason, uint64_t reset_reason);

/**
 * @brief Judges fan redundancy from the fan sensors and moves sensor 0x82.
 *
 * Counts usable fans (a fan of the first FANU in maintenance counts); 8 is
 * full, 7 lost, fewer shortage. Under the fan redundancy mutex: a new loss
 * registers "BFW_CFG_FAN_H0", sets offset 2 and reason 0x200000 (after a
 * shortage also the shortage-to-lost recovery); a new shortage "BFW_CFG_FAN_H1",
 * offset 3, reason 0x400000; in mode 2 a recovery (no unit counted through
 * maintenance, no attach check running) "BFW_CFG_FAN_H2", offset 1,
 * znpdklib_redundancy_recover() and withdraws 0x600000. Debug bits 0x2 of
 * `debug_flag`[0] or 0x10000 of `debug_flag`[8] skip it.
 * @param mode 1 (never registers a recovery) or 2.
 * @param fanc_err Caller-initialised; set to 0 when the reasons change and
 *        to 1 when that change's fan speed procedure failed.
 * @return 0 full (or skipped), 1 lost, 2 shortage; -1 mode refused.
 */
int znpdklib_check_fan_redundancy(int mode, int* fanc_err);

/**
 * @brief May fan unit `fanu_no` enter maintenance without losing fan redundancy?
 *        Changes nothing.
 * @param fanu_no Fan unit 0 to 3.
 * @return 0 yes (also whenever the system is powered off); 1 no, a unit is
 *         already in maintenance, or `fanu_no` is above 3.
 */
int znpdklib_check_fan_redundancy_for_enter_mainte(int fanu_no);

/**
 * @brief First (spin-up) rotation check after the fans were started: every
 *        usable fan must reach 2000 within 10 seconds of its start time.
 *
 * Stamps the start times, polls the speeds ("BOB_R_BOBC_FANC"
 * "READ_FANSPEED") every 2 seconds, marks late fans with result 1 and
 * registers "BFW_FAN_CHK_H0" for each (system on, fan still usable); when a
 * fan failed runs znpdklib_check_fan_redundancy() in mode 1. Sets the phase to
 * 0x01 (start times kept for the second check) or 0x81 on a negative result
 * (start times cleared). Blocks its caller; takes no mutex.
 * @return 0 no fan failed; 2 exactly one fan failed (still a success); -1
 *         more failed; -2 the speed read failed.
 */
int znpdklib_check_fan_spinup(void);

/**
 * @brief Second rotation check: the fans stamped by the first check must
 *        reach 8000 (12000 while a full-speed reason is active) within 15
 *        seconds of their start times.
 *
 * Holds the fan rotation check mutex throughout; clears all start times at
 * the end; when full speed was requested meanwhile, follows with a max speed
 * check (12000, one reading) after 5 seconds. Sets the phase to 0x02, or
 * 0x82 on a negative result. Blocks its caller.
 * @return 1 skipped (phase already 0x02 / 0x82, or no start time set);
 *         otherwise as znpdklib_check_fan_spinup().
 */
int znpdklib_check_fan_rotation(void);

/**
 * @brief Stamps the current time as the check start of every fan in the set
 *        and resets their results to 0.
 * @param fan_target Fan set (0xFF all).
 * @param fan_start_time Array of 8, or null; receives the stamped time for
 *        the fans in the set, other entries untouched.
 */
void znpdklib_set_check_fan_start_time(uint32_t fan_target, uint32_t* fan_start_time);

/**
 * @brief Clears the start time of every fan in the set, except those that
 *        another check has restamped since.
 * @param fan_target Fan set (0xFF all).
 * @param fan_start_time The caller's array of 8 from
 *        znpdklib_set_check_fan_start_time(), or null to clear regardless.
 */
void znpdklib_clear_check_fan_start_time(uint32_t fan_target, uint32_t* fan_start_time);

/**
 * @brief Is any fan check pending (any start time non-zero)?
 * @return true or false.
 */
bool znpdklib_is_check_fan_executing(void);

/**
 * @brief Stamps the current time as the start of an attach check.
 * @param fan_start_time Receives the stamped time; keep it for
 *        znpdklib_clear_check_fan_start_time_by_attach().
 */
void znpdklib_set_check_fan_start_time_by_attach(uint32_t* fan_start_time);

/**
 * @brief Ends an attach check: clears its start time if it is still the one given.
 * @param fan_start_time The time from znpdklib_set_check_fan_start_time_by_attach().
 */
void znpdklib_clear_check_fan_start_time_by_attach(uint32_t fan_start_time);

/**
 * @brief Is an attach check running (its start time non-zero)?
 * @return true or false.
 */
bool znpdklib_is_check_fan_executing_by_attach(void);

/**
 * @brief Stores the fan check phase.
 * @param phase 0x00, 0x01, 0x81, 0x02 or 0x82 (any value is stored).
 */
void znpdklib_set_fan_check_phase(uint8_t phase);

/**
 * @brief The fan check phase. No lock.
 * @return 0x00, 0x01, 0x81, 0x02, 0x82, or whatever was stored.
 */
uint8_t znpdklib_get_fan_check_phase(void);

/**
 * @brief Starts a detached thread that runs one rotation check of the fan set.
 *
 * Nothing starts while the system is powered off or the phase is not 0x02.
 * Mode 2 (fans attached): threshold 8000 (12000 while a full-speed reason is
 * active), 15 seconds, then znpdklib_check_fan_redundancy() in mode 2 on
 * success; the attach start time is set while it runs. Any other mode (full
 * speed): after 5 seconds one reading against 12000. The threads take the
 * fan rotation check mutex, so checks run one after another. Returns at once.
 * @param mode 2 attach check; any other value max speed check.
 * @param fan_target Fan set to check.
 */
void znpdklib_create_fan_rotation_check_thread(uint8_t mode, uint32_t fan_target);

/** @} */

#ifdef __cplusplus
} /* extern "C" */
#endif
#pragma GCC visibility pop

#endif
