// shdtool record and shdtool replay: events into a file and out of it. Called by main.
#include <fmt/core.h>

#include <algorithm>
#include <memory>
#include <set>

#include "tools/shdtool/commands.h"
#include "tools/shdtool/recording/record_file.h"
#include "tools/shdtool/recording/record_replay.h"
#include "tools/shdtool/sensor_argument.h"
#include "tools/shdtool/watch/event_format.h"
#include "tools/shdtool/watch/options.h"

namespace shdtool {
namespace {

using shdclient::Result;
using shdclient::Status;

constexpr double kNsPerSec = 1e9;
constexpr double kMinSpeed = 0.001;
constexpr double kMaxSpeed = 1e6;

// Writes what comes to the file, at least every tick.
class Recorder final : public EventSink {
  public:
    explicit Recorder(RecordWriter& writer) : writer_(writer) {}

    void OnEvent(const shdclient::WatchedEvent& event) override {
        writer_.Add({shdclient::WatchChange::kNone, event});
        sensors_.insert(event.decoded.sensor->handle);
        NoteTime(event.arrival_ns);
    }
    void OnChange(shdclient::WatchChange change, int64_t at_ns) override {
        EventSink::OnChange(change, at_ns);
        Delivery delivery{change};
        delivery.event.arrival_ns = at_ns;
        writer_.Add(delivery);
    }
    Status OnTick(const WatchState& /*state*/) override { return writer_.Flush(); }
    Status OnEnd(const WatchState& /*state*/) override { return writer_.Close(); }

    [[nodiscard]] size_t sensors() const { return sensors_.size(); }
    [[nodiscard]] int64_t duration_ns() const { return last_ns_ - first_ns_; }

  private:
    void NoteTime(int64_t arrival_ns) {
        if (first_ns_ == 0) first_ns_ = arrival_ns;
        last_ns_ = arrival_ns;
    }

    RecordWriter& writer_;
    std::set<int32_t> sensors_;
    int64_t first_ns_ = 0;
    int64_t last_ns_ = 0;
};

struct RecordRequest {
    std::string path;
    bool replace = false;
    std::vector<int32_t> handles;
};

Result<Report> Record(const Context& context, const RecordRequest& request,
                      const SamplingRequest& sampling, const WatchLimits& limits) {
    auto writer = RecordWriter::Create(request.path, request.replace);
    if (!writer) return writer.error();
    shdclient::WatchOptions options;
    options.handles = request.handles;
    Recorder recorder(*writer);
    const auto end = WatchEvents(context, options, sampling, limits, recorder);
    if (!end) {
        writer->Discard();
        return end.error();
    }
    Report report;
    report.line = fmt::format("{}: {} samples of {} sensor{} in {}, {} bytes", request.path,
                              end->samples, recorder.sensors(), recorder.sensors() == 1 ? "" : "s",
                              FormatDuration(recorder.duration_ns()), writer->bytes());
    report.fields = {{"file", request.path},
                     {"samples", end->samples},
                     {"sensors", recorder.sensors()},
                     {"seconds", static_cast<double>(recorder.duration_ns()) / kNsPerSec},
                     {"bytes", writer->bytes()}};
    return report;
}

void AddRecord(CLI::App& app, Context& context) {
    CLI::App* record = AddCommand(
        app, "record",
        "Write events and their arrival times to a file, until Ctrl-C; see replay and audit",
        "  shdtool record walk.shdrec --seconds 60\n"
        "  shdtool record acc.shdrec accelerometer --rate 100 --enable --count 1000");
    auto request = std::make_shared<RecordRequest>();
    record->add_option("FILE", request->path, "the file to be made")->required()->type_name("");
    const SensorList sensors = AddSensorList(*record);
    const auto limits = AddLimitOptions(*record);
    const auto sampling = AddPeriodOptions(*record);
    AddEnableOptions(*record, sampling);
    record->add_flag("--force", request->replace, "Replace the file when it exists");
    record->callback([&context, request, sensors, limits, sampling] {
        CompleteSampling(*sampling, *sensors);
        request->handles = HandlesOf(*sensors);
        Run(context, "record", [&] { return Record(context, *request, *sampling, *limits); });
    });
}

struct ReplayRequest {
    std::string path;
    ReplayOptions options;
    bool fast = false;
};

Status Replay(const Context& context, const ReplayRequest& request, const ViewRequest& view,
              const SamplingRequest& sampling, const WatchLimits& limits) {
    auto reader = RecordReader::Open(request.path);
    if (!reader) return reader.error();
    const auto sink = MakeView(context, view, sampling);
    const auto end = ReplayEvents(*reader, request.options, limits, *sink);
    if (!end) return end.error();
    if (reader->damage()) return *reader->damage();
    return shdclient::Success();
}

void AddReplay(CLI::App& app, Context& context) {
    CLI::App* replay =
        AddCommand(app, "replay",
                   "Show a recording as watch shows events, with their own times (needs no daemon)",
                   "  shdtool replay walk.shdrec\n"
                   "  shdtool replay walk.shdrec accelerometer --plot --speed 4\n"
                   "  shdtool replay walk.shdrec --fast --csv > walk.csv");
    AddTableLegend(*replay);
    auto request = std::make_shared<ReplayRequest>();
    replay->add_option("FILE", request->path, "a file that record has made")
        ->required()
        ->type_name("");
    const SensorList sensors = AddSensorList(*replay);
    CLI::Option* speed = replay->add_option("--speed", request->options.speed,
                                            "Play so many times as fast as it was recorded (1)");
    speed->check(Between(kMinSpeed, kMaxSpeed))->type_name("X");
    replay->add_flag("--fast", request->fast, "Play without waiting")->excludes(speed);
    const auto view = AddViewOptions(*replay);
    const auto limits = AddLimitOptions(*replay);
    const auto sampling = AddPeriodOptions(*replay);
    replay->callback([&context, request, sensors, view, limits, sampling] {
        request->options.handles = HandlesOf(*sensors);
        if (request->fast) request->options.speed = 0;
        const Status done = Replay(context, *request, *view, *sampling, *limits);
        if (!done) Fail(context, "replay", done.error());
    });
}

}  // namespace

void AddRecordCommands(CLI::App& app, Context& context) {
    AddRecord(app, context);
    AddReplay(app, context);
}

}  // namespace shdtool
