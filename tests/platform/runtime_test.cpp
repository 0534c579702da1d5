/* Mutexes, tasks and the component registry. */
#include <atomic>
#include <condition_variable>
#include <gtest/gtest.h>
#include <mutex>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <thread>
#include <vector>

#include "comp_registry.h"
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
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&]() QOR_NO_THREAD_SAFETY {
                for (u32 n = 0; n < 20000; ++n) {
                    ZIR_MutexLock(mutex);
                    ZIR_MutexLock(mutex);
                    ++count;
                    ZIR_MutexUnlock(mutex);
                    ++count;
                    ZIR_MutexUnlock(mutex);
                }
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        EXPECT_EQ(count, 160000U);
    }
}

/* Another thread that unlocks does not let itself in, nor does half of a double lock's unlocks. */
TEST(MutexTest, OnlyItsOwnerReleasesIt) QOR_NO_THREAD_SAFETY
{
    ZIR_Mutex mutex = {};
    u32 value = 0;
    std::atomic<bool> entered{false};
    /* Gives a thread that can enter every opportunity to. */
    const auto letOthersRun = [] {
        for (u32 i = 0; i < 1000; ++i) {
            (void)sched_yield();
        }
    };
    ZIR_MutexLock(&mutex);
    std::thread([&]() QOR_NO_THREAD_SAFETY { ZIR_MutexUnlock(&mutex); }).join();
    std::thread other([&]() QOR_NO_THREAD_SAFETY {
        ZIR_MutexLock(&mutex);
        entered = true;
        EXPECT_EQ(value, 2U);
        ZIR_MutexUnlock(&mutex);
    });
    letOthersRun();
    EXPECT_FALSE(entered);
    ZIR_MutexLock(&mutex);
    value = 1;
    ZIR_MutexUnlock(&mutex);
    letOthersRun();
    EXPECT_FALSE(entered);
    value = 2;
    ZIR_MutexUnlock(&mutex);
    other.join();
    ZIR_MutexUnlock(&mutex);
    EXPECT_EQ(ZIR_MutexInit(nullptr, nullptr), 1U);
    ZIR_MutexLock(nullptr);
    ZIR_MutexUnlock(nullptr);
}

struct TaskView {
    std::mutex mutex;
    std::condition_variable changed;
    std::string name;
    bool ran = false;
};

u32 lookAround(void *arg)
{
    auto *view = static_cast<TaskView *>(arg);
    char name[16] = {};
    (void)pthread_getname_np(pthread_self(), name, sizeof(name));
    const std::lock_guard lock(view->mutex);
    view->name = name;
    view->ran = true;
    view->changed.notify_one();
    return 0;
}

TEST(TaskTest, RunsUnderItsName)
{
    u32 expectedId = 0;
    for (const auto &[name, expected] : {std::pair{"QOR_L2RSM", "QOR_L2RSM"},
                                         std::pair{"a-name-too-long-for-it", "a-name-too-long"}}) {
        TaskView view;
        u32 id = 0;
        ASSERT_EQ(QorEpollTaskCreate(name, &id, lookAround, &view), 0U);
        std::unique_lock lock(view.mutex);
        view.changed.wait(lock, [&] { return view.ran; });
        EXPECT_EQ(view.name, expected);
        EXPECT_EQ(id, ++expectedId);
    }
    u32 id = 0;
    EXPECT_NE(QorEpollTaskCreate("x", &id, nullptr, nullptr), 0U);
    EXPECT_NE(QorEpollTaskCreate("x", nullptr, lookAround, nullptr), 0U);
}

int g_operations;
void *g_object[] = {&g_operations};
void *g_emptyObject[] = {nullptr};

u32 createInstance(void *, u32 interfaceId, void **out)
{
    switch (interfaceId) {
    case 1:
        *out = g_object;
        return 0;
    case 2:
        *out = g_emptyObject;
        return 0;
    case 3:
        return 0; /* says yes, gives nothing */
    default:
        *out = g_object; /* gives something, says no */
        return 1;
    }
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
    for (const auto &[component, interface] :
         {std::pair{100U, 2U}, {100U, 3U}, {100U, 4U}, {101U, 1U}, {102U, 1U}}) {
        table = &table;
        EXPECT_EQ(COMP_GetVTable(component, interface, &table), 1U);
        EXPECT_EQ(table, nullptr) << component << " " << interface;
    }
}

} // namespace
