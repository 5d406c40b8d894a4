// Statistics over a sliding window of samples. Called by the live table.
#include "tools/shdtool/watch/stats.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace shdtool {
namespace {

constexpr int64_t kWindowNs = 5'000'000'000;
constexpr size_t kMinWindow = 16;
constexpr size_t kMaxWindow = 8192;
constexpr size_t kBatchesKept = 15;

// The period is looked for anew after so many spacings; below the first it says too little.
constexpr uint64_t kPeriodFirst = 8;
constexpr uint64_t kPeriodEvery = 64;

}  // namespace

void SensorStats::Add(const shdclient::WatchedEvent& event) {
    if (event.decoded.flush_complete) {
        ++flushes_;
        return;
    }
    ++samples_;
    if (IsPeriodic(sensor_)) {
        CountBatch(event);
        if (last_ && !interrupted_) {
            AddSpacing(event.decoded.timestamp_ns - last_->decoded.timestamp_ns);
        }
    }
    interrupted_ = false;
    last_ = event;
}

void SensorStats::Interrupt() {
    interrupted_ = true;
    batch_fill_ = 0;
    gaps_.Finish();
}

void SensorStats::AddSpacing(int64_t spacing_ns) {
    if (spacing_ns <= 0) return;  // the audit is there for these
    spacings_.push_back(spacing_ns);
    spacings_sum_ns_ += spacing_ns;
    while (spacings_.size() > kMaxWindow ||
           (spacings_.size() > kMinWindow && spacings_sum_ns_ > kWindowNs)) {
        spacings_sum_ns_ -= spacings_.front();
        spacings_.pop_front();
    }
    ++spacings_seen_;
    if (spacings_seen_ == kPeriodFirst || spacings_seen_ % kPeriodEvery == 0) {
        period_ns_ = Period();
    }
    const int64_t period_ns = GapPeriod(asked_ns_, period_ns_);
    if (period_ns > 0) gaps_.Add(spacing_ns, period_ns);
}

void SensorStats::CountBatch(const shdclient::WatchedEvent& event) {
    if (!last_ || interrupted_) return;  // may be the rest of a batch
    const int64_t spacing_ns = event.decoded.timestamp_ns - last_->decoded.timestamp_ns;
    if (event.arrival_ns - last_->arrival_ns > spacing_ns / 2) {
        if (batch_fill_ > 0) batches_.push_back(batch_fill_);
        if (batches_.size() > kBatchesKept) batches_.pop_front();
        batch_fill_ = 1;
    } else if (batch_fill_ > 0) {
        ++batch_fill_;
    }
}

std::optional<SpacingStats> SensorStats::spacing() const {
    if (spacings_.empty()) return std::nullopt;
    const double count = static_cast<double>(spacings_.size());
    SpacingStats stats{};
    stats.mean_ns = static_cast<double>(spacings_sum_ns_) / count;
    stats.period_ns = static_cast<double>(Period());
    double squares = 0;
    for (const int64_t spacing_ns : spacings_) {
        const double deviation = static_cast<double>(spacing_ns) - stats.mean_ns;
        squares += deviation * deviation;
    }
    stats.jitter_ns = std::sqrt(squares / count);
    return stats;
}

int64_t SensorStats::Period() const {
    return ApparentPeriod(std::vector<int64_t>(spacings_.begin(), spacings_.end()));
}

size_t SensorStats::batch() const {
    if (batches_.empty()) return 0;
    std::vector<size_t> sorted(batches_.begin(), batches_.end());
    const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
    std::nth_element(sorted.begin(), middle, sorted.end());
    return *middle;
}

}  // namespace shdtool
