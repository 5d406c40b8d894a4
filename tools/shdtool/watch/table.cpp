// Lays out and draws the live table. Called by watch and replay.
#include "tools/shdtool/watch/table.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

#include "tools/shdtool/watch/event_format.h"

namespace shdtool {
namespace {

constexpr double kNsPerSec = 1e9;
constexpr double kNsPerMs = 1e6;
constexpr std::chrono::milliseconds kRedrawInterval{150};
constexpr size_t kPrintedColumns = 160;  // of the last state, where there is no window

// SENSOR to GAPS.
constexpr const char* kRowFormat = "{:<20} {:>8} {:>9} {:>9} {:>5} {:>8} {:>8} {:>4}";
constexpr size_t kRowColumns = 80;
constexpr size_t kValueColumns = 42;

std::string RateText(double spacing_ns) {
    return fmt::format("{:.2f}", kNsPerSec / spacing_ns);
}

// Bare when it was asked for, in brackets when it is what the samples seem to have.
std::string AskedText(const SensorStats& sensor, const std::optional<SpacingStats>& spacing) {
    if (sensor.asked_ns()) return RateText(static_cast<double>(*sensor.asked_ns()));
    if (!spacing) return "-";
    return fmt::format("({})", RateText(static_cast<double>(spacing->period_ns)));
}

std::string StatsRow(const SensorStats& sensor, int64_t now_ns) {
    const auto spacing = sensor.spacing();
    const bool periodic = IsPeriodic(sensor.sensor());
    return fmt::format(
        kRowFormat, sensor.sensor().name, spacing ? RateText(spacing->spread.mean_ns) : "-",
        periodic ? AskedText(sensor, spacing) : "-",
        spacing ? fmt::format("{:.3f}", spacing->spread.jitter_ns / kNsPerMs) : "-",
        sensor.batch() > 0 ? fmt::format("{}", sensor.batch()) : "-",
        sensor.last() ? FormatDuration(now_ns - sensor.last()->arrival_ns) : "-", sensor.samples(),
        periodic ? fmt::format("{}", sensor.gaps().presumed_gaps()) : "-");
}

std::string ValuesText(const SensorStats& sensor) {
    std::string text = sensor.last() ? FormatValues(sensor.last()->decoded) : "";
    if (sensor.flushes() > 0) {
        if (!text.empty()) text += "  ";
        text += fmt::format("[{} flushed]", sensor.flushes());
    }
    return text;
}

}  // namespace

std::vector<std::string> TableLines(const std::map<int32_t, SensorStats>& sensors, int64_t now_ns,
                                    size_t columns) {
    const bool wide = columns >= kRowColumns + kValueColumns;
    std::vector<std::string> lines;
    lines.push_back(fmt::format(kRowFormat, "SENSOR", "RATE Hz", "ASKED Hz", "JITTER ms", "BATCH",
                                "AGE", "EVENTS", "GAPS") +
                    (wide ? "  VALUES" : ""));
    bool measured = false;
    for (const auto& [handle, sensor] : sensors) {
        const std::string values = ValuesText(sensor);
        lines.push_back(StatsRow(sensor, now_ns));
        if (wide && !values.empty()) lines.back() += "  " + values;
        if (!wide && !values.empty()) lines.push_back("    " + values);
        measured = measured || (!sensor.asked_ns() && IsPeriodic(sensor.sensor()));
    }
    if (measured) {
        lines.emplace_back();
        lines.emplace_back("(Hz): not asked, but what the time stamps seem to have; see --rate");
    }
    return lines;
}

void TableView::OnEvent(const shdclient::WatchedEvent& event) {
    const shdclient::SensorInfo& sensor = *event.decoded.sensor;
    sensors_.try_emplace(sensor.handle, sensor, asked_ns_).first->second.Add(event);
    if (!start_ns_) start_ns_ = event.arrival_ns;
}

void TableView::OnChange(shdclient::WatchChange change, int64_t at_ns) {
    if (!terminal_) EventSink::OnChange(change, at_ns);
    if (change == shdclient::WatchChange::kLost) {
        lost_ns_ = at_ns;
        for (auto& [handle, sensor] : sensors_) sensor.Interrupt();
    } else {
        lost_ns_.reset();
        ++reconnections_;
    }
    drawn_ = {};
}

std::vector<std::string> TableView::Page(const WatchState& state, size_t columns) const {
    std::string status = lost_ns_ ? fmt::format("NO DAEMON for {}; waiting for it",
                                                FormatDuration(state.now_ns - *lost_ns_))
                                  : fmt::format("{} samples", state.samples);
    if (!lost_ns_ && start_ns_) {
        status += fmt::format(" in {}", FormatDuration(state.now_ns - *start_ns_));
    }
    if (state.samples == 0 && !lost_ns_) status += "; is a sensor enabled?";
    if (reconnections_ > 0) {
        status +=
            fmt::format("; connected again {}",
                        reconnections_ == 1 ? "once" : fmt::format("{} times", reconnections_));
    }
    if (state.discarded_bytes + state.overrun_events > 0) status += "; EVENTS LOST, came too fast";
    std::vector<std::string> page{status, ""};
    for (std::string& line : TableLines(sensors_, state.now_ns, columns)) {
        page.push_back(std::move(line));
    }
    return page;
}

void TableView::OnSilence() {
    if (!terminal_) EventSink::OnSilence();  // else the page says it
}

shdclient::Status TableView::OnTick(const WatchState& state) {
    const auto now = std::chrono::steady_clock::now();
    if (!terminal_ || now - drawn_ < kRedrawInterval) return shdclient::Success();
    drawn_ = now;
    screen_.Draw(Page(state, Screen::size().columns));
    return shdclient::Success();
}

shdclient::Status TableView::OnEnd(const WatchState& state) {
    screen_.Leave();
    const size_t columns = terminal_ ? Screen::size().columns : kPrintedColumns;
    for (const std::string& line : Page(state, columns)) fmt::print("{}\n", line);
    return shdclient::Success();
}

}  // namespace shdtool
