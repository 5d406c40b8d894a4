// shdtool audit: whether the events are what a program may rely on. Called by main.
#include <fmt/core.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <memory>

#include "tools/shdtool/commands.h"
#include "tools/shdtool/recording/audit_report.h"
#include "tools/shdtool/recording/record_replay.h"
#include "tools/shdtool/watch/options.h"

namespace shdtool {
namespace {

using shdclient::Error;
using shdclient::Result;
using shdclient::SensorInfo;
using shdclient::Status;
using std::chrono::milliseconds;

constexpr double kNsPerMs = 1e6;
constexpr double kNsPerSec = 1e9;
constexpr double kDefaultFlushWaitSec = 5;
constexpr double kMaxSeconds = 1e6;
constexpr double kMaxMs = 1e9;
constexpr double kMaxPercent = 1000;
constexpr double kMaxFactor = 1000;

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
    return std::make_unique<FlushProbe>(context.root,
                                        milliseconds(std::llround(context.timeout_sec * 1000)),
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

void Audit(Context& context, const AuditRequest& request, const SamplingRequest& sampling,
           const WatchLimits& limits) {
    std::optional<Error> damage;
    const auto report = request.path.empty() ? AuditLive(context, request, sampling, limits)
                                             : AuditFile(request, limits, damage);
    if (!report) return Fail(context, "audit", report.error());
    if (context.json) {
        Json object = AuditJson(*report);
        if (damage) {
            object["ok"] = false;  // what was behind the damage has not been judged
            object["damage"] = damage->message;
        }
        PrintJson(object);
    } else {
        fmt::print("{}\n", AuditText(*report));
        (void)std::fflush(stdout);
        if (damage) fmt::print(stderr, "shdtool: {}\n", damage->message);
    }
    if (damage) context.exit_status = ExitStatusOf(damage->code);
    if (!report->ok()) context.exit_status = kExitRefused;
}

void CheckRequest(const AuditRequest& request, const SamplingRequest& sampling,
                  const WatchLimits& limits) {
    if (request.path.empty()) {
        if (limits.duration.count() == 0 && limits.max_samples == 0) {
            throw CLI::ValidationError("audit",
                                       "name a recording, or give --seconds or --count for an "
                                       "audit of the live stream");
        }
        return;
    }
    if (sampling.enable || request.flush_every_sec) {
        throw CLI::ValidationError(sampling.enable ? "--enable" : "--flush",
                                   "is for the live stream, not for a recording");
    }
}

void AddSensorOption(CLI::App& audit, const std::shared_ptr<AuditRequest>& request) {
    audit
        .add_option_function<std::vector<std::string>>(
            "--sensor",
            [request](const std::vector<std::string>& names) {
                for (const std::string& name : names) {
                    const auto sensor = shdclient::LookupSensor(name);
                    if (!sensor) throw CLI::ValidationError("--sensor", sensor.error().message);
                    request->sensors.push_back(*sensor);
                }
            },
            "Only this sensor, by name or handle, and it must send something; may be repeated")
        ->allow_extra_args(false)
        ->type_name("SENSOR");
}

// Adds an option whose value, times unit, goes to target when it is given.
template <typename Target>
void AddScaled(CLI::App& audit, const std::string& name, Target& target, double unit, double max,
               const std::string& type, const std::string& help) {
    audit
        .add_option_function<double>(
            name, [&target, unit](double value) { target = std::llround(value * unit); }, help)
        ->check(Between(0, max))
        ->type_name(type);
}

void AddLimitsOfFaults(CLI::App& audit, const std::shared_ptr<AuditRequest>& request) {
    AuditLimits& limits = request->limits;
    audit
        .add_option_function<double>(
            "--mean-tolerance",
            [request](double percent) { request->limits.mean_tolerance = percent / 100; },
            "How far the mean spacing may be off a given period, in percent (5)")
        ->check(Between(0, kMaxPercent))
        ->type_name("PERCENT");
    audit
        .add_option("--gap-factor", limits.gap_factor,
                    "A spacing of more periods than this is a gap, unless the following samples "
                    "make up for it: then it counts as late, which is no fault (1.8)")
        ->check(Between(1.01, kMaxFactor))
        ->type_name("X");
    audit.add_option("--max-gaps", limits.max_gaps, "Gaps that are no fault yet (0)")
        ->check(Between(0, 1e9))
        ->type_name("N");
    AddScaled(audit, "--max-jitter", limits.max_jitter_ns, kNsPerMs, kMaxMs, "MS",
              "Standard deviation of the spacing that is no fault yet (any)");
    AddScaled(audit, "--future", limits.future_tolerance_ns, kNsPerMs, kMaxMs, "MS",
              "How far a time stamp may be ahead of the arrival (0)");
}

void AddFlushOptions(CLI::App& audit, const std::shared_ptr<AuditRequest>& request) {
    audit
        .add_option_function<double>(
            "--flush", [request](double sec) { request->flush_every_sec = sec; },
            "Flush each sensor every so many seconds and expect its flush-complete event (the "
            "flushes of others cannot be seen, so without this their events are only counted)")
        ->check(Between(0.01, kMaxSeconds))
        ->type_name("SEC");
    audit
        .add_option("--flush-wait", request->flush_wait_sec,
                    "Time within which the event must come (5)")
        ->check(Between(0.01, kMaxSeconds))
        ->type_name("SEC");
}

}  // namespace

void AddAuditCommand(CLI::App& app, Context& context) {
    CLI::App* audit = AddCommand(
        app, "audit",
        "Check the time stamps of a recording or of the live stream: order, spacing, gaps, "
        "duplicates, samples from the future, flushes. Exit status 1 when something is wrong",
        "  shdtool audit walk.shdrec\n"
        "  shdtool audit walk.shdrec --sensor accelerometer --rate 50 --max-jitter 5\n"
        "  shdtool audit --seconds 10 --sensor accelerometer --rate 50 --batch 10 --enable\n"
        "  shdtool audit --seconds 20 --flush 2 --json");
    auto request = std::make_shared<AuditRequest>();
    audit->add_option("FILE", request->path, "a recording; without it the live stream is checked")
        ->type_name("");
    AddSensorOption(*audit, request);
    const auto limits = AddLimitOptions(*audit);
    const auto sampling = AddPeriodOptions(*audit);
    AddEnableOptions(*audit, sampling);
    AddLimitsOfFaults(*audit, request);
    AddFlushOptions(*audit, request);
    audit->callback([&context, request, limits, sampling] {
        CheckRequest(*request, *sampling, *limits);
        CompleteSampling(*sampling, request->sensors);
        request->limits.period_ns = sampling->asked_ns();
        Audit(context, *request, *sampling, *limits);
    });
}

}  // namespace shdtool
