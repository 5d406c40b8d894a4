// shdtool watch: shows events as they come. Called by main.
#include <memory>

#include "tools/shdtool/commands.h"
#include "tools/shdtool/sensor_argument.h"
#include "tools/shdtool/watch/options.h"

namespace shdtool {
namespace {

constexpr const char* kExamples =
    "  shdtool watch\n"
    "  shdtool watch accelerometer --rate 50 --batch 10 --enable\n"
    "  shdtool watch accelerometer gyroscope --plot --window 5\n"
    "  shdtool watch accelerometer --lines --count 100\n"
    "  shdtool watch --csv --seconds 60 > events.csv";

}  // namespace

void AddWatchCommand(CLI::App& app, Context& context) {
    CLI::App* watch = AddCommand(
        app, "watch",
        "Show events as they come, until Ctrl-C; the daemon may come and go meanwhile", kExamples);
    AddTableLegend(*watch);
    const SensorList sensors = AddSensorList(*watch);
    const auto view = AddViewOptions(*watch);
    const auto limits = AddLimitOptions(*watch);
    const auto sampling = AddPeriodOptions(*watch);
    AddEnableOptions(*watch, sampling);
    watch->callback([&context, sensors, view, limits, sampling] {
        CompleteSampling(*sampling, *sensors);
        shdclient::WatchOptions options;
        options.handles = HandlesOf(*sensors);
        auto sink = MakeView(context, *view, *sampling);
        const auto end = WatchEvents(context, options, *sampling, *limits, *sink);
        sink.reset();  // gives the terminal back before anything is said
        if (!end) Fail(context, "watch", end.error());
    });
}

}  // namespace shdtool
