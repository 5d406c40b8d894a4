// What the MCU's firmware does on each command. Run by application.cpp through the command table.
#include "tools/mcusim/application/application_commands.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <iterator>

namespace mcusim {
namespace {

using std::chrono::milliseconds;

constexpr uint8_t kSensorOnly = 0;  // the service column of commands that any sensor takes
constexpr uint8_t kVersionTexts = 4;
constexpr TimePoint kAtOnce{0};

}  // namespace

const Application::CommandEntry Application::kCommands[] = {
    {Addressee::kControl, 0, 0, 0, kAtOnce, &Application::Handshake},
    {Addressee::kService, kServiceClock, kCommandSetClock, 8, kAtOnce, &Application::SetClock},
    {Addressee::kService, kServiceLog, kCommandLogLevel, 2, kAtOnce, &Application::SetLogLevel},
    {Addressee::kService, kServiceLog, kCommandRawData, 2, kAtOnce, &Application::ConfigureRawData},
    {Addressee::kService, kServiceVersion, 0, 0, kAtOnce, &Application::Version},
    {Addressee::kService, kServiceVersion, 1, 0, kAtOnce, &Application::Version},
    {Addressee::kService, kServiceVersion, 2, 0, kAtOnce, &Application::Version},
    {Addressee::kService, kServiceVersion, 3, 0, kAtOnce, &Application::Version},
    {Addressee::kService, kMotionHealth, kCommandHealthConfig, 6, kAtOnce,
     &Application::HealthConfig},
    {Addressee::kSensor, kSensorOnly, kCommandActive, 0, kAtOnce, &Application::Active},
    {Addressee::kSensor, kSensorOnly, kCommandDeactive, 0, kAtOnce, &Application::Deactive},
    {Addressee::kSensor, kSensorOnly, kCommandSetDelay, 4, kAtOnce, &Application::SetDelay},
    {Addressee::kSensor, kSensorOnly, kCommandBatch, 12, kAtOnce, &Application::Batch},
    {Addressee::kSensor, kSensorOnly, kCommandFlush, 0, kAtOnce, &Application::Flush},
    {Addressee::kSensor, kSensorOnly, kCommandSelfTest, 0, milliseconds(200),
     &Application::SelfTest},
    {Addressee::kSensor, kSensorOnly, kCommandCalibration, 0, milliseconds(400),
     &Application::Calibrate},
    {Addressee::kSensor, kSensorOnly, kCommandSetParameter, 0, kAtOnce, &Application::SetParameter},
    {Addressee::kSensor, kSensorOnly, kCommandGetInfo, 0, kAtOnce, &Application::GetInfo},
};

const Application::CommandEntry* Application::FindCommand(const Request& request) {
    const bool is_sensor = FindSensor(request.service) != nullptr;
    const auto* found = std::ranges::find_if(kCommands, [&](const CommandEntry& entry) {
        if (entry.command != request.command) return false;
        if (request.channel == kChannelControl) return entry.addressee == Addressee::kControl;
        return entry.addressee == Addressee::kSensor
                   ? is_sensor
                   : entry.addressee == Addressee::kService && entry.service == request.service;
    });
    return found == std::end(kCommands) ? nullptr : found;
}

void Application::Reply(const Request& request, std::span<const uint8_t> data, TimePoint at) {
    (void)transmitter_.Send(at, BuildReply(request, data), FrameKind::kReply);  // counted there
}

void Application::ReplyStatus(const Request& request, uint8_t status, TimePoint at) {
    Reply(request, std::array{status}, at);
}

// A status stands where this command's reply has it: behind the count or the calibration bytes,
// else alone.
void Application::Refuse(const Request& request, uint8_t status, TimePoint at) {
    const SensorTraits* sensor = FindSensor(request.service);
    Bytes data;
    if (sensor != nullptr && request.command == kCommandFlush) data.resize(2);
    if (sensor != nullptr && request.command == kCommandCalibration) {
        data.resize(sensor->calibration_bytes);
    }
    data.push_back(status);
    Log(at, kLogLevelInfo,
        fmt::format("service {} command {} refused: {}", request.service, request.command, status));
    Reply(request, data, at);
}

void Application::Handshake(const Request& request, TimePoint at) {
    Reply(request, {}, at);
}

void Application::Active(const Request& request, TimePoint at) {
    ReplyStatus(request, kStatusOk, at);
    sensors_.Activate(request.service, at);
    Log(at, kLogLevelDebug, fmt::format("sensor {} on", request.service));
}

void Application::Deactive(const Request& request, TimePoint at) {
    sensors_.Deactivate(request.service);
    ReplyStatus(request, kStatusOk, at);
    Log(at, kLogLevelDebug, fmt::format("sensor {} off", request.service));
}

void Application::SetDelay(const Request& request, TimePoint at) {
    const auto period_ms = static_cast<int32_t>(Read32(request.args, 0));
    if (!sensors_.SetPeriod(request.service, period_ms, at)) {
        return Refuse(request, kStatusBadArgument, at);
    }
    ReplyStatus(request, kStatusOk, at);
}

void Application::Batch(const Request& request, TimePoint at) {
    const auto period_ms = static_cast<int32_t>(Read32(request.args, 0));
    const auto count = static_cast<int32_t>(Read32(request.args, 4));
    if (!sensors_.SetBatch(request.service, period_ms, count, at)) {
        return Refuse(request, kStatusBadArgument, at);
    }
    ReplyStatus(request, kStatusOk, at);
}

void Application::Flush(const Request& request, TimePoint at) {
    Bytes data;
    Append16(data, static_cast<uint32_t>(sensors_.Pending(request.service, at)));
    data.push_back(kStatusOk);
    Reply(request, data, at);
    sensors_.Flush(request.service, at);
}

void Application::SelfTest(const Request& request, TimePoint at) {
    ReplyStatus(request, kStatusOk, at);
}

// The offsets that a watch lying still has measured; the model's sensors are always level, so they
// only tell one sensor from another.
void Application::Calibrate(const Request& request, TimePoint at) {
    const uint8_t count = FindSensor(request.service)->calibration_bytes;
    if (count == 0) return Refuse(request, kStatusUnsupported, at);
    Bytes data;
    for (uint8_t i = 0; i < count / 2; ++i) {
        const int offset = (request.service % 7 + 3) * (i % 2 == 0 ? 1 : -1) + i;
        Append16(data, static_cast<uint16_t>(offset));
    }
    data.push_back(kStatusOk);
    Reply(request, data, at);
}

void Application::SetParameter(const Request& request, TimePoint at) {
    const uint8_t count = FindSensor(request.service)->calibration_bytes;
    if (count == 0) return Refuse(request, kStatusUnsupported, at);
    if (request.args.size() != count) return Refuse(request, kStatusBadArgument, at);
    ReplyStatus(request, kStatusOk, at);
}

void Application::GetInfo(const Request& request, TimePoint at) {
    Bytes data;
    AppendText(data, FindSensor(request.service)->info);
    Reply(request, data, at);
}

void Application::HealthConfig(const Request& request, TimePoint at) {
    ReplyStatus(request, kStatusOk, at);
    Log(at, kLogLevelDebug,
        fmt::format("health {} {} {} {}", request.args[0], request.args[1], Read16(request.args, 2),
                    Read16(request.args, 4)));
}

void Application::SetClock(const Request& request, TimePoint at) {
    signals_.SetClock(Read64(request.args, 0), at);
    ReplyStatus(request, kStatusOk, at);
}

void Application::SetLogLevel(const Request& request, TimePoint at) {
    log_level_ = request.args[1];
    ReplyStatus(request, kStatusOk, at);
}

void Application::ConfigureRawData(const Request& request, TimePoint at) {
    if (!raw_data_.Configure(static_cast<uint16_t>(Read16(request.args, 0)))) {
        return Refuse(request, kStatusBadArgument, at);
    }
    ReplyStatus(request, kStatusOk, at);
}

void Application::Version(const Request& request, TimePoint at) {
    const std::array<std::string, kVersionTexts> texts = {
        version_, "sensor library 4.2.0", "step and heart-rate algorithms 1.7.3",
        "STM32F411 simulated board, revision 900"};
    Bytes data;
    AppendText(data, texts[request.command]);
    Reply(request, data, at);
}

}  // namespace mcusim
