#include "watch/notifications.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "zir_memory.h"

namespace host {

static Notifications *s_notifications; // callbacks carry no context; there is one scenario

/* ---- the callbacks, one a table and service ---- */

constexpr u32 SERVICES = L2RES_SERVICE_COUNT;
constexpr u32 CELLS = L2RES_TABLE_COUNT * SERVICES;

template <std::size_t Cell> static u32 cellCallback(u32 event, void *record, void *data)
{
    return s_notifications->arrive(Cell / SERVICES, Cell % SERVICES, event, record, data);
}

template <std::size_t... Cell>
static constexpr std::array<L2ResNotifyCallback, CELLS> makeCallbacks(std::index_sequence<Cell...>)
{
    return {&cellCallback<Cell>...};
}

L2ResNotifyCallback Notifications::callback(u32 table, u32 service)
{
    static constexpr auto callbacks = makeCallbacks(std::make_index_sequence<CELLS>());
    const bool known = table < L2RES_TABLE_COUNT && service < L2RES_SERVICE_COUNT;
    return callbacks[known ? table * SERVICES + service : 0];
}

/* ---- data ---- */

std::string packData(std::string_view data)
{
    const u16 length = static_cast<u16>(data.size());
    std::string packed(sizeof length, '\0');
    std::memcpy(packed.data(), &length, sizeof length);
    return packed.append(data);
}

/* A loaded component may have asked under the script's service: its data is taken as it is. */
static std::string unpackData(const void *data)
{
    const std::string bytes(static_cast<const char *>(data), ZIR_MemSize(data));
    u16 length = 0;
    std::memcpy(&length, bytes.data(), std::min(sizeof length, bytes.size()));
    return bytes.size() == sizeof length + length ? bytes.substr(sizeof length) : bytes;
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

Notification Notifications::copy(u32 table, u32 service, u32 event, const void *record,
                                 const void *data)
{
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
        out.data = unpackData(data);
    }
    return out;
}

u64 Notifications::announce(const Notification &notification)
{
    std::vector<Field> fields = {{"event", eventName(notification.event)},
                                 {"table", tableName(notification.table)},
                                 {"service", notification.service}};
    const auto add = [&](const std::vector<Field> &more) {
        fields.insert(fields.end(), more.begin(), more.end());
    };
    if (const auto *icib = std::get_if<L2ResIcibKey>(&notification.key)) {
        add(keyFields(*icib));
    } else if (const auto *ipat = std::get_if<L2ResIpatKey>(&notification.key)) {
        add(keyFields(*ipat));
    }
    if (notification.data) {
        fields.push_back({"data", std::string_view(*notification.data)});
    }
    return journal_.write(Kind::notify, "notify", std::span<const Field>(fields));
}

/* ---- arrival ---- */

Notifications::Notifications(Journal &journal, Handler handler)
    : journal_(journal), handler_(std::move(handler))
{
    s_notifications = this;
}

u32 Notifications::arrive(u32 table, u32 service, u32 event, void *record, void *data)
{
    ++intercepted_;
    if (intercepting_) {
        const u32 result = interceptor_(table, service, event, record, data);
        --intercepted_;
        return result;
    }
    --intercepted_;
    Notification notification = copy(table, service, event, record, data);
    const u64 number = announce(notification);
    if (std::this_thread::get_id() == scenarioThread_) {
        const u32 result = handler_(notification);
        journal_.writeResult(number, "notify", result, "");
        return result;
    }
    // Before the script can hear of it: it may print, or end, at once.
    journal_.writeResult(number, "notify", QOR_OK, "");
    std::lock_guard lock(mutex_);
    queue_.push_back(std::move(notification));
    arrived_.notify_one();
    return QOR_OK;
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
