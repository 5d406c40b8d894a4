// Statistics over a sliding window of samples. Called by the live table.
#include "tools/shdtool/watch/stats.h"

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
        period_ns_ = ApparentPeriod(std::vector<int64_t>(spacings_.begin(), spacings_.end()));
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
    const std::vector<int64_t> spacings(spacings_.begin(), spacings_.end());
    return SpacingStats{SpreadOf(spacings), ApparentPeriod(spacings)};
}

size_t SensorStats::batch() const {
    if (batches_.empty()) return 0;
    return static_cast<size_t>(Median({batches_.begin(), batches_.end()}));
}

}  // namespace shdtool
