#include "support/services.h"

#include <atomic>
#include <cstring>
#include <mutex>

#include "comp_registry.h"
#include "l2rsm_entry.h"
#include "support/journal.h"

namespace services {
namespace {

using journal::Join;
using journal::Write;

std::mutex g_mutex; /* guards results and the object numbers */
u64 g_objects = 0;

u32 ResultOf(const std::string &operation)
{
    auto &fakes = Get();
    if (const u32 fault = fakes.fault ? fakes.fault(operation) : 0) {
        return fault;
    }
    std::lock_guard lock(g_mutex);
    const auto row = fakes.results.find(operation);
    if (row == fakes.results.end() || row->second.empty()) {
        return 0;
    }
    const u32 result = row->second.front();
    if (row->second.size() > 1) {
        row->second.erase(row->second.begin());
    }
    return result;
}

/* Journal entry, interleaved code of the test, result: what every alarm operation does. */
template <class... Arguments>
u32 AlarmOperation(const std::string &operation, const Arguments &...arguments)
{
    Write(journal::kAlarm, Join(operation, arguments...));
    if (Get().during) {
        Get().during(operation);
    }
    return ResultOf(operation);
}

u32 InitPartition(u32 memoryId, const char *name)
{
    Write(journal::kService, Join("initPartition", memoryId, name));
    return ResultOf("initPartition");
}

u32 GetPartitionNumber(u32 memoryId, const char *name)
{
    Write(journal::kService, Join("getPartitionNumber", memoryId, name));
    return Get().partition;
}

u32 GetSysTime(L2ResAlarmTime *now)
{
    memset(now, 0x5A, sizeof(*now));
    return AlarmOperation("getSysTime");
}

u32 ObjCreate(u32 objectKind, u32 alarmId, L2ResAlarmHandle *object)
{
    const u32 result = AlarmOperation("objCreate", objectKind, alarmId);
    if (result == 0) {
        std::lock_guard lock(g_mutex);
        *object = ++g_objects;
    }
    return result;
}

u32 SetAlarmComAttr(L2ResAlarmHandle object, L2ResAlarmAttr *attr)
{
    EXPECT_EQ(attr->zero12 + attr->zero28 + attr->zero32, 0u);
    const bool timed = attr->time != nullptr && attr->time->opaque[19] == 0x5A;
    EXPECT_TRUE(timed) << "no time record, or one that the time service did not fill";
    const std::string kind = std::to_string(attr->alarmKind) + "/" + std::to_string(attr->kindCode);
    return AlarmOperation("setAlarmComAttr", object, "kind", kind, "time", attr->timeKind, "code",
                          attr->tableAlarmCode);
}

u32 AddPara(L2ResAlarmHandle object, u32 paraType, u32 length, const void *value)
{
    std::string text;
    if (paraType == L2RES_PARA_NUMBER && length == sizeof(u32)) {
        u32 number;
        memcpy(&number, value, sizeof(number));
        text = std::to_string(number);
    } else {
        text.assign(static_cast<const char *>(value), length);
    }
    return AlarmOperation("addPara", object, paraType, length, text);
}

u32 Send(L2ResAlarmHandle object)
{
    return AlarmOperation("send", object);
}

u32 ObjFree(L2ResAlarmHandle object)
{
    return AlarmOperation("objFree", object);
}

u32 GetSelfSlot()
{
    Write(journal::kService, "getSelfSlot");
    return Get().slot;
}

/* The ids given at registration: every message comes with its own. */
std::atomic<u32> g_dbgId{0}, g_blackBoxId{0};

u32 DbgRegister(const char *name, u32 *id)
{
    Write(journal::kService, Join("dbg register", name));
    const u32 result = ResultOf("dbgRegister");
    if (result == 0) {
        *id = g_dbgId = kDbgId;
    }
    return result;
}

void DbgPrint(u32 id, u32 level, const char *text)
{
    EXPECT_EQ(id, g_dbgId.load());
    Write(journal::kLog, "log " + std::to_string(level) + ": " + text);
}

u32 BlackBoxRegister(const char *name, const char *description, u32 *id)
{
    Write(journal::kService, Join("bbox register", name, description));
    const u32 result = ResultOf("blackBoxRegister");
    if (result == 0) {
        *id = g_blackBoxId = kBlackBoxId;
    }
    return result;
}

void BlackBoxPrint(u32 id, u32 level, const char *text)
{
    EXPECT_EQ(id, g_blackBoxId.load());
    Write(journal::kBlackBox, "bbox " + std::to_string(level) + ": " + text);
}

Fakes WorkingFakes()
{
    Fakes fakes{};
    fakes.memm.initPartition = InitPartition;
    fakes.memm.getPartitionNumber = GetPartitionNumber;
    fakes.time.getSysTime = GetSysTime;
    fakes.log.objCreate = ObjCreate;
    fakes.log.setAlarmComAttr = SetAlarmComAttr;
    fakes.log.addPara = AddPara;
    fakes.log.send = Send;
    fakes.log.objFree = ObjFree;
    fakes.orchm.getSelfSlot = GetSelfSlot;
    fakes.dbgLog.registerModule = DbgRegister;
    fakes.dbgLog.print = DbgPrint;
    fakes.blackBox.registerModule = BlackBoxRegister;
    fakes.blackBox.print = BlackBoxPrint;
    return fakes;
}

/* An interface object is a record whose first field is the table. */
u32 CreateInstance(void *, u32 interfaceId, void **out)
{
    auto &fakes = Get();
    static std::map<u32, void *> objects = {
        {L2RES_IID_ORCHESTRATION, &fakes.orchm}, {L2RES_IID_MEMORY_MANAGER, &fakes.memm},
        {L2RES_IID_DEBUG_LOG, &fakes.dbgLog},    {L2RES_IID_LOG, &fakes.log},
        {L2RES_IID_TIME, &fakes.time},           {L2RES_IID_BLACK_BOX, &fakes.blackBox}};
    Write(journal::kService, Join("interface", interfaceId));
    const auto object = objects.find(interfaceId);
    if (object == objects.end() || fakes.missing.count(interfaceId) != 0) {
        *out = nullptr;
        return QOR_FAIL;
    }
    *out = &object->second;
    return QOR_OK;
}

u32 QueryFactory(void *, u32, void **)
{
    return QOR_E_NO_INTERFACE;
}

} // namespace

Fakes &Get()
{
    static Fakes &fakes = *new Fakes(WorkingFakes()); // outlives the worker task
    return fakes;
}

void Register()
{
    static const QorFactoryVtbl vtbl = {QueryFactory, CreateInstance};
    static QorFactory factory = {&vtbl};
    static QorComponentInfo info = {L2RES_SERVICE_COMPONENT, "FAKES", "FAKES", 1, &factory};
    static const u32 result = COMP_RegisterComponentInfo(&info);
    ASSERT_EQ(result, 0u);
}

u32 StartModule()
{
    Register();
    return QorL2ResInit(11, 22, L2RES_PHASE_INIT);
}

void StartWorkingModule()
{
    ASSERT_EQ(StartModule(), 0u);
    journal::Clear();
}

std::string PatchRecord(const std::string &library)
{
    return std::string(L2RES_PATCH_LIBRARY_OFFSET, 'x') + library;
}

} // namespace services
