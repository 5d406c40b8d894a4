// The observers behind --trace and --record. The simulator makes them when they are asked for.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "tools/mcusim/board/observer.h"

namespace mcusim {

// A text file, written line by line; "-" is standard error. Throws std::runtime_error when it
// cannot be opened. When it cannot be written later, as on a full disk, the machine must not stop:
// the output ends there, and standard error says so.
class TextOutput {
  public:
    explicit TextOutput(const std::string& path);
    // line with its line end.
    void Write(const std::string& line);

  private:
    struct Closer {
        void operator()(std::FILE* file) const {
            if (file != stderr) (void)std::fclose(file);
        }
    };
    const std::string path_;
    std::unique_ptr<std::FILE, Closer> file_;  // nothing: the output has ended
};

// Both begin with what the wall clock and the boot clock show, and repeat it every minute.
//
// One line per packet in words, per group of the bootloader's bytes, and per change of the board:
// time in seconds, who speaks, what.
class Trace : public Observer {
  public:
    explicit Trace(const std::string& path) : output_(path) {}
    void OnBytes(TimePoint at, Direction direction, std::span<const uint8_t> bytes,
                 bool bootloader) override;
    void OnPacket(TimePoint at, Direction direction, std::span<const uint8_t> packet,
                  std::string_view note) override;
    void OnPin(TimePoint, Pin, bool) override {}
    void OnMode(TimePoint at, std::string_view mode) override;

  private:
    void Write(TimePoint at, const std::string& line);

    TextOutput output_;
    wire::ClockTimer clocks_;
};

// A step of a recording per write of the host, per burst of the MCU and per pin that the host sets.
class Recorder : public Observer {
  public:
    explicit Recorder(const std::string& path) : output_(path) {}
    void OnBytes(TimePoint at, Direction direction, std::span<const uint8_t> bytes,
                 bool bootloader) override;
    void OnPacket(TimePoint, Direction, std::span<const uint8_t>, std::string_view) override {}
    void OnPin(TimePoint at, Pin pin, bool high) override;
    void OnMode(TimePoint at, std::string_view mode) override;

  private:
    void Write(TimePoint at, const std::string& step);

    TextOutput output_;
    wire::ClockTimer clocks_;
};

}  // namespace mcusim
