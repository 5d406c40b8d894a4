// Sensor events as text. Used by the watching commands.
#pragma once

#include <cstdint>
#include <string>

#include "tools/client/event_decoder.h"

namespace shdtool {

// The values with axis names and units, for instance "x -0.0123  y 9.7912  z 0.2003 m/s^2", or the
// bytes in hexadecimal; "flush complete" for the end of a flush, empty for an event without values.
[[nodiscard]] std::string FormatValues(const shdclient::DecodedEvent& event);

// "12.345678 s", with microseconds.
[[nodiscard]] std::string FormatTime(int64_t timestamp_ns);

// "+20.003 ms", the distance of two time stamps.
[[nodiscard]] std::string FormatSpacing(int64_t spacing_ns);

// "850 ms", "12.3 s", "4m 05s", "3h 12m": a length of time at a glance.
[[nodiscard]] std::string FormatDuration(int64_t duration_ns);

// An event's value as the shortest decimal that means the same float: 9.801 in place of
// 9.800999641418457. Counts beyond a float's exact range are kept as they are.
[[nodiscard]] double PlainNumber(double value);

}  // namespace shdtool
