// Building of requests and parsing of inbound messages; used by the commands, the reader thread
// and the firmware updater.
#include "mcu_link/mcu_packet.h"

#include <algorithm>
#include <cstring>

#include "mcu_link/frame_codec.h"

namespace {

constexpr int32_t kMinDataRoom = 512;

void SetRaw(McuPacket* packet, std::initializer_list<int> bytes) {
    ClearPacket(packet);
    for (const int byte : bytes) packet->raw[packet->raw_len++] = static_cast<uint8_t>(byte);
    (void)EncodePacket(packet);
}

// Bytes of the header on each channel; 0 marks channels that are not part of the protocol.
constexpr size_t kHeaderSize[] = {3, 4, 0, 0, 1, 1, 0, 1};

}  // namespace

void ClearPacket(McuPacket* packet) {
    *packet = McuPacket{};
}

int EncodePacket(McuPacket* packet) {
    packet->frame_len =
        EncodeFrame(packet->frame, {packet->raw, static_cast<size_t>(packet->raw_len)});
    return 0;
}

void BuildCtrlPacket(McuPacket* packet, int command) {
    SetRaw(packet, {MCU_CHANNEL_CTRL, MCU_TYPE_REQUEST, command});
}

void BuildSensorPacket(McuPacket* packet, int service, int command) {
    SetRaw(packet, {MCU_CHANNEL_SENSOR, MCU_TYPE_REQUEST, service, command});
}

void BuildDelayPacket(McuPacket* packet, int service, int32_t delay_ms) {
    BuildSensorPacket(packet, service, MCU_CMD_SET_DELAY);
    uint8_t bytes[sizeof(delay_ms)];
    std::memcpy(bytes, &delay_ms, sizeof(bytes));
    AppendArguments(packet, bytes);
}

void AppendArguments(McuPacket* packet, std::span<const uint8_t> arguments) {
    const auto used = static_cast<size_t>(packet->raw_len);
    if (arguments.size() > sizeof(packet->raw) - used) return;
    std::copy(arguments.begin(), arguments.end(), packet->raw + used);
    packet->raw_len += static_cast<int32_t>(arguments.size());
    (void)EncodePacket(packet);
}

std::string_view McuMessage::text() const {
    const auto bytes = payload();
    const auto end = std::find(bytes.begin(), bytes.end(), uint8_t{0});
    return {reinterpret_cast<const char*>(bytes.data()), static_cast<size_t>(end - bytes.begin())};
}

McuMessagePtr AllocMcuMessage(int32_t data_len) {
    const auto room = static_cast<size_t>(std::max(data_len, kMinDataRoom));
    return McuMessagePtr(static_cast<McuMessage*>(std::malloc(kMcuMessageHeaderSize + room)));
}

int ParseMcuMessage(std::span<const uint8_t> decoded, McuMessagePtr* message) {
    if (decoded.empty() || decoded[0] >= std::size(kHeaderSize)) return -1;
    const uint8_t channel = decoded[0];
    const size_t header_size = kHeaderSize[channel];
    if (header_size == 0 || decoded.size() < header_size) return -1;

    const auto payload = decoded.subspan(header_size);
    McuMessagePtr parsed = AllocMcuMessage(static_cast<int32_t>(payload.size()));
    if (parsed == nullptr) return -1;
    parsed->channel = channel;
    parsed->type = header_size > 1 ? decoded[1] : uint8_t{0};
    parsed->service = header_size > 2 ? decoded[2] : uint8_t{0};
    parsed->cmd = header_size > 3 ? decoded[3] : uint8_t{0};
    parsed->data_len = static_cast<int32_t>(payload.size());
    uint8_t* data = reinterpret_cast<uint8_t*>(parsed.get()) + kMcuMessageHeaderSize;
    if (!payload.empty()) std::memcpy(data, payload.data(), payload.size());
    if (payload.size() < static_cast<size_t>(kMinDataRoom)) {
        std::memset(data + payload.size(), 0, kMinDataRoom - payload.size());
    }
    *message = std::move(parsed);
    return 0;
}
