// shdtool record and shdtool replay: events into a file and out of it. Rows of the table of
// commands.
#include <fmt/core.h>

#include <algorithm>
#include <set>

#include "tools/shdtool/command_table.h"
#include "tools/shdtool/recording/record_file.h"
#include "tools/shdtool/recording/record_replay.h"
#include "tools/shdtool/watch/event_format.h"
#include "tools/shdtool/watch/options.h"

namespace shdtool {
namespace {

using shdclient::Status;

constexpr double kNsPerSec = 1e9;

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

Outcome Record(Context& context) {
    const std::string path = context.arguments.Text("FILE");
    const auto sensors = context.arguments.Sensors("SENSOR");
    const auto sampling = SamplingOf(context.arguments, sensors);
    if (!sampling) return sampling.error();
    auto writer = RecordWriter::Create(path, context.arguments.Has("--force"));
    if (!writer) return writer.error();
    shdclient::WatchOptions options;
    options.handles = HandlesOf(sensors);
    Recorder recorder(*writer);
    const auto end =
        WatchEvents(context, options, *sampling, LimitsOf(context.arguments), recorder);
    if (!end) {
        writer->Discard();
        return end.error();
    }
    return Report{fmt::format("{}: {} samples of {} sensor{} in {}, {} bytes", path, end->samples,
                              recorder.sensors(), recorder.sensors() == 1 ? "" : "s",
                              FormatDuration(recorder.duration_ns()), writer->bytes()),
                  {{"file", path},
                   {"samples", end->samples},
                   {"sensors", recorder.sensors()},
                   {"seconds", static_cast<double>(recorder.duration_ns()) / kNsPerSec},
                   {"bytes", writer->bytes()}}};
}

Outcome Replay(Context& context) {
    const auto sensors = context.arguments.Sensors("SENSOR");
    const auto sampling = SamplingOf(context.arguments, sensors);
    if (!sampling) return sampling.error();
    auto reader = RecordReader::Open(context.arguments.Text("FILE"));
    if (!reader) return reader.error();
    auto view = MakeView(context, *sampling);
    if (!view) return view.error();
    const ReplayOptions options{HandlesOf(sensors), context.arguments.Has("--fast")
                                                        ? 0
                                                        : context.arguments.Number("--speed")};
    const auto end = ReplayEvents(*reader, options, LimitsOf(context.arguments), **view);
    view->reset();
    if (!end) return end.error();
    if (reader->damage()) return *reader->damage();
    return Report{.text = "", .streamed = true};
}

const cli::Options kFileToMake{
    {.name = "FILE", .kind = cli::Kind::kNewFile, .help = "The file to be made", .required = true}};
const cli::Options kRecordingFile{{.name = "FILE",
                                   .kind = cli::Kind::kFile,
                                   .help = "A file that record has made",
                                   .required = true}};
const cli::Options kForce{
    {.name = "--force", .kind = cli::Kind::kFlag, .help = "Replace the file when it exists"}};
const cli::Options kSpeed{
    {.name = "--speed",
     .kind = cli::Kind::kNumber,
     .value = "X",
     .help = "Play so many times as fast as it was recorded",
     .min = 0.001,
     .max = 1e6,
     .standard = "1",
     .excludes = "--fast"},
    {.name = "--fast", .kind = cli::Kind::kFlag, .help = "Play without waiting"},
};

}  // namespace

CommandRows RecordCommands() {
    return {
        {{"Events", "record",
          "Write events and their arrival times to a file, until Ctrl-C; see replay and audit",
          cli::Joined(
              {kFileToMake, kSensorList, kLimitOptions, kPeriodOptions, kEnableOptions, kForce}),
          "",
          "shdtool record walk.shdrec --seconds 60\n"
          "shdtool record acc.shdrec accelerometer --rate 100 --enable --count 1000"},
         Record},
        {{"Events", "replay",
          "Show a recording as watch shows events, with their own times (needs no daemon)",
          cli::Joined(
              {kRecordingFile, kSensorList, kSpeed, kViewOptions, kLimitOptions, kPeriodOptions}),
          kTableLegend,
          "shdtool replay walk.shdrec\n"
          "shdtool replay walk.shdrec accelerometer --plot --speed 4\n"
          "shdtool replay walk.shdrec --fast --csv > walk.csv"},
         Replay},
    };
}

}  // namespace shdtool
