// shdtool audit: whether the events are what a program may rely on. A row of the table of commands.
#include <fmt/format.h>
#include <unistd.h>

#include <cmath>
#include <map>
#include <memory>

#include "tools/shdtool/audit/report.h"
#include "tools/shdtool/base/command_rows.h"
#include "tools/shdtool/engine/line_budget.h"
#include "tools/shdtool/engine/live_source.h"
#include "tools/shdtool/engine/recording_source.h"
#include "tools/shdtool/views/options.h"

namespace shdtool {
namespace {

using shdclient::Error;
using shdclient::Result;
using shdclient::SensorInfo;

constexpr double kNsPerMs = 1e6;
constexpr double kNsPerSec = 1e9;

struct AuditRequest {
    std::string path;  // empty: the live stream
    WatchRequest watch;
    AuditLimits limits = {};
    std::optional<double> flush_every_sec = {};
    double flush_wait_sec = 0;
};

// Collects what comes; the statistics of named sensors are there from the start.
class Auditor final : public EventSink {
  public:
    Auditor(const AuditRequest& request, std::unique_ptr<FlushProbe> probe)
        : request_(request), probe_(std::move(probe)) {}

    void OnStart(EventSource& source) override {
        start_ns_ = source.now_ns();
        for (const int32_t handle : request_.watch.handles) Find(*shdclient::FindSensor(handle));
    }

    void OnEvent(const shdclient::WatchedEvent& event) override {
        const SensorInfo& sensor = *event.decoded.sensor;
        SensorStats& stats = Find(sensor);
        stats.Add(event);
        if (event.decoded.flush_complete) {
            if (probe_) probe_->OnFlushComplete(sensor.handle);
            return;
        }
        const double batch = static_cast<double>(std::max<size_t>(stats.batch(), 1));
        line_bytes_[sensor.handle] += LineLoad(sensor, 1, batch);
    }

    void OnChange(const Delivery& change) override {
        EventSink::OnChange(change);
        const int64_t at_ns = change.event.arrival_ns;
        if (change.kind == DeliveryKind::kLost) {
            ++connections_lost_;
            lost_ns_ = at_ns;
        } else if (change.kind == DeliveryKind::kReconnected) {
            away_ns_ += at_ns - lost_ns_.value_or(at_ns);
            lost_ns_.reset();
        }
        for (auto& [handle, stats] : sensors_) stats.OnChange(change);
    }

    // What came before had another period.
    void OnEnabled(int64_t at_ns) override {
        if (connections_lost_ == 0) start_ns_ = at_ns;
        for (auto& [handle, stats] : sensors_) stats.Restart(at_ns);
    }

    Result<bool> OnTick(const WatchState& state) override {
        if (!probe_) return true;
        for (const auto& [handle, stats] : sensors_) probe_->Include(handle, state.now_ns);
        probe_->Tick(state.now_ns);
        return true;
    }

    [[nodiscard]] AuditReport Finish(const WatchState& state) const {
        AuditReport report;
        report.watched_ns = std::max<int64_t>(state.now_ns - start_ns_, 0);
        report.period_given = request_.limits.stats.asked_ns.has_value();
        // While the daemon is away no sensor can send.
        const int64_t end_ns = lost_ns_.value_or(state.now_ns);
        const int64_t connected_ns = end_ns - start_ns_ - away_ns_;
        for (const auto& [handle, stats] : sensors_) {
            SensorReport sensor{&stats.sensor(),
                                Judge(stats, request_.limits, end_ns, report.watched_ns),
                                stats.flushes(), std::nullopt};
            if (probe_) sensor.flushes = probe_->counts(handle);
            AuditReport::JudgeFlushes(sensor);
            report.sensors.push_back(std::move(sensor));
        }
        if (connected_ns > 0) {
            report.line_bytes_per_sec =
                SumOfLoads(line_bytes_) * kNsPerSec / static_cast<double>(connected_ns);
        }
        FindStreamFaults(state, report);
        report.JudgeLine();
        return report;
    }

  private:
    void FindStreamFaults(const WatchState& state, AuditReport& report) const {
        if (report.sensors.empty()) report.stream_faults.emplace_back("no event came");
        if (connections_lost_ > 0) {
            const int64_t away_ns = away_ns_ + (lost_ns_ ? state.now_ns - *lost_ns_ : 0);
            report.stream_faults.push_back(fmt::format(
                "the connection to the daemon was lost {}, for {:.1f} s",
                connections_lost_ == 1 ? "once" : fmt::format("{} times", connections_lost_),
                static_cast<double>(away_ns) / kNsPerSec));
        }
        uint64_t lost = 0;
        for (const SensorReport& sensor : report.sensors) lost += sensor.verdict.lost_here;
        if (lost > 0 || state.surely_missed) {
            report.stream_faults.push_back(fmt::format(
                "{} samples were lost on the way to this program, which did not read for {:.2f} s; "
                "the sensors are not to blame for them",
                lost, static_cast<double>(state.missed_ns) / kNsPerSec));
        }
    }

    SensorStats& Find(const SensorInfo& sensor) {
        return sensors_.try_emplace(sensor.handle, sensor, request_.limits.stats, start_ns_)
            .first->second;
    }

    const AuditRequest& request_;
    const std::unique_ptr<FlushProbe> probe_;
    std::map<int32_t, SensorStats> sensors_;  // by handle
    int64_t start_ns_ = 0;
    std::optional<int64_t> lost_ns_;  // set while the daemon is away
    int64_t away_ns_ = 0;             // before that, in all
    uint64_t connections_lost_ = 0;
    std::map<int32_t, double> line_bytes_;  // by handle
};

std::unique_ptr<FlushProbe> MakeProbe(const Context& context, const AuditRequest& request) {
    if (!request.flush_every_sec) return nullptr;
    return std::make_unique<FlushProbe>(context.root, context.timeout(),
                                        std::llround(*request.flush_every_sec * kNsPerSec),
                                        std::llround(request.flush_wait_sec * kNsPerSec));
}

shdclient::Result<AuditRequest> RequestOf(const cli::Arguments& arguments) {
    const auto watch = WatchRequestOf(arguments, "--sensor");
    if (!watch) return watch.error();
    AuditRequest request{.path = arguments.Text("FILE"), .watch = *watch};
    request.limits.stats.asked_ns = watch->asked_ns();
    request.limits.stats.asked_batch = watch->batch;
    request.limits.mean_tolerance = arguments.Number("--mean-tolerance") / 100;
    request.limits.stats.gap_factor = arguments.Number("--gap-factor");
    request.limits.max_gaps = static_cast<uint64_t>(arguments.Integer("--max-gaps"));
    if (const auto ms = arguments.MaybeNumber("--max-jitter")) {
        request.limits.max_jitter_ns = std::llround(*ms * kNsPerMs);
    }
    request.limits.stats.future_tolerance_ns =
        std::llround(arguments.Number("--future") * kNsPerMs);
    request.flush_every_sec = arguments.MaybeNumber("--flush");
    request.flush_wait_sec = arguments.Number("--flush-wait");
    const bool limited = arguments.Has("--seconds") || arguments.Has("--count");
    if (request.path.empty() && !limited) {
        return WrongUsage(
            "audit: name a recording, or give --seconds or --count for an audit of the live "
            "stream");
    }
    for (const char* live : {"--enable", "--flush"}) {
        if (request.path.empty() || !arguments.Has(live)) continue;
        return WrongUsage(fmt::format("{} is for the live stream, not for a recording", live));
    }
    return request;
}

Outcome Audit(Context& context) {
    const auto request = RequestOf(context.arguments);
    if (!request) return request.error();
    const WatchRequest& watch = request->watch;
    std::optional<RecordingSource> recording;
    std::optional<LiveSource> live;
    if (request->path.empty()) {
        live.emplace(context.root, watch.handles);
        if (!context.json && isatty(STDERR_FILENO) == 1) {
            fmt::print(stderr, "shdtool: listening; Ctrl-C ends the audit early\n");
        }
    } else {
        auto reader = RecordReader::Open(request->path);
        if (!reader) return reader.error();
        recording.emplace(std::move(*reader), 0, watch.handles);
    }
    Auditor auditor(*request, MakeProbe(context, *request));
    EventSource& source = live ? static_cast<EventSource&>(*live) : *recording;
    const auto end = WatchEvents(context, source, watch, auditor);
    if (!end) return end.error();
    const AuditReport audited = auditor.Finish(*end);
    Report report{AuditText(audited), AuditFields(audited)};
    if (recording && recording->damage()) {  // what was behind it has not been judged
        const Error& damage = *recording->damage();
        report.complaint = damage.message;
        report.exit_status = ExitStatusOf(damage.code);
        report.fields.Set("damage", damage.message);
    }
    if (!audited.ok()) report.exit_status = kExitRefused;
    return report;
}

const cli::Options kAuditedFile{
    {"FILE", cli::Kind::kFile, "", "A recording; without it the live stream is checked"},
    cli::Sensor("--sensor", "SENSOR",
                "Only this sensor, by name or handle, and it must send something; may be repeated")
        .Repeated()};

const cli::Options kFaultLimits{
    {"--mean-tolerance", cli::Kind::kNumber, "PERCENT",
     "How far the mean spacing may be off a given period, in percent", 0, 1000, "5"},
    {"--gap-factor", cli::Kind::kNumber, "X",
     "A spacing of more periods than this is a gap, unless the following samples make up "
     "for it: then it counts as late, which is no fault",
     1.01, 1000, "1.8"},
    {"--max-gaps", cli::Kind::kInteger, "N", "Gaps that are no fault yet", 0, 1e9, "0"},
    {"--max-jitter", cli::Kind::kNumber, "MS",
     "Standard deviation of the spacing that is no fault yet; else any is", 0, 1e9},
    {"--future", cli::Kind::kNumber, "MS", "How far a time stamp may be ahead of the arrival", 0,
     1e9, "0"},
    {"--flush", cli::Kind::kNumber, "SEC",
     "Flush each sensor every so many seconds and expect its flush-complete event (the "
     "flushes of others cannot be seen, so without this their events are only counted)",
     0.01, 1e6},
    {"--flush-wait", cli::Kind::kNumber, "SEC", "Time within which the event must come", 0.01, 1e6,
     "5"}};

}  // namespace

CommandRows AuditCommands() {
    return {
        {{"Events", "audit",
          "Check the time stamps of a recording or of the live stream: order, spacing, gaps, "
          "duplicates, silence, flushes",
          cli::Joined({kAuditedFile, kLimitOptions, kPeriodOptions, kEnableOptions, kFaultLimits}),
          "Exit status: 0 all is well, 1 something is wrong.",
          "shdtool audit walk.shdrec\n"
          "shdtool audit walk.shdrec --sensor accelerometer --rate 50 --max-jitter 5\n"
          "shdtool audit --seconds 10 --sensor gyroscope --rate 50 --batch 10 --enable\n"
          "shdtool audit --seconds 20 --flush 2 --json"},
         Audit}};
}

}  // namespace shdtool
