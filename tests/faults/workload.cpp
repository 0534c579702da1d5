#include "faults/workload.h"

#include <atomic>
#include <utility>

#include "alarms/alarm_emission.h"
#include "alarms/exceed_check.h"
#include "bounded.h"
#include "frame/worker.h"
#include "l2rsm_component.h"
#include "l2rsm_entry.h"
#include "support/faults.h"
#include "support/services.h"
#include "support/sides.h"

namespace workload {

void (*g_onCount)() = nullptr;

namespace {

std::vector<std::string> g_story;
std::atomic<unsigned> g_failAt{0};
std::atomic<bool> g_failed{false};
std::atomic<int> g_openObjects{0};
u32 g_used = 10; /* of 100, what every count hook reports */

const L2RsmFunVtbl &g_api = g_l2RsmFunVtbl;

void Note(const std::string &what, u64 value)
{
    g_story.push_back(what + " " + std::to_string(value));
}

u32 Foreign()
{
    if (g_failAt != 0 && --g_failAt == 0) {
        g_failed = true;
        return 5;
    }
    return QOR_OK;
}

/* Two in one bucket, one in another. */
const Key kKeys[] = {MakeKey(100, 10), MakeKey(100, 11), MakeKey(200, 10)};

/* The forwarding type of a request is its service type. */
void Get(const Side &side, u32 key, u32 service, u32 op, u64 stamp)
{
    const Ask ask = {service, static_cast<u16>(service), stamp, "what the client keeps"};
    Note("get", side.Get(op, ask, kKeys[key]));
}

void Free(const Side &side, u32 key, u32 op)
{
    Note("free", side.Free(op, kKeys[key]));
}

template <u32 kTable, u32 kService> u32 Notified(u32 event, void *record, void *)
{
    Note("notified " + std::to_string(kTable) + "/" + std::to_string(kService), event);
    if (kService == 2 && record != nullptr) { // asks for another entry from within
        Get(*kSides[kTable != L2RES_TABLE_ICIB], 2, 2, L2RES_OP_ADD, 50);
    }
    return Foreign();
}

template <u32... kTables> void RegisterRows()
{
    (g_api.notifyRegister(kTables, 0, Notified<kTables, 0>), ...);
    (g_api.notifyRegister(kTables, 1, Notified<kTables, 1>), ...);
    (g_api.notifyRegister(kTables, 2, Notified<kTables, 2>), ...);
    (g_api.notifyRegister(kTables, 3, Notified<kTables, 3>), ...);
}

void RegisterServices()
{
    RegisterRows<L2RES_TABLE_ICIB, L2RES_TABLE_ECIB, L2RES_TABLE_IPAT, L2RES_TABLE_LEM,
                 L2RES_TABLE_SEM>();
    g_api.icibRegister(1, Notified<L2RES_TABLE_ICIB, 1>);
    g_api.ecibRegister(1, Notified<L2RES_TABLE_ECIB, 1>);
    g_api.ipatRegister(1, Notified<L2RES_TABLE_IPAT, 1>);
    g_api.notifyRegister(L2RES_TABLE_ECIB, 8, nullptr);
}

u32 Count(u32 *total, u32 *used, u32 *idle)
{
    *total = 100;
    *used = g_used;
    *idle = 100 - g_used;
    if (g_onCount != nullptr) {
        g_onCount();
    }
    return Foreign();
}

u32 Translate(const VlanEditInfo *info, u16 profile, u16 command, u32 flag)
{
    Note("translate " + std::to_string(info->servType) + " " + std::to_string(profile) + " " +
             std::to_string(command),
         flag);
    return Foreign();
}

void RegisterHooks()
{
    for (u32 type : {0, 1, 2, 4, 5}) {
        g_api.hookRegister(type, reinterpret_cast<L2ResHook>(Count));
    }
    g_api.hookRegister(L2RES_HOOK_VLAN_TRANSLATION, reinterpret_cast<L2ResHook>(Translate));
}

/* ---- Tokens ---- */

/* Grants, repeats, refusals and waits, then a release that notifies three services. */
void PlayTokens(const Side &side)
{
    Get(side, 0, 1, L2RES_OP_ADD, 10);
    Get(side, 0, 1, L2RES_OP_ADD, 11);
    Get(side, 0, 2, L2RES_OP_ADD, 12);
    Get(side, 0, 2, L2RES_OP_ADD, 1);
    Get(side, 0, 3, L2RES_OP_DELETE, 13);
    Get(side, 0, 3, L2RES_OP_UPDATE, 14);
    Free(side, 0, L2RES_OP_ADD);
    Get(side, 0, 1, L2RES_OP_UPDATE, 20);
    Get(side, 0, 1, L2RES_OP_DELETE, 30);
    Free(side, 0, L2RES_OP_DELETE);
    Get(side, 1, 3, L2RES_OP_DELETE, 10); // nobody holds these two
    Get(side, 2, 3, L2RES_OP_UPDATE, 10);
    Get(side, 1, 4, L2RES_OP_ADD, 99); // not registered: waits, and nobody is told
}

void ReleaseTokens(const Side &side)
{
    for (int i = 0; i < 12; ++i) { // IPAT drops one waiter at a time
        for (u32 key = 0; key < 3; ++key) {
            Free(side, key, L2RES_OP_DELETE);
        }
    }
}

void Query(u32 key)
{
    L2ResQueryEntry entries[L2RES_QUERY_MAX];
    u16 count = 0;
    Note("query", QorL2ResIcibGet(&kKeys[key].icib, entries, &count));
    Note("entries", count);
}

void WalkThrice() // the third one notifies
{
    for (int i = 0; i < 3; ++i) {
        QorL2ResIcibReOpHashWalk();
    }
}

void PlayIcib()
{
    RegisterServices();
    PlayTokens(kIcib);
    Query(1);
    WalkThrice();
    Query(1);
}

void ReleaseIcib()
{
    ReleaseTokens(kIcib);
    WalkThrice();         // what waits for an entry that nobody holds
    ReleaseTokens(kIcib); // and what those asked for from within
}

/* ---- Alarms ---- */

constexpr u32 kAlarmTypes[] = {0, 1, 2, 4, 5};

void ProbeAll()
{
    for (u32 type : kAlarmTypes) {
        QorL2ResProbeProc(type);
    }
}

void PlayAlarms()
{
    RegisterHooks();
    g_used = 100;
    for (u32 type : kAlarmTypes) {
        Note("check", g_api.exceedCheckAndAlarm(type));
    }
    Note("check both", QorL2ResEcibExceedCheckAndAlarm());
    u32 threshold = 0;
    Note("full", QorL2ResExceedCheck(L2RES_HOOK_LEM, &threshold));
    for (int i = 0; i < 120; ++i) { // the 120th sends it again
        QorL2ResProbeProc(L2RES_ALARM_LEM);
    }
    ProbeAll();
    g_used = 10;
    ProbeAll();
    Note("start", QorL2ResAlarmStart(L2RES_ALARM_SEM, 7));
    Note("resume", QorL2ResAlarmResume(L2RES_ALARM_SEM, 7));
    L2ResAlarmAttr attr = {};
    L2ResAlarmTime time = {};
    L2ResAlarmHandle object = 0;
    if (services::Get().log.objCreate(5, 1, &object) == QOR_OK) {
        Note("attributes", QorL2ResLogSetIcibAlarmComAttr(object, &attr, &time));
        (void)services::Get().log.objFree(object);
    }
}

void ReleaseAlarms()
{
    g_used = 100; // raise what may be half raised, so that the clear resets everything
    for (u32 type : kAlarmTypes) {
        (void)g_api.exceedCheckAndAlarm(type);
    }
    g_used = 10;
    ProbeAll();
    for (u32 type : kAlarmTypes) {
        Note("raised", g_qorl2ResAlarmTbl[type].raised);
        Note("cycles", g_qorl2ResAlarmTbl[type].resendCount);
    }
}

/* ---- VLAN edit ---- */

/* Shared command, shared profile, another tag format, reserved profiles. */
VlanEditInfo g_edits[] = {{5, 2, 1, 1, 1, 1, 0, 0, 1, 1}, {6, 2, 1, 1, 1, 1, 0, 0, 1, 1},
                          {5, 2, 2, 1, 1, 1, 0, 0, 1, 1}, {5, 3, 1, 1, 1, 1, 0, 0, 1, 1},
                          {2, 2, 1, 1, 1, 1, 1, 0, 1, 1}, {2, 2, 1, 1, 1, 1, 2, 0, 1, 1},
                          {7, 2, 3, 1, 1, 1, 1, 0, 1, 1}, {7, 2, 3, 1, 1, 1, 0, 0, 1, 1}};

void AssignAll(u32 flag)
{
    for (VlanEditInfo &edit : g_edits) {
        u16 profile = 99;
        Note("assign", g_api.assignVlanEditProfile(&edit, &profile, flag));
        Note("profile", profile);
    }
}

void FreeAll(u32 flag)
{
    for (VlanEditInfo &edit : g_edits) {
        Note("release", g_api.freeVlanEditProfile(&edit, flag));
    }
}

void PlayVlan()
{
    for (u32 flag : {L2RES_VLAN_INGRESS, L2RES_VLAN_EGRESS}) {
        AssignAll(flag);
        AssignAll(flag);
    }
    QorL2ResPrintVlanEditRes();
    FreeAll(L2RES_VLAN_INGRESS);
    FreeAll(L2RES_VLAN_EGRESS);
}

/* A profile that was taken for a command that then failed is freed with its next assignment. */
void ReleaseVlan()
{
    for (u32 flag : {L2RES_VLAN_INGRESS, L2RES_VLAN_EGRESS}) {
        AssignAll(flag);
        FreeAll(flag);
    }
}

/* ---- The worker's messages, handled on this thread, and the patch hooks ---- */

int g_epoll = -1;

void OpenQueue()
{
    g_epoll = epoll_create_s(8);
    if (g_epoll != -1) {
        Note("queue", QorL2ResQueCreate(static_cast<u32>(g_epoll)));
    }
}

void PostWithData(u32 type)
{
    void *data = QorL2ResMemAlloc(100);
    const u32 ret = QorL2ResMsgWrite(type, data, 100);
    Note("post", ret);
    if (ret != QOR_OK) { // stays ours
        (void)QorL2ResMemFree(data);
    }
}

void PlayMessages()
{
    Note("timers", QorL2ResTimerInit());
    OpenQueue();
    Get(kIcib, 1, 3, L2RES_OP_DELETE, 10);
    g_used = 100;
    Note("check", g_api.exceedCheckAndAlarm(L2RES_ALARM_SEM));
    g_used = 10;
    timers::Tick(1000);
    timers::Tick(5000);
    PostWithData(L2RES_MSG_WALK);
    PostWithData(77);
    while (g_qorl2resQueue != 0 && worker::Step()) {
    }
    Note("raised", g_qorl2ResAlarmTbl[L2RES_ALARM_SEM].raised);
    QorL2ResTimerDeInit();
    (void)QorL2ResInit(0, 0, L2RES_PHASE_PATCH);
    u32 handled = 0;
    for (u32 operation : {0, 1, 2}) {
        Note("patch",
             libqor_l2rsm_PAT_C2HSyncHookFunc(
                 operation, 0, services::PatchRecord("libqor_l2rsm.so").c_str(), &handled));
    }
}

void ReleaseMessages()
{
    QorL2ResTimerDeInit(); // one whose stop failed is stopped now
    if (g_qorl2resQueue != 0) {
        (void)worker::Drain();
        (void)QorEpollQueDelete(&g_qorl2resQueue);
        (void)QorL2ResMemFree(worker::Context());
    }
    if (g_epoll != -1) {
        (void)close_s(g_epoll);
        g_epoll = -1;
    }
    ReleaseIcib();
    ReleaseAlarms();
}

} // namespace

constinit const Piece kPieces[5] = {
    {"ICIB tokens", PlayIcib, ReleaseIcib},
    {"IPAT tokens", [] { PlayTokens(kIpat); }, [] { ReleaseTokens(kIpat); }},
    {"alarms", PlayAlarms, ReleaseAlarms},
    {"VLAN edit", PlayVlan, ReleaseVlan},
    {"messages", PlayMessages, ReleaseMessages},
};

void Prepare()
{
    services::Get().fault = [](const std::string &operation) {
        const u32 ret = Foreign();
        g_openObjects += operation == "objCreate" && ret == QOR_OK;
        g_openObjects -= operation == "send" || operation == "objFree";
        return ret;
    };
    timers::Capture();
    RegisterServices();
    RegisterHooks();
}

std::vector<std::string> TakeStory()
{
    return std::exchange(g_story, {});
}

int OpenAlarmObjects()
{
    return g_openObjects;
}

void FailForeign(unsigned nth)
{
    g_failAt = nth;
    g_failed = false;
}

bool ForeignFailed()
{
    return g_failed;
}

} // namespace workload
