/*
 * How far long work has come: one line on standard error that replaces itself, on a terminal only.
 * Nothing is written to a pipe or a file. One thread.
 */
#ifndef HOST_PROGRESS_H
#define HOST_PROGRESS_H

#include <chrono>
#include <string>

#include "qor_types.h"

namespace host {

class Progress {
public:
    /* "stress" of `total` steps. */
    Progress(std::string what, u64 total);
    ~Progress(); // takes the line away
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void update(u64 done); // cheap enough for every step

private:
    const std::string what_;
    const u64 total_;
    const bool shown_;
    std::chrono::steady_clock::time_point next_{};
};

} // namespace host

#endif
