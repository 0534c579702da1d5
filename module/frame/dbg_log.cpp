#include "frame/dbg_log.h"

#include <stdarg.h>

#include "bounded.h"
#include "frame/service_tables.h"

u32 g_qorL2resDbgId = 0;
u32 g_qorL2resBlackBoxId = 0;

namespace {

// The services' own level numbers.
constexpr u32 kDebugError = 2;
constexpr u32 kDebugWarning = 3;
constexpr u32 kDebugInfo = 4;
constexpr u32 kBlackBoxEvent = 0;
constexpr u32 kBlackBoxError = 1;
constexpr u32 kNoBlackBox = 3;

struct LevelRow {
    bool written;
    u32 debugLevel;
    u32 blackBoxLevel;
};

constexpr LevelRow kLevels[] = {
    {true, kDebugInfo, kNoBlackBox},     // L2RES_LOG_TRACE
    {true, kDebugInfo, kBlackBoxEvent},  // L2RES_LOG_EVENT
    {true, kDebugInfo, kNoBlackBox},     // L2RES_LOG_REPORT
    {false, 0, kNoBlackBox},             // no message has this level
    {true, kDebugWarning, kNoBlackBox},  // L2RES_LOG_STARTUP
    {true, kDebugError, kBlackBoxError}, // L2RES_LOG_ERROR
};
constexpr LevelRow kUnknownLevel = {false, 0, kNoBlackBox};

inline const LevelRow &RowOf(u32 level)
{
    return level < sizeof kLevels / sizeof kLevels[0] ? kLevels[level] : kUnknownLevel;
}

inline const L2ResDbgLogVtbl *DebugLog()
{
    return static_cast<const L2ResDbgLogVtbl *>(g_qorL2resFuncVtbl[L2RES_VTBL_DEBUG_LOG]);
}

inline const L2ResBlackBoxVtbl *BlackBox()
{
    return static_cast<const L2ResBlackBoxVtbl *>(g_qorL2resFuncVtbl[L2RES_VTBL_BLACK_BOX]);
}

} // namespace

u32 QorL2ResGetDbgLogLevel(u32 level, u32 *debugLevel, u32 *blackBoxLevel)
{
    if (debugLevel == nullptr) {
        return QOR_FAIL;
    }
    const LevelRow &row = RowOf(level);
    *blackBoxLevel = row.blackBoxLevel;
    if (!row.written) {
        return QOR_FAIL;
    }
    *debugLevel = row.debugLevel;
    return QOR_OK;
}

void QorL2ResDbgWriteLog(u32 level, u32 category, const char *format, ...)
{
    (void)category;
    const LevelRow &row = RowOf(level);
    // Without a service nobody would see the text: spare the formatting.
    if (!LogIsAttached() || !row.written) {
        return;
    }
    char text[L2RES_LOG_SIZE] = {};
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf_s(text, sizeof text, sizeof text - 1, format, arguments);
    va_end(arguments);
    if (length < 0) {
        return;
    }
    QorL2resVtblPrintDbgLog(g_qorL2resDbgId, row.debugLevel, text);
    if (row.blackBoxLevel != kNoBlackBox) {
        QorL2resPrintBlackBox(row.blackBoxLevel, text);
    }
}

void QorL2resInitDbg(void)
{
    const u32 ret = QorL2resRegDbgModule("QOR_L2RES", &g_qorL2resDbgId);
    if (ret != QOR_OK) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL, "L2resRegDbgModule failed, ret:%u.",
                            ret);
    }
}

u32 QorL2resBlackBoxReg(void)
{
    return QorL2resRegBlackBoxModule("qor-l2rsm", "Forward manage l2res module",
                                     &g_qorL2resBlackBoxId);
}

void QorL2resPrintBlackBox(u32 blackBoxLevel, const char *text)
{
    QorL2resVtblPrintBlackBox(g_qorL2resBlackBoxId, blackBoxLevel, text);
}

u32 QorL2resRegDbgModule(const char *name, u32 *id)
{
    const L2ResDbgLogVtbl *vtbl = DebugLog();
    if (vtbl == nullptr || vtbl->registerModule == nullptr) {
        return QOR_FAIL;
    }
    return vtbl->registerModule(name, id);
}

void QorL2resVtblPrintDbgLog(u32 id, u32 debugLevel, const char *text)
{
    const L2ResDbgLogVtbl *vtbl = DebugLog();
    if (vtbl != nullptr && vtbl->print != nullptr) {
        vtbl->print(id, debugLevel, text);
    }
}

u32 QorL2resRegBlackBoxModule(const char *name, const char *description, u32 *id)
{
    if (name == nullptr || description == nullptr || id == nullptr) {
        return QOR_FAIL;
    }
    const L2ResBlackBoxVtbl *vtbl = BlackBox();
    if (vtbl == nullptr || vtbl->registerModule == nullptr) {
        return QOR_FAIL;
    }
    return vtbl->registerModule(name, description, id);
}

void QorL2resVtblPrintBlackBox(u32 id, u32 blackBoxLevel, const char *text)
{
    const L2ResBlackBoxVtbl *vtbl = BlackBox();
    if (vtbl != nullptr && vtbl->print != nullptr) {
        vtbl->print(id, blackBoxLevel, text);
    }
}
