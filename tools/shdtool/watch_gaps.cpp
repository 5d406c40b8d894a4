// Counts gaps in a sequence of samples. Called by the live statistics and by the audit.
#include "tools/shdtool/watch_gaps.h"

#include <algorithm>
#include <cmath>

#include "events/sensor_event.h"

namespace shdtool {

void GapCounter::Add(int64_t spacing_ns, int64_t period_ns) {
    constexpr int64_t kMinPatience = 8;
    const double periods = static_cast<double>(spacing_ns) / static_cast<double>(period_ns);
    if (periods > factor_) {
        deficit_ += periods - 1;
        ++long_spacings_;
        patience_ = std::max(kMinPatience, int64_t{std::llround(deficit_)} * 2);
        return;
    }
    if (deficit_ == 0) return;
    deficit_ -= std::max(1 - periods, 0.0);
    if (deficit_ < factor_ - 1) {
        late_ += long_spacings_;
        deficit_ = 0;
        long_spacings_ = 0;
    } else if (--patience_ == 0) {
        Finish();
    }
}

void GapCounter::Finish() {
    if (deficit_ == 0) return;
    ++gaps_;
    missing_ += static_cast<uint64_t>(std::max(std::llround(deficit_), 1LL));
    deficit_ = 0;
    long_spacings_ = 0;
}

bool IsPeriodic(const shdclient::SensorInfo& sensor) {
    return !sensor.is_virtual && sensor.event_type != SENSOR_TYPE_STEP_COUNTER &&
           sensor.event_type != SENSOR_TYPE_WRIST_TILT_GESTURE;
}

}  // namespace shdtool
