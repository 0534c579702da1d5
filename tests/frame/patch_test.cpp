// Hot-patch hooks. A patch is played by this executable's own definition of a reserved function,
// which comes before the module's as a patch's does.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "l2rsm_entry.h"
#include "support/journal.h"
#include "support/services.h"

namespace {

bool g_patched = false;

} // namespace

extern "C" QOR_API void libqor_l2rsm_ResPatchC2hActivefunc02(void)
{
    if (g_patched) {
        journal::Write(journal::kCall, "patched");
    } else {
        reinterpret_cast<void (*)()>(dlsym(RTLD_NEXT, "libqor_l2rsm_ResPatchC2hActivefunc02"))();
    }
}

namespace {

using journal::Lines;

constexpr u32 kUntouched = 9;

u32 Request(u32 operCode, const std::string &library, u32 *handled)
{
    *handled = kUntouched;
    const auto record = services::PatchRecord(library);
    return libqor_l2rsm_PAT_C2HSyncHookFunc(operCode, 0xDEAD, record.c_str(), handled);
}

const Lines kActive = {"log 4: libqor_l2rsm reserved patch c2h active01.",
                       "log 4: libqor_l2rsm reserved patch c2h active02.",
                       "log 4: libqor_l2rsm reserved patch c2h active."};
const Lines kDeactive = {"log 4: libqor_l2rsm reserved patch c2h deactive01.",
                         "log 4: libqor_l2rsm reserved patch c2h deactive02.",
                         "log 4: libqor_l2rsm reserved patch c2h deactive."};

TEST(Patch, RequestsForThisLibraryAreServed)
{
    services::StartWorkingModule();
    const std::string invalid = "libqor_l2rsm c2h active or deactive oper failed, operCode ";
    struct {
        u32 operCode;
        const char *library;
        u32 result, handled;
        Lines lines;
    } const rows[] = {
        {0, "libqor_l2rsm.so", 0, 1, kActive},
        {1, "libqor_l2rsm.so", 0, 1, kDeactive},
        {2, "libqor_l2rsm.so", 1, 1, {"log 4: " + invalid + "2"}},
        {0x7FFFFFFF, "libqor_l2rsm.so", 1, 1, {"log 4: " + invalid + "2147483647"}},
        {0, "libqor_l2rsm.s", 0, 0, {}},
        {0, "libqor_l2rsm.so.1", 0, 0, {}},
        {1, "LIBQOR_L2RSM.SO", 0, 0, {}},
        {2, "", 0, 0, {}},
    };
    for (const auto &row : rows) {
        journal::Clear();
        u32 handled = kUntouched;
        EXPECT_EQ(Request(row.operCode, row.library, &handled), row.result) << row.library;
        EXPECT_EQ(handled, row.handled) << row.library;
        EXPECT_TRUE(journal::Is(row.lines)) << row.library;
    }
    u32 handled = kUntouched;
    EXPECT_EQ(libqor_l2rsm_PAT_C2HSyncHookFunc(0, 0, nullptr, &handled), 0u);
    EXPECT_EQ(handled, 0u);
}

TEST(Patch, Phase3DeactivatesThenActivates)
{
    services::StartWorkingModule();
    EXPECT_EQ(QorL2ResInit(0, 0, L2RES_PHASE_PATCH), 0u);
    Lines expected = kDeactive;
    expected.insert(expected.end(), kActive.begin(), kActive.end());
    EXPECT_TRUE(journal::Is(expected));
}

TEST(Patch, AReplacedReservedFunctionRunsEverywhere)
{
    services::StartWorkingModule();
    g_patched = true;
    const Lines patched = {kActive[0], "patched", kActive[2]};
    u32 handled = 0;
    EXPECT_EQ(Request(0, "libqor_l2rsm.so", &handled), 0u);
    EXPECT_TRUE(journal::Is(patched));
    journal::Clear();
    EXPECT_EQ(QorL2ResInit(0, 0, L2RES_PHASE_PATCH), 0u);
    Lines expected = kDeactive;
    expected.insert(expected.end(), patched.begin(), patched.end());
    EXPECT_TRUE(journal::Is(expected));
}

} // namespace
