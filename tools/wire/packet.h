// The MCU's packets: channels, services and commands by number, the request as the application
// reads it, and the packets that it sends. Used by everything that talks over the link.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace wire {

enum Channel : uint8_t {
    kChannelControl = 0,
    kChannelSensor = 1,
    kChannelLog = 4,
    kChannelRawData = 5,
    kChannelCoreDump = 7,
};

// What stands before the arguments or the data.
inline constexpr size_t kControlHeaderBytes = 3;  // channel, type, command
inline constexpr size_t kSensorHeaderBytes = 4;   // channel, type, service, command

enum PacketType : uint8_t { kTypeRequest = 0, kTypeResponse = 1, kTypeData = 2 };

// System services of the sensor channel; every other service number is a sensor's id.
enum Service : uint8_t { kServiceClock = 12, kServiceLog = 13, kServiceVersion = 15 };

enum Command : uint8_t {
    kCommandActive = 0,
    kCommandDeactive = 1,
    kCommandSetDelay = 2,
    kCommandBatch = 3,
    kCommandFlush = 4,
    kCommandSelfTest = 17,
    kCommandCalibration = 18,
    kCommandSetParameter = 19,
    kCommandHealthConfig = 32,
    kCommandGetInfo = 34,
    kCommandLogLevel = 0,  // of kServiceLog
    kCommandRawData = 1,   // of kServiceLog
    kCommandSetClock = 1,  // of kServiceClock
};

// The status byte of a reply; 0 is success.
enum Status : uint8_t { kStatusOk = 0, kStatusUnsupported = 1, kStatusBadArgument = 2 };

using Bytes = std::vector<uint8_t>;

// A request on channel 0 or 1. args points into the packet that was parsed.
struct Request {
    uint8_t channel = 0;
    uint8_t service = 0;  // 0 on channel 0
    uint8_t command = 0;
    std::span<const uint8_t> args;
};

// Nothing when the packet is no request of channel 0 or 1, or is shorter than its header.
[[nodiscard]] std::optional<Request> ParseRequest(std::span<const uint8_t> packet);

[[nodiscard]] Bytes BuildReply(const Request& request, std::span<const uint8_t> data);
[[nodiscard]] Bytes BuildReport(uint8_t sensor, std::span<const uint8_t> samples);
[[nodiscard]] Bytes BuildChannelPacket(Channel channel, std::span<const uint8_t> data);

// Little-endian fields.
void Append16(Bytes& out, uint32_t value);
void Append32(Bytes& out, uint32_t value);
void AppendFloat(Bytes& out, float value);
void AppendText(Bytes& out, std::string_view text);  // with its terminating zero byte
[[nodiscard]] uint32_t Read16(std::span<const uint8_t> bytes, size_t offset);
[[nodiscard]] uint32_t Read32(std::span<const uint8_t> bytes, size_t offset);
[[nodiscard]] uint64_t Read64(std::span<const uint8_t> bytes, size_t offset);

}  // namespace wire
