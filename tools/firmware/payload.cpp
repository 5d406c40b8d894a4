// The MCU's firmware in flash: its vectors, and building and recognising a simulated one. Called by
// the image builder, the image checks and the simulated board.
#include "tools/firmware/payload.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <random>
#include <stdexcept>

#include "tools/firmware/image.h"

namespace firmware {
namespace {

// Vector table of the Cortex-M4 core: initial stack pointer, reset vector, 14 core exceptions.
constexpr uint32_t kStackTop = kRamBase + kRamSizeBytes;
constexpr size_t kVectorCount = 16;
constexpr uint32_t kCodeOffset = 0x200;
constexpr uint32_t kThumbBit = 1;

// Behind the vectors, little-endian.
struct Descriptor {
    std::array<char, 8> marker;  // @0
    uint32_t length;             // @8 bytes, of the whole firmware
    uint32_t crc;                // @12 CRC-32 of the firmware with this field 0
    std::array<char, kMaxVersionLength + 1> version;  // @16 NUL-terminated
};
static_assert(sizeof(Descriptor) == 80 && offsetof(Descriptor, version) == 16);
constexpr size_t kDescriptorOffset = kVectorCount * sizeof(uint32_t);
constexpr std::array<char, 8> kMarker = {'M', 'C', 'U', 'S', 'I', 'M', 'F', 'W'};

// CRC-32 of IEEE 802.3 (reflected, polynomial 0x04C11DB7).
constexpr std::array<uint32_t, 256> kCrcTable = [] {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < table.size(); ++i) {
        uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value & 1) != 0 ? value >> 1 ^ 0xEDB88320 : value >> 1;
        }
        table[i] = value;
    }
    return table;
}();

uint32_t UpdateCrc(uint32_t crc, std::span<const uint8_t> data) {
    for (const uint8_t byte : data) crc = crc >> 8 ^ kCrcTable[(crc ^ byte) & 0xFF];
    return crc;
}

uint32_t FirmwareCrc(std::span<const uint8_t> firmware) {
    constexpr size_t kCrcOffset = kDescriptorOffset + offsetof(Descriptor, crc);
    constexpr std::array<uint8_t, sizeof(Descriptor::crc)> kZero{};
    uint32_t crc = UpdateCrc(0xFFFFFFFF, firmware.first(kCrcOffset));
    crc = UpdateCrc(crc, kZero);
    return ~UpdateCrc(crc, firmware.subspan(kCrcOffset + kZero.size()));
}

uint32_t WordAt(std::span<const uint8_t> memory, size_t offset) {
    uint32_t word = 0;
    std::memcpy(&word, memory.subspan(offset, sizeof(word)).data(), sizeof(word));
    return word;
}

template <typename Record>
void Append(std::vector<uint8_t>& out, const Record& record) {
    const auto bytes = std::as_bytes(std::span(&record, 1));
    std::transform(bytes.begin(), bytes.end(), std::back_inserter(out),
                   [](std::byte b) { return std::to_integer<uint8_t>(b); });
}

}  // namespace

std::optional<Vectors> ReadVectors(std::span<const uint8_t> payload) {
    if (payload.size() < 2 * sizeof(uint32_t)) return std::nullopt;
    return Vectors{WordAt(payload, 0), WordAt(payload, sizeof(uint32_t))};
}

std::vector<uint8_t> BuildPayload(std::string_view version, size_t size, uint32_t seed) {
    CheckVersion(version);
    if (version.empty()) throw std::invalid_argument("version text is empty");
    if (size < kMinPayloadBytes || size > kFlashSizeBytes) {
        throw std::invalid_argument("firmware size must be 1024 to 524288 bytes");
    }
    std::vector<uint8_t> payload;
    payload.reserve(size);
    Append(payload, kStackTop);
    for (uint32_t vector = 1; vector < kVectorCount; ++vector) {
        Append(payload, (kFlashBase + kCodeOffset + vector * 16) | kThumbBit);
    }
    Descriptor descriptor{kMarker, static_cast<uint32_t>(size), 0, {}};
    version.copy(descriptor.version.data(), version.size());
    Append(payload, descriptor);

    std::mt19937 code(seed);
    while (payload.size() < size) payload.push_back(static_cast<uint8_t>(code()));

    const uint32_t crc = FirmwareCrc(payload);
    std::memcpy(payload.data() + kDescriptorOffset + offsetof(Descriptor, crc), &crc, sizeof(crc));
    return payload;
}

std::optional<std::string> PayloadVersion(std::span<const uint8_t> memory) {
    if (memory.size() < kMinPayloadBytes) return std::nullopt;
    Descriptor descriptor;
    std::memcpy(&descriptor, memory.data() + kDescriptorOffset, sizeof(descriptor));
    if (ReadVectors(memory)->stack_top != kStackTop || descriptor.marker != kMarker ||
        descriptor.length < kMinPayloadBytes || descriptor.length > memory.size() ||
        descriptor.version.back() != '\0') {
        return std::nullopt;
    }
    if (FirmwareCrc(memory.first(descriptor.length)) != descriptor.crc) return std::nullopt;
    return std::string(descriptor.version.data());
}

}  // namespace firmware
