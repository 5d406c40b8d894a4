// Examination of a firmware image as the daemon does it. Called by the image commands.
#include "tools/shdtool/image_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

#include "tools/mcusim/firmware_image.h"

namespace shdtool {
namespace {

// Layout of the header, little-endian: magic @0, header_len @4, image_size @8, version @32.
constexpr size_t kHeaderSize = 224;
constexpr size_t kReservedOffset = 12;
constexpr size_t kVersionOffset = 32;
constexpr size_t kLastVersionByte = 95;
constexpr uint32_t kMagic = 0xFFAAAAFF;
constexpr std::string_view kBoardCode = "900";

using Header = std::array<uint8_t, kHeaderSize>;

uint32_t WordAt(const Header& header, size_t offset) {
    uint32_t value = 0;
    for (size_t i = sizeof(value); i-- > 0;) value = value << 8 | header.at(offset + i);
    return value;
}

bool AllZero(std::span<const uint8_t> bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
}

void Judge(ImageReport& image) {
    const auto refuse = [&image](std::string reason) {
        image.refusals.push_back(std::move(reason));
    };
    if (image.magic != kMagic) {
        refuse(fmt::format("magic is 0x{:08x}, not 0x{:08x}", image.magic, kMagic));
    }
    if (image.version.find('.') == std::string::npos) {
        refuse("the version has no '.', so there is no board code behind it");
    } else if (image.board_code != kBoardCode) {
        refuse(
            fmt::format("the board code (three characters behind the first '.') is \"{}\", "
                        "not \"{}\"",
                        Printable(image.board_code), kBoardCode));
    }
    const uint64_t described = uint64_t{image.header_len} + image.image_size;
    if (image.file_size != described) {
        refuse(
            fmt::format("the file has {} bytes, header_len + image_size is {}; the daemon "
                        "notices only when it has erased the MCU's flash",
                        image.file_size, described));
    }
}

void Note(ImageReport& image, const Header& header) {
    const auto note = [&image](const char* text) { image.notes.emplace_back(text); };
    const auto bytes = std::span(header);
    if (header[kLastVersionByte] != 0) note("byte 95 is not NUL; the daemon reads it as NUL");
    if (!AllZero(bytes.subspan(kReservedOffset, kVersionOffset - kReservedOffset)) ||
        !AllZero(bytes.subspan(kLastVersionByte + 1))) {
        note("reserved header bytes are not 0; the daemon ignores them");
    }
    if (image.header_len != kHeaderSize) {
        note("header_len is not 224, so the payload does not follow the header directly");
    }
    if (image.image_size == 0) {
        note("there is no payload; an update would leave the MCU without an application");
    }
    if (image.image_size > mcusim::kFlashSizeBytes) {
        note("the payload does not fit the simulated MCU's 512 KiB of flash");
    }
    if (!image.firmware_version.empty() && image.firmware_version != image.version) {
        note("the firmware reports another version than the header: every start would update");
    }
}

}  // namespace

ImageReport ExamineImage(std::span<const uint8_t> file) {
    Header header{};
    std::copy_n(file.begin(), std::min(file.size(), kHeaderSize), header.begin());
    ImageReport image;
    image.file_size = file.size();
    image.magic = WordAt(header, 0);
    image.header_len = WordAt(header, 4);
    image.image_size = WordAt(header, 8);
    const auto text = header.begin() + kVersionOffset;
    image.version.assign(text, std::find(text, header.begin() + kLastVersionByte, 0));
    const size_t dot = image.version.find('.');
    if (dot != std::string::npos) image.board_code = image.version.substr(dot + 1, 3);
    if (image.header_len <= file.size()) {
        const auto payload = file.subspan(image.header_len);
        image.firmware_version = mcusim::FirmwareVersion(payload).value_or("");
    }
    Judge(image);
    Note(image, header);
    return image;
}

std::string Printable(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (c >= ' ' && c <= '~' && c != '\\') {
            out += c;
        } else {
            out += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
        }
    }
    return out;
}

}  // namespace shdtool
