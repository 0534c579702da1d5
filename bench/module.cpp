#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <random>
#include <thread>

#include "bench.h"
#include "comp_registry.h"
#include "frame/service_tables.h"
#include "frame/worker.h"
#include "l2rsm_entry.h"
#include "l2rsm_services.h"

namespace bench {

void (*g_onCount)() = nullptr;
u64 g_translations = 0;

namespace {

thread_local Lines t_lines;
thread_local std::vector<std::string> *t_texts = nullptr;

u32 InitPartition(u32, const char *)
{
    return 0;
}

u32 PartitionNumber(u32, const char *)
{
    return 7;
}

u32 SysTime(L2ResAlarmTime *now)
{
    *now = {};
    return 0;
}

u32 AlarmCreate(u32, u32, L2ResAlarmHandle *object)
{
    *object = 1;
    return 0;
}

u32 AlarmAttributes(L2ResAlarmHandle, L2ResAlarmAttr *)
{
    return 0;
}

u32 AlarmParameter(L2ResAlarmHandle, u32, u32, const void *)
{
    return 0;
}

u32 AlarmSendOrFree(L2ResAlarmHandle)
{
    return 0;
}

u32 Slot()
{
    return 3;
}

u32 RegisterDebugLog(const char *, u32 *id)
{
    *id = 1;
    return 0;
}

void PrintDebugLog(u32, u32, const char *text)
{
    ++t_lines.debugLog;
    if (t_texts != nullptr) {
        t_texts->emplace_back(text);
    }
}

u32 RegisterBlackBox(const char *, const char *, u32 *id)
{
    *id = 2;
    return 0;
}

void PrintBlackBox(u32, u32, const char *)
{
    ++t_lines.blackBox;
}

L2ResMemmVtbl g_memm = {{}, InitPartition, PartitionNumber};
L2ResTimeVtbl g_time = {{}, SysTime};
L2ResLogVtbl g_log = {nullptr,        AlarmCreate,     AlarmAttributes, nullptr,
                      AlarmParameter, AlarmSendOrFree, AlarmSendOrFree};
L2ResOrchmVtbl g_orchm = {{}, Slot};
L2ResDbgLogVtbl g_debugLog = {nullptr, RegisterDebugLog, {}, PrintDebugLog};
L2ResBlackBoxVtbl g_blackBox = {nullptr, RegisterBlackBox, PrintBlackBox};

/* An interface object is a record whose first field is the table. */
u32 CreateInstance(void *, u32 interfaceId, void **out)
{
    static void *tables[] = {&g_orchm, &g_memm, &g_debugLog, &g_log, &g_time, &g_blackBox};
    switch (interfaceId) {
    case L2RES_IID_ORCHESTRATION:
        *out = &tables[0];
        return 0;
    case L2RES_IID_MEMORY_MANAGER:
        *out = &tables[1];
        return 0;
    case L2RES_IID_DEBUG_LOG:
        *out = &tables[2];
        return 0;
    case L2RES_IID_LOG:
        *out = &tables[3];
        return 0;
    case L2RES_IID_TIME:
        *out = &tables[4];
        return 0;
    case L2RES_IID_BLACK_BOX:
        *out = &tables[5];
        return 0;
    default:
        *out = nullptr;
        return 1;
    }
}

u32 QueryFactory(void *, u32, void **)
{
    return QOR_E_NO_INTERFACE;
}

u32 CountIcib(u32 *total, u32 *used, u32 *idle)
{
    *total = 4096;
    *used = 100;
    if (g_onCount != nullptr) {
        *used = *total;
        g_onCount();
    }
    *idle = *total - *used;
    return 0;
}

u32 Translate(const VlanEditInfo *, u16, u16, u32)
{
    ++g_translations;
    return 0;
}

[[noreturn]] void Die(const char *what)
{
    std::fprintf(stderr, "l2rsm-bench: %s\n", what);
    std::exit(1);
}

const L2RsmFunVtbl *Start()
{
    static const QorFactoryVtbl vtbl = {QueryFactory, CreateInstance};
    static QorFactory factory = {&vtbl};
    static const QorComponentInfo info = {L2RES_SERVICE_COMPONENT, "BENCH", "BENCH", 1, &factory};
    void *table = nullptr;
    if (COMP_RegisterComponentInfo(&info) != 0 || QorL2ResInit(0, 0, L2RES_PHASE_INIT) != 0 ||
        COMP_GetVTable(L2RES_COMPONENT_ID, L2RES_IID_FUNCTIONS, &table) != 0) {
        Die("phase 1 failed");
    }
    const auto *module = static_cast<const L2RsmFunVtbl *>(table);
    module->hookRegister(L2RES_HOOK_ICIB_PP, reinterpret_cast<L2ResHook>(CountIcib));
    module->hookRegister(L2RES_HOOK_VLAN_TRANSLATION, reinterpret_cast<L2ResHook>(Translate));
    AttachLog(false);
    return module;
}

} // namespace

const L2RsmFunVtbl &Module()
{
    static const L2RsmFunVtbl *module = Start();
    return *module;
}

void StartWorker()
{
    static const u32 started = QorL2ResInit(0, 0, L2RES_PHASE_START);
    if (started != 0) {
        Die("phase 2 failed");
    }
    // A message that is taken shows that queue, epoll instance and dispatcher are in place.
    while (QorL2ResMsgWrite(0, nullptr, 0) != 0) {
        std::this_thread::yield();
    }
}

void AttachLog(bool attached)
{
    g_qorL2resFuncVtbl[L2RES_VTBL_DEBUG_LOG] = attached ? &g_debugLog : nullptr;
    g_qorL2resFuncVtbl[L2RES_VTBL_BLACK_BOX] = attached ? &g_blackBox : nullptr;
}

Lines LinesOfThread()
{
    return t_lines;
}

std::vector<std::string> TextsOf(const std::function<void()> &work)
{
    std::vector<std::string> texts;
    t_texts = &texts;
    work();
    t_texts = nullptr;
    return texts;
}

L2ResIcibKey KeyAt(Keys keys, u32 index)
{
    L2ResIcibKey key = {};
    key.keyType = 2;
    key.keyAttr1 = 1;
    key.keyAttr2 = 1;
    key.OutVlan = static_cast<u16>(keys == Keys::spread ? index % 1024 : 100);
    if (keys == Keys::innerVlans) {
        key.GlobalPort = 17;
        key.Vsi = 5;
        key.InnerVlan = static_cast<u16>(index % 4096);
        key.Pri = index / 4096;
    } else {
        key.GlobalPort = static_cast<u16>(index % 48);
        key.Vsi = static_cast<u16>(index / 16);
        key.InnerVlan = static_cast<u16>(index / 4);
        key.Vdc = index >> 16;
    }
    return key;
}

std::vector<u32> Shuffled(u32 count)
{
    std::vector<u32> order(count);
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    return order;
}

} // namespace bench
