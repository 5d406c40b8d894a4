// The way from the wall clock and from a recorder's clock to the boot clock. Used by the readers of
// the timeline.
#pragma once

#include <vector>

#include "tools/shdtool/timeline/item.h"
#include "tools/wire/recording.h"

namespace shdtool::timeline {

// What both clocks showed at the same moments, in the order in which it was said.
class ClockAnchor {
  public:
    void Add(const wire::Clocks& clocks) { anchors_.push_back(clocks); }
    void Add(const ClockAnchor& other) {
        anchors_.insert(anchors_.end(), other.anchors_.begin(), other.anchors_.end());
    }

    [[nodiscard]] bool known() const { return !anchors_.empty(); }

    // By the anchor whose wall clock is the nearest; known() must be true. ns since 1970.
    [[nodiscard]] Time BootOfWall(int64_t wall_ns) const;
    [[nodiscard]] int64_t WallOfBoot(Time boot) const;

    // The wall clock of the latest anchor, which tells the year.
    [[nodiscard]] int64_t latest_wall_ns() const { return anchors_.back().wall.count(); }

  private:
    std::vector<wire::Clocks> anchors_;
};

// A recorder's own clock, whose file says now and then what the boot clock showed.
class RecorderClock {
  public:
    // recorder: on the recorder's clock, when the boot clock showed that or a little less: it is
    // read after the step that it stands before has happened.
    void Anchor(int64_t recorder_ns, Time boot);

    [[nodiscard]] bool known() const { return known_; }
    // Never less than what it gave before.
    [[nodiscard]] Time BootOf(int64_t recorder_ns);

  private:
    bool known_ = false;
    int64_t ahead_ = 0;
    Time latest_ = INT64_MIN;
};

}  // namespace shdtool::timeline
