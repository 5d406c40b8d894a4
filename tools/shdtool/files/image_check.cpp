// Examination of a firmware image as the daemon does it. Called by the image commands.
#include "tools/shdtool/files/image_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "tools/firmware/image.h"
#include "tools/firmware/payload.h"

namespace shdtool {
namespace {

using shd::mcu_head;

constexpr std::string_view kBoardCode = "900";

bool AllZero(std::span<const uint8_t> bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
}

void Judge(ImageReport& image) {
    const auto refuse = [&image](std::string reason) {
        image.refusals.push_back(std::move(reason));
    };
    if (image.magic != shd::kFirmwareMagic) {
        refuse(fmt::format("magic is 0x{:08x}, not 0x{:08x}", image.magic, shd::kFirmwareMagic));
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

void Note(ImageReport& image, const mcu_head& header) {
    const auto note = [&image](const char* text) { image.notes.emplace_back(text); };
    if (header.version[firmware::kMaxVersionLength] != '\0') {
        note("byte 95 is not NUL; the daemon reads it as NUL");
    }
    if (!AllZero(header.reserved0) || !AllZero(header.reserved1)) {
        note("reserved header bytes are not 0; the daemon ignores them");
    }
    if (image.header_len != sizeof(mcu_head)) {
        note("header_len is not 224, so the payload does not follow the header directly");
    }
    if (image.image_size == 0) {
        note("there is no payload; an update would leave the MCU without an application");
    }
    if (image.image_size > firmware::kFlashSizeBytes) {
        note("the payload does not fit the simulated MCU's 512 KiB of flash");
    }
    if (!image.firmware_version.empty() && image.firmware_version != image.version) {
        note("the firmware reports another version than the header: every start would update");
    }
}

}  // namespace

ImageReport ExamineImage(std::span<const uint8_t> file) {
    const firmware::Image parsed = firmware::ParseImage(file);
    const mcu_head& header = parsed.header;
    ImageReport image;
    image.file_size = file.size();
    image.magic = header.magic;
    image.header_len = header.header_len;
    image.image_size = header.image_size;
    image.version = parsed.version;
    const size_t dot = image.version.find('.');
    if (dot != std::string::npos) image.board_code = image.version.substr(dot + 1, 3);
    image.firmware_version = firmware::PayloadVersion(parsed.payload).value_or("");
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
