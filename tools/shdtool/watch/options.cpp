// Parses the shared options and makes the sink that they name. Called by the watching commands.
#include "tools/shdtool/watch/options.h"

#include <cmath>

#include "tools/shdtool/watch/lines.h"
#include "tools/shdtool/watch/plot_view.h"
#include "tools/shdtool/watch/screen.h"
#include "tools/shdtool/watch/table.h"

namespace shdtool {
namespace {

constexpr double kMaxCount = 1e9;
constexpr double kMaxSeconds = 1e7;
constexpr double kMinPeriodMs = 0.001;
constexpr double kMaxPeriodMs = 3'600'000;
constexpr double kMsPerSec = 1000;
constexpr int32_t kMaxBatch = 100'000;
constexpr double kMinWindowSec = 0.1;
constexpr double kMaxWindowSec = 3600;

constexpr const char* kTableLegend =
    "The table:\n"
    "  RATE     of the time stamps over the last 5 s\n"
    "  ASKED    what --rate or --period says, for the daemon does not tell what it was asked for;\n"
    "           without them, in brackets, what the time stamps seem to have (the median)\n"
    "  JITTER   standard deviation of the spacing\n"
    "  BATCH    samples that arrive together\n"
    "  AGE      time since the last sample arrived\n"
    "  GAPS     spacings beyond 1.8 periods that the following samples do not make up for\n"
    "A line: sensor, values with unit, time stamp since boot, spacing to the sensor's previous "
    "one\n";

CLI::Option* AddFormatFlag(CLI::App& command, const std::shared_ptr<ViewRequest>& request,
                           const std::string& name, ViewFormat format, const std::string& help) {
    return command.add_flag_callback(
        name, [request, format] { request->format = format; }, help);
}

ViewFormat FormatOf(const Context& context, const ViewRequest& request) {
    if (context.json) {
        if (request.format) throw CLI::ValidationError("--json", "excludes the other formats");
        return ViewFormat::kJson;
    }
    if (!request.format) return IsTerminal() ? ViewFormat::kTable : ViewFormat::kLines;
    if (*request.format == ViewFormat::kPlot && !IsTerminal()) {
        throw CLI::ValidationError("--plot", "needs a terminal as standard output");
    }
    return *request.format;
}

}  // namespace

std::shared_ptr<ViewRequest> AddViewOptions(CLI::App& command) {
    auto request = std::make_shared<ViewRequest>();
    const std::vector<CLI::Option*> formats{
        AddFormatFlag(command, request, "--table", ViewFormat::kTable,
                      "A table drawn in place (default on a terminal); elsewhere its last state"),
        AddFormatFlag(command, request, "--lines", ViewFormat::kLines,
                      "One line per event (default when the output is no terminal)"),
        AddFormatFlag(command, request, "--csv", ViewFormat::kCsv,
                      "Comma-separated values, with a heading; the values in the order of "
                      "'shdtool list'"),
        AddFormatFlag(command, request, "--plot", ViewFormat::kPlot,
                      "A chart in the terminal, one strip per axis"),
    };
    for (CLI::Option* one : formats) {
        for (CLI::Option* other : formats) {
            if (one != other) one->excludes(other);
        }
    }
    command.add_option("--window", request->window_sec, "Seconds that the chart shows (10)")
        ->check(Between(kMinWindowSec, kMaxWindowSec))
        ->type_name("SEC");
    return request;
}

void AddTableLegend(CLI::App& command) {
    command.footer(kTableLegend + command.get_footer());
}

std::shared_ptr<WatchLimits> AddLimitOptions(CLI::App& command) {
    auto limits = std::make_shared<WatchLimits>();
    command.add_option("--count", limits->max_samples, "End after this many samples")
        ->check(Between(1, kMaxCount))
        ->type_name("N");
    command
        .add_option_function<double>(
            "--seconds",
            [limits](double seconds) {
                limits->duration =
                    std::chrono::milliseconds(std::max(std::llround(seconds * kMsPerSec), 1LL));
            },
            "End after this time")
        ->check(Between(0.001, kMaxSeconds))
        ->type_name("SEC");
    return limits;
}

std::shared_ptr<SamplingRequest> AddPeriodOptions(CLI::App& command) {
    auto sampling = std::make_shared<SamplingRequest>();
    CLI::Option* period = command
                              .add_option_function<double>(
                                  "--period", [sampling](double ms) { sampling->period_ms = ms; },
                                  "Period in milliseconds that the samples are measured against "
                                  "(else their median spacing, or that of longer stretches where "
                                  "they come in bursts)")
                              ->check(Between(kMinPeriodMs, kMaxPeriodMs))
                              ->type_name("MS");
    command
        .add_option_function<double>(
            "--rate", [sampling](double hz) { sampling->period_ms = kMsPerSec / hz; },
            "The same as a rate in Hz")
        ->check(Between(kMsPerSec / kMaxPeriodMs, kMsPerSec / kMinPeriodMs))
        ->type_name("HZ")
        ->excludes(period);
    return sampling;
}

void AddEnableOptions(CLI::App& command, const std::shared_ptr<SamplingRequest>& sampling) {
    command.add_flag("--enable", sampling->enable,
                     "Switch the named sensors on first, with the given period or rate (rounded "
                     "to whole milliseconds) and batch; they stay on");
    command
        .add_option_function<int32_t>(
            "--batch", [sampling](int32_t samples) { sampling->batch = samples; },
            "Samples that the MCU collects before it reports, with --enable")
        ->check(Between(0, kMaxBatch))
        ->type_name("N");
}

void CompleteSampling(SamplingRequest& sampling,
                      const std::vector<const shdclient::SensorInfo*>& sensors) {
    if (sampling.batch && !(sampling.enable && sampling.period_ms)) {
        throw CLI::ValidationError("--batch", "needs --enable and --period or --rate beside it");
    }
    if (sampling.enable && sensors.empty()) {
        throw CLI::ValidationError("--enable", "needs the sensors to be named");
    }
    sampling.handles = HandlesOf(sensors);
}

std::vector<int32_t> HandlesOf(const std::vector<const shdclient::SensorInfo*>& sensors) {
    std::vector<int32_t> handles;
    handles.reserve(sensors.size());
    for (const auto* sensor : sensors) handles.push_back(sensor->handle);
    return handles;
}

std::unique_ptr<EventSink> MakeView(const Context& context, const ViewRequest& request,
                                    const SamplingRequest& sampling) {
    switch (FormatOf(context, request)) {
        case ViewFormat::kTable:
            return std::make_unique<TableView>(sampling.asked_ns());
        case ViewFormat::kLines:
            return std::make_unique<LinePrinter>();
        case ViewFormat::kJson:
            return std::make_unique<JsonPrinter>();
        case ViewFormat::kCsv:
            return std::make_unique<CsvPrinter>();
        case ViewFormat::kPlot:
            return std::make_unique<PlotView>(request.window_sec);
    }
    return nullptr;
}

}  // namespace shdtool
