/* The dump: exact lines, also where a line is full to its last character, and after errors. */
#include <gtest/gtest.h>

#include <functional>

#include "support/faults.h"
#include "support/services.h"
#include "vlan/vlan_support.h"

using faults::Op;
using namespace vlan;

namespace {

void Profiles(std::initializer_list<u32> values)
{
    std::copy(values.begin(), values.end(), g_iveEditProfileItem + 4);
}

void Mappings(std::initializer_list<VlanEditMapping> entries)
{
    std::copy(entries.begin(), entries.end(), g_iveEditCommandItem + 1);
}

const u32 k9 = 123456789, k10 = 1234567890;

struct Row {
    const char *name;
    std::function<void()> fill; /* the ingress tables, from empty ones */
    void (*print)(u32);
    journal::Lines lines;
};

const Row kRows[] = {
    {"119 characters",
     [] {
         Profiles({11111, 22222, 33333, 44444});
     },
     QorL2ResPrintVlanEditProfileRes,
     {"[L2RSM]IveProfile: profId:4, srvType:11111; profId:5, srvType:22222; "
      "profId:6, srvType:33333; profId:7, srvType:44444; "}},
    {"one more",
     [] {
         Profiles({11111, 22222, 33333, 444444});
     },
     QorL2ResPrintVlanEditProfileRes,
     {"[L2RSM]IveProfile: profId:4, srvType:11111; profId:5, srvType:22222; "
      "profId:6, srvType:33333; ",
      "profId:7, srvType:444444; "}},
    {"mappings of 119",
     [] {
         Mappings({{4, 1, 1}, {4, 2, 1}, {4, 3, 1}, {4, 4, 12}});
     },
     QorL2ResPrintVlanEditMappingRes,
     {"[L2RSM]IveCmdMapping: profId:4, fmt:1, cmd:1; profId:4, fmt:2, cmd:1; "
      "profId:4, fmt:3, cmd:1; profId:4, fmt:4, cmd:12; "}},
    {"mappings of one more",
     [] {
         Mappings({{4, 1, 1}, {4, 2, 1}, {4, 3, 1}, {14, 4, 12}});
     },
     QorL2ResPrintVlanEditMappingRes,
     {"[L2RSM]IveCmdMapping: profId:4, fmt:1, cmd:1; profId:4, fmt:2, cmd:1; "
      "profId:4, fmt:3, cmd:1; ",
      "profId:14, fmt:4, cmd:12; "}},
    {"entry 0, and one that only a command id makes show",
     [] {
         g_iveEditCommandItem[0] = {5, 7, 9}, Mappings({{0, 0, 3}});
     },
     QorL2ResPrintVlanEditMappingRes,
     {"[L2RSM]IveCmdMapping: profId:5, fmt:7, cmd:9; profId:0, fmt:0, cmd:3; "}},
    {"a command item a line",
     [] {
         g_iveEditCommandInfo[0].innerTpidAction = 9;
         g_iveEditCommandInfo[127] = {1, 2, 3, 4, 0, 1, 2, 3};
     },
     QorL2ResPrintVlanEditCmdRes,
     {"[L2RSM]IveCmd: cmd:0, o/iTag:0/0, oTpid/Act:0/0, iTpid/Act:0/9, o/iPri:0/0; ",
      "cmd:127, o/iTag:1/2, oTpid/Act:0/2, iTpid/Act:1/3, o/iPri:3/4; "}},
    {"a command beside the header, 119", /* 15 + 104 */
     [] { g_iveEditCommandInfo[1] = {k10, k10, 1, 1, k10, 1234, k10, 12345}; },
     QorL2ResPrintVlanEditCmdRes,
     {"[L2RSM]IveCmd: cmd:1, o/iTag:1234567890/1234567890, oTpid/Act:1234567890/1234567890, "
      "iTpid/Act:1234/12345, o/iPri:1/1; "}},
    {"a command beside the header, one more",
     [] { g_iveEditCommandInfo[1] = {k10, k10, 1, 1, k10, 12345, k10, 12345}; },
     QorL2ResPrintVlanEditCmdRes,
     {"[L2RSM]IveCmd: ", "cmd:1, o/iTag:1234567890/1234567890, oTpid/Act:1234567890/1234567890, "
                         "iTpid/Act:12345/12345, o/iPri:1/1; "}},
    {"an item cut at 119",
     [] { g_iveEditCommandInfo[127] = {k10, k10, k10, k9, k10, k10, k10, k10}; },
     QorL2ResPrintVlanEditCmdRes,
     {"[L2RSM]IveCmd: ", "cmd:127, o/iTag:1234567890/1234567890, oTpid/Act:1234567890/1234567890, "
                         "iTpid/Act:1234567890/1234567890, o/iPri:1234567"}},
};

journal::Lines Printed()
{
    journal::Lines lines;
    for (const std::string &line : Story()) {
        EXPECT_EQ(line.substr(0, 2), "1 ");
        lines.push_back(line.substr(2));
    }
    journal::Clear();
    return lines;
}

} // namespace

TEST(VlanDump, Lines)
{
    services::StartWorkingModule();
    for (const Row &row : kRows) {
        SCOPED_TRACE(row.name);
        ClearTables();
        row.fill();
        row.print(1);
        EXPECT_TRUE(journal::Equal(Printed(), row.lines));
    }
}

TEST(VlanDump, WholeDumpAndAFullTable)
{
    services::StartWorkingModule();
    QorL2ResPrintVlanEditRes();
    EXPECT_TRUE(
        journal::Equal(Printed(), {"[L2RSM]IveProfile: NULL", "[L2RSM]IveCmdMapping: all zero data",
                                   "[L2RSM]IveCmd: NULL", "[L2RSM]EveProfile: NULL",
                                   "[L2RSM]EveCmdMapping: all zero data", "[L2RSM]EveCmd: NULL"}));
    for (u32 id = 0; id < 64; ++id) {
        g_eveEditProfileItem[id] = 1 + id % 12;
    }
    QorL2ResPrintVlanEditProfileRes(2);
    const journal::Lines lines = Printed();
    std::string all, expected = "[L2RSM]EveProfile: ";
    for (u32 id = 0; id < 64; ++id) {
        expected +=
            "profId:" + std::to_string(id) + ", srvType:" + std::to_string(1 + id % 12) + "; ";
    }
    for (size_t i = 0; i < lines.size(); ++i) {
        all += lines[i];
        EXPECT_LE(lines[i].size(), 119u);
        /* The next line's first item did not fit. */
        const size_t next = i + 1 < lines.size() ? lines[i + 1].find("; ") + 2 : 120;
        EXPECT_GT(lines[i].size() + next, 119u);
    }
    EXPECT_EQ(all, expected);
}

/* The n-th formatting or appending call of a printer fails. Two entries are in use, or none. */
TEST(VlanDump, Errors)
{
    services::StartWorkingModule();
    const auto profile = QorL2ResPrintVlanEditProfileRes;
    const auto mapping = QorL2ResPrintVlanEditMappingRes;
    const auto command = QorL2ResPrintVlanEditCmdRes;
    const std::string item2 = "cmd:2, o/iTag:2/1, oTpid/Act:0/2, iTpid/Act:3/4, o/iPri:1/1; ";
    struct {
        void (*print)(u32);
        bool filled;
        Op op;
        unsigned nth;
        journal::Lines lines;
    } const kFaults[] = {
        {profile, true, Op::snprintf_s, 1, {"vsnprintf_s err:-1."}},
        {command, false, Op::snprintf_s, 1, {"vsnprintf_s err:-1."}},
        {profile, true, Op::snprintf_s, 2, {"prof vsnprintf_s err:-1."}},
        {profile, true, Op::strcat_s, 1, {"prof strcat_s err:1."}},
        {profile, false, Op::strcat_s, 1, {"prof strcat_s err:1."}},
        {mapping, true, Op::snprintf_s, 3, {"mapping vsnprintf_s err:-1."}},
        {mapping, true, Op::strcat_s, 2, {"mapping strcat_s err:1."}},
        {mapping, false, Op::strcat_s, 1, {"zero strcat_s err:1."}},
        {command, true, Op::snprintf_s, 2, {"cmd vsnprintf_s err:-1.", "[L2RSM]IveCmd: " + item2}},
        {command, true, Op::strcat_s, 1, {"cmd strcat_s err:1.", item2}},
        {command, false, Op::strcat_s, 1, {"null strcat_s err:1.", ""}},
    };
    for (const auto &[print, filled, op, nth, lines] : kFaults) {
        SCOPED_TRACE(lines[0]);
        ClearTables();
        if (filled) {
            for (u32 i : {1u, 2u}) {
                g_iveEditProfileItem[i] = i;
                g_iveEditCommandItem[i] = {4, i, 1};
                g_iveEditCommandInfo[i] = CommandOf(Info(1, 1, i - 1));
            }
        }
        faults::Fail(op, nth);
        print(1);
        EXPECT_EQ(faults::Failed(), 1u);
        faults::Reset();
        EXPECT_TRUE(journal::Equal(Printed(), lines));
    }
}
