/* The simulated engine's VLAN half: what it refuses, how it edits, and that its check can fail. */
#include <gtest/gtest.h>

#include <thread>

#include "engine/vlan_engine.h"
#include "vlan/vlan_support.h"

using host::VlanEngine;
using host::VlanTag;
using host::VlanTags;

namespace {

const host::VlanEntry kEntry = {100, 200, 5, 6};

} // namespace

TEST(VlanEngine, RefusesWhatMakesNoSense)
{
    std::string refusal;
    VlanEngine engine([&](std::string_view line) { refusal = line; });
    const auto info = [](u32 format, u32 edit = 0) { return vlan::Info(5, format, edit); };
    const struct {
        VlanEditInfo info;
        u16 profile, command;
        u32 flag;
        const char *refusal;
    } kRows[] = {
        {info(2), 4, 1, 0x21, "it was never given that command"},
        {info(2), 4, 1, 0x09, "it holds no such mapping"},
        {info(2), 4, 1, 0x35, ""},
        {info(2), 4, 1, 0x22, "never given"},
        {info(2, 1), 4, 1, 0x21, "another one"},
        {info(2, 1), 4, 1, 0x15, "still uses that command id"},
        {info(3), 4, 1, 0x21, ""},
        {info(2), 4, 1, 0x09, ""},
        {info(2), 4, 1, 0x09, "it holds no such mapping"},
        {info(3), 4, 1, 0x09, ""},
        {info(2, 1), 4, 1, 0x15, ""},
        {info(2, 1), 64, 1, 0x21, "out of range"},
        {info(2, 1), 4, 128, 0x35, "out of range"},
        {info(8, 1), 4, 1, 0x21, "out of range"},
        {vlan::Info(5, 2, 0, 4), 4, 3, 0x35, "out of range"},
        {info(2, 1), 4, 1, 0x01, "unknown command flag 0x01"},
        {info(2, 1), 4, 1, 0x61, "unknown command flag 0x61"},
    };
    for (const auto &row : kRows) {
        refusal.clear();
        const u32 result = engine.program(&row.info, row.profile, row.command, row.flag);
        EXPECT_EQ(result != 0, *row.refusal != '\0') << refusal;
        EXPECT_EQ(refusal.empty(), result == 0);
        EXPECT_NE(refusal.find(row.refusal), std::string::npos) << refusal;
    }
    EXPECT_TRUE(engine.mappings(1).empty());
    EXPECT_NE(engine.program(nullptr, 4, 1, 0x35), 0u);
}

TEST(VlanEngine, EditsTags)
{
    const VlanTag c{0x8100, 10, 3}, s{0x88A8, 20, 4}, priority{0x8100, 0, 7};
    const struct {
        VlanTags tags;
        u32 format;
        VlanEditCommand edit; /* tags, priorities, TPID indices, TPID actions: outer, inner */
        VlanTags after;
    } kRows[] = {
        {{}, 1, {1, 1, 2, 2, 1, 1, 2, 2}, {}},
        {{}, 1, {2, 1, 2, 1, 1, 0, 2, 1}, {{0x88A8, 100, 5}}},
        {{}, 1, {4, 2, 1, 2, 0, 3, 1, 2}, {{0x9200, 200, 6}}},
        {{c}, 2, {2, 4, 1, 4, 1, 0, 2, 3}, {{0x88A8, 100, 3}, {0x8100, 10, 3}}},
        {{c}, 2, {3, 1, 1, 1, 0, 0, 1, 1}, {}},
        {{priority}, 3, {2, 1, 3, 1, 0, 0, 1, 1}, {{0x8100, 100, 0}}},
        {{s}, 4, {4, 1, 4, 1, 0, 0, 4, 1}, {s}},
        {{s, c}, 5, {3, 1, 1, 4, 0, 0, 1, 4}, {{0x88A8, 10, 4}}},
        {{s, c}, 5, {4, 4, 4, 4, 0, 0, 4, 4}, {{0x8100, 10, 3}, {0x88A8, 20, 4}}},
        {{s, c}, 5, {1, 3, 3, 1, 0, 0, 3, 1}, {{0x8100, 20, 0}}},
        {{c, s}, 6, {1, 2, 1, 2, 0, 2, 1, 2}, {c, {0x9100, 200, 6}}},
        {{s, c, c}, 7, {3, 3, 1, 1, 0, 0, 1, 1}, {c}},
    };
    for (const auto &row : kRows) {
        VlanEngine engine([](std::string_view line) { ADD_FAILURE() << line; });
        VlanEditInfo info = {5, row.format, 0, 0, 0, 0, 0, 0, 0, 0};
        memcpy(&info.outerTag, &row.edit, sizeof(row.edit));
        EXPECT_EQ(engine.program(&info, 4, 2, 0x36), 0u);
        const auto passage = engine.send(2, 4, row.tags, kEntry);
        EXPECT_EQ(passage.format, row.format);
        EXPECT_EQ(passage.command, u16{2});
        EXPECT_EQ(passage.tags, row.after) << "format " << row.format;
        EXPECT_EQ(engine.send(1, 4, row.tags, kEntry).command, std::nullopt);
        EXPECT_EQ(engine.send(2, 5, row.tags, kEntry).tags, row.tags);
    }
}

TEST(VlanEngine, TheMappingProgrammedLastApplies)
{
    VlanEngine engine([](std::string_view line) { ADD_FAILURE() << line; });
    const struct {
        u16 command, flag, applied;
    } kSteps[] = {{2, 0x36, 2}, {3, 0x36, 3}, {2, 0x22, 2}, {2, 0x0A, 3}, {3, 0x0A, 0}};
    for (const auto &[command, flag, applied] : kSteps) {
        const VlanEditInfo info = vlan::Info(5, 1, command);
        EXPECT_EQ(engine.program(&info, 4, command, flag), 0u);
        EXPECT_EQ(engine.send(2, 4, {}, kEntry).command.value_or(0), applied);
    }
}

TEST(VlanEngine, CheckListsEachKindOfDifference)
{
    const VlanEditInfo info = vlan::Info(5, 2);
    u32 profiles[64] = {};
    VlanEditCommand commands[128] = {};
    VlanEditMapping mappings[128] = {};
    profiles[4] = 5;
    commands[1] = vlan::CommandOf(info);
    mappings[3] = {4, 2, 1};
    VlanEngine engine([](std::string_view line) { ADD_FAILURE() << line; });
    const auto expect = [&](const std::vector<std::string> &differences) {
        EXPECT_EQ(engine.check(1, {profiles, commands, mappings}), differences);
    };
    const std::string entry = "ingress mapping entry 3 (profile 4, format 2, command 1) ";
    expect({entry + "is not in the engine", "ingress command 1 is not in the engine"});
    engine.program(&info, 4, 1, 0x35);
    expect({});
    commands[1].innerTpid = 1;
    expect({"ingress command 1 is another one in the engine"});
    commands[1].outerTag = profiles[4] = 0;
    expect({entry + "names a free profile", entry + "names a free command"});
    mappings[3] = {};
    expect({"ingress engine mapping (profile 4, format 2, command 1) is booked nowhere"});
}

/* What a missing lock breaks, a thread sanitizer says. */
TEST(VlanEngine, MayBeLookedAtWhileItIsProgrammed)
{
    VlanEngine engine([](std::string_view) {});
    std::jthread component([&] {
        for (u16 id = 1; id < L2RES_VLAN_COMMAND_COUNT; ++id) {
            const VlanEditInfo info = vlan::Info(5, 2);
            engine.program(&info, 4, id, 0x35);
        }
    });
    std::size_t seen = 0;
    while (seen < L2RES_VLAN_COMMAND_COUNT - 1) {
        seen = engine.commands(1).size();
        EXPECT_GE(engine.mappings(1).size(), seen);
        engine.send(1, 4, {VlanTag{}}, kEntry);
    }
}
