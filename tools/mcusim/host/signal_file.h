// Recorded signals from files, for --signal. The program loads them before the machine starts.
#pragma once

#include <string>

#include "tools/mcusim/application/sensor_signals.h"

namespace mcusim {

// Reads comma-separated rows "time_s,value,..." with as many values, in the units of the daemon's
// events, as the sensor has, by rising time. Blank lines, lines that begin with # and a heading
// are skipped. Throws std::runtime_error naming the file and the line.
[[nodiscard]] RecordedSignal LoadSignal(const std::string& path, const SensorTraits& sensor);

}  // namespace mcusim
