/* Shared test fixture: one simulated machine per test process. */
#ifndef ZNPDK_TESTS_SUPPORT_H
#define ZNPDK_TESTS_SUPPORT_H

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "znpdk_sim/sim.h"
#include "znpdklib.h"

namespace ztest {

/* The temporary root of this process's machine (created on first use,
 * removed at exit). The sensor save area stays mapped for the life of a
 * process, so every test of one process shares this root. */
const std::string& process_root();

/* Runs `body` in a forked child (for per-process state such as the save
 * area) and returns its exit status, or -1 when it did not exit normally. */
int run_in_child(const std::function<int()>& body);

/* Trace lines with that id, as "text" strings. */
std::vector<std::string> texts_with_id(uint32_t id);

/* State word as the library reads it back (bit 15 masked off). */
uint16_t state(int inst, uint8_t sensor);

/* A machine root of its own, removed with the object. */
struct TempRoot {
    std::string path;
    TempRoot();
    ~TempRoot();
};

/* RAS codes logged so far, each checked to be the chassis's (BMCInst 17). */
std::vector<std::string> ras_codes();

/* While it lives, the first thread to write trace `id` waits there (up to
 * `ms`) for a second one: two threads meet there only where no lock keeps
 * the second out. */
struct MeetAtTrace {
    MeetAtTrace(uint32_t id, int ms);
    ~MeetAtTrace();
    std::atomic<int> arrived{0};
};

/* The escalation table file of an instance. */
std::string esc_path(int inst);

/* A search's rows as {esc_spec, BMCInst, Sensor_No}; both lists must be
 * allocated even when empty, and are freed here. */
using EscRow = std::array<int, 3>;
struct EscFound {
    std::vector<EscRow> frue, esc;
};
EscFound esc_query(int target, int inst, int sensor);

} // namespace ztest

/* Exactly one trace line with that id, with that text. */
#define EXPECT_ONLY_TEXT(id, text) EXPECT_EQ(std::vector<std::string>{text}, ztest::texts_with_id(id))

/* A fresh machine for every test: the root's state is reset, library files
 * below the root are removed and the sensor save file is zeroed in place
 * (its mapping stays valid). With `default_machine` the default chassis is
 * built; the save area is set up once per process. */
class SimTest : public ::testing::Test {
  protected:
    explicit SimTest(bool default_machine = true) : default_machine_(default_machine) {}
    void SetUp() override;
    void TearDown() override;

  private:
    bool default_machine_;
};

/* The same on an empty machine (only the root). */
class EmptySimTest : public SimTest {
  protected:
    EmptySimTest() : SimTest(false) {}
};

#endif
