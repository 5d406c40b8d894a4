// shdtool list: the sensors that the hub has. A row of the table of commands.
#include <fmt/core.h>

#include "protocol/event.h"
#include "tools/client/sensor_info.h"
#include "tools/shdtool/base/command_rows.h"

namespace shdtool {
namespace {

using shdclient::SensorInfo;

std::string AxisText(const SensorInfo& sensor) {
    if (sensor.form == shdclient::DataForm::kOpaque) {
        return fmt::format("{} bytes", sensor.data_bytes);
    }
    std::string text;
    for (size_t i = 0; i < sensor.axes.size(); ++i) {
        const shdclient::Axis& axis = sensor.axes[i];
        if (i > 0) text += ' ';
        text += axis.name;
        const bool shared = i + 1 < sensor.axes.size() && sensor.axes[i + 1].unit == axis.unit;
        if (!shared && !axis.unit.empty()) text += fmt::format(" [{}]", axis.unit);
    }
    return text.empty() ? "(the event itself)" : text;
}

std::string NoteText(const SensorInfo& sensor) {
    if (sensor.is_virtual) return "from the step counter";
    std::string text = sensor.can_batch ? "" : "never batched";
    if (sensor.parameter_size > 0) {
        text += fmt::format("{}-byte parameter", sensor.parameter_size);
    }
    return text;
}

Json Describe(const SensorInfo& sensor) {
    Json axes = Json::List();
    for (const shdclient::Axis& axis : sensor.axes) {
        axes.Add({{"name", axis.name}, {"unit", axis.unit}});
    }
    return SensorFields(sensor).Merge({{"event_type", sensor.type},
                                       {"virtual", sensor.is_virtual},
                                       {"can_batch", sensor.can_batch},
                                       {"block_bytes", sensor.parameter_size},
                                       {"axes", axes}});
}

Outcome ListSensors(Context& /*context*/) {
    Report report{
        fmt::format("{:>6}  {:<21} {:>5}  {:<21} {}", "HANDLE", "NAME", "TYPE", "VALUES", "NOTES")};
    Json sensors = Json::List();
    for (const SensorInfo& sensor : shdclient::AllSensors()) {
        const std::string row =
            fmt::format("\n{:>6}  {:<21} {:>5}  {:<21} {}", sensor.handle, sensor.name, sensor.type,
                        AxisText(sensor), NoteText(sensor));
        report.text += row.substr(0, row.find_last_not_of(' ') + 1);
        sensors.Add(Describe(sensor));
    }
    report.fields.Set("sensors", sensors);
    return report;
}

}  // namespace

CommandRows ListCommands() {
    return {{{"Overview", "list", "List the sensors (needs no daemon)", {}, "", "shdtool list"},
             ListSensors}};
}

}  // namespace shdtool
