// What the simulator's trace tells: packets in words and the modes of the board. Used by the
// recordings.
#pragma once

#include <string_view>
#include <utility>

#include "tools/shdtool/timeline/clock_anchor.h"

namespace shdtool::timeline {

// One trace; one thread. Its frames have no bytes, and lie where the MCU had or queued them.
class TraceItems {
  public:
    explicit TraceItems(Sink sink) : sink_(std::move(sink)) {}

    // Lines of the trace, in their order, without their ends. Those before its first clocks make no
    // items.
    void Push(std::string_view line);

    // Whether the line can stand in a trace.
    [[nodiscard]] static bool IsTrace(std::string_view line);

  private:
    Sink sink_;
    RecorderClock clock_;
    uint64_t frames_ = 0;
};

}  // namespace shdtool::timeline
