// The options that the watching commands share: what to show and how, how long, and with which
// sampling. Used by watch, record, replay and audit.
#pragma once

#include <memory>

#include "tools/shdtool/base/command.h"
#include "tools/shdtool/engine/loop.h"

namespace shdtool {

extern const cli::Options kViewOptions;    // --lines, --table, --csv, --plot and --window
extern const cli::Options kLimitOptions;   // --count and --seconds
extern const cli::Options kPeriodOptions;  // --period and --rate
extern const cli::Options kEnableOptions;  // --enable and --batch beside these
extern const cli::Options kSensorList;     // SENSOR...
extern const char* const kTableLegend;     // what the table's columns mean

// sensors: the name of the option that lists them. Fails when the options need others beside them.
[[nodiscard]] shdclient::Result<WatchRequest> WatchRequestOf(const cli::Arguments& arguments,
                                                             const std::string& sensors);

// The sink that shows events as asked. Fails for a plot that has no terminal.
[[nodiscard]] shdclient::Result<std::unique_ptr<EventSink>> MakeView(const Context& context,
                                                                     const WatchRequest& request);

}  // namespace shdtool
