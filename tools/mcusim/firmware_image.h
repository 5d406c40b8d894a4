// The simulated MCU's firmware: a payload that the board can recognise in its flash, and the image
// file mcu.bin around it. Used by the board at each start and by the image builder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/mcusim/flash.h"

namespace mcusim {

inline constexpr size_t kMinFirmwareSizeBytes = 1024;
inline constexpr size_t kMaxVersionLength = 63;  // characters, without the terminator

// A firmware of exactly size bytes (kMinFirmwareSizeBytes to kFlashSizeBytes): Cortex-M vector
// table, descriptor with marker, length, CRC-32 over everything and version text, then code-like
// filling that depends on seed alone. Throws std::invalid_argument on a size out of range and on a
// version that is empty, longer than kMaxVersionLength or holds a NUL.
[[nodiscard]] std::vector<uint8_t> BuildFirmwarePayload(std::string_view version, size_t size,
                                                        uint32_t seed);

// Version text of a complete and undamaged firmware at the start of memory (an image's payload or
// a whole flash); nullopt when there is none.
[[nodiscard]] std::optional<std::string> FirmwareVersion(std::span<const uint8_t> memory);

// Version of the application that starts from this flash; nullopt when it is erased, half-written
// or damaged, so that the MCU stays silent after a normal reset. Reads the whole firmware (about a
// millisecond): call it at a reset, not for every request.
[[nodiscard]] std::optional<std::string> RunningVersion(const Flash& flash);

// The file /system/bin/mcu.bin: a 224-byte header and the payload. Throws std::invalid_argument on
// a version longer than kMaxVersionLength or with a NUL in it; whether the daemon accepts the text
// is not looked at.
[[nodiscard]] std::vector<uint8_t> WrapImage(std::string_view version,
                                             std::span<const uint8_t> payload);

}  // namespace mcusim
