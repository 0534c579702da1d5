#include "device/clock.h"

#include <cstdio>

namespace host {

void Clock::setSpeed(u32 speed)
{
    speed_ = speed;
}

DeviceTime Clock::now() const
{
    const auto real = std::chrono::steady_clock::now() - start_;
    return std::chrono::duration_cast<DeviceTime>(real * speed_);
}

std::chrono::steady_clock::time_point Clock::realTime(DeviceTime time) const
{
    return start_ + std::chrono::duration_cast<std::chrono::steady_clock::duration>(time) / speed_;
}

std::string formatTime(DeviceTime time)
{
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
    char text[64];
    std::snprintf(text, sizeof text, "%02lld:%02lld:%02lld.%03lld",
                  static_cast<long long>(ms / 3600000), static_cast<long long>(ms / 60000 % 60),
                  static_cast<long long>(ms / 1000 % 60), static_cast<long long>(ms % 1000));
    return text;
}

} // namespace host
