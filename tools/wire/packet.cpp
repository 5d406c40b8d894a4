// Reading and building of MCU packets, and little-endian fields. Called by all that is said or
// heard on the link.
#include "tools/wire/packet.h"

#include <algorithm>
#include <bit>

namespace wire {
namespace {

Bytes Join(std::initializer_list<uint8_t> header, std::span<const uint8_t> data) {
    Bytes packet(header.size() + data.size());
    const auto rest = std::copy(header.begin(), header.end(), packet.begin());
    std::copy(data.begin(), data.end(), rest);
    return packet;
}

}  // namespace

std::optional<Request> ParseRequest(std::span<const uint8_t> packet) {
    if (packet.size() < kControlHeaderBytes || packet[1] != kTypeRequest) return std::nullopt;
    if (packet[0] == kChannelControl) {
        return Request{kChannelControl, 0, packet[2], packet.subspan(kControlHeaderBytes)};
    }
    if (packet[0] != kChannelSensor || packet.size() < kSensorHeaderBytes) return std::nullopt;
    return Request{kChannelSensor, packet[2], packet[3], packet.subspan(kSensorHeaderBytes)};
}

Bytes BuildReply(const Request& request, std::span<const uint8_t> data) {
    if (request.channel == kChannelControl) {
        return Join({kChannelControl, kTypeResponse, request.command}, data);
    }
    return Join({kChannelSensor, kTypeResponse, request.service, request.command}, data);
}

Bytes BuildReport(uint8_t sensor, std::span<const uint8_t> samples) {
    return Join({kChannelSensor, kTypeData, sensor, 0}, samples);
}

Bytes BuildChannelPacket(Channel channel, std::span<const uint8_t> data) {
    return Join({channel}, data);
}

void Append16(Bytes& out, uint32_t value) {
    out.push_back(static_cast<uint8_t>(value & 0xFF));
    out.push_back(static_cast<uint8_t>(value >> 8 & 0xFF));
}

void Append32(Bytes& out, uint32_t value) {
    Append16(out, value & 0xFFFF);
    Append16(out, value >> 16);
}

void AppendFloat(Bytes& out, float value) {
    Append32(out, std::bit_cast<uint32_t>(value));
}

void AppendText(Bytes& out, std::string_view text) {
    out.insert(out.end(), text.begin(), text.end());
    out.push_back(0);
}

uint32_t Read16(std::span<const uint8_t> bytes, size_t offset) {
    return bytes[offset] | static_cast<uint32_t>(bytes[offset + 1]) << 8;
}

uint32_t Read32(std::span<const uint8_t> bytes, size_t offset) {
    return Read16(bytes, offset) | Read16(bytes, offset + 2) << 16;
}

uint64_t Read64(std::span<const uint8_t> bytes, size_t offset) {
    return Read32(bytes, offset) | static_cast<uint64_t>(Read32(bytes, offset + 4)) << 32;
}

}  // namespace wire
