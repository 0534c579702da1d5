#include "engine/vlan_engine.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace host {

static constexpr u32 directionBits = L2RES_VLAN_FLAG_INGRESS | L2RES_VLAN_FLAG_EGRESS;
static constexpr std::size_t mappingPlaces = L2RES_VLAN_MAPPING_COUNT - 1; // and the overflow place
static constexpr std::array<u16, 4> tpids = {0x8100, 0x88A8, 0x9100, 0x9200};

enum Action : u32 { keep = 1, set = 2, clear = 3, copy = 4 };

/* "profile 4, format 2, command 1" */
static std::string describe(u16 profileId, u32 tagFormat, u16 commandId)
{
    return "profile " + std::to_string(profileId) + ", format " + std::to_string(tagFormat) +
           ", command " + std::to_string(commandId);
}

static std::string hex(u32 value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%02x", value);
    return text;
}

static bool sameCommand(const VlanEditCommand &a, const VlanEditCommand &b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

static VlanEditCommand commandOf(const VlanEditInfo &info)
{
    return {info.outerTag,  info.innerTag,  info.outerPri,        info.innerPri,
            info.outerTpid, info.innerTpid, info.outerTpidAction, info.innerTpidAction};
}

static bool validCommand(const VlanEditCommand &command)
{
    const auto isAction = [](u32 code) { return code >= keep && code <= copy; };
    return isAction(command.outerTag) && isAction(command.innerTag) && isAction(command.outerPri) &&
           isAction(command.innerPri) && isAction(command.outerTpidAction) &&
           isAction(command.innerTpidAction) && command.outerTpid < tpids.size() &&
           command.innerTpid < tpids.size();
}

static bool validFlag(u32 commandFlag)
{
    const u32 direction = commandFlag & directionBits;
    const u32 actions = commandFlag & ~directionBits;
    return (direction == L2RES_VLAN_FLAG_INGRESS || direction == L2RES_VLAN_FLAG_EGRESS) &&
           (actions == L2RES_VLAN_FLAG_REMOVE_MAPPING || actions == L2RES_VLAN_FLAG_NEW_COMMAND ||
            actions == L2RES_VLAN_FLAG_NEW_MAPPING ||
            actions == (L2RES_VLAN_FLAG_NEW_COMMAND | L2RES_VLAN_FLAG_NEW_MAPPING));
}

u32 VlanEngine::program(const VlanEditInfo *info, u16 profileId, u16 commandId, u32 commandFlag)
{
    std::lock_guard lock(mutex_);
    if (info == nullptr || !validFlag(commandFlag)) {
        refusals_(info == nullptr
                      ? "vlan engine refuses: no request"
                      : "vlan engine refuses: unknown command flag " + hex(commandFlag));
        return 1;
    }
    const bool egress = (commandFlag & L2RES_VLAN_FLAG_EGRESS) != 0;
    const u32 actions = commandFlag & ~directionBits;
    Half &half = halves_[egress ? 1 : 0];

    const std::string why = refusal(half, info, profileId, commandId, actions);
    if (!why.empty()) {
        refusals_("vlan engine refuses " + std::string(egress ? "egress " : "ingress ") +
                  hex(commandFlag) + " for " + describe(profileId, info->tagFormat, commandId) +
                  ": " + why);
        return 1;
    }
    if (actions == L2RES_VLAN_FLAG_REMOVE_MAPPING) {
        removeMapping(half, profileId, info->tagFormat, commandId);
        return 0;
    }
    if ((actions & L2RES_VLAN_FLAG_NEW_COMMAND) != 0) {
        half.commands[commandId] = commandOf(*info);
    }
    if ((actions & L2RES_VLAN_FLAG_NEW_MAPPING) != 0) {
        addMapping(half, profileId, info->tagFormat, commandId);
    }
    return 0;
}

/* Why the engine does not do it, or "". */
std::string VlanEngine::refusal(const Half &half, const VlanEditInfo *info, u16 profileId,
                                u16 commandId, u32 actions)
{
    if (profileId >= L2RES_VLAN_PROFILE_COUNT || commandId >= L2RES_VLAN_COMMAND_COUNT ||
        info->tagFormat < 1 || info->tagFormat > 7) {
        return "out of range";
    }
    if (actions == L2RES_VLAN_FLAG_REMOVE_MAPPING) {
        const bool held =
            std::any_of(half.mappings.begin(), half.mappings.end(), [&](const Mapping &mapping) {
                return mapping.names(profileId, info->tagFormat, commandId);
            });
        return held ? "" : "it holds no such mapping";
    }
    const VlanEditCommand wanted = commandOf(*info);
    if (!validCommand(wanted)) {
        return "an action code or TPID index is out of range";
    }
    const auto stored = half.commands.find(commandId);
    const bool equal = stored != half.commands.end() && sameCommand(stored->second, wanted);
    if (equal) {
        return "";
    }
    if ((actions & L2RES_VLAN_FLAG_NEW_COMMAND) == 0) {
        return stored == half.commands.end() ? "it was never given that command"
                                             : "that command is another one";
    }
    const bool inUse =
        std::any_of(half.mappings.begin(), half.mappings.end(), [&](const Mapping &mapping) {
            return !mapping.overflow && mapping.commandId == commandId;
        });
    return inUse ? "a mapping still uses that command id for another command" : "";
}

void VlanEngine::addMapping(Half &half, u16 profileId, u32 tagFormat, u16 commandId)
{
    auto &mappings = half.mappings;
    const auto isRegular = [](const Mapping &mapping) { return !mapping.overflow; };
    // Programmed again, a mapping becomes the newest.
    std::erase_if(mappings, [&](const Mapping &mapping) {
        return isRegular(mapping) && mapping.names(profileId, tagFormat, commandId);
    });
    const auto regular = std::count_if(mappings.begin(), mappings.end(), isRegular);
    const bool overflow = static_cast<std::size_t>(regular) >= mappingPlaces;
    if (overflow) {
        std::erase_if(mappings, [](const Mapping &mapping) { return mapping.overflow; });
    }
    mappings.push_back({profileId, tagFormat, commandId, overflow});
}

void VlanEngine::removeMapping(Half &half, u16 profileId, u32 tagFormat, u16 commandId)
{
    auto &mappings = half.mappings;
    // Held twice, also in the overflow place, a mapping loses its regular place.
    auto found = mappings.end();
    for (auto it = mappings.begin(); it != mappings.end(); ++it) {
        if (it->names(profileId, tagFormat, commandId) &&
            (found == mappings.end() || !it->overflow)) {
            found = it;
        }
    }
    mappings.erase(found);
}

u32 vlanFormat(const VlanTags &tags)
{
    const auto isC = [](const VlanTag &tag) { return tag.tpid == tpids[0]; };
    switch (tags.size()) {
    case 0:
        return 1;
    case 1:
        if (tags[0].vid == 0) {
            return 3;
        }
        return isC(tags[0]) ? 2 : 4;
    case 2:
        return !isC(tags[0]) && isC(tags[1]) ? 5 : 6;
    default:
        return 7;
    }
}

namespace {

/* What a command and the forwarding entry say about one of the two tags. */
struct TagEdit {
    u32 tag, pri, tpidAction, tpid;
    u16 newVid;
    u8 newPri;
};

using MaybeTag = std::optional<VlanTag>;

template <class T> T edited(u32 action, T own, T newValue, T cleared, std::optional<T> other)
{
    switch (action) {
    case set:
        return newValue;
    case clear:
        return cleared;
    case copy:
        return other.value_or(own);
    default:
        return own;
    }
}

MaybeTag editedTag(const MaybeTag &own, const MaybeTag &other, const TagEdit &edit)
{
    const bool added = edit.tag == set || (edit.tag == copy && other);
    if (edit.tag == clear || (!own && !added)) {
        return std::nullopt;
    }
    VlanTag tag = own.value_or(VlanTag{});
    std::optional<u16> otherVid, otherTpid;
    std::optional<u8> otherPri;
    if (other) {
        otherVid = other->vid;
        otherTpid = other->tpid;
        otherPri = other->pri;
    }
    tag.vid = edited<u16>(edit.tag, tag.vid, edit.newVid, 0, otherVid);
    tag.pri = edited<u8>(edit.pri, tag.pri, edit.newPri, 0, otherPri);
    tag.tpid = edited<u16>(edit.tpidAction, tag.tpid, tpids[edit.tpid], tpids[0], otherTpid);
    return tag;
}

VlanTags applied(const VlanEditCommand &command, const VlanTags &tags, const VlanEntry &entry)
{
    const MaybeTag outer = !tags.empty() ? MaybeTag(tags[0]) : std::nullopt;
    const MaybeTag inner = tags.size() > 1 ? MaybeTag(tags[1]) : std::nullopt;
    VlanTags result;
    if (const MaybeTag tag = editedTag(outer, inner,
                                       {command.outerTag, command.outerPri, command.outerTpidAction,
                                        command.outerTpid, entry.outerVid, entry.outerPri})) {
        result.push_back(*tag);
    }
    if (const MaybeTag tag = editedTag(inner, outer,
                                       {command.innerTag, command.innerPri, command.innerTpidAction,
                                        command.innerTpid, entry.innerVid, entry.innerPri})) {
        result.push_back(*tag);
    }
    if (tags.size() > 2) {
        result.insert(result.end(), tags.begin() + 2, tags.end());
    }
    return result;
}

} // namespace

VlanEngine::Passage VlanEngine::send(u32 direction, u16 profileId, const VlanTags &tags,
                                     const VlanEntry &entry) const
{
    std::lock_guard lock(mutex_);
    const Half &engine = half(direction);
    const u32 format = vlanFormat(tags);
    const auto mapping = std::find_if(
        engine.mappings.rbegin(), engine.mappings.rend(), [&](const Mapping &candidate) {
            return candidate.profileId == profileId && candidate.tagFormat == format;
        });
    if (mapping == engine.mappings.rend()) {
        return {format, std::nullopt, tags};
    }
    const u16 id = mapping->commandId;
    return {format, id, applied(engine.commands.at(id), tags, entry)};
}

static bool isBooked(const VlanEditMapping &entry)
{
    return entry.tagFormat != 0 || entry.profileId != 0;
}

static void checkBooked(std::vector<std::string> &differences, const std::string &where,
                        const VlanTables &tables, const std::vector<VlanEngine::Mapping> &held)
{
    for (u32 i = 0; i < L2RES_VLAN_MAPPING_COUNT; ++i) {
        const VlanEditMapping &entry = tables.mappings[i];
        const auto [profile, format, command] = entry;
        if (!isBooked(entry)) {
            continue;
        }
        const std::string what = where + "mapping entry " + std::to_string(i) + " (" +
                                 describe(profile, format, command) + ")";
        if (std::none_of(held.begin(), held.end(), [&](const VlanEngine::Mapping &mapping) {
                return mapping.names(entry.profileId, entry.tagFormat, entry.commandId);
            })) {
            differences.push_back(what + " is not in the engine");
        }
        // What overflowed into entry 0 is met by no search, so it keeps nothing taken.
        if (i != 0 && (profile >= L2RES_VLAN_PROFILE_COUNT || tables.profiles[profile] == 0)) {
            differences.push_back(what + " names a free profile");
        }
        if (i != 0 &&
            (command >= L2RES_VLAN_COMMAND_COUNT || tables.commands[command].outerTag == 0)) {
            differences.push_back(what + " names a free command");
        }
    }
}

static void checkCommands(std::vector<std::string> &differences, const std::string &where,
                          const VlanTables &tables, const std::map<u16, VlanEditCommand> &held)
{
    for (u16 id = 0; id < L2RES_VLAN_COMMAND_COUNT; ++id) {
        const VlanEditCommand &booked = tables.commands[id];
        const auto stored = held.find(id);
        if (booked.outerTag == 0 || (stored != held.end() && sameCommand(stored->second, booked))) {
            continue;
        }
        differences.push_back(
            where + "command " + std::to_string(id) +
            (stored == held.end() ? " is not in the engine" : " is another one in the engine"));
    }
}

static void checkHeld(std::vector<std::string> &differences, const std::string &where,
                      const VlanTables &tables, const std::vector<VlanEngine::Mapping> &held)
{
    const auto *end = tables.mappings + L2RES_VLAN_MAPPING_COUNT;
    for (const VlanEngine::Mapping &mapping : held) {
        if (std::none_of(tables.mappings, end, [&](const VlanEditMapping &entry) {
                return isBooked(entry) &&
                       mapping.names(entry.profileId, entry.tagFormat, entry.commandId);
            })) {
            differences.push_back(
                where + "engine mapping (" +
                describe(mapping.profileId, mapping.tagFormat, mapping.commandId) +
                ") is booked nowhere");
        }
    }
}

std::vector<std::string> VlanEngine::check(u32 direction, const VlanTables &tables) const
{
    const std::string where = direction == L2RES_VLAN_EGRESS ? "egress " : "ingress ";
    std::vector<std::string> differences;
    std::lock_guard lock(mutex_);
    checkBooked(differences, where, tables, half(direction).mappings);
    checkCommands(differences, where, tables, half(direction).commands);
    checkHeld(differences, where, tables, half(direction).mappings);
    return differences;
}

} // namespace host
