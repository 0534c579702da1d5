// The module built for a device, loaded into a process that brings the platform: the plain one.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <semaphore>

#include "comp_registry.h"
#include "l2rsm_component.h"
#include "l2rsm_entry.h"
#include "l2rsm_services.h"
#include "zir_mutex.h"

namespace {

u32 g_partitionResult = 0;

u32 CreateInstance(void *, u32 interfaceId, void **out)
{
    static L2ResMemmVtbl operations = {};
    static L2ResMemmVtbl *object = &operations;
    operations.initPartition = [](u32, const char *) { return g_partitionResult; };
    operations.getPartitionNumber = [](u32, const char *) { return 7u; };
    *out = &object;
    return interfaceId == L2RES_IID_MEMORY_MANAGER ? QOR_OK : QOR_FAIL;
}

std::binary_semaphore g_notified{0};

u32 Notify(u32, void *, void *)
{
    g_notified.release();
    return 0;
}

TEST(ExternalModule, IsServedByTheProcessItIsLoadedInto)
{
    void *module = dlopen(EXTERNAL_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(module, nullptr) << dlerror();
    for (const char *name : {"g_icibOpRecordMutex", "g_icibReOpRecordMutex", "g_ipatOpRecordMutex",
                             "g_ipatReOpRecordMutex"}) {
        Dl_info info;
        void *symbol = nullptr;
        ASSERT_NE(dladdr1(dlsym(module, name), &info, &symbol, RTLD_DL_SYMENT), 0);
        EXPECT_EQ(static_cast<ElfW(Sym) *>(symbol)->st_size, sizeof(ZIR_Mutex)) << name;
    }
    static const QorFactoryVtbl vtbl = {nullptr, CreateInstance};
    static QorFactory factory = {&vtbl};
    static const QorComponentInfo info = {L2RES_SERVICE_COMPONENT, "S", "S", 1, &factory};
    ASSERT_EQ(COMP_RegisterComponentInfo(&info), 0u);
    const auto init = reinterpret_cast<decltype(&QorL2ResInit)>(dlsym(module, "QorL2ResInit"));
    ASSERT_NE(init, nullptr) << dlerror();
    g_partitionResult = 77;
    EXPECT_EQ(init(0, 0, L2RES_PHASE_INIT), 77u);
    g_partitionResult = 0;
    for (const u32 phase : {L2RES_PHASE_INIT, L2RES_PHASE_START, L2RES_PHASE_PATCH}) {
        EXPECT_EQ(init(0, 0, phase), 0u);
    }
    void *table = nullptr;
    EXPECT_EQ(COMP_GetVTable(L2RES_COMPONENT_ID, L2RES_IID_FUNCTIONS, &table), 0u);
    EXPECT_EQ(table, dlsym(module, "g_l2RsmFunVtbl"));

    // It goes on when its loader closes it: worker and timers run in it.
    EXPECT_EQ(dlclose(module), 0);
    const auto &functions = *static_cast<const L2RsmFunVtbl *>(table);
    EXPECT_EQ(functions.icibRegister(4, Notify), 0u);
    const L2ResIcibKey key = {};
    L2ResTokenReq request = {1, 4, &key, 0, nullptr};
    EXPECT_EQ(functions.getIcibToken(4, L2RES_OP_UPDATE, &request), 3u);
    EXPECT_TRUE(g_notified.try_acquire_for(std::chrono::minutes(1))) << "by the third tick";
}

} // namespace
