// The audit's arithmetic and its verdict in words. Called by the audit.
#include "tools/shdtool/recording/audit_sensor.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>

namespace shdtool {
namespace {

constexpr double kNsPerMs = 1e6;
constexpr int64_t kInterruption = INT64_MIN;

double Ms(double ns) {
    return ns / kNsPerMs;
}

double Ms(int64_t ns) {
    return static_cast<double>(ns) / kNsPerMs;
}

std::string Counted(uint64_t count, const char* noun) {
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

void FindOrderFaults(SensorVerdict& verdict) {
    if (verdict.backwards > 0) {
        verdict.faults.push_back(fmt::format("{} backwards in time (worst by {:.3f} ms)",
                                             Counted(verdict.backwards, "sample"),
                                             Ms(verdict.worst_backwards_ns)));
    }
    if (verdict.duplicates > 0) {
        verdict.faults.push_back(
            fmt::format("{} of a time stamp", Counted(verdict.duplicates, "duplicate")));
    }
    if (verdict.future > 0) {
        verdict.faults.push_back(fmt::format("{} dated in the future (worst by {:.3f} ms)",
                                             Counted(verdict.future, "sample"),
                                             Ms(verdict.worst_future_ns)));
    }
}

void FindSpacingFaults(const AuditLimits& limits, SensorVerdict& verdict) {
    const SpacingVerdict& spacing = *verdict.spacing;
    if (spacing.gaps > limits.max_gaps) {
        verdict.faults.push_back(fmt::format("{} ({} missing)", Counted(spacing.gaps, "gap"),
                                             Counted(spacing.missing, "sample")));
    }
    const double period = static_cast<double>(spacing.period_ns);
    const double off = spacing.mean_ns / period - 1;
    if (limits.period_ns && std::abs(off) > limits.mean_tolerance) {
        verdict.faults.push_back(fmt::format("mean spacing {:.3f} ms is {:+.1f} % off {:g} ms",
                                             Ms(spacing.mean_ns), off * 100,
                                             Ms(spacing.period_ns)));
    }
    if (limits.max_jitter_ns && spacing.jitter_ns > static_cast<double>(*limits.max_jitter_ns)) {
        verdict.faults.push_back(fmt::format("jitter {:.3f} ms exceeds {:g} ms",
                                             Ms(spacing.jitter_ns), Ms(*limits.max_jitter_ns)));
    }
}

}  // namespace

void SensorAudit::AddSample(int64_t timestamp_ns, int64_t arrival_ns) {
    ++counts_.samples;
    CountDelay(arrival_ns - timestamp_ns);
    if (!first_ns_) first_ns_ = timestamp_ns;
    counts_.duration_ns = timestamp_ns - *first_ns_;
    if (last_ns_) {
        const int64_t spacing_ns = timestamp_ns - *last_ns_;
        spacings_.push_back(spacing_ns);
        if (spacing_ns < 0) {
            ++counts_.backwards;
            counts_.worst_backwards_ns = std::max(counts_.worst_backwards_ns, -spacing_ns);
        } else if (spacing_ns == 0 && !sensor_.is_virtual) {
            ++counts_.duplicates;
        }
    }
    last_ns_ = timestamp_ns;
}

void SensorAudit::CountDelay(int64_t delay_ns) {
    const bool first = counts_.samples == 1;
    counts_.shortest_delay_ns = first ? delay_ns : std::min(counts_.shortest_delay_ns, delay_ns);
    counts_.longest_delay_ns = first ? delay_ns : std::max(counts_.longest_delay_ns, delay_ns);
    delay_sum_ns_ += static_cast<double>(delay_ns);
    if (delay_ns < -limits_.future_tolerance_ns) {
        ++counts_.future;
        counts_.worst_future_ns = std::max(counts_.worst_future_ns, -delay_ns);
    }
}

void SensorAudit::Interrupt() {
    if (last_ns_) spacings_.push_back(kInterruption);
    last_ns_.reset();
}

std::optional<SpacingVerdict> SensorAudit::JudgeSpacing() const {
    std::vector<int64_t> measured;
    measured.reserve(spacings_.size());
    std::copy_if(spacings_.begin(), spacings_.end(), std::back_inserter(measured),
                 [](int64_t spacing) { return spacing != kInterruption; });
    if (measured.empty() || !IsPeriodic(sensor_)) return std::nullopt;
    SpacingVerdict verdict;
    const int64_t apparent_ns = ApparentPeriod(measured);
    const int64_t gap_period_ns = GapPeriod(limits_.period_ns, apparent_ns);
    verdict.period_ns = limits_.period_ns.value_or(apparent_ns);
    if (verdict.period_ns <= 0) return std::nullopt;
    const auto [shortest, longest] = std::minmax_element(measured.begin(), measured.end());
    verdict.shortest_ns = *shortest;
    verdict.longest_ns = *longest;
    const Spread spread = SpreadOf(measured);
    verdict.mean_ns = spread.mean_ns;
    verdict.jitter_ns = spread.jitter_ns;
    GapCounter gaps(limits_.gap_factor);
    for (const int64_t spacing_ns : spacings_) {
        if (spacing_ns == kInterruption) {
            gaps.Finish();
            continue;
        }
        gaps.Add(spacing_ns, gap_period_ns);
        const double periods =
            static_cast<double>(spacing_ns) / static_cast<double>(verdict.period_ns);
        const auto* end = std::upper_bound(kSpacingClasses.begin(), kSpacingClasses.end(), periods);
        ++verdict.histogram[static_cast<size_t>(end - kSpacingClasses.begin())];
    }
    gaps.Finish();
    verdict.gaps = gaps.gaps();
    verdict.missing = gaps.missing();
    verdict.late = gaps.late();
    return verdict;
}

SensorVerdict SensorAudit::Judge() const {
    SensorVerdict verdict = counts_;
    if (verdict.samples == 0) {
        verdict.faults.emplace_back("no sample came");
        return verdict;
    }
    verdict.mean_delay_ns = delay_sum_ns_ / static_cast<double>(verdict.samples);
    verdict.spacing = JudgeSpacing();
    FindOrderFaults(verdict);
    if (verdict.spacing) FindSpacingFaults(limits_, verdict);
    return verdict;
}

}  // namespace shdtool
