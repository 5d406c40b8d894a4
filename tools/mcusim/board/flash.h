// The flash memory of the simulated STM32F411xE with its option bytes, kept in a file. The
// simulated board owns one; the bootloader programs it and the application's start-up reads it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/unique_fd.h"
#include "tools/firmware/part.h"

namespace mcusim {

using firmware::kFlashBase;
using firmware::kFlashSizeBytes;
inline constexpr uint32_t kOptionBytesBase = 0x1FFFC000;
inline constexpr size_t kOptionBytesSize = 16;

struct FlashSector {
    uint32_t address;
    uint32_t size;  // bytes
};

// The sectors of the part's reference manual (RM0383): four of 16 KiB, one of 64, three of 128.
inline constexpr std::array<FlashSector, 8> kFlashSectors = {{
    {0x08000000, 16 * 1024},
    {0x08004000, 16 * 1024},
    {0x08008000, 16 * 1024},
    {0x0800C000, 16 * 1024},
    {0x08010000, 64 * 1024},
    {0x08020000, 128 * 1024},
    {0x08040000, 128 * 1024},
    {0x08060000, 128 * 1024},
}};

// Used on one thread. Every change is in the file when the call returns, so the contents survive
// the end of the process at any moment. Addresses are the MCU's; a range that leaves the flash
// throws std::out_of_range, a failing file operation std::system_error naming the file.
class Flash {
  public:
    // Opens the file, creating a blank one when there is none. The file holds the 512 KiB from
    // kFlashBase on and then the 16 option bytes; what a shorter file lacks counts as erased
    // (option bytes: as delivered, unprotected), so a plain 512 KiB dump can be used as it is.
    explicit Flash(const std::string& path);

    // Takes bytes out of the flash. Never blocks.
    void Read(uint32_t address, std::span<uint8_t> out) const;
    [[nodiscard]] std::span<const uint8_t> contents() const { return contents_; }

    // Programs like the real cells: bits only go from 1 to 0, so a cell that was not erased ends
    // up as old AND new. Cells of write-protected sectors stay as they are.
    void Program(uint32_t address, std::span<const uint8_t> data);

    // Sets the first length bytes of a sector to 0xFF; less than its size leaves it as an
    // interrupted erase does. A write-protected sector stays as it is.
    void EraseSector(size_t index, uint32_t length);
    void EraseSector(size_t index) { EraseSector(index, kFlashSectors.at(index).size); }

    // Sets the flash to 0xFF, write-protected sectors included, or its first length bytes as an
    // interrupted mass erase leaves it; the option bytes stay.
    void EraseAll(uint32_t length = kFlashSizeBytes);

    // Inverts one bit (0 to 7) in either direction, as a decaying cell does.
    void FlipBit(uint32_t address, unsigned bit);

    // The option bytes as they stand from kOptionBytesBase on.
    [[nodiscard]] const std::array<uint8_t, kOptionBytesSize>& option_bytes() const {
        return options_;
    }
    void SetOptionBytes(const std::array<uint8_t, kOptionBytesSize>& bytes);

    // Readout protection at any level above 0. The application runs all the same.
    [[nodiscard]] bool ReadProtected() const;
    void SetReadProtected(bool on);

    // Write protection, one bit per sector (bit 0: sector 0).
    [[nodiscard]] uint8_t WriteProtectedSectors() const;
    void SetWriteProtectedSectors(uint8_t sectors);

  private:
    void Store(size_t offset, std::span<const uint8_t> data);

    const std::string path_;
    UniqueFd fd_;
    std::vector<uint8_t> contents_;
    std::array<uint8_t, kOptionBytesSize> options_;
};

// Version of the application that starts from this flash; nullopt when it is erased, half-written
// or damaged, so that the MCU stays silent after a normal reset. Reads the whole firmware (about a
// millisecond): call it at a reset, not for every request.
[[nodiscard]] std::optional<std::string> RunningVersion(const Flash& flash);

}  // namespace mcusim
