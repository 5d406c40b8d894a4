// Judges the time stamps of one sensor's samples. Used by the audit.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/client/event_watcher.h"
#include "tools/shdtool/watch/spacing.h"

namespace shdtool {

struct AuditLimits {
    std::optional<int64_t> period_ns = {};  // empty: see ApparentPeriod
    double mean_tolerance = 0.05;           // of a given period
    double gap_factor = GapCounter::kDefaultFactor;
    uint64_t max_gaps = 0;
    std::optional<int64_t> max_jitter_ns = {};
    int64_t future_tolerance_ns = 0;
};

// Upper ends of the histogram's classes, in periods; the last class has none.
inline constexpr std::array<double, 7> kSpacingClasses{0.5, 0.9, 0.98, 1.02, 1.1, 1.5, 2.5};

// Of a sensor whose samples follow a period. Spacings below 0 belong to samples that go backwards.
struct SpacingVerdict {
    int64_t period_ns = 0;
    double mean_ns = 0;
    int64_t shortest_ns = 0;
    int64_t longest_ns = 0;
    double jitter_ns = 0;  // standard deviation
    uint64_t gaps = 0;
    uint64_t missing = 0;  // samples, in these gaps
    uint64_t late = 0;     // long spacings that the following samples made up for
    std::array<uint64_t, kSpacingClasses.size() + 1> histogram{};
};

struct SensorVerdict {
    uint64_t samples = 0;
    int64_t duration_ns = 0;  // from the first to the last time stamp
    uint64_t backwards = 0;   // samples stamped before the one that came before them
    int64_t worst_backwards_ns = 0;
    uint64_t duplicates = 0;  // samples stamped as the one before; not of virtual sensors, whose
                              // events share the time stamp of the report that they come from
    uint64_t future = 0;      // samples stamped after their arrival
    int64_t worst_future_ns = 0;
    int64_t shortest_delay_ns = 0;  // from time stamp to arrival
    int64_t longest_delay_ns = 0;
    double mean_delay_ns = 0;
    std::optional<SpacingVerdict> spacing;  // empty: no period, or fewer than two samples
    std::vector<std::string> faults;        // in words; empty: all is well
};

// Takes samples in the order of their arrival. Keeps 8 bytes for each.
class SensorAudit {
  public:
    SensorAudit(const shdclient::SensorInfo& sensor, const AuditLimits& limits)
        : sensor_(sensor), limits_(limits) {}

    void AddSample(int64_t timestamp_ns, int64_t arrival_ns);

    // Samples are missing for a reason: what comes next is not measured against what came before.
    void Interrupt();

    [[nodiscard]] const shdclient::SensorInfo& sensor() const { return sensor_; }
    [[nodiscard]] uint64_t samples() const { return counts_.samples; }

    [[nodiscard]] SensorVerdict Judge() const;

  private:
    void CountDelay(int64_t delay_ns);
    [[nodiscard]] std::optional<SpacingVerdict> JudgeSpacing() const;

    const shdclient::SensorInfo& sensor_;
    const AuditLimits limits_;
    std::optional<int64_t> first_ns_;
    std::optional<int64_t> last_ns_;  // empty after an interruption
    double delay_sum_ns_ = 0;
    SensorVerdict counts_;           // what can be counted as samples come
    std::vector<int64_t> spacings_;  // and a mark for each interruption
};

}  // namespace shdtool
