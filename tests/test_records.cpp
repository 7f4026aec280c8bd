/* Shared records: byte layouts, status tests, write locks, list lookups. */
#include <string.h>

#include <vector>

#include "support.h"

namespace {

struct At {
    const char* name;
    size_t offset, width; /* as documented */
    const void* field;
    size_t size; /* as compiled */
};

/* Loads a byte pattern into the record: every field must sit at its
 * documented offset with its documented width, and the fields must tile it. */
template <typename T> void check(T& r, size_t size, bool tiles, const std::vector<At>& fields)
{
    ASSERT_EQ(size, sizeof(T));
    uint8_t img[sizeof(T)];
    for (size_t i = 0; i < sizeof(T); ++i) {
        img[i] = static_cast<uint8_t>(i * 13 + 7 + i / 256);
    }
    memcpy(&r, img, sizeof(T));
    size_t covered = 0;
    for (const At& f : fields) {
        auto at = static_cast<size_t>(static_cast<const uint8_t*>(f.field) - reinterpret_cast<uint8_t*>(&r));
        EXPECT_EQ(f.offset, at) << f.name;
        EXPECT_EQ(f.width, f.size) << f.name;
        EXPECT_EQ(0, memcmp(f.field, &img[f.offset], f.width)) << f.name;
        covered += f.width;
    }
    EXPECT_EQ(tiles, size == covered);
}

#define AT(f, o, w) At({#f, o, w, &r.f, sizeof(r.f)})
#define LAYOUT(T, size, tiles, ...)                                                                          \
    [] {                                                                                                     \
        T r;                                                                                                 \
        check(r, size, tiles, __VA_ARGS__);                                                                  \
    }()

TEST(RecordLayout, EveryFieldAtItsDocumentedOffset)
{
    // clang-format off
    LAYOUT(current_common_info_t, 32, true,
           {AT(status, 0, 4), AT(remcs_status, 4, 4), AT(remcs_time, 8, 4), AT(physicalNo, 12, 2),
            AT(emergency_outage, 14, 1), AT(reserve1, 15, 1), AT(sequence, 16, 4), AT(control_no, 20, 2),
            AT(fanc_error_level, 22, 1), AT(reserve2, 23, 9)});
    LAYOUT(current_system_info_t, 2048, true,
           {AT(power_led, 0, 1), AT(alarm_led, 1, 1), AT(ready_led, 2, 1), AT(location_led, 3, 1),
            AT(provisioning_sequence_initial, 4, 1), AT(provisioning_sequence_remcs, 5, 1),
            AT(provisioning_sequence_firmup, 6, 1), AT(reserve2, 7, 1), AT(psu_on_disable, 8, 2),
            AT(node_on_disable, 10, 2), AT(bobid, 12, 1), AT(ubootled, 13, 1),
            AT(available_psu_slots, 14, 1), AT(rsv3, 15, 1), AT(ledsave, 16, 16), AT(fanu_present, 32, 2),
            AT(psu_customProductInfo, 34, 6), AT(available_psu_count, 40, 1),
            AT(psu_redandancy_check_enable, 41, 1), AT(brand_data, 42, 2), AT(brand_name, 44, 16),
            AT(fan_monitor_disable, 60, 2), AT(fan_check_phase, 62, 1), AT(reserve41, 63, 1),
            AT(fanfull_reason, 64, 8), AT(fan_start_time, 72, 32), AT(fan_check_result, 104, 8),
            AT(fan_start_time_by_attach, 112, 4), AT(psu_type, 116, 3), AT(BoBoff_executing, 119, 1),
            AT(NodeOn_cycle, 120, 16), AT(NodeOn_Request, 136, 16), AT(CMUoff_executing, 152, 8),
            AT(acpi_name, 160, 8), AT(reserve43, 168, 856), AT(reserve4, 1024, 1024)});
    LAYOUT(setup_system_info_t, 768, true,
           {AT(debug_flags, 0, 256), AT(altitude, 256, 1), AT(waterState, 257, 1), AT(variant4, 258, 1),
            AT(ntp_enable, 259, 1), AT(ntp_server_ip, 260, 12), AT(quorPosition, 272, 4),
            AT(quorSpace, 276, 8), AT(quorPattern, 284, 4), AT(quorPartition, 288, 8),
            AT(quorPartitionEnable, 296, 1), AT(reserve2, 297, 2), AT(snapshot_id, 299, 1),
            AT(tcs_location_led, 300, 48), AT(maintenance_location_led, 348, 48),
            AT(maintenance_sensor, 396, 48), AT(initial_time, 444, 32), AT(initial_parent_ip, 476, 16),
            AT(cdu_info, 492, 72), AT(bank_status, 564, 4), AT(pwknob_threshold, 568, 2),
            AT(epo_threshold, 570, 2), AT(Job_Memory_Use, 572, 32), AT(snmp_disable, 604, 4),
            AT(default_engineID, 608, 32), AT(reserve3, 640, 128)});
    LAYOUT(setup_system_info_t, 768, false,
           {AT(debug_flags.debug_flag[DBGW_BMCFW_MODULE_COMMON0], 0, 4),
            AT(debug_flags.debug_flag[DBGW_BMCFW_MODULE_BMCINIT], 32, 4), AT(quorSpace[1].B, 283, 1),
            AT(cdu_info[1].cdu_ip, 528, 4), AT(cdu_info[1].password, 532, 32)});
    LAYOUT(current_psuc_info_t, 256, true,
           {AT(psuc.bob[0], 0, 52), AT(psuc.bob[1], 52, 52), AT(psuc.bob[2], 104, 52),
            AT(psuc.common, 156, 32), AT(rsv, 188, 68)});
    LAYOUT(psuc_bob_t, 52, true,
           {AT(PresentInt, 0, 4), AT(ACOKInt, 4, 4), AT(PWOKInt, 8, 4), AT(PSONInt, 12, 4),
            AT(PresentMask, 16, 4), AT(ACOKMask, 20, 4), AT(PWOKMask, 24, 4), AT(PSONMask, 28, 4),
            AT(CheckEnabe, 32, 4), AT(FRUStatus, 36, 4), AT(PSONCntl, 40, 4), AT(PSONAndCntl, 44, 4),
            AT(PWOKCompareEnable, 48, 4)});
    LAYOUT(psuc_common_t, 32, true,
           {AT(PresentSts, 0, 4), AT(ACOKSts, 4, 4), AT(PWOKSts, 8, 4), AT(PSONSts, 12, 4),
            AT(PWOKCompare, 16, 4), AT(PWOKFilter, 20, 4), AT(Version, 24, 4), AT(BobId, 28, 4)});
    LAYOUT(unit_position_id_t, 8, true, {AT(nameID, 0, 1), AT(count, 1, 1), AT(partLayer, 2, 6)});
    LAYOUT(packed_clear_sensor_list, 4, true,
           {AT(valid, 0, 1), AT(BMCInst, 1, 1), AT(fru_sensor, 2, 1), AT(frue_sensor, 3, 1)});
    LAYOUT(Esc_Sensor_t, 12, true, {AT(esc_spec, 0, 4), AT(BMCInst, 4, 4), AT(Sensor_No, 8, 4)});
    /* 16 bytes on the 32-bit target; pointer-sized slots elsewhere */
    constexpr size_t p = sizeof(void*);
    LAYOUT(Esc_Table_t, 4 * p, p == 4,
           {AT(frue_count, 0, 4), AT(frue_list, p, p), AT(esc_count, 2 * p, 4), AT(esc_list, 3 * p, p)});
    // clang-format on
}

current_common_info_t with_status(uint32_t status)
{
    current_common_info_t rec;
    memset(&rec, 0, sizeof(rec));
    for (int i = 0; i < 4; ++i) {
        reinterpret_cast<unsigned char*>(&rec)[i] = static_cast<unsigned char>(status >> (8 * i));
    }
    return rec;
}

TEST(CommonRecord, CheckStatusNeedsEveryBitOfTheMask)
{
    const uint32_t cases[][3] = {{0x00000000u, 0x00000000u, 1}, {0xFFFFFFFFu, 0x00000000u, 1},
                                 {0x00000004u, 0x00000004u, 1}, {0x00000000u, 0x00000004u, 0},
                                 {0x00001000u, 0x0000D000u, 0}, {0x0000C000u, 0x0000D000u, 0},
                                 {0x8000F000u, 0x0000D000u, 1}, {0x7FFFFFFFu, 0x80000000u, 0}};
    for (const auto& c : cases) {
        EXPECT_EQ(c[2] != 0, with_status(c[0]).checkStatus(c[1])) << std::hex << c[0] << "/" << c[1];
    }
    EXPECT_TRUE(with_status(0x80000000u).isInstalled());
    EXPECT_FALSE(with_status(0x7FFFFFFFu).isInstalled());
    EXPECT_TRUE(with_status(0x40000000u).isInitializeComplete());
    EXPECT_FALSE(with_status(0xBFFFFFFFu).isInitializeComplete());
}

using ComponentTree = EmptySimTest;

TEST_F(ComponentTree, WriteLockOnNullNeitherLocksNorUnlocks)
{
    int a = zsim::add_component(COMPO_PSU, 0);
    int b = zsim::add_component(COMPO_PSU, 1);
    {
        sp::sysobj::Component::WriteLock none(nullptr);
        sp::sysobj::Component::WriteLock one(zsim::component(a));
    }
    EXPECT_TRUE(zsim::lock_violations().empty());
    {
        /* two real locks at once are reported, so the check above can fail */
        sp::sysobj::Component::WriteLock one(zsim::component(a));
        sp::sysobj::Component::WriteLock two(zsim::component(b));
    }
    EXPECT_EQ(1u, zsim::lock_violations().size());
    zsim::init(ztest::process_root()); /* forget the violation made on purpose */
}

TEST_F(ComponentTree, ListLookupsCollectIntoOneList)
{
    int cmu[2] = {zsim::add_component(COMPO_CMU, 0), zsim::add_component(COMPO_CMU, 1)};
    std::vector<int> want = {zsim::add_component(COMPO_CMUC, 0, {cmu[0]}),
                             zsim::add_component(COMPO_CMUC, 1, {cmu[1]})};
    for (int n = 0; n < 4; ++n) {
        want.push_back(zsim::add_component(COMPO_NODE, n, {cmu[n / 2]}));
    }
    std::vector<sp::sysobj::Component*> list;
    sp::sysobj::Component::getRoot()->getComponent(COMPO_CMUC, list);
    sp::sysobj::Component::getRoot()->getComponent(COMPO_NODE, list);
    ASSERT_EQ(want.size(), list.size());
    for (size_t i = 0; i < list.size(); ++i) {
        EXPECT_EQ(zsim::component(want[i]), list[i]) << i;
    }
}

} // namespace
