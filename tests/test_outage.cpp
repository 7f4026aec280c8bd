#include "support.h"

#include <errno.h>

namespace {

using Texts = std::vector<std::string>;
uint32_t state_reg(uint32_t unit)
{
    return (unit << 21) + 0x000400C0u;
}
int oid(int type, int no)
{
    return zsim::find(type, no);
}
std::string oid_text(int type, int no)
{
    return "[oid:" + std::to_string(oid(type, no)) + "]";
}
uint8_t mark(int type, int no)
{
    return zsim::get<current_common_info_t>(oid(type, no), PROP_CURRENT_COMMON_INFO).emergency_outage;
}
void set_mark(int type, int no, uint8_t value)
{
    auto info = zsim::get<current_common_info_t>(oid(type, no), PROP_CURRENT_COMMON_INFO);
    info.emergency_outage = value;
    zsim::put(oid(type, no), PROP_CURRENT_COMMON_INFO, info);
}
std::vector<uint32_t> accessed(bool write)
{
    std::vector<uint32_t> addrs;
    for (const zsim::RegAccess& a : zsim::reg_accesses()) {
        if (a.write == write && a.cabinet == 0) {
            addrs.push_back(a.address);
        }
    }
    return addrs;
}

using OutageTest = SimTest;

TEST_F(OutageTest, UnitArgumentsAndTheAllUnitsNumber)
{
    EXPECT_EQ(0, znpdklib_setEmergencyOutage(COMPO_CMUC, 255, 1));
    for (int n = 0; n < 16; ++n) {
        EXPECT_EQ(1, mark(COMPO_NODE, n) & mark(COMPO_CMUC, n / 2)) << n;
    }
    EXPECT_EQ(0, mark(COMPO_BOBC, 0));
    EXPECT_EQ(-1, znpdklib_setEmergencyOutage(COMPO_CMUC, 8, 1));
    EXPECT_ONLY_TEXT(0x05410102,
                     "znpdklib_setEmergencyOutage():invalid type and no combination. type=302 no=8");
    EXPECT_EQ(-1, znpdklib_setEmergencyOutage(COMPO_ROUTER, 99, 9)); // the type alone is reported
    EXPECT_ONLY_TEXT(0x05410101, "znpdklib_setEmergencyOutage():invalid type. type=300");
    EXPECT_EQ(-1, znpdklib_setEmergencyOutage(COMPO_NODE, 15, 3));
    EXPECT_EQ(2u, ztest::texts_with_id(0x05410102).size() + ztest::texts_with_id(0x05410103).size());
    EXPECT_EQ(-1, znpdklib_checkEmergencyOutage(COMPO_CMUC, 255));
    EXPECT_EQ(-1, znpdklib_setEmergencyMaskReg(COMPO_NODE, 255));
    EXPECT_EQ(-1, znpdklib_setEmergencyMaskReg(COMPO_BOBC, -1));
    EXPECT_TRUE(zsim::reg_accesses().empty());
}

TEST_F(OutageTest, RebootOutageKeepsAnEmergencyMark)
{
    EXPECT_EQ(-1, znpdklib_setBMCRebootOutage(COMPO_NODE, 0, 1));
    EXPECT_ONLY_TEXT(0x05411203, "znpdklib_setBMCRebootOutage():invalid val. val=0x01");
    set_mark(COMPO_NODE, 0, 1);
    set_mark(COMPO_NODE, 1, 2);
    int writes = zsim::property_writes(oid(COMPO_NODE, 2));
    for (int n = 0; n < 3; ++n) {
        EXPECT_EQ(0, znpdklib_clearBMCRebootOutage(COMPO_NODE, n));
    }
    EXPECT_EQ(1, mark(COMPO_NODE, 0));
    EXPECT_EQ(0, mark(COMPO_NODE, 1));
    std::string pre = "znpdklib_setBMCRebootOutage():";
    EXPECT_EQ(Texts{pre + oid_text(COMPO_NODE, 0) + " skip emergency_outage setting. already 0x01"},
              ztest::texts_with_id(0x05411204));
    EXPECT_EQ((Texts{pre + oid_text(COMPO_NODE, 1) + " set emergency_outage 0x02 => 0x00",
                     pre + oid_text(COMPO_NODE, 2) + " set emergency_outage 0x00 => 0x00"}),
              ztest::texts_with_id(0x05411205));
    EXPECT_EQ(0, znpdklib_clearEmergencyOutage(COMPO_NODE, 2)); // equal mark: skipped, not written
    EXPECT_EQ(writes + 1, zsim::property_writes(oid(COMPO_NODE, 2)));
    EXPECT_EQ(1u, ztest::texts_with_id(0x05410104).size());
}

TEST_F(OutageTest, RegistersThenMark)
{
    struct Case {
        int type, no;
        uint32_t unit, value;
        int expect;
    } cases[] = {{COMPO_BOBC, 0, 24, 0x27FFFFFF, 0},
                 {COMPO_BOBC, 0, 24, 0x08000000, 1},
                 {COMPO_NODE, 15, 15, 0x00000001, 1},
                 {COMPO_NODE, 7, 24, 0x10000000, 1}};
    for (const Case& c : cases) {
        zsim::set_reg(0, state_reg(c.unit), c.value);
        EXPECT_EQ(c.expect, znpdklib_checkEmergencyOutage(c.type, c.no)) << std::hex << c.value;
        zsim::set_reg(0, state_reg(c.unit), 0);
    }
    zsim::set_reg(0, state_reg(16 + 3), 0x4);
    zsim::clear_reg_accesses();
    zsim::clear_traces();
    EXPECT_EQ(1, znpdklib_checkEmergencyOutage(COMPO_NODE, 7));
    EXPECT_EQ((std::vector<uint32_t>{state_reg(7), state_reg(19)}), accessed(false));
    EXPECT_EQ(Texts{"znpdklib_checkEmergencyOutage():" + oid_text(COMPO_CMUC, 3) +
                    " Emergency Active State Register=0x00000004"},
              ztest::texts_with_id(0x05410508));
    // a failed first read leaves the decision to the mark of the unit
    set_mark(COMPO_NODE, 6, 2);
    zsim::fail_reg_read(EIO);
    EXPECT_EQ(1, znpdklib_checkEmergencyOutage(COMPO_NODE, 6));
    EXPECT_ONLY_TEXT(0x05410507,
                     "znpdklib_checkEmergencyOutage():read error. ret=-1 errno=5 addr=0x00c400c0");
    EXPECT_EQ(Texts{"znpdklib_checkEmergencyOutage():" + oid_text(COMPO_NODE, 6) +
                    " emergency_outage already 0x02"},
              ztest::texts_with_id(0x05410504));
    set_mark(COMPO_NODE, 6, 0);
    zsim::fail_reg_read(EIO);
    EXPECT_EQ(0, znpdklib_checkEmergencyOutage(COMPO_NODE, 6));
    EXPECT_ONLY_TEXT(0x054105FF, "znpdklib_checkEmergencyOutage():type=301 no=6 not set");
}

TEST_F(OutageTest, PathListChecksTheMostSpecificUnit)
{
    std::string node2 = zsim::path_of(oid(COMPO_NODE, 2)), psu = zsim::path_of(oid(COMPO_PSU, 0));
    std::pair<std::string, uint32_t> cases[] = {
        {"/SYSTEM#0/ROUTER#3,/SYSTEM#0/CMUC#1", state_reg(3)},
        {"/SYSTEM#0/CMUC#1," + node2, state_reg(2)},
        {node2 + "," + zsim::path_of(oid(COMPO_NODE, 5)), state_reg(2)},
        {"/SYSTEM#0/CMUC#1,/SYSTEM#0/CMUC#6", state_reg(22)},
        {"/SYSTEM#0/CMUC#1,/SYSTEM#0/BOBC#0", state_reg(17)},
        {"/SYSTEM#0/BOBC#0", state_reg(24)},
        {"/SYSTEM#0/BOBC#0,/SYSTEM#0/NOSUCH#1", 0},
        {"/SYSTEM#0/CMUC#1," + psu, 0}};
    for (const auto& [path, first_read] : cases) {
        zsim::clear_reg_accesses();
        EXPECT_EQ(first_read ? 0 : -1, znpdklib_checkEmergencyOutageByPath(path.c_str())) << path;
        std::vector<uint32_t> reads = accessed(false);
        EXPECT_EQ(first_read, reads.empty() ? 0u : reads[0]) << path;
    }
    std::vector<zsim::TraceLine> bad = zsim::traces_with_id(0x05410601);
    ASSERT_EQ(1u, bad.size());
    EXPECT_EQ("sp_trace4", bad[0].variant);
    EXPECT_EQ(
        "znpdklib_checkEmergencyOutageByPath():invalid component. path=/SYSTEM#0/BOBC#0,/SYSTEM#0/NOSUCH#1",
        bad[0].text);
    EXPECT_ONLY_TEXT(0x05410602, "znpdklib_checkEmergencyOutageByPath():invalid component. type=297 no=0");
    EXPECT_EQ(-1, znpdklib_checkEmergencyOutageByPath(nullptr));
}

TEST_F(OutageTest, MaskRegistersAreClosedDownwards)
{
    zsim::set_reg(0, 0x00A400C4, 0xFFFFFFFF);
    EXPECT_EQ(0, znpdklib_setEmergencyMaskReg(COMPO_NODE, 5));
    EXPECT_EQ(std::vector<uint32_t>{0x00A400C4}, accessed(true));
    EXPECT_EQ(0u, zsim::reg(0, 0x00A400C4));
    // clang-format off
    EXPECT_ONLY_TEXT(0x05410206, "znpdklib_setEmergencyMaskReg():Node#5 Emergency Active State Mask Register close. addr=0x00a400c4");
    // clang-format on
    zsim::clear_traces();
    zsim::fail_reg_write(EACCES);
    EXPECT_EQ(-1, znpdklib_setEmergencyMaskReg(COMPO_CMUC, 1)); // stops before the nodes
    EXPECT_ONLY_TEXT(0x05410208,
                     "znpdklib_setEmergencyMaskReg():write error. ret=-1 errno=13 addr=0x022400c4");
    EXPECT_TRUE(ztest::texts_with_id(0x05410206).empty());
    EXPECT_ONLY_TEXT(0x054102FF, "znpdklib_setEmergencyMaskReg():end");
}

} // namespace
