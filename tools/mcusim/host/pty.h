// The pseudo terminal whose far end the daemon opens as its UART. The simulator reads and writes
// it; nothing here knows of time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/unique_fd.h"

namespace mcusim {

// Keeps the far end open as well, in raw mode at first: the line's settings persist while nobody
// else has it open, and the daemon's closing is no hang-up. A pty carries no parity bit. Throws
// std::system_error when there is no pty to be had.
class Pty {
  public:
    Pty();

    [[nodiscard]] const std::string& far_name() const { return far_name_; }
    [[nodiscard]] int fd() const { return near_.get(); }

    // What the daemon has written; empty when there is nothing more. When the daemon has discarded
    // its input (tcflush), what was pending for it goes too.
    [[nodiscard]] std::vector<uint8_t> Read();

    // Hands over bytes in order; what the far end has no room for stays pending.
    void Write(std::span<const uint8_t> bytes);
    [[nodiscard]] size_t pending() const { return pending_.size(); }

  private:
    void WritePending();

    UniqueFd near_;
    UniqueFd far_;
    std::string far_name_;
    std::vector<uint8_t> pending_;
};

}  // namespace mcusim
