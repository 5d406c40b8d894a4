// Examination of a firmware image as the daemon does it. Called by the image commands.
#include "tools/shdtool/files/image_check.h"

#include <fmt/format.h>
#include <sha2.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "tools/firmware/image.h"

namespace shdtool {
namespace {

using shd::mcu_head;

bool AllOf(std::span<const uint8_t> bytes, uint8_t value) {
    return std::all_of(bytes.begin(), bytes.end(), [value](uint8_t byte) { return byte == value; });
}

// In the daemon's order: the first one decides.
void FindRefusals(ImageReport& image) {
    const auto refuse = [&image](std::string reason) {
        image.refusals.push_back(std::move(reason));
    };
    if (image.magic != shd::kFirmwareMagic) {
        refuse(fmt::format("magic is 0x{:08x}, not 0x{:08x}", image.magic, shd::kFirmwareMagic));
    }
    if (image.version.find('.') == std::string::npos) {
        refuse("the version has no '.', so there is no board code behind it");
    } else if (image.board_code != shd::kBoardCode) {
        refuse(
            fmt::format("the board code (three characters behind the first '.') is \"{}\", "
                        "not \"{}\"",
                        Printable(image.board_code), shd::kBoardCode));
    }
    const uint64_t described = uint64_t{image.header_len} + image.image_size;
    if (image.file_size != described) {
        image.size_fault = fmt::format("the file has {} bytes, header_len + image_size is {}",
                                       image.file_size, described);
    }
}

// What the core loads at a reset has to lie in the part's memory.
void JudgeVectors(ImageReport& image) {
    const auto fault = [&image](std::string text) { image.faults.push_back(std::move(text)); };
    if (!image.vectors) return fault("the payload is too short for a vector table");
    const auto [stack, reset] = *image.vectors;
    const uint32_t stack_bytes = stack - firmware::kRamBase;
    if (stack_bytes == 0 || stack_bytes > firmware::kRamSizeBytes || stack % 4 != 0) {
        fault(fmt::format("the stack pointer 0x{:08x} is outside the RAM, 0x{:08x} to 0x{:08x}",
                          stack, firmware::kRamBase, firmware::kRamBase + firmware::kRamSizeBytes));
    }
    const uint32_t reset_at = reset - firmware::kFlashBase;
    if (reset_at >= firmware::kFlashSizeBytes) {
        fault(fmt::format("the reset vector 0x{:08x} is outside the flash, 0x{:08x} to 0x{:08x}",
                          reset, firmware::kFlashBase,
                          firmware::kFlashBase + firmware::kFlashSizeBytes));
    } else if (reset_at >= image.image_size) {
        fault(fmt::format("the reset vector 0x{:08x} is behind the payload", reset));
    } else if (reset % 2 == 0) {
        fault(fmt::format("the reset vector 0x{:08x} is even, so it is no Thumb code", reset));
    }
}

void JudgePayload(ImageReport& image, std::span<const uint8_t> payload) {
    const auto fault = [&image](const char* text) { image.faults.emplace_back(text); };
    if (image.file_size < sizeof(mcu_head)) return fault("the file is shorter than a header");
    if (payload.empty()) return fault("there is no payload");
    uint32_t first_word = 0;
    std::memcpy(&first_word, payload.data(), std::min(payload.size(), sizeof(first_word)));
    if (image.image_size > firmware::kFlashSizeBytes) {
        fault("the payload is larger than the part's 512 KiB of flash");
    }
    if (AllOf(payload, 0xFF) || AllOf(payload, 0)) return fault("the payload is blank");
    if (first_word == shd::kFirmwareMagic) {
        return fault("the payload begins with a header of its own: a header was put on an image");
    }
    JudgeVectors(image);
}

void Note(ImageReport& image, const mcu_head& header) {
    const auto note = [&image](const char* text) { image.notes.emplace_back(text); };
    if (header.version[firmware::kMaxVersionLength] != '\0') {
        note("byte 95 is not NUL; the daemon reads it as NUL");
    }
    if (!AllOf(header.reserved0, 0) || !AllOf(header.reserved1, 0)) {
        note("reserved header bytes are not 0; the daemon ignores them");
    }
    if (image.header_len != sizeof(mcu_head)) {
        note("header_len is not 224, so the payload does not follow the header directly");
    }
    if (!image.firmware_version.empty() && image.firmware_version != image.version) {
        note("the firmware reports another version than the header: every start would update");
    }
}

std::string Sha256(std::span<const uint8_t> bytes) {
    std::array<char, SHA256_DIGEST_STRING_LENGTH> digest{};
    return SHA256Data(bytes.data(), bytes.size(), digest.data());
}

}  // namespace

std::vector<std::string> ImageReport::wrong() const {
    std::vector<std::string> all = faults;
    all.insert(all.end(), refusals.begin(), refusals.end());
    if (!size_fault.empty()) all.push_back(size_fault);
    return all;
}

ImageReport ExamineImage(std::span<const uint8_t> file) {
    const firmware::Image parsed = firmware::ParseImage(file);
    const mcu_head& header = parsed.header;
    ImageReport image;
    image.file_size = file.size();
    image.sha256 = Sha256(file);
    image.magic = header.magic;
    image.header_len = header.header_len;
    image.image_size = header.image_size;
    image.version = parsed.version;
    const size_t dot = image.version.find('.');
    if (dot != std::string::npos) {
        image.board_code = image.version.substr(dot + 1, shd::kBoardCode.size());
    }
    image.firmware_version = firmware::PayloadVersion(parsed.payload).value_or("");
    image.vectors = firmware::ReadVectors(parsed.payload);
    JudgePayload(image, parsed.payload);
    FindRefusals(image);
    Note(image, header);
    return image;
}

std::string DaemonDecision(const ImageReport& image,
                           const std::optional<std::string>& mcu_version) {
    const std::string writes =
        image.size_fault.empty() ? "writes it" : "erases the MCU, and only then refuses the file";
    if (mcu_version && mcu_version->empty()) {
        return fmt::format("{}, whatever its header says: the MCU tells no version", writes);
    }
    if (!image.refusals.empty()) return "leaves the MCU as it is: " + image.refusals.front();
    if (!mcu_version) return fmt::format("{}, unless the MCU runs this version", writes);
    if (image.version == *mcu_version) return "leaves the MCU as it is: it runs this version";
    return fmt::format("{}: the MCU runs {}", writes, Printable(*mcu_version));
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
