// Cuts what was said on the line into messages: frames of the application, groups of bytes of the
// bootloader, levels of the pins, settings. Used by all that shows a recording or a live line.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/wire/recording.h"

namespace wire {

struct Message {
    enum class Kind : uint8_t {
        kFrame,       // intact; payload is its packet
        kBadFrame,    // ended by a flag, but damaged
        kFragment,    // bytes without an end: a reset or the record's end cut them off
        kBootloader,  // bytes for or from the bootloader, as they were written or handed over
        kPin,
        kSettings,
    };

    std::chrono::nanoseconds begin{0};  // when its first bytes were written or handed over
    std::chrono::nanoseconds at{0};     // when its last were
    int line = 0;                       // of the recording, of its last bytes; from 1
    Kind kind = Kind::kFrame;
    Direction direction = Direction::kHostToMcu;
    Bytes raw = {};      // as on the line, with the closing flag
    Bytes payload = {};  // of kFrame
    Pin pin = Pin::kBoot0;
    bool high = false;
    LineSettings settings = {};
};

// In words, without the time: "host request accelerometer active", "mcu  bootloader ACK",
// "---- reset 0". Damaged bytes are told as such.
[[nodiscard]] std::string Describe(const Message& message);

class MessageReader {
  public:
    // The messages that the step completes, none for most of a long frame's parts. Steps come in
    // the order of their times.
    [[nodiscard]] std::vector<Message> Push(const RecordedStep& step);

    // What has begun and has no end.
    [[nodiscard]] std::vector<Message> End();

    // Whether the bootloader is listening, as far as pins and settings told.
    [[nodiscard]] bool bootloader() const { return bootloader_; }

  private:
    void PushBytes(const RecordedStep& step, Direction direction, std::vector<Message>& messages);
    void CutOff(std::vector<Message>& messages);

    // By Direction: the frame in progress; nothing while its raw is empty.
    std::array<Message, 2> open_;
    bool boot0_ = false;
    bool reset_high_ = true;
    bool bootloader_ = false;
};

}  // namespace wire
