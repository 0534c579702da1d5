/* The time the device lives in. */
#ifndef HOST_CLOCK_H
#define HOST_CLOCK_H

#include <chrono>
#include <string>

#include "qor_types.h"

namespace host {

using DeviceTime = std::chrono::microseconds; // since the device's start

/* The device's time: real time since the host's start, played `speed` times as fast. */
class Clock {
public:
    void setSpeed(u32 speed); // before anything reads the clock
    DeviceTime now() const;
    /* How long a span of device time takes in real time, and when that is over. */
    std::chrono::steady_clock::time_point realTime(DeviceTime time) const;

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    u32 speed_ = 1;
};

/* "00:10:05.003": hours, minutes, seconds, milliseconds. */
std::string formatTime(DeviceTime time);

} // namespace host

#endif
