// Lays out and draws the live chart. Called by watch and replay.
#include "tools/shdtool/views/plot.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "tools/shdtool/engine/spacing.h"
#include "tools/shdtool/views/event_format.h"
#include "tools/shdtool/views/plot_canvas.h"

namespace shdtool {
namespace {

constexpr double kNsPerSec = 1e9;
constexpr double kNothing = std::numeric_limits<double>::quiet_NaN();
constexpr size_t kMinStripRows = 3;  // a caption and two rows of the curve

}  // namespace

void PlotStrip::Forget(int64_t before_ns) {
    while (points_.size() > 1 && points_[1].time_ns < before_ns) points_.pop_front();
}

std::pair<double, double> PlotStrip::Scale() const {
    double low = std::numeric_limits<double>::infinity();
    double high = -low;
    for (const Point& point : points_) {
        if (!std::isfinite(point.value)) continue;
        low = std::min(low, point.value);
        high = std::max(high, point.value);
    }
    if (low > high) return {0, 1};
    const double least = std::max(std::abs(high) * 1e-6, 1e-6);  // a flat line has no range
    if (high - low < least) return {low - least, high + least};
    return {low, high};
}

std::string PlotStrip::Caption(double low, double high, std::optional<int64_t> silent_ns) const {
    const shdclient::Axis& axis = sensor_.axes[axis_];
    std::string caption = fmt::format("{} {}", sensor_.name, axis.name);
    if (silent_ns) caption += fmt::format("  SILENT {}, last", FormatDuration(*silent_ns));
    const auto last = std::find_if(points_.rbegin(), points_.rend(),
                                   [](const Point& point) { return !std::isnan(point.value); });
    if (last != points_.rend())
        caption += fmt::format("{} {:.6g}", silent_ns ? "" : " ", PlainNumber(last->value));
    if (!axis.unit.empty()) caption += fmt::format(" {}", axis.unit);
    return caption + fmt::format("   scale {:.4g} to {:.4g}", low, high);
}

std::vector<Line> PlotStrip::Draw(int64_t start_ns, int64_t end_ns, size_t columns, size_t rows,
                                  std::optional<int64_t> silent_ns) const {
    const auto [low, high] = Scale();
    PlotCanvas canvas(columns, rows - 1);
    const double dots_per_ns =
        static_cast<double>(canvas.width()) / static_cast<double>(end_ns - start_ns);
    const double dots_per_unit = static_cast<double>(canvas.height() - 1) / (high - low);
    std::optional<PlotCanvas::Dot> from;
    for (const Point& point : points_) {
        if (!std::isfinite(point.value)) {
            from.reset();
            continue;
        }
        const PlotCanvas::Dot to{static_cast<double>(point.time_ns - start_ns) * dots_per_ns,
                                 (high - point.value) * dots_per_unit};
        canvas.Line(from && from->x < to.x ? *from : to, to);  // time may go backwards
        from = to;
    }
    std::vector<Line> lines{
        {Caption(low, high, silent_ns), silent_ns ? Style::kFault : Style::kPlain}};
    for (std::string& row : canvas.Lines(Terminal().utf8)) lines.push_back({std::move(row)});
    return lines;
}

PlotView::PlotView(double window_sec, const StatsOptions& options)
    : window_ns_(static_cast<int64_t>(window_sec * kNsPerSec)), options_(options) {}

// Between samples further apart than three of the usual spacings there is a gap, but the second one
// in a row is what the sensor has now.
bool PlotView::IsGap(Sensor& sensor, const shdclient::DecodedEvent& event) {
    constexpr double kGapPeriods = 3;
    constexpr double kSmoothing = 0.1;
    if (!sensor.stats.last()) return false;
    const auto spacing_ns =
        static_cast<double>(event.timestamp_ns - sensor.stats.last()->decoded.timestamp_ns);
    const bool is_long = sensor.usual_ns > 0 && IsPeriodic(*event.sensor) &&
                         spacing_ns > kGapPeriods * sensor.usual_ns;
    const bool again = std::exchange(sensor.was_long, is_long) && is_long;
    if (sensor.usual_ns <= 0 || again) sensor.usual_ns = spacing_ns;
    if (!is_long) sensor.usual_ns += kSmoothing * (spacing_ns - sensor.usual_ns);
    return is_long && !again;
}

void PlotView::OnEvent(const shdclient::WatchedEvent& event) {
    const shdclient::DecodedEvent& decoded = event.decoded;
    if (decoded.value_count == 0) return;
    Sensor& sensor = sensors_
                         .try_emplace(decoded.sensor->handle,
                                      Sensor{{*decoded.sensor, options_, event.arrival_ns}})
                         .first->second;
    for (size_t axis = sensor.strips.size(); axis < decoded.value_count; ++axis) {
        sensor.strips.emplace_back(*decoded.sensor, axis);
    }
    const bool gap = IsGap(sensor, decoded);
    for (size_t axis = 0; axis < decoded.value_count; ++axis) {
        PlotStrip& strip = sensor.strips[axis];
        if (gap) strip.Add({decoded.timestamp_ns, kNothing});
        strip.Add({decoded.timestamp_ns, decoded.all_values[axis]});
    }
    sensor.stats.Add(event);
}

void PlotView::OnChange(const Delivery& change) {
    change_ = change;
    for (auto& [handle, sensor] : sensors_) {
        sensor.stats.OnChange(change);
        for (PlotStrip& strip : sensor.strips) strip.Add({change.event.arrival_ns, kNothing});
    }
    DrawSoon();
}

void PlotView::Reset(int64_t /*now_ns*/) {
    sensors_.clear();
    change_.reset();
}

std::vector<PlotView::Place> PlotView::Strips() const {
    std::vector<Place> strips;
    for (const auto& [handle, sensor] : sensors_) {
        for (const PlotStrip& strip : sensor.strips) strips.push_back({&sensor, &strip});
    }
    return strips;
}

std::string PlotView::StatusLine(const WatchState& state, size_t shown) const {
    std::string line = fmt::format("{:g} s up to now, {} samples",
                                   static_cast<double>(window_ns_) / kNsPerSec, state.samples);
    if (paused()) line += "; PAUSED";
    const size_t hidden = Strips().size() - shown;
    if (hidden > 0) line += fmt::format("; +{} axes: arrows", hidden);
    const bool changed = change_ && (change_->kind == DeliveryKind::kLost ||
                                     change_->event.arrival_ns > state.now_ns - window_ns_);
    if (changed) line += fmt::format("; {}", ChangeText(*change_));
    if (sensors_.empty() && !changed) line += "; no values yet, is a sensor enabled?";
    return line;
}

std::vector<Line> PlotView::Page(const WatchState& state, WindowSize size) {
    constexpr size_t kMostRows = 12;  // of a strip that is printed at the end
    const int64_t start_ns = state.now_ns - window_ns_;
    for (auto& [handle, sensor] : sensors_) {
        for (PlotStrip& strip : sensor.strips) strip.Forget(start_ns);
    }
    const std::vector<Place> strips = Strips();
    const size_t room = size.rows > 1 ? size.rows - 1 : 1;
    const size_t shown =
        std::min(strips.size() - first(), std::max<size_t>(room / kMinStripRows, 1));
    std::vector<Line> page{{StatusLine(state, shown), Style::kHeading}};
    size_t left = room;
    for (size_t i = 0; i < shown; ++i) {
        const size_t rows = std::clamp<size_t>(left / (shown - i), 2, kMostRows);
        left -= std::min(left, rows);
        const auto [sensor, strip] = strips[first() + i];
        for (Line& line : strip->Draw(start_ns, state.now_ns, std::max<size_t>(size.columns, 2),
                                      rows, sensor->stats.SilentFor(state.now_ns))) {
            page.push_back(std::move(line));
        }
    }
    return page;
}

}  // namespace shdtool
