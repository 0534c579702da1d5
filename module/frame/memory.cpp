#include "frame/memory.h"

#include "frame/dbg_log.h"
#include "frame/service_tables.h"
#include "zir_memory.h"

namespace {

constexpr u32 kNoHandle = 0xFFFFFFFF;
constexpr u8 kNoPartition = 0xFF;
constexpr u32 kMemoryId = 45000; // the module's number with the memory manager
constexpr char kMemoryName[] = "l2rsm";

} // namespace

u32 g_qorL2ResMemHandle = kNoHandle;
u8 g_qorL2ResMemPtNo = kNoPartition;

u32 QorL2ResInitMemHandle(void)
{
    const u32 ret = ZIR_HandleInitialize(kMemoryName, &g_qorL2ResMemHandle);
    if (ret != QOR_OK) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "QOR l2RSM Module InitMemHandle failed, ret is %d.", ret);
    }
    return ret;
}

u32 QorL2ResMemmInit(void)
{
    u32 ret = QorL2ResInitMemHandle();
    if (ret != QOR_OK) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "QOR l2RSM InitHandle failed, ret is %d.", ret);
        return ret;
    }
    if (QorL2ResGetMemmFunVtbl() != QOR_OK) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL, "GetMemmFunVtbl failed.");
        return QOR_FAIL;
    }
    const L2ResMemmVtbl *memm = g_qorL2ResMemmFunVtbl;
    if (memm->initPartition == nullptr || memm->getPartitionNumber == nullptr) {
        return QOR_FAIL;
    }
    ret = memm->initPartition(kMemoryId, kMemoryName);
    if (ret != QOR_OK) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "failed to init mem pt no, ret is %d.", ret);
        return ret;
    }
    g_qorL2ResMemPtNo = static_cast<u8>(memm->getPartitionNumber(kMemoryId, kMemoryName));
    if (g_qorL2ResMemPtNo == 0) {
        // Suspicious but usable: the default partition serves as well.
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "failed to get mem pt no, ret is %d.", 0);
    }
    return QOR_OK;
}

void *QorL2ResMemAlloc(u64 size)
{
    if (g_qorL2ResMemHandle == kNoHandle || g_qorL2ResMemPtNo == kNoPartition) {
        return nullptr;
    }
    return ZIR_MemAlloc(g_qorL2ResMemHandle, g_qorL2ResMemPtNo, size);
}

u32 QorL2ResMemFree(void *block)
{
    if (block == nullptr || g_qorL2ResMemHandle == kNoHandle) {
        return QOR_FAIL;
    }
    return ZIR_MemFree(g_qorL2ResMemHandle, block);
}

u8 QorL2ResGetMemPtNo(void)
{
    return g_qorL2ResMemPtNo;
}
