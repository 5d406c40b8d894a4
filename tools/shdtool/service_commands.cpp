// The maintenance commands for one sensor: self test, calibration, parameter and information.
// Called by main.
#include <fmt/format.h>

#include <memory>
#include <string>
#include <vector>

#include "tools/client/hub_client.h"
#include "tools/shdtool/commands.h"
#include "tools/shdtool/hex.h"
#include "tools/shdtool/sensor_argument.h"

namespace shdtool {
namespace {

using shdclient::HubClient;
using shdclient::Result;
using shdclient::SensorInfo;
using shdclient::Status;

constexpr int32_t kAccelerometerHandle = 0;

Result<Report> SelfTest(HubClient& hub, const SensorInfo& sensor) {
    const Status done = hub.SelfTest(sensor.handle);
    if (!done) return done.error();
    Json fields = SensorFields(sensor);
    fields["tested"] = !sensor.is_virtual;
    return Report{fmt::format("{} {}", sensor.name,
                              sensor.is_virtual ? "is virtual: there is nothing to test"
                                                : "passed its self test"),
                  fields};
}

Result<Report> Calibrate(HubClient& hub, const SensorInfo& sensor) {
    const Result<shdclient::Calibration> calibration = hub.Calibrate(sensor.handle);
    if (!calibration) return calibration.error();
    const auto values = calibration->values();
    Json fields = SensorFields(sensor);
    fields["calibration"] = std::vector<int32_t>(values.begin(), values.end());
    std::string text;
    if (values.size() == 1) {
        text = std::to_string(values[0]);
    } else {
        for (size_t i = 0; i < values.size(); ++i) {
            text += fmt::format("{}{} {}", i > 0 ? ", " : "", sensor.axes[i].name, values[i]);
        }
    }
    // The daemon keeps the reply of every calibration in the one file that it reads at its start.
    const char* kept = sensor.handle == kAccelerometerHandle
                           ? "kept by the daemon for its next start"
                           : "kept by the daemon in place of the accelerometer's calibration";
    return Report{
        fmt::format("{} calibrated: {} in the MCU's own unit; {}", sensor.name, text, kept),
        fields};
}

Result<Report> SetParameter(HubClient& hub, const SensorInfo& sensor,
                            const std::vector<uint8_t>& bytes) {
    const Status done = hub.SetParameter(sensor.handle, bytes);
    if (!done) return done.error();
    Json fields = SensorFields(sensor);
    fields["parameter"] = FormatHex(bytes);
    return Report{fmt::format("{} parameter set to {}", sensor.name, FormatHex(bytes)), fields};
}

Result<Report> Information(HubClient& hub, const SensorInfo& sensor) {
    const Result<std::string> text = hub.Information(sensor.handle);
    if (!text) return text.error();
    Json fields = SensorFields(sensor);
    fields["info"] = *text;
    return Report{fmt::format("{}: {}", sensor.name, *text), fields};
}

using SensorAction = Result<Report> (*)(HubClient&, const SensorInfo&);

void AddPlainCommand(CLI::App& app, Context& context, const std::string& name,
                     const std::string& description, SensorAction action,
                     const std::string& details = "") {
    CLI::App* command = AddCommand(app, name, description,
                                   fmt::format("  shdtool {} accelerometer", name), details);
    const SensorArgument sensor = AddSensorArgument(*command);
    command->callback([&context, name, sensor, action] {
        RunWithHub(context, name, [&](HubClient& hub) { return action(hub, **sensor); });
    });
}

void AddParam(CLI::App& app, Context& context) {
    CLI::App* command = AddCommand(
        app, "param", "Send a calibration parameter",
        "  shdtool param accelerometer 38 01 c8 fe 00 00\n  shdtool param pressure 0xd6ffffff",
        "The accelerometer takes 6 bytes (x, y, z as 16-bit values, low byte first); gyroscope, "
        "pressure\n"
        "and raw-25 take 4.");
    const SensorArgument sensor = AddSensorArgument(*command);
    auto words = std::make_shared<std::vector<std::string>>();
    command->add_option("HEX", *words, "the bytes, two hexadecimal digits each")
        ->required()
        ->type_name("");
    command->callback([&context, sensor, words] {
        const auto bytes = ParseHex(fmt::format("{}", fmt::join(*words, " ")));
        if (!bytes) throw CLI::ValidationError("HEX", bytes.error().message);
        RunWithHub(context, "param",
                   [&](HubClient& hub) { return SetParameter(hub, **sensor, *bytes); });
    });
}

}  // namespace

void AddServiceCommands(CLI::App& app, Context& context) {
    AddPlainCommand(app, context, "selftest", "Run the self test of a sensor", SelfTest);
    AddPlainCommand(app, context, "calibrate", "Calibrate a sensor and show the values", Calibrate,
                    "The daemon keeps the values of the last calibration, whatever the sensor, and "
                    "takes\nthem as the accelerometer's at its next start.");
    AddParam(app, context);
    AddPlainCommand(app, context, "info", "Show the MCU's information text of a sensor",
                    Information);
}

}  // namespace shdtool
