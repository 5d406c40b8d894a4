// The MCU packet, payload of every UART frame, in both directions: McuPacket is a request that a
// command builds on its stack, McuMessage an inbound message that the reader thread hands over.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>
#include <string_view>

enum McuChannel : uint8_t {
    MCU_CHANNEL_CTRL = 0,      // header: channel, type, command
    MCU_CHANNEL_SENSOR = 1,    // header: channel, type, service, command
    MCU_CHANNEL_LOG = 4,       // header: channel; a line of the MCU's log
    MCU_CHANNEL_RAWDATA = 5,   // header: channel
    MCU_CHANNEL_COREDUMP = 7,  // header: channel
};

enum McuType : uint8_t {
    MCU_TYPE_REQUEST = 0,
    MCU_TYPE_RESPONSE = 1,
    MCU_TYPE_DATA = 2,  // unsolicited sensor data
};

// Services on the sensor channel beside the MCU sensor ids.
enum McuService : uint8_t {
    MCU_SERVICE_DATETIME = 12,
    MCU_SERVICE_LOG = 13,
    MCU_SERVICE_VERSION = 15,
    MCU_SERVICE_HEALTH = 64,  // the motion-health sensor's id
};

enum McuCommand : uint8_t {
    MCU_CMD_HANDSHAKE = 0,  // on MCU_CHANNEL_CTRL
    MCU_CMD_ACTIVE = 0,
    MCU_CMD_DEACTIVE = 1,
    MCU_CMD_SET_DELAY = 2,
    MCU_CMD_BATCH = 3,
    MCU_CMD_FLUSH = 4,
    MCU_CMD_SELFTEST = 0x11,
    MCU_CMD_CALIBRATION = 0x12,
    MCU_CMD_SET_PARAMETER = 0x13,
    MCU_CMD_GET_INFO = 0x22,
    MCU_CMD_DATETIME = 1,   // on MCU_SERVICE_DATETIME
    MCU_CMD_LOG_LEVEL = 0,  // on MCU_SERVICE_LOG
    MCU_CMD_RAWDATA = 1,    // on MCU_SERVICE_LOG
    MCU_CMD_HEALTH = 0x20,  // on MCU_SERVICE_HEALTH
    MCU_CMD_VERSION = 0,    // on MCU_SERVICE_VERSION: the firmware version
};

inline constexpr int32_t kMcuRawSize = 32;
inline constexpr int32_t kMcuFrameSize = 64;

// An outbound request. A plain value; never kept by the exchange.
struct McuPacket {
    uint8_t raw[kMcuRawSize];      // unescaped packet: header, then arguments
    int32_t raw_len;               // valid bytes of raw
    uint8_t frame[kMcuFrameSize];  // the frame built from raw
    int32_t frame_len;             // its length, or -1 when the packet did not fit
};

void ClearPacket(McuPacket* packet);

// Builds frame from raw. Returns 0; a packet that does not fit shows as frame_len -1.
int EncodePacket(McuPacket* packet);

void BuildCtrlPacket(McuPacket* packet, int command);
void BuildSensorPacket(McuPacket* packet, int service, int command);
void BuildDelayPacket(McuPacket* packet, int service, int32_t delay_ms);

// Adds argument bytes behind what the packet holds and encodes it again. Arguments that would
// exceed the packet's 32 bytes are left out and the packet stays as it is.
void AppendArguments(McuPacket* packet, std::span<const uint8_t> arguments);

inline constexpr size_t kMcuMessageHeaderSize = 8;

// A heap block made by AllocMcuMessage, released with free by its last holder.
struct McuMessage {
    uint8_t type;       // McuType; 0 on the channels without one
    uint8_t service;    // the command on MCU_CHANNEL_CTRL
    uint8_t cmd;        // 0 except on MCU_CHANNEL_SENSOR
    uint8_t channel;    // McuChannel
    int32_t data_len;   // payload bytes, 0..1496
    uint8_t data[512];  // the payload; the block goes on behind it when data_len is larger

    [[nodiscard]] std::span<const uint8_t> payload() const {
        const auto* block = reinterpret_cast<const uint8_t*>(this);
        return {block + kMcuMessageHeaderSize, static_cast<size_t>(data_len)};
    }

    // The payload as text: up to its first zero byte, never more than data_len bytes.
    [[nodiscard]] std::string_view text() const;
};
static_assert(sizeof(McuMessage) == 520 && offsetof(McuMessage, data) == kMcuMessageHeaderSize);

struct FreeDeleter {
    void operator()(void* block) const { std::free(block); }
};
using McuMessagePtr = std::unique_ptr<McuMessage, FreeDeleter>;

// Allocates a block with room for data_len payload bytes and for 512 at least. Contents undefined.
// Returns null when memory is short.
[[nodiscard]] McuMessagePtr AllocMcuMessage(int32_t data_len);

// Builds a message from the payload of one frame. Returns 0, or -1 with nothing allocated for an
// empty frame, an unknown channel, a short header or when memory is short. The bytes behind a
// short payload read as 0.
[[nodiscard]] int ParseMcuMessage(std::span<const uint8_t> decoded, McuMessagePtr* message);
