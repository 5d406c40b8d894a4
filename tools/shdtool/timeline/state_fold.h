// One state of the MCU out of what line, log and hub each tell. Used by the timeline command and by
// the view.
#pragma once

#include <array>
#include <optional>

#include "tools/shdtool/timeline/item.h"

namespace shdtool::timeline {

// One hub; one thread. Each source is taken at its word until it says something else:
// - who has lost the daemon knows nothing of the MCU;
// - an episode of the log covers the resets and silences of which it consists, but not the
//   bootloader, of which the line tells more;
// - otherwise the line knows best, and the log where there is no line.
class StateFold {
  public:
    // The state from then on, when it is another one now.
    [[nodiscard]] std::optional<McuState> Push(const McuState& told);

  private:
    [[nodiscard]] const McuState* Ruling() const;

    std::array<std::optional<McuState>, 3> told_;  // by Source; the simulator's trace has its own
    std::optional<McuState> shown_;
};

}  // namespace shdtool::timeline
