// The step shared by the MCU commands whose reply must hold data: exchange a packet, look at it.
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

// Blocks as SendSensorMsgAndWait does. Main thread or reboot thread.
[[nodiscard]] CommandReply ExchangeCommand(SensorHub* hub, const McuPacket& packet,
                                           int timeout_sec);
