// The everyday commands for one sensor: enable, disable, delay and batch. Called by main.
#include <fmt/core.h>

#include <cmath>
#include <memory>
#include <optional>
#include <string>

#include "tools/client/hub_client.h"
#include "tools/shdtool/commands.h"
#include "tools/shdtool/sensor_argument.h"

namespace shdtool {
namespace {

using shdclient::HubClient;
using shdclient::Result;
using shdclient::SensorInfo;
using shdclient::Status;

constexpr int32_t kMaxPeriodMs = 3'600'000;
constexpr double kMinRateHz = 0.001;
constexpr double kMaxRateHz = 1000;
constexpr int32_t kMaxBatch = 100'000;

struct Sampling {
    std::optional<int32_t> period_ms;
    std::optional<int32_t> batch;
};

std::string SamplingText(const SensorInfo& sensor, const Sampling& sampling) {
    if (!sampling.period_ms) return "";
    if (sensor.is_virtual) return " (virtual: period and batch have no effect)";
    std::string text =
        fmt::format(", every {} ms ({:.4g} Hz)", *sampling.period_ms, 1000.0 / *sampling.period_ms);
    const int32_t batch = sampling.batch.value_or(0);
    if (batch > 0 && !sensor.can_batch) return text + ", not batched (the hub never batches it)";
    if (batch > 0) text += fmt::format(", in batches of {}", batch);
    return text;
}

Json SamplingFields(const SensorInfo& sensor, const Sampling& sampling) {
    Json fields = SensorFields(sensor);
    if (sampling.period_ms) {
        fields["period_ms"] = *sampling.period_ms;
        fields["batch"] = sensor.can_batch ? sampling.batch.value_or(0) : 0;
    }
    return fields;
}

Result<Report> Enable(HubClient& hub, const SensorInfo& sensor, const Sampling& sampling) {
    if (sampling.period_ms) {
        const Status batched =
            hub.Batch(sensor.handle, *sampling.period_ms, sampling.batch.value_or(0));
        if (!batched) return batched.error();
    }
    const Status active = hub.Activate(sensor.handle);
    if (!active) return active.error();
    return Report{fmt::format("{} enabled{}", sensor.name, SamplingText(sensor, sampling)),
                  SamplingFields(sensor, sampling)};
}

Result<Report> Batch(HubClient& hub, const SensorInfo& sensor, const Sampling& sampling) {
    const Status done = hub.Batch(sensor.handle, *sampling.period_ms, sampling.batch.value_or(0));
    if (!done) return done.error();
    return Report{fmt::format("{} set{}", sensor.name, SamplingText(sensor, sampling)),
                  SamplingFields(sensor, sampling)};
}

Result<Report> SetDelay(HubClient& hub, const SensorInfo& sensor, int32_t period_ms) {
    const Status done = hub.SetDelay(sensor.handle, period_ms);
    if (!done) return done.error();
    const Sampling sampling{period_ms, std::nullopt};
    return Report{fmt::format("{} set{}", sensor.name, SamplingText(sensor, sampling)),
                  SamplingFields(sensor, sampling)};
}

Result<Report> Disable(HubClient& hub, const SensorInfo& sensor) {
    const Status done = hub.Deactivate(sensor.handle);
    if (!done) return done.error();
    return Report{fmt::format("{} disabled", sensor.name), SensorFields(sensor)};
}

// The period of --period or --rate, filled while the command line is parsed.
void AddPeriodOptions(CLI::App& command, const std::shared_ptr<Sampling>& sampling) {
    CLI::Option* period = command
                              .add_option_function<int32_t>(
                                  "--period", [sampling](int32_t ms) { sampling->period_ms = ms; },
                                  "Sampling period in milliseconds")
                              ->check(Between(1, kMaxPeriodMs))
                              ->type_name("MS");
    command
        .add_option_function<double>(
            "--rate",
            [sampling](double hz) {
                sampling->period_ms = static_cast<int32_t>(std::lround(1000 / hz));
            },
            "Sampling rate in Hz, rounded to a period of whole milliseconds")
        ->check(Between(kMinRateHz, kMaxRateHz))
        ->type_name("HZ")
        ->excludes(period);
}

void AddBatchOption(CLI::App& command, const std::shared_ptr<Sampling>& sampling) {
    command
        .add_option_function<int32_t>(
            "--batch", [sampling](int32_t samples) { sampling->batch = samples; },
            "Samples that the MCU collects before it reports; 0: none")
        ->check(Between(0, kMaxBatch))
        ->type_name("N");
}

void AddEnable(CLI::App& app, Context& context) {
    CLI::App* command = AddCommand(
        app, "enable", "Switch a sensor on",
        "  shdtool enable accelerometer --rate 50 --batch 10\n  shdtool enable step-counter",
        "Without --period or --rate the sensor keeps the sampling that it was last given.");
    const SensorArgument sensor = AddSensorArgument(*command);
    auto sampling = std::make_shared<Sampling>();
    AddPeriodOptions(*command, sampling);
    AddBatchOption(*command, sampling);
    command->callback([&context, sensor, sampling] {
        if (sampling->batch && !sampling->period_ms) {
            throw CLI::ValidationError("--batch", "needs --period or --rate beside it");
        }
        RunWithHub(context, "enable",
                   [&](HubClient& hub) { return Enable(hub, **sensor, *sampling); });
    });
}

void AddBatch(CLI::App& app, Context& context) {
    CLI::App* command = AddCommand(app, "batch", "Set period and batch size of a sensor",
                                   "  shdtool batch gyroscope --period 20 --batch 50");
    const SensorArgument sensor = AddSensorArgument(*command);
    auto sampling = std::make_shared<Sampling>();
    AddPeriodOptions(*command, sampling);
    AddBatchOption(*command, sampling);
    command->callback([&context, sensor, sampling] {
        if (!sampling->period_ms) {
            throw CLI::ValidationError("batch", "needs --period or --rate");
        }
        RunWithHub(context, "batch",
                   [&](HubClient& hub) { return Batch(hub, **sensor, *sampling); });
    });
}

void AddDelay(CLI::App& app, Context& context) {
    CLI::App* command = AddCommand(app, "delay", "Set the sampling period of a sensor",
                                   "  shdtool delay pressure 100");
    const SensorArgument sensor = AddSensorArgument(*command);
    auto period_ms = std::make_shared<int32_t>(0);
    command->add_option("MS", *period_ms, "sampling period in milliseconds")
        ->required()
        ->check(Between(1, kMaxPeriodMs))
        ->type_name("");
    command->callback([&context, sensor, period_ms] {
        RunWithHub(context, "delay",
                   [&](HubClient& hub) { return SetDelay(hub, **sensor, *period_ms); });
    });
}

void AddDisable(CLI::App& app, Context& context) {
    CLI::App* command =
        AddCommand(app, "disable", "Switch a sensor off", "  shdtool disable accelerometer");
    const SensorArgument sensor = AddSensorArgument(*command);
    command->callback([&context, sensor] {
        RunWithHub(context, "disable", [&](HubClient& hub) { return Disable(hub, **sensor); });
    });
}

}  // namespace

void AddSensorCommands(CLI::App& app, Context& context) {
    AddEnable(app, context);
    AddDisable(app, context);
    AddDelay(app, context);
    AddBatch(app, context);
}

}  // namespace shdtool
