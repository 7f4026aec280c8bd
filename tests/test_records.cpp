/* Shared records: byte layouts, status tests, write locks, list lookups. */
#include <string.h>

#include <functional>
#include <vector>

#include "support.h"

namespace {

struct Field {
    const char* name;
    size_t offset;
    size_t width;
    std::function<void(void*)> fill; /* sets every byte of the field to 0xFF */
};

/* F(field, offset, width) for the record type T of the enclosing test */
#define F(f, off, w) Field{#f, off, w, [=](void* p) { memset(&static_cast<T*>(p)->f, 0xFF, sizeof(T::f)); }}
#define FE(f, off, w) Field{#f, off, w, [=](void* p) { memset(&static_cast<T*>(p)->f, 0xFF, w); }}

/* Fills one field at a time in a zeroed record: exactly the documented
 * bytes change, and no two fields share a byte. */
template <typename T>
void check_layout(size_t size, const std::vector<Field>& fields)
{
    ASSERT_EQ(size, sizeof(T));
    std::vector<int> owner(size, -1);
    for (size_t i = 0; i < fields.size(); ++i) {
        T rec;
        memset(&rec, 0, sizeof(rec));
        fields[i].fill(&rec);
        unsigned char bytes[sizeof(T)];
        memcpy(bytes, &rec, sizeof(T));
        for (size_t b = 0; b < size; ++b) {
            bool inside = b >= fields[i].offset && b < fields[i].offset + fields[i].width;
            EXPECT_EQ(inside ? 0xFF : 0x00, bytes[b]) << fields[i].name << " byte " << b;
            if (inside) {
                EXPECT_EQ(-1, owner[b]) << fields[i].name << " overlaps at byte " << b;
                owner[b] = static_cast<int>(i);
            }
        }
    }
}

TEST(RecordLayout, CommonSystemAndSetupRecords)
{
    {
        using T = current_common_info_t;
        check_layout<T>(32, {F(status, 0, 4), F(remcs_status, 4, 4), F(remcs_time, 8, 4), F(physicalNo, 12, 2),
                             F(emergency_outage, 14, 1), F(reserve1, 15, 1), F(sequence, 16, 4),
                             F(control_no, 20, 2), F(fanc_error_level, 22, 1), F(reserve2, 23, 9)});
    }
    {
        using T = current_system_info_t;
        check_layout<T>(2048, {F(power_led, 0, 1), F(alarm_led, 1, 1), F(ready_led, 2, 1), F(location_led, 3, 1),
                               F(provisioning_sequence_initial, 4, 1), F(provisioning_sequence_remcs, 5, 1),
                               F(provisioning_sequence_firmup, 6, 1), F(reserve2, 7, 1), F(psu_on_disable, 8, 2),
                               F(node_on_disable, 10, 2), F(bobid, 12, 1), F(ubootled, 13, 1),
                               F(available_psu_slots, 14, 1), F(rsv3, 15, 1), F(ledsave, 16, 16),
                               F(fanu_present, 32, 2), F(psu_customProductInfo, 34, 6),
                               F(available_psu_count, 40, 1), F(psu_redandancy_check_enable, 41, 1),
                               F(brand_data, 42, 2), F(brand_name, 44, 16), F(fan_monitor_disable, 60, 2),
                               F(fan_check_phase, 62, 1), F(reserve41, 63, 1), F(fanfull_reason, 64, 8),
                               F(fan_start_time, 72, 32), F(fan_check_result, 104, 8),
                               F(fan_start_time_by_attach, 112, 4), F(psu_type, 116, 3),
                               F(BoBoff_executing, 119, 1), F(NodeOn_cycle, 120, 16), F(NodeOn_Request, 136, 16),
                               F(CMUoff_executing, 152, 8), F(acpi_name, 160, 8), F(reserve43, 168, 856),
                               F(reserve4, 1024, 1024)});
    }
    {
        using T = setup_system_info_t;
        check_layout<T>(768, {F(debug_flags, 0, 256), F(altitude, 256, 1), F(waterState, 257, 1),
                              F(variant4, 258, 1), F(ntp_enable, 259, 1), F(ntp_server_ip, 260, 12),
                              F(quorPosition, 272, 4), F(quorSpace, 276, 8), F(quorPattern, 284, 4),
                              F(quorPartition, 288, 8), F(quorPartitionEnable, 296, 1), F(reserve2, 297, 2),
                              F(snapshot_id, 299, 1), F(tcs_location_led, 300, 48),
                              F(maintenance_location_led, 348, 48), F(maintenance_sensor, 396, 48),
                              F(initial_time, 444, 32), F(initial_parent_ip, 476, 16), F(cdu_info, 492, 72),
                              F(bank_status, 564, 4), F(pwknob_threshold, 568, 2), F(epo_threshold, 570, 2),
                              F(Job_Memory_Use, 572, 32), F(snmp_disable, 604, 4), F(default_engineID, 608, 32),
                              F(reserve3, 640, 128)});
        /* the two debug words the library reads and the nested records */
        check_layout<T>(768, {FE(debug_flags.debug_flag[DBGW_BMCFW_MODULE_COMMON0], 0, 4),
                              FE(debug_flags.debug_flag[DBGW_BMCFW_MODULE_BMCINIT], 32, 4),
                              FE(quorSpace[1].B, 283, 1), FE(cdu_info[1].password, 532, 32)});
    }
}

TEST(RecordLayout, PsucPositionAndEscalationRecords)
{
    {
        using T = current_psuc_info_t;
        check_layout<T>(256, {FE(psuc.bob[0].PresentInt, 0, 4), FE(psuc.bob[0].PWOKCompareEnable, 48, 4),
                              FE(psuc.bob[1].PresentInt, 52, 4), FE(psuc.bob[1].FRUStatus, 88, 4),
                              FE(psuc.bob[2].PSONAndCntl, 148, 4), FE(psuc.common.PresentSts, 156, 4),
                              FE(psuc.common.PWOKFilter, 176, 4), FE(psuc.common.BobId, 184, 4),
                              F(rsv, 188, 68)});
    }
    {
        using T = unit_position_id_t;
        check_layout<T>(8, {F(nameID, 0, 1), F(count, 1, 1), F(partLayer, 2, 6)});
    }
    {
        using T = packed_clear_sensor_list;
        check_layout<T>(4, {F(valid, 0, 1), F(BMCInst, 1, 1), F(fru_sensor, 2, 1), F(frue_sensor, 3, 1)});
    }
    {
        using T = Esc_Sensor_t;
        check_layout<T>(12, {F(esc_spec, 0, 4), F(BMCInst, 4, 4), F(Sensor_No, 8, 4)});
    }
    {
        /* 16 bytes on the 32-bit target: pointer-sized slots */
        using T = Esc_Table_t;
        const size_t p = sizeof(void*);
        check_layout<T>(4 * p, {F(frue_count, 0, 4), F(frue_list, p, p), F(esc_count, 2 * p, 4), F(esc_list, 3 * p, p)});
    }
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
    struct Case {
        uint32_t status, mask;
        bool expected;
    } cases[] = {{0x00000000u, 0x00000000u, true},  {0xFFFFFFFFu, 0x00000000u, true},
                 {0x00000004u, 0x00000004u, true},  {0x00000000u, 0x00000004u, false},
                 {0x00001000u, 0x0000D000u, false}, {0x0000C000u, 0x0000D000u, false},
                 {0x8000F000u, 0x0000D000u, true},  {0x7FFFFFFFu, 0x80000000u, false}};
    for (const Case& c : cases) {
        EXPECT_EQ(c.expected, with_status(c.status).checkStatus(c.mask)) << std::hex << c.status << "/" << c.mask;
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
    int cmu0 = zsim::add_component(COMPO_CMU, 0);
    int cmu1 = zsim::add_component(COMPO_CMU, 1);
    std::vector<int> want = {zsim::add_component(COMPO_CMUC, 0, {cmu0}), zsim::add_component(COMPO_CMUC, 1, {cmu1})};
    for (int n = 0; n < 4; ++n) {
        want.push_back(zsim::add_component(COMPO_NODE, n, {n < 2 ? cmu0 : cmu1}));
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
