/*
 * libznpdk: the machine-specific platform library of the BMC firmware.
 * Every function here has C linkage and is exported under its plain name.
 */
#ifndef ZNPDK_ZNPDKLIB_H
#define ZNPDK_ZNPDKLIB_H

#include <stdint.h>

#include "ipmi_stack.h"
#include "znpdklib_types.h"

#pragma GCC visibility push(default)
extern "C" {

/* Sensor state operations */
INT8U ZNAPI_SetSensorWoS(INT8U SensorNum, int dir, INT8U offset, int BMCInst);
INT8U ZNAPI_SaveSensorTypeSEL(INT8U SensorNum, int dir, INT8U eventData1, INT8U eventData2, INT8U eventData3,
                              int BMCInst, INT16U* recordId);
INT8U ZNAPI_SetSensorWS(INT8U SensorNum, int dir, INT8U eventData1, INT8U eventData2, INT8U eventData3,
                        int BMCInst, INT16U* recordID);
int ZNAPI_GetSensorReading(int sensor, GetSensorReadingRes_T* SensorRead, int BMCInst);
INT8U znpdklib_SetSensorWoS(INT8U SensorNum, INT8U dir, INT8U offset, int BMCInst);
INT8U znpdklib_SetSensorWS(INT8U SensorNum, int dir, INT8U eventData1, INT8U eventData2, INT8U eventData3,
                           int BMCInst, INT16U* recordID);
INT8U znpdklib_exSetSensorWoS(INT8U SensorNum, INT8U offset, int BMCInst);
INT8U znpdklib_exSetSensorWS(INT8U SensorNum, INT8U eventData1, INT8U eventData2, INT8U eventData3,
                             int BMCInst, INT16U* recordID);
int znpdklib_getDiscreteStatusSensorStatus(int sensor, INT16U* status, int BMCInst);
int isValidSensorBMCInst(INT8U SensorNum, int BMCInst);
INT8U GetInstSensorType(INT8U SensorNum, int BMCInst);
INT8U GetInstSensorOEM(INT8U SensorNum, int BMCInst);

/* Sensor state persistence */
void ZNAPI_MemSensorAreaInit(void);
int ZNAPI_MemSensorInfoWrite(INT8U SensorNum, int BMCInst);
int ZNAPI_MemSensorInfoRecover(int BMCInst);

/* Shared flags area and controller error checks */
void znpdklib_Various_sharemem_read(void* dp);
void znpdklib_Various_sharemem_write(void* dp);
int znpdklib_check_bobc_error(void);
int znpdklib_check_cmuc_error(int cmuc_no);
int znpdklib_check_rtnd_error(int rtnd_no);

/* Unit position ids */
int znpdklib_compo2upid(sp::sysobj::Component* compo, unit_position_id_t* upid);
int znpdklib_path2upid(char* path, unit_position_id_t* upid);
int znpdklib_upid2upid(int up, int no, sp::sysobj::Component* compo, unit_position_id_t* upid);
int znpdklib_upid2upid_pc(int up, int no, char* path, unit_position_id_t* upid);

/* Initial sensor states */
int ZNAPI_Sensor_Init(int BMCInst);
int znpdklib_Init_Sensor_Bob(void);
int znpdklib_Init_Sensor_PSU(void);
int znpdklib_Init_Sensor_FANU(void);
int znpdklib_Init_Sensor_Maintenance(void);
int znpdklib_Init_Sensor_Node(int BMCInst);
int znpdklib_Init_Sensor_Giou(int BMCInst);
extern const uint16_t BOB_SENSOR_INIT_VALUE[256];
extern const uint16_t NODE_SENSOR_INIT_VALUE[256];

/* Node error evaluation */
int znpdklib_Set_Sensor_Node(int BMCInst);

/* Escalation table */
void znpdklib_make_escalation_info(int BMCInst);
void znpdklib_get_escalation_info(Esc_Sensor_t* in, Esc_Table_t* out);

/* Port topology queries */
int znpdklib_isPhysicalPortOffline(int routerno, int pportno);
int znpdklib_isLogicalPortOffline(int routerno, int lportno);
int znpdklib_isPhysicalPortExternal(int routerno, int pportno);
int znpdklib_isLogicalPortExternal(int routerno, int lportno);
int znpdklib_getRemoteRouterNo(int routerno, int* rrouterno);
int znpdklib_getConnectedInternalPortNo(int routerno, int* portno);
int znpdklib_isSmallScaleSystemConfiguration(void);
extern const int remote_router_no_list[16][10];
extern const int remote_router_no_list_small[16][10];
extern const int remote_port_no_list[16][10];
extern const int remote_port_no_list_small[16][10];

/* Port status update and beacon error check */
int znpdklib_checkWaitEnableLogicalPort(int routerno, uint32_t* waitLogicalPort);
int znpdklib_checkWaitEnableInternalLogicalPort(int routerno, uint32_t* waitLogicalPort);
int znpdklib_updateQuorPortStatus(int routerno);
int znpdklib_checkBeaconErrorPort(int routerno);
int znpdklib_clearQuorPortErrorStatus(int routerno, int lportno);

/* Emergency outage and BMC-reboot outage */
int znpdklib_setEmergencyOutage(int type, int no, uint8_t val);
int znpdklib_clearEmergencyOutage(int type, int no);
int znpdklib_setBMCRebootOutage(int type, int no, uint8_t val);
int znpdklib_clearBMCRebootOutage(int type, int no);
int znpdklib_checkEmergencyOutage(int type, int no);
int znpdklib_checkEmergencyOutageByPath(const char* path);
int znpdklib_setEmergencyMaskReg(int type, int no);

/* Hardware procedure execution and component record clearing */
int znpdklib_exechap(const char* path, const char* hapName, const char* mode, const uint32_t* para,
                     uint32_t* data);
void znpdklib_cleardb_biou(int no, uint32_t offbit);
void znpdklib_cleardb_giou(int no, uint32_t offbit);
void znpdklib_cleardb_psu(int no, uint32_t offbit);
void znpdklib_cleardb_cmu(int no, uint32_t offbit);
void znpdklib_cleardb_iorc(int no, uint32_t offbit);
void znpdklib_cleardb_system(int no, uint32_t offbit);
void znpdklib_cleardb_fanu(int no, uint32_t offbit);

/* Sequence flags and monitor-enable checks */
int znpdklib_wait_BMCReady(void);
uint64_t znpdklib_shmem_sequence_flags(int mode, uint64_t target);
int znpdklib_monitor_enable_check(int BMCInst);
int znpdklib_monitor_enable_check_gio(int BMCInst);
int znpdklib_fan_monitor_enable_check(int BMCInst, uint8_t SensorNumber);
int znpdklib_shmem_corvo_job_regist_flags(int mode, int BMCInst, uint8_t regist_mode, uint8_t regist_method,
                                          void* datap);

/* BoB alarm LED */
int znpdklib_clear_bob_alarm_led(void);

/* PSU redundancy */
int znpdklib_check_psu_redundancy(int mode);
int znpdklib_check_psu_redundancy_for_psu_control(int mode, int psuno);

/* Redundancy recovery */
void znpdklib_redundancy_recover(int sensor_clear);
void znpdklib_redundancy_recover_shortage2lost(void);

/* Fan speed control by reasons */
int znpdklib_max_fan_speed(uint64_t reason);
int znpdklib_restore_fan_speed(uint64_t reason);
int znpdklib_change_fan_speed(uint64_t set_reason, uint64_t reset_reason);

/* Fan redundancy */
int znpdklib_check_fan_redundancy(int mode, int* fanc_err);
int znpdklib_check_fan_redundancy_for_enter_mainte(int fanu_no);

/* Fan rotation checks */
int znpdklib_check_fan_spinup(void);
int znpdklib_check_fan_rotation(void);

/* Fan check bookkeeping */
void znpdklib_set_check_fan_start_time(uint32_t fan_target, uint32_t* fan_start_time);
void znpdklib_clear_check_fan_start_time(uint32_t fan_target, uint32_t* fan_start_time);
bool znpdklib_is_check_fan_executing(void);
void znpdklib_set_check_fan_start_time_by_attach(uint32_t* fan_start_time);
void znpdklib_clear_check_fan_start_time_by_attach(uint32_t fan_start_time);
bool znpdklib_is_check_fan_executing_by_attach(void);
void znpdklib_set_fan_check_phase(uint8_t phase);
uint8_t znpdklib_get_fan_check_phase(void);

/* Fan rotation check threads */
void znpdklib_create_fan_rotation_check_thread(uint8_t mode, uint32_t fan_target);

} /* extern "C" */
#pragma GCC visibility pop

#endif
