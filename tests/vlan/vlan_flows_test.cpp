/* Assignment and release: results, tables, hook calls and every line. */
#include <gtest/gtest.h>

#include <sstream>

#include "support/faults.h"
#include "support/services.h"
#include "vlan/vlan_support.h"

using faults::Op;
using namespace vlan;

namespace {

/*
 * One flow a block: "== name | set-up steps | the call -> result profile", then what it writes after
 * the lines that all calls begin with. A call is a (assign) or r (release), the flag, then
 * service/format, and where they are not 0 .edit and .outerTpid. Set-up starts from empty tables and
 * a working hook. "=" is the record line at the level of the line before; profile 777 is untouched.
 */
const char kFlows[] = R"(
== new || a1 5/2 -> 0 4
1 Assign IVE, servType:5, iveEditProfile:4.
1 QorL2ResSetIveCommand, servType:5, commandId:1.
hook 5/2 p4 c1 0x35
== another command | a1 5/2.1 | a1 5/2 -> 0 4
1 Assign IVE, servType:5, iveEditProfile:4.
1 QorL2ResSetIveCommand, servType:5, commandId:2.
hook 5/2 p4 c2 0x35
== shared command | a1 9/3 | a1 5/2 -> 0 5
1 Assign IVE, servType:5, iveEditProfile:5.
hook 5/2 p5 c1 0x21
== repeated | a1 5/2 | a1 5/2 -> 0 4
1 Assign IVE, servType:5, iveEditProfile:4.
== mapping booked before its command | booked | a1 5/2 -> 0 4
1 Assign IVE, servType:5, iveEditProfile:4.
1 QorL2ResSetIveCommand, servType:5, commandId:1.
hook 5/2 p4 c1 0x15
== no hook | nohook | a1 5/2 -> 0 4
1 Assign IVE, servType:5, iveEditProfile:4.
1 QorL2ResSetIveCommand, servType:5, commandId:1.
5 [SetVlanTranslation]g_qorl2ResHookTbl Failed
5 [QorL2ResSetIveCommand]Set Translation Fail, serviceType:5, profileId:4, commandId:1
== hook fails | hookfails | a1 5/2 -> 0 4
1 Assign IVE, servType:5, iveEditProfile:4.
1 QorL2ResSetIveCommand, servType:5, commandId:1.
hook 5/2 p4 c1 0x35
5 [SetVlanTranslation]SetTranslation Failed, ret:7
5 [QorL2ResSetIveCommand]Set Translation Fail, serviceType:5, profileId:4, commandId:1
== flag 3 || a3 5/2 -> 1 777
5 [AssignveProfile]Unknown ingress or egress flag, flag:3
== out of range || a1 5/8 -> 1 777
5 [CheckVlanEditInfo]Receive Unknown Ive Profile Value, servType:5
5 [AssignveProfile]Assign Ive Profile Failed, servType:5, profileId:777
== no profile left | profiles1 | a1 5/2 -> 1 777
5 The IVE profile resource overflows, servType:5, iveEditProfile:64
5 [AssignveProfile]Assign Ive Profile Failed, servType:5, profileId:777
== its profile among all taken | a1 5/2; profiles1 | a1 5/2 -> 0 4
1 Assign IVE, servType:5, iveEditProfile:4.
== copy fails | copyfails | a1 5/2 -> 1 4
1 Assign IVE, servType:5, iveEditProfile:4.
5 [CmpCommandInfo]memcpy fail
5 The IVE Set Command Fail, servType:5, iveEditProfile:4.
5 [AssignveProfile]Assign Ive Profile Failed, servType:5, profileId:4
== no command left | commands1 | a1 5/2 -> 1 4
1 Assign IVE, servType:5, iveEditProfile:4.
1 QorL2ResSetIveCommand, servType:5, commandId:128.
5 The IVE Set Command Fail, servType:5, iveEditProfile:4.
5 [AssignveProfile]Assign Ive Profile Failed, servType:5, profileId:4
== mapping table full | mappings1 | a1 9/2 -> 0 5
1 Assign IVE, servType:9, iveEditProfile:5.
hook 9/2 p5 c1 0x21
== egress new || a2 5/2 -> 0 4
1 Assign EVE, servType:5, eveEditProfile:4.
1 SetEveComman, servType:5, commandId:2.
1 SetEveComman, servType:5, commandFlag:54.
hook 5/2 p4 c2 0x36
== egress repeated | a2 5/2 | a2 5/2 -> 0 4
1 Assign EVE, servType:5, eveEditProfile:4.
1 SetEveComman, servType:5, commandFlag:34.
hook 5/2 p4 c2 0x22
== egress reserved 3 || a2 7/1.0.2 -> 0 3
1 Assign EVE, servType:7, eveEditProfile:3.
1 SetEveComman, servType:7, commandId:2.
1 SetEveComman, servType:7, commandFlag:54.
hook 7/1 p3 c2 0x36
== egress out of range || a2 13/1 -> 1 777
5 [CheckVlanEditInfo]Receive Unknown Eve Profile Value, servType:13
5 [AssignveProfile]Assign Eve Profile Failed, servType:13, profileId:777
== egress no profile left | profiles2 | a2 5/2 -> 1 777
5 The EVE profile resource overflows, servType:5, iveEditProfile:64
5 [AssignveProfile]Assign Eve Profile Failed, servType:5, profileId:777
== egress copy fails | copyfails | a2 5/2 -> 1 4
1 Assign EVE, servType:5, eveEditProfile:4.
5 [CmpCommandInfo]memcpy fail
5 The EVE Set Command Fail, servType:5, iveEditProfile:4.
5 [AssignveProfile]Assign Eve Profile Failed, servType:5, profileId:4
== egress no command left | commands2 | a2 5/2.1 -> 1 4
1 Assign EVE, servType:5, eveEditProfile:4.
5 The EVE Set Command Fail, servType:5, iveEditProfile:4.
5 [AssignveProfile]Assign Eve Profile Failed, servType:5, profileId:4
== last of all | a1 5/2 | r1 5/2 -> 0 777
hook 5/2 p4 c1 0x09
2 [L2RES]FreeIveProfile, mappingId:1, profFlg:0, profId:4, cmdFlg:0, cmdId:1
== command shared | a1 5/2; a1 9/3 | r1 5/2 -> 0 777
2 [L2RES]used cmd, cmdId:1, prof:5-4,
hook 5/2 p4 c1 0x09
2 [L2RES]FreeIveProfile, mappingId:1, profFlg:0, profId:4, cmdFlg:1, cmdId:1
== profile shared | a1 5/2.1; a1 5/2 | r1 5/2 -> 0 777
hook 5/2 p4 c2 0x09
2 [L2RES]FreeIveProfile, mappingId:2, profFlg:1, profId:4, cmdFlg:0, cmdId:2
== both needed for another format | a1 5/2; a1 5/3 | r1 5/2 -> 0 777
hook 5/2 p4 c1 0x09
2 [L2RES]FreeIveProfile, mappingId:1, profFlg:1, profId:4, cmdFlg:1, cmdId:1
== free entries keep the mark of reserved 0 | a1 2/2.0.1 | r1 2/2.0.1 -> 0 777
hook 2/2 p0 c1 0x09
2 [L2RES]FreeIveProfile, mappingId:1, profFlg:1, profId:0, cmdFlg:0, cmdId:1
== reserved 1 beside a marked 0 | a1 2/2.0.1; a1 2/2.0.3 | r1 2/2.0.3 -> 0 777
hook 2/2 p1 c2 0x09
2 [L2RES]FreeIveProfile, mappingId:2, profFlg:0, profId:1, cmdFlg:0, cmdId:2
== service 3 does not meet mark 3 | a1 2/2; a1 3/2 | r1 3/2 -> 0 777
2 [L2RES]used cmd, cmdId:1, prof:1-4,
hook 3/2 p4 c1 0x09
2 [L2RES]FreeIveProfile, mappingId:2, profFlg:0, profId:4, cmdFlg:1, cmdId:1
== nothing assigned || r1 5/2 -> 0 777
1 [L2RES]No assign ive profileId
=
== reserved id not marked | a1 2/2.0.1 | r1 2/2 -> 0 777
1 [L2RES]No assign ive profileId
=
== command not stored | a1 5/2 | r1 5/2.1 -> 1 777
5 [L2RES]No assign ive cmd
=
5 [FreeVeProfile]Assign Profile Failed, servType:5, ret:1
== mapping not booked | a1 5/2 | r1 5/3 -> 1 777
5 [[L2RES]]Find mapping data fail, profileId:4, cmdId:1
=
5 [FreeVeProfile]Assign Profile Failed, servType:5, ret:1
== mapping overflowed into entry 0 | mappings1; a1 9/2.18 | r1 9/2.18 -> 1 777
2 [L2RES]used cmd, cmdId:19, prof:4-5,
5 [[L2RES]]Find mapping data fail, profileId:5, cmdId:19
=
5 [FreeVeProfile]Assign Profile Failed, servType:9, ret:1
== hook fails | a1 5/2; hookfails | r1 5/2 -> 7 777
hook 5/2 p4 c1 0x09
5 [SetVlanTranslation]SetTranslation Failed, ret:7
5 [[L2RES]]Free Translation Fail, profileId:4, cmdId:1, ret:7
=
5 [FreeVeProfile]Assign Profile Failed, servType:5, ret:7
== no hook | a1 5/2; nohook | r1 5/2 -> 1 777
5 [SetVlanTranslation]g_qorl2ResHookTbl Failed
5 [[L2RES]]Free Translation Fail, profileId:4, cmdId:1, ret:1
=
5 [FreeVeProfile]Assign Profile Failed, servType:5, ret:1
== unknown service || r1 0/2 -> 1 777
5 [L2RES]FreeIveProfile unknown servType
=
5 [FreeVeProfile]Assign Profile Failed, servType:0, ret:1
== flag 0 | a1 5/2 | r0 5/2 -> 1 777
5 [FreeVeProfile]Unknown ingress or egress flag, flag:0, srvType:5
== egress last of all | a2 5/2 | r2 5/2 -> 0 777
hook 5/2 p4 c2 0x0A
2 [L2RES]FreeEveProfile, mappingId:1, profFlg:0, profId:4, cmdFlg:0, cmdId:2
== egress reserved 2 | a2 7/2.0.1 | r2 7/2.0.1 -> 0 777
hook 7/2 p2 c2 0x0A
2 [L2RES]FreeEveProfile, mappingId:1, profFlg:0, profId:2, cmdFlg:0, cmdId:2
== egress nothing assigned | a1 5/2 | r2 5/2 -> 0 777
1 No assign profileId, srvType:5
== egress hook fails | a2 5/2; hookfails | r2 5/2 -> 7 777
hook 5/2 p4 c2 0x0A
5 [SetVlanTranslation]SetTranslation Failed, ret:7
5 [FreeEveProfile]Free Translation Fail, profileId:4, commandId:2
=
5 [FreeVeProfile]Assign Profile Failed, servType:5, ret:7
== egress unknown service || r2 13/2 -> 1 777
5 [L2RES]FreeEveProfile unknown servType
=
5 [FreeVeProfile]Assign Profile Failed, servType:13, ret:1
)";

u32 g_hookResult;

u32 Hook(const VlanEditInfo *info, u16 profileId, u16 commandId, u32 commandFlag)
{
    char text[96];
    snprintf(text, sizeof(text), "hook %u/%u p%u c%u 0x%02X", info->servType, info->tagFormat,
             profileId, commandId, commandFlag);
    journal::Write(journal::kHook, text);
    return g_hookResult;
}

void SetHook(L2ResVlanTranslationHook hook)
{
    ASSERT_EQ(QorL2ResHookRegister(3, reinterpret_cast<L2ResHook>(hook)), 0u);
}

struct Act {
    bool assign;
    u32 flag;
    VlanEditInfo info;

    explicit Act(const std::string &text)
    {
        char kind = 0;
        u32 service = 0, format = 0, edit = 0, outerTpid = 0;
        EXPECT_GE(sscanf(text.c_str(), "%c%u %u/%u.%u.%u", &kind, &flag, &service, &format, &edit,
                         &outerTpid),
                  4)
            << text;
        assign = kind == 'a';
        info = Info(service, format, edit, outerTpid);
    }

    u32 Run(u16 *profileId)
    {
        return assign ? Qorl2ResAssignVlanEditProfile(&info, profileId, flag)
                      : Qorl2ResFreeVlanEditProfile(&info, flag);
    }
};

void SetUp(const std::string &step)
{
    const u32 direction = step.back() == '2' ? 2 : 1;
    if (step == "nohook") {
        SetHook(nullptr);
    } else if (step == "hookfails") {
        g_hookResult = 7;
    } else if (step == "copyfails") {
        faults::Fail(Op::memcpy_s);
    } else if (step == "booked") {
        EXPECT_EQ(QorL2ResCmpIveCommandMapping(2, 4, 1), 0u);
    } else if (step.starts_with("profiles")) {
        for (u32 id = 4; id < 64; ++id) {
            u32 &owner = TablesOf(direction).profiles[id];
            owner = owner != 0 ? owner : 100 + id;
        }
    } else if (step.starts_with("commands")) {
        for (u32 id = direction; id < 128; ++id) {
            TablesOf(direction).commands[id] = CommandOf(Info(1, 1, id + 1));
        }
    } else {
        /* 127 mappings of service 5: 7 of each of 18 commands, 1 of another. */
        for (u32 i = 0; i < (step == "mappings1" ? 127u : 1u); ++i) {
            Act act(step == "mappings1" ? "a1 5/1" : step);
            if (step == "mappings1") {
                act.info = Info(5, 1 + i % 7, i / 7);
            }
            u16 profileId;
            EXPECT_EQ(act.Run(&profileId), 0u);
        }
    }
}

/* The lines that every call begins with, then the flow's own. */
journal::Lines Story(const Act &act, const journal::Lines &own)
{
    const VlanEditInfo &i = act.info;
    char record[160], received[256];
    snprintf(record, sizeof(record),
             "Vlan edit info: srvType:%u, fmt:%u, o/iTag:%u/%u, oTpid/Act:%u/%u, iTpid/Act:%u/%u, "
             "o/iPri:%u/%u",
             i.servType, i.tagFormat, i.outerTag, i.innerTag, i.outerTpid, i.outerTpidAction,
             i.innerTpid, i.innerTpidAction, i.outerPri, i.innerPri);
    snprintf(received, sizeof(received),
             "1 [IveRsmCommand]Receive %s Profile Info, servType:%u, tagFormat:%u, outerTag:%u,"
             "innerTag:%u, outerPri:%u, innerPri:%u, outerTpid:%u, innerTpid:%u, "
             "outerTpidAction:%u, innerTpidAction:%u.%s",
             act.flag == 2 ? "Eve" : "Ive", i.servType, i.tagFormat, i.outerTag, i.innerTag,
             i.outerPri, i.innerPri, i.outerTpid, i.innerTpid, i.outerTpidAction, i.innerTpidAction,
             act.flag == 2 ? " " : "");
    journal::Lines lines = {(act.assign ? "2 Assign profile: flg:" : "2 Release profile: flg:") +
                                std::to_string(act.flag),
                            std::string("2 ") + record};
    if (act.flag == 1 || act.flag == 2) {
        if (act.assign) {
            lines.push_back(received);
        } else {
            lines.push_back(act.flag == 1 ? "2 [L2RES]FreeIveProfile" : "2 [L2RES]FreeEveProfile");
            lines.push_back(std::string("2 ") + record);
        }
    }
    for (const std::string &line : own) {
        lines.push_back(line == "=" ? lines.back().substr(0, 2) + record : line);
    }
    return lines;
}

void RunFlow(const std::string &head, const journal::Lines &own)
{
    SCOPED_TRACE(head);
    ClearTables();
    g_hookResult = 0;
    SetHook(Hook);
    const size_t bar = head.find('|'), secondBar = head.find('|', bar + 1);
    std::istringstream steps(head.substr(bar + 1, secondBar - bar - 1));
    for (std::string step; std::getline(steps >> std::ws, step, ';');) {
        SetUp(step.substr(0, step.find_last_not_of(' ') + 1));
    }
    Act act(head.substr(secondBar + 2));
    const VlanEditInfo given = act.info;
    u32 result = 0, expectedProfile = 0;
    ASSERT_EQ(sscanf(head.c_str() + head.find("->"), "-> %u %u", &result, &expectedProfile), 2);

    const std::string before = Image();
    journal::Clear();
    u16 profileId = 777;
    EXPECT_EQ(act.Run(&profileId), result);
    faults::Reset();
    EXPECT_EQ(profileId, expectedProfile);
    EXPECT_TRUE(journal::Equal(vlan::Story(), Story(act, own)));
    EXPECT_EQ(memcmp(&act.info, &given, sizeof(given)), 0) << "the request belongs to the caller";
    if (result != 0 && profileId == 777) {
        EXPECT_EQ(Image(), before) << "a failure that took no profile leaves the tables alone";
    }
}

} // namespace

TEST(VlanFlows, ResultsTablesHookCallsAndLines)
{
    services::StartWorkingModule();
    std::istringstream text(kFlows);
    std::string head;
    journal::Lines own;
    unsigned flows = 0;
    for (std::string line; std::getline(text, line);) {
        if (!line.starts_with("==")) {
            own.push_back(line);
            continue;
        }
        if (!head.empty()) {
            RunFlow(head, own);
            ++flows;
        }
        head = line;
        own.clear();
    }
    RunFlow(head, own);
    EXPECT_EQ(flows, 41u) << "the last one not counted";

    journal::Clear();
    EXPECT_EQ(Qorl2ResAssignVlanEditProfile(nullptr, nullptr, 1), 1u);
    EXPECT_EQ(Qorl2ResFreeVlanEditProfile(nullptr, 2), 1u);
    EXPECT_EQ(QorL2ResAssignEveProfile(nullptr, nullptr), 1u);
    EXPECT_TRUE(
        journal::Equal(vlan::Story(), {"2 Assign profile: flg:1", "2 Release profile: flg:2"}));
}

/* Every field at its limits and beyond, in both directions. */
TEST(VlanFlows, FieldRanges)
{
    services::StartWorkingModule();
    const u32 kLow[] = {1, 1, 1, 1, 1, 1, 0, 0, 1, 1}, kHigh[] = {12, 7, 4, 4, 4, 4, 3, 3, 4, 4};
    const std::string empty = Image();
    for (size_t field = 0; field < 10; ++field) {
        for (u32 value : {kLow[field] - 1, kLow[field], kHigh[field], kHigh[field] + 1, 1u << 31}) {
            SCOPED_TRACE(testing::Message() << "field " << field << " value " << value);
            const bool valid = value >= kLow[field] && value <= kHigh[field];
            VlanEditInfo info = Info(5, 2);
            memcpy(reinterpret_cast<char *>(&info) + 4 * field, &value, sizeof(value));
            const VlanEditCommand command = CommandOf(info);
            EXPECT_EQ(QorL2ResCheckVlanEditInfo(&info), valid);
            EXPECT_EQ(QorL2ResCheckVlanAction(&command), valid || field < 2);
            for (u32 flag : {1u, 2u}) {
                u16 profileId;
                EXPECT_EQ(Qorl2ResAssignVlanEditProfile(&info, &profileId, flag), !valid);
                EXPECT_EQ(Image() == empty, !valid);
                ClearTables();
            }
        }
    }
}
