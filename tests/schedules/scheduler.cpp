#include "scheduler.h"

#include <sanitizer/asan_interface.h>
#include <sched.h>
#include <ucontext.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <sstream>
#include <vector>

#include "zir_memory.h"

namespace scheduler {
namespace {

constexpr size_t kStepsMax = 20000; // of one run; a sound one has some hundred

struct Mutex { // lies in the platform's; a zeroed one is free
    u64 owner; // client + 1, or 0
    u64 depth;
};

struct Client {
    ucontext_t context;
    bool done;
    const Mutex *wants;
};
alignas(16) char g_stacks[kClients][256 * 1024];
Client g_clients[kClients + 1];
int g_now = kMain;

const Search *g_search = nullptr;
struct Choice {
    unsigned ways, taken;
};
std::vector<Choice> g_path;
std::map<size_t, unsigned> g_replay;
size_t g_depth = 0;
unsigned g_preemptions = 0;

struct Step {
    int client;
    const char *text;
    const void *object;
};
std::vector<Step> g_steps;
std::string g_failure;
std::map<const void *, std::string> g_names;

void Go(int client)
{
    if (client != g_now) {
        ucontext_t &here = g_clients[g_now].context;
        g_now = client;
        swapcontext(&here, &g_clients[client].context);
    }
}

unsigned Choose(size_t ways)
{
    if (ways <= 1) {
        return 0;
    }
    if (g_depth == g_path.size()) {
        const auto replayed = g_replay.find(g_depth);
        g_path.push_back({unsigned(ways), replayed != g_replay.end() ? replayed->second : 0});
    }
    const Choice &choice = g_path[g_depth++];
    if (choice.ways != ways || choice.taken >= ways) {
        Fail("the same choices lead elsewhere");
        return 0;
    }
    return choice.taken;
}

std::vector<int> OthersThatCanRun()
{
    std::vector<int> able;
    for (int i = 0; i < g_search->clients; ++i) {
        const Client &client = g_clients[i];
        if (i != g_now && !client.done && (client.wants == nullptr || client.wants->owner == 0)) {
            able.push_back(i);
        }
    }
    return able;
}

// The running client cannot go on.
void GoElsewhere()
{
    const std::vector<int> able = OthersThatCanRun();
    if (able.empty() && std::any_of(g_clients, g_clients + g_search->clients,
                                    [](const Client &client) { return !client.done; })) {
        Fail("deadlock: nobody can go on");
    }
    Go(able.empty() ? kMain : able[Choose(able.size())]);
}

void Body()
{
    for (;;) {
        g_search->client(g_now);
        g_clients[g_now].done = true;
        GoElsewhere();
    }
}

void MakeClients()
{
    for (int i = 0; i < kClients; ++i) {
        ucontext_t &context = g_clients[i].context;
        getcontext(&context);
        context.uc_stack.ss_sp = g_stacks[i];
        context.uc_stack.ss_size = sizeof g_stacks[i];
        makecontext(&context, Body, 0);
    }
}

void ReadReplay(const std::string &schedule)
{
    std::istringstream text(schedule);
    size_t choice;
    unsigned way;
    g_replay.clear();
    for (char mark = ','; mark == ',' && text >> choice >> mark >> way; text >> mark) {
        g_replay[choice] = way;
    }
}

void EndRun();

} // namespace

int Now()
{
    return g_now;
}

void At(const char *text, const void *object, bool betweenSteps)
{
    if (g_now == kMain) {
        return;
    }
    g_steps.push_back({g_now, text, object});
    if (g_steps.size() > kStepsMax) {
        Fail("the run does not end");
        Go(kMain);
    }
    if (g_preemptions == g_search->preemptions || (g_search->stepsOnly && !betweenSteps)) {
        return;
    }
    const std::vector<int> able = OthersThatCanRun();
    if (const unsigned way = Choose(1 + able.size())) {
        ++g_preemptions;
        Go(able[way - 1]);
    }
}

void Fail(const std::string &reason)
{
    if (g_failure.empty()) {
        g_failure = reason;
        g_steps.push_back({g_now, "<- here it shows", nullptr});
    }
}

void Name(const void *object, const std::string &name)
{
    g_names[object] = name;
}

unsigned long Explore(const Search &search)
{
    g_search = &search;
    MakeClients();
    g_path.clear();
    ReadReplay(search.replay);
    unsigned long runs = 0;
    do {
        ++runs;
        search.reset();
        g_steps.clear();
        g_depth = g_preemptions = 0;
        for (int i = 0; i < search.clients; ++i) {
            g_clients[i].done = false;
        }
        GoElsewhere();
        if (g_failure.empty()) {
            search.check();
            EndRun();
        }
        while (g_failure.empty() && !g_path.empty() &&
               ++g_path.back().taken == g_path.back().ways) {
            g_path.pop_back();
        }
    } while (g_failure.empty() && search.replay.empty() && !g_path.empty());
    return runs;
}

const std::string &Failure()
{
    return g_failure;
}

// "3.1,20.2": way 1 at choice 3, way 2 at choice 20, else way 0.
std::string Schedule()
{
    std::string text;
    for (size_t i = 0; i < g_path.size(); ++i) {
        if (g_path[i].taken != 0) {
            text += (text.empty() ? "" : ",") + std::to_string(i) + "." +
                    std::to_string(g_path[i].taken);
        }
    }
    return text.empty() ? "0.0" : text;
}

std::string Steps()
{
    std::ostringstream text;
    for (const Step &step : g_steps) {
        step.client == kMain ? text << "  afterwards" : text << "  client " << step.client + 1;
        const auto name = g_names.find(step.object);
        text << ": " << step.text << (name != g_names.end() ? " " + name->second : "") << '\n';
    }
    return text.str();
}

// --- the platform, but for what only a failed start and short memory need ---

namespace {

constexpr unsigned char kPoison = 0xDD;

struct Block {
    unsigned char *bytes;
    size_t size;
    bool live; // else set aside
};
std::vector<Block> g_blocks;

void *Give(size_t size)
{
    auto *bytes = static_cast<unsigned char *>(malloc(size));
    memset(bytes, 0xA5, size);
    g_blocks.push_back({bytes, size, true});
    return bytes;
}

void TakeBack(void *bytes)
{
    for (Block &block : g_blocks) {
        if (block.bytes == bytes && block.live) {
            block.live = false;
            memset(bytes, kPoison, block.size);
            ASAN_POISON_MEMORY_REGION(bytes, block.size);
            return;
        }
    }
    Fail("something is given back that is not given out");
}

void EndRun()
{
    for (const Block &block : g_blocks) {
        ASAN_UNPOISON_MEMORY_REGION(block.bytes, block.size);
        const auto poisoned = std::count(block.bytes, block.bytes + block.size, kPoison);
        if (block.live) {
            Fail("memory is lost");
        } else if (static_cast<size_t>(poisoned) != block.size) {
            Fail("something was written after it was given back");
        }
        free(block.bytes);
    }
    g_blocks.clear();
}

struct Table {
    u32 nodeSize;
    HASH_CompFunc compare;
    const Mutex *guard;
    std::vector<void *> nodes; // in the order of insertion
    size_t next;
    HASH_Element element;

    size_t Find(const void *key) const
    {
        size_t i = 0;
        while (i < nodes.size() && compare(nodes[i], key) != 1) {
            ++i;
        }
        return i;
    }
};

Mutex *Of(ZIR_Mutex *mutex)
{
    return reinterpret_cast<Mutex *>(mutex->opaque);
}

Table &Enter(HASH_Handle handle, const char *text)
{
    At(text, handle);
    auto &table = *static_cast<Table *>(handle);
    if (table.guard != nullptr && g_now != kMain && table.guard->owner != g_now + 1u) {
        Fail(std::string(text) + " " + g_names[handle] + " without its mutex");
    }
    return table;
}

} // namespace

void Name(HASH_Handle table, ZIR_Mutex *mutex, const std::string &name)
{
    static_cast<Table *>(table)->guard = Of(mutex);
    Name(table, name);
    Name(mutex, "the mutex of " + name);
}

} // namespace scheduler

using namespace scheduler;

extern "C" {

QOR_API u32 ZIR_MutexInit(ZIR_Mutex *mutex, const void *)
{
    *mutex = {};
    return 0;
}

QOR_API void ZIR_MutexLock(ZIR_Mutex *mutex) QOR_NO_THREAD_SAFETY
{
    At("locks", mutex);
    Mutex *model = Of(mutex);
    while (model->owner != 0 && model->owner != g_now + 1u) {
        if (g_now == kMain) {
            Fail("a client has ended with a mutex held");
            *model = {};
        }
        g_clients[g_now].wants = model;
        GoElsewhere();
        g_clients[g_now].wants = nullptr;
    }
    model->owner = g_now + 1u;
    ++model->depth;
}

QOR_API void ZIR_MutexUnlock(ZIR_Mutex *mutex) QOR_NO_THREAD_SAFETY
{
    Mutex *model = Of(mutex);
    if (model->owner != g_now + 1u) {
        Fail("a mutex is unlocked by a client that does not hold it");
    } else if (--model->depth == 0) {
        model->owner = 0;
    }
    At("has unlocked", mutex);
}

// Whoever yields lets another go on; that is no preemption.
int sched_yield() noexcept
{
    if (g_now != kMain && !OthersThatCanRun().empty()) {
        g_steps.push_back({g_now, "yields", nullptr});
        GoElsewhere();
    }
    return 0;
}

QOR_API void *ZIR_MemAlloc(u32, u8, u64 size)
{
    At("takes memory");
    return size != 0 ? Give(size) : nullptr;
}

QOR_API u32 ZIR_MemFree(u32, void *block)
{
    At("gives memory back");
    TakeBack(block);
    return 0;
}

QOR_API HASH_Handle HASH_CreateNew(u8, u32 nodeSize, u32, HASH_HashFunc, HASH_CompFunc compare, u32)
{
    return new Table{nodeSize, compare, nullptr, {}, 0, {}};
}

QOR_API void *HASH_NewData(HASH_Handle handle, u32)
{
    return Give(Enter(handle, "takes a node for").nodeSize);
}

QOR_API u32 HASH_AddNode(HASH_Handle handle, const void *, void *data, u32)
{
    Enter(handle, "inserts into").nodes.push_back(data);
    return 0;
}

QOR_API void *HASH_FindElmtFromFirst(HASH_Handle handle, const void *key)
{
    const Table &table = Enter(handle, "searches");
    const size_t place = table.Find(key);
    return place < table.nodes.size() ? table.nodes[place] : nullptr;
}

QOR_API u32 HASH_RemoveElmtByKey(HASH_Handle handle, const void *key)
{
    Table &table = Enter(handle, "removes from");
    const size_t place = table.Find(key);
    if (place == table.nodes.size()) {
        return 1;
    }
    void *node = table.nodes[place];
    table.nodes.erase(table.nodes.begin() + static_cast<long>(place));
    table.next -= place < table.next;
    TakeBack(node);
    return 0;
}

QOR_API HASH_Element *HASH_GetNextNode(HASH_Handle handle)
{
    Table &table = Enter(handle, "steps on in");
    if (table.next >= table.nodes.size()) {
        return nullptr;
    }
    table.element.node = table.nodes[table.next++];
    return &table.element;
}

QOR_API HASH_Element *HASH_GetFirstNode(HASH_Handle handle)
{
    Enter(handle, "goes to the start of").next = 0;
    return HASH_GetNextNode(handle);
}
}
