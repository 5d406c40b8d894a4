// shdtool watch and shdtool replay: show events as they come, and as they came. Rows of the table
// of commands.
#include "tools/shdtool/base/command_rows.h"
#include "tools/shdtool/engine/live_source.h"
#include "tools/shdtool/engine/recording_source.h"
#include "tools/shdtool/views/options.h"

namespace shdtool {
namespace {

Outcome Show(const Context& context, EventSource& source, const WatchRequest& request) {
    auto view = MakeView(context, request);
    if (!view) return view.error();
    const auto end = WatchEvents(context, source, request, **view);
    view->reset();  // gives the terminal back before anything is said
    if (!end) return end.error();
    return Report{.text = "", .streamed = true};
}

Outcome Watch(Context& context) {
    const auto request = WatchRequestOf(context.arguments, "SENSOR");
    if (!request) return request.error();
    LiveSource source(context.root, request->handles);
    return Show(context, source, *request);
}

Outcome Replay(Context& context) {
    const auto request = WatchRequestOf(context.arguments, "SENSOR");
    if (!request) return request.error();
    auto reader = RecordReader::Open(context.arguments.Text("FILE"));
    if (!reader) return reader.error();
    const double speed = context.arguments.Has("--fast") ? 0 : context.arguments.Number("--speed");
    RecordingSource source(std::move(*reader), speed, request->handles);
    Outcome shown = Show(context, source, *request);
    if (shown && source.damage()) return *source.damage();
    return shown;
}

const cli::Options kRecordingFile{cli::File("FILE", "", "A file that record has made").Required()};
const cli::Options kSpeed{
    cli::Number("--speed", "X", "Play so many times as fast as it was recorded", 0.001, 1e6)
        .Standard("1")
        .Excludes("--fast"),
    {"--fast", cli::Kind::kFlag, "", "Play without waiting"}};

}  // namespace

CommandRows WatchCommands() {
    return {
        {{"Events", "watch",
          "Show events as they come, until Ctrl-C; the daemon may come and go meanwhile",
          cli::Joined({kSensorList, kViewOptions, kLimitOptions, kPeriodOptions, kEnableOptions}),
          kTableLegend,
          "shdtool watch\n"
          "shdtool watch accelerometer --rate 50 --batch 10 --enable\n"
          "shdtool watch accelerometer gyroscope --plot --window 5\n"
          "shdtool watch accelerometer --lines --count 100\n"
          "shdtool watch --csv --seconds 60 > events.csv"},
         Watch}};
}

CommandRows ReplayCommands() {
    return {{{"Events", "replay",
              "Show a recording as watch shows events, with their own times (needs no daemon)",
              cli::Joined({kRecordingFile, kSensorList, kSpeed, kViewOptions, kLimitOptions,
                           kPeriodOptions}),
              kTableLegend,
              "shdtool replay walk.shdrec\n"
              "shdtool replay walk.shdrec accelerometer --plot --speed 4\n"
              "shdtool replay walk.shdrec --fast --csv > walk.csv"},
             Replay}};
}

}  // namespace shdtool
