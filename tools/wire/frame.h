// The MCU's side of the UART frame format: byte stuffing and FCS-16 as in RFC 1662, no opening
// flag. The simulator encodes and decodes with it; who listens to the line decodes with it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace wire {

inline constexpr uint8_t kFlagByte = 0x7E;
inline constexpr uint8_t kEscapeByte = 0x7D;
inline constexpr uint8_t kEscapeMask = 0x20;

// The whole frame: stuffed payload, stuffed FCS (low byte first), flag.
[[nodiscard]] std::vector<uint8_t> EncodeFrame(std::span<const uint8_t> payload);

// Collects bytes into frames. A frame longer than the limit, one with a bad FCS and one that is
// aborted (escape, then flag) are counted as bad and skipped up to their flag; empty frames are
// ignored.
class FrameReader {
  public:
    static constexpr size_t kLongestRequest = 256;  // more than any; payload and FCS

    explicit FrameReader(size_t max_bytes = kLongestRequest) : max_bytes_(max_bytes) {}

    // Takes one byte; returns the payload when the byte completed an intact frame.
    [[nodiscard]] std::optional<std::vector<uint8_t>> Push(uint8_t byte);

    // Forgets a frame in progress; the count of bad frames stays.
    void Clear();

    [[nodiscard]] uint64_t bad_frames() const { return bad_frames_; }

  private:
    const size_t max_bytes_;
    std::vector<uint8_t> bytes_;
    bool escaped_ = false;
    bool overlong_ = false;
    uint64_t bad_frames_ = 0;
};

}  // namespace wire
