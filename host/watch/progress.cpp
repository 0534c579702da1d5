#include "watch/progress.h"

#include <unistd.h>

#include <cstdio>
#include <utility>

namespace host {

Progress::Progress(std::string what, u64 total)
    : what_(std::move(what)), total_(total), shown_(isatty(STDERR_FILENO) != 0)
{
}

Progress::~Progress()
{
    if (shown_ && next_ != std::chrono::steady_clock::time_point{}) {
        std::fputs("\r\033[K", stderr);
    }
}

void Progress::update(u64 done)
{
    if (!shown_) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now < next_) {
        return;
    }
    next_ = now + std::chrono::milliseconds(100);
    const double percent =
        total_ == 0 ? 100.0 : 100.0 * static_cast<double>(done) / static_cast<double>(total_);
    std::fprintf(stderr, "\r%s: %3.0f%% (%llu of %llu)\033[K", what_.c_str(), percent, done,
                 total_);
}

} // namespace host
