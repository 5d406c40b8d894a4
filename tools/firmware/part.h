// The memory map of the part that the watch's firmware runs on, an STM32F411xE (reference manual
// RM0383). The payload's builder, the simulated flash and whoever judges a payload look here.
#pragma once

#include <cstdint>

#include "protocol/image_header.h"

namespace firmware {

using shd::kFlashBase;
inline constexpr uint32_t kFlashSizeBytes = 512 * 1024;
inline constexpr uint32_t kRamBase = 0x20000000;
inline constexpr uint32_t kRamSizeBytes = 128 * 1024;

}  // namespace firmware
