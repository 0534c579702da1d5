#include "script/scenario.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "script/host.h"
#include "script/lua_api.h"

namespace host {

Scenario::Scenario(Host &host) : host_(host)
{
}

/* ---- running the script ---- */

/* The text on top of the stack, printed as the scenario's own. */
static void printText(lua_State *L, Host &host)
{
    std::size_t length = 0;
    const char *text = lua_tolstring(L, -1, &length);
    host.journal.write(Kind::text, std::string_view(text, length), {});
}

/* print: through the journal, so that it stands in order with the events. May raise errors. */
static int printFunction(lua_State *L)
{
    const int count = lua_gettop(L);
    luaL_Buffer buffer;
    luaL_buffinit(L, &buffer);
    for (int i = 1; i <= count; ++i) {
        if (i > 1) {
            luaL_addchar(&buffer, '\t');
        }
        luaL_tolstring(L, i, nullptr);
        luaL_addvalue(&buffer);
    }
    luaL_pushresult(&buffer);
    printText(L, *static_cast<Host *>(lua_touserdata(L, lua_upvalueindex(1))));
    return 0;
}

void Scenario::open()
{
    main_ = luaL_newstate();
    if (main_ == nullptr) {
        throw ScriptError("no memory for the interpreter");
    }
    running_ = main_;
    luaL_openlibs(main_);
    defineFunctions(main_, host_, allFunctions());
    lua_pushlightuserdata(main_, &host_);
    lua_pushcclosure(main_, printFunction, 1);
    lua_setglobal(main_, "print");
    // A scenario that could end the process would end it unjudged.
    lua_getglobal(main_, "os");
    lua_pushnil(main_);
    setTop(main_, "exit");
    lua_pop(main_, 1);
}

void Scenario::play(const std::string &path)
{
    // Without a name the script is what comes on standard input.
    const char *file = path.empty() ? nullptr : path.c_str();
    if (luaL_loadfilex(main_, file, "t") != LUA_OK || !protectedCall(main_, 0, 0)) {
        throw ScriptError(popError(main_));
    }
    // What came last is still the scenario's, and its handlers may still fail.
    deliver();
    if (!failedExpectation_.empty()) {
        throw ScriptError(failedExpectation_);
    }
}

void Scenario::countExpectation(bool met, const std::string &complaint)
{
    ++expectations_;
    if (met) {
        return;
    }
    const std::string failure = where(running_) + complaint;
    if (failedExpectation_.empty()) {
        failedExpectation_ = failure;
    }
    throw ScriptError(complaint);
}

/* ---- notifications ---- */

void Scenario::setHandler(lua_State *L, u32 service, int index)
{
    const auto old = handlers_.find(service);
    if (old != handlers_.end()) {
        luaL_unref(L, LUA_REGISTRYINDEX, old->second);
    }
    lua_pushvalue(L, index);
    handlers_[service] = luaL_ref(L, LUA_REGISTRYINDEX);
}

template <class Key> static void pushKey(lua_State *L, const Key &key)
{
    for (const Field &field : keyFields(key)) {
        setField(L, std::string(field.name).c_str(), std::get<u64>(field.value));
    }
}

/* The re-op record as a table: the key's fields, and the waiters in arrival order. */
static void pushRecord(lua_State *L, const Notification &notification)
{
    if (std::holds_alternative<std::monostate>(notification.key)) {
        lua_pushnil(L);
        return;
    }
    lua_newtable(L);
    if (const auto *icib = std::get_if<L2ResIcibKey>(&notification.key)) {
        pushKey(L, *icib);
    } else {
        pushKey(L, std::get<L2ResIpatKey>(notification.key));
    }
    lua_newtable(L);
    lua_Integer position = 0;
    for (const Waiter &waiter : notification.waiters) {
        lua_newtable(L);
        setField(L, "service", static_cast<u64>(waiter.service));
        setField(L, "op", std::string_view(opName(waiter.op.Op)));
        setField(L, "fwd", static_cast<u64>(waiter.op.SrvType));
        setField(L, "stamp", static_cast<u64>(waiter.op.Stamp));
        lua_rawseti(L, -2, ++position);
    }
    setTop(L, "waiters");
}

u32 Scenario::handle(const Notification &notification)
{
    ++delivered_;
    const auto handler = handlers_.find(notification.service);
    if (handler == handlers_.end()) {
        return QOR_OK;
    }
    lua_State *L = running_;
    if (!lua_checkstack(L, 64)) {
        handlerError_ = handlerError_.value_or(where(L) + "handlers nested too deep");
        return QOR_FAIL;
    }
    // The handler sees (event, record, data, table).
    lua_rawgeti(L, LUA_REGISTRYINDEX, handler->second);
    lua_pushstring(L, notification.event == L2RES_EVENT_ENTRY_FREE ? "free" : "idle");
    pushRecord(L, notification);
    if (notification.data) {
        lua_pushlstring(L, notification.data->data(), notification.data->size());
    } else {
        lua_pushnil(L);
    }
    lua_pushstring(L, tableName(notification.table));
    ++depth_;
    const bool failed = !protectedCall(L, 4, 1);
    --depth_;
    if (failed) {
        const std::string error = popError(L);
        handlerError_ = handlerError_.value_or(error);
        return QOR_FAIL;
    }
    // A handler without a result was content.
    const u32 result = lua_isinteger(L, -1) ? static_cast<u32>(lua_tointeger(L, -1)) : QOR_OK;
    lua_pop(L, 1);
    return result;
}

void Scenario::deliverQueued()
{
    // Also when a condition's own call comes upon them.
    const Printer::Loud loud;
    while (const auto notification = host_.notifications.take()) {
        handle(*notification);
    }
}

void Scenario::deliver()
{
    deliverQueued();
    throwHandlerError();
}

void Scenario::throwHandlerError()
{
    if (handlerError_) {
        const std::string error = *handlerError_;
        handlerError_.reset();
        throw HandlerError(error);
    }
}

bool Scenario::wait(DeviceTime until, const std::function<bool()> &done)
{
    using namespace std::chrono;
    const auto end = host_.clock.realTime(until);
    for (;;) {
        // Before the look: what came while this thread stood still is not too late.
        const auto now = steady_clock::now();
        deliverQueued();
        throwHandlerError();
        if (done()) {
            return true;
        }
        if (interrupted_) {
            throw ScriptError("interrupted");
        }
        if (now >= end) {
            return false;
        }
        // A condition may come true without a notification: look again soon.
        host_.notifications.waitUntil(std::min(end, now + milliseconds(2)));
    }
}

/* ---- around the functions of the interface ---- */

Scenario::Running::Running(Scenario &scenario, lua_State *L)
    : scenario_(scenario), outer_(scenario.running_)
{
    scenario_.running_ = L;
}

Scenario::Running::~Running()
{
    scenario_.running_ = outer_;
}

void Scenario::Running::deliver()
{
    if (!scenario_.inHandler()) {
        scenario_.deliverQueued();
        scenario_.throwHandlerError();
    }
}

void Scenario::Running::finish()
{
    scenario_.throwHandlerError();
}

} // namespace host
