// Formats event values and times. Called by the watching commands.
#include "tools/shdtool/views/event_format.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <iterator>

#include "tools/shdtool/base/hex.h"

namespace shdtool {
namespace {

constexpr double kNsPerMs = 1e6;
constexpr int64_t kNsPerUs = 1'000;
constexpr int64_t kUsPerSec = 1'000'000;

bool IsCount(const shdclient::SensorInfo& sensor) {
    return sensor.form != shdclient::DataForm::kFloats || sensor.is_virtual;
}

}  // namespace

std::string FormatValues(const shdclient::DecodedEvent& event) {
    if (event.flush_complete) return "flush complete";
    const shdclient::SensorInfo& sensor = *event.sensor;
    std::string text;
    auto out = std::back_inserter(text);
    for (size_t i = 0; i < event.value_count; ++i) {
        const shdclient::Axis& axis = sensor.axes[i];
        if (i > 0) text += "  ";
        if (IsCount(sensor)) {
            fmt::format_to(out, "{} {:.10g}", axis.name, event.all_values[i]);
        } else {
            fmt::format_to(out, "{} {:>8.4f}", axis.name, event.all_values[i]);
        }
        // A unit that all axes share stands behind the last one.
        const bool shared = i + 1 < event.value_count && sensor.axes[i + 1].unit == axis.unit;
        if (!shared && !axis.unit.empty()) fmt::format_to(out, " {}", axis.unit);
    }
    if (event.value_count == 0 && event.byte_count > 0) {
        text = "bytes " + FormatHex(event.bytes());
    }
    return text;
}

std::string FormatTime(int64_t timestamp_ns) {
    const bool negative = timestamp_ns < 0;
    const int64_t us = std::abs(timestamp_ns / kNsPerUs);
    return fmt::format("{}{}.{:06} s", negative ? "-" : "", us / kUsPerSec, us % kUsPerSec);
}

std::string FormatSpacing(int64_t spacing_ns) {
    return fmt::format("{:+.3f} ms", static_cast<double>(spacing_ns) / kNsPerMs);
}

std::string FormatDuration(int64_t duration_ns) {
    const double seconds = static_cast<double>(duration_ns) / 1e9;
    if (seconds < 0.9995) return fmt::format("{:.0f} ms", seconds * 1e3);
    if (seconds < 99.95) return fmt::format("{:.1f} s", seconds);
    const int64_t minutes = std::llround(seconds) / 60;
    if (minutes >= 60) return fmt::format("{}h {:02}m", minutes / 60, minutes % 60);
    return fmt::format("{}m {:02}s", minutes, std::llround(seconds) % 60);
}

double PlainNumber(double value) {
    const float narrow = static_cast<float>(value);
    if (!std::isfinite(value) || static_cast<double>(narrow) != value) return value;
    const std::string text = fmt::format("{}", narrow);
    double plain = value;
    std::from_chars(text.data(), text.data() + text.size(), plain);
    return plain;
}

}  // namespace shdtool
