/*
 * Control API of the simulated platform (libznpdk_sim.so).
 *
 * The simulated platform implements every platform interface that libznpdk
 * calls (IPMI stack, component database, controller support library, trace
 * facility, platform utilities, board controller driver) on the host. Tests
 * and tools use this API to set the machine up, to script the hardware and
 * to see what the library did. All files live below a root directory that
 * the caller chooses; the component database and the board controller
 * registers are shared by every process attached to the same root.
 */
#ifndef ZNPDK_SIM_SIM_H
#define ZNPDK_SIM_SIM_H

#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

#include "ipmi_stack.h"
#include "sp_sysobj.h"
#include "znlib.h"

namespace zsim {

/* ---- Lifecycle ---------------------------------------------------------- */

/* Starts a new, empty machine rooted at `root` (created if missing; any
 * machine state below it is reset). Resets all process-local state: sensors,
 * SELs, traces, scripts, failure injections, clock. */
void init(const std::string& root);
/* Attaches this process to the machine rooted at `root` that another process
 * created (shared records and registers); process-local state is reset. */
void attach(const std::string& root);
/* The root directory of the current machine ("" before init). */
std::string root();
/* Builds the default machine: the fully populated, healthy chassis with
 * every component and the sensor definitions of all 18 instances. */
void build_default_machine();

/* ---- Virtual clock ------------------------------------------------------ */
/* time(), sleep() and select() without descriptors run on this clock. A
 * sleeping thread moves the clock to max(clock, its wake time) and returns. */
uint32_t now();
void set_time(uint32_t seconds);
void advance(uint32_t seconds);
/* The next `count` descriptor-less select() calls are interrupted (EINTR)
 * after `after_seconds`, leaving the remaining time in the timeout. */
void inject_select_eintr(uint32_t after_seconds, int count = 1);

/* ---- Sensors (per instance, process-local like the IPMI stack's) -------- */
struct SensorDef {
    int inst = 17;
    uint8_t num = 0;
    uint8_t type = 0;          /* SensorTypeCode */
    uint8_t event_type = 0x6F; /* EventTypeCode (1 = threshold) */
    uint8_t oem = 0;           /* OEMField */
    uint8_t lun = 0;           /* SensorOwnerLun */
    uint16_t reading = 0;      /* SensorReading (state word) */
    uint8_t flags = 0;         /* EventFlags */
    uint8_t level = 0;         /* EventLevel */
    std::string name;          /* for display only */
};
void define_sensor(const SensorDef& def);
void remove_sensor(int inst, uint8_t num);
bool sensor_present(int inst, uint8_t num);
/* The stack's record (all zero when not present). */
SensorInfo_T sensor(int inst, uint8_t num);
std::string sensor_name(int inst, uint8_t num);
void set_sensor_reading(int inst, uint8_t num, uint16_t reading);
/* SEL records added on an instance, in order. */
std::vector<SELEventRecord_T> sel(int inst);
void clear_sel(int inst);
/* While set, AddSELEntry answers completion code `cc` and record id 0. */
void fail_sel_add(bool on, uint8_t cc = 0xFF);
/* Sensor mutex of an instance: lock / unlock fail with `err` (0 = normal). */
void fail_sensor_mutex_lock(int inst, int err);
void fail_sensor_mutex_unlock(int inst, int err);
/* Named semaphores: open fails (null) / lock answers `code` (0 = normal). */
void fail_sem_open(bool on);
void fail_sem_lock(int code);
/* The slave address reported for every instance. */
void set_slave_addr(uint8_t addr);

/* ---- Component database (shared between processes) ---------------------- */
/* Adds a component; `parents` are object ids (first = tree parent; empty =
 * child of the root). Returns the new object id. The root (SYSTEM#0) is
 * created by init() with object id 1. */
int add_component(int type, int no, const std::vector<int>& parents = {});
/* Removes a component and everything below it. */
void remove_component(int oid);
/* Object id of the first component of that type and number, or -1. */
int find(int type, int no);
/* Object id of the component of that type and number below `parent`, or -1. */
int find_below(int parent, int type, int no);
/* Object id named by a full path such as "/SYSTEM#0/CMU#3/CPU#1", or -1. */
int find_path(const std::string& path);
/* Full path of a component ("/SYSTEM#0/..."). */
std::string path_of(int oid);
sp::sysobj::Component* component(int oid);
/* Type name used in paths ("CMU", "NODE", ...), or "" for an unknown type. */
std::string type_name(int type);
int type_from_name(const std::string& name);

void set_record(int oid, int key, const void* data, size_t len);
std::vector<uint8_t> record(int oid, int key);
template <typename T> T get(int oid, int key)
{
    T v{};
    std::vector<uint8_t> r = record(oid, key);
    for (size_t i = 0; i < sizeof(T) && i < r.size(); ++i) {
        reinterpret_cast<uint8_t*>(&v)[i] = r[i];
    }
    return v;
}
template <typename T> void put(int oid, int key, const T& v)
{
    set_record(oid, key, &v, sizeof(T));
}
/* Number of getProperty / setProperty calls made on a component. */
int property_reads(int oid);
int property_writes(int oid);
/* znlib_DBGetProperty on `path` answers `code` (0 = normal). */
void fail_db_get_property(const std::string& path, int code);
/* Violations of the write-lock rules seen so far (a thread taking a second
 * component write lock while holding one, unlocking a lock it does not
 * hold), each as a readable line. */
std::vector<std::string> lock_violations();

/* ---- Hardware access procedures ----------------------------------------- */
struct HapCall {
    std::string target;
    std::string procedure;
    std::string mode;
    std::vector<uint32_t> para; /* the parameter words the procedure reads */
    bool with_log = false;      /* the _noerrlogregist_withlinklog variant */
    uint32_t time = 0;          /* virtual time of the call */
};
/* A scripted procedure: fills `data` (may be null), may fill the two log
 * records (null for the plain variant) and returns the result code. */
using HapHandler =
    std::function<int(const HapCall& call, uint32_t* data, splog_info* loginfo, splog_linkup_info* loglink)>;
/* Scripts a procedure by name and mode ("" = any mode); replaces the
 * built-in model of that procedure. Unscripted procedures succeed with no
 * output. */
void script_hap(const std::string& procedure, const std::string& mode, HapHandler handler);
void clear_hap_scripts();
std::vector<HapCall> hap_calls();
void clear_hap_calls();

/* ---- Controller support library ----------------------------------------- */
struct RasLog {
    splog_info info;
    splog_linkup_info link;
    uint32_t time;
};
std::vector<RasLog> ras_logs();
void clear_ras_logs();

void set_led(int type, int no, int led, int state);
int led(int type, int no, int led);
/* znlib_led_read / znlib_led_control answer `ret` instead (0 = normal). */
void fail_led_read(bool on, int ret = 0);
void fail_led_control(bool on, int ret = -1);
/* Number of znlib_led_control calls made. */
int led_control_calls();

/* PSU control information of one PSU: the result and the word. */
void set_psu_ctlinfo(int psuno, int ret, uint32_t info);

/* Logical-to-physical port map: first argument as the library passes it. */
void set_port_map(int router_arg, int lport, int pport);

/* Clear-sensor list answered for (instance, sensor). */
void set_clear_sensor_list(int inst, int sensor, const splog_clear_sensor_list list[4]);
int clear_sensor_list_calls();

/* ---- Board controller registers (shared between processes) -------------- */
void set_reg(uint32_t cabinet, uint32_t address, uint32_t value);
uint32_t reg(uint32_t cabinet, uint32_t address);
/* The next `count` reads / writes fail with -1 and errno `err`. */
void fail_reg_read(int err, int count = 1);
void fail_reg_write(int err, int count = 1);
struct RegAccess {
    bool write;
    uint32_t cabinet;
    uint32_t address;
    uint32_t value;
};
std::vector<RegAccess> reg_accesses();
void clear_reg_accesses();

/* ---- Trace facility and debug output ------------------------------------ */
struct TraceLine {
    bool debug = false; /* IDBG_LINUXAPP_DbgOut line (id, region, module 0) */
    int level = 0;
    int region = 0;
    int module = 0;
    uint32_t id = 0;
    std::string variant; /* "sp_trace2", "sp_trace4", "sp_trace25".."sp_trace28", "dbg" */
    std::string text;    /* the formatted text */
    uint32_t time = 0;   /* virtual time */
};
std::vector<TraceLine> traces();
void clear_traces();
/* Called for every line as it is written (for live output). */
void set_trace_sink(std::function<void(const TraceLine&)> sink);
/* Lines with that id, in order. */
std::vector<TraceLine> traces_with_id(uint32_t id);

/* ---- Library threads ---------------------------------------------------- */
/* Threads started from libznpdk that have not ended yet: the threads of the
 * process above the number counted at init()/attach(). Threads a test starts
 * itself count too, so join them before waiting. */
int library_threads_running();
/* Waits (real time) until no library thread is running; false on time-out. */
bool wait_library_threads(int timeout_ms = 20000);
/* Counts the threads the process has now as not the library's. A process
 * forked from one that ran init()/attach() calls it before its first library
 * call: it inherits the parent's count, not the parent's threads (a
 * sanitizer's helper thread among them). */
void rebase_library_threads();

/* ---- Killed processes ----------------------------------------------------- */
/* Points at which a process can be made to die by SIGKILL, as a BMC process
 * killed by a watchdog or the OOM killer would:
 *   SaveAreaSemHeld  while it holds the save-area semaphore of an instance
 *                    ("/filelock_snsdata%d"): reached right after the lock is
 *                    taken and right before it is released, twice per write;
 *   RecordWrite      inside a component record write (setProperty): reached
 *                    before and after the record's bytes are stored (the
 *                    write lock it dies holding goes to the next locker);
 *   EscalationWrite  in the middle of an escalation table rebuild: every
 *                    write() to, and every rename() onto, an escalation file
 *                    ("esctable_inst" in its name);
 *   FanCheckPoll     during a fan check poll: every run of "BOB_R_BOBC_FANC". */
enum class KillPoint { SaveAreaSemHeld = 0, RecordWrite, EscalationWrite, FanCheckPoll };
/* From now on, counts the times this process reaches `point` (from 1) and
 * kills the process when the count reaches `n`; `n` 0 only counts.
 * Process-local; init() and attach() disarm every point. */
void kill_at(KillPoint point, int n);
/* Times `point` was reached since its last kill_at() (0 when never armed). */
int kill_point_hits(KillPoint point);
/* Real-time bound of a wait for a named semaphore before the lock answers
 * ETIMEDOUT (default 30000 ms). The platform does not release a semaphore
 * whose holder died, so every later wait for it runs into this bound. */
void set_sem_wait_limit(int ms);
/* Frees every named semaphore of the machine, as a BMC reboot empties
 * /dev/shm; only while no process of the machine is using them. */
void reset_semaphores();

/* ---- What a run may check (read-only) ------------------------------------- */
/* How a sensor holds its states: any set of its defined bits, exactly one,
 * or at most one; Unchecked for a sensor whose states the machine does not
 * fix. */
enum class StateRule { Unchecked = 0, Flags, One, AtMostOne };
struct SensorStates {
    StateRule rule = StateRule::Unchecked;
    uint16_t defined = 0; /* the state bits the machine defines for the sensor */
    uint16_t start = 0;   /* its state after the initialisation of the machine as
                             built (every unit installed, setup record zero); 0 = left alone */
};
/* The states of a present sensor, by the kind of sensor it is on the default
 * machine (docs/simulated-machine.md lists them). */
SensorStates sensor_states(int inst, uint8_t num);
/* Locks that threads of this process hold now, each as a readable line: the
 * IPMI stack's sensor mutexes, component write locks, named semaphores. */
std::vector<std::string> locks_held();
/* Named semaphores of the machine that are taken, with the process that took each. */
struct TakenSemaphore {
    std::string name;
    int pid = 0;
};
std::vector<TakenSemaphore> semaphores_taken();
/* Whether a script replaces the built-in answers of `procedure` (any mode) in this process. */
bool hap_scripted(const std::string& procedure);

/* ---- Files below the root ----------------------------------------------- */
/* root() + path; creates parent directories when `mkdirs`. */
std::string file_path(const std::string& path, bool mkdirs = false);
void write_file(const std::string& path, const std::vector<uint8_t>& bytes);
void write_text(const std::string& path, const std::string& text);
std::vector<uint8_t> read_file(const std::string& path);
bool file_exists(const std::string& path);
void remove_file(const std::string& path);

} // namespace zsim

#endif
