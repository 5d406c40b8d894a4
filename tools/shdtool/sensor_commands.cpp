// The commands for one sensor: switching and sampling, self test, calibration, parameter and
// information. Rows of the table of commands.
#include <fmt/format.h>

#include <cmath>
#include <optional>
#include <string>

#include "tools/shdtool/base/command_rows.h"
#include "tools/shdtool/base/hex.h"
#include "tools/shdtool/engine/line_budget.h"

namespace shdtool {
namespace {

using shdclient::HubClient;
using shdclient::SensorInfo;
using shdclient::Status;

constexpr const char* kHeading = "Sensors";
constexpr int32_t kAccelerometerHandle = 0;

const cli::Options kSensor{
    cli::Sensor("SENSOR", "", "Name (or its unique beginning) or handle, see 'shdtool list'")
        .Required()};
const cli::Options kSampling{
    cli::Integer("--period", "MS", "Sampling period in milliseconds", 1, 3'600'000)
        .Excludes("--rate"),
    cli::Number("--rate", "HZ", "Sampling rate in Hz, rounded to a period of whole milliseconds",
                0.001, 1000),
    cli::Integer("--batch", "N", "Samples that the MCU collects before it reports; 0: none", 0,
                 100'000),
};

std::optional<int32_t> PeriodMs(const cli::Arguments& arguments) {
    if (arguments.Has("--period")) return static_cast<int32_t>(arguments.Integer("--period"));
    if (!arguments.Has("--rate")) return std::nullopt;
    return static_cast<int32_t>(std::lround(1000 / arguments.Number("--rate")));
}

int32_t BatchSize(const cli::Arguments& arguments) {
    return arguments.Has("--batch") ? static_cast<int32_t>(arguments.Integer("--batch")) : 0;
}

// The sensor as it now samples: what it was set to, and what it takes of the line, in words and as
// fields. A sensor that fills the line alone is warned of.
Report SamplingReport(Context& context, const SensorInfo& sensor, const std::string& done,
                      std::optional<int32_t> period_ms, int32_t batch) {
    Report report{fmt::format("{} {}", sensor.name, done), SensorFields(sensor)};
    if (!period_ms) return report;
    report.fields.Set("period_ms", *period_ms).Set("batch", sensor.can_batch ? batch : 0);
    if (sensor.is_virtual) {
        report.text += " (virtual: period and batch have no effect)";
        return report;
    }
    report.text += fmt::format(", every {} ms ({:.4g} Hz)", *period_ms, 1000.0 / *period_ms);
    if (batch > 0 && !sensor.can_batch) {
        report.text += ", not batched (the hub never batches it)";
    } else if (batch > 0) {
        report.text += fmt::format(", in batches of {}", batch);
    }
    const double load = LineLoad(sensor, 1000.0 / *period_ms, sensor.can_batch ? batch : 0);
    report.text += fmt::format("; {}", LineText(load));
    report.fields.Set("line_bytes_per_sec", load);
    if (load > kFullLineShare * kLineBytesPerSec) {
        context.Warn(fmt::format("{} alone needs {}: samples will be lost; ask for a lower rate{}",
                                 sensor.name, LineText(load),
                                 sensor.can_batch ? " or a larger batch" : ""));
    }
    return report;
}

Outcome Enable(HubClient& hub, Context& context) {
    const SensorInfo& sensor = context.arguments.Sensor("SENSOR");
    const auto period_ms = PeriodMs(context.arguments);
    const int32_t batch = BatchSize(context.arguments);
    if (context.arguments.Has("--batch") && !period_ms) {
        return WrongUsage("--batch needs --period or --rate beside it");
    }
    if (period_ms) {
        const Status batched = hub.Batch(sensor.handle, *period_ms, batch);
        if (!batched) return batched.error();
    }
    const Status active = hub.Activate(sensor.handle);
    if (!active) return active.error();
    return SamplingReport(context, sensor, "enabled", period_ms, batch);
}

Outcome Batch(HubClient& hub, Context& context) {
    const SensorInfo& sensor = context.arguments.Sensor("SENSOR");
    const auto period_ms = PeriodMs(context.arguments);
    if (!period_ms) return WrongUsage("batch needs --period or --rate");
    const int32_t batch = BatchSize(context.arguments);
    const Status done = hub.Batch(sensor.handle, *period_ms, batch);
    if (!done) return done.error();
    return SamplingReport(context, sensor, "set", period_ms, batch);
}

Outcome SetDelay(HubClient& hub, Context& context) {
    const SensorInfo& sensor = context.arguments.Sensor("SENSOR");
    const auto period_ms = static_cast<int32_t>(context.arguments.Integer("MS"));
    const Status done = hub.SetDelay(sensor.handle, period_ms);
    if (!done) return done.error();
    return SamplingReport(context, sensor, "set", period_ms, 0);
}

Outcome Disable(HubClient& hub, Context& context) {
    const SensorInfo& sensor = context.arguments.Sensor("SENSOR");
    return Answer(hub.Deactivate(sensor.handle), fmt::format("{} disabled", sensor.name),
                  SensorFields(sensor));
}

Outcome SelfTest(HubClient& hub, Context& context) {
    const SensorInfo& sensor = context.arguments.Sensor("SENSOR");
    const char* answer =
        sensor.is_virtual ? "is virtual: there is nothing to test" : "passed its self test";
    return Answer(hub.SelfTest(sensor.handle), fmt::format("{} {}", sensor.name, answer),
                  SensorFields(sensor).Set("tested", !sensor.is_virtual));
}

Outcome Calibrate(HubClient& hub, Context& context) {
    const SensorInfo& sensor = context.arguments.Sensor("SENSOR");
    const auto calibration = hub.Calibrate(sensor.handle);
    if (!calibration) return calibration.error();
    const auto values = calibration->values();
    std::string text = values.size() == 1 ? std::to_string(values[0]) : "";
    for (size_t i = 0; values.size() > 1 && i < values.size(); ++i) {
        text += fmt::format("{}{} {}", i > 0 ? ", " : "", sensor.axes[i].name, values[i]);
    }
    // The daemon keeps the reply of every calibration in the one file that it reads at its start.
    const char* kept = sensor.handle == kAccelerometerHandle
                           ? "kept by the daemon for its next start"
                           : "kept by the daemon in place of the accelerometer's calibration";
    return Report{
        fmt::format("{} calibrated: {} in the MCU's own unit; {}", sensor.name, text, kept),
        SensorFields(sensor).Set("calibration", Json::List(values))};
}

Outcome SetParameter(HubClient& hub, Context& context) {
    const SensorInfo& sensor = context.arguments.Sensor("SENSOR");
    const auto bytes = ParseHex(fmt::format("{}", fmt::join(context.arguments.All("HEX"), " ")));
    if (!bytes) return bytes.error();
    return Answer(hub.SetParameter(sensor.handle, *bytes),
                  fmt::format("{} parameter set to {}", sensor.name, FormatHex(*bytes)),
                  SensorFields(sensor).Set("parameter", FormatHex(*bytes)));
}

Outcome Information(HubClient& hub, Context& context) {
    const SensorInfo& sensor = context.arguments.Sensor("SENSOR");
    const auto text = hub.Information(sensor.handle);
    if (!text) return text.error();
    return Report{fmt::format("{}: {}", sensor.name, *text),
                  SensorFields(sensor).Set("info", *text)};
}

}  // namespace

CommandRows SensorCommands() {
    return {
        {{kHeading, "enable", "Switch a sensor on", cli::Joined({kSensor, kSampling}),
          "Without --period or --rate the sensor keeps the sampling that it was last given.",
          "shdtool enable accelerometer --rate 50 --batch 10\nshdtool enable step-counter"},
         Enable},
        {{kHeading, "disable", "Switch a sensor off", kSensor, "", "shdtool disable accelerometer"},
         Disable},
        {{kHeading, "delay", "Set the sampling period of a sensor",
          cli::Joined({kSensor,
                       {cli::Integer("MS", "", "Sampling period in milliseconds", 1, 3'600'000)
                            .Required()}}),
          "", "shdtool delay pressure 100"},
         SetDelay},
        {{kHeading, "batch", "Set period and batch size of a sensor",
          cli::Joined({kSensor, kSampling}), "", "shdtool batch gyroscope --period 20 --batch 50"},
         Batch},
        {{kHeading, "selftest", "Run the self test of a sensor", kSensor, "",
          "shdtool selftest accelerometer"},
         SelfTest},
        {{kHeading, "calibrate", "Calibrate a sensor and show the values", kSensor,
          "The daemon keeps the values of the last calibration, whatever the sensor, and takes "
          "them as the accelerometer's at its next start.",
          "shdtool calibrate accelerometer"},
         Calibrate},
        {{kHeading, "param", "Send a calibration parameter",
          cli::Joined({kSensor,
                       {cli::Text("HEX", "", "The bytes, two hexadecimal digits each")
                            .Required()
                            .Repeated()}}),
          "The accelerometer takes 6 bytes (x, y, z as 16-bit values, low byte first); gyroscope, "
          "pressure and raw-25 take 4.",
          "shdtool param accelerometer 38 01 c8 fe 00 00\nshdtool param pressure 0xd6ffffff"},
         SetParameter},
        {{kHeading, "info", "Show the MCU's information text of a sensor", kSensor, "",
          "shdtool info accelerometer"},
         Information},
    };
}

}  // namespace shdtool
