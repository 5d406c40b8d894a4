// Packets in words. The trace writes them, the player of recordings names differences with them.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace wire {

// "request accelerometer batch every 20 ms, 10 to a report", "reply clock set status 0",
// "report pressure 5 samples ...", "log boot, firmware SIM.900.0001". Never empty; whatever the
// packet does not have room for is left out.
[[nodiscard]] std::string DescribePacket(std::span<const uint8_t> packet);

// Bytes that are no packet: "7F 79", of more than 16 the first ones and how many there are.
[[nodiscard]] std::string DescribeBytes(std::span<const uint8_t> bytes);

}  // namespace wire
