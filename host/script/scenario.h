/*
 * A scenario: a Lua script with the host's functions, on one thread.
 *
 * Handlers of on.notify run on the interpreter that is running when the notification comes. An
 * error in a handler that the module called cannot pass through the module: it is kept and ends
 * the script when the module's call has returned.
 */
#ifndef HOST_SCENARIO_H
#define HOST_SCENARIO_H

#include <atomic>
#include <functional>
#include <lua.hpp>
#include <map>
#include <optional>
#include <string>

#include "device/clock.h"
#include "script/notifications.h"

namespace host {

struct Host;

class Scenario {
public:
    explicit Scenario(Host &host);

    /* Starts the interpreter. */
    void open();
    lua_State *state() const // the interpreter's main thread
    {
        return main_;
    }
    /* Plays the script. Throws ScriptError with position and reason. */
    void play(const std::string &path);
    /* Handles what other threads queued. Throws what a handler left behind. */
    void deliver();
    /* Ends the waits from here on, or ends them no more; also from a signal handler. */
    void interrupt(bool on)
    {
        interrupted_ = on;
    }
    bool interrupted() const
    {
        return interrupted_;
    }

    /* The function at the stack index becomes the handler of the service. */
    void setHandler(lua_State *L, u32 service, int index);

    /* Runs the script's handler; its result, 0 without one. Errors are kept for later. */
    u32 handle(const Notification &notification);

    /* Waits in device time, running handlers, until `done` or `until`. Whether it was done. */
    bool wait(DeviceTime until, const std::function<bool()> &done);

    void countExpectation(bool met, const std::string &complaint);
    u64 expectations() const
    {
        return expectations_;
    }
    u64 delivered() const // handled notifications so far, with and without a handler
    {
        return delivered_;
    }
    bool inHandler() const
    {
        return depth_ != 0;
    }

    /* Around a function of the interface: L is the running interpreter. */
    class Running {
    public:
        Running(Scenario &scenario, lua_State *L);
        ~Running();
        Running(const Running &) = delete;
        Running &operator=(const Running &) = delete;
        void deliver(); // what other threads queued; not from inside a handler
        void finish();  // throws what a handler left behind

    private:
        Scenario &scenario_;
        lua_State *outer_;
    };

private:
    void deliverQueued();
    void throwHandlerError();

    Host &host_;
    lua_State *main_ = nullptr;
    lua_State *running_ = nullptr;
    std::map<u32, int> handlers_; // registry references by service
    std::optional<std::string> handlerError_;
    std::string failedExpectation_; // first one, also when the script caught it
    u64 expectations_ = 0;
    u64 delivered_ = 0;
    int depth_ = 0;
    std::atomic<bool> interrupted_ = false;
};

} // namespace host

#endif
