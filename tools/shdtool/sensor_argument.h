// The SENSOR argument of the command line. Used by every command that names sensors.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <string_view>
#include <vector>

#include "tools/client/sensor_info.h"
#include "tools/shdtool/command.h"

namespace shdtool {

// The values are filled while the command line is parsed, before the command's callback runs.
using SensorArgument = std::shared_ptr<const shdclient::SensorInfo*>;
using SensorList = std::shared_ptr<std::vector<const shdclient::SensorInfo*>>;

// Adds the required positional SENSOR. A name that fits no sensor, or several, is a parse error
// that lists the candidates.
[[nodiscard]] SensorArgument AddSensorArgument(CLI::App& command);

// Adds the optional positional SENSOR..., any number of them; empty means all.
[[nodiscard]] SensorList AddSensorList(CLI::App& command);

// {"sensor": NAME, "handle": N}, the beginning of the JSON fields of a sensor's command.
[[nodiscard]] Json SensorFields(const shdclient::SensorInfo& sensor);

}  // namespace shdtool
