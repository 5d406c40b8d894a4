// Lays out the live table. Called by watch and replay.
#include "tools/shdtool/views/table.h"

#include <fmt/format.h>

#include <algorithm>

#include "tools/shdtool/engine/line_budget.h"
#include "tools/shdtool/views/event_format.h"

namespace shdtool {
namespace {

constexpr double kNsPerSec = 1e9;
constexpr double kNsPerMs = 1e6;

// SENSOR to GAPS.
constexpr const char* kRowFormat = "{:<20} {:>7} {:>9} {:>7} {:>5} {:>13} {:>8} {:>4}";
constexpr size_t kRowColumns = 80;
constexpr size_t kValueColumns = 42;

std::string RateText(double spacing_ns) {
    return fmt::format("{:.2f}", kNsPerSec / spacing_ns);
}

// Bare when it was asked for, in brackets when it is what the samples seem to have.
std::string AskedText(const SensorStats& sensor, const std::optional<Spacings>& spacing) {
    if (sensor.asked_ns()) return RateText(static_cast<double>(*sensor.asked_ns()));
    return spacing ? fmt::format("({})", RateText(spacing->mean_ns)) : "-";
}

Line StatsRow(const SensorStats& sensor, int64_t now_ns) {
    const auto spacing = sensor.Measured();
    const bool periodic = IsPeriodic(sensor.sensor());
    const auto silent_ns = sensor.SilentFor(now_ns);
    const uint64_t gaps = sensor.gaps().presumed_gaps();
    std::string age =
        sensor.last() ? FormatDuration(now_ns - sensor.last()->arrival_ns) : "none yet";
    if (silent_ns) age = "SILENT " + FormatDuration(*silent_ns);
    std::string rate = spacing ? RateText(spacing->mean_ns) : "-";
    if (silent_ns) rate = "0.00";
    return {fmt::format(kRowFormat, sensor.sensor().name, rate,
                        periodic ? AskedText(sensor, spacing) : "-",
                        spacing ? fmt::format("{:.3f}", spacing->jitter_ns / kNsPerMs) : "-",
                        sensor.batch() > 0 ? fmt::format("{}", sensor.batch()) : "-", age,
                        sensor.samples(), periodic ? fmt::format("{}", gaps) : "-"),
            silent_ns  ? Style::kFault
            : gaps > 0 ? Style::kWarning
                       : Style::kPlain};
}

std::string ValuesText(const SensorStats& sensor) {
    std::string text = sensor.last() ? FormatValues(sensor.last()->decoded) : "";
    if (sensor.flushes() > 0) {
        if (!text.empty()) text += "  ";
        text += fmt::format("[{} flushed]", sensor.flushes());
    }
    return text;
}

std::string Sensors(size_t count) {
    return fmt::format("+{} sensor{}", count, count == 1 ? "" : "s");
}

}  // namespace

std::vector<Line> TableLines(const StatsMap& sensors, int64_t now_ns, WindowSize size,
                             size_t first) {
    constexpr size_t kLeastRows = 8;  // below that the values would take other sensors' place
    const bool wide = size.columns >= kRowColumns + kValueColumns;
    const bool values_below = !wide && size.rows >= kLeastRows;
    std::vector<Line> lines{{fmt::format(kRowFormat, "SENSOR", "RATE Hz", "ASKED Hz", "JITT ms",
                                         "BATCH", "AGE", "EVENTS", "GAPS") +
                                 (wide ? "  VALUES" : ""),
                             Style::kHeading}};
    size_t number = 0;
    size_t shown = 0;
    for (const auto& [handle, sensor] : sensors) {
        if (number++ < first) continue;
        const std::string values = ValuesText(sensor);
        const size_t rows = values_below && !values.empty() ? 2 : 1;
        const bool last = number == sensors.size() && first == 0;
        if (lines.size() + rows + (last ? 0 : 1) > size.rows) break;
        lines.push_back(StatsRow(sensor, now_ns));
        if (wide && !values.empty()) lines.back().text += "  " + values;
        if (values_below && !values.empty()) lines.push_back({"    " + values});
        ++shown;
    }
    const size_t below = sensors.size() - std::min(first + shown, sensors.size());
    if (below > 0 && first > 0) {
        lines.push_back({fmt::format("{} above, {} below", Sensors(first), Sensors(below))});
    } else if (below + first > 0) {
        lines.push_back({Sensors(below + first) + (first > 0 ? " above" : "")});
    }
    return lines;
}

Line LineBudgetLine(const StatsMap& sensors, int64_t now_ns) {
    std::map<int32_t, double> loads;
    for (const auto& [handle, sensor] : sensors) {
        const auto spacing = sensor.Measured();
        if (!spacing || sensor.SilentFor(now_ns)) continue;
        loads[handle] = LineLoad(sensor.sensor(), kNsPerSec / spacing->mean_ns,
                                 static_cast<double>(std::max<size_t>(sensor.batch(), 1)));
    }
    const double load = SumOfLoads(loads);
    const bool full = load > kFullLineShare * kLineBytesPerSec;
    return {
        fmt::format("from the MCU {}{}", LineText(load), full ? "; FULL: samples get lost" : ""),
        full ? Style::kFault : Style::kPlain};
}

void TableView::OnEvent(const shdclient::WatchedEvent& event) {
    const shdclient::SensorInfo& sensor = *event.decoded.sensor;
    if (all_silent_) resumed_ns_ = event.arrival_ns;
    all_silent_ = false;
    sensors_.try_emplace(sensor.handle, sensor, options_, event.arrival_ns)
        .first->second.Add(event);
    if (!start_ns_) start_ns_ = event.arrival_ns;
    if (!event.decoded.flush_complete) ++samples_;
}

void TableView::OnChange(const Delivery& change) {
    if (!Terminal().drawable) EventSink::OnChange(change);
    const int64_t at_ns = change.event.arrival_ns;
    if (change.kind == DeliveryKind::kLost) {
        lost_ns_ = at_ns;
    } else if (change.kind == DeliveryKind::kReconnected) {
        lost_ns_.reset();
        resumed_ns_ = at_ns;
        ++reconnections_;
    }
    for (auto& [handle, sensor] : sensors_) sensor.OnChange(change);
    DrawSoon();
}

void TableView::Reset(int64_t now_ns) {
    sensors_.clear();
    for (const int32_t handle : named_) {
        sensors_.try_emplace(handle, *shdclient::FindSensor(handle), options_, now_ns);
    }
    start_ns_.reset();
    samples_ = 0;
    resumed_ns_.reset();
    all_silent_ = false;
}

void TableView::NoteSilence(int64_t now_ns) {
    constexpr int64_t kRecentNs = 2'000'000'000;  // for sensors without a rhythm
    bool periodic = false;
    bool sending = false;
    for (const auto& [handle, sensor] : sensors_) {
        if (!IsPeriodic(sensor.sensor()) || !sensor.Measured()) {
            sending = sending || (sensor.last() && now_ns - sensor.last()->arrival_ns < kRecentNs);
            continue;
        }
        periodic = true;
        sending = sending || !sensor.SilentFor(now_ns);
    }
    all_silent_ = periodic && !sending;
}

// The sensors that sent before the outage and not behind it.
std::string TableView::NotBack(int64_t now_ns) const {
    std::string names;
    for (const auto& [handle, sensor] : sensors_) {
        const bool silent = sensor.SilentFor(now_ns) && sensor.last();
        if (!silent || sensor.last()->arrival_ns >= *resumed_ns_) continue;
        names += (names.empty() ? "" : ", ") + std::string(sensor.sensor().name);
    }
    return names;
}

std::vector<Line> TableView::StatusLines(const WatchState& state, size_t columns) {
    std::string status = fmt::format("{} samples", samples_);
    if (start_ns_) status += fmt::format(" in {}", FormatDuration(state.now_ns - *start_ns_));
    if (reconnections_ > 0) {
        status += fmt::format("; connected again {} time{}", reconnections_,
                              reconnections_ == 1 ? "" : "s");
    }
    if (paused()) status += "; PAUSED, p goes on";
    std::vector<Line> lines{{status}};
    NoteSilence(state.now_ns);
    int64_t newest_ns = 0;
    uint64_t lost = 0;
    for (const auto& [handle, sensor] : sensors_) {
        if (sensor.last()) newest_ns = std::max(newest_ns, sensor.last()->arrival_ns);
        lost += sensor.lost_here();
    }
    if (lost_ns_) {
        lines.push_back({fmt::format("NO DAEMON for {}; waiting for it",
                                     FormatDuration(state.now_ns - *lost_ns_)),
                         Style::kFault});
    } else if (samples_ == 0) {
        lines.push_back({"nobody sends; is a sensor enabled?", Style::kWarning});
    } else if (all_silent_) {
        lines.push_back({fmt::format("NOBODY SENDS: no sample for {}; see the log of shd",
                                     FormatDuration(state.now_ns - newest_ns)),
                         Style::kFault});
    }
    const std::string names = lost_ns_ || !resumed_ns_ ? "" : NotBack(state.now_ns);
    if (!names.empty()) {
        lines.push_back({"did not come back after the outage: " + names, Style::kFault});
    }
    if (lost > 0 || state.surely_missed) {
        lines.push_back({fmt::format("LOST ON THE WAY HERE: {} samples; nobody read for {}", lost,
                                     FormatDuration(state.missed_ns)),
                         Style::kWarning});
    }
    return WrappedLines(lines, columns);
}

std::vector<Line> TableView::Page(const WatchState& state, WindowSize size) {
    std::vector<Line> page = StatusLines(state, size.columns);
    page.emplace_back();
    const size_t kept = page.size() + 2;  // a blank line and the footer
    const size_t rows = std::max<size_t>(size.rows > kept ? size.rows - kept : 0, 3);
    for (Line& line : TableLines(sensors_, state.now_ns, {size.columns, rows}, first())) {
        page.push_back(std::move(line));
    }
    Line footer = LineBudgetLine(sensors_, state.now_ns);
    // A full line is worth more than the legend; both do not fit a window of 80 columns.
    if (!options_.asked_ns && footer.style == Style::kPlain)
        footer.text += "; (Hz): measured, see --rate";
    page.push_back({});
    page.push_back(std::move(footer));
    return page;
}

}  // namespace shdtool
