// The request/reply exchange with the MCU: the one way to send a request, and the watch over the
// link's health that it keeps.
#pragma once

#include "mcu_link/mcu_packet.h"

class SensorHub;

// Writes the packet's frame and waits up to timeout_sec seconds for the next reply, whatever
// request it answers; before that it waits for as long as another thread holds the line, which is
// minutes during a firmware update. Returns 0 with the reply, which the caller owns, or -1. Runs on
// the main thread or the reboot thread. A run of failures asks for an MCU reboot: the third failure
// in a row when it is a failed write, the second when it is a timeout.
[[nodiscard]] int SendSensorMsgAndWait(SensorHub* hub, const McuPacket& packet,
                                       McuMessagePtr* reply, int timeout_sec);
