// Looks at the distances of samples. Called by the live statistics and by the audit.
#include "tools/shdtool/engine/spacing.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <numeric>
#include <utility>
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
constexpr double kEarlyPeriods = 0.5;
constexpr double kMadeUpShare = 0.05;
constexpr double kLastingShare = 0.9;  // of the worst lag: nothing is being made up for

// The value that the given part of the others is below; changes their order.
int64_t Quantile(std::vector<int64_t>& values, size_t part, size_t parts) {
    const auto place = values.begin() + static_cast<std::ptrdiff_t>(values.size() * part / parts);
    std::nth_element(values.begin(), place, values.end());
    return *place;
}

std::vector<int64_t> MeansOfStretches(const std::vector<int64_t>& values) {
    constexpr size_t kStretches = 16;
    const size_t length = std::max<size_t>(values.size() / kStretches, 1);
    std::vector<int64_t> means;
    for (auto from = values.begin(); values.end() - from >= static_cast<std::ptrdiff_t>(length);
         from += static_cast<std::ptrdiff_t>(length)) {
        const auto to = from + static_cast<std::ptrdiff_t>(length);
        means.push_back(std::accumulate(from, to, int64_t{0}) / static_cast<int64_t>(length));
    }
    return means;
}

// The period as good as it can be told at once: the median, which missing samples do not move.
// Where less than half of the spacings are near it, or a quarter is below half of it, the samples
// come in bursts or wait for a busy line, and the median says nothing: then that of the means of
// longer stretches.
int64_t RoughPeriod(const std::vector<int64_t>& values) {
    std::vector<int64_t> ordered = values;
    const int64_t median = Quantile(ordered, 1, 2);
    const auto near = std::count_if(ordered.begin(), ordered.end(), [median](int64_t spacing) {
        return std::abs(spacing - median) <= median / 4;
    });
    const bool even = static_cast<size_t>(near) * 2 >= values.size();
    if (even && Quantile(ordered, 1, 4) >= median / 2) return median;
    return Median(MeansOfStretches(values));
}

// True when the spacings behind a long one bring the samples back into step.
bool IsMadeUpFor(const std::vector<int64_t>& values, size_t at, double period, double factor) {
    double lag = 0;
    double worst = 0;
    for (size_t i = at, patience = static_cast<size_t>(kMinPatience); i < values.size(); ++i) {
        const double periods = static_cast<double>(values[i]) / period;
        lag += periods - 1;
        worst = std::max(worst, lag);
        if (lag < std::max(kMadeUpPeriods, worst * kMadeUpShare)) return true;
        if (periods <= factor && --patience == 0) return false;
    }
    return false;
}

// Leaves out the spacings that are gaps; a delay stays, with what makes up for it.
std::vector<int64_t> WithoutGaps(const std::vector<int64_t>& values, double period, double factor) {
    std::vector<int64_t> kept;
    for (size_t i = 0; i < values.size(); ++i) {
        const bool is_long = static_cast<double>(values[i]) / period > factor;
        if (!is_long || IsMadeUpFor(values, i, period, factor)) kept.push_back(values[i]);
    }
    return kept;
}

}  // namespace

void GapCounter::Add(int64_t spacing_ns, int64_t period_ns) {
    double periods = static_cast<double>(spacing_ns) / static_cast<double>(period_ns);
    if (delays_ == 0 && periods < kEarlyPeriods) {
        ahead_ += 1 - periods;
        return;
    }
    // A sample that was early, or stamped so, is followed by one that seems late.
    periods -= std::exchange(ahead_, 0);
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
        GiveUp();
    }
}

void GapCounter::GiveUp() {
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

void GapCounter::Break() {
    if (was_long_ || lag_ < worst_lag_ * kLastingShare) {
        late_ += delays_;
        Close();
    } else {
        GiveUp();
    }
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
    ahead_ = 0;
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

int64_t Median(std::vector<int64_t> values) {
    return Quantile(values, 1, 2);
}

std::optional<Spacings> Measure(const std::vector<int64_t>& spacings_ns,
                                std::optional<int64_t> asked_ns, double factor) {
    std::vector<int64_t> values;
    values.reserve(spacings_ns.size());
    std::copy_if(spacings_ns.begin(), spacings_ns.end(), std::back_inserter(values),
                 [](int64_t spacing) { return spacing != kSequenceBreak; });
    if (values.empty()) return std::nullopt;
    const int64_t rough_ns = GapPeriod(asked_ns, RoughPeriod(values));
    if (rough_ns <= 0) return std::nullopt;
    const auto [shortest, longest] = std::minmax_element(values.begin(), values.end());
    Spacings measured{.shortest_ns = *shortest, .longest_ns = *longest};
    std::vector<int64_t> kept = WithoutGaps(values, static_cast<double>(rough_ns), factor);
    if (kept.empty()) kept = values;
    const double count = static_cast<double>(kept.size());
    double sum = 0;
    for (const int64_t spacing_ns : kept) sum += static_cast<double>(spacing_ns);
    measured.mean_ns = sum / count;
    double squares = 0;
    for (const int64_t spacing_ns : kept) {
        const double deviation = static_cast<double>(spacing_ns) - measured.mean_ns;
        squares += deviation * deviation;
    }
    measured.jitter_ns = std::sqrt(squares / count);
    measured.period_ns = std::llround(measured.mean_ns);
    if (measured.period_ns <= 0) return std::nullopt;
    return measured;
}

}  // namespace shdtool
