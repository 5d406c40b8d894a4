// The application's command table and log levels. Shared by the two halves of its implementation,
// and by nobody else.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tools/mcusim/application/application.h"

namespace mcusim {

// Levels of the MCU's own log. After a power-on it is silent about its boot: a line that nobody
// asked for would stand in the way of the host's first request.
inline constexpr int kLogLevelWarning = 2;
inline constexpr int kLogLevelInfo = 3;
inline constexpr int kLogLevelDebug = 4;

enum class Addressee { kControl, kSensor, kService };

struct Application::CommandEntry {
    Addressee addressee;
    uint8_t service;  // of Addressee::kService
    uint8_t command;
    size_t min_args;  // bytes
    TimePoint work;   // how long the MCU is busy with it before it answers
    Handler handler;
};

}  // namespace mcusim
