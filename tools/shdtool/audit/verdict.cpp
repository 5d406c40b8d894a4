// The audit's verdict on a sensor in words. Called by the audit.
#include "tools/shdtool/audit/verdict.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace shdtool {
namespace {

template <typename T>
double Ms(T ns) {
    constexpr double kNsPerMs = 1e6;
    return static_cast<double>(ns) / kNsPerMs;
}

double Sec(int64_t ns) {
    constexpr double kNsPerSec = 1e9;
    return static_cast<double>(ns) / kNsPerSec;
}

std::string Counted(uint64_t count, const char* noun) {
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

std::optional<SpacingVerdict> JudgeSpacing(const SensorStats& stats, const AuditLimits& limits) {
    const auto measured = stats.Measured();
    if (!measured) return std::nullopt;
    SpacingVerdict verdict{.period_ns = limits.stats.asked_ns.value_or(measured->period_ns),
                           .measured = *measured};
    const int64_t gap_period_ns = GapPeriod(limits.stats.asked_ns, measured->period_ns);
    GapCounter gaps(limits.stats.gap_factor);
    for (const int64_t spacing_ns : stats.spacings()) {
        if (spacing_ns == kSequenceBreak) {
            gaps.Break();
            continue;
        }
        gaps.Add(spacing_ns, gap_period_ns);
        const double periods =
            static_cast<double>(spacing_ns) / static_cast<double>(verdict.period_ns);
        const auto* end = std::upper_bound(kSpacingClasses.begin(), kSpacingClasses.end(), periods);
        ++verdict.histogram[static_cast<size_t>(end - kSpacingClasses.begin())];
    }
    gaps.Break();
    verdict.gaps = gaps.gaps();
    verdict.missing = gaps.missing();
    verdict.late = gaps.late();
    return verdict;
}

void FindSilence(int64_t watched_ns, SensorVerdict& verdict) {
    if (verdict.started_late_ns) {
        verdict.faults.push_back(
            fmt::format("started late: nothing for the first {:.1f} of {:.1f} s",
                        Sec(*verdict.started_late_ns), Sec(watched_ns)));
    }
    if (verdict.silent_ns) {
        verdict.faults.push_back(fmt::format("silent for the last {:.1f} of {:.1f} s",
                                             Sec(*verdict.silent_ns), Sec(watched_ns)));
    }
}

void FindOrderFaults(const OrderCounts& order, std::vector<std::string>& faults) {
    if (order.backwards > 0) {
        faults.push_back(fmt::format("{} backwards in time (worst by {:.3f} ms)",
                                     Counted(order.backwards, "sample"),
                                     Ms(order.worst_backwards_ns)));
    }
    if (order.duplicates > 0) {
        faults.push_back(fmt::format("{} of a time stamp", Counted(order.duplicates, "duplicate")));
    }
    if (order.future > 0) {
        faults.push_back(fmt::format("{} dated in the future (worst by {:.3f} ms)",
                                     Counted(order.future, "sample"), Ms(order.worst_future_ns)));
    }
}

void FindSpacingFaults(const AuditLimits& limits, SensorVerdict& verdict) {
    const SpacingVerdict& spacing = *verdict.spacing;
    if (spacing.gaps > limits.max_gaps) {
        verdict.faults.push_back(fmt::format("{} ({} missing)", Counted(spacing.gaps, "gap"),
                                             Counted(spacing.missing, "sample")));
    }
    const double off = spacing.measured.mean_ns / static_cast<double>(spacing.period_ns) - 1;
    if (limits.stats.asked_ns && std::abs(off) > limits.mean_tolerance) {
        verdict.faults.push_back(fmt::format("mean spacing {:.3f} ms is {:+.1f} % off {:g} ms",
                                             Ms(spacing.measured.mean_ns), off * 100,
                                             Ms(spacing.period_ns)));
    }
    const double jitter_ns = spacing.measured.jitter_ns;
    if (limits.max_jitter_ns && jitter_ns > static_cast<double>(*limits.max_jitter_ns)) {
        verdict.faults.push_back(fmt::format("jitter {:.3f} ms exceeds {:g} ms", Ms(jitter_ns),
                                             Ms(*limits.max_jitter_ns)));
    }
}

}  // namespace

SensorVerdict Judge(const SensorStats& stats, const AuditLimits& limits, int64_t end_ns,
                    int64_t watched_ns) {
    SensorVerdict verdict{.samples = stats.samples(),
                          .lost_here = stats.lost_here(),
                          .stamped_ns = stats.stamped_ns(),
                          .order = stats.order()};
    if (verdict.samples == 0) {
        verdict.faults.emplace_back("no sample came");
        return verdict;
    }
    verdict.spacing = JudgeSpacing(stats, limits);
    verdict.silent_ns = stats.SilentFor(end_ns);
    verdict.started_late_ns = stats.StartedLate();
    FindSilence(watched_ns, verdict);
    FindOrderFaults(verdict.order, verdict.faults);
    if (verdict.spacing) FindSpacingFaults(limits, verdict);
    return verdict;
}

}  // namespace shdtool
