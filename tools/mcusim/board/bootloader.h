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

#include "tools/mcusim/board/flash.h"
#include "tools/mcusim/line/sim_time.h"

namespace mcusim {

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
    // that. Armed, it survives a reset; 0 disarms it, but ends no silence that has begun.
    void MuteAt(int n, int resets = 1);

    // Address of an acknowledged Go command, once: the board starts the application. Bytes are
    // ignored from there until Reset(). The Go command's ACK comes out of Poll as usual.
    [[nodiscard]] std::optional<uint32_t> TakeGo();

    // Blocks of Write Memory that have been programmed into the flash, over all resets.
    [[nodiscard]] uint64_t blocks_written() const { return blocks_written_; }

  private:
    using Handler = void (Bootloader::*)();
    using Extent = size_t (*)(std::span<const uint8_t> head);

    struct Command {
        uint8_t code;
        bool when_read_protected;
        Handler run;
    };
    static const std::array<Command, 12> kCommands;

    // A stretch of an erase or a program. apply(1) completes it, apply(f) with f in [0, 1) leaves
    // it as far as it got when the supply went away.
    struct Step {
        std::chrono::nanoseconds duration;
        std::function<void(double)> apply;
    };
    struct Operation {
        std::deque<Step> steps;
        bool reset_after;  // the part resets itself after the final ACK
        TimePoint step_end;
    };

    void Restart();
    void Advance(TimePoint now);
    void Accept(uint8_t byte, TimePoint arrival);
    void Expect(Handler handler, size_t head, Extent extent = nullptr);
    void Send(std::span<const uint8_t> bytes);
    void Ack();
    void Nack();
    void AckAndExpect(Handler handler, size_t head, Extent extent = nullptr);
    void Begin(std::deque<Step> steps, bool reset_after = false);
    void EndStep();

    // Run on a complete transmission, which is in block_.
    void OnHandshake();
    void OnCommand();
    void Get();
    void GetVersion();
    void GetId();
    void ReadMemory();
    void OnReadAddress();
    void OnReadLength();
    void Go();
    void OnGoAddress();
    void WriteMemory();
    void OnWriteAddress();
    void OnWriteData();
    void Erase();
    void OnErasePages();
    void ExtendedErase();
    void OnExtendedErasePages();
    void WriteProtect();
    void OnProtectSectors();
    void WriteUnprotect();
    void ReadoutProtect();
    void ReadoutUnprotect();

    [[nodiscard]] std::optional<uint32_t> AddressInBlock() const;
    void ProgramBlock(std::span<const uint8_t> data);
    void EraseSectors(const std::vector<size_t>& sectors);
    void MassErase();
    [[nodiscard]] std::deque<Step> EraseAllSteps();
    [[nodiscard]] Step OptionStep(std::function<void()> change);

    Flash& flash_;
    const BootloaderTimings timings_;
    std::vector<uint8_t> ram_;

    TimePoint now_{0};            // of the byte or the step that is being handled
    std::vector<uint8_t> block_;  // what has arrived of the current transmission
    size_t wanted_ = 0;           // bytes until extent_ can tell more, or the whole length
    Extent extent_ = nullptr;
    Handler handler_ = nullptr;
    uint32_t address_ = 0;  // acknowledged for the block that follows
    std::optional<Operation> operation_;
    std::optional<uint8_t> unread_;  // the UART's data register during an operation
    std::vector<TimedByte> out_;

    bool stopped_ = false;  // muted, left by Go or without supply
    std::optional<uint32_t> go_;
    int nack_in_ = 0;        // data blocks, 0: not armed
    int mute_in_ = 0;        // answers, 0: not armed
    int mute_resets_ = 1;    // for the silence that mute_in_ will begin
    int silent_resets_ = 0;  // until the present silence ends
    uint64_t blocks_written_ = 0;
};

}  // namespace mcusim
