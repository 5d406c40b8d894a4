// Blocks of a pcapng capture. Called by shdtool tap.
#include "tools/tap/pcapng.h"

#include <bit>
#include <string_view>

namespace tap {
namespace {

static_assert(std::endian::native == std::endian::little);

constexpr uint32_t kSectionHeader = 0x0A0D0D0A;
constexpr uint32_t kInterfaceDescription = 1;
constexpr uint32_t kEnhancedPacket = 6;
constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;

constexpr uint16_t kOptionEnd = 0;
constexpr uint16_t kOptionName = 2;            // of an interface
constexpr uint16_t kOptionTimeResolution = 9;  // of an interface
constexpr uint16_t kOptionFlags = 2;           // of a packet
constexpr uint32_t kInbound = 1;               // seen from the host
constexpr uint32_t kOutbound = 2;

template <typename T>
void Append(std::string& block, T value) {
    block.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void Pad(std::string& block) {
    block.append((4 - block.size() % 4) % 4, '\0');
}

void AppendOption(std::string& block, uint16_t code, std::string_view value) {
    Append(block, code);
    Append(block, static_cast<uint16_t>(value.size()));
    block += value;
    Pad(block);
}

// Both lengths of a block count the whole of it.
std::string Block(uint32_t type, const std::string& body) {
    const auto length = static_cast<uint32_t>(body.size() + 3 * sizeof(uint32_t));
    std::string block;
    Append(block, type);
    Append(block, length);
    block += body;
    Append(block, length);
    return block;
}

std::string Content(const wire::Message& message) {
    std::string content;
    Append(content, static_cast<uint8_t>(message.kind));
    Append(content, static_cast<uint8_t>(message.direction));
    switch (message.kind) {
        case wire::Message::Kind::kPin:
            Append(content, static_cast<uint8_t>(message.pin));
            Append(content, static_cast<uint8_t>(message.high));
            break;
        case wire::Message::Kind::kSettings:
            Append(content, message.settings.baud);
            Append(content, static_cast<uint8_t>(message.settings.even_parity));
            break;
        default:
            content.append(message.raw.begin(), message.raw.end());
    }
    return content;
}

}  // namespace

std::string CaptureBegin() {
    std::string section;
    Append(section, kByteOrderMagic);
    Append(section, uint16_t{1});  // version 1.0
    Append(section, uint16_t{0});
    Append(section, int64_t{-1});  // length of the section: not said
    std::string interface;
    Append(interface, kCaptureLinkType);
    Append(interface, uint16_t{0});
    Append(interface, uint32_t{0});  // packets of any length
    AppendOption(interface, kOptionName, "sensor hub line");
    AppendOption(interface, kOptionTimeResolution, "\x09");  // 10^-9 s
    AppendOption(interface, kOptionEnd, "");
    return Block(kSectionHeader, section) + Block(kInterfaceDescription, interface);
}

std::string CapturePacket(const wire::Message& message, std::chrono::nanoseconds wall) {
    constexpr int kWordBits = 32;
    const std::string content = Content(message);
    const auto time = static_cast<uint64_t>(wall.count());
    const auto length = static_cast<uint32_t>(content.size());
    std::string packet;
    Append(packet, uint32_t{0});  // the interface
    Append(packet, static_cast<uint32_t>(time >> kWordBits));
    Append(packet, static_cast<uint32_t>(time));
    Append(packet, length);
    Append(packet, length);
    packet += content;
    Pad(packet);
    std::string flags;
    Append(flags, message.direction == wire::Direction::kMcuToHost ? kInbound : kOutbound);
    AppendOption(packet, kOptionFlags, flags);
    AppendOption(packet, kOptionEnd, "");
    return Block(kEnhancedPacket, packet);
}

}  // namespace tap
