// The UART's device as the firmware updater meets it, in two kinds: a plain file for what is
// written and answered, a terminal for what also arrives unasked and for line settings.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include "platform/unique_fd.h"

namespace shdtest {

// A plain file. What the daemon writes goes to the file's end, and a reply is put behind it, where
// the daemon's next read finds it.
class FakeUart {
  public:
    // Makes the device and answers every wait for it (Hooks::on_readable).
    FakeUart();

    // Each wait notes what was written before it as "uart BYTES" and takes the next reply: bytes
    // like "79", kSilence, or none, which is readable but has nothing to read.
    static constexpr char kSilence[] = "silence";
    std::deque<std::string> script;
    std::string unscripted = "79";

  private:
    int Answer(int fd);

    off_t answered_ = 0;  // file position behind the last reply
};

// A pseudo-terminal, seen from the MCU's end.
class TerminalUart {
  public:
    TerminalUart();

    // Returns when the bytes can be read at the daemon's end.
    void Send(std::string_view hex) const;

    // Everything that the daemon has written since the last call.
    [[nodiscard]] std::string Received() const;

    // Whether the line's settings strip the eighth bit, as the bootloader's do.
    [[nodiscard]] bool strips_bytes() const;

  private:
    UniqueFd master_;
    UniqueFd slave_;  // keeps the terminal's settings while the daemon has it closed
};

// Writes the image file of a payload that begins at header_len.
void WriteFirmwareImage(const std::string& version, const std::string& payload,
                        uint32_t header_len = 224);

}  // namespace shdtest
