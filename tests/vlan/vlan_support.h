/* What the VLAN edit tests share: requests, the tables by direction, and the module's story. */
#ifndef TESTS_VLAN_VLAN_SUPPORT_H
#define TESTS_VLAN_VLAN_SUPPORT_H

#include <cstring>
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
inline std::string Image()
{
    std::string image;
    for (u32 direction : {1u, 2u}) {
        const Tables tables = TablesOf(direction);
        image.append(reinterpret_cast<char *>(tables.profiles), sizeof(g_iveEditProfileItem));
        image.append(reinterpret_cast<char *>(tables.commands), sizeof(g_iveEditCommandInfo));
        for (u32 i = 0; i < L2RES_VLAN_MAPPING_COUNT; ++i) {
            const auto [profile, format, command] = tables.mappings[i];
            image += std::to_string(profile) + "/" + std::to_string(format) + "/" +
                     std::to_string(command) + " ";
        }
    }
    return image;
}

/* A valid request; edit 0..255 tells command blocks apart. outerTpid is 0 unless set. */
inline VlanEditInfo Info(u32 service, u32 format, u32 edit = 0, u32 outerTpid = 0)
{
    return {service,
            format,
            1 + edit % 4,
            1 + edit / 4 % 4,
            1 + edit / 16 % 4,
            1 + edit / 64 % 4,
            outerTpid,
            3,
            2,
            4};
}

inline VlanEditCommand CommandOf(const VlanEditInfo &info)
{
    VlanEditCommand command;
    memcpy(&command, reinterpret_cast<const char *>(&info) + 8, sizeof(command));
    return command;
}

/* Everything written since the last Clear: "5 text" at the module's level 5, 1 or 2, "hook ...".
   A message that the black box is missing, or gets without cause, is left as the journal has it. */
inline journal::Lines Story()
{
    const auto lines = journal::Only(journal::kLog | journal::kBlackBox | journal::kHook);
    journal::Lines story;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string text = lines[i].size() > 7 ? lines[i].substr(7) : "";
        const std::string next = i + 1 < lines.size() ? lines[i + 1] : "";
        if (lines[i].starts_with("log 4: ")) {
            const bool event = next == "bbox 0: " + text;
            story.push_back((event ? "1 " : "2 ") + text);
            i += event;
        } else if (lines[i].starts_with("log 2: ") && next == "bbox 1: " + text) {
            story.push_back("5 " + text);
            ++i;
        } else {
            story.push_back(lines[i]);
        }
    }
    return story;
}

} // namespace vlan

#endif
