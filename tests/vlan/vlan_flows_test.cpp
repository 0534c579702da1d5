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
 * One flow a block: "== name | set-up steps | the call -> result profile", then what it writes between
 * the lines that its kind of call begins and ends with (see Story). A call is a (assign) or r
 * (release), the flag, then service/format, and where they are not 0 .edit and .outerTpid. Set-up
 * starts from empty tables and a working hook. Profile 777 is untouched.
 */
const char kFlows[] = R"(
== new || a1 5/2 -> 0 4
1 QorL2ResSetIveCommand, servType:5, commandId:1.
hook 5/2 p4 c1 0x35
== shared command | a1 9/3 | a1 5/2 -> 0 5
hook 5/2 p5 c1 0x21
== repeated | a1 5/2 | a1 5/2 -> 0 4
== mapping booked before its command | booked | a1 5/2 -> 0 4
1 QorL2ResSetIveCommand, servType:5, commandId:1.
hook 5/2 p4 c1 0x15
== no hook | nohook | a1 5/2 -> 0 4
1 QorL2ResSetIveCommand, servType:5, commandId:1.
5 [SetVlanTranslation]g_qorl2ResHookTbl Failed
5 [QorL2ResSetIveCommand]Set Translation Fail, serviceType:5, profileId:4, commandId:1
== flag 3 || a3 5/2 -> 1 777
5 [AssignveProfile]Unknown ingress or egress flag, flag:3
== out of range || a1 5/8 -> 1 777
5 [CheckVlanEditInfo]Receive Unknown Ive Profile Value, servType:5
== no profile left | profiles1 | a1 5/2 -> 1 777
5 The IVE profile resource overflows, servType:5, iveEditProfile:64
== copy fails | copyfails | a1 5/2 -> 1 4
5 [CmpCommandInfo]memcpy fail
5 The IVE Set Command Fail, servType:5, iveEditProfile:4.
== no command left | commands1 | a1 5/2 -> 1 4
1 QorL2ResSetIveCommand, servType:5, commandId:128.
5 The IVE Set Command Fail, servType:5, iveEditProfile:4.
== mapping table full | mappings1 | a1 9/2 -> 0 5
hook 9/2 p5 c1 0x21
== egress new, hook fails | hookfails | a2 5/2 -> 0 4
1 SetEveComman, servType:5, commandId:2.
1 SetEveComman, servType:5, commandFlag:54.
hook 5/2 p4 c2 0x36
5 [SetVlanTranslation]SetTranslation Failed, ret:7
5 [SetEveComman]Set Translation Fail, serviceType:5, profileId:4, commandId:2
== egress repeated | a2 5/2 | a2 5/2 -> 0 4
1 SetEveComman, servType:5, commandFlag:34.
hook 5/2 p4 c2 0x22
== egress out of range || a2 13/1 -> 1 777
5 [CheckVlanEditInfo]Receive Unknown Eve Profile Value, servType:13
== egress no profile left | profiles2 | a2 5/2 -> 1 777
5 The EVE profile resource overflows, servType:5, iveEditProfile:64
== egress no command left | commands2 | a2 5/2.1 -> 1 4
5 The EVE Set Command Fail, servType:5, iveEditProfile:4.
== last of all | a1 5/2 | r1 5/2 -> 0 777
hook 5/2 p4 c1 0x09
2 [L2RES]FreeIveProfile, mappingId:1, profFlg:0, profId:4, cmdFlg:0, cmdId:1
== command shared | a1 5/2; a1 9/3 | r1 5/2 -> 0 777
2 [L2RES]used cmd, cmdId:1, prof:5-4,
hook 5/2 p4 c1 0x09
2 [L2RES]FreeIveProfile, mappingId:1, profFlg:0, profId:4, cmdFlg:1, cmdId:1
== both needed for another format | a1 5/2; a1 5/3 | r1 5/2 -> 0 777
hook 5/2 p4 c1 0x09
2 [L2RES]FreeIveProfile, mappingId:1, profFlg:1, profId:4, cmdFlg:1, cmdId:1
== free entries keep the mark of reserved 0 | a1 2/2.0.1 | r1 2/2.0.1 -> 0 777
hook 2/2 p0 c1 0x09
2 [L2RES]FreeIveProfile, mappingId:1, profFlg:1, profId:0, cmdFlg:0, cmdId:1
== reserved id not marked | a1 2/2.0.1 | r1 2/2 -> 0 777
1 [L2RES]No assign ive profileId
=
== command not stored | a1 5/2 | r1 5/2.1 -> 1 777
5 [L2RES]No assign ive cmd
== mapping not booked | a1 5/2 | r1 5/3 -> 1 777
5 [[L2RES]]Find mapping data fail, profileId:4, cmdId:1
== mapping overflowed into entry 0 | mappings1; a1 9/2.18 | r1 9/2.18 -> 1 777
2 [L2RES]used cmd, cmdId:19, prof:4-5,
5 [[L2RES]]Find mapping data fail, profileId:5, cmdId:19
== hook fails | a1 5/2; hookfails | r1 5/2 -> 7 777
hook 5/2 p4 c1 0x09
5 [SetVlanTranslation]SetTranslation Failed, ret:7
5 [[L2RES]]Free Translation Fail, profileId:4, cmdId:1, ret:7
== unknown service || r1 0/2 -> 1 777
5 [L2RES]FreeIveProfile unknown servType
== flag 0 | a1 5/2 | r0 5/2 -> 1 777
5 [FreeVeProfile]Unknown ingress or egress flag, flag:0, srvType:5
== egress last of all | a2 5/2 | r2 5/2 -> 0 777
hook 5/2 p4 c2 0x0A
2 [L2RES]FreeEveProfile, mappingId:1, profFlg:0, profId:4, cmdFlg:0, cmdId:2
== egress nothing assigned | a1 5/2 | r2 5/2 -> 0 777
1 No assign profileId, srvType:5
== egress no hook | a2 5/2; nohook | r2 5/2 -> 1 777
5 [SetVlanTranslation]g_qorl2ResHookTbl Failed
5 [FreeEveProfile]Free Translation Fail, profileId:4, commandId:2
== egress unknown service || r2 13/2 -> 1 777
5 [L2RES]FreeEveProfile unknown servType
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

struct Act {
    bool assign;
    u32 flag;
    VlanEditInfo info;

    explicit Act(const std::string &text)
    {
        char kind = 0;
        u32 service = 0, format = 0, edit = 0, outerTpid = 0;
        sscanf(text.c_str(), "%c%u %u/%u.%u.%u", &kind, &flag, &service, &format, &edit,
               &outerTpid);
        EXPECT_NE(format, 0u) << text;
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
    const Tables tables = TablesOf(direction);
    if (step == "nohook") {
        EXPECT_EQ(QorL2ResHookRegister(3, nullptr), 0u);
    } else if (step == "hookfails") {
        g_hookResult = 7;
    } else if (step == "copyfails") {
        faults::Fail(Op::memcpy_s);
    } else if (step == "booked") {
        EXPECT_EQ(QorL2ResCmpIveCommandMapping(2, 4, 1), 0u);
    } else if (step == "mappings1") {
        /* 127 mappings of service 5: 7 of each of 18 commands, 1 of another. */
        for (u32 i = 0; i < 127; ++i) {
            SetUp("a1 5/" + std::to_string(1 + i % 7) + "." + std::to_string(i / 7));
        }
    } else if (step.starts_with("profiles")) {
        std::fill_n(tables.profiles + 4, 60, 100);
    } else if (step.starts_with("commands")) {
        memset(tables.commands + direction, 1, (128 - direction) * 32);
    } else {
        u16 profileId;
        EXPECT_EQ(Act(step).Run(&profileId), 0u);
    }
}

std::string Text(std::string pattern, const std::vector<u32> &values)
{
    for (u32 value : values) {
        pattern.replace(pattern.find("%u"), 2, std::to_string(value));
    }
    return pattern;
}

/* The flow's own lines between those that every call of its kind begins and ends with. */
journal::Lines Story(const Act &act, const journal::Lines &own, u32 result, u32 profileId)
{
    const auto [service, format, outerTag, innerTag, outerPri, innerPri, outerTpid, innerTpid,
                outerAction, innerAction] = act.info;
    const bool known = act.flag == 1 || act.flag == 2;
    const std::string name = act.flag == 2 ? "Eve" : "Ive";
    const std::string record =
        Text(" Vlan edit info: srvType:%u, fmt:%u, o/iTag:%u/%u, oTpid/Act:%u/%u, iTpid/Act:%u/%u, "
             "o/iPri:%u/%u",
             {service, format, outerTag, innerTag, outerTpid, outerAction, innerTpid, innerAction,
              outerPri, innerPri});
    const std::string received =
        Text("1 [IveRsmCommand]Receive " + name +
                 " Profile Info, servType:%u, tagFormat:%u, outerTag:%u,innerTag:%u, outerPri:%u, "
                 "innerPri:%u, outerTpid:%u, innerTpid:%u, outerTpidAction:%u, innerTpidAction:%u.",
             {service, format, outerTag, innerTag, outerPri, innerPri, outerTpid, innerTpid,
              outerAction, innerAction});
    const std::string kind = act.assign ? "2 Assign" : "2 Release";
    journal::Lines lines = {Text(kind + " profile: flg:%u", {act.flag}), "2" + record};
    const auto add = [&](bool applies, const std::string &pattern, const std::vector<u32> &values) {
        if (applies) {
            lines.push_back(Text(pattern, values));
        }
    };
    add(known && act.assign, received + (act.flag == 2 ? " " : ""), {});
    add(known && !act.assign, "2 [L2RES]Free" + name + "Profile", {});
    add(known && !act.assign, "2" + record, {});
    const bool took = profileId != 777;
    add(took && act.flag == 1, "1 Assign IVE, servType:%u, iveEditProfile:%u.",
        {service, profileId});
    add(took && act.flag == 2, "1 Assign EVE, servType:%u, eveEditProfile:%u.",
        {service, profileId});
    for (const std::string &line : own) {
        lines.push_back(line == "=" ? "1" + record : line);
    }
    const bool failed = known && result != 0;
    add(failed && act.assign,
        "5 [AssignveProfile]Assign " + name + " Profile Failed, servType:%u, profileId:%u",
        {service, profileId});
    add(failed && !act.assign, "5" + record, {});
    add(failed && !act.assign, "5 [FreeVeProfile]Assign Profile Failed, servType:%u, ret:%u",
        {service, result});
    return lines;
}

void RunFlow(const std::string &head, const journal::Lines &own)
{
    SCOPED_TRACE(head);
    ClearTables();
    g_hookResult = 0;
    ASSERT_EQ(QorL2ResHookRegister(3, reinterpret_cast<L2ResHook>(Hook)), 0u);
    const size_t bar = head.find('|'), secondBar = head.find('|', bar + 1);
    std::istringstream steps(head.substr(bar + 1, secondBar - bar - 1));
    for (std::string step; std::getline(steps >> std::ws, step, ';');) {
        SetUp(step.substr(0, step.find_last_not_of(' ') + 1));
    }
    Act act(head.substr(secondBar + 2));
    const VlanEditInfo given = act.info;
    u32 result = 0, expectedProfile = 0;
    ASSERT_EQ(sscanf(head.c_str() + head.find("->"), "-> %u %u", &result, &expectedProfile), 2);

    const auto before = Image();
    journal::Clear();
    u16 profileId = 777;
    EXPECT_EQ(act.Run(&profileId), result);
    faults::Reset();
    EXPECT_EQ(profileId, expectedProfile);
    EXPECT_TRUE(journal::Equal(vlan::Story(), Story(act, own, result, expectedProfile)));
    EXPECT_EQ(memcmp(&act.info, &given, sizeof(given)), 0) << "the request belongs to the caller";
    if (result != 0 && profileId == 777) {
        EXPECT_EQ(Image(), before) << "a failure that took no profile leaves the tables alone";
    }
}

} // namespace

TEST(VlanFlows, ResultsTablesHookCallsAndLines)
{
    services::StartWorkingModule();
    for (const auto &[head, own] : BlocksOf(kFlows)) {
        RunFlow(head, own);
    }
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
    const auto empty = Image();
    for (u32 field = 0; field < 10; ++field) {
        const u32 low = kLow[field], high = kHigh[field];
        for (u32 value : {low - 1, low, high, high + 1, 1u << 31}) {
            SCOPED_TRACE(testing::Message() << "field " << field << " value " << value);
            const bool valid = value >= low && value <= high;
            VlanEditInfo info = Info(5, 2);
            reinterpret_cast<u32 *>(&info)[field] = value;
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
