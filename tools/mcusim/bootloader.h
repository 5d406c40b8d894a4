// The USART bootloader in the simulated MCU's system memory, the whole published protocol (ST
// AN3155, version 3.1). The board feeds it the bytes of the line and sends what it answers.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "tools/mcusim/flash.h"

namespace mcusim {

using TimePoint = std::chrono::nanoseconds;  // virtual time of the board

// Typical times of the STM32F411xE datasheet (DS10314) at 2.7 to 3.6 V, 32-bit parallelism. The
// mass erase works on all sectors together and so takes less than the sectors one by one.
struct BootloaderTimings {
    std::chrono::nanoseconds word_program = std::chrono::microseconds(16);
    std::chrono::nanoseconds erase_16k = std::chrono::milliseconds(250);
    std::chrono::nanoseconds erase_64k = std::chrono::milliseconds(550);
    std::chrono::nanoseconds erase_128k = std::chrono::milliseconds(1000);
    std::chrono::nanoseconds mass_erase = std::chrono::seconds(4);
    std::chrono::nanoseconds option_program = std::chrono::milliseconds(250);
    double scale = 1.0;  // multiplies every time above; 0 makes all of them instant
};

// A byte to send and the earliest time at which it may start on the line.
struct TimedByte {
    uint8_t byte;
    TimePoint earliest;
};

// Never looks at a clock and never blocks; used on one thread. Times passed in must not go back.
// Bytes that arrive while an erase or a program runs meet a receiver that nobody reads: the first
// is kept, the others are lost, as in the part's UART without a FIFO.
class Bootloader {
  public:
    static constexpr uint8_t kAck = 0x79;
    static constexpr uint8_t kNack = 0x1F;
    static constexpr uint8_t kVersion = 0x31;
    static constexpr uint16_t kProductId = 0x0431;

    // flash must outlive the bootloader, which starts as after a Reset().
    Bootloader(Flash& flash, BootloaderTimings timings);

    // The MCU has been reset into the bootloader: it waits for 0x7F. An operation in progress is
    // broken off where it is (call PowerCut first to have it end at a given moment).
    void Reset();

    // A byte has been received completely at the given time.
    void OnByte(uint8_t byte, TimePoint arrival);

    // When Poll will next have something to do; nullopt while it waits for a byte.
    [[nodiscard]] std::optional<TimePoint> NextDue() const;

    // Lets time pass until now and takes the bytes to send, in order; call it after OnByte and when
    // NextDue has come.
    [[nodiscard]] std::vector<TimedByte> Poll(TimePoint now);

    // The supply or the reset line went away at now: an erase or a program in progress is left as
    // far as it got, bytes not yet taken are lost. Nothing is answered until Reset().
    void PowerCut(TimePoint now);

    // The n-th Write Memory data block from now (1: the next one) is answered with NACK and not
    // programmed. Survives a reset; 0 takes it back.
    void NackBlock(int n);

    // From the n-th answer from now on (1: the next one; the handshake, each command, each address
    // and each block count) nothing is carried out or answered until the resets-th Reset() after
    // that. Armed, it survives a reset; 0 takes it back.
    void MuteAt(int n, int resets = 1);

    // Address of an acknowledged Go command, once: the board starts the application. Bytes are
    // ignored from there until Reset(). The Go command's ACK comes out of Poll as usual.
    [[nodiscard]] std::optional<uint32_t> TakeGo();

  private:
    Flash& flash_;
    const BootloaderTimings timings_;
};

}  // namespace mcusim
