// The wire between host and MCU in virtual time: when each byte that one end wrote reaches the
// other. Pure bookkeeping; the event loop moves the bytes between it and the pty.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <vector>

#include "tools/mcusim/line/sim_time.h"

namespace mcusim {

// Bits on the wire per byte: start, eight data bits, stop; the bootloader adds a parity bit.
inline constexpr int kBitsPerByte8N1 = 10;
inline constexpr int kBitsPerByte8E1 = 11;

struct ArrivedByte {
    uint8_t byte;
    TimePoint arrival;  // when its last bit was in
};

// Bytes that the host's driver hands over together: a whole frame, or a part of a long one.
struct Burst {
    std::vector<uint8_t> bytes;
    TimePoint byte_time;
    TimePoint due;  // when the last byte's last bit was in
};

class SerialLine {
  public:
    // What a UART driver collects before it passes bytes on while the line stays busy.
    static constexpr size_t kBurstBytes = 128;

    // baud 0: bytes take no time.
    explicit SerialLine(uint32_t baud) : baud_(baud) {}

    // Host to MCU. The bytes follow each other at the line's speed, beginning at the time given
    // or when the previous byte has ended.
    void HostWrote(TimePoint at, std::span<const uint8_t> bytes, int bits_per_byte);
    // The next byte that has arrived by now, in order.
    [[nodiscard]] std::optional<ArrivedByte> TakeArrived(TimePoint now);
    [[nodiscard]] size_t input_bytes() const { return input_.size(); }
    void DropInput() { input_.clear(); }
    // The byte just taken, and all behind it, arrive that much later.
    void DelayInput(const ArrivedByte& taken, TimePoint delay);

    // MCU to host. The bytes begin at the time given or when the previous byte has ended.
    void Send(TimePoint earliest, std::span<const uint8_t> bytes, int bits_per_byte);
    // The next burst that has arrived by now, in order.
    [[nodiscard]] std::optional<Burst> TakeDue(TimePoint now);
    // The rest of the burst just taken, and all behind it, arrive that much later.
    void DelayOutput(Burst rest, TimePoint delay);
    // The MCU stops sending at this moment, in the middle of a byte if need be.
    void CutOutput(TimePoint now);
    // Bytes accepted by Send that will not have left by then.
    [[nodiscard]] size_t BacklogBytes(TimePoint at) const;

    // When TakeArrived or TakeDue next has something to do.
    [[nodiscard]] std::optional<TimePoint> NextDue() const;

    [[nodiscard]] uint64_t bytes_in() const { return bytes_in_; }
    [[nodiscard]] uint64_t bytes_out() const { return bytes_out_; }

  private:
    [[nodiscard]] TimePoint ByteTime(int bits_per_byte) const;

    const uint32_t baud_;
    std::deque<ArrivedByte> input_;
    TimePoint input_end_{0};
    std::deque<Burst> output_;
    TimePoint output_end_{0};
    uint64_t bytes_in_ = 0;
    uint64_t bytes_out_ = 0;
};

}  // namespace mcusim
