/*
 * How a notification of the module reaches the scenario.
 *
 * The callback that the scenario registers copies what it is given. On the scenario's own thread the
 * script's handler runs at once, inside the module's call, and may get and free tokens; its result goes
 * back to the module. On any other thread the notification is queued and answered with 0, for the
 * worker holds a mutex during its walk and must not wait for Lua; the script receives it in host.wait,
 * host.wait_for or at its next call of a host function.
 */
#ifndef HOST_NOTIFICATIONS_H
#define HOST_NOTIFICATIONS_H

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "crossing/crossing.h"
#include "l2rsm_component.h"

namespace host {

struct Waiter {
    u32 service;
    L2ResOpRecord op;
};

struct Notification {
    u32 table, service, event;
    std::variant<std::monostate, L2ResIcibKey, L2ResIpatKey> key{}; // none with event 2
    std::vector<Waiter> waiters{}; // up to the notified service's own, which is the last
    std::optional<std::string> data{};
};

class Notifications : public crossing::Listener {
public:
    using Handler = std::function<u32(const Notification &)>;
    /* Sees every callback raw, on any thread, and answers those of its own (host.stress). */
    using Interceptor = std::function<std::optional<u32>(u32 table, u32 service, u32 event,
                                                         void *record, void *data)>;

    /* On the scenario's thread, which is the one that runs `handler`. */
    explicit Notifications(Handler handler);

    /* The function to register, for every table and service. */
    static u32 callback(u32 event, void *record, void *data);

    /* Whose a registered callback is: "scenario", "component", or "none" for null. */
    static const char *ownerOf(L2ResNotifyCallback registered, u32 table, u32 service);

    /* What is queued is handed on when the module has its answer, and every listener has seen it. */
    void pass(crossing::Passage &passage, const crossing::Next &next) override;

    /* The oldest queued notification. */
    std::optional<Notification> take();

    /* Waits until something is queued or the real time has come. */
    void waitUntil(std::chrono::steady_clock::time_point time);

    void intercept(Interceptor interceptor); // none runs while this is called
    void stopIntercepting();                 // waits for those that run

private:
    u32 arrive(const crossing::Notify &notify);

    const Handler handler_;
    const std::thread::id scenarioThread_ = std::this_thread::get_id();
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<Notification> queue_;
    Interceptor interceptor_;
    std::atomic<bool> intercepting_ = false;
    std::atomic<int> intercepted_ = 0; // callbacks inside the interceptor
};

} // namespace host

#endif
