// Items from a recording or a log that is being written. Used by the view.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "tools/shdtool/files/growing_text.h"
#include "tools/shdtool/timeline/line_items.h"
#include "tools/shdtool/timeline/log_items.h"

namespace shdtool::timeline {

// A recording of the line that grows, as mcusim --record and shdtool tap write it. The file may
// come later, be begun anew or be replaced. One thread.
class LineFollower {
  public:
    LineFollower(std::string path, Sink sink) : text_(std::move(path)), sink_(std::move(sink)) {}

    // Hands over what has come since, and tells what is overdue. Never waits.
    void Poll();

    [[nodiscard]] bool there() const { return text_.there(); }
    // Lines that are no steps: the file is none, or was damaged.
    [[nodiscard]] uint64_t bad_lines() const { return bad_lines_; }

  private:
    void Push(std::string_view line);

    GrowingText text_;
    const Sink sink_;
    wire::StepParser parser_;
    std::unique_ptr<LineItems> items_;
    uint64_t bad_lines_ = 0;
};

// The daemon's log, likewise, with anchors of its own or without: this host's clocks as they are
// when it is polled place its lines.
class LogFollower {
  public:
    LogFollower(std::string path, Sink sink) : text_(std::move(path)), sink_(std::move(sink)) {}

    void Poll();

    [[nodiscard]] bool there() const { return text_.there(); }

  private:
    GrowingText text_;
    const Sink sink_;
    std::unique_ptr<LogItems> items_;
    wire::ClockTimer clocks_;
};

}  // namespace shdtool::timeline
