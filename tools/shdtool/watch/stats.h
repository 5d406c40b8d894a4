// What can be said about the latest samples of one sensor: rate, jitter, batch size, gaps. Used by
// the live table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>

#include "tools/client/event_watcher.h"
#include "tools/shdtool/watch/spacing.h"

namespace shdtool {

// Of the spacings within the last 5 s of samples, or of the last 16 when those are slower.
struct SpacingStats {
    Spread spread;
    int64_t period_ns;  // see ApparentPeriod
};

// Not thread-safe. Memory is bounded: at most 8,192 spacings.
class SensorStats {
  public:
    // asked_ns: the spacing that was asked for; without it gaps are measured against the
    // period that the samples seem to have.
    SensorStats(const shdclient::SensorInfo& sensor, std::optional<int64_t> asked_ns)
        : sensor_(sensor), asked_ns_(asked_ns) {}

    void Add(const shdclient::WatchedEvent& event);

    // Events are missing for a reason: what comes next starts a new sequence.
    void Interrupt();

    [[nodiscard]] const shdclient::SensorInfo& sensor() const { return sensor_; }
    [[nodiscard]] std::optional<int64_t> asked_ns() const { return asked_ns_; }
    // The newest sample; empty before the first.
    [[nodiscard]] const std::optional<shdclient::WatchedEvent>& last() const { return last_; }
    [[nodiscard]] uint64_t samples() const { return samples_; }
    [[nodiscard]] uint64_t flushes() const { return flushes_; }  // flush-complete events
    [[nodiscard]] const GapCounter& gaps() const { return gaps_; }

    // Empty for a sensor without a period, and before two samples.
    [[nodiscard]] std::optional<SpacingStats> spacing() const;

    // Samples that arrive together: the median of the latest 15 deliveries, 0 before the first is
    // known to be complete. Two deliveries belong together when less than half the samples' own
    // spacing lies between them.
    [[nodiscard]] size_t batch() const;

  private:
    void AddSpacing(int64_t spacing_ns);
    void CountBatch(const shdclient::WatchedEvent& event);

    const shdclient::SensorInfo& sensor_;
    const std::optional<int64_t> asked_ns_;
    std::optional<shdclient::WatchedEvent> last_;
    bool interrupted_ = false;
    uint64_t samples_ = 0;
    uint64_t flushes_ = 0;

    std::deque<int64_t> spacings_;
    int64_t spacings_sum_ns_ = 0;
    uint64_t spacings_seen_ = 0;
    int64_t period_ns_ = 0;  // as of the last look, 0: too few spacings
    GapCounter gaps_;

    int64_t batch_fill_ = 0;  // samples
    std::deque<int64_t> batches_;
};

}  // namespace shdtool
