// The image file mcu.bin. Called by the image builder, the image checks and the simulator.
#include "tools/firmware/image.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace firmware {

using shd::mcu_head;

void CheckVersion(std::string_view version) {
    if (version.size() > kMaxVersionLength) {
        throw std::invalid_argument("version text longer than 63 characters");
    }
    if (version.find('\0') != std::string_view::npos) {
        throw std::invalid_argument("version text holds a NUL character");
    }
}

std::vector<uint8_t> WrapImage(std::string_view version, std::span<const uint8_t> payload) {
    CheckVersion(version);
    mcu_head header{};
    header.magic = shd::kFirmwareMagic;
    header.header_len = sizeof(header);
    header.image_size = static_cast<uint32_t>(payload.size());
    version.copy(header.version, version.size());
    std::vector<uint8_t> image(sizeof(header) + payload.size());
    std::memcpy(image.data(), &header, sizeof(header));
    std::ranges::copy(payload, image.begin() + sizeof(header));
    return image;
}

Image ParseImage(std::span<const uint8_t> file) {
    Image image{};
    if (!file.empty()) {
        std::memcpy(&image.header, file.data(), std::min(file.size(), sizeof(image.header)));
    }
    image.version.assign(image.header.version, strnlen(image.header.version, kMaxVersionLength));
    if (image.header.header_len <= file.size()) {
        const auto rest = file.subspan(image.header.header_len);
        image.payload = rest.first(std::min<size_t>(rest.size(), image.header.image_size));
    }
    return image;
}

}  // namespace firmware
