// The simulator's notion of time. Every part of it takes the time as an argument, so that only the
// event loop reads a clock.
#pragma once

#include <chrono>

namespace mcusim {

// Virtual time since the simulator's start.
using TimePoint = std::chrono::nanoseconds;

inline double Seconds(TimePoint time) {
    return std::chrono::duration<double>(time).count();
}

inline TimePoint FromSeconds(double seconds) {
    return std::chrono::duration_cast<TimePoint>(std::chrono::duration<double>(seconds));
}

}  // namespace mcusim
