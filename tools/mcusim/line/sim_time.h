// The simulator's notion of time. Every part of it takes the time as an argument, so that only the
// event loop reads a clock.
#pragma once

#include <algorithm>
#include <chrono>
#include <optional>

namespace mcusim {

// Virtual time since the simulator's start.
using TimePoint = std::chrono::nanoseconds;

inline double Seconds(TimePoint time) {
    return std::chrono::duration<double>(time).count();
}

inline TimePoint FromSeconds(double seconds) {
    return std::chrono::duration_cast<TimePoint>(std::chrono::duration<double>(seconds));
}

// The earlier one of two times that may never come.
inline std::optional<TimePoint> Earlier(std::optional<TimePoint> a, std::optional<TimePoint> b) {
    return a && b ? std::min(*a, *b) : a ? a : b;
}

// The first whole multiple of the period that is later than that time.
inline TimePoint GridAfter(TimePoint time, TimePoint period) {
    return (time / period + 1) * period;
}

}  // namespace mcusim
