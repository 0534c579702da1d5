/* vlan, engine: VLAN edits, what the module books of them, and what the engine makes of them. */
#include "inspect/records.h"
#include "script/host.h"
#include "script/lua_api.h"
#include "watch/leftovers.h"

namespace host {

/* ---- parameters ---- */

static Param limited(Param param, u64 max)
{
    param.max = max;
    return param;
}

static const Param s_direction =
    param::choice("direction", "where the edit happens",
                  {{"ingress", L2RES_VLAN_INGRESS}, {"egress", L2RES_VLAN_EGRESS}});

/* The fields of a request, in its order, with what they are when left out. */
static const struct {
    u32 VlanEditInfo::*field;
    Param param;
    u32 absent;
} s_requestFields[] = {
    {&VlanEditInfo::servType, param::u32("service", "service type, 1..12"), 0},
    {&VlanEditInfo::tagFormat, param::u32("format", "tag format of the frames, 1..7"), 0},
    {&VlanEditInfo::outerTag, param::u32("outer_tag", "action, 1..4; 1 when left out").optional(),
     1},
    {&VlanEditInfo::innerTag, param::u32("inner_tag", "likewise").optional(), 1},
    {&VlanEditInfo::outerPri, param::u32("outer_pri", "likewise").optional(), 1},
    {&VlanEditInfo::innerPri, param::u32("inner_pri", "likewise").optional(), 1},
    {&VlanEditInfo::outerTpid, param::u32("outer_tpid", "TPID index, 0..3").optional(), 0},
    {&VlanEditInfo::innerTpid, param::u32("inner_tpid", "TPID index, 0..3").optional(), 0},
    {&VlanEditInfo::outerTpidAction,
     param::u32("outer_tpid_action", "action, 1..4; 1 when left out").optional(), 1},
    {&VlanEditInfo::innerTpidAction, param::u32("inner_tpid_action", "likewise").optional(), 1},
};

static std::vector<Param> requestParams()
{
    std::vector<Param> params = {s_direction};
    for (const auto &row : s_requestFields) {
        params.push_back(row.param);
    }
    return params;
}

static VlanEditInfo request(const Values &args)
{
    VlanEditInfo info{};
    for (const auto &row : s_requestFields) {
        info.*row.field = static_cast<u32>(args.unsignedValue(row.param.name, row.absent));
    }
    return info;
}

/* ---- assignment, release, dump ---- */

static int vlanAssign(Call &call)
{
    u16 profileId = 0;
    const u32 result = call.host.module.assignVlan(request(call.args), &profileId,
                                                   call.args.integer<u32>("direction"));
    call.push(result);
    if (result == QOR_OK) {
        call.host.journal.write(Kind::text, "  profile:", {{"id", profileId}});
        call.push(static_cast<u64>(profileId));
    }
    return call.results;
}

static int vlanRelease(Call &call)
{
    return call.push(
        call.host.module.freeVlan(request(call.args), call.args.integer<u32>("direction")));
}

/* Prints the lines and leaves them as a list. */
static int pushLines(Call &call, const std::vector<std::string> &lines)
{
    lua_newtable(call.L);
    lua_Integer count = 0;
    for (const std::string &line : lines) {
        call.host.journal.write(Kind::text, line, {});
        lua_pushlstring(call.L, line.data(), line.size());
        lua_rawseti(call.L, -2, ++count);
    }
    return call.pushed();
}

static int vlanDump(Call &call)
{
    return pushLines(call, call.host.logCapture.during([&] { call.host.module.dumpVlan(); }));
}

/* ---- tables ---- */

/* One row of a shown table: printed, and appended as a table to the list on top of the stack. */
static void addRow(Call &call, const char *what, const std::vector<Field> &fields)
{
    call.host.journal.write(Kind::text, what, std::span<const Field>(fields));
    const auto next = static_cast<lua_Integer>(lua_rawlen(call.L, -1)) + 1;
    lua_newtable(call.L);
    for (const Field &field : fields) {
        setField(call.L, std::string(field.name).c_str(), std::get<u64>(field.value));
    }
    lua_rawseti(call.L, -2, next);
}

static void addCommand(Call &call, const char *what, u32 id, const VlanEditCommand &command)
{
    std::vector<Field> fields = wordFields(command);
    fields.insert(fields.begin(), {"id", id});
    addRow(call, what, fields);
}

/* {profiles=..., commands=..., mappings=...} of one direction, on top of the stack. */
static void showModuleTables(Call &call, const VlanTables &tables)
{
    lua_newtable(call.L);
    lua_newtable(call.L);
    for (u32 id = 0; id < L2RES_VLAN_PROFILE_COUNT; ++id) {
        if (tables.profiles[id] != 0) {
            addRow(call, "  profile:", {{"id", id}, {"service", tables.profiles[id]}});
        }
    }
    setTop(call.L, "profiles");
    lua_newtable(call.L);
    for (u32 id = 0; id < L2RES_VLAN_COMMAND_COUNT; ++id) {
        if (tables.commands[id].outerTag != 0) {
            addCommand(call, "  command:", id, tables.commands[id]);
        }
    }
    setTop(call.L, "commands");
    lua_newtable(call.L);
    for (u32 entry = 0; entry < L2RES_VLAN_MAPPING_COUNT; ++entry) {
        const auto [profile, format, command] = tables.mappings[entry];
        if (profile != 0 || format != 0) {
            addRow(
                call, "  mapping:",
                {{"entry", entry}, {"profile", profile}, {"format", format}, {"command", command}});
        }
    }
    setTop(call.L, "mappings");
}

/* {commands=..., mappings=...} of one direction, on top of the stack. */
static void showEngineTables(Call &call, u32 direction)
{
    const VlanEngine &engine = call.host.vlanEngine;
    lua_newtable(call.L);
    lua_newtable(call.L);
    for (const auto &[id, command] : engine.commands(direction)) {
        addCommand(call, "  engine command:", id, command);
    }
    setTop(call.L, "commands");
    lua_newtable(call.L);
    for (const VlanEngine::Mapping &mapping : engine.mappings(direction)) {
        addRow(call, mapping.overflow ? "  engine mapping, overflow:" : "  engine mapping:",
               {{"profile", mapping.profileId},
                {"format", mapping.tagFormat},
                {"command", mapping.commandId}});
    }
    setTop(call.L, "mappings");
}

template <class Show> static int showDirections(Call &call, const std::string &what, Show show)
{
    lua_newtable(call.L);
    for (u32 direction : {L2RES_VLAN_INGRESS, L2RES_VLAN_EGRESS}) {
        const char *name = direction == L2RES_VLAN_EGRESS ? "egress" : "ingress";
        call.host.journal.write(Kind::text, what + " " + name, {});
        show(direction);
        setTop(call.L, name);
    }
    return call.pushed();
}

static int vlanShow(Call &call)
{
    return showDirections(call, "vlan.show", [&](u32 direction) {
        showModuleTables(call, vlanTables(call.host.module, direction));
    });
}

static int engineShow(Call &call)
{
    return showDirections(call, "engine.show",
                          [&](u32 direction) { showEngineTables(call, direction); });
}

static int vlanCheck(Call &call)
{
    std::vector<std::string> differences;
    for (u32 direction : {L2RES_VLAN_INGRESS, L2RES_VLAN_EGRESS}) {
        const auto found =
            call.host.vlanEngine.check(direction, vlanTables(call.host.module, direction));
        differences.insert(differences.end(), found.begin(), found.end());
    }
    if (differences.empty()) {
        call.host.journal.write(Kind::text, "vlan.check: module and engine agree", {});
    }
    return pushLines(call, differences);
}

/* ---- frames ---- */

static const std::vector<Param> s_tag = {
    param::u16("tpid", "TPID").optional(),
    limited(param::u16("vid", "VLAN id"), 4095),
    limited(param::u8("pri", "priority").optional(), 7),
};

static VlanTags readTags(lua_State *L, int list)
{
    VlanTags tags;
    const auto count = static_cast<lua_Integer>(lua_rawlen(L, list));
    lua_Integer fields = 0;
    for (lua_pushnil(L); lua_next(L, list) != 0; lua_pop(L, 1)) {
        ++fields;
    }
    if (fields != count || count > 8) {
        throw ScriptError("engine.send: tags must be a list of at most 8 tags");
    }
    for (lua_Integer i = 1; i <= count; ++i) {
        const int top = lua_gettop(L);
        if (lua_rawgeti(L, list, i) != LUA_TTABLE) {
            throw ScriptError("engine.send: a tag must be a table, as in {vid=100, pri=5}");
        }
        const Values tag = readNamed(L, top + 1, s_tag, "engine.send: tag");
        tags.push_back({static_cast<u16>(tag.unsignedValue("tpid", 0x8100)),
                        tag.integer<u16>("vid"), tag.integer<u8>("pri")});
        lua_settop(L, top);
    }
    return tags;
}

/* "[8100 vid 100 pri 5] [8100 vid 7 pri 0]" or "untagged" */
static std::string describe(const VlanTags &tags)
{
    std::string text;
    for (const VlanTag &tag : tags) {
        char part[48];
        std::snprintf(part, sizeof part, "%s[%04x vid %u pri %u]", text.empty() ? "" : " ",
                      unsigned{tag.tpid}, unsigned{tag.vid}, unsigned{tag.pri});
        text += part;
    }
    return text.empty() ? "untagged" : text;
}

static void pushTags(lua_State *L, const VlanTags &tags)
{
    lua_newtable(L);
    lua_Integer count = 0;
    for (const VlanTag &tag : tags) {
        lua_newtable(L);
        setField(L, "tpid", static_cast<u64>(tag.tpid));
        setField(L, "vid", static_cast<u64>(tag.vid));
        setField(L, "pri", static_cast<u64>(tag.pri));
        lua_rawseti(L, -2, ++count);
    }
}

static int engineSend(Call &call)
{
    const Values &args = call.args;
    const VlanTags tags = readTags(call.L, args.stackIndex("tags"));
    const u32 direction = args.integer<u32>("direction");
    const u16 profile = args.integer<u16>("profile");
    const VlanEntry entry = {static_cast<u16>(args.unsignedValue("outer_vid", 1)),
                             static_cast<u16>(args.unsignedValue("inner_vid", 1)),
                             args.integer<u8>("outer_pri"), args.integer<u8>("inner_pri")};
    const VlanEngine::Passage passage = call.host.vlanEngine.send(direction, profile, tags, entry);

    const std::string line =
        "engine.send: " + describe(tags) + " -> " + describe(passage.tags) +
        (passage.command ? ", by command " + std::to_string(*passage.command) : ", no mapping");
    call.host.journal.write(Kind::text, line, {});
    pushTags(call.L, passage.tags);
    call.pushed();
    call.push(passage.format);
    return passage.command ? call.push(static_cast<u64>(*passage.command)) : call.results;
}

std::vector<Function> vlanFunctions()
{
    const Param vid = limited(param::u16("outer_vid", "VLAN id of the forwarding entry for a new "
                                                      "or replaced outer tag; 1 when left out")
                                  .optional(),
                              4095);
    const Param pri =
        limited(param::u8("outer_pri", "its priority; 0 when left out").optional(), 7);
    Param innerVid = vid, innerPri = pri;
    innerVid.name = "inner_vid";
    innerVid.help = "the same for the inner tag";
    innerPri.name = "inner_pri";
    innerPri.help = "the same for the inner tag";
    return {
        {"vlan", "assign", Style::named, requestParams(),
         "Asks the module for an edit profile. Actions, as this engine understands them: 1 keep, "
         "2 set, 3 clear (remove the tag, priority 0, TPID 0x8100), 4 copy from the other tag.",
         "code, and on success the profile", vlanAssign},
        {"vlan", "release", Style::named, requestParams(),
         "Undoes the assignment of the same request.",
         "code: 0 also when the service holds no profile; the engine's when it refuses",
         vlanRelease},
        {"vlan",
         "show",
         Style::positional,
         {},
         "What the module has booked.",
         "{ingress={profiles={{id, service}, ...}, commands={{id, outer_tag, ...}, ...}, "
         "mappings={{entry, profile, format, command}, ...}}, egress={...}}",
         vlanShow},
        {"vlan",
         "dump",
         Style::positional,
         {},
         "Has the module write its tables to its debug log, and prints what it writes.",
         "the list of lines",
         vlanDump},
        {"vlan",
         "check",
         Style::positional,
         {},
         "Compares what the module has booked with what the engine holds.",
         "the list of differences, empty when they agree",
         vlanCheck},
        {"engine",
         "show",
         Style::positional,
         {},
         "What the engine was told to program; the mapping programmed last comes last.",
         "{ingress={commands={{id, outer_tag, ...}, ...}, mappings={{profile, format, command}, "
         "...}}, egress={...}}",
         engineShow},
        {"engine",
         "send",
         Style::named,
         {s_direction, limited(param::u16("profile", "edit profile"), L2RES_VLAN_PROFILE_COUNT - 1),
          param::table("tags", "the frame's tags, outermost first: {{vid=100, pri=5, "
                               "tpid=0x8100}, ...}; pri 0, tpid 0x8100 when left out"),
          vid, pri, innerVid, innerPri},
         "Sends a frame through the engine under an edit profile. Tag formats: 1 untagged, 2 one "
         "C-tag (TPID 0x8100), 3 priority tag (VLAN id 0), 4 one S-tag (any other TPID), 5 S-tag "
         "outside C-tag, 6 any other two tags, 7 three or more.",
         "the tags it leaves with, its tag format, and the command that was applied if any",
         engineSend},
    };
}

} // namespace host
