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

const Lines kActive = {"log 4: libqor_l2rsm reserved patch c2h active01.",
                       "log 4: libqor_l2rsm reserved patch c2h active02.",
                       "log 4: libqor_l2rsm reserved patch c2h active."};
const Lines kDeactive = {"log 4: libqor_l2rsm reserved patch c2h deactive01.",
                         "log 4: libqor_l2rsm reserved patch c2h deactive02.",
                         "log 4: libqor_l2rsm reserved patch c2h deactive."};

TEST(Patch, RequestsForThisLibraryAreServed)
{
    services::StartWorkingModule();
    const std::string own = "libqor_l2rsm.so";
    const std::string invalid = "log 4: libqor_l2rsm c2h active or deactive oper failed, operCode ";
    struct {
        u32 operCode;
        std::string library;
        u32 result, handled;
        Lines lines;
    } const rows[] = {
        {0, own, 0, 1, kActive},          {1, own, 0, 1, kDeactive},
        {2, own, 1, 1, {invalid + "2"}},  {0x7FFFFFFF, own, 1, 1, {invalid + "2147483647"}},
        {0, "libqor_l2rsm.s", 0, 0, {}},  {0, "libqor_l2rsm.so.1", 0, 0, {}},
        {1, "LIBQOR_L2RSM.SO", 0, 0, {}}, {2, "", 0, 0, {}},
    };
    const auto request = [](u32 operCode, const void *record, u32 expected) {
        journal::Clear();
        u32 handled = 9;
        const u32 result = libqor_l2rsm_PAT_C2HSyncHookFunc(operCode, 0xDEAD, record, &handled);
        EXPECT_EQ(handled, expected);
        return result;
    };
    for (const auto &row : rows) {
        const auto record = services::PatchRecord(row.library);
        EXPECT_EQ(request(row.operCode, record.c_str(), row.handled), row.result) << row.library;
        EXPECT_TRUE(journal::Is(row.lines)) << row.library;
    }
    EXPECT_EQ(request(0, nullptr, 0), 0u);

    // A replaced reserved function runs in its place.
    g_patched = true;
    EXPECT_EQ(request(0, services::PatchRecord(own).c_str(), 1), 0u);
    EXPECT_TRUE(journal::Is({kActive[0], "patched", kActive[2]}));
}

TEST(Patch, Phase3DeactivatesThenActivatesWhatIsPatched)
{
    services::StartWorkingModule();
    Lines expected = kDeactive;
    expected.insert(expected.end(), kActive.begin(), kActive.end());
    for (const bool patched : {false, true}) {
        g_patched = patched;
        expected[4] = patched ? "patched" : kActive[1];
        journal::Clear();
        EXPECT_EQ(QorL2ResInit(0, 0, L2RES_PHASE_PATCH), 0u);
        EXPECT_TRUE(journal::Is(expected));
    }
}

} // namespace
