// A recorded line as a pcapng capture (the IETF's draft-ietf-opsawg-pcapng), for protocol
// analysers. Called by shdtool tap; read with the dissector beside it.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "tools/wire/message_reader.h"

namespace tap {

// What stands before the bytes of each packet of the capture, whose link type is USER0 (147):
// which of Message::Kind it is, and who spoke (0: host, 1: MCU). A pin's packet holds its number
// (0: boot0, 1: reset) and its level; the settings' one the speed as 32 bits, little-endian, and 1
// for even parity.
inline constexpr uint16_t kCaptureLinkType = 147;

// Section header and the description of the one interface, times in nanoseconds.
[[nodiscard]] std::string CaptureBegin();

// One packet. wall is the time of its end since 1970.
[[nodiscard]] std::string CapturePacket(const wire::Message& message,
                                        std::chrono::nanoseconds wall);

}  // namespace tap
