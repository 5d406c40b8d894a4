// The commands that the daemon sends to the MCU, one row each: where they go, how long their reply
// may take and what is logged when they fail. Used by the operations of this folder.
#pragma once

#include <cstdint>
#include <span>

#include "mcu_link/mcu_packet.h"

class SensorHub;

enum class McuOperation : uint8_t {
    kActive,
    kDeactive,
    kSetDelay,
    kBatch,
    kFlush,
    kSelfTest,
    kCalibration,
    kSetParameter,
    kGetInfo,
    kVersion,
    kLogLevel,
    kRawData,
    kHealth,
    kDateTime,
    kCount,
};

// One call of an operation.
struct McuCall {
    McuOperation operation;
    int32_t id = 0;  // the sensor or, for kVersion, the number of the text that was asked for
    std::span<const uint8_t> arguments{};  // borrowed; behind the packet's header
    int32_t variant = 0;                   // added to the row's command: which version text
    int status = 0;                        // of the reply, for the message of a refusal
};

// What came of a call.
struct CommandReply {
    McuMessagePtr message;  // owned; null for a failed exchange and for a reply without data

    // The status byte of a plain reply, 0..255, or -1 when there is none.
    [[nodiscard]] int status() const { return message != nullptr ? message->data[0] : -1; }
};

// Builds the packet and exchanges it; reports a missing reply and one without data as the row says.
// Blocks as SendSensorMsgAndWait does. Main thread or reboot thread.
[[nodiscard]] CommandReply Exchange(SensorHub* hub, const McuCall& call);

// Exchange for the operations that only have a status: returns it, reported when it is a refusal.
[[nodiscard]] int ExchangeForStatus(SensorHub* hub, const McuCall& call);

// The same with a packet that the caller has built.
[[nodiscard]] int ExchangeForStatus(SensorHub* hub, const McuCall& call, const McuPacket& packet);

// Reports a refusal with the status that the call holds.
void ReportRefusal(const McuCall& call);
