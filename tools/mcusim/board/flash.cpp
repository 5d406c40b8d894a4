// The flash memory of the simulated STM32F411xE, file-backed. Called by the simulated bootloader
// and by the board.
#include "tools/mcusim/board/flash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "tools/firmware/payload.h"

namespace mcusim {
namespace {

constexpr uint8_t kErased = 0xFF;
constexpr size_t kFileSizeBytes = kFlashSizeBytes + kOptionBytesSize;

// Offsets within the option bytes (RM0383, description of the option bytes).
constexpr size_t kReadProtection = 1;
constexpr size_t kWriteProtection = 8;  // one bit per sector, 0 protects
constexpr uint8_t kReadProtectionOff = 0xAA;
constexpr uint8_t kReadProtectionLevel1 = 0x55;

constexpr std::array<uint8_t, kOptionBytesSize> kDeliveredOptions = {
    0xEF, kReadProtectionOff,
    0xFF, 0xFF,
    0xFF, 0xFF,
    0xFF, 0xFF,
    0xFF, 0x7F,
    0xFF, 0xFF,
    0xFF, 0xFF,
    0xFF, 0xFF,
};

[[noreturn]] void ThrowErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

size_t OffsetOf(uint32_t address, size_t length) {
    if (address < kFlashBase || address - kFlashBase > kFlashSizeBytes ||
        length > kFlashSizeBytes - (address - kFlashBase)) {
        throw std::out_of_range("address outside the flash");
    }
    return address - kFlashBase;
}

size_t SectorAt(size_t offset) {
    const auto next = std::find_if(
        kFlashSectors.begin(), kFlashSectors.end(),
        [offset](const FlashSector& sector) { return sector.address - kFlashBase > offset; });
    return static_cast<size_t>(next - kFlashSectors.begin()) - 1;
}

std::vector<uint8_t> ReadFile(int fd, const std::string& path) {
    struct stat status {};
    if (fstat(fd, &status) != 0) ThrowErrno("cannot examine the flash file " + path);
    if (status.st_size > static_cast<off_t>(kFileSizeBytes)) {
        errno = EFBIG;
        ThrowErrno(path + " is not a flash file (at most 512 KiB and 16 option bytes)");
    }
    std::vector<uint8_t> data(static_cast<size_t>(status.st_size));
    size_t done = 0;
    while (done < data.size()) {
        const ssize_t count =
            pread(fd, data.data() + done, data.size() - done, static_cast<off_t>(done));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) ThrowErrno("cannot read the flash file " + path);
        if (count == 0) break;
        done += static_cast<size_t>(count);
    }
    data.resize(done);
    return data;
}

}  // namespace

Flash::Flash(const std::string& path)
    : path_(path),
      fd_(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666)),
      contents_(kFlashSizeBytes, kErased),
      options_(kDeliveredOptions) {
    if (!fd_.valid()) ThrowErrno("cannot open the flash file " + path_);
    const std::vector<uint8_t> file = ReadFile(fd_.get(), path_);
    const size_t in_flash = std::min<size_t>(file.size(), kFlashSizeBytes);
    std::copy_n(file.begin(), in_flash, contents_.begin());
    std::copy(file.begin() + static_cast<std::ptrdiff_t>(in_flash), file.end(), options_.begin());
    if (file.size() < kFileSizeBytes) {
        Store(in_flash, std::span(contents_).subspan(in_flash));
        Store(kFlashSizeBytes, options_);
    }
}

void Flash::Store(size_t offset, std::span<const uint8_t> data) {
    while (!data.empty()) {
        const ssize_t count =
            pwrite(fd_.get(), data.data(), data.size(), static_cast<off_t>(offset));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) ThrowErrno("cannot write the flash file " + path_);
        offset += static_cast<size_t>(count);
        data = data.subspan(static_cast<size_t>(count));
    }
}

void Flash::Read(uint32_t address, std::span<uint8_t> out) const {
    std::copy_n(contents_.data() + OffsetOf(address, out.size()), out.size(), out.begin());
}

void Flash::Program(uint32_t address, std::span<const uint8_t> data) {
    const size_t offset = OffsetOf(address, data.size());
    const unsigned locked = WriteProtectedSectors();
    for (size_t i = 0; i < data.size(); ++i) {
        if ((locked >> SectorAt(offset + i) & 1U) == 0) contents_[offset + i] &= data[i];
    }
    Store(offset, std::span(contents_).subspan(offset, data.size()));
}

void Flash::EraseSector(size_t index, uint32_t length) {
    const FlashSector& sector = kFlashSectors.at(index);
    if ((WriteProtectedSectors() >> index & 1) != 0) return;
    const auto cells =
        std::span(contents_).subspan(sector.address - kFlashBase, std::min(length, sector.size));
    std::fill(cells.begin(), cells.end(), kErased);
    Store(sector.address - kFlashBase, cells);
}

void Flash::EraseAll(uint32_t length) {
    const auto cells = std::span(contents_).first(std::min(length, kFlashSizeBytes));
    std::fill(cells.begin(), cells.end(), kErased);
    Store(0, cells);
}

void Flash::FlipBit(uint32_t address, unsigned bit) {
    const size_t offset = OffsetOf(address, 1);
    if (bit > 7) throw std::out_of_range("a byte has the bits 0 to 7");
    contents_[offset] = static_cast<uint8_t>(contents_[offset] ^ (1U << bit));
    Store(offset, std::span(contents_).subspan(offset, 1));
}

void Flash::SetOptionBytes(const std::array<uint8_t, kOptionBytesSize>& bytes) {
    options_ = bytes;
    Store(kFlashSizeBytes, options_);
}

bool Flash::ReadProtected() const {
    return options_[kReadProtection] != kReadProtectionOff;
}

void Flash::SetReadProtected(bool on) {
    auto bytes = options_;
    bytes[kReadProtection] = on ? kReadProtectionLevel1 : kReadProtectionOff;
    SetOptionBytes(bytes);
}

uint8_t Flash::WriteProtectedSectors() const {
    return static_cast<uint8_t>(~options_[kWriteProtection]);
}

void Flash::SetWriteProtectedSectors(uint8_t sectors) {
    auto bytes = options_;
    bytes[kWriteProtection] = static_cast<uint8_t>(~sectors);
    SetOptionBytes(bytes);
}

std::optional<std::string> RunningVersion(const Flash& flash) {
    return firmware::PayloadVersion(flash.contents());
}

}  // namespace mcusim
