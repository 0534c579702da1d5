// The module built for a device, loaded into a process that brings the platform.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "qor_types.h"

namespace {

u32 g_handleResult = 0;
std::string g_handleName;

} // namespace

/* This process's own; the rest of the platform is the bundled one. */
extern "C" QOR_API u32 ZIR_HandleInitialize(const char *name, u32 *handle)
{
    g_handleName = name;
    *handle = 1;
    return g_handleResult;
}

namespace {

TEST(ExternalModule, IsServedByTheProcessItIsLoadedInto)
{
    void *module = dlopen(EXTERNAL_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(module, nullptr) << dlerror();
    const auto init = reinterpret_cast<u32 (*)(u32, u32, u32)>(dlsym(module, "QorL2ResInit"));
    ASSERT_NE(init, nullptr) << dlerror();
    g_handleResult = 77;
    EXPECT_EQ(init(0, 0, 1), 77u);
    EXPECT_EQ(g_handleName, "l2rsm");
    g_handleResult = 0;
    EXPECT_EQ(init(0, 0, 1), 1u) << "there is no memory manager to be found";
    EXPECT_EQ(init(0, 0, 3), 0u);
}

} // namespace
