/*
 * How a notification of the module reaches the scenario.
 *
 * The module's callbacks name neither table nor service, so each pair has a C function of its own.
 * The callback copies what it is given. On the scenario's own thread the script's handler runs at
 * once, inside the module's call, and may get and free tokens; its result goes back to the module.
 * On any other thread the notification is queued and answered with 0, for the worker holds a mutex
 * during its walk and must not wait for Lua; the script receives it in host.wait, host.wait_for or
 * at its next call of a host function.
 *
 * Data that the host hands in with a request begins with its length, because a callback is given
 * none.
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

#include "crossing/journal.h"
#include "inspect/words.h"
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

/* A request's data as the module is to keep it. At most 65533 bytes. */
std::string packData(std::string_view data);

class Notifications {
public:
    using Handler = std::function<u32(const Notification &)>;
    /* Takes every callback raw, on any thread, in place of the above (host.stress). */
    using Interceptor =
        std::function<u32(u32 table, u32 service, u32 event, void *record, void *data)>;

    /* On the scenario's thread, which is the one that runs `handler`. */
    Notifications(Journal &journal, Handler handler);

    /* The function to register for a table and service; also for numbers the module refuses. */
    static L2ResNotifyCallback callback(u32 table, u32 service);

    /* The oldest queued notification. */
    std::optional<Notification> take();

    /* Waits until something is queued or the real time has come. */
    void waitUntil(std::chrono::steady_clock::time_point time);

    void intercept(Interceptor interceptor); // none runs while this is called
    void stopIntercepting();                 // waits for those that run

    u32 arrive(u32 table, u32 service, u32 event, void *record, void *data);

private:
    Notification copy(u32 table, u32 service, u32 event, const void *record, const void *data);
    u64 announce(const Notification &notification);

    Journal &journal_;
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
