// Clocks of recordings. Called by the readers of the timeline.
#include "tools/shdtool/timeline/clock_anchor.h"

#include <algorithm>
#include <cstdlib>

namespace shdtool::timeline {
namespace {

// A recorder is late by less than this when it says the clocks; more is a host that slept while the
// recorder's clock stood still.
constexpr int64_t kLatenessNs = 100'000'000;

// Of a damaged file; sums with another clock's stay numbers.
constexpr Time kLatest = 100LL * 365 * 24 * 3600 * 1'000'000'000;

template <typename Distance>
const wire::Clocks& Nearest(const std::vector<wire::Clocks>& anchors, Distance distance) {
    return *std::ranges::min_element(anchors, {}, distance);
}

}  // namespace

Time ClockAnchor::BootOfWall(int64_t wall_ns) const {
    const wire::Clocks& anchor = Nearest(anchors_, [wall_ns](const wire::Clocks& clocks) {
        return std::abs(clocks.wall.count() - wall_ns);
    });
    return wall_ns + (anchor.boot - anchor.wall).count();
}

int64_t ClockAnchor::WallOfBoot(Time boot) const {
    const wire::Clocks& anchor = Nearest(anchors_, [boot](const wire::Clocks& clocks) {
        return std::abs(clocks.boot.count() - boot);
    });
    return boot + (anchor.wall - anchor.boot).count();
}

void RecorderClock::Anchor(int64_t recorder_ns, Time boot) {
    const int64_t ahead = boot - recorder_ns;
    if (!known_ || ahead < ahead_ || ahead > ahead_ + kLatenessNs) ahead_ = ahead;
    known_ = true;
}

Time RecorderClock::BootOf(int64_t recorder_ns) {
    latest_ = std::clamp(recorder_ns + ahead_, latest_, kLatest);
    return latest_;
}

}  // namespace shdtool::timeline
