/* What the VLAN edit tests share: requests, the tables by direction, and the module's story. */
#ifndef TESTS_VLAN_VLAN_SUPPORT_H
#define TESTS_VLAN_VLAN_SUPPORT_H

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "l2rsm_registry.h"
#include "l2rsm_vlan_edit.h"
#include "support/journal.h"

namespace vlan {

struct Tables {
    u32 *profiles;
    VlanEditCommand *commands;
    VlanEditMapping *mappings;
};

inline Tables TablesOf(u32 direction)
{
    if (direction == L2RES_VLAN_EGRESS) {
        return {g_eveEditProfileItem, g_eveEditCommandInfo, g_eveEditCommandItem};
    }
    return {g_iveEditProfileItem, g_iveEditCommandInfo, g_iveEditCommandItem};
}

inline void ClearTables()
{
    for (u32 direction : {1u, 2u}) {
        const Tables tables = TablesOf(direction);
        memset(tables.profiles, 0, sizeof(g_iveEditProfileItem));
        memset(tables.commands, 0, sizeof(g_iveEditCommandInfo));
        memset(tables.mappings, 0, sizeof(g_iveEditCommandItem));
    }
}

/* All six tables, to compare. */
inline std::vector<u32> Image()
{
    std::vector<u32> image;
    for (u32 direction : {1u, 2u}) {
        const auto [profiles, commands, mappings] = TablesOf(direction);
        image.insert(image.end(), profiles, profiles + 64);
        image.insert(image.end(), &commands->outerTag, &commands[127].innerTpidAction + 1);
        for (u32 i = 0; i < 128; ++i) {
            image.insert(image.end(),
                         {mappings[i].profileId, mappings[i].tagFormat, mappings[i].commandId});
        }
    }
    return image;
}

/* A valid request; edit 0..255 tells command blocks apart. outerTpid is 0 unless set. */
inline VlanEditInfo Info(u32 service, u32 format, u32 edit = 0, u32 outerTpid = 0)
{
    const auto action = [edit](u32 digit) { return 1 + edit / digit % 4; };
    return {service, format, action(1), action(4), action(16), action(64), outerTpid, 3, 2, 4};
}

inline VlanEditCommand CommandOf(const VlanEditInfo &info)
{
    VlanEditCommand command;
    memcpy(&command, reinterpret_cast<const char *>(&info) + 8, sizeof(command));
    return command;
}

/* The blocks of a text: a line that begins with "==", and the lines up to the next such line. */
inline std::vector<std::pair<std::string, journal::Lines>> BlocksOf(const char *text)
{
    std::vector<std::pair<std::string, journal::Lines>> blocks;
    std::istringstream lines(text + 1);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("==")) {
            blocks.push_back({line, {}});
        } else {
            blocks.at(blocks.size() - 1).second.push_back(line);
        }
    }
    EXPECT_GT(blocks.size(), 1u);
    return blocks;
}

/* Everything written since the last Clear: "5 text" at the module's level 5, 1 or 2, "hook ...".
   A message that the black box is missing, or gets without cause, is left as the journal has it. */
inline journal::Lines Story()
{
    auto lines = journal::Only(journal::kLog | journal::kBlackBox | journal::kHook);
    lines.emplace_back();
    journal::Lines story;
    for (size_t i = 0; i + 1 < lines.size(); ++i) {
        const std::string text = lines[i].substr(std::min<size_t>(lines[i].size(), 7));
        const bool error = lines[i] == "log 2: " + text && lines[i + 1] == "bbox 1: " + text;
        const bool event = lines[i] == "log 4: " + text && lines[i + 1] == "bbox 0: " + text;
        const bool report = !event && lines[i].starts_with("log 4: ");
        story.push_back(error    ? "5 " + text
                        : event  ? "1 " + text
                        : report ? "2 " + text
                                 : lines[i]);
        i += error || event;
    }
    return story;
}

} // namespace vlan

#endif
