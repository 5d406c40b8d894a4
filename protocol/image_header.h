// The header of the MCU's firmware image /system/bin/mcu.bin. The daemon's updater reads it;
// whoever builds or examines images includes it.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace shd {

static_assert(std::endian::native == std::endian::little,
              "the header is used as it lies in memory");

inline constexpr uint32_t kFirmwareMagic = 0xFFAAAAFF;
// What the three characters behind the first '.' of the version must be.
inline constexpr std::string_view kBoardCode = "900";

inline constexpr uint32_t kFlashBase = 0x08000000;  // of the MCU, for Cortex-M boot from flash

// First bytes of the image file, little-endian. The file is header_len + image_size bytes long.
struct mcu_head {
    uint32_t magic;          // @0 kFirmwareMagic
    uint32_t header_len;     // @4 bytes: file offset of the payload
    uint32_t image_size;     // @8 bytes of the payload, written from kFlashBase on
    uint8_t reserved0[20];   // @12 not interpreted
    char version[64];        // @32 text, at most 63 characters
    uint8_t reserved1[128];  // @96 not interpreted
};
static_assert(sizeof(mcu_head) == 224 && offsetof(mcu_head, version) == 32 &&
              offsetof(mcu_head, reserved1) == 96);

}  // namespace shd
