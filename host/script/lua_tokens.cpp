/* icib, ipat, ecib, notify, on: services register, take and free tokens, and are notified. */
#include "inspect/records.h"
#include "script/host.h"
#include "script/lua_api.h"

namespace host {

/* ---- parameters ---- */

static std::vector<Param> join(std::vector<Param> list, const std::vector<Param> &more)
{
    list.insert(list.end(), more.begin(), more.end());
    return list;
}

static const Param s_service = param::u32("service", "service type of the client, 0..8");

/* Of a service that exists: one above would be told nothing, ever. */
static Param handledService()
{
    Param service = s_service;
    service.max = L2RES_SERVICE_COUNT - 1;
    return service;
}

static const std::vector<Param> s_icibKey = {
    param::u32("keytype", "kind of ICIB key").optional(),
    param::u16("port", "global port").optional(),
    param::u16("vsi", "VSI").optional(),
    param::u16("outvlan", "outer VLAN").optional(),
    param::u16("innervlan", "inner VLAN").optional(),
    param::u32("pri", "priority").optional(),
    param::u32("vdc", "VDC").optional(),
    param::u32("attr1", "further attribute of the key").optional(),
    param::u32("attr2", "further attribute of the key").optional(),
    param::u32("attr3", "further attribute of the key").optional(),
};

static const std::vector<Param> s_ipatKey = {
    param::u32("unit", "unit").optional(),
    param::u32("port", "port").optional(),
};

static const std::vector<Param> s_request = {
    s_service,
    param::u16("fwd", "forwarding type, what the rules compare"),
    param::u64("stamp", "time stamp of the request"),
    param::text("data", "given back when the service is notified; none when left out").optional(),
};

static const Param s_freedOp = param::choice(
    "op", "operation whose token is freed; \"delete\" removes an ICIB entry's record",
    {{"add", L2RES_OP_ADD}, {"update", L2RES_OP_UPDATE}, {"delete", L2RES_OP_DELETE}});

static L2ResIcibKey icibKey(const Values &args)
{
    L2ResIcibKey key{};
    eachField(key, [&](const Row &row, auto &field) {
        field = args.integer<std::remove_reference_t<decltype(field)>>(row.word);
    });
    return key;
}

static TokenRequest tokenRequest(const Values &args, TokenTable table, u32 op)
{
    TokenRequest request{.table = table, .service = args.integer<u32>("service"), .op = op};
    if (table == TokenTable::icib) {
        request.icib = icibKey(args);
    } else {
        request.ipat = {args.integer<u32>("unit"), args.integer<u32>("port")};
    }
    return request;
}

/* ---- tokens ---- */

template <TokenTable Table, u32 Op> static int getToken(Call &call)
{
    TokenRequest request = tokenRequest(call.args, Table, Op);
    request.fwd = call.args.integer<u16>("fwd");
    request.stamp = call.args.unsignedValue("stamp");
    if (call.args.has("data")) {
        request.data = packData(call.args.text("data"));
    }
    const u32 result = call.host.module.getToken(request);
    call.push(result);
    return call.push(std::string_view(tokenMeaning(result)));
}

template <TokenTable Table> static int freeToken(Call &call)
{
    const u32 op = call.args.integer<u32>("op");
    return call.push(call.host.module.freeToken(tokenRequest(call.args, Table, op)));
}

static void pushQueryEntry(Call &call, const L2ResQueryEntry &entry)
{
    lua_newtable(call.L);
    setField(call.L, "fwd", static_cast<u64>(entry.servicename));
    setField(call.L, "op", std::string_view(opName(entry.optype)));
    setField(call.L, "stamp", static_cast<u64>(entry.time));
    call.host.journal.write(
        Kind::text, entry.iswaiting ? "  waiting:" : "  holder: ",
        {{"fwd", entry.servicename}, {"op", opName(entry.optype)}, {"stamp", entry.time}});
}

static int icibShow(Call &call)
{
    std::vector<L2ResQueryEntry> entries;
    if (call.host.module.icibGet(icibKey(call.args), &entries) != QOR_OK) {
        throw ScriptError("icib.show: the module refused the query");
    }
    lua_State *L = call.L;
    lua_newtable(L);
    const int found = lua_gettop(L);
    lua_newtable(L);
    const int waiters = lua_gettop(L);
    lua_Integer count = 0;
    for (const L2ResQueryEntry &entry : entries) {
        pushQueryEntry(call, entry);
        if (entry.iswaiting) {
            lua_rawseti(L, waiters, ++count);
        } else {
            lua_pushvalue(L, found);
            lua_insert(L, -2);
            setTop(L, "holder");
            lua_settop(L, waiters);
        }
    }
    setTop(L, "waiters");
    return call.pushed();
}

/* ---- registration ---- */

template <u32 (Module::*Register)(u32, L2ResNotifyCallback)> static int registerService(Call &call)
{
    return call.push(
        (call.host.module.*Register)(call.args.integer<u32>("service"), Notifications::callback));
}

static int notifyRegister(Call &call)
{
    return call.push(call.host.module.notifyRegister(call.args.integer<u32>("table"),
                                                     call.args.integer<u32>("service"),
                                                     Notifications::callback));
}

static int onNotify(Call &call)
{
    call.host.scenario.setHandler(call.L, call.args.integer<u32>("service"),
                                  call.args.stackIndex("handler"));
    return 0;
}

/* ---- rows ---- */

static const char *const s_tokenReturns =
    "code, word: 0 \"proceed\", 1 \"refused\", 3 \"no entry, waiting\", 4 \"wait\"";

template <TokenTable Table>
static void addTokenRows(std::vector<Function> &rows, const char *topic,
                         const std::vector<Param> &key)
{
    const auto request = join(s_request, key);
    rows.push_back({topic, "add", Style::named, request, "Asks to add the entry.", s_tokenReturns,
                    getToken<Table, L2RES_OP_ADD>});
    rows.push_back({topic, "update", Style::named, request,
                    "Asks to update the entry. An update that has to wait is told 0, too.",
                    s_tokenReturns, getToken<Table, L2RES_OP_UPDATE>});
    rows.push_back({topic, "delete", Style::named, request, "Asks to delete the entry.",
                    s_tokenReturns, getToken<Table, L2RES_OP_DELETE>});
}

std::vector<Function> tokenFunctions()
{
    std::vector<Function> rows;
    rows.push_back({"icib",
                    "register",
                    Style::named,
                    {s_service},
                    "Registers a service for the ICIB table.",
                    "code",
                    registerService<&Module::icibRegister>});
    addTokenRows<TokenTable::icib>(rows, "icib", s_icibKey);
    rows.push_back({"icib", "free", Style::named, join({s_service, s_freedOp}, s_icibKey),
                    "Frees a token and notifies the entry's waiters.",
                    "code: 0, or 1 when the entry has no record", freeToken<TokenTable::icib>});
    rows.push_back({"icib", "show", Style::named, s_icibKey,
                    "Who holds the entry and who waits for it.",
                    "{holder={fwd, op, stamp} or nil, waiters={{fwd, op, stamp}, ...}}", icibShow});
    rows.push_back({"ipat",
                    "register",
                    Style::named,
                    {s_service},
                    "Registers a service for the IPAT table.",
                    "code",
                    registerService<&Module::ipatRegister>});
    addTokenRows<TokenTable::ipat>(rows, "ipat", s_ipatKey);
    rows.push_back({"ipat", "free", Style::named, join({s_service, s_freedOp}, s_ipatKey),
                    "Removes the entry's record and notifies its waiters.",
                    "code: of the last notification, or 0", freeToken<TokenTable::ipat>});
    rows.push_back({"ecib",
                    "register",
                    Style::named,
                    {s_service},
                    "Registers a service for the ECIB table.",
                    "code",
                    registerService<&Module::ecibRegister>});
    rows.push_back({"notify",
                    "register",
                    Style::named,
                    {param::choiceOrU32("table", "table to be told about",
                                        {{"icib", L2RES_TABLE_ICIB},
                                         {"ecib", L2RES_TABLE_ECIB},
                                         {"ipat", L2RES_TABLE_IPAT},
                                         {"lem", L2RES_TABLE_LEM},
                                         {"sem", L2RES_TABLE_SEM}}),
                     s_service},
                    "Registers a service for any table.",
                    "code",
                    notifyRegister});
    rows.push_back(
        {"on",
         "notify",
         Style::positional,
         {handledService(), param::function("handler", "function(event, record, data, table)")},
         "What the service does when it is notified; an integer it returns goes back "
         "to the module.",
         "",
         onNotify});
    return rows;
}

} // namespace host
