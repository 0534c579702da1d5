/*
 * Random assignments and releases in both directions against a plain model of what is booked, with
 * the simulated engine behind the hook. After every call result, tables and engine must agree.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <tuple>

#include "host/vlan_engine.h"
#include "support/services.h"
#include "vlan/vlan_support.h"

using namespace vlan;

namespace {

std::vector<std::string> g_refusals;
host::VlanEngine g_engine([](std::string_view line) { g_refusals.emplace_back(line); });
bool g_failRemovals;

u32 Hook(const VlanEditInfo *info, u16 profileId, u16 commandId, u32 commandFlag)
{
    if (g_failRemovals && (commandFlag & L2RES_VLAN_FLAG_REMOVE_MAPPING) != 0) {
        return 5;
    }
    return g_engine.program(info, profileId, commandId, commandFlag);
}

using Block = std::array<u32, 8>;

Block BlockOf(const VlanEditInfo &info)
{
    Block block;
    memcpy(block.data(), &info.outerTag, sizeof(block));
    return block;
}

using Triple = std::tuple<u32, u32, u32>; /* profile, format, command */

/* What must be booked in one direction. Free ids are absent. */
struct Model {
    u32 direction;
    std::map<u32, u32> profiles = {};
    std::map<u32, Block> commands = {};
    std::map<u32, Triple> mappings = {}; /* entries 1..127 */
    Triple overflow = {};
    std::map<std::string, unsigned> seen = {}; /* what the run has met */

    template <class Map> static u32 LowestFree(const Map &taken, u32 first, u32 end)
    {
        while (first < end && taken.count(first) != 0) {
            ++first;
        }
        return first;
    }

    template <class Map> static u32 Find(const Map &map, const typename Map::mapped_type &value)
    {
        for (const auto &[id, held] : map) {
            if (held == value) {
                return id;
            }
        }
        return 999;
    }

    static constexpr u32 kNone = 999;

    u32 Reserved(const VlanEditInfo &info) const
    {
        if (info.servType == 2 || (info.servType == 7 && direction == 2)) {
            return (info.servType == 2 ? 0 : 2) + (info.outerTpid == 1 ? 0 : 1);
        }
        return kNone;
    }

    /* The service's profile if it has one. */
    u32 Owned(const VlanEditInfo &info) const
    {
        if (const u32 id = Reserved(info); id != kNone) {
            return profiles.count(id) != 0 ? id : kNone;
        }
        const auto own = std::find_if(profiles.lower_bound(4), profiles.end(),
                                      [&](const auto &row) { return row.second == info.servType; });
        return own != profiles.end() ? own->first : kNone;
    }

    u32 Assign(const VlanEditInfo &info, u32 *profile)
    {
        *profile = Reserved(info);
        if (*profile != kNone) {
            profiles[*profile] = info.outerTpid == 1 ? 2 : 3;
        } else if (*profile = Owned(info); *profile == kNone) {
            *profile = LowestFree(profiles, 4, 64);
            profiles[*profile] = info.servType;
        }
        u32 command = Find(commands, BlockOf(info));
        if (command == kNone) {
            command = LowestFree(commands, direction, 128);
            if (command == 128) {
                ++seen["command table full"];
                return 1;
            }
            commands[command] = BlockOf(info);
        }
        const Triple wanted = {*profile, info.tagFormat, command};
        if (Find(mappings, wanted) == kNone) {
            const u32 entry = LowestFree(mappings, 1, 128);
            if (entry == 128) {
                ++seen["mapping overflow"];
                overflow = wanted;
            } else {
                mappings[entry] = wanted;
            }
        }
        return 0;
    }

    u32 Release(const VlanEditInfo &info)
    {
        const u32 profile = Owned(info);
        if (profile == kNone) {
            return 0;
        }
        const u32 command = Find(commands, BlockOf(info));
        const u32 entry = Find(mappings, {profile, info.tagFormat, command});
        if (command == kNone || entry == kNone) {
            ++seen["nothing to release"];
            return 1;
        }
        if (g_failRemovals) {
            ++seen["removal failed"];
            return 5;
        }
        bool keepProfile = profile == 0 && mappings.size() < 127;
        bool keepCommand = false;
        for (const auto &[other, triple] : mappings) {
            const bool sameProfile = std::get<0>(triple) == profile;
            const bool sameCommand = std::get<2>(triple) == command;
            keepProfile |= other != entry && sameProfile;
            keepCommand |= other != entry && sameCommand;
            seen["another format"] += other != entry && sameProfile && sameCommand;
        }
        mappings.erase(entry);
        if (!keepProfile) {
            profiles.erase(profile);
        }
        if (!keepCommand) {
            commands.erase(command);
        }
        return 0;
    }

    /* The module's tables as they must be now. */
    void Check() const
    {
        const Tables tables = TablesOf(direction);
        for (u32 id = 0; id < 64; ++id) {
            const auto row = profiles.find(id);
            ASSERT_EQ(tables.profiles[id], row == profiles.end() ? 0 : row->second) << id;
        }
        for (u32 id = 0; id < 128; ++id) {
            const auto row = commands.find(id);
            const Block expected = row == commands.end() ? Block{} : row->second;
            ASSERT_EQ(memcmp(&tables.commands[id], &expected, sizeof(expected)), 0) << id;
            const auto entry = mappings.find(id);
            const Triple booked = {tables.mappings[id].profileId, tables.mappings[id].tagFormat,
                                   tables.mappings[id].commandId};
            ASSERT_EQ(booked, id == 0                   ? overflow
                              : entry == mappings.end() ? Triple{}
                                                        : entry->second)
                << id;
        }
        const auto differences =
            g_engine.check(direction, {tables.profiles, tables.commands, tables.mappings});
        ASSERT_TRUE(differences.empty()) << differences[0];
        ASSERT_TRUE(g_refusals.empty()) << g_refusals[0];
    }
};

void Step(Model &model, VlanEditInfo info, bool assign)
{
    SCOPED_TRACE(testing::Message() << (assign ? "assign " : "release ") << info.servType << "/"
                                    << info.tagFormat << " direction " << model.direction);
    u32 expectedProfile = 777;
    const u32 expected = assign ? model.Assign(info, &expectedProfile) : model.Release(info);
    u16 profile = 777;
    const u32 result = assign ? Qorl2ResAssignVlanEditProfile(&info, &profile, model.direction)
                              : Qorl2ResFreeVlanEditProfile(&info, model.direction);
    ASSERT_EQ(result, expected);
    ASSERT_EQ(profile, expectedProfile);
    model.Check();
}

VlanEditInfo RequestOf(u32 service, u32 format, const Block &block)
{
    VlanEditInfo info = {service, format, 0, 0, 0, 0, 0, 0, 0, 0};
    memcpy(&info.outerTag, block.data(), sizeof(block));
    return info;
}

} // namespace

TEST(VlanModel, RandomAssignmentsAndReleases)
{
    /* No start-up: without its services the module logs nothing, which is what 40000 calls need. */
    ASSERT_EQ(QorL2ResHookRegister(3, reinterpret_cast<L2ResHook>(Hook)), 0u);
    Model models[] = {{1}, {2}};
    std::set<std::tuple<u32, u32, Block>> requests[2];
    std::mt19937 random(20240607); /* NOLINT: the same run every time */
    const auto below = [&](u32 bound) { return static_cast<u32>(random() % bound); };

    for (u32 step = 0; step < 40000; ++step) {
        const u32 which = below(2);
        /* Tables fill for a thousand steps, then drain; few or many different edits. */
        const bool assign = below(8) < (step / 1000 % 2 == 0 ? 6u : 2u);
        VlanEditInfo info =
            Info(1 + below(12), 1 + below(7), below(step / 4000 % 2 == 0 ? 200 : 6), below(4));
        if (!assign && below(4) != 0 && !requests[which].empty()) {
            auto known = requests[which].begin();
            std::advance(known, below(static_cast<u32>(requests[which].size())));
            info = std::apply(RequestOf, *known);
            requests[which].erase(known);
        } else if (assign) {
            requests[which].emplace(info.servType, info.tagFormat, BlockOf(info));
        }
        g_failRemovals = below(16) == 0;
        ASSERT_NO_FATAL_FAILURE(Step(models[which], info, assign)) << "step " << step;
    }
    g_failRemovals = false;

    for (Model &model : models) {
        for (const char *what : {"command table full", "mapping overflow", "nothing to release",
                                 "removal failed", "another format"}) {
            EXPECT_GT(model.seen[what], 20u) << what << " was hardly met";
        }
        const auto booked = model.mappings;
        for (const auto &[entry, triple] : booked) {
            const auto [profile, format, command] = triple;
            const Block block = model.commands[command];
            const u32 service = profile >= 4 ? model.profiles[profile] : profile < 2 ? 2 : 7;
            ASSERT_NO_FATAL_FAILURE(Step(model, RequestOf(service, format, block), false));
        }
        EXPECT_TRUE(model.mappings.empty());

        /* What overflowed or found no command left its command or profile behind: booked once more,
           it is released like any other. */
        const auto left = model.commands;
        for (const auto &[id, block] : left) {
            const VlanEditInfo again = RequestOf(5, 1, block);
            ASSERT_NO_FATAL_FAILURE(Step(model, again, true));
            ASSERT_NO_FATAL_FAILURE(Step(model, again, false));
        }
        for (u32 service = 1; service <= 12; ++service) {
            for (u32 outerTpid : {0u, 1u}) {
                const VlanEditInfo again = Info(service, 1, 0, outerTpid);
                ASSERT_NO_FATAL_FAILURE(Step(model, again, true));
                ASSERT_NO_FATAL_FAILURE(Step(model, again, false));
            }
        }
        EXPECT_EQ(model.profiles, (std::map<u32, u32>{{0, 2}})) << "but the mark of id 0";
        EXPECT_TRUE(model.commands.empty());
    }
}
