/* Tasks: detached, named threads. */
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <new>
#include <pthread.h>

#include "qor_epoll.h"

namespace {

constexpr size_t THREAD_NAME_SIZE = 16; /* the kernel's bound, terminator included */

struct TaskStart {
    u32 (*entry)(void *);
    void *arg;
    char name[THREAD_NAME_SIZE];
};

std::atomic<u32> g_lastTaskId{0};

/* The thread names itself, so that its entry already runs under the name. */
void *runTask(void *start)
{
    const TaskStart task = *static_cast<TaskStart *>(start);
    delete static_cast<TaskStart *>(start);
    if (task.name[0] != '\0') {
        (void)pthread_setname_np(pthread_self(), task.name);
    }
    (void)task.entry(task.arg);
    return nullptr;
}

int startDetached(TaskStart *start)
{
    pthread_attr_t attributes;
    int result = pthread_attr_init(&attributes);
    if (result != 0) {
        return result;
    }
    (void)pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    result = pthread_create(&thread, &attributes, runTask, start);
    (void)pthread_attr_destroy(&attributes);
    return result;
}

} // namespace

u32 QorEpollTaskCreate(const char *name, u32 *taskId, u32 (*entry)(void *), void *arg)
{
    if (taskId == nullptr || entry == nullptr) {
        return EINVAL;
    }
    auto *start = new (std::nothrow) TaskStart{entry, arg, {}};
    if (start == nullptr) {
        return ENOMEM;
    }
    (void)snprintf(start->name, sizeof(start->name), "%s", name != nullptr ? name : "");

    /* The id is stored first: the task may read it as soon as it runs. */
    *taskId = g_lastTaskId.fetch_add(1) + 1;
    const int result = startDetached(start);
    if (result != 0) {
        *taskId = 0;
        delete start;
    }
    return static_cast<u32>(result);
}
