// Formats the outcome of an audit. Called by the audit.
#include "tools/shdtool/audit/report.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "tools/cli/parse.h"
#include "tools/shdtool/base/command.h"
#include "tools/shdtool/engine/line_budget.h"

namespace shdtool {
namespace {

constexpr double kNsPerMs = 1e6;
constexpr double kNsPerSec = 1e9;
constexpr size_t kBarColumns = 40;

template <typename T>
double Ms(T ns) {
    return static_cast<double>(ns) / kNsPerMs;
}

double MeanDelay(const SensorVerdict& verdict) {
    return Ms(verdict.order.delay_sum_ns / static_cast<double>(verdict.samples));
}

std::string Joined(const std::vector<std::string>& parts) {
    return fmt::format("{}", fmt::join(parts, "; "));
}

std::string ClassName(size_t index) {
    if (index == 0) return fmt::format("below {:g} %", kSpacingClasses[0] * 100);
    const double from = kSpacingClasses[index - 1] * 100;
    if (index == kSpacingClasses.size()) return fmt::format("from {:g} %", from);
    return fmt::format("{:g} .. {:g} %", from, kSpacingClasses[index] * 100);
}

void AppendHistogram(const SpacingVerdict& spacing, std::string& text) {
    const uint64_t most = *std::max_element(spacing.histogram.begin(), spacing.histogram.end());
    text += "\n  spacing as a share of the period";
    for (size_t i = 0; i < spacing.histogram.size(); ++i) {
        const uint64_t count = spacing.histogram[i];
        // Rounded up, so that a single sample still shows.
        const auto bar = static_cast<size_t>((count * kBarColumns + most - 1) / most);
        fmt::format_to(std::back_inserter(text), "\n    {:>14} {:>9}{}{}", ClassName(i), count,
                       bar > 0 ? "  " : "", std::string(bar, '#'));
    }
}

void AppendSpacing(const AuditReport& report, const SpacingVerdict& spacing, std::string& text) {
    const Spacings& measured = spacing.measured;
    const double off = measured.mean_ns / static_cast<double>(spacing.period_ns) - 1;
    auto out = std::back_inserter(text);
    fmt::format_to(out, "\n  spacing   mean {:.3f} ms, {:+.2f} % off the {} period of {:.3f} ms",
                   Ms(measured.mean_ns), off * 100, report.period_given ? "given" : "measured",
                   Ms(spacing.period_ns));
    fmt::format_to(out, "\n            {:.3f} to {:.3f} ms, jitter {:.3f} ms",
                   Ms(measured.shortest_ns), Ms(measured.longest_ns), Ms(measured.jitter_ns));
    fmt::format_to(out, "\n  gaps      {} ({} samples missing), {} late", spacing.gaps,
                   spacing.missing, spacing.late);
}

std::string FlushText(const SensorReport& sensor) {
    if (!sensor.flushes) return fmt::format("{} flush-complete events", sensor.flush_complete);
    const FlushCounts& counts = *sensor.flushes;
    std::string text = fmt::format("{} sent, {} complete", counts.sent, counts.completed);
    if (counts.missed > 0) text += fmt::format(", {} without end", counts.missed);
    if (counts.refused > 0) text += fmt::format(", {} refused", counts.refused);
    if (counts.open > 0) text += ", one still under way at the end";
    if (counts.unasked > 0) text += fmt::format("; {} of others", counts.unasked);
    return text;
}

void AppendSensor(const AuditReport& report, const SensorReport& sensor, std::string& text) {
    constexpr size_t kColumns = 80;
    const SensorVerdict& verdict = sensor.verdict;
    auto out = std::back_inserter(text);
    const bool ok = verdict.faults.empty();
    text += cli::Wrapped(
        fmt::format("{}: {}", sensor.sensor->name, ok ? "ok" : "FAULT: " + Joined(verdict.faults)),
        kColumns, 0);
    if (verdict.samples > 0) {
        const double seconds = static_cast<double>(verdict.stamped_ns) / kNsPerSec;
        fmt::format_to(out, "\n  samples   {} in {:.3f} s", verdict.samples, seconds);
        if (verdict.lost_here > 0) {
            fmt::format_to(out, "; {} lost on the way here", verdict.lost_here);
        }
        if (verdict.spacing) AppendSpacing(report, *verdict.spacing, text);
        const OrderCounts& order = verdict.order;
        fmt::format_to(out, "\n  order     {} backwards, {} duplicates, {} in the future",
                       order.backwards, order.duplicates, order.future);
        fmt::format_to(out,
                       "\n  arrival   {:.3f} to {:.3f} ms after the time stamp, mean {:.3f} ms",
                       Ms(order.shortest_delay_ns), Ms(order.longest_delay_ns), MeanDelay(verdict));
    }
    if (sensor.flushes || sensor.flush_complete > 0) {
        fmt::format_to(out, "\n  flushes   {}", FlushText(sensor));
    }
    if (verdict.spacing) AppendHistogram(*verdict.spacing, text);
    text += '\n';
}

Json SpacingFields(const AuditReport& report, const SpacingVerdict& spacing) {
    Json histogram = Json::List();
    for (size_t i = 0; i < spacing.histogram.size(); ++i) {
        Json one{{"from", i == 0 ? 0.0 : kSpacingClasses[i - 1]}};
        if (i < kSpacingClasses.size()) one.Set("below", kSpacingClasses[i]);
        histogram.Add(one.Set("count", spacing.histogram[i]));
    }
    return {{"period_ns", spacing.period_ns},
            {"period_from", report.period_given ? "option" : "measured"},
            {"mean_ns", spacing.measured.mean_ns},
            {"shortest_ns", spacing.measured.shortest_ns},
            {"longest_ns", spacing.measured.longest_ns},
            {"jitter_ns", spacing.measured.jitter_ns},
            {"gaps", spacing.gaps},
            {"missing", spacing.missing},
            {"late", spacing.late},
            {"histogram", histogram}};
}

Json FieldsOf(const AuditReport& report, const SensorReport& sensor) {
    const SensorVerdict& verdict = sensor.verdict;
    Json object = SensorFields(*sensor.sensor);
    object.Merge({{"ok", verdict.faults.empty()},
                  {"faults", Json::List(verdict.faults)},
                  {"samples", verdict.samples},
                  {"lost_here", verdict.lost_here},
                  {"duration_ns", verdict.stamped_ns},
                  {"backwards", verdict.order.backwards},
                  {"duplicates", verdict.order.duplicates},
                  {"future", verdict.order.future}});
    if (verdict.samples > 0) {
        object.Set("delay_ns", {{"shortest", verdict.order.shortest_delay_ns},
                                {"mean", MeanDelay(verdict) * kNsPerMs},
                                {"longest", verdict.order.longest_delay_ns}});
    }
    object.Set("silent_ns", verdict.silent_ns.value_or(0));
    object.Set("started_late_ns", verdict.started_late_ns.value_or(0));
    if (verdict.spacing) object.Set("spacing", SpacingFields(report, *verdict.spacing));
    object.Set("flush_complete", sensor.flush_complete);
    if (sensor.flushes) {
        const FlushCounts& counts = *sensor.flushes;
        object.Set("flushes", {{"sent", counts.sent},
                               {"completed", counts.completed},
                               {"missed", counts.missed},
                               {"refused", counts.refused},
                               {"open", counts.open},
                               {"unasked", counts.unasked}});
    }
    return object;
}

}  // namespace

void AuditReport::JudgeFlushes(SensorReport& sensor) {
    if (!sensor.flushes) return;
    const FlushCounts& counts = *sensor.flushes;
    if (counts.missed > 0) {
        sensor.verdict.faults.push_back(fmt::format(
            "{} of {} flushes without a flush-complete event", counts.missed, counts.sent));
    }
    if (counts.refused > 0) {
        sensor.verdict.faults.push_back(fmt::format("{} of {} flushes refused ({})", counts.refused,
                                                    counts.sent, counts.refusal));
    }
}

void AuditReport::JudgeLine() {
    if (line_bytes_per_sec < kFullLineShare * kLineBytesPerSec) return;
    const bool missing = std::any_of(sensors.begin(), sensors.end(), [](const SensorReport& s) {
        return s.verdict.spacing && !s.verdict.faults.empty();
    });
    if (!missing) return;
    stream_faults.push_back(
        fmt::format("the line is full ({}): what is missing did not fit; ask for lower rates or "
                    "larger batches",
                    LineText(line_bytes_per_sec)));
}

bool AuditReport::ok() const {
    return stream_faults.empty() &&
           std::all_of(sensors.begin(), sensors.end(),
                       [](const SensorReport& sensor) { return sensor.verdict.faults.empty(); });
}

std::string AuditText(const AuditReport& report) {
    std::string text;
    size_t faulty = 0;
    for (const SensorReport& sensor : report.sensors) {
        AppendSensor(report, sensor, text);
        if (!sensor.verdict.faults.empty()) ++faulty;
    }
    if (!report.stream_faults.empty()) {
        text += cli::Wrapped("stream: FAULT: " + Joined(report.stream_faults), 80, 0) + '\n';
    }
    const size_t count = report.sensors.size();
    const std::string sensors = fmt::format("{} sensor{}", count, count == 1 ? "" : "s");
    const double seconds = static_cast<double>(report.watched_ns) / kNsPerSec;
    text += report.ok() ? fmt::format("ok: {}", sensors)
                        : fmt::format("FAULT: {} of {}{}", faulty, sensors,
                                      report.stream_faults.empty() ? "" : ", and the stream");
    return text + fmt::format(" in {:.1f} s, {}", seconds, LineText(report.line_bytes_per_sec));
}

Json AuditFields(const AuditReport& report) {
    Json sensors = Json::List();
    for (const SensorReport& sensor : report.sensors) sensors.Add(FieldsOf(report, sensor));
    return {{"faults", Json::List(report.stream_faults)},
            {"watched_ns", report.watched_ns},
            {"line_bytes_per_sec", report.line_bytes_per_sec},
            {"sensors", sensors}};
}

}  // namespace shdtool
