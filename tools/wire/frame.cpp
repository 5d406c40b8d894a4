// The MCU's frame codec. The FCS runs bit by bit: a microcontroller's loop without a table.
#include "tools/wire/frame.h"

#include <utility>

namespace wire {
namespace {

constexpr uint16_t kFcsPolynomial = 0x8408;
constexpr uint16_t kFcsInitial = 0xFFFF;
constexpr size_t kFcsBytes = 2;

uint16_t Fcs(std::span<const uint8_t> bytes) {
    unsigned fcs = kFcsInitial;
    for (const uint8_t byte : bytes) {
        fcs ^= byte;
        for (int bit = 0; bit < 8; ++bit) {
            fcs = (fcs & 1U) != 0 ? (fcs >> 1) ^ kFcsPolynomial : fcs >> 1;
        }
    }
    return static_cast<uint16_t>(~fcs & 0xFFFFU);
}

void AppendStuffed(std::vector<uint8_t>& frame, uint8_t byte) {
    if (byte == kFlagByte || byte == kEscapeByte) {
        frame.push_back(kEscapeByte);
        byte = static_cast<uint8_t>(byte ^ kEscapeMask);
    }
    frame.push_back(byte);
}

}  // namespace

std::vector<uint8_t> EncodeFrame(std::span<const uint8_t> payload) {
    std::vector<uint8_t> frame;
    frame.reserve(payload.size() + payload.size() / 16 + 8);
    for (const uint8_t byte : payload) AppendStuffed(frame, byte);
    const uint16_t fcs = Fcs(payload);
    AppendStuffed(frame, static_cast<uint8_t>(fcs & 0xFF));
    AppendStuffed(frame, static_cast<uint8_t>(fcs >> 8));
    frame.push_back(kFlagByte);
    return frame;
}

std::optional<std::vector<uint8_t>> FrameReader::Push(uint8_t byte) {
    if (byte != kFlagByte) {
        if (byte == kEscapeByte && !escaped_) {
            escaped_ = true;
            return std::nullopt;
        }
        if (bytes_.size() == max_bytes_) {
            overlong_ = true;
        } else {
            bytes_.push_back(escaped_ ? static_cast<uint8_t>(byte ^ kEscapeMask) : byte);
        }
        escaped_ = false;
        return std::nullopt;
    }

    std::vector<uint8_t> frame = std::move(bytes_);
    const bool damaged = escaped_ || overlong_;
    Clear();
    if (frame.empty() && !damaged) return std::nullopt;
    if (damaged || frame.size() < kFcsBytes) {
        ++bad_frames_;
        return std::nullopt;
    }
    const size_t length = frame.size() - kFcsBytes;
    const unsigned received = frame[length] | static_cast<unsigned>(frame[length + 1]) << 8;
    if (received != Fcs(std::span(frame).first(length))) {
        ++bad_frames_;
        return std::nullopt;
    }
    frame.resize(length);
    return frame;
}

void FrameReader::Clear() {
    bytes_.clear();
    escaped_ = false;
    overlong_ = false;
}

}  // namespace wire
