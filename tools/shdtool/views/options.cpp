// The shared options as rows, and what they ask for. Called by the watching commands.
#include "tools/shdtool/views/options.h"

#include <algorithm>
#include <cmath>

#include "tools/shdtool/views/lines.h"
#include "tools/shdtool/views/plot.h"
#include "tools/shdtool/views/table.h"

namespace shdtool {

using shdclient::SensorInfo;

const char* const kTableLegend =
    "The table:\n"
    "  RATE     of the time stamps over the last 5 s, gaps left out\n"
    "  ASKED    what --rate or --period says, for the daemon does not tell what it\n"
    "           was asked for; without them, in brackets, what the time stamps have\n"
    "  JITT     standard deviation of the spacing\n"
    "  BATCH    samples that arrive together\n"
    "  AGE      time since the last sample arrived; SILENT: that is too long for\n"
    "           this sensor\n"
    "  GAPS     spacings beyond 1.8 periods that the following samples do not make up\n"
    "           for\n"
    "Keys on a terminal: q quit, p pause, r reset the statistics, arrows move, ? help\n"
    "A line: sensor, values with unit, time stamp since boot, spacing to the sensor's previous one";

const cli::Options kSensorList{
    {.name = "SENSOR",
     .kind = cli::Kind::kSensor,
     .help = "Only these sensors, by name or handle; all when none is named",
     .repeated = true}};

const cli::Options kViewOptions{
    {.name = "--table",
     .kind = cli::Kind::kFlag,
     .help = "A table drawn in place (default on a terminal); elsewhere its last state",
     .excludes = "--lines --csv --plot"},
    {.name = "--lines",
     .kind = cli::Kind::kFlag,
     .help = "One line per event (default when the output is no terminal)",
     .excludes = "--csv --plot"},
    {.name = "--csv",
     .kind = cli::Kind::kFlag,
     .help = "Comma-separated values, with a heading; the values in the order of 'shdtool list'",
     .excludes = "--plot"},
    {.name = "--plot",
     .kind = cli::Kind::kFlag,
     .help = "A chart in the terminal, one strip per axis"},
    {.name = "--window",
     .kind = cli::Kind::kNumber,
     .value = "SEC",
     .help = "Seconds that the chart shows",
     .min = 0.1,
     .max = 3600,
     .standard = "10"},
};

const cli::Options kLimitOptions{
    {.name = "--count",
     .kind = cli::Kind::kInteger,
     .value = "N",
     .help = "End after this many samples",
     .min = 1,
     .max = 1e9},
    {.name = "--seconds",
     .kind = cli::Kind::kNumber,
     .value = "SEC",
     .help = "End after this time",
     .min = 0.001,
     .max = 1e7},
};

const cli::Options kPeriodOptions{
    {.name = "--period",
     .kind = cli::Kind::kNumber,
     .value = "MS",
     .help = "Period in milliseconds that the samples are measured against; else the one that they "
             "seem to have",
     .min = 0.001,
     .max = 3'600'000,
     .excludes = "--rate"},
    {.name = "--rate",
     .kind = cli::Kind::kNumber,
     .value = "HZ",
     .help = "The same as a rate in Hz",
     .min = 1.0 / 3600,
     .max = 1e6},
};

const cli::Options kEnableOptions{
    {.name = "--enable",
     .kind = cli::Kind::kFlag,
     .help = "Switch the named sensors on first, with the given period or rate (rounded to whole "
             "milliseconds) and batch; they stay on"},
    {.name = "--batch",
     .kind = cli::Kind::kInteger,
     .value = "N",
     .help = "Samples that the MCU collects before it reports, with --enable",
     .max = 100'000},
};

WatchLimits LimitsOf(const cli::Arguments& arguments) {
    constexpr double kMsPerSec = 1000;
    WatchLimits limits;
    if (arguments.Has("--count")) {
        limits.max_samples = static_cast<uint64_t>(arguments.Integer("--count"));
    }
    if (arguments.Has("--seconds")) {
        const auto ms = std::llround(arguments.Number("--seconds") * kMsPerSec);
        limits.duration = std::chrono::milliseconds(std::max(ms, 1LL));
    }
    return limits;
}

shdclient::Result<SamplingRequest> SamplingOf(const cli::Arguments& arguments,
                                              const std::vector<const SensorInfo*>& sensors) {
    constexpr double kMsPerSec = 1000;
    SamplingRequest sampling;
    sampling.period_ms = arguments.MaybeNumber("--period");
    if (arguments.Has("--rate")) sampling.period_ms = kMsPerSec / arguments.Number("--rate");
    if (arguments.Has("--batch")) {
        sampling.batch = static_cast<int32_t>(arguments.Integer("--batch"));
    }
    sampling.enable = arguments.Has("--enable");
    sampling.handles = HandlesOf(sensors);
    if (sampling.batch && !(sampling.enable && sampling.period_ms)) {
        return WrongUsage("--batch needs --enable and --period or --rate beside it");
    }
    if (sampling.enable && sensors.empty()) {
        return WrongUsage("--enable needs the sensors to be named");
    }
    return sampling;
}

std::vector<int32_t> HandlesOf(const std::vector<const SensorInfo*>& sensors) {
    std::vector<int32_t> handles;
    handles.reserve(sensors.size());
    for (const auto* sensor : sensors) handles.push_back(sensor->handle);
    return handles;
}

shdclient::Result<std::unique_ptr<EventSink>> MakeView(const Context& context,
                                                       const SamplingRequest& sampling) {
    using View = std::unique_ptr<EventSink>;
    const cli::Arguments& arguments = context.arguments;
    const bool drawable = Terminal().drawable;
    const bool plot = arguments.Has("--plot");
    const bool csv = arguments.Has("--csv");
    const bool lines = arguments.Has("--lines");
    const bool table = arguments.Has("--table");
    if (context.json) {
        if (plot || csv || lines || table) {
            return WrongUsage("--json excludes the other formats");
        }
        return View(std::make_unique<JsonPrinter>());
    }
    if (plot && !drawable) {
        return WrongUsage(Terminal().terminal
                              ? "--plot needs a terminal that TERM knows to place its cursor"
                              : "--plot needs a terminal as standard output");
    }
    if (plot) return View(std::make_unique<PlotView>(arguments.Number("--window")));
    if (csv) return View(std::make_unique<CsvPrinter>());
    if (lines || (!table && !drawable)) return View(std::make_unique<LinePrinter>());
    return View(std::make_unique<TableView>(
        StatsOptions{.asked_ns = sampling.asked_ns(), .asked_batch = sampling.batch.value_or(0)}));
}

}  // namespace shdtool
