// Statistics of one sensor's events. Called by the live table and by the audit.
#include "tools/shdtool/engine/sensor_stats.h"

#include <algorithm>
#include <cmath>

namespace shdtool {
namespace {

constexpr int64_t kWindowNs = 5'000'000'000;
constexpr size_t kMinWindow = 16;
constexpr size_t kMaxWindow = 8192;
constexpr size_t kBatchesKept = 15;
constexpr size_t kMissedKept = 16;

// The period is looked for anew after so many spacings.
constexpr uint64_t kLookEvery = 64;

constexpr int64_t kLeastSilenceNs = 1'000'000'000;
constexpr int64_t kSilentDeliveries = 3;

}  // namespace

void SensorStats::Add(const shdclient::WatchedEvent& event) {
    if (event.decoded.flush_complete) {
        ++flushes_;
        return;
    }
    ++samples_;
    CheckOrder(event);
    if (!first_stamp_ns_) first_stamp_ns_ = event.decoded.timestamp_ns;
    if (!last_ && !started_before_) first_late_ = event.arrival_ns - from_ns_;
    if (IsPeriodic(sensor_) && last_ && !broken_) {
        CountBatch(event);
        AddSpacing(event);
    }
    broken_ = false;
    last_ = event;
}

void SensorStats::CheckOrder(const shdclient::WatchedEvent& event) {
    const int64_t stamp_ns = event.decoded.timestamp_ns;
    const int64_t delay_ns = event.arrival_ns - stamp_ns;
    const bool first = samples_ == 1;
    order_.shortest_delay_ns = first ? delay_ns : std::min(order_.shortest_delay_ns, delay_ns);
    order_.longest_delay_ns = first ? delay_ns : std::max(order_.longest_delay_ns, delay_ns);
    order_.delay_sum_ns += static_cast<double>(delay_ns);
    if (delay_ns < -options_.future_tolerance_ns) {
        ++order_.future;
        order_.worst_future_ns = std::max(order_.worst_future_ns, -delay_ns);
    }
    if (broken_ || !last_) return;
    const int64_t spacing_ns = stamp_ns - last_->decoded.timestamp_ns;
    if (spacing_ns < 0) {
        ++order_.backwards;
        order_.worst_backwards_ns = std::max(order_.worst_backwards_ns, -spacing_ns);
    } else if (spacing_ns == 0 && !sensor_.is_virtual) {
        ++order_.duplicates;
    }
}

void SensorStats::Restart(int64_t at_ns) {
    started_before_ = started_before_ || last_.has_value();
    from_ns_ = at_ns;
    broken_ = true;
    batch_fill_ = 0;
    gaps_.Break();
    if (!spacings_.empty() && spacings_.back() != kSequenceBreak) {
        spacings_.push_back(kSequenceBreak);
    }
}

void SensorStats::OnChange(const Delivery& change) {
    const int64_t at_ns = change.event.arrival_ns;
    if (change.kind == DeliveryKind::kReconnected) Restart(at_ns);
    if (change.kind != DeliveryKind::kMissed) return;
    missed_.push_back({change.from_ns, at_ns, false});
    if (missed_.size() > kMissedKept) missed_.pop_front();
    batch_fill_ = 0;
}

bool SensorStats::WasMissed(int64_t from_ns, int64_t to_ns) const {
    return std::any_of(missed_.begin(), missed_.end(), [&](const shdclient::MissedSpan& span) {
        return span.from_ns <= to_ns && span.to_ns >= from_ns;
    });
}

int64_t SensorStats::stamped_ns() const {
    return last_ ? last_->decoded.timestamp_ns - *first_stamp_ns_ : 0;
}

void SensorStats::AddSpacing(const shdclient::WatchedEvent& event) {
    const int64_t from_ns = last_->decoded.timestamp_ns;
    const int64_t spacing_ns = event.decoded.timestamp_ns - from_ns;
    if (!options_.whole && spacing_ns <= 0) return;  // the audit is there for these
    const int64_t period_ns = GapPeriod(options_.asked_ns, period_ns_);
    const double periods =
        period_ns > 0 ? static_cast<double>(spacing_ns) / static_cast<double>(period_ns) : 0;
    if (periods > options_.gap_factor && WasMissed(from_ns, event.decoded.timestamp_ns)) {
        lost_here_ += static_cast<uint64_t>(std::llround(periods) - 1);
        gaps_.Break();
        Push(kSequenceBreak);
        return;
    }
    Push(spacing_ns);
    if (++spacings_seen_ == next_look_) {
        // A look at all spacings takes longer and longer.
        next_look_ += options_.whole ? spacings_seen_ : kLookEvery;
        const auto measured = Measured();
        period_ns_ = measured ? measured->period_ns : 0;
    }
    const int64_t against_ns = GapPeriod(options_.asked_ns, period_ns_);
    if (against_ns > 0) gaps_.Add(spacing_ns, against_ns);
}

void SensorStats::Push(int64_t spacing_ns) {
    spacings_.push_back(spacing_ns);
    if (options_.whole) return;
    if (spacing_ns != kSequenceBreak) spacings_sum_ns_ += spacing_ns;
    while (spacings_.size() > kMaxWindow ||
           (spacings_.size() > kMinWindow && spacings_sum_ns_ > kWindowNs)) {
        if (spacings_.front() != kSequenceBreak) spacings_sum_ns_ -= spacings_.front();
        spacings_.pop_front();
    }
}

void SensorStats::CountBatch(const shdclient::WatchedEvent& event) {
    const int64_t spacing_ns = event.decoded.timestamp_ns - last_->decoded.timestamp_ns;
    const int64_t interval_ns = event.arrival_ns - last_->arrival_ns;
    if (interval_ns <= spacing_ns / 2) {
        if (batch_fill_ > 0) ++batch_fill_;
        return;
    }
    if (batch_fill_ > 0) batches_.push_back(batch_fill_);
    if (batches_.size() > kBatchesKept) batches_.pop_front();
    intervals_.push_back(interval_ns);
    if (intervals_.size() > kBatchesKept) intervals_.pop_front();
    batch_fill_ = 1;
}

std::optional<Spacings> SensorStats::Measured() const {
    if (!IsPeriodic(sensor_)) return std::nullopt;
    return Measure(spacings(), options_.asked_ns, options_.gap_factor);
}

size_t SensorStats::batch() const {
    if (batches_.empty()) return 0;
    if (!sensor_.can_batch) return 1;  // however many come at once
    return static_cast<size_t>(Median({batches_.begin(), batches_.end()}));
}

std::optional<int64_t> SensorStats::PatienceNs() const {
    if (!IsPeriodic(sensor_)) return std::nullopt;
    int64_t usual_ns = options_.asked_ns.value_or(0) * std::max(options_.asked_batch, 1);
    if (!intervals_.empty()) {
        usual_ns = std::max(usual_ns, Median({intervals_.begin(), intervals_.end()}));
    }
    if (usual_ns <= 0) return std::nullopt;
    return std::max(kLeastSilenceNs, usual_ns * kSilentDeliveries);
}

std::optional<int64_t> SensorStats::SilentFor(int64_t now_ns) const {
    const auto patience_ns = PatienceNs();
    if (!patience_ns) return std::nullopt;
    const int64_t since_ns = last_ ? std::max(last_->arrival_ns, from_ns_) : from_ns_;
    const int64_t silent_ns = now_ns - since_ns;
    return silent_ns > *patience_ns ? std::optional(silent_ns) : std::nullopt;
}

std::optional<int64_t> SensorStats::StartedLate() const {
    const auto patience_ns = PatienceNs();
    if (!patience_ns || !first_late_ || *first_late_ <= *patience_ns) return std::nullopt;
    return first_late_;
}

}  // namespace shdtool
