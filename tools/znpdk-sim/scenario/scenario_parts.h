/* What the files reading scenarios share: value readers, record changes
 * and the tables of step actions and expectations. */
#ifndef ZNPDK_SIM_TOOL_SCENARIO_PARTS_H
#define ZNPDK_SIM_TOOL_SCENARIO_PARTS_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "scenario/fields.h"
#include "scenario/jsonutil.h"
#include "scenario/scenario.h"

namespace zcmd {

inline constexpr const char* kSaveFile = "/var/nvrdisk/current/sensor/snsdata";

int inst_of(const Node& n);
uint8_t u8_of(const Node& n, const char* what);
uint32_t u32_of(const Node& n, const char* what);
int i32_of(const Node& n, const char* what);
/* A component path checked for its form ("/SYSTEM#0/TYPE#n/..." or without the root). */
std::string path_of(const Node& n);
const RecordKind& record_of(const Node& n);

/* While a scenario is read: the components its machine has at the step
 * being read (the default machine or the root alone, then what steps add
 * and remove). */
class MachineModel {
  public:
    explicit MachineModel(bool default_machine);
    ~MachineModel();
    MachineModel(const MachineModel&) = delete;
    MachineModel& operator=(const MachineModel&) = delete;

  private:
    std::set<std::string> paths_;
};
/* A component path that names a component of the machine at this step. */
std::string existing_component(const Node& n);
void require_component(const Node& n, const std::string& path);
void machine_added(const std::string& path, const std::vector<std::string>& parents);
void machine_removed(const std::string& path);
/* Whether a step read so far rebooted the BMC (every process restarted). */
bool& machine_rebooted();
/* Checks field values against a type by storing them into scratch bytes. */
void check_fields(const Type& t, const Node& fields);
Ref bits_field(const Type& t, const Node& key_node, const std::string& key);

/* set / set_bits / clear_bits of one record, checked now, applied later. */
struct RecordChange {
    const Type* type = nullptr;
    json set;
    std::vector<std::pair<Ref, uint64_t>> set_bits, clear_bits;
    std::string where;

    void parse(ObjReader& r);
    void apply(std::vector<uint8_t>& bytes) const;
};

/* Runs the parts of a step's action in order. */
Action sequence(std::vector<Action> parts);

using ActionParser = Action (*)(const Node& value, Step& step);
using ActionTable = std::map<std::string, ActionParser>;
using CheckParser = void (*)(const Node& value, std::vector<Check>& checks, Step& step);
using CheckTable = std::map<std::string, CheckParser>;

void add_machine_actions(ActionTable& t);
void add_device_actions(ActionTable& t);
void add_procedure_actions(ActionTable& t);
const CheckTable& expectation_parsers();

} // namespace zcmd

#endif
