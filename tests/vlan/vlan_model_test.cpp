/*
 * Random assignments and releases in both directions against a plain model of what is booked, with
 * the simulated engine behind the hook. After every call result and tables must agree; the engine,
 * which would stay apart from the tables, is compared now and then.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <random>

#include "engine/vlan_engine.h"
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
using Triple = std::array<u32, 3>; /* profile, format, command */

Block BlockOf(const VlanEditInfo &info)
{
    return std::bit_cast<Block>(CommandOf(info));
}

/* The first place from `first` on that holds the value, or the end. */
template <class T, size_t N> u32 Find(const std::array<T, N> &table, u32 first, const T &value)
{
    return static_cast<u32>(std::find(table.begin() + first, table.end(), value) - table.begin());
}

enum Met { COMMANDS_FULL, MAPPINGS_FULL, NOTHING_TO_RELEASE, REMOVAL_FAILED, MET_COUNT };

/* What must be booked in one direction; zero is free. */
struct Model {
    u32 direction;
    std::array<u32, 64> profiles = {};
    std::array<Block, 128> commands = {};
    std::array<Triple, 128> mappings = {}; /* entry 0 takes what overflows */
    std::array<u32, MET_COUNT> met = {};

    /* The profile that is the service's whatever it holds, or 64. */
    u32 Reserved(const VlanEditInfo &info) const
    {
        const u32 first = info.servType == 2 ? 0 : info.servType == 7 && direction == 2 ? 2 : 64;
        return first == 64 || info.outerTpid == 1 ? first : first + 1;
    }

    /* The service's profile if it has one, or 64. */
    u32 Owned(const VlanEditInfo &info) const
    {
        const u32 reserved = Reserved(info);
        if (reserved == 64) {
            return Find(profiles, 4, info.servType);
        }
        return profiles[reserved] != 0 ? reserved : 64;
    }

    u32 Assign(const VlanEditInfo &info, u32 *profile)
    {
        *profile = Owned(info);
        if (const u32 reserved = Reserved(info); reserved != 64) {
            *profile = reserved;
            profiles[reserved] = info.outerTpid == 1 ? 2 : 3;
        } else if (*profile == 64) {
            *profile = Find(profiles, 4, 0u);
            profiles[*profile] = info.servType;
        }
        u32 command = Find(commands, direction, BlockOf(info));
        if (command == 128) {
            command = Find(commands, direction, Block{});
            if (command == 128) {
                ++met[COMMANDS_FULL];
                return 1;
            }
            commands[command] = BlockOf(info);
        }
        const Triple wanted = {*profile, info.tagFormat, command};
        if (Find(mappings, 1, wanted) == 128) {
            const u32 entry = Find(mappings, 1, Triple{});
            met[MAPPINGS_FULL] += entry == 128;
            mappings[entry % 128] = wanted;
        }
        return 0;
    }

    u32 Release(const VlanEditInfo &info)
    {
        const u32 profile = Owned(info);
        if (profile == 64) {
            return 0;
        }
        const u32 command = Find(commands, direction, BlockOf(info));
        const u32 entry = Find(mappings, 1, {profile, info.tagFormat, command});
        if (entry == 128) {
            ++met[NOTHING_TO_RELEASE];
            return 1;
        }
        if (g_failRemovals) {
            ++met[REMOVAL_FAILED];
            return 5;
        }
        mappings[entry] = {};
        const auto needed = [&](size_t part, u32 id) {
            return std::any_of(mappings.begin() + 1, mappings.end(), [&](const Triple &triple) {
                return triple[part] == id && triple != Triple{};
            });
        };
        /* Any other free entry keeps the mark of id 0. */
        const auto free = std::count(mappings.begin() + 1, mappings.end(), Triple{});
        if (!needed(0, profile) && (profile != 0 || free == 1)) {
            profiles[profile] = 0;
        }
        if (!needed(2, command)) {
            commands[command] = {};
        }
        return 0;
    }

    void CheckTables() const
    {
        const Tables tables = TablesOf(direction);
        std::array<Triple, 128> booked;
        std::transform(tables.mappings, tables.mappings + 128, booked.begin(),
                       [](const VlanEditMapping &entry) {
                           return Triple{entry.profileId, entry.tagFormat, entry.commandId};
                       });
        ASSERT_EQ(booked, mappings);
        ASSERT_EQ(memcmp(tables.profiles, profiles.data(), sizeof(profiles)), 0);
        ASSERT_EQ(memcmp(tables.commands, commands.data(), sizeof(commands)), 0);
    }

    void CheckEngine() const
    {
        const Tables tables = TablesOf(direction);
        EXPECT_EQ(g_engine.check(direction, {tables.profiles, tables.commands, tables.mappings}),
                  std::vector<std::string>{});
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
    ASSERT_EQ(g_refusals, std::vector<std::string>{});
    model.CheckTables();
}

} // namespace

TEST(VlanModel, RandomAssignmentsAndReleases)
{
    /* No start-up: without its services the module logs nothing, which is what so many calls need. */
    ASSERT_EQ(QorL2ResHookRegister(3, reinterpret_cast<L2ResHook>(Hook)), 0u);
    Model models[] = {{1}, {2}};
    std::vector<VlanEditInfo> requests[2];
    std::mt19937 random(20240607); /* NOLINT: the same run every time */
    const auto below = [&](size_t bound) { return static_cast<u32>(random() % bound); };

    for (u32 step = 0; step < 20000 && !testing::Test::HasFailure(); ++step) {
        const u32 which = below(2);
        auto &known = requests[which];
        /* Tables fill for a thousand steps, then drain; few or many different edits. */
        const bool assign = below(8) < (step / 1000 % 2 == 0 ? 6u : 2u);
        VlanEditInfo info =
            Info(1 + below(12), 1 + below(7), below(step / 2000 % 2 == 0 ? 200 : 6), below(4));
        if (assign) {
            known.push_back(info);
        } else if (below(4) != 0 && !known.empty()) {
            std::swap(known[below(known.size())], known.back());
            info = known.back();
            known.pop_back();
        }
        g_failRemovals = below(16) == 0;
        Step(models[which], info, assign);
        if (step % 50 == 0) {
            models[which].CheckEngine();
        }
    }
    for (const Model &model : models) {
        EXPECT_GT(*std::min_element(model.met.begin(), model.met.end()), 20u) << "hardly met";
        model.CheckEngine();
    }
}
