// platform-check [--partition N] LIBRARY...: what does this platform miss of docs/platform.md?
//
// The libraries are loaded as the device's process would; every call is looked up by its name. A
// requirement is tried in a process of its own, so that a platform that hangs or crashes is reported
// and the next requirement still meets a fresh one.
#include <dlfcn.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bounded.h"
#include "comp_registry.h"
#include "hash_table.h"
#include "qor_epoll.h"
#include "zir_memory.h"
#include "zir_mutex.h"
#include "zir_timer.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr unsigned kAnswerSeconds = 10; // what takes that long hangs

// clang-format off
#define PLATFORM_CALLS(X) \
    X(ZIR_HandleInitialize) X(ZIR_MemAlloc) X(ZIR_MemFree) X(ZIR_MemCmp) X(ZIR_MutexInit) \
    X(ZIR_MutexLock) X(ZIR_MutexUnlock) X(ZIR_ReltmrCbkStart) X(ZIR_ReltmrStop) X(HASH_CreateNew) \
    X(HASH_NewData) X(HASH_AddNode) X(HASH_FreeData) X(HASH_FindElmtFromFirst) \
    X(HASH_RemoveElmtByKey) X(HASH_GetFirstNode) X(HASH_GetNextNode) X(HASH_DeleteHash) \
    X(COMP_RegisterComponentInfo) X(COMP_GetVTable) X(memcpy_s) X(memset_s) X(strcpy_s) \
    X(strcat_s) X(sprintf_s) X(snprintf_s) X(vsnprintf_s) X(epoll_create_s) X(close_s) \
    X(QorEpollTaskCreate) X(QorEpollQueCreate) X(QorEpollQueCtl) X(QorEpollQueDelete) \
    X(QorEpollQueGetMsgNum) X(QorEpollQueWrite) X(QorEpollQueRead) X(QOR_Epoll_EvtProc)
// clang-format on

struct {
#define X(name) decltype(&::name) name;
    PLATFORM_CALLS(X)
#undef X
} p;

u8 g_partition = 1;
int g_report = -1; // where a missed requirement is written

// Ends the process with what was seen, unless it is as it must be.
__attribute__((format(printf, 2, 3))) void Need(bool met, const char *format, ...)
{
    if (!met) {
        va_list arguments;
        va_start(arguments, format);
        vdprintf(g_report, format, arguments);
        va_end(arguments);
        _exit(1);
    }
}

template <class Condition> bool Within(Clock::duration time, const Condition &condition)
{
    for (const auto end = Clock::now() + time; !condition(); std::this_thread::sleep_for(1ms)) {
        if (Clock::now() > end) {
            return false;
        }
    }
    return true;
}

void Symbols()
{
    std::string missing;
#define X(name)                                                                                    \
    p.name = reinterpret_cast<decltype(p.name)>(dlsym(RTLD_DEFAULT, #name));                       \
    missing += p.name == nullptr ? " " #name : "";
    PLATFORM_CALLS(X)
#undef X
    Need(missing.empty(), "not found:%s", missing.c_str());
}

// ---- memory, mutexes ----

u32 MemHandle()
{
    u32 handle = 0;
    const u32 result = p.ZIR_HandleInitialize("l2rsm", &handle);
    Need(result == 0 && handle != 0xFFFFFFFF, "ZIR_HandleInitialize: %u, handle %u", result,
         handle);
    return handle;
}

void Memory()
{
    const u32 handle = MemHandle();
    const auto use = [handle](int own) {
        std::vector<u8 *> blocks;
        for (const u64 size : {1, 16, 40, 368, 4096, 65535, 24, 7}) {
            auto *block = static_cast<u8 *>(p.ZIR_MemAlloc(handle, g_partition, size));
            Need(block != nullptr, "no %llu bytes from partition %u", size, g_partition);
            Need(reinterpret_cast<uintptr_t>(block) % 8 == 0, "a block at %p",
                 static_cast<void *>(block));
            memset(block, own, size);
            blocks.push_back(block);
        }
        for (u8 *block : blocks) {
            Need(block[0] == own, "a block was given out twice");
            Need(p.ZIR_MemFree(handle, block) == 0, "ZIR_MemFree fails");
        }
    };
    const auto often = [&](int own) {
        for (int i = 0; i < 1000; ++i) {
            use(own);
        }
    };
    std::thread other(often, 1);
    often(2);
    other.join();
}

void Comparison()
{
    const char a[] = "12345678", b[] = "12345679";
    Need(p.ZIR_MemCmp(a, a, 8) == 0 && p.ZIR_MemCmp(a, b, 7) == 0, "equal areas differ");
    Need(p.ZIR_MemCmp(a, b, 8) != 0, "areas that differ in their last byte are equal");
}

// Zeroed and roomy: how large the platform's mutex is, only its own header knows.
struct Mutex {
    Mutex()
    {
        Need(p.ZIR_MutexInit(get(), nullptr) == 0, "ZIR_MutexInit fails");
    }
    ZIR_Mutex *get()
    {
        return reinterpret_cast<ZIR_Mutex *>(room);
    }
    void lock()
    {
        p.ZIR_MutexLock(get());
    }
    void unlock()
    {
        p.ZIR_MutexUnlock(get());
    }
    alignas(64) u8 room[4096] = {};
};

void Exclusion()
{
    Mutex mutex;
    std::atomic<int> inside{0};
    const auto enter = [&] {
        for (int i = 0; i < 300; ++i) {
            mutex.lock();
            Need(inside++ == 0, "two threads are inside at once");
            std::this_thread::sleep_for(10us); // the other one runs, and tries
            --inside;
            mutex.unlock();
        }
    };
    std::thread other(enter);
    enter();
    other.join();
}

void Recursion()
{
    Mutex mutex;
    std::atomic<bool> entered{false};
    mutex.lock();
    mutex.lock();
    mutex.unlock();
    std::thread other([&] {
        mutex.lock();
        entered = true;
        mutex.unlock();
    });
    std::this_thread::sleep_for(50ms);
    Need(!entered, "locked twice, it was free after one unlock");
    mutex.unlock();
    other.join();
}

// ---- hash tables ----

constexpr u32 kBuckets = 1024;

struct Key {
    u32 id;
    u16 bucket;
    u16 unused; // not part of the identity
};
struct Node {
    Key key;
    u64 value[45];
};

u32 HashKey(const void *key)
{
    return static_cast<const Key *>(key)->bucket;
}

u32 CompareKeys(const void *left, const void *right)
{
    const auto *a = static_cast<const Key *>(left);
    const auto *b = static_cast<const Key *>(right);
    return a->id == b->id && a->bucket == b->bucket ? 1 : 0;
}

Key KeyOf(u32 id)
{
    return {id, static_cast<u16>(id % 2 == 0 ? 7 : kBuckets - 1), 0}; // two buckets
}

// As the module uses one: every call with the mutex held.
struct Table {
    explicit Table(u32 nodeSize = 56)
        : size(nodeSize),
          handle(p.HASH_CreateNew(g_partition, size, kBuckets, HashKey, CompareKeys, 0))
    {
        Need(handle != nullptr, "no table with nodes of %u bytes in partition %u", size,
             g_partition);
        mutex.lock();
    }
    ~Table()
    {
        mutex.unlock();
        p.HASH_DeleteHash(&handle);
    }
    Node *Add(Key key)
    {
        auto *node = static_cast<Node *>(p.HASH_NewData(handle, 0));
        Need(node != nullptr, "no node of %u bytes", size);
        memset(static_cast<void *>(node), static_cast<int>(key.id), size);
        node->key = key;
        Need(p.HASH_AddNode(handle, node, node, 0) == 0, "a node is not inserted");
        return node;
    }
    Node *Find(Key key)
    {
        key.unused = 0xFFFF;
        return static_cast<Node *>(p.HASH_FindElmtFromFirst(handle, &key));
    }
    // As an element is read: at once.
    Node *First()
    {
        const HASH_Element *element = p.HASH_GetFirstNode(handle);
        return element != nullptr ? static_cast<Node *>(element->node) : nullptr;
    }
    Node *Next()
    {
        const HASH_Element *element = p.HASH_GetNextNode(handle);
        return element != nullptr ? static_cast<Node *>(element->node) : nullptr;
    }

    u32 size;
    HASH_Handle handle;
    Mutex mutex{};
};

void Find()
{
    constexpr u32 kCount = 3000;
    Table table;
    p.HASH_FreeData(table.handle, p.HASH_NewData(table.handle, 0));
    for (u32 id = 0; id < kCount; ++id) {
        Need(table.Find(KeyOf(id)) == nullptr, "a key is found that was not inserted");
        table.Add(KeyOf(id));
    }
    for (u32 id = 0; id < kCount; id += 3) {
        Key key = KeyOf(id);
        // A copy of the key, or the one in the node that goes.
        const void *by = id % 2 == 0 ? static_cast<const void *>(&key) : table.Find(key);
        Need(p.HASH_RemoveElmtByKey(table.handle, by) == 0, "a key is not removed");
        Need(p.HASH_RemoveElmtByKey(table.handle, &key) != 0, "a key is removed twice");
    }
    for (u32 id = 0; id < kCount; ++id) {
        const Node *node = table.Find(KeyOf(id));
        Need((node == nullptr) == (id % 3 == 0), "after removals a key is lost, or still there");
        Need(node == nullptr || CompareKeys(node, &node->key) == 1, "another key's node is found");
    }
}

void Nodes()
{
    for (const u32 size : {24, 56, 336, 368}) {
        Table table(size);
        std::vector<Node *> nodes;
        for (u32 id = 0; id < 300; ++id) {
            nodes.push_back(table.Add(KeyOf(id)));
            Need(reinterpret_cast<uintptr_t>(nodes[id]) % 8 == 0, "a node of %u bytes at %p", size,
                 static_cast<void *>(nodes[id]));
        }
        for (u32 id = 0; id < nodes.size(); ++id) {
            Need(table.Find(KeyOf(id)) == nodes[id], "a node has moved");
            Need(reinterpret_cast<u8 *>(nodes[id])[size - 1] == static_cast<u8>(id),
                 "a node of %u bytes was overwritten", size);
        }
    }
}

constexpr u32 kFew = 5; // nodes of an iteration that is tried in all ways

// Iterates over kFew nodes and acts on the way; how often each was met. Further nodes are not counted.
std::vector<unsigned> Walk(Table &table, const std::function<void(unsigned step, Node *)> &act)
{
    std::vector<unsigned> met(kFew);
    unsigned step = 0;
    for (Node *node = table.First(); node != nullptr; node = table.Next()) {
        if (node->key.id < kFew) {
            ++met[node->key.id];
        }
        Need(step < 1000, "an iteration does not end");
        act(step++, node);
    }
    return met;
}

void Iteration()
{
    Table table, other;
    Need(table.First() == nullptr, "an empty table has a first node");
    for (u32 id = 0; id < kFew; ++id) {
        table.Add(KeyOf(id));
        other.Add(KeyOf(100 + id));
    }
    (void)table.First(); // an iteration that is not ended
    for (const unsigned times : Walk(table, [&](unsigned, Node *) {
             const Key key = KeyOf(0); // a search on the way
             (void)p.HASH_FindElmtFromFirst(table.handle, &key);
         })) {
        Need(times == 1, "a node is met %u times", times);
    }
    for (int i = 0; i < 3; ++i) {
        Need(table.Next() == nullptr, "after the end there is a next node");
    }
    // Another table's iteration at the same time.
    const HASH_Element *first = p.HASH_GetFirstNode(table.handle);
    Need(other.First() != nullptr && static_cast<Node *>(first->node)->key.id < kFew,
         "an element changes with another table's iteration");
    for (u32 id = 1; id < kFew; ++id) {
        const Node *a = table.Next(), *b = other.Next();
        Need(a != nullptr && a->key.id < kFew && b != nullptr && b->key.id >= 100,
             "two tables' iterations are mixed up");
    }
}

// Every set of nodes is removed at every step, by this thread and by another.
void Removals()
{
    Table table;
    for (unsigned choice = 0; choice < 2 * kFew << kFew; ++choice) {
        const unsigned set = choice % (1 << kFew), at = (choice >> kFew) % kFew;
        for (u32 id = 0; id < kFew; ++id) {
            table.Add(KeyOf(id));
        }
        std::vector<bool> before(kFew), removed(kFew);
        const auto remove = [&](Node *current) {
            const u32 own = current->key.id;
            for (u32 id = 0; id < kFew; ++id) {
                const Key key = KeyOf(id);
                const void *by = id == own ? &current->key : &key;
                removed[id] = (set >> id) % 2 == 1;
                Need(!removed[id] || p.HASH_RemoveElmtByKey(table.handle, by) == 0,
                     "a key is not removed during an iteration");
            }
        };
        const auto met = Walk(table, [&](unsigned step, Node *node) {
            Need(!removed[node->key.id], "a removed node is met");
            before[node->key.id] = step <= at;
            if (step == at && choice < kFew << kFew) {
                remove(node);
            } else if (step == at) {
                table.mutex.unlock();
                std::thread([&] {
                    const std::lock_guard lock(table.mutex);
                    remove(node);
                }).join();
                table.mutex.lock();
            }
        });
        for (u32 id = 0; id < kFew; ++id) {
            const unsigned times = before[id] || !removed[id] ? 1 : 0;
            Need(met[id] == times, "%s removed at step %u: a node is met %u times",
                 set == 0 ? "nothing" : "nodes", at, met[id]);
            const Key key = KeyOf(id);
            (void)p.HASH_RemoveElmtByKey(table.handle, &key);
        }
    }
}

void Insertions()
{
    Table table;
    for (u32 id = 0; id < kFew; ++id) {
        table.Add(KeyOf(id));
    }
    u32 more = kFew;
    for (const unsigned times : Walk(table, [&](unsigned, Node *) {
             if (more < 40) {
                 table.Add(KeyOf(more++));
             }
         })) {
        Need(times == 1, "with insertions on the way a node is met %u times", times);
    }
}

// ---- bounded calls ----

// A destination of 8 bytes with as many behind it that nobody may touch.
struct Room {
    void Check(const char *name, bool isText = true) const
    {
        Need(memcmp(bytes + 8, "........", 8) == 0, "%s writes beyond the destination", name);
        Need(!isText || memchr(bytes, 0, 8) != nullptr, "%s leaves a text without an end", name);
    }
    char bytes[17] = "................";
};

void Copies()
{
    Room room;
    const int copied = p.memcpy_s(room.bytes, 8, "12345678", 8);
    Need(copied == 0 && memcmp(room.bytes, "12345678", 8) == 0, "memcpy_s does not copy");
    const int tooMany = p.memcpy_s(room.bytes, 8, "123456789ABC", 12);
    room.Check("memcpy_s", false);
    Need(tooMany != 0, "memcpy_s: 12 bytes into 8 are a success");
    room = {};
    Need(p.memcpy_s(room.bytes, 8, nullptr, 4) != 0, "memcpy_s: a null source is a success");
    Need(memcmp(room.bytes, "\0\0\0\0", 4) == 0, "memcpy_s: a null source leaves what was there");
    const int set = p.memset_s(room.bytes, 8, 0, 8);
    Need(set == 0 && memcmp(room.bytes, "\0\0\0\0\0\0\0", 8) == 0, "memset_s does not set");
    const int setTooMany = p.memset_s(room.bytes, 8, 1, 12);
    room.Check("memset_s", false);
    Need(setTooMany != 0, "memset_s: 12 bytes in 8 are a success");
}

int FormatV(char *dest, size_t size, size_t limit, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = p.vsnprintf_s(dest, size, limit, format, arguments);
    va_end(arguments);
    return length;
}

void Texts()
{
    Room room;
    Need(p.strcpy_s(room.bytes, 8, "123") == 0 && p.strcat_s(room.bytes, 8, "4567") == 0 &&
             strcmp(room.bytes, "1234567") == 0,
         "strcpy_s and strcat_s make \"%.8s\" of \"123\" and \"4567\"", room.bytes);
    const int added = p.strcat_s(room.bytes, 8, "8");
    room.Check("strcat_s");
    Need(added != 0, "strcat_s: 8 characters in 8 bytes are a success");
    const int copied = p.strcpy_s(room.bytes, 8, "123456789");
    room.Check("strcpy_s");
    Need(copied != 0, "strcpy_s: 9 characters in 8 bytes are a success");
    const int printed = p.sprintf_s(room.bytes, 8, "%s%d", "12345", 6789);
    room.Check("sprintf_s");
    Need(printed < 0, "sprintf_s: 9 characters in 8 bytes return %d", printed);

    char text[64];
    const char *expected = "-1 4294967295 18446744073709551615 abc %";
    for (const auto &format : {p.snprintf_s, &FormatV}) {
        const int length = format(text, sizeof text, sizeof text - 1, "%d %u %llu %s %%", -1,
                                  0xFFFFFFFFu, ~0ull, "abc");
        Need(length == static_cast<int>(strlen(expected)) && strcmp(text, expected) == 0,
             "\"%.63s\" instead of \"%s\"", text, expected);
        // Cut or refused, as it likes.
        const int cut = format(room.bytes, 8, 5, "%s", "123456789");
        room.Check("vsnprintf_s or snprintf_s");
        Need(cut < 0 || strncmp(room.bytes, "12345", 6) == 0,
             "9 characters with a limit of 5: \"%.8s\"", room.bytes);
    }
    Need(p.sprintf_s(text, sizeof text, "slot %d", 3) == 6 && strcmp(text, "slot 3") == 0,
         "sprintf_s makes \"%.63s\" of \"slot 3\"", text);
}

// ---- components, tasks, queues, timers ----

u32 NoQuery(void *, u32, void **)
{
    return QOR_E_NO_INTERFACE;
}

void Components()
{
    constexpr u32 kComponent = 0x51A7, kInterface = 77;
    static void *operations[1];
    static struct {
        void **table;
    } object = {operations};
    static const QorFactoryVtbl vtbl = {NoQuery, [](void *, u32 interfaceId, void **out) -> u32 {
                                            *out = &object;
                                            return interfaceId == kInterface ? 0 : 1;
                                        }};
    static QorFactory factory = {&vtbl};
    static QorComponentInfo info = {kComponent, "CHECK", "CHECK", 1, &factory};
    void *table = nullptr;
    Need(p.COMP_GetVTable(kComponent, kInterface, &table) != 0 || table == nullptr,
         "a component is found that nobody registered");
    Need(p.COMP_RegisterComponentInfo(&info) == 0, "COMP_RegisterComponentInfo fails");
    Need(p.COMP_GetVTable(kComponent, kInterface, &table) == 0 && table == operations,
         "COMP_GetVTable does not give what the first field of the factory's object holds");
}

std::atomic<bool> g_ran{false};
std::thread::id g_runner;

void Tasks()
{
    int arg = 0;
    u32 id = 0;
    const auto entry = [](void *given) -> u32 {
        *static_cast<int *>(given) = 1;
        g_runner = std::this_thread::get_id();
        g_ran = true;
        return 0;
    };
    Need(p.QorEpollTaskCreate("QOR_L2RSM", &id, entry, &arg) == 0, "QorEpollTaskCreate fails");
    Need(Within(5s, [] { return g_ran.load(); }), "the task does not run");
    Need(arg == 1 && g_runner != std::this_thread::get_id(),
         "the task runs on its caller's thread");
}

constexpr u32 kDepth = 4096;

QorQueueHandle NewQueue()
{
    QorQueueHandle queue = 0;
    const u32 result = p.QorEpollQueCreate("L2RSM_Q_DATA", kDepth, &queue, 0, sizeof(u64));
    Need(result == 0 && queue != 0, "QorEpollQueCreate: %u, handle %llu", result, queue);
    return queue;
}

bool Put(QorQueueHandle queue, u64 element)
{
    return p.QorEpollQueWrite(queue, &element, sizeof element, 10) == 0;
}

u64 Take(QorQueueHandle queue)
{
    u64 element = ~0ull;
    const u32 size = p.QorEpollQueRead(queue, 0, &element, sizeof element);
    Need((size == 0) == (element == ~0ull), "QorEpollQueRead returns %u", size);
    return element;
}

void Queues()
{
    Need(p.QorEpollQueGetMsgNum(0) == 0 && !Put(0, 1), "handle 0 is a queue");
    QorQueueHandle queue = NewQueue();
    Need(Take(queue) == ~0ull, "an element is read from an empty queue");
    for (u64 i = 0; i < kDepth; ++i) {
        Need(Put(queue, i), "a queue of 4096 is full with %llu elements", i);
    }
    Need(p.QorEpollQueGetMsgNum(queue) == kDepth, "4096 elements, QorEpollQueGetMsgNum says %u",
         p.QorEpollQueGetMsgNum(queue));
    Need(!Put(queue, kDepth), "a queue of 4096 takes 4097 elements");
    for (u64 i = 0; i < kDepth; ++i) {
        const u64 element = Take(queue);
        Need(element == i, "first in, first out: element %llu comes as number %llu", element, i);
    }
    Need(p.QorEpollQueDelete(&queue) == 0, "QorEpollQueDelete fails");
}

QorQueueContext g_context = {};
std::vector<u64> g_handled;

void Dispatching()
{
    const int epollFd = p.epoll_create_s(8);
    Need(epollFd >= 0, "epoll_create_s: %d", epollFd);
    g_context.queue = NewQueue();
    g_context.handler = [](u64, QorQueueContext *context) -> u32 {
        Need(context == &g_context, "the handler gets another record than was attached");
        const u64 element = Take(context->queue);
        if (element != ~0ull) {
            g_handled.push_back(element);
        }
        return 0;
    };
    Need(p.QorEpollQueCtl(static_cast<u32>(epollFd), QOR_QUEUE_ATTACH, g_context.queue, EPOLLIN,
                          &g_context) == 0,
         "QorEpollQueCtl fails");
    struct epoll_event events[8];
    const auto wait = [&](int timeoutMs) {
        const int count = epoll_wait(epollFd, events, 8, timeoutMs);
        if (count > 0) {
            (void)p.QOR_Epoll_EvtProc(events, static_cast<u32>(count));
        }
        return count > 0;
    };
    std::thread writer([] {
        for (u64 i = 0; i < 20; ++i) {
            std::this_thread::sleep_for(i % 10 == 0 ? 10ms : 0ms);
            Need(Put(g_context.queue, i), "an element is not written");
        }
    });
    while (g_handled.size() < 20) {
        Need(wait(5000), "elements wait, but epoll does not wake: %zu of 20 were handled",
             g_handled.size());
    }
    writer.join();
    for (u64 i = 0; i < 20; ++i) {
        Need(g_handled[i] == i, "elements are handled in another order");
    }
    unsigned idle = 0;
    while (wait(20)) {
        Need(++idle < 100, "an empty queue stays readable");
    }
    Need(p.close_s(epollFd) == 0, "close_s fails");
}

std::atomic<unsigned> g_calls[2];
std::atomic<Clock::rep> g_firstCall{0};

void Timers()
{
    const u32 handle = MemHandle();
    ZIR_TimerHandle timers[2] = {};
    const ZIR_TimerCallback callbacks[2] = {[] {
                                                if (g_calls[0]++ == 0) {
                                                    g_firstCall =
                                                        Clock::now().time_since_epoch().count();
                                                }
                                            },
                                            [] { ++g_calls[1]; }};
    const auto start = Clock::now();
    for (int i = 0; i < 2; ++i) {
        Need(p.ZIR_ReltmrCbkStart(&timers[i], handle, 20, 0xFFFFFF02, nullptr, ZIR_TIMER_REPEAT,
                                  callbacks[i]) == 0,
             "ZIR_ReltmrCbkStart fails");
    }
    const bool repeats = Within(5s, [] { return g_calls[0] >= 4 && g_calls[1] >= 4; });
    Need(repeats, "two timers of 20 ms that repeat: %u and %u calls in 5 s", g_calls[0].load(),
         g_calls[1].load());
    const auto first = Clock::duration(g_firstCall) - start.time_since_epoch();
    Need(first >= 15ms, "a timer of 20 ms runs too early"); // clocks tick coarsely
    for (ZIR_TimerHandle &timer : timers) {
        Need(p.ZIR_ReltmrStop(&timer) == 0, "ZIR_ReltmrStop fails");
    }
    std::this_thread::sleep_for(50ms); // a call that was under way may end
    const unsigned before = g_calls[0] + g_calls[1];
    std::this_thread::sleep_for(100ms);
    Need(g_calls[0] + g_calls[1] == before, "a stopped timer goes on");
}

// ---- one after the other ----

struct {
    const char *name; // as in docs/platform.md
    void (*check)();
} const kRequirements[] = {
    {"every call is there", [] {}}, // looked up before each
    {"memory comes in blocks", Memory},
    {"memory is compared", Comparison},
    {"a mutex excludes", Exclusion},
    {"a mutex is recursive", Recursion},
    {"a table finds and removes by key", Find},
    {"nodes are aligned and stay", Nodes},
    {"an iteration meets every node once", Iteration},
    {"an iteration survives removals", Removals},
    {"an iteration survives insertions", Insertions},
    {"copies are bounded", Copies},
    {"texts are bounded", Texts},
    {"components are found", Components},
    {"a task has its thread", Tasks},
    {"a queue keeps order and depth", Queues},
    {"a queue wakes its dispatcher", Dispatching},
    {"a timer repeats until it is stopped", Timers},
};

[[noreturn]] void Try(void (*check)(), const std::vector<const char *> &libraries)
{
    alarm(kAnswerSeconds);
    for (const char *library : libraries) {
        if (dlopen(library, RTLD_NOW | RTLD_GLOBAL) == nullptr) {
            Need(false, "%s", dlerror());
        }
    }
    Symbols();
    check();
    _exit(0);
}

// What was seen, or nothing.
std::string Missed(void (*check)(), const std::vector<const char *> &libraries)
{
    int ends[2];
    if (pipe(ends) != 0) {
        return strerror(errno);
    }
    const pid_t child = fork();
    if (child < 0) {
        return strerror(errno);
    }
    if (child == 0) {
        g_report = ends[1];
        Try(check, libraries);
    }
    close(ends[1]);
    char seen[512];
    const ssize_t length = read(ends[0], seen, sizeof seen);
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (length > 0) {
        return std::string(seen, static_cast<size_t>(length));
    }
    if (WIFSIGNALED(status)) {
        const int signal = WTERMSIG(status);
        return signal == SIGALRM ? "no answer within " + std::to_string(kAnswerSeconds) + " seconds"
                                 : std::string("crashed: ") + strsignal(signal);
    }
    return status == 0 ? "" : "the process ended";
}

} // namespace

int main(int argc, char **argv)
{
    std::vector<const char *> libraries(argv + 1, argv + argc);
    if (libraries.size() > 2 && strcmp(libraries[0], "--partition") == 0) {
        g_partition = static_cast<u8>(strtoul(libraries[1], nullptr, 0));
        libraries.erase(libraries.begin(), libraries.begin() + 2);
    }
    if (libraries.empty() || libraries[0][0] == '-') {
        fprintf(stderr, "usage: platform-check [--partition N] LIBRARY...\n");
        return 2;
    }
    bool allMet = true;
    for (const auto &[name, check] : kRequirements) {
        const std::string missed = Missed(check, libraries);
        allMet &= missed.empty();
        printf("%s%s%s%s\n", missed.empty() ? "ok      " : "MISSED: ", name,
               missed.empty() ? "" : ": ", missed.c_str());
        fflush(stdout);
        if (check == kRequirements[0].check && !missed.empty()) {
            break;
        }
    }
    return allMet ? 0 : 1;
}
