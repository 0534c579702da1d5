/* What the primitives do for other components, beyond what assignment and release show. */
#include <gtest/gtest.h>

#include "support/faults.h"
#include "support/services.h"
#include "vlan/vlan_support.h"

using namespace vlan;

TEST(VlanPrimitives, ProfilesRunOutAndTheLowestFreeOneIsTakenNext)
{
    const struct {
        decltype(&QorL2ResGetIveProfileId) select;
        decltype(&QorL2ResFreeGetIveProfileId) find;
    } kDirections[] = {{QorL2ResGetIveProfileId, QorL2ResFreeGetIveProfileId},
                       {QorL2ResGetEveProfileId, QorL2ResFreeGetEveProfileId}};
    for (const auto &[select, find] : kDirections) {
        u16 id = 777;
        EXPECT_EQ(find(1030, &id), 0u);
        EXPECT_EQ(id, 777) << "written although nothing was found";
        for (u16 i = 0; i < 60; ++i) {
            select(static_cast<u16>(1000 + i), 0, &id);
            ASSERT_EQ(id, 4 + i);
        }
        const auto full = Image();
        select(2000, 0, &id);
        EXPECT_EQ(id, 64);
        select(1059, 0, &id);
        EXPECT_EQ(id, 63);
        EXPECT_EQ(Image(), full);
        EXPECT_EQ(find(1030, &id), 1u);
        EXPECT_EQ(id, 34);
        select(2, 3, &id);
        EXPECT_EQ(id, 1) << "its own, however full the rest";
        EXPECT_EQ(find(3, &id), 1u);
        EXPECT_EQ(id, 1);
    }
    u16 id = 777;
    g_iveEditProfileItem[50] = g_iveEditProfileItem[20] = 0;
    QorL2ResGetIveProfileId(2000, 0, &id);
    EXPECT_EQ(id, 20);
}

TEST(VlanPrimitives, CommandsAreFoundByAllTheirBytesAndRunOut)
{
    services::StartWorkingModule();
    const struct {
        decltype(&QorL2ResCmpIveCommandInfo) store, find;
        u16 first;
    } kDirections[] = {{QorL2ResCmpIveCommandInfo, QorL2ResGetIveCommandId, 1},
                       {QorL2ResCmpEveCommandInfo, QorL2ResGetEveCommandId, 2}};
    for (const auto &[store, find, first] : kDirections) {
        const VlanEditCommand command = CommandOf(Info(1, 1));
        u16 id = 777;
        faults::Fail(faults::Op::memcpy_s);
        EXPECT_EQ(store(&command, &id), 0u);
        EXPECT_EQ(store(nullptr, &id), 0u);
        EXPECT_NE(find(&command, &id), 0u);
        EXPECT_EQ(id, 777) << "written although nothing was stored or found";
        EXPECT_EQ(Story(), journal::Lines{"5 [CmpCommandInfo]memcpy fail"});
        journal::Clear();

        /* Each of the eight fields tells commands apart; then any until no id is left. */
        EXPECT_EQ(store(&command, &id), 0u);
        for (u16 next = first + 1; next <= 128; ++next) {
            VlanEditCommand other = command;
            reinterpret_cast<u32 *>(&other)[next % 8] += next;
            EXPECT_NE(find(&other, &id), 0u);
            EXPECT_EQ(store(&other, &id), 0u);
            EXPECT_EQ(id, next);
            EXPECT_EQ(store(&other, &id), next < 128 ? 1u : 0u);
            EXPECT_EQ(id, next);
        }
        EXPECT_EQ(find(&command, &id), 0u);
        EXPECT_EQ(id, first);
    }
}

TEST(VlanPrimitives, SharingTestAndClearing)
{
    struct {
        VlanEditMapping key;
        u32 mappingId, cmdFlg, profFlg;
    } const kRows[] = {
        {{4, 2, 1}, 9, 0, 0}, /* the higher of two; its other format at 10 counts for neither */
        {{5, 2, 2}, 11, 1, 0}, {{6, 2, 2}, 128, 1, 1}, {{6, 3, 2}, 12, 1, 1},
        {{6, 3, 3}, 13, 0, 1}, {{9, 1, 9}, 128, 0, 0}, {{0, 1, 4}, 14, 0, 1} /* free entries */
    };
    for (u32 flag : {1u, 2u, 77u}) {
        const Tables tables = TablesOf(flag);
        ClearTables();
        const VlanEditMapping booked[] = {{4, 2, 1}, {4, 2, 1}, {4, 3, 1}, {5, 2, 2},
                                          {6, 3, 2}, {6, 3, 3}, {0, 1, 4}};
        std::copy(std::begin(booked), std::end(booked), tables.mappings + 8);
        for (const auto &[key, mappingId, cmdFlg, profFlg] : kRows) {
            u32 flags[2] = {7, 7};
            EXPECT_EQ(QorL2ResFindVEMapping(flag, &key, &flags[0], &flags[1]), mappingId);
            EXPECT_EQ(flags[0], cmdFlg) << key.profileId << "/" << key.commandId;
            EXPECT_EQ(flags[1], profFlg) << key.profileId << "/" << key.commandId;
        }
        const VlanEditMapping key = {6, 3, 3};
        tables.profiles[6] = 5;
        tables.commands[3] = CommandOf(Info(5, 3));
        const auto image = Image();
        QorL2ReleaseVlanEditRes(flag, 128, &key, 1, 1);
        EXPECT_EQ(Image(), image);
        QorL2ReleaseVlanEditRes(flag, 128, &key, 0, 1);
        EXPECT_EQ(tables.commands[3].outerTag, 0u);
        EXPECT_EQ(tables.profiles[6], 5u);
        // The key may be the entry itself.
        QorL2ReleaseVlanEditRes(flag, 13, &tables.mappings[13], 1, 0);
        EXPECT_EQ(tables.profiles[6], 0u);
        EXPECT_EQ(tables.mappings[13].commandId, 0u);
        EXPECT_EQ(tables.mappings[12].commandId, 2u);
    }
}

TEST(VlanPrimitives, IngressMappingsOverflowIntoEntryZero)
{
    for (u16 command : {u16{0}, u16{128}, u16{0xFFFF}}) {
        EXPECT_EQ(QorL2ResCmpIveCommandMapping(1, 4, command), 0u);
    }
    for (u16 command = 1; command < 128; ++command) {
        EXPECT_EQ(QorL2ResCmpIveCommandMapping(1, 4, command), 0u);
        EXPECT_EQ(QorL2ResCmpIveCommandMapping(1, 4, command), 1u);
        EXPECT_EQ(g_iveEditCommandItem[command].commandId, command);
    }
    for (u32 format : {2u, 2u, 3u}) {
        EXPECT_EQ(QorL2ResCmpIveCommandMapping(format, 4, 5), 0u) << "entry 0 is not searched";
        EXPECT_EQ(g_iveEditCommandItem[0].tagFormat, format);
    }
    QorL2ResGetIveMappingInfo(7, 8, 9, 127);
    EXPECT_EQ(g_iveEditCommandItem[127].profileId, 8);
    QorL2ResGetIveMappingInfo(0, 0, 9, 60);
    EXPECT_EQ(QorL2ResCmpIveCommandMapping(4, 4, 5), 0u);
    EXPECT_EQ(g_iveEditCommandItem[60].tagFormat, 4u) << "free whatever its command";
}
