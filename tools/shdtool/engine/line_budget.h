// How much of the UART the sensors' reports take. Used by the table, by the audit and by enable.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "tools/client/sensor_info.h"

namespace shdtool {

// 115,200 bit/s at ten bits to a byte.
inline constexpr double kLineBytesPerSec = 11'520;

// Above it little is left for replies and log lines, and what the MCU wants to say piles up.
inline constexpr double kFullLineShare = 0.9;

// Bytes a second on the line from the MCU: samples at that rate, so many to a report.
[[nodiscard]] double LineLoad(const shdclient::SensorInfo& sensor, double rate_hz, double batch);

// Of several sensors, by handle, in any unit. The two rotation vectors are made of the same
// reports.
[[nodiscard]] double SumOfLoads(const std::map<int32_t, double>& loads);

// "1.8 kB/s, 16 % of the line".
[[nodiscard]] std::string LineText(double bytes_per_sec);

}  // namespace shdtool
