// Messages from the steps of a line. Called by shdtool's tap, live and for recordings.
#include "tools/wire/message_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

#include "tools/wire/describe.h"
#include "tools/wire/frame.h"

namespace wire {
namespace {

// The longest frame that the hub takes, unstuffed: payload and FCS.
constexpr size_t kLongestFrame = 1499;
// Bytes without a flag that are more than noise between frames; stuffing can double a frame.
constexpr size_t kLongestRaw = 2 * kLongestFrame + 1;

// One-byte answers and the commands of the ROM bootloader, AN3155.
struct ByteName {
    uint8_t byte;
    std::string_view name;
};
constexpr ByteName kAnswers[] = {{0x79, "ACK"}, {0x1F, "NACK"}};
constexpr ByteName kCommands[] = {
    {0x00, "get"},
    {0x01, "get version"},
    {0x02, "get ID"},
    {0x11, "read memory"},
    {0x21, "go"},
    {0x31, "write memory"},
    {0x43, "erase"},
    {0x44, "extended erase"},
    {0x63, "write protect"},
    {0x73, "write unprotect"},
    {0x82, "readout protect"},
    {0x92, "readout unprotect"},
};

std::optional<std::string_view> NameOf(std::span<const ByteName> names, uint8_t byte) {
    const auto found = std::ranges::find(names, byte, &ByteName::byte);
    if (found == names.end()) return std::nullopt;
    return found->name;
}

uint8_t Xor(std::span<const uint8_t> bytes) {
    uint8_t sum = 0;
    for (const uint8_t byte : bytes) sum = static_cast<uint8_t>(sum ^ byte);
    return sum;
}

std::string DescribeForBootloader(std::span<const uint8_t> raw) {
    constexpr size_t kCommandBytes = 2, kEraseBytes = 3, kAddressBytes = 5;
    constexpr uint8_t kStart = 0x7F;
    if (raw.size() == 1 && raw[0] == kStart) return "start (7F)";
    if (raw.size() == kCommandBytes && (raw[0] ^ raw[1]) == 0xFF) {
        if (const auto name = NameOf(kCommands, raw[0])) return std::string(*name);
    }
    if (raw.size() == kEraseBytes && raw[0] == 0xFF && raw[1] == 0xFF && raw[2] == 0) {
        return "the whole flash";
    }
    if (raw.size() == kAddressBytes && Xor(raw) == 0) {
        return fmt::format("address {:#010x}", Read32(Bytes{raw[3], raw[2], raw[1], raw[0]}, 0));
    }
    // A count less one, the bytes, their checksum.
    if (raw.size() > 2 && raw.size() == raw[0] + 3U && Xor(raw) == 0) {
        return fmt::format("block of {} bytes", raw[0] + 1);
    }
    return DescribeBytes(raw);
}

std::string DescribeFromBootloader(std::span<const uint8_t> raw) {
    std::string text;
    for (const uint8_t byte : raw) {
        const auto name = NameOf(kAnswers, byte);
        if (!name) return DescribeBytes(raw);
        if (!text.empty()) text += ' ';
        text += *name;
    }
    return text;
}

}  // namespace

std::string Describe(const Message& message) {
    const bool from_host = message.direction == Direction::kHostToMcu;
    const std::string_view speaker = from_host ? "host" : "mcu ";
    switch (message.kind) {
        case Message::Kind::kFrame:
            return fmt::format("{} {}", speaker, DescribePacket(message.payload));
        case Message::Kind::kBadFrame:
            return fmt::format("{} damaged frame {}", speaker, DescribeBytes(message.raw));
        case Message::Kind::kFragment:
            return fmt::format("{} cut off {}", speaker, DescribeBytes(message.raw));
        case Message::Kind::kBootloader:
            return fmt::format("{} bootloader {}", speaker,
                               from_host ? DescribeForBootloader(message.raw)
                                         : DescribeFromBootloader(message.raw));
        case Message::Kind::kPin:
            return fmt::format("---- {} {}", NameOf(message.pin), message.high ? 1 : 0);
        case Message::Kind::kSettings:
            return fmt::format("---- line {} bit/s {}", message.settings.baud,
                               message.settings.even_parity ? "8E1" : "8N1");
    }
    return {};
}

void MessageReader::CutOff(std::vector<Message>& messages) {
    for (Message& open : open_) {
        if (open.raw.empty()) continue;
        open.kind = Message::Kind::kFragment;
        messages.push_back(std::exchange(open, {}));
    }
}

void MessageReader::PushBytes(const RecordedStep& step, Direction direction,
                              std::vector<Message>& messages) {
    if (bootloader_) {
        messages.push_back({.begin = step.at,
                            .at = step.at,
                            .line = step.line,
                            .kind = Message::Kind::kBootloader,
                            .direction = direction,
                            .raw = step.bytes});
        return;
    }
    Message& open = open_[static_cast<size_t>(direction)];
    for (const uint8_t byte : step.bytes) {
        if (open.raw.empty()) open = {.begin = step.at, .direction = direction};
        open.raw.push_back(byte);
        open.at = step.at;
        open.line = step.line;
        if (byte != kFlagByte) {
            if (open.raw.size() < kLongestRaw) continue;
            open.kind = Message::Kind::kFragment;
        } else if (open.raw.size() == 1) {
            open = {};  // a flag alone says nothing
            continue;
        } else {
            FrameReader reader(kLongestFrame);
            std::optional<Bytes> payload;
            for (const uint8_t part : open.raw) payload = reader.Push(part);
            open.kind = payload ? Message::Kind::kFrame : Message::Kind::kBadFrame;
            if (payload) open.payload = std::move(*payload);
        }
        messages.push_back(std::exchange(open, {}));
    }
}

std::vector<Message> MessageReader::Push(const RecordedStep& step) {
    std::vector<Message> messages;
    switch (step.kind) {
        case StepKind::kHostBytes:
            PushBytes(step, Direction::kHostToMcu, messages);
            break;
        case StepKind::kMcuBytes:
            PushBytes(step, Direction::kMcuToHost, messages);
            break;
        case StepKind::kPin:
            if (step.pin == Pin::kBoot0) {
                boot0_ = step.high;
            } else if (!std::exchange(reset_high_, step.high) && step.high) {
                bootloader_ = boot0_;
            } else if (!step.high) {
                CutOff(messages);
            }
            messages.push_back({.begin = step.at,
                                .at = step.at,
                                .line = step.line,
                                .kind = Message::Kind::kPin,
                                .pin = step.pin,
                                .high = step.high});
            break;
        case StepKind::kSettings:
            // The bootloader speaks with parity, the application without; this tells them apart
            // where the pins cannot be seen.
            CutOff(messages);
            bootloader_ = step.settings.even_parity;
            messages.push_back({.begin = step.at,
                                .at = step.at,
                                .line = step.line,
                                .kind = Message::Kind::kSettings,
                                .settings = step.settings});
            break;
        case StepKind::kClocks:
        case StepKind::kGate:
            break;
    }
    return messages;
}

std::vector<Message> MessageReader::End() {
    std::vector<Message> messages;
    CutOff(messages);
    return messages;
}

}  // namespace wire
