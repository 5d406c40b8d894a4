// Parses sensor names on the command line. Called by the command files.
#include "tools/shdtool/sensor_argument.h"

#include <string>

namespace shdtool {
namespace {

const shdclient::SensorInfo* ParseSensor(const std::string& text) {
    const auto sensor = shdclient::LookupSensor(text);
    if (!sensor) throw CLI::ValidationError("SENSOR", sensor.error().message);
    return *sensor;
}

}  // namespace

SensorArgument AddSensorArgument(CLI::App& command) {
    auto sensor = std::make_shared<const shdclient::SensorInfo*>(nullptr);
    command
        .add_option_function<std::string>(
            "SENSOR", [sensor](const std::string& text) { *sensor = ParseSensor(text); },
            "name (or its unique beginning) or handle, see 'shdtool list'")
        ->required()
        ->type_name("");
    return sensor;
}

SensorList AddSensorList(CLI::App& command) {
    auto sensors = std::make_shared<std::vector<const shdclient::SensorInfo*>>();
    command
        .add_option_function<std::vector<std::string>>(
            "SENSOR",
            [sensors](const std::vector<std::string>& texts) {
                for (const std::string& text : texts) sensors->push_back(ParseSensor(text));
            },
            "only these sensors, by name or handle; all when none is named")
        ->type_name("");
    return sensors;
}

Json SensorFields(const shdclient::SensorInfo& sensor) {
    return {{"sensor", sensor.name}, {"handle", sensor.handle}};
}

}  // namespace shdtool
