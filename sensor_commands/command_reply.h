// The step that every MCU command shares: exchange a packet and insist on a reply with data.
#pragma once

#include "mcu_link/mcu_packet.h"

class SensorHub;

enum class ReplyFault {
    kNone,
    kTimeout,  // the exchange failed
    kEmpty,    // a reply came, without data
};

struct CommandReply {
    ReplyFault fault;
    McuMessagePtr message;  // owned; set when there is no fault

    // The status byte of a plain reply, 0..255, or -1 when there is none.
    [[nodiscard]] int status() const { return fault == ReplyFault::kNone ? message->data[0] : -1; }
};

// Blocks for up to timeout_sec seconds. Main thread or reboot thread.
[[nodiscard]] CommandReply ExchangeCommand(SensorHub* hub, const McuPacket& packet,
                                           int timeout_sec);
