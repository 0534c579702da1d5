#include <string.h>

#include "vlan_edit/vlan_direction.h"

#include "bounded.h"
#include "frame/dbg_log.h"
#include "zir_memory.h"

namespace {

/* A line of the dump, and an item of one: at most 119 characters and the terminating zero. */
enum { LINE_SIZE = 120, LINE_LENGTH_MAX = LINE_SIZE - 1 };

/* One kind of table: which entries are shown and how, and how errors are told. */
struct VlanPrinter {
    const char *VlanDirection::*header;
    u32 count;
    bool (*isShown)(const VlanDirection *direction, u32 index);
    int (*format)(char *item, const VlanDirection *direction, u32 index);
    const char *emptyText; /* follows the header when no entry is shown */
    const char *itemName;  /* in messages about an item */
    const char *emptyName; /* in messages about the empty-table text */
    bool goesOn;           /* after an error; else the table is given up, its line unwritten */
};

constexpr VlanPrinter PROFILE_PRINTER = {
    .header = &VlanDirection::profileHeader,
    .count = L2RES_VLAN_PROFILE_COUNT,
    .isShown = [](const VlanDirection *direction,
                  u32 index) { return direction->profiles[index] != 0; },
    .format =
        [](char *item, const VlanDirection *direction, u32 index) {
            return snprintf_s(item, LINE_SIZE, LINE_LENGTH_MAX, "profId:%u, srvType:%u; ", index,
                              direction->profiles[index]);
        },
    .emptyText = "NULL",
    .itemName = "prof",
    .emptyName = "prof",
    .goesOn = false,
};

constexpr VlanPrinter MAPPING_PRINTER = {
    .header = &VlanDirection::mappingHeader,
    .count = L2RES_VLAN_MAPPING_COUNT,
    .isShown =
        [](const VlanDirection *direction, u32 index) {
            const VlanEditMapping &entry = direction->mappings[index];
            return entry.profileId != 0 || entry.tagFormat != 0 || entry.commandId != 0;
        },
    .format =
        [](char *item, const VlanDirection *direction, u32 index) {
            const VlanEditMapping &entry = direction->mappings[index];
            return snprintf_s(item, LINE_SIZE, LINE_LENGTH_MAX, "profId:%u, fmt:%u, cmd:%u; ",
                              entry.profileId, entry.tagFormat, entry.commandId);
        },
    .emptyText = "all zero data",
    .itemName = "mapping",
    .emptyName = "zero",
    .goesOn = false,
};

constexpr VlanPrinter COMMAND_PRINTER = {
    .header = &VlanDirection::commandHeader,
    .count = L2RES_VLAN_COMMAND_COUNT,
    .isShown =
        [](const VlanDirection *direction, u32 index) {
            constexpr VlanEditCommand UNUSED = {};
            return ZIR_MemCmp(&direction->commands[index], &UNUSED, sizeof(UNUSED)) != 0;
        },
    .format =
        [](char *item, const VlanDirection *direction, u32 index) {
            const VlanEditCommand &entry = direction->commands[index];
            return snprintf_s(item, LINE_SIZE, LINE_LENGTH_MAX,
                              "cmd:%u, o/iTag:%u/%u, oTpid/Act:%u/%u, iTpid/Act:%u/%u, "
                              "o/iPri:%u/%u; ",
                              index, entry.outerTag, entry.innerTag, entry.outerTpid,
                              entry.outerTpidAction, entry.innerTpid, entry.innerTpidAction,
                              entry.outerPri, entry.innerPri);
        },
    .emptyText = "NULL",
    .itemName = "cmd",
    .emptyName = "null",
    .goesOn = true,
};

void WriteLine(const char *line)
{
    QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_GENERAL, "%s", line);
}

/* Appends to the line; on failure tells so under the name. */
bool Append(char *line, const char *text, const char *name)
{
    const int result = strcat_s(line, LINE_SIZE, text);
    if (result != 0) {
        QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_GENERAL, "%s strcat_s err:%d.", name,
                            result);
    }
    return result == 0;
}

/* Adds one entry to the line, which is written first when the item does not fit any more. */
bool AddItem(const VlanPrinter &printer, const VlanDirection *direction, u32 index, char *line,
             char *item)
{
    const int length = printer.format(item, direction, index);
    if (length < 0) {
        QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_GENERAL, "%s vsnprintf_s err:%d.",
                            printer.itemName, length);
        if (!printer.goesOn) {
            return false;
        }
    }
    if (strlen(item) >= LINE_SIZE - strlen(line)) {
        WriteLine(line);
        line[0] = '\0';
    }
    return Append(line, item, printer.itemName) || printer.goesOn;
}

/* Packs the entries of one table into lines. Only the first line has the header. */
void PrintTable(const VlanPrinter &printer, u32 flag)
{
    const VlanDirection *direction = VlanDirectionOf(flag);
    char line[LINE_SIZE] = {};
    char item[LINE_SIZE] = {};

    const int length =
        snprintf_s(line, LINE_SIZE, LINE_LENGTH_MAX, "%s", direction->*printer.header);
    if (length < 0) {
        QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_GENERAL, "vsnprintf_s err:%d.", length);
        return;
    }
    bool anyShown = false;
    for (u32 index = 0; index < printer.count; index++) {
        if (!printer.isShown(direction, index)) {
            continue;
        }
        anyShown = true;
        if (!AddItem(printer, direction, index, line, item)) {
            return;
        }
    }
    if (!anyShown && !Append(line, printer.emptyText, printer.emptyName) && !printer.goesOn) {
        return;
    }
    WriteLine(line);
}

} // namespace

void QorL2ResPrintVlanEditProfileRes(u32 direction)
{
    PrintTable(PROFILE_PRINTER, direction);
}

void QorL2ResPrintVlanEditMappingRes(u32 direction)
{
    PrintTable(MAPPING_PRINTER, direction);
}

void QorL2ResPrintVlanEditCmdRes(u32 direction)
{
    PrintTable(COMMAND_PRINTER, direction);
}

void QorL2ResPrintVlanEditRes(void)
{
    const u32 directions[] = {L2RES_VLAN_INGRESS, L2RES_VLAN_EGRESS};
    for (const u32 direction : directions) {
        QorL2ResPrintVlanEditProfileRes(direction);
        QorL2ResPrintVlanEditMappingRes(direction);
        QorL2ResPrintVlanEditCmdRes(direction);
    }
}
