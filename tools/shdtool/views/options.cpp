// The shared options as rows, and what they ask for. Called by the watching commands.
#include "tools/shdtool/views/options.h"

#include <fmt/format.h>

#include <cmath>
#include <filesystem>
#include <system_error>

#include "tools/client/default_root.h"
#include "tools/shdtool/views/lines.h"
#include "tools/shdtool/views/plot.h"
#include "tools/shdtool/views/table.h"

namespace shdtool {
namespace {

// How a second terminal reaches the hub; empty for the device's own, which is found anyway.
std::string HowToReach(const std::string& root) {
    if (root.empty()) return "";
    if (!shdclient::IsDemoHub(root)) return "in a second terminal: export SHD_ROOT=" + root;
    std::error_code none;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", none);
    return fmt::format("in a second terminal: {} finds this hub",
                       none ? "shdtool" : program.string());
}

}  // namespace

const char* const kTableLegend =
    "The table:\n"
    "  RATE     of the time stamps over the last 5 s, gaps left out\n"
    "  ASKED    what --rate or --period says, for the daemon does not tell what it\n"
    "           was asked for; without them, in brackets, what the time stamps have\n"
    "  JITT     standard deviation of the spacing\n"
    "  BATCH    samples that arrive together\n"
    "  AGE      time since the last sample arrived; SILENT: that is too long for\n"
    "           this sensor; none yet: it was named and has not sent\n"
    "  GAPS     spacings beyond 1.8 periods that the following samples do not make up\n"
    "           for\n"
    "Keys on a terminal: q quit, p pause, r reset the statistics, arrows move, ? help\n"
    "A line: sensor, values with unit, time stamp since boot (not in a window of less than 103 "
    "columns), spacing to the sensor's previous one";

const cli::Options kSensorList{
    cli::Sensor("SENSOR", "", "Only these sensors, by name or handle; all when none is named")
        .Repeated()};

const cli::Options kViewOptions{
    cli::Flag("--table", "A table drawn in place (default on a terminal); elsewhere its last state")
        .Excludes("--lines --csv --plot"),
    cli::Flag("--lines", "One line per event (default when the output is no terminal)")
        .Excludes("--csv --plot"),
    cli::Flag("--csv",
              "Comma-separated values, with a heading; the values in the order of 'shdtool list'")
        .Excludes("--plot"),
    {"--plot", cli::Kind::kFlag, "", "A chart in the terminal, one strip per axis"},
    {"--window", cli::Kind::kNumber, "SEC", "Seconds that the chart shows", 0.1, 3600, "10"}};

const cli::Options kLimitOptions{
    {"--count", cli::Kind::kInteger, "N", "End after this many samples", 1, 1e9},
    {"--seconds", cli::Kind::kNumber, "SEC", "End after this time", 0.001, 1e7}};

const cli::Options kPeriodOptions{
    cli::Number(
        "--period", "MS",
        "Period in milliseconds that the samples are measured against; else the one that they "
        "seem to have",
        0.001, 3'600'000)
        .Excludes("--rate"),
    {"--rate", cli::Kind::kNumber, "HZ", "The same as a rate in Hz", 1.0 / 3600, 1e6}};

const cli::Options kEnableOptions{
    {"--enable", cli::Kind::kFlag, "",
     "Switch the named sensors on first, with the given period or rate (rounded to whole "
     "milliseconds) and batch; they stay on"},
    {"--batch", cli::Kind::kInteger, "N",
     "Samples that the MCU collects before it reports, with --enable", 0, 100'000}};

shdclient::Result<WatchRequest> WatchRequestOf(const cli::Arguments& arguments,
                                               const std::string& sensors) {
    constexpr double kMsPerSec = 1000;
    WatchRequest request;
    for (const auto* sensor : arguments.Sensors(sensors)) request.handles.push_back(sensor->handle);
    request.period_ms = arguments.MaybeNumber("--period");
    if (const auto hz = arguments.MaybeNumber("--rate")) request.period_ms = kMsPerSec / *hz;
    request.enable = arguments.Has("--enable");
    if (arguments.Has("--batch")) {
        request.batch = static_cast<int32_t>(arguments.Integer("--batch"));
        if (!request.enable || !request.period_ms) {
            return WrongUsage("--batch needs --enable and --period or --rate beside it");
        }
    }
    if (request.enable && request.handles.empty()) {
        return WrongUsage("--enable needs the sensors to be named");
    }
    if (arguments.Has("--count")) {
        request.max_samples = static_cast<uint64_t>(arguments.Integer("--count"));
    }
    if (const auto seconds = arguments.MaybeNumber("--seconds")) {
        request.duration = std::chrono::milliseconds(std::llround(*seconds * kMsPerSec));
    }
    return request;
}

shdclient::Result<std::unique_ptr<EventSink>> MakeView(const Context& context,
                                                       const WatchRequest& request) {
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
    if (csv) return View(std::make_unique<CsvPrinter>());
    if (lines || (!plot && !table && !drawable)) return View(std::make_unique<LinePrinter>());
    const StatsOptions measured{.asked_ns = request.asked_ns(), .asked_batch = request.batch};
    std::unique_ptr<LiveView> view;
    if (plot) {
        view = std::make_unique<PlotView>(arguments.Number("--window"), measured);
    } else {
        view = std::make_unique<TableView>(measured, request.handles);
    }
    view->SetTitle(HowToReach(context.root));
    return View(std::move(view));
}

}  // namespace shdtool
