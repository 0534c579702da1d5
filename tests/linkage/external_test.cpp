// The module built for a device, loaded into a process that brings the platform.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <semaphore>

#include "comp_registry.h"
#include "l2rsm_component.h"
#include "l2rsm_services.h"
#include "zir_timer.h"

namespace {

u32 g_handleResult = 0;
std::string g_handleName;

} // namespace

/* This process's own; the rest of the platform is the bundled one. */
extern "C" QOR_API u32 ZIR_HandleInitialize(const char *name, u32 *handle)
{
    g_handleName = name;
    static const auto next =
        reinterpret_cast<u32 (*)(const char *, u32 *)>(dlsym(RTLD_NEXT, "ZIR_HandleInitialize"));
    return g_handleResult != 0 ? g_handleResult : next(name, handle);
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

// The least of component 1000 that phase 1 needs: a memory manager.
u32 Partition(u32, const char *name)
{
    return name == nullptr;
}

u32 FindMemoryManager(void *, u32 interfaceId, void **out)
{
    static const L2ResMemmVtbl manager = {{}, Partition, Partition};
    static const void *object = &manager;
    *out = interfaceId == L2RES_IID_MEMORY_MANAGER ? &object : nullptr;
    return *out == nullptr;
}

std::counting_semaphore<> g_notified{0};

u32 Notify(u32, void *, void *)
{
    g_notified.release();
    return 0;
}

TEST(ExternalModule, GoesOnWhenItsLoaderClosesIt)
{
    const QorFactoryVtbl vtbl = {nullptr, FindMemoryManager};
    QorFactory factory = {&vtbl};
    const QorComponentInfo services = {L2RES_SERVICE_COMPONENT, "TEST", "TEST", 1, &factory};
    ASSERT_EQ(COMP_RegisterComponentInfo(&services), 0u);
    ZIR_TimerSetSpeed(100);
    void *module = dlopen(EXTERNAL_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(module, nullptr) << dlerror();
    const auto init = reinterpret_cast<u32 (*)(u32, u32, u32)>(dlsym(module, "QorL2ResInit"));
    ASSERT_EQ(init(0, 0, 1), 0u);
    ASSERT_EQ(init(0, 0, 2), 0u);
    void *table = nullptr;
    ASSERT_EQ(COMP_GetVTable(L2RES_COMPONENT_ID, L2RES_IID_FUNCTIONS, &table), 0u);

    EXPECT_EQ(dlclose(module), 0);
    const auto &functions = *static_cast<const L2RsmFunVtbl *>(table);
    EXPECT_EQ(functions.icibRegister(4, Notify), 0u);
    const L2ResIcibKey key = {};
    L2ResTokenReq request = {1, 4, &key, 0, nullptr};
    for (int i = 0; i < 3; ++i) { // each waits for an entry that nobody frees
        EXPECT_EQ(functions.getIcibToken(4, L2RES_OP_UPDATE, &request), 3u);
        EXPECT_TRUE(g_notified.try_acquire_for(std::chrono::minutes(1))) << "by the third tick";
    }
}

} // namespace
