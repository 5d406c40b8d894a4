// The image file mcu.bin: a header and the firmware behind it. The image builder, the image checks
// and the simulator call it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/image_header.h"

namespace firmware {

inline constexpr size_t kMaxVersionLength = sizeof(shd::mcu_head::version) - 1;  // characters

// Throws std::invalid_argument on a text that no header can hold: longer than kMaxVersionLength or
// with a NUL in it.
void CheckVersion(std::string_view version);

// The whole file. Throws as CheckVersion does; whether the daemon accepts the text is not looked
// at.
[[nodiscard]] std::vector<uint8_t> WrapImage(std::string_view version,
                                             std::span<const uint8_t> payload);

struct Image {
    shd::mcu_head header;              // what a short file lacks is 0
    std::string version;               // as the daemon reads it: up to a NUL, byte 95 counts as one
    std::span<const uint8_t> payload;  // image_size bytes from header_len on, as far as they exist
};

// Takes any file apart; payload points into it. Judges nothing.
[[nodiscard]] Image ParseImage(std::span<const uint8_t> file);

}  // namespace firmware
