/* The dump: exact lines, also where a line is full to its last character, and after errors. */
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <sstream>

#include "support/faults.h"
#include "support/services.h"
#include "vlan/vlan_support.h"

using faults::Op;
using namespace vlan;

namespace {

constexpr auto Profiles = QorL2ResPrintVlanEditProfileRes;
constexpr auto Mappings = QorL2ResPrintVlanEditMappingRes;
constexpr auto Commands = QorL2ResPrintVlanEditCmdRes;

/*
 * What an ingress table holds from an id on, then what is printed of it; "|" ends a line. Entries are
 * of 1 (profiles), 3 (mappings) or 8 numbers (commands). Mostly a line that is full to its 119th
 * character, then one item that is a character longer. Also: entry 0, an entry that only its command
 * id makes show, a command item a line, and an item that is cut.
 */
const char kTables[] = R"(
== p 4 : 11111 22222 33333 44444
[L2RSM]IveProfile: profId:4, srvType:11111; profId:5, srvType:22222; profId:6, srvType:33333; profId:7, srvType:44444; |
== p 4 : 11111 22222 33333 444444
[L2RSM]IveProfile: profId:4, srvType:11111; profId:5, srvType:22222; profId:6, srvType:33333; |
profId:7, srvType:444444; |
== p 0 : 1 2 3 4 5 6 7 8 9 10 11 12
[L2RSM]IveProfile: profId:0, srvType:1; profId:1, srvType:2; profId:2, srvType:3; profId:3, srvType:4; |
profId:4, srvType:5; profId:5, srvType:6; profId:6, srvType:7; profId:7, srvType:8; profId:8, srvType:9; |
profId:9, srvType:10; profId:10, srvType:11; profId:11, srvType:12; |
== m 1 : 4 1 1  4 2 1  4 3 1  4 4 12
[L2RSM]IveCmdMapping: profId:4, fmt:1, cmd:1; profId:4, fmt:2, cmd:1; profId:4, fmt:3, cmd:1; profId:4, fmt:4, cmd:12; |
== m 1 : 4 1 1  4 2 1  4 3 1  14 4 12
[L2RSM]IveCmdMapping: profId:4, fmt:1, cmd:1; profId:4, fmt:2, cmd:1; profId:4, fmt:3, cmd:1; |
profId:14, fmt:4, cmd:12; |
== m 0 : 5 7 9  0 0 3
[L2RSM]IveCmdMapping: profId:5, fmt:7, cmd:9; profId:0, fmt:0, cmd:3; |
== c 0 : 0 0 0 0 0 0 0 9  1 2 3 4 0 1 2 3
[L2RSM]IveCmd: cmd:0, o/iTag:0/0, oTpid/Act:0/0, iTpid/Act:0/9, o/iPri:0/0; |
cmd:1, o/iTag:1/2, oTpid/Act:0/2, iTpid/Act:1/3, o/iPri:3/4; |
== c 1 : 1234567890 1234567890 1 1 1234567890 1234 1234567890 12345
[L2RSM]IveCmd: cmd:1, o/iTag:1234567890/1234567890, oTpid/Act:1234567890/1234567890, iTpid/Act:1234/12345, o/iPri:1/1; |
== c 1 : 1234567890 1234567890 1 1 1234567890 12345 1234567890 12345
[L2RSM]IveCmd: |
cmd:1, o/iTag:1234567890/1234567890, oTpid/Act:1234567890/1234567890, iTpid/Act:12345/12345, o/iPri:1/1; |
== c 127 : 1234567890 1234567890 1234567890 123456789 1234567890 1234567890 1234567890 1234567890
[L2RSM]IveCmd: |
cmd:127, o/iTag:1234567890/1234567890, oTpid/Act:1234567890/1234567890, iTpid/Act:1234567890/1234567890, o/iPri:1234567|
)";

/* Prints the table that a block speaks of. */
void Print(const std::string &head)
{
    std::istringstream text(head.substr(3));
    char kind = 0, colon = 0;
    u32 index = 0;
    text >> kind >> index >> colon;
    std::vector<u32> n(std::istream_iterator<u32>(text), {});
    switch (kind) {
    case 'p':
        std::copy(n.begin(), n.end(), g_iveEditProfileItem + index);
        return Profiles(1);
    case 'm':
        for (size_t i = 0; i < n.size(); i += 3) {
            g_iveEditCommandItem[index++] = {static_cast<u16>(n[i]), n[i + 1],
                                             static_cast<u16>(n[i + 2])};
        }
        return Mappings(1);
    default:
        memcpy(&g_iveEditCommandInfo[index], n.data(), n.size() * sizeof(u32));
        return Commands(1);
    }
}

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
    for (auto &[head, lines] : BlocksOf(kTables)) {
        SCOPED_TRACE(head);
        ClearTables();
        Print(head);
        for (std::string &line : lines) {
            line.pop_back();
        }
        EXPECT_TRUE(journal::Equal(Printed(), lines));
    }
    ClearTables();
    QorL2ResPrintVlanEditRes();
    EXPECT_TRUE(
        journal::Equal(Printed(), {"[L2RSM]IveProfile: NULL", "[L2RSM]IveCmdMapping: all zero data",
                                   "[L2RSM]IveCmd: NULL", "[L2RSM]EveProfile: NULL",
                                   "[L2RSM]EveCmdMapping: all zero data", "[L2RSM]EveCmd: NULL"}));
}

/* The n-th formatting or appending call of a printer fails. Two entries are in use, or none. */
TEST(VlanDump, Errors)
{
    services::StartWorkingModule();
    const std::string item2 = "cmd:2, o/iTag:2/1, oTpid/Act:0/2, iTpid/Act:3/4, o/iPri:1/1; ";
    struct {
        void (*print)(u32);
        bool filled;
        Op op;
        unsigned nth;
        journal::Lines lines;
    } const kFaults[] = {
        {Profiles, true, Op::snprintf_s, 1, {"vsnprintf_s err:-1."}},
        {Commands, false, Op::snprintf_s, 1, {"vsnprintf_s err:-1."}},
        {Profiles, true, Op::snprintf_s, 2, {"prof vsnprintf_s err:-1."}},
        {Profiles, true, Op::strcat_s, 1, {"prof strcat_s err:1."}},
        {Profiles, false, Op::strcat_s, 1, {"prof strcat_s err:1."}},
        {Mappings, true, Op::snprintf_s, 3, {"mapping vsnprintf_s err:-1."}},
        {Mappings, true, Op::strcat_s, 2, {"mapping strcat_s err:1."}},
        {Mappings, false, Op::strcat_s, 1, {"zero strcat_s err:1."}},
        {Commands, true, Op::snprintf_s, 2, {"cmd vsnprintf_s err:-1.", "[L2RSM]IveCmd: " + item2}},
        {Commands, true, Op::strcat_s, 1, {"cmd strcat_s err:1.", item2}},
        {Commands, false, Op::strcat_s, 1, {"null strcat_s err:1.", ""}},
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
