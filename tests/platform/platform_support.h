/* What the platform's tests share. */
#ifndef TESTS_PLATFORM_PLATFORM_SUPPORT_H
#define TESTS_PLATFORM_PLATFORM_SUPPORT_H

#include <thread>
#include <vector>

#include "qor_types.h"

/* Runs the function on `count` threads at once, each with its number, and waits for them. */
template <class Function> void onThreads(u32 count, Function function)
{
    std::vector<std::thread> threads;
    for (u32 i = 0; i < count; ++i) {
        threads.emplace_back(function, i);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

#endif
