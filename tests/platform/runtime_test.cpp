/* Mutexes, tasks and the component registry. */
#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <string>

#include "comp_registry.h"
#include "platform_support.h"
#include "qor_epoll.h"
#include "zir_mutex.h"

namespace {

TEST(MutexTest, ExcludesThreadsAndRecurses)
{
    ZIR_Mutex zeroed = {};
    ZIR_Mutex initialised;
    ASSERT_EQ(ZIR_MutexInit(&initialised, nullptr), 0U);
    for (ZIR_Mutex *mutex : {&zeroed, &initialised}) {
        u64 count = 0;
        onThreads(4, [&](u32) QOR_NO_THREAD_SAFETY {
            for (u32 n = 0; n < 20000; ++n) {
                ZIR_MutexLock(mutex);
                ZIR_MutexLock(mutex);
                ++count;
                ZIR_MutexUnlock(mutex);
                ++count;
                ZIR_MutexUnlock(mutex);
            }
        });
        EXPECT_EQ(count, 160000U);
    }
}

/* Another thread that unlocks does not let itself in, nor do fewer unlocks than locks. */
TEST(MutexTest, OnlyItsOwnerReleasesIt) QOR_NO_THREAD_SAFETY
{
    ZIR_Mutex mutex = {};
    std::atomic<bool> entered{false};
    std::atomic<u32> held{3};
    for (u32 i = 0; i < held; ++i) {
        ZIR_MutexLock(&mutex);
    }
    std::thread([&]() QOR_NO_THREAD_SAFETY { ZIR_MutexUnlock(&mutex); }).join();
    std::thread other([&]() QOR_NO_THREAD_SAFETY {
        ZIR_MutexLock(&mutex);
        EXPECT_EQ(held, 0U);
        entered = true;
        ZIR_MutexUnlock(&mutex);
    });
    while (held > 0) {
        /* Gives a thread that can enter every opportunity to. */
        for (u32 n = 0; n < 20000; ++n) {
            (void)sched_yield();
        }
        EXPECT_FALSE(entered);
        --held;
        ZIR_MutexUnlock(&mutex);
    }
    other.join();
    ZIR_MutexUnlock(&mutex);
    EXPECT_EQ(ZIR_MutexInit(nullptr, nullptr), 1U);
    ZIR_MutexLock(nullptr);
    ZIR_MutexUnlock(nullptr);
}

u32 tellName(void *arg)
{
    char name[16] = {};
    (void)pthread_getname_np(pthread_self(), name, sizeof(name));
    static_cast<std::promise<std::string> *>(arg)->set_value(name);
    return 0;
}

TEST(TaskTest, RunsUnderItsName)
{
    u32 id = 0, expectedId = 0;
    for (const auto &[name, expected] : {std::pair{"QOR_L2RSM", "QOR_L2RSM"},
                                         std::pair{"a-name-too-long-for-it", "a-name-too-long"}}) {
        static std::promise<std::string> told[2]; /* outlive the tasks' last steps */
        ASSERT_EQ(QorEpollTaskCreate(name, &id, tellName, &told[expectedId]), 0U);
        EXPECT_EQ(told[expectedId].get_future().get(), expected);
        EXPECT_EQ(id, ++expectedId);
    }
    EXPECT_NE(QorEpollTaskCreate("x", &id, nullptr, nullptr), 0U);
    EXPECT_NE(QorEpollTaskCreate("x", nullptr, tellName, nullptr), 0U);
}

int g_operations;
void *g_object[] = {&g_operations};
void *g_emptyObject[] = {nullptr};

u32 createInstance(void *, u32 interfaceId, void **out)
{
    /* 3 says yes and gives nothing, 4 gives something and says no. */
    *out = interfaceId == 2 ? g_emptyObject : interfaceId == 3 ? nullptr : g_object;
    return interfaceId == 4 ? 1 : 0;
}

const QorFactoryVtbl g_factoryVtbl = {nullptr, createInstance};
QorFactory g_factory = {&g_factoryVtbl};
QorFactory g_hollowFactory = {nullptr};

TEST(RegistryTest, LeadsFromComponentToTable)
{
    const QorComponentInfo info = {100, "NAME", "SHORT", 1, &g_factory};
    const QorComponentInfo rival = {100, "OTHER", "O", 1, &g_factory};
    const QorComponentInfo hollow = {101, "HOLLOW", "H", 1, &g_hollowFactory};
    const QorComponentInfo factoryless = {102, "NONE", "N", 1, nullptr};
    void *table = &table;
    EXPECT_EQ(COMP_GetVTable(100, 1, &table), 1U);
    EXPECT_EQ(table, nullptr);
    EXPECT_EQ(COMP_RegisterComponentInfo(&info), 0U);
    EXPECT_EQ(COMP_RegisterComponentInfo(&info), 0U);
    EXPECT_EQ(COMP_RegisterComponentInfo(&rival), 1U);
    EXPECT_EQ(COMP_RegisterComponentInfo(&hollow), 0U);
    EXPECT_EQ(COMP_RegisterComponentInfo(&factoryless), 1U);
    EXPECT_EQ(COMP_RegisterComponentInfo(nullptr), 1U);

    EXPECT_EQ(COMP_GetVTable(100, 1, &table), 0U);
    EXPECT_EQ(table, &g_operations);
    EXPECT_EQ(COMP_GetVTable(100, 1, nullptr), 1U);
    for (u32 interface : {2U, 3U, 4U}) {
        table = &table;
        EXPECT_EQ(COMP_GetVTable(100, interface, &table), 1U);
        EXPECT_EQ(table, nullptr) << interface;
    }
    EXPECT_EQ(COMP_GetVTable(101, 1, &table), 1U);
    EXPECT_EQ(COMP_GetVTable(102, 1, &table), 1U);
}

} // namespace
