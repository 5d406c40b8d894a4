// shdtool audit: whether the events are what a program may rely on. A row of
// the table of commands.
#include <fmt/core.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <memory>

#include "tools/shdtool/command_table.h"
#include "tools/shdtool/recording/audit_report.h"
#include "tools/shdtool/recording/record_replay.h"
#include "tools/shdtool/watch/options.h"

namespace shdtool {
namespace {

using shdclient::Error;
using shdclient::Result;
using shdclient::SensorInfo;
using shdclient::Status;

constexpr double kNsPerMs = 1e6;
constexpr double kNsPerSec = 1e9;
constexpr double kDefaultFlushWaitSec = 5;

struct AuditRequest {
    std::string path;  // empty: the live stream
    std::vector<const SensorInfo*> sensors;
    AuditLimits limits;
    std::optional<double> flush_every_sec;
    double flush_wait_sec = kDefaultFlushWaitSec;
};

// Collects what comes; the audits of named sensors are there from the start.
class Auditor final : public EventSink {
  public:
    Auditor(const AuditRequest& request, std::unique_ptr<FlushProbe> probe)
        : limits_(request.limits), probe_(std::move(probe)) {
        for (const SensorInfo* sensor : request.sensors) Find(*sensor);
    }

    void OnEvent(const shdclient::WatchedEvent& event) override {
        const shdclient::DecodedEvent& decoded = event.decoded;
        Entry& entry = Find(*decoded.sensor);
        if (decoded.flush_complete) {
            ++entry.flush_complete;
            if (probe_) probe_->OnFlushComplete(decoded.sensor->handle);
            return;
        }
        entry.audit.AddSample(decoded.timestamp_ns, event.arrival_ns);
    }

    void OnChange(shdclient::WatchChange change, int64_t at_ns) override {
        EventSink::OnChange(change, at_ns);
        if (change != shdclient::WatchChange::kLost) return;
        ++connections_lost_;
        for (auto& [handle, entry] : sensors_) entry.audit.Interrupt();
    }

    // What came before had another period.
    void OnEnabled() override {
        for (auto& [handle, entry] : sensors_) entry.audit.Interrupt();
    }

    Status OnTick(const WatchState& state) override {
        if (!probe_) return shdclient::Success();
        for (const auto& [handle, entry] : sensors_) probe_->Include(handle, state.now_ns);
        probe_->Tick(state.now_ns);
        return shdclient::Success();
    }

    [[nodiscard]] AuditReport Finish(const WatchState& state) const {
        AuditReport report;
        report.period_given = limits_.period_ns.has_value();
        for (const auto& [handle, entry] : sensors_) {
            SensorReport sensor{&entry.audit.sensor(), entry.audit.Judge(), entry.flush_complete,
                                std::nullopt};
            if (probe_) sensor.flushes = probe_->counts(handle);
            AuditReport::JudgeFlushes(sensor);
            report.sensors.push_back(std::move(sensor));
        }
        if (report.sensors.empty()) report.stream_faults.emplace_back("no event came");
        if (connections_lost_ > 0) {
            report.stream_faults.push_back(fmt::format(
                "the connection to the daemon was lost {}",
                connections_lost_ == 1 ? "once" : fmt::format("{} times", connections_lost_)));
        }
        if (state.discarded_bytes + state.overrun_events > 0) {
            report.stream_faults.emplace_back("events were lost on the way to this program");
        }
        return report;
    }

  private:
    struct Entry {
        SensorAudit audit;
        uint64_t flush_complete = 0;
    };

    Entry& Find(const SensorInfo& sensor) {
        return sensors_.try_emplace(sensor.handle, Entry{SensorAudit(sensor, limits_)})
            .first->second;
    }

    const AuditLimits limits_;
    const std::unique_ptr<FlushProbe> probe_;
    std::map<int32_t, Entry> sensors_;  // by handle
    uint64_t connections_lost_ = 0;
};

std::unique_ptr<FlushProbe> MakeProbe(const Context& context, const AuditRequest& request) {
    if (!request.flush_every_sec) return nullptr;
    return std::make_unique<FlushProbe>(context.root, context.timeout(),
                                        std::llround(*request.flush_every_sec * kNsPerSec),
                                        std::llround(request.flush_wait_sec * kNsPerSec));
}

Result<AuditReport> AuditLive(const Context& context, const AuditRequest& request,
                              const SamplingRequest& sampling, const WatchLimits& limits) {
    Auditor auditor(request, MakeProbe(context, request));
    shdclient::WatchOptions options;
    options.handles = HandlesOf(request.sensors);
    if (!context.json && isatty(STDERR_FILENO) == 1) {
        fmt::print(stderr, "shdtool: listening; Ctrl-C ends the audit early\n");
    }
    const auto end = WatchEvents(context, options, sampling, limits, auditor);
    if (!end) return end.error();
    return auditor.Finish(*end);
}

// Sets damage when the recording is not whole.
Result<AuditReport> AuditFile(const AuditRequest& request, const WatchLimits& limits,
                              std::optional<Error>& damage) {
    auto reader = RecordReader::Open(request.path);
    if (!reader) return reader.error();
    Auditor auditor(request, nullptr);
    ReplayOptions options;
    options.handles = HandlesOf(request.sensors);
    options.speed = 0;
    const auto end = ReplayEvents(*reader, options, limits, auditor);
    if (!end) return end.error();
    damage = reader->damage();
    return auditor.Finish(*end);
}

shdclient::Result<AuditRequest> RequestOf(const cli::Arguments& arguments) {
    AuditRequest request;
    request.path = arguments.Text("FILE");
    request.sensors = arguments.Sensors("--sensor");
    request.limits.mean_tolerance = arguments.Number("--mean-tolerance") / 100;
    request.limits.gap_factor = arguments.Number("--gap-factor");
    request.limits.max_gaps = static_cast<uint64_t>(arguments.Integer("--max-gaps"));
    if (const auto ms = arguments.MaybeNumber("--max-jitter")) {
        request.limits.max_jitter_ns = std::llround(*ms * kNsPerMs);
    }
    request.limits.future_tolerance_ns = std::llround(arguments.Number("--future") * kNsPerMs);
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
    auto request = RequestOf(context.arguments);
    if (!request) return request.error();
    const auto sampling = SamplingOf(context.arguments, request->sensors);
    if (!sampling) return sampling.error();
    request->limits.period_ns = sampling->asked_ns();
    const WatchLimits limits = LimitsOf(context.arguments);
    std::optional<Error> damage;
    const auto audited = request->path.empty() ? AuditLive(context, *request, *sampling, limits)
                                               : AuditFile(*request, limits, damage);
    if (!audited) return audited.error();
    Report report{AuditText(*audited), AuditFields(*audited)};
    if (damage) {  // what was behind the damage has not been judged
        report.complaint = damage->message;
        report.exit_status = ExitStatusOf(damage->code);
        report.fields.Set("damage", damage->message);
    }
    if (!audited->ok()) report.exit_status = kExitRefused;
    return report;
}

const cli::Options kAuditedFile{
    {.name = "FILE",
     .kind = cli::Kind::kFile,
     .help = "A recording; without it the live stream is checked"},
    {.name = "--sensor",
     .kind = cli::Kind::kSensor,
     .value = "SENSOR",
     .help = "Only this sensor, by name or handle, and it must send something; may be repeated",
     .repeated = true},
};

const cli::Options kFaultLimits{
    {.name = "--mean-tolerance",
     .kind = cli::Kind::kNumber,
     .value = "PERCENT",
     .help = "How far the mean spacing may be off a given period, in percent",
     .max = 1000,
     .standard = "5"},
    {.name = "--gap-factor",
     .kind = cli::Kind::kNumber,
     .value = "X",
     .help = "A spacing of more periods than this is a gap, unless the following samples make up "
             "for it: then it counts as late, which is no fault",
     .min = 1.01,
     .max = 1000,
     .standard = "1.8"},
    {.name = "--max-gaps",
     .kind = cli::Kind::kInteger,
     .value = "N",
     .help = "Gaps that are no fault yet",
     .max = 1e9,
     .standard = "0"},
    {.name = "--max-jitter",
     .kind = cli::Kind::kNumber,
     .value = "MS",
     .help = "Standard deviation of the spacing that is no fault yet; else any is",
     .max = 1e9},
    {.name = "--future",
     .kind = cli::Kind::kNumber,
     .value = "MS",
     .help = "How far a time stamp may be ahead of the arrival",
     .max = 1e9,
     .standard = "0"},
    {.name = "--flush",
     .kind = cli::Kind::kNumber,
     .value = "SEC",
     .help = "Flush each sensor every so many seconds and expect its flush-complete event (the "
             "flushes of others cannot be seen, so without this their events are only counted)",
     .min = 0.01,
     .max = 1e6},
    {.name = "--flush-wait",
     .kind = cli::Kind::kNumber,
     .value = "SEC",
     .help = "Time within which the event must come",
     .min = 0.01,
     .max = 1e6,
     .standard = "5"},
};

}  // namespace

CommandRows AuditCommands() {
    return {
        {{"Events", "audit",
          "Check the time stamps of a recording or of the live stream: order, spacing, gaps, "
          "duplicates, samples from the future, flushes",
          cli::Joined({kAuditedFile, kLimitOptions, kPeriodOptions, kEnableOptions, kFaultLimits}),
          "Exit status: 0 all is well, 1 something is wrong.",
          "shdtool audit walk.shdrec\n"
          "shdtool audit walk.shdrec --sensor accelerometer --rate 50 --max-jitter 5\n"
          "shdtool audit --seconds 10 --sensor accelerometer --rate 50 --batch 10 --enable\n"
          "shdtool audit --seconds 20 --flush 2 --json"},
         Audit}};
}

}  // namespace shdtool
