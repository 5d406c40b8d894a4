// All that can be told of one sensor from its events: rate, jitter, batches, gaps, order, delays,
// silence. The live table and the audit share it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "tools/shdtool/engine/delivery.h"
#include "tools/shdtool/engine/spacing.h"

namespace shdtool {

struct StatsOptions {
    std::optional<int64_t> asked_ns = {};  // the spacing asked for; empty: what the samples have
    int32_t asked_batch = 0;               // samples
    double gap_factor = GapCounter::kDefaultFactor;
    int64_t future_tolerance_ns = 0;
    bool whole = false;  // measure all spacings, 8 bytes each, and not the last 5 s
};

// What is wrong with single time stamps.
struct OrderCounts {
    uint64_t backwards = 0;  // samples stamped before the one that came before them
    int64_t worst_backwards_ns = 0;
    uint64_t duplicates = 0;  // samples stamped as the one before; not of virtual sensors, whose
                              // events share the time stamp of the report that they come from
    uint64_t future = 0;      // samples stamped after their arrival
    int64_t worst_future_ns = 0;
    int64_t shortest_delay_ns = 0;  // from time stamp to arrival
    int64_t longest_delay_ns = 0;
    double delay_sum_ns = 0;
};

// Not thread-safe. Times are of the clock of the arrival times.
class SensorStats {
  public:
    // from_ns: since when the sensor is watched.
    SensorStats(const shdclient::SensorInfo& sensor, const StatsOptions& options, int64_t from_ns)
        : sensor_(sensor),
          options_(options),
          from_ns_(from_ns),
          next_look_(kFirstLook),
          gaps_(options.gap_factor) {}

    // A sample or a flush-complete event.
    void Add(const shdclient::WatchedEvent& event);

    // What comes next is a new sequence, awaited from then on: the connection is there again, or
    // the sensor has another period now.
    void Restart(int64_t at_ns);

    // What the source says beside events: after a reconnection there is a new sequence; a gap where
    // events were lost on the way is not the MCU's.
    void OnChange(const Delivery& change);

    [[nodiscard]] const shdclient::SensorInfo& sensor() const { return sensor_; }
    [[nodiscard]] std::optional<int64_t> asked_ns() const { return options_.asked_ns; }
    // The newest sample; empty before the first.
    [[nodiscard]] const std::optional<shdclient::WatchedEvent>& last() const { return last_; }
    [[nodiscard]] uint64_t samples() const { return samples_; }
    [[nodiscard]] uint64_t flushes() const { return flushes_; }      // flush-complete events
    [[nodiscard]] uint64_t lost_here() const { return lost_here_; }  // on the way, see OnChange
    [[nodiscard]] const GapCounter& gaps() const { return gaps_; }
    [[nodiscard]] const OrderCounts& order() const { return order_; }
    [[nodiscard]] int64_t stamped_ns() const;  // from the first to the last time stamp

    // Every spacing under measurement, kSequenceBreak where the sequence was broken.
    [[nodiscard]] std::vector<int64_t> spacings() const {
        return {spacings_.begin(), spacings_.end()};
    }
    // Empty for a sensor without a period, and before two samples.
    [[nodiscard]] std::optional<Spacings> Measured() const;

    // Samples that arrive together: the median of the latest 15 deliveries, 0 before the first is
    // known to be complete. Two deliveries belong together when less than half the samples' own
    // spacing lies between them.
    [[nodiscard]] size_t batch() const;

    // How long nothing has come, when that is too long for a sensor with such a period and such
    // batches: more than a second and three deliveries. Empty when it is not, and for sensors
    // without a known period.
    [[nodiscard]] std::optional<int64_t> SilentFor(int64_t now_ns) const;

    // How long it took to the first sample, when that is too long in the same sense.
    [[nodiscard]] std::optional<int64_t> StartedLate() const;

  private:
    static constexpr uint64_t kFirstLook = 8;  // fewer spacings say too little of the period

    void CheckOrder(const shdclient::WatchedEvent& event);
    void AddSpacing(const shdclient::WatchedEvent& event);
    void CountBatch(const shdclient::WatchedEvent& event);
    void Push(int64_t spacing_ns);
    [[nodiscard]] bool WasMissed(int64_t from_ns, int64_t to_ns) const;
    [[nodiscard]] std::optional<int64_t> PatienceNs() const;

    const shdclient::SensorInfo& sensor_;
    const StatsOptions options_;
    int64_t from_ns_;                    // the sequence is awaited since then
    bool started_before_ = false;        // there was a sequence before this one
    std::optional<int64_t> first_late_;  // from from_ns_ to the first sample of the first sequence
    std::optional<int64_t> first_stamp_ns_;
    std::optional<shdclient::WatchedEvent> last_;
    bool broken_ = true;  // nothing to measure the next sample against
    uint64_t samples_ = 0;
    uint64_t flushes_ = 0;
    uint64_t lost_here_ = 0;
    OrderCounts order_;

    std::deque<int64_t> spacings_;
    int64_t spacings_sum_ns_ = 0;
    uint64_t spacings_seen_ = 0;
    uint64_t next_look_;     // at the period, by spacings_seen_
    int64_t period_ns_ = 0;  // as of the last look, 0: too few spacings
    GapCounter gaps_;
    std::deque<shdclient::MissedSpan> missed_;

    int64_t batch_fill_ = 0;  // samples
    std::deque<int64_t> batches_;
    std::deque<int64_t> intervals_;  // between the arrivals of the latest deliveries
};

}  // namespace shdtool
