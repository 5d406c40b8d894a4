// Records and command ids of the control socket "shdctl", shared by the daemon and its clients.
// A client writes ClientRequest records and reads one ControlReply for each, except where noted;
// both are raw little-endian images with no length prefix.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace shd {

static_assert(std::endian::native == std::endian::little,
              "the records of this file are used as they lie in memory");

enum ControlCommand : int32_t {
    SHB_SENSOR_ACTIVE = 0,
    SHB_SENSOR_DEACTIVE = 1,
    SHB_SENSOR_DELAY = 2,  // args: int32 period in ms
    SHB_SENSOR_SELFTEST = 3,
    SHB_SENSOR_PARAMETER = 4,     // args: 6 bytes for handle 0; 4 for 5, 6, 25; else none
    SHB_SENSOR_CALIBRATION = 5,   // reply data: as many bytes as the parameter has
    SHB_MCU_LOG_LEVEL = 6,        // args: uint8 1, uint8 level 0..5
    SHB_MCU_RAWDATA_CONFIG = 7,   // args: uint16, bit 0 algorithm data, bit 1 heart-rate data
    SHB_MCU_HEALTH_CONFIG = 8,    // args: four 32-bit words
    SHB_MCU_DATETIME_CONFIG = 9,  // args: int32 seconds since the epoch
    SHB_SENSOR_BATCH = 10,        // args: int32 period in ms, int32 samples, int32 third word
    SHB_SENSOR_FLUSH = 11,
    SHB_SENSOR_GETINFO = 12,  // reply: text
    SHB_MCU_VERSION = 13,     // args: uint16 text number 0..3; reply: text
    SHB_DEBUG_LOG = 14,       // args: uint16 flag
    SHB_MCU_SLEEP = 40,
    SHB_MCU_WAKEUP = 41,
};

// What a command's reply carries.
enum class ReplyContent : uint8_t {
    kResult,  // ControlReply::result, and for SHB_SENSOR_CALIBRATION data
    kText,    // a text in place of the result
    kNone,    // the command is never answered
};

struct CommandFacts {
    int32_t command;
    std::string_view name;  // in words
    bool mcu_wide;          // concerns no sensor: its reply carries handle 0
    int32_t reply_command;  // ControlReply::command
    ReplyContent content;
};

inline constexpr CommandFacts kCommands[] = {
    {SHB_SENSOR_ACTIVE, "activate", false, SHB_SENSOR_ACTIVE, ReplyContent::kResult},
    {SHB_SENSOR_DEACTIVE, "deactivate", false, SHB_SENSOR_DEACTIVE, ReplyContent::kResult},
    {SHB_SENSOR_DELAY, "set delay", false, SHB_SENSOR_DELAY, ReplyContent::kResult},
    {SHB_SENSOR_SELFTEST, "self test", false, SHB_SENSOR_SELFTEST, ReplyContent::kResult},
    {SHB_SENSOR_PARAMETER, "set parameter", false, SHB_SENSOR_PARAMETER, ReplyContent::kResult},
    {SHB_SENSOR_CALIBRATION, "calibration", false, SHB_SENSOR_CALIBRATION, ReplyContent::kResult},
    {SHB_MCU_LOG_LEVEL, "MCU log level", true, SHB_MCU_LOG_LEVEL, ReplyContent::kResult},
    {SHB_MCU_RAWDATA_CONFIG, "raw-data configuration", true, SHB_MCU_RAWDATA_CONFIG,
     ReplyContent::kResult},
    {SHB_MCU_HEALTH_CONFIG, "health configuration", true, SHB_MCU_HEALTH_CONFIG,
     ReplyContent::kResult},
    {SHB_MCU_DATETIME_CONFIG, "date and time", true, SHB_MCU_DATETIME_CONFIG,
     ReplyContent::kResult},
    {SHB_SENSOR_BATCH, "batch", false, SHB_SENSOR_BATCH, ReplyContent::kResult},
    {SHB_SENSOR_FLUSH, "flush", false, SHB_SENSOR_FLUSH, ReplyContent::kResult},
    {SHB_SENSOR_GETINFO, "get information", false, SHB_SENSOR_GETINFO, ReplyContent::kText},
    // The version is answered under the id of the raw-data configuration.
    {SHB_MCU_VERSION, "MCU version", true, SHB_MCU_RAWDATA_CONFIG, ReplyContent::kText},
    {SHB_DEBUG_LOG, "debug log", true, SHB_DEBUG_LOG, ReplyContent::kResult},
    {SHB_MCU_SLEEP, "sleep", true, SHB_MCU_SLEEP, ReplyContent::kNone},
    {SHB_MCU_WAKEUP, "wake up", true, SHB_MCU_WAKEUP, ReplyContent::kNone},
};

// The facts of a command id, any value, or null when there is no such command.
[[nodiscard]] constexpr const CommandFacts* FindCommand(int32_t command) {
    for (const CommandFacts& facts : kCommands) {
        if (facts.command == command) return &facts;
    }
    return nullptr;
}

// What a refusal carries in place of the command, and what a virtual sensor answers with.
inline constexpr int32_t kErrorReplyCommand = -1;
inline constexpr int32_t kVirtualReplyCommand = 0;

// Client to daemon. The MCU-wide commands need a handle that names a real sensor, too.
struct ClientRequest {
    uint32_t reserved0;  // @0 not read
    int32_t handle;      // @4 sensor handle, 0..27
    uint32_t reserved1;  // @8 not read
    int32_t command;     // @12 ControlCommand
    uint8_t args[16];    // @16 laid out per command
};
static_assert(sizeof(ClientRequest) == 32 && offsetof(ClientRequest, handle) == 4 &&
              offsetof(ClientRequest, command) == 12 && offsetof(ClientRequest, args) == 16);

// How long the hub waits for the MCU's reply: to a handshake, activation, delay, batch, flush, and
// to any command at the most.
inline constexpr int kQuickReplySec = 2;
inline constexpr int kLongestReplySec = 10;

inline constexpr int32_t kControlReplyKind = 1;

// Text replies (SHB_SENSOR_GETINFO, SHB_MCU_VERSION) lie at this offset, in place of the result,
// and are always terminated within the record.
inline constexpr size_t kControlReplyTextOffset = 16;
inline constexpr size_t kControlReplyTextSize = 256;

// Daemon to client. Bytes that a command does not fill are 0.
struct ControlReply {
    int32_t length;     // @0 always 272
    int32_t handle;     // @4 the request's; 0 in a result of an MCU-wide command
    int32_t kind;       // @8 always 1
    int32_t command;    // @12 CommandFacts::reply_command, kVirtualReplyCommand, kErrorReplyCommand
    int32_t result;     // @16 0 success, 1..255 the MCU's status, -1 no usable answer
    uint8_t data[252];  // @20 calibration bytes; with the result, the text of a text reply
};
static_assert(sizeof(ControlReply) == 272 && offsetof(ControlReply, result) == 16 &&
              offsetof(ControlReply, data) == 20);
static_assert(kControlReplyTextOffset + kControlReplyTextSize == sizeof(ControlReply));

}  // namespace shd
