// The options that the watching commands share: what to show and how, how long, and with which
// sampling. Used by watch, record, replay and audit.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <vector>

#include "tools/shdtool/command.h"
#include "tools/shdtool/watch/loop.h"

namespace shdtool {

enum class ViewFormat { kTable, kLines, kJson, kCsv, kPlot };

struct ViewRequest {
    std::optional<ViewFormat> format;  // empty: by --json and by where standard output goes
    double window_sec = 10;            // of the plot
};

// All structures are filled while the command line is parsed, before the command's callback runs.

// --lines, --table, --csv, --plot and --window.
[[nodiscard]] std::shared_ptr<ViewRequest> AddViewOptions(CLI::App& command);

// Puts what the table's columns mean in front of the examples of the command's help.
void AddTableLegend(CLI::App& command);

// --count and --seconds.
[[nodiscard]] std::shared_ptr<WatchLimits> AddLimitOptions(CLI::App& command);

// --period or --rate.
[[nodiscard]] std::shared_ptr<SamplingRequest> AddPeriodOptions(CLI::App& command);

// --enable and --batch beside these.
void AddEnableOptions(CLI::App& command, const std::shared_ptr<SamplingRequest>& sampling);

// Takes over the chosen sensors; throws CLI::ValidationError when the options need others.
void CompleteSampling(SamplingRequest& sampling,
                      const std::vector<const shdclient::SensorInfo*>& sensors);

[[nodiscard]] std::vector<int32_t> HandlesOf(
    const std::vector<const shdclient::SensorInfo*>& sensors);

// The sink that shows events as asked. Throws CLI::ValidationError for formats that exclude each
// other and for a plot that has no terminal.
[[nodiscard]] std::unique_ptr<EventSink> MakeView(const Context& context,
                                                  const ViewRequest& request,
                                                  const SamplingRequest& sampling);

}  // namespace shdtool
