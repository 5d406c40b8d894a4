// The MCU's firmware as it lies in flash: the vector table of any firmware, and the whole of one
// that the simulated MCU runs. The image builder, the image checks and the simulated board call it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/firmware/part.h"

namespace firmware {

inline constexpr size_t kMinPayloadBytes = 1024;  // of a simulated firmware

// The first words of a Cortex-M firmware, which the core loads at a reset.
struct Vectors {
    uint32_t stack_top;  // initial stack pointer
    uint32_t reset;      // address of the first instruction; bit 0 set: Thumb code
};

// nullopt when the payload is too short to hold them.
[[nodiscard]] std::optional<Vectors> ReadVectors(std::span<const uint8_t> payload);

// A firmware of exactly size bytes (kMinPayloadBytes to kFlashSizeBytes): Cortex-M vector table,
// descriptor with marker, length, CRC-32 over everything and version text, then code-like filling
// that depends on seed alone. Throws std::invalid_argument on a size out of range and on a version
// that is empty, longer than kMaxVersionLength or holds a NUL.
[[nodiscard]] std::vector<uint8_t> BuildPayload(std::string_view version, size_t size,
                                                uint32_t seed);

// Version text of a complete and undamaged simulated firmware at the start of memory (an image's
// payload or a whole flash); nullopt when there is none. Reads the whole firmware (about a
// millisecond): call it at a reset, not for every request.
[[nodiscard]] std::optional<std::string> PayloadVersion(std::span<const uint8_t> memory);

}  // namespace firmware
