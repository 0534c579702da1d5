// A platform as plain as can be, for the tests: written from docs/platform.md alone, in standard
// calls, and watchful. A caller that breaks a rule of that page is stopped with a line that names it.
// PLAIN_BREAK takes one promise away, for the tests of platform-check.
#include "include/plain.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#ifndef PLAIN_BREAK
#define PLAIN_BREAK kNothing
#endif

namespace {

enum Broken { kNothing, kRecursion, kIteration, kAlignment, kBounds, kRepeating, kOrder };
constexpr Broken kBroken = PLAIN_BREAK;

void Rule(bool kept, const char *rule)
{
    if (!kept) {
        fprintf(stderr, "plain platform: rule broken: %s\n", rule);
        abort();
    }
}

thread_local u64 t_held = 0; // the bits of the mutexes that this thread holds

// ---- memory ----

struct alignas(16) Block {
    u64 size, partition, live;
};
constexpr u64 kLive = 0x4556494C;
std::atomic<u64> g_blocks[256], g_bytes[256];
std::atomic<u32> g_memHandles{0};

} // namespace

u32 ZIR_HandleInitialize(const char *name, u32 *handle)
{
    Rule(name != nullptr && handle != nullptr, "no null argument");
    *handle = ++g_memHandles;
    return 0;
}

void *ZIR_MemAlloc(u32 handle, u8 partition, u64 size)
{
    Rule(handle != 0 && handle <= g_memHandles, "a memory handle comes from ZIR_HandleInitialize");
    Rule(size != 0, "no memory of 0 bytes is asked for");
    auto *block = static_cast<Block *>(malloc(sizeof(Block) + size));
    if (block == nullptr) {
        return nullptr;
    }
    *block = {size, partition, kLive};
    ++g_blocks[partition];
    g_bytes[partition] += size;
    return block + 1;
}

u32 ZIR_MemFree(u32 handle, void *data)
{
    Rule(handle != 0 && handle <= g_memHandles, "a memory handle comes from ZIR_HandleInitialize");
    auto *block = static_cast<Block *>(data) - 1;
    Rule(data != nullptr && block->live == kLive, "what is freed is a live block");
    --g_blocks[block->partition];
    g_bytes[block->partition] -= block->size;
    block->live = 0;
    free(block);
    return 0;
}

int ZIR_MemCmp(const void *a, const void *b, u64 size)
{
    return memcmp(a, b, size);
}

void ZIR_PartitionGetStat(u8 partition, ZIR_PartitionStat *stat)
{
    *stat = {g_blocks[partition], g_bytes[partition]};
}

// ---- mutexes ----

u32 ZIR_MutexInit(ZIR_Mutex *mutex, const void *attributes)
{
    static std::atomic<u32> mutexes{0};
    Rule(mutex != nullptr && attributes == nullptr, "a mutex is initialised without attributes");
    if (mutex->self != mutex) {
        const u32 number = mutexes++;
        Rule(number < 64, "this platform has 64 mutexes");
        mutex->bit = u64{1} << number;
    }
    pthread_mutexattr_t kind;
    pthread_mutexattr_init(&kind);
    pthread_mutexattr_settype(&kind, kBroken == kRecursion ? PTHREAD_MUTEX_NORMAL
                                                           : PTHREAD_MUTEX_RECURSIVE);
    mutex->self = mutex;
    return static_cast<u32>(pthread_mutex_init(&mutex->mutex, &kind));
}

void ZIR_MutexLock(ZIR_Mutex *mutex)
{
    Rule(mutex != nullptr && mutex->self == mutex, "a mutex is initialised before it is locked");
    pthread_mutex_lock(&mutex->mutex);
    ++mutex->depth;
    t_held |= mutex->bit;
}

void ZIR_MutexUnlock(ZIR_Mutex *mutex)
{
    Rule((t_held & mutex->bit) != 0, "a mutex is unlocked by the thread that holds it");
    if (--mutex->depth == 0) {
        t_held &= ~mutex->bit;
    }
    pthread_mutex_unlock(&mutex->mutex);
}

// ---- hash tables: chains ----

namespace {

struct Table;
struct alignas(16) Node {
    Table *table;
    Node *next;
    bool inserted;
};
struct Table {
    u32 nodeSize;
    HASH_HashFunc hash;
    HASH_CompFunc compare;
    std::vector<Node *> chains;
    std::atomic<u64> locks = ~u64{0}; // mutexes that every caller so far has held
    Node *current = nullptr, *next = nullptr;
    HASH_Element element = {};
    u64 nodes = 0, buffers = 0;
};

constexpr size_t kShift = sizeof(Node) + (kBroken == kAlignment ? 4 : 0);

void *DataOf(Node *node)
{
    return reinterpret_cast<char *>(node) + kShift;
}

Node *NodeOf(Table *table, void *data, bool inserted)
{
    auto *node = reinterpret_cast<Node *>(static_cast<char *>(data) - kShift);
    Rule(node->table == table && node->inserted == inserted,
         "a buffer of HASH_NewData is inserted or given back once, in its own table");
    return node;
}

Table *Locked(HASH_Handle handle)
{
    Rule(handle != nullptr, "no call has a null table");
    auto *table = static_cast<Table *>(handle);
    const u64 others = table->locks.fetch_and(t_held, std::memory_order_relaxed);
    Rule((others & t_held) != 0, "all calls on a table are made under one and the same mutex");
    return table;
}

Node **ChainOf(Table *table, const void *key)
{
    const u32 bucket = table->hash(key);
    return bucket < table->chains.size() ? &table->chains[bucket] : nullptr;
}

// Where the pointer to the node with that key is kept, or null.
Node **Find(Table *table, const void *key)
{
    Node **place = ChainOf(table, key);
    while (place != nullptr && *place != nullptr) {
        if (table->compare(key, DataOf(*place)) == 1) {
            return place;
        }
        place = &(*place)->next;
    }
    return nullptr;
}

Node *FirstFrom(const Table *table, size_t bucket)
{
    while (bucket < table->chains.size() && table->chains[bucket] == nullptr) {
        ++bucket;
    }
    return bucket < table->chains.size() ? table->chains[bucket] : nullptr;
}

Node *After(const Table *table, Node *node)
{
    return node->next != nullptr ? node->next : FirstFrom(table, table->hash(DataOf(node)) + 1);
}

HASH_Element *Step(Table *table)
{
    table->current = table->next;
    if (table->current == nullptr) {
        return nullptr;
    }
    table->next = After(table, table->current);
    table->element.node = DataOf(table->current);
    return &table->element;
}

} // namespace

HASH_Handle HASH_CreateNew(u8, u32 nodeSize, u32 bucketCount, HASH_HashFunc hash,
                           HASH_CompFunc compare, u32 option)
{
    Rule(nodeSize != 0 && bucketCount != 0 && hash != nullptr && compare != nullptr && option == 0,
         "a table has nodes, buckets and functions, and no option");
    auto *table = new Table{nodeSize, hash, compare, {}};
    table->chains.resize(bucketCount);
    return table;
}

void *HASH_NewData(HASH_Handle handle, u32)
{
    Table *table = Locked(handle);
    auto *node = static_cast<Node *>(malloc(kShift + table->nodeSize));
    if (node == nullptr) {
        return nullptr;
    }
    *node = {table, nullptr, false};
    ++table->buffers;
    return DataOf(node);
}

void HASH_FreeData(HASH_Handle handle, void *data)
{
    Table *table = Locked(handle);
    free(NodeOf(table, data, false));
    --table->buffers;
}

u32 HASH_AddNode(HASH_Handle handle, const void *key, void *data, u32)
{
    Table *table = Locked(handle);
    Node *node = NodeOf(table, data, false);
    Node **chain = ChainOf(table, key);
    if (chain == nullptr) {
        return 1;
    }
    node->inserted = true;
    node->next = *chain;
    *chain = node;
    --table->buffers;
    ++table->nodes;
    return 0;
}

void *HASH_FindElmtFromFirst(HASH_Handle handle, const void *key)
{
    Node **place = Find(Locked(handle), key);
    return place != nullptr ? DataOf(*place) : nullptr;
}

u32 HASH_RemoveElmtByKey(HASH_Handle handle, const void *key)
{
    Table *table = Locked(handle);
    Node **place = Find(table, key);
    if (place == nullptr) {
        return 1;
    }
    Node *node = *place;
    if (node == table->next) {
        table->next = After(table, node);
    }
    if (kBroken == kIteration && node == table->current) {
        table->next = nullptr;
    }
    *place = node->next;
    free(node);
    --table->nodes;
    return 0;
}

HASH_Element *HASH_GetFirstNode(HASH_Handle handle)
{
    Table *table = Locked(handle);
    table->next = FirstFrom(table, 0);
    return Step(table);
}

HASH_Element *HASH_GetNextNode(HASH_Handle handle)
{
    return Step(Locked(handle));
}

void HASH_DeleteHash(HASH_Handle *handle)
{
    Rule(handle != nullptr && *handle != nullptr, "no call has a null table");
    auto *table = static_cast<Table *>(*handle);
    for (Node *node : table->chains) {
        while (node != nullptr) {
            free(std::exchange(node, node->next));
        }
    }
    delete table;
    *handle = nullptr;
}

void HASH_GetStat(HASH_Handle handle, HASH_Stat *stat)
{
    const auto *table = static_cast<Table *>(handle);
    *stat = {table->nodes, table->buffers, 0};
}

// ---- bounded calls ----

int memcpy_s(void *dest, size_t destSize, const void *src, size_t count)
{
    if (dest == nullptr || src == nullptr || (count > destSize && kBroken != kBounds)) {
        return dest != nullptr ? (memset(dest, 0, destSize), EINVAL) : EINVAL;
    }
    memmove(dest, src, count);
    return 0;
}

int memset_s(void *dest, size_t destSize, int value, size_t count)
{
    if (dest == nullptr || count > destSize) {
        return EINVAL;
    }
    memset(dest, value, count);
    return 0;
}

int strcpy_s(char *dest, size_t destSize, const char *src)
{
    return sprintf_s(dest, destSize, "%s", src) < 0 ? EINVAL : 0;
}

int strcat_s(char *dest, size_t destSize, const char *src)
{
    const size_t length = strnlen(dest, destSize);
    return strcpy_s(dest + length, destSize - length, src);
}

int vsnprintf_s(char *dest, size_t destSize, size_t limit, const char *format, va_list arguments)
{
    const int length = vsnprintf(dest, std::min(destSize, limit + 1), format, arguments);
    if (length >= 0 && static_cast<size_t>(length) > limit && limit < destSize) {
        return static_cast<int>(limit);
    }
    if (length < 0 || static_cast<size_t>(length) >= destSize) {
        *dest = '\0';
        return -1;
    }
    return length;
}

int sprintf_s(char *dest, size_t destSize, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf_s(dest, destSize, destSize, format, arguments);
    va_end(arguments);
    return length;
}

int snprintf_s(char *dest, size_t destSize, size_t limit, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf_s(dest, destSize, limit, format, arguments);
    va_end(arguments);
    return length;
}

int epoll_create_s(int sizeHint)
{
    return epoll_create(sizeHint);
}

int close_s(int descriptor)
{
    return close(descriptor);
}

// ---- components, tasks, queues, timers ----

namespace {

struct Queue {
    u32 depth, elementSize;
    int readable; // an eventfd that counts the elements
    std::deque<std::string> elements;
    std::condition_variable room{};
};

struct Timer {
    bool stopped = false;
    std::condition_variable stop{};
    std::thread thread{};
};

// Lives as long as the process: threads of the module do.
struct World {
    std::mutex mutex; // guards all of it
    std::map<u32, const QorComponentInfo *> components;
    std::map<QorQueueHandle, std::shared_ptr<Queue>> queues;
    std::map<ZIR_TimerHandle, std::shared_ptr<Timer>> timers;
    u64 lastHandle = 0;
};
World &g_world = *new World;

std::shared_ptr<Queue> QueueOf(QorQueueHandle handle)
{
    const auto found = g_world.queues.find(handle);
    return found != g_world.queues.end() ? found->second : nullptr;
}

void RunTimer(const std::shared_ptr<Timer> &timer, std::chrono::milliseconds period, bool repeats,
              ZIR_TimerCallback callback)
{
    auto due = std::chrono::steady_clock::now();
    std::unique_lock lock(g_world.mutex);
    do {
        due += period;
        if (timer->stop.wait_until(lock, due, [&] { return timer->stopped; })) {
            return;
        }
        lock.unlock();
        callback();
        lock.lock();
    } while (repeats && kBroken != kRepeating);
}

} // namespace

u32 COMP_RegisterComponentInfo(const QorComponentInfo *info)
{
    const std::lock_guard lock(g_world.mutex);
    const auto known = g_world.components.emplace(info->componentId, info).first;
    return known->second == info ? 0 : 1;
}

u32 COMP_GetVTable(u32 componentId, u32 interfaceId, void **table)
{
    *table = nullptr;
    std::unique_lock lock(g_world.mutex);
    const auto found = g_world.components.find(componentId);
    if (found == g_world.components.end()) {
        return 1;
    }
    QorFactory *factory = found->second->factory;
    lock.unlock();
    void *object = nullptr;
    if (factory->vtbl->createInstance(factory, interfaceId, &object) != 0) {
        return 1;
    }
    *table = *static_cast<void **>(object);
    return 0;
}

u32 QorEpollTaskCreate(const char *name, u32 *taskId, u32 (*entry)(void *), void *arg)
{
    std::thread task(entry, arg);
    pthread_setname_np(task.native_handle(), name);
    task.detach();
    *taskId = 1;
    return 0;
}

u32 QorEpollQueCreate(const char *, u32 depth, QorQueueHandle *handle, u32, u32 elementSize)
{
    const std::lock_guard lock(g_world.mutex);
    *handle = ++g_world.lastHandle;
    const int readable = eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC);
    g_world.queues[*handle].reset(new Queue{depth, elementSize, readable, {}});
    return readable >= 0 ? 0 : errno;
}

u32 QorEpollQueCtl(u32 epollFd, u32 operation, QorQueueHandle handle, u32 events,
                   QorQueueContext *context)
{
    const std::lock_guard lock(g_world.mutex);
    const auto queue = QueueOf(handle);
    struct epoll_event event = {};
    event.events = events;
    event.data.ptr = context;
    return queue != nullptr && epoll_ctl(static_cast<int>(epollFd), static_cast<int>(operation),
                                         queue->readable, &event) == 0
               ? 0
               : 1;
}

u32 QorEpollQueDelete(QorQueueHandle *handle)
{
    const std::lock_guard lock(g_world.mutex);
    const auto queue = QueueOf(*handle);
    if (queue == nullptr) {
        return 1;
    }
    close(queue->readable);
    g_world.queues.erase(std::exchange(*handle, 0));
    return 0;
}

u32 QorEpollQueGetMsgNum(QorQueueHandle handle)
{
    const std::lock_guard lock(g_world.mutex);
    const auto queue = QueueOf(handle);
    return queue != nullptr ? static_cast<u32>(queue->elements.size()) : 0;
}

u32 QorEpollQueWrite(QorQueueHandle handle, const void *element, u32 size, u32 timeoutMs)
{
    std::unique_lock lock(g_world.mutex);
    const auto queue = QueueOf(handle);
    if (queue == nullptr || size != queue->elementSize ||
        !queue->room.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [&] { return queue->elements.size() < queue->depth; })) {
        return 1;
    }
    queue->elements.emplace_back(static_cast<const char *>(element), size);
    return eventfd_write(queue->readable, 1) == 0 ? 0 : 1;
}

u32 QorEpollQueRead(QorQueueHandle handle, u32, void *element, u32 size)
{
    const std::lock_guard lock(g_world.mutex);
    const auto queue = QueueOf(handle);
    if (queue == nullptr || queue->elements.empty() || size != queue->elementSize) {
        return 0;
    }
    const bool last = kBroken == kOrder;
    memcpy(element, (last ? queue->elements.back() : queue->elements.front()).data(), size);
    last ? queue->elements.pop_back() : queue->elements.pop_front();
    eventfd_t count;
    (void)eventfd_read(queue->readable, &count);
    queue->room.notify_one();
    return size;
}

u32 QOR_Epoll_EvtProc(struct epoll_event *events, u32 count)
{
    for (u32 i = 0; i < count; ++i) {
        auto *context = static_cast<QorQueueContext *>(events[i].data.ptr);
        (void)context->handler(0, context);
    }
    return 0;
}

u32 ZIR_ReltmrCbkStart(ZIR_TimerHandle *handle, u32, u32 periodMs, u32, void *, u32 mode,
                       ZIR_TimerCallback callback)
{
    const std::lock_guard lock(g_world.mutex);
    const auto timer = std::make_shared<Timer>();
    *handle = ++g_world.lastHandle;
    g_world.timers[*handle] = timer;
    timer->thread = std::thread(RunTimer, timer, std::chrono::milliseconds(periodMs),
                                mode == ZIR_TIMER_REPEAT, callback);
    return 0;
}

u32 ZIR_ReltmrStop(ZIR_TimerHandle *handle)
{
    std::unique_lock lock(g_world.mutex);
    const auto found = g_world.timers.extract(std::exchange(*handle, 0));
    if (found.empty()) {
        return 1;
    }
    found.mapped()->stopped = true;
    found.mapped()->stop.notify_one();
    lock.unlock();
    if (found.mapped()->thread.get_id() == std::this_thread::get_id()) {
        found.mapped()->thread.detach();
    } else {
        found.mapped()->thread.join();
    }
    return 0;
}
