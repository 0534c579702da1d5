#include <string.h>

#include "frame/dbg_log.h"
#include "l2rsm_entry.h"

// Each reserved function stays a function of its own and is called through its symbol: a patch
// replaces the symbol.

namespace {

constexpr char kLibraryName[] = "libqor_l2rsm.so";

inline void WriteReservedLine(const char *text)
{
    QorL2ResDbgWriteLog(L2RES_LOG_TRACE, L2RES_LOG_GENERAL, "%s", text);
}

} // namespace

void libqor_l2rsm_ResPatchC2hActivefunc01(void)
{
    WriteReservedLine("libqor_l2rsm reserved patch c2h active01.");
}

void libqor_l2rsm_ResPatchC2hActivefunc02(void)
{
    WriteReservedLine("libqor_l2rsm reserved patch c2h active02.");
}

void libqor_l2rsm_ResPatchC2hActivefunc(void)
{
    libqor_l2rsm_ResPatchC2hActivefunc01();
    libqor_l2rsm_ResPatchC2hActivefunc02();
    WriteReservedLine("libqor_l2rsm reserved patch c2h active.");
}

void libqor_l2rsm_ResPatchC2hDeactivefunc01(void)
{
    WriteReservedLine("libqor_l2rsm reserved patch c2h deactive01.");
}

void libqor_l2rsm_ResPatchC2hDeactivefunc02(void)
{
    WriteReservedLine("libqor_l2rsm reserved patch c2h deactive02.");
}

void libqor_l2rsm_ResPatchC2hDeactivefunc(void)
{
    libqor_l2rsm_ResPatchC2hDeactivefunc01();
    libqor_l2rsm_ResPatchC2hDeactivefunc02();
    WriteReservedLine("libqor_l2rsm reserved patch c2h deactive.");
}

u32 libqor_l2rsm_PAT_C2HSyncHookFunc(u32 operCode, u64 unused, const void *patchInfo, u32 *handled)
{
    (void)unused;
    *handled = 0;
    if (patchInfo == nullptr ||
        strcmp(static_cast<const char *>(patchInfo) + L2RES_PATCH_LIBRARY_OFFSET, kLibraryName) !=
            0) {
        return QOR_OK;
    }
    *handled = 1;
    switch (operCode) {
    case L2RES_PATCH_ACTIVATE:
        libqor_l2rsm_ResPatchC2hActivefunc();
        return QOR_OK;
    case L2RES_PATCH_DEACTIVATE:
        libqor_l2rsm_ResPatchC2hDeactivefunc();
        return QOR_OK;
    default:
        QorL2ResDbgWriteLog(L2RES_LOG_TRACE, L2RES_LOG_GENERAL,
                            "libqor_l2rsm c2h active or deactive oper failed, operCode %d",
                            operCode);
        return QOR_FAIL;
    }
}
