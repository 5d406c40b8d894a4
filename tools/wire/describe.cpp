// Packets in words. Called by the trace, and by the player of recordings for what differs.
#include "tools/wire/describe.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include "tools/wire/packet.h"
#include "tools/wire/sensors.h"

namespace wire {
namespace {

constexpr size_t kMaxShownBytes = 24;
constexpr size_t kRawDataHeaderBytes = 3;
constexpr size_t kDumpHeaderBytes = 3;

struct CommandName {
    uint8_t command;
    std::string_view name;
};

constexpr CommandName kSensorCommands[] = {
    {kCommandActive, "active"},
    {kCommandDeactive, "deactive"},
    {kCommandSetDelay, "set delay"},
    {kCommandBatch, "batch"},
    {kCommandFlush, "flush"},
    {kCommandSelfTest, "self test"},
    {kCommandCalibration, "calibration"},
    {kCommandSetParameter, "set parameter"},
    {kCommandHealthConfig, "health config"},
    {kCommandGetInfo, "get info"},
};

std::string Hex(std::span<const uint8_t> bytes) {
    const auto shown = bytes.first(std::min(bytes.size(), kMaxShownBytes));
    return fmt::format("{:02X}{}", fmt::join(shown, " "),
                       shown.size() < bytes.size() ? " ..." : "");
}

std::string Text(std::span<const uint8_t> bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        if (byte == 0) break;
        text += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
    }
    return text;
}

// "accelerometer batch", "clock set", "service 99 command 3".
std::string Target(uint8_t service, uint8_t command) {
    if (const McuSensor* sensor = FindMcuSensor(service)) {
        const auto* found = std::ranges::find(kSensorCommands, command, &CommandName::command);
        if (found == std::end(kSensorCommands)) {
            return fmt::format("{} command {}", sensor->name, command);
        }
        return fmt::format("{} {}", sensor->name, found->name);
    }
    if (service == kServiceVersion) return fmt::format("version {}", command);
    if (service == kServiceLog && command == kCommandLogLevel) return "log level";
    if (service == kServiceLog && command == kCommandRawData) return "raw-data config";
    if (service == kServiceClock && command == kCommandSetClock) return "clock set";
    return fmt::format("service {} command {}", service, command);
}

std::string RequestArguments(uint8_t service, uint8_t command, std::span<const uint8_t> args) {
    const bool is_sensor = FindMcuSensor(service) != nullptr;
    if (is_sensor && command == kCommandSetDelay && args.size() >= 4) {
        return fmt::format(" {} ms", static_cast<int32_t>(Read32(args, 0)));
    }
    if (is_sensor && command == kCommandBatch && args.size() >= 12) {
        return fmt::format(" every {} ms, {} to a report", static_cast<int32_t>(Read32(args, 0)),
                           static_cast<int32_t>(Read32(args, 4)));
    }
    return args.empty() ? "" : " " + Hex(args);
}

std::string ReplyData(uint8_t service, uint8_t command, std::span<const uint8_t> data) {
    const bool is_sensor = FindMcuSensor(service) != nullptr;
    if (service == kServiceVersion || (is_sensor && command == kCommandGetInfo)) {
        return fmt::format(" \"{}\"", Text(data));
    }
    if (is_sensor && command == kCommandFlush && data.size() >= 3) {
        return fmt::format(" {} pending, status {}", Read16(data, 0), data[2]);
    }
    if (data.size() == 1) return fmt::format(" status {}", data[0]);
    return data.empty() ? "" : " " + Hex(data);
}

std::string DescribeSensorPacket(std::span<const uint8_t> packet) {
    const uint8_t service = packet[2];
    const uint8_t command = packet[3];
    const auto data = packet.subspan(kSensorHeaderBytes);
    switch (packet[1]) {
        case kTypeRequest:
            return fmt::format("request {}{}", Target(service, command),
                               RequestArguments(service, command, data));
        case kTypeResponse:
            return fmt::format("reply {}{}", Target(service, command),
                               ReplyData(service, command, data));
        default:
            break;
    }
    const McuSensor* sensor = FindMcuSensor(service);
    if (packet[1] != kTypeData || sensor == nullptr) return Hex(packet);
    return fmt::format("report {} {} samples {}", sensor->name, data.size() / sensor->sample_bytes,
                       Hex(data));
}

std::string DescribeControlPacket(std::span<const uint8_t> packet) {
    const std::string_view kind = packet[1] == kTypeRequest ? "request" : "reply";
    if (packet[2] == 0) return fmt::format("{} handshake", kind);
    return fmt::format("{} control command {}", kind, packet[2]);
}

}  // namespace

std::string DescribePacket(std::span<const uint8_t> packet) {
    if (packet.empty()) return "empty packet";
    const auto data = packet.subspan(1);
    switch (packet[0]) {
        case kChannelControl:
            if (packet.size() >= kControlHeaderBytes) return DescribeControlPacket(packet);
            break;
        case kChannelSensor:
            if (packet.size() >= kSensorHeaderBytes) return DescribeSensorPacket(packet);
            break;
        case kChannelLog:
            return fmt::format("log {}", Text(data));
        case kChannelRawData:
            if (data.size() < kRawDataHeaderBytes) break;
            return fmt::format("raw data stream {} kind {:#x}, {} bytes of samples", data[0],
                               data[2], data.size() - kRawDataHeaderBytes);
        case kChannelCoreDump:
            if (data.size() < kDumpHeaderBytes) break;
            return fmt::format("core dump piece {} of {}, {} bytes{}", data[2], data[1],
                               data.size() - kDumpHeaderBytes, data[0] != 0 ? ", reset me" : "");
        default:
            break;
    }
    return "unknown packet " + Hex(packet);
}

std::string DescribeBytes(std::span<const uint8_t> bytes) {
    constexpr size_t kShown = 16;
    if (bytes.size() <= kShown) return fmt::format("{:02X}", fmt::join(bytes, " "));
    return fmt::format("{:02X} ... {} bytes", fmt::join(bytes.first(kShown), " "), bytes.size());
}

}  // namespace wire
