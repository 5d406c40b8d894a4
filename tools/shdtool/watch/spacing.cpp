// Looks at the distances of samples. Called by the live statistics and by the audit.
#include "tools/shdtool/watch/spacing.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "protocol/event.h"

using namespace shd;

namespace shdtool {
namespace {

// A long spacing was a delay when within so many samples the lag behind the period is down to half
// a period, or to a twentieth of its worst, for the period is only known so well. The number covers
// most batches: a batch that came late is followed by one that is not.
constexpr double kMinPatience = 64;
constexpr double kMaxPatience = 1e6;
constexpr double kMostMissing = 1e15;  // exact in a double
constexpr double kMadeUpPeriods = 0.5;
constexpr double kMadeUpShare = 0.05;

// The value that the given part of the others is below; changes their order.
int64_t Quantile(std::vector<int64_t>& values, size_t part, size_t parts) {
    const auto place = values.begin() + static_cast<std::ptrdiff_t>(values.size() * part / parts);
    std::nth_element(values.begin(), place, values.end());
    return *place;
}

std::vector<int64_t> MeansOfStretches(std::span<const int64_t> values) {
    constexpr size_t kStretches = 16;
    const size_t length = std::max<size_t>(values.size() / kStretches, 1);
    std::vector<int64_t> means;
    for (; values.size() >= length; values = values.subspan(length)) {
        const auto stretch = values.first(length);
        means.push_back(std::llround(SpreadOf(stretch).mean_ns));
    }
    return means;
}

}  // namespace

void GapCounter::Add(int64_t spacing_ns, int64_t period_ns) {
    const double periods = static_cast<double>(spacing_ns) / static_cast<double>(period_ns);
    const bool is_long = periods > factor_;
    if (!is_long && delays_ == 0) return;
    lag_ += periods - 1;
    if (is_long) {
        if (!was_long_) ++delays_;
        was_long_ = true;
        worst_lag_ = std::max(worst_lag_, lag_);
        patience_ = std::llround(std::clamp(lag_ * 2, kMinPatience, kMaxPatience));
        return;
    }
    was_long_ = false;
    if (lag_ < std::max(kMadeUpPeriods, worst_lag_ * kMadeUpShare)) {
        late_ += delays_;
        Close();
    } else if (--patience_ == 0) {
        Finish();
    }
}

void GapCounter::Finish() {
    if (delays_ == 0) return;
    const uint64_t presumed = PresumedMissing();
    if (presumed == 0) {
        late_ += delays_;
    } else {
        gaps_ += std::min(delays_, presumed);
        missing_ += presumed;
    }
    Close();
}

uint64_t GapCounter::presumed_gaps() const {
    return gaps_ + std::min(delays_, PresumedMissing());
}

uint64_t GapCounter::PresumedMissing() const {
    if (delays_ == 0 || lag_ < factor_ - 1) return 0;
    return static_cast<uint64_t>(std::llround(std::clamp(lag_, 1.0, kMostMissing)));
}

void GapCounter::Close() {
    lag_ = 0;
    worst_lag_ = 0;
    delays_ = 0;
    was_long_ = false;
}

int64_t GapPeriod(std::optional<int64_t> asked_ns, int64_t apparent_ns) {
    constexpr double kSameRate = 0.1;
    if (!asked_ns || apparent_ns <= 0) return asked_ns.value_or(apparent_ns);
    const double share = static_cast<double>(apparent_ns) / static_cast<double>(*asked_ns);
    return std::abs(share - 1) > kSameRate ? *asked_ns : apparent_ns;
}

bool IsPeriodic(const shdclient::SensorInfo& sensor) {
    return !sensor.is_virtual && sensor.type != kTypeStepCounter && sensor.type != kTypeWristTilt;
}

Spread SpreadOf(std::span<const int64_t> spacings_ns) {
    const double count = static_cast<double>(spacings_ns.size());
    const double mean =
        std::accumulate(spacings_ns.begin(), spacings_ns.end(), 0.0,
                        [](double sum, int64_t ns) { return sum + static_cast<double>(ns); }) /
        count;
    double squares = 0;
    for (const int64_t spacing_ns : spacings_ns) {
        const double deviation = static_cast<double>(spacing_ns) - mean;
        squares += deviation * deviation;
    }
    return {mean, std::sqrt(squares / count)};
}

int64_t Median(std::vector<int64_t> values) {
    return Quantile(values, 1, 2);
}

int64_t ApparentPeriod(std::span<const int64_t> spacings_ns) {
    if (spacings_ns.empty()) return 0;
    std::vector<int64_t> values(spacings_ns.begin(), spacings_ns.end());
    const int64_t median = Quantile(values, 1, 2);
    if (Quantile(values, 1, 4) >= median / 2) return median;
    return Median(MeansOfStretches(spacings_ns));
}

}  // namespace shdtool
