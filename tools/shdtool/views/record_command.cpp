// shdtool record: events into a file. A row of the table of commands.
#include <fmt/core.h>

#include <set>

#include "tools/shdtool/base/command_rows.h"
#include "tools/shdtool/engine/live_source.h"
#include "tools/shdtool/engine/record_file.h"
#include "tools/shdtool/views/event_format.h"
#include "tools/shdtool/views/options.h"

namespace shdtool {
namespace {

constexpr double kNsPerSec = 1e9;

// Writes what comes to the file, at least every tick.
class Recorder final : public EventSink {
  public:
    Recorder(RecordWriter& writer, bool quiet) : writer_(writer), quiet_(quiet) {}

    void OnStart(EventSource& source) override { writer_.BeginAt(source.now_ns()); }
    void OnEvent(const shdclient::WatchedEvent& event) override {
        writer_.Add({DeliveryKind::kEvent, event, 0});
        sensors_.insert(event.decoded.sensor->handle);
    }
    void OnChange(const Delivery& change) override {
        if (!quiet_) EventSink::OnChange(change);
        writer_.Add(change);
    }
    void OnEnabled(int64_t at_ns) override { writer_.BeginAt(at_ns); }
    void OnSilence() override {
        if (!quiet_) EventSink::OnSilence();
    }
    shdclient::Result<bool> OnTick(const WatchState& /*state*/) override {
        const shdclient::Status flushed = writer_.Flush();
        if (!flushed) return flushed.error();
        return true;
    }
    shdclient::Status OnEnd(const WatchState& state) override {
        return writer_.Close(state.now_ns);
    }

    [[nodiscard]] size_t sensors() const { return sensors_.size(); }

  private:
    RecordWriter& writer_;
    const bool quiet_;
    std::set<int32_t> sensors_;
};

Outcome Record(Context& context) {
    const std::string path = context.arguments.Text("FILE");
    const auto request = WatchRequestOf(context.arguments, "SENSOR");
    if (!request) return request.error();
    auto writer = RecordWriter::Create(path, context.arguments.Has("--force"));
    if (!writer) return writer.error();
    Recorder recorder(*writer, context.json);
    LiveSource source(context.root, request->handles);
    const auto end = WatchEvents(context, source, *request, recorder);
    if (!end) {
        writer->Discard();
        return end.error();
    }
    if (end->missed_ns > 0) {
        context.Warn(
            fmt::format("events may have been lost on the way to this program: it did not "
                        "read for {}; audit tells",
                        FormatDuration(end->missed_ns)));
    }
    const int64_t duration_ns = end->now_ns - end->start_ns;
    return Report{fmt::format("{}: {} samples of {} sensor{} in {}, {} bytes", path, end->samples,
                              recorder.sensors(), recorder.sensors() == 1 ? "" : "s",
                              FormatDuration(duration_ns), writer->bytes()),
                  {{"file", path},
                   {"samples", end->samples},
                   {"sensors", recorder.sensors()},
                   {"seconds", static_cast<double>(duration_ns) / kNsPerSec},
                   {"bytes", writer->bytes()}}};
}

const cli::Options kFileToMake{cli::NewFile("FILE", "", "The file to be made").Required()};
const cli::Options kForce{{"--force", cli::Kind::kFlag, "", "Replace the file when it exists"}};
}  // namespace

CommandRows RecordCommands() {
    return {{{"Events", "record",
              "Write events and their arrival times to a file, until Ctrl-C; see replay and audit",
              cli::Joined({kFileToMake, kSensorList, kLimitOptions, kPeriodOptions, kEnableOptions,
                           kForce}),
              "",
              "shdtool record walk.shdrec --seconds 60\n"
              "shdtool record acc.shdrec accelerometer --rate 100 --enable --count 1000"},
             Record}};
}

}  // namespace shdtool
