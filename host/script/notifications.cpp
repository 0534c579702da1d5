#include "script/notifications.h"

#include <utility>

#include "device/module.h"
#include "zir_memory.h"

namespace host {

static Notifications *s_notifications; // callbacks carry no context; there is one scenario

/* Of the callback that the thread is in, to be queued after it. */
static thread_local std::optional<Notification> t_arrived;

u32 Notifications::callback(u32, void *, void *)
{
    return s_notifications->arrive(crossing::notification());
}

const char *Notifications::ownerOf(L2ResNotifyCallback registered, u32 table, u32 service)
{
    return registered == nullptr                               ? "none"
           : crossing::registered(table, service) == &callback ? "scenario"
                                                               : "component";
}

/* ---- copying ---- */

static void copyWaiters(const L2ResWaitList &list, u32 service, const void *data,
                        std::vector<Waiter> &waiters)
{
    // What lies behind the notified service's own entry may be changing under us.
    for (const L2ResWaiter &entry : list.entry) {
        waiters.push_back({entry.srvType, entry.op});
        if (entry.srvType == service && entry.data == data) {
            break;
        }
    }
}

static Notification copy(const crossing::Notify &notify)
{
    const auto &[table, service, event, record, data] = notify;
    Notification out{.table = table, .service = service, .event = event};
    if (record != nullptr && table == L2RES_TABLE_ICIB) {
        const auto &icib = *static_cast<const L2ResIcibReOpRecord *>(record);
        out.key = icib.key;
        copyWaiters(icib.waiters, service, data, out.waiters);
    } else if (record != nullptr && table == L2RES_TABLE_IPAT) {
        const auto &ipat = *static_cast<const L2ResIpatReOpRecord *>(record);
        out.key = ipat.key;
        copyWaiters(ipat.waiters, service, data, out.waiters);
    }
    if (data != nullptr) {
        out.data = unpackData({static_cast<const char *>(data), ZIR_MemSize(data)});
    }
    return out;
}

/* ---- arrival ---- */

Notifications::Notifications(Handler handler) : handler_(std::move(handler))
{
    s_notifications = this;
}

u32 Notifications::arrive(const crossing::Notify &notify)
{
    ++intercepted_;
    std::optional<u32> answer;
    if (intercepting_) {
        answer =
            interceptor_(notify.table, notify.service, notify.event, notify.record, notify.data);
    }
    --intercepted_;
    if (answer) {
        return *answer;
    }
    Notification notification = copy(notify);
    if (std::this_thread::get_id() == scenarioThread_) {
        return handler_(notification);
    }
    t_arrived = std::move(notification);
    return QOR_OK;
}

void Notifications::pass(crossing::Passage &, const crossing::Next &next)
{
    next();
    if (t_arrived) {
        std::lock_guard lock(mutex_);
        queue_.push_back(std::move(*t_arrived));
        t_arrived.reset();
        arrived_.notify_one();
    }
}

std::optional<Notification> Notifications::take()
{
    std::lock_guard lock(mutex_);
    if (queue_.empty()) {
        return std::nullopt;
    }
    Notification first = std::move(queue_.front());
    queue_.pop_front();
    return first;
}

void Notifications::waitUntil(std::chrono::steady_clock::time_point time)
{
    std::unique_lock lock(mutex_);
    arrived_.wait_until(lock, time, [this] { return !queue_.empty(); });
}

void Notifications::intercept(Interceptor interceptor)
{
    interceptor_ = std::move(interceptor);
    intercepting_ = true;
}

void Notifications::stopIntercepting()
{
    intercepting_ = false;
    while (intercepted_ != 0) {
        std::this_thread::yield();
    }
}

} // namespace host
