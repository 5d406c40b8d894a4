// shdtool watch: shows events as they come. A row of the table of commands.
#include "tools/shdtool/command_table.h"
#include "tools/shdtool/engine/live_source.h"
#include "tools/shdtool/views/options.h"

namespace shdtool {
namespace {

Outcome Watch(Context& context) {
    const auto sensors = context.arguments.Sensors("SENSOR");
    const auto sampling = SamplingOf(context.arguments, sensors);
    if (!sampling) return sampling.error();
    auto view = MakeView(context, *sampling);
    if (!view) return view.error();
    shdclient::WatchOptions options;
    options.handles = HandlesOf(sensors);
    LiveSource source(context.root, options);
    const auto end = WatchEvents(context, source, *sampling, LimitsOf(context.arguments), **view);
    view->reset();  // gives the terminal back before anything is said
    if (!end) return end.error();
    return Report{.text = "", .streamed = true};
}

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

}  // namespace shdtool
