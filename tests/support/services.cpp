#include "support/services.h"

#include <cstring>
#include <mutex>

#include "comp_registry.h"
#include "l2rsm_entry.h"
#include "support/journal.h"

namespace services {
namespace {

using journal::Write;

std::mutex g_mutex; /* guards results, the seen ids and the object numbers */
u64 g_objects = 0;

u32 ResultOf(const std::string &operation)
{
    auto &fakes = Get();
    if (const u32 fault = fakes.fault ? fakes.fault(operation) : 0) {
        return fault;
    }
    std::lock_guard lock(g_mutex);
    if (auto row = fakes.results.find(operation);
        row != fakes.results.end() && !row->second.empty()) {
        const u32 result = row->second.front();
        row->second.erase(row->second.begin());
        return result;
    }
    const auto row = fakes.result.find(operation);
    return row == fakes.result.end() ? 0 : row->second;
}

/* Journal entry, interleaved code of the test, result: what every alarm operation does. */
u32 AlarmOperation(const std::string &operation, const std::string &arguments)
{
    Write(journal::kAlarm, arguments.empty() ? operation : operation + " " + arguments);
    if (Get().during) {
        Get().during(operation);
    }
    return ResultOf(operation);
}

u32 InitPartition(u32 memoryId, const char *name)
{
    Write(journal::kService, "initPartition " + std::to_string(memoryId) + " " + name);
    return ResultOf("initPartition");
}

u32 GetPartitionNumber(u32 memoryId, const char *name)
{
    Write(journal::kService, "getPartitionNumber " + std::to_string(memoryId) + " " + name);
    return Get().partition;
}

u32 GetSysTime(L2ResAlarmTime *now)
{
    memset(now, 0x5A, sizeof(*now));
    return AlarmOperation("getSysTime", "");
}

u32 ObjCreate(u32 objectKind, u32 alarmId, L2ResAlarmHandle *object)
{
    const u32 result =
        AlarmOperation("objCreate", std::to_string(objectKind) + " " + std::to_string(alarmId));
    if (result == 0) {
        std::lock_guard lock(g_mutex);
        *object = ++g_objects;
    }
    return result;
}

u32 SetAlarmComAttr(L2ResAlarmHandle object, L2ResAlarmAttr *attr)
{
    EXPECT_EQ(attr->zero12, 0u);
    EXPECT_EQ(attr->zero28, 0u);
    EXPECT_EQ(attr->zero32, 0u);
    if (attr->time == nullptr) {
        ADD_FAILURE() << "attribute record without a time record";
    } else {
        EXPECT_EQ(attr->time->opaque[19], 0x5A) << "the time service filled another record";
    }
    return AlarmOperation("setAlarmComAttr", std::to_string(object) + " kind " +
                                                 std::to_string(attr->alarmKind) + "/" +
                                                 std::to_string(attr->kindCode) + " time " +
                                                 std::to_string(attr->timeKind) + " code " +
                                                 std::to_string(attr->tableAlarmCode));
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
    return AlarmOperation("addPara", std::to_string(object) + " " + std::to_string(paraType) + " " +
                                         std::to_string(length) + " " + text);
}

u32 Send(L2ResAlarmHandle object)
{
    return AlarmOperation("send", std::to_string(object));
}

u32 ObjFree(L2ResAlarmHandle object)
{
    return AlarmOperation("objFree", std::to_string(object));
}

u32 GetSelfSlot()
{
    Write(journal::kService, "getSelfSlot");
    return Get().slot;
}

u32 DbgRegister(const char *name, u32 *id)
{
    Write(journal::kService, std::string("dbg register ") + name);
    const u32 result = ResultOf("dbgRegister");
    if (result == 0) {
        *id = Get().dbgId;
    }
    return result;
}

void DbgPrint(u32 id, u32 level, const char *text)
{
    {
        std::lock_guard lock(g_mutex);
        Get().seenDbgIds.insert(id);
    }
    Write(journal::kLog, "log " + std::to_string(level) + ": " + text);
}

u32 BlackBoxRegister(const char *name, const char *description, u32 *id)
{
    Write(journal::kService, std::string("bbox register ") + name + " " + description);
    const u32 result = ResultOf("blackBoxRegister");
    if (result == 0) {
        *id = Get().blackBoxId;
    }
    return result;
}

void BlackBoxPrint(u32 id, u32 level, const char *text)
{
    {
        std::lock_guard lock(g_mutex);
        Get().seenBlackBoxIds.insert(id);
    }
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

void *TableOf(u32 interfaceId)
{
    auto &fakes = Get();
    switch (interfaceId) {
    case L2RES_IID_ORCHESTRATION:
        return &fakes.orchm;
    case L2RES_IID_MEMORY_MANAGER:
        return &fakes.memm;
    case L2RES_IID_DEBUG_LOG:
        return &fakes.dbgLog;
    case L2RES_IID_LOG:
        return &fakes.log;
    case L2RES_IID_TIME:
        return &fakes.time;
    case L2RES_IID_BLACK_BOX:
        return &fakes.blackBox;
    default:
        return nullptr;
    }
}

/* An interface object is a record whose first field is the table. */
u32 CreateInstance(void *, u32 interfaceId, void **out)
{
    static std::map<u32, void *> objects;
    *out = nullptr;
    Write(journal::kService, "interface " + std::to_string(interfaceId));
    void *table = TableOf(interfaceId);
    if (table == nullptr || Get().missing.count(interfaceId) != 0) {
        return QOR_FAIL;
    }
    objects[interfaceId] = table;
    *out = &objects[interfaceId];
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
