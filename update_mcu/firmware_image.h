// The firmware image file /system/bin/mcu.bin and writing it into the MCU's flash.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>

static_assert(std::endian::native == std::endian::little,
              "the header is used as it lies in memory");

inline constexpr uint32_t kFirmwareMagic = 0xFFAAAAFF;
inline constexpr uint32_t kFlashBase = 0x08000000;

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

// Reads the image's header; a shorter file leaves the rest 0, and the version is terminated in any
// case. Returns 0, or -1 without a destination or when the file cannot be opened.
[[nodiscard]] int get_mcu_head(mcu_head* head);

// Writes one block of 1 to 256 bytes to a flash address. Blocks for three acknowledgements.
// Returns 0, or -1 as soon as one is missing.
[[nodiscard]] int write_memory_cmd(std::span<const uint8_t> data, uint32_t address);

// Writes the whole payload into the erased flash, in order of addresses. The update port must be
// open and past its handshake. Returns 0, or -1 at the first failure; what has been written stays.
[[nodiscard]] int mcu_image_update();
