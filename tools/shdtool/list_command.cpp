// shdtool list: the sensors that the hub has. Called by main.
#include <fmt/core.h>

#include "protocol/event.h"
#include "tools/client/sensor_info.h"
#include "tools/shdtool/commands.h"
#include "tools/shdtool/sensor_argument.h"

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
    if (sensor.is_virtual) return "virtual, derived from the step counter";
    std::string text = sensor.can_batch ? "" : "never batched";
    if (sensor.parameter_size > 0) {
        text += fmt::format("parameter and calibration of {} bytes", sensor.parameter_size);
    }
    return text;
}

Json Describe(const SensorInfo& sensor) {
    Json description = SensorFields(sensor);
    description["event_type"] = sensor.type;
    description["virtual"] = sensor.is_virtual;
    description["can_batch"] = sensor.can_batch;
    description["block_bytes"] = sensor.parameter_size;
    description["axes"] = Json::array();
    for (const shdclient::Axis& axis : sensor.axes) {
        description["axes"].push_back({{"name", axis.name}, {"unit", axis.unit}});
    }
    return description;
}

shdclient::Result<Report> ListSensors() {
    Report report;
    report.line = fmt::format("{:>6}  {:<21} {:>10}  {:<21} {}", "HANDLE", "NAME", "EVENT TYPE",
                              "VALUES", "NOTES");
    report.fields["sensors"] = Json::array();
    for (const SensorInfo& sensor : shdclient::AllSensors()) {
        const std::string row =
            fmt::format("\n{:>6}  {:<21} {:>10}  {:<21} {}", sensor.handle, sensor.name,
                        sensor.type, AxisText(sensor), NoteText(sensor));
        report.line += row.substr(0, row.find_last_not_of(' ') + 1);
        report.fields["sensors"].push_back(Describe(sensor));
    }
    return report;
}

}  // namespace

void AddListCommand(CLI::App& app, Context& context) {
    CLI::App* list =
        AddCommand(app, "list", "List the sensors (needs no daemon)", "  shdtool list");
    list->callback([&context] { Run(context, "list", ListSensors); });
}

}  // namespace shdtool
