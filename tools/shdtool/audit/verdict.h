// Judges one sensor: what its statistics say that should not be. Used by the audit.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/shdtool/engine/sensor_stats.h"

namespace shdtool {

struct AuditLimits {
    StatsOptions stats = {.whole = true};
    double mean_tolerance = 0.05;  // of a period asked for
    uint64_t max_gaps = 0;
    std::optional<int64_t> max_jitter_ns = {};
};

// Upper ends of the histogram's classes, in periods; the last class has none.
inline constexpr std::array<double, 7> kSpacingClasses{0.5, 0.9, 0.98, 1.02, 1.1, 1.5, 2.5};

// Of a sensor whose samples follow a period. Spacings below 0 belong to samples that go backwards.
struct SpacingVerdict {
    int64_t period_ns = 0;  // asked for, else measured
    Spacings measured;
    uint64_t gaps = 0;
    uint64_t missing = 0;  // samples, in these gaps
    uint64_t late = 0;     // long spacings that the following samples made up for
    std::array<uint64_t, kSpacingClasses.size() + 1> histogram{};
};

struct SensorVerdict {
    uint64_t samples = 0;
    uint64_t lost_here = 0;
    int64_t stamped_ns = 0;  // from the first to the last time stamp
    OrderCounts order;
    std::optional<SpacingVerdict> spacing = {};   // empty: no period, or fewer than two samples
    std::optional<int64_t> silent_ns = {};        // at the end of the time watched, when too long
    std::optional<int64_t> started_late_ns = {};  // from its beginning, when too long
    std::vector<std::string> faults = {};         // in words; empty: all is well
};

// The time watched ends at end_ns and was watched_ns long.
[[nodiscard]] SensorVerdict Judge(const SensorStats& stats, const AuditLimits& limits,
                                  int64_t end_ns, int64_t watched_ns);

}  // namespace shdtool
