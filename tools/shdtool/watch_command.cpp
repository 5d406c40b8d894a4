// shdtool watch: prints events as they come, one line each. Called by main.
#include <fmt/core.h>

#include <cstdio>
#include <map>
#include <memory>

#include "tools/shdtool/commands.h"
#include "tools/shdtool/event_format.h"
#include "tools/shdtool/sensor_argument.h"
#include "tools/shdtool/watch_loop.h"

namespace shdtool {
namespace {

class LinePrinter : public EventSink {
  public:
    void OnEvent(const shdclient::WatchedEvent& event) override {
        const shdclient::DecodedEvent& decoded = event.decoded;
        if (decoded.flush_complete) {
            fmt::print("{:<20}  {}\n", decoded.sensor->name, FormatValues(decoded));
            return;
        }
        std::string spacing = "first";
        const auto previous = last_ns_.find(decoded.sensor->handle);
        if (previous != last_ns_.end()) {
            spacing = FormatSpacing(decoded.timestamp_ns - previous->second);
        }
        last_ns_[decoded.sensor->handle] = decoded.timestamp_ns;
        fmt::print("{:<20}  {:<44}  {:>18}  {:>13}\n", decoded.sensor->name, FormatValues(decoded),
                   FormatTime(decoded.timestamp_ns), spacing);
    }

    void OnTick() override { (void)std::fflush(stdout); }

  private:
    std::map<int32_t, int64_t> last_ns_;
};

}  // namespace

void AddWatchCommand(CLI::App& app, Context& context) {
    CLI::App* watch = AddCommand(
        app, "watch",
        "Show events as they come, until Ctrl-C. Each line: sensor, values with unit, time stamp "
        "since boot, spacing to the sensor's previous event",
        "  shdtool watch\n  shdtool watch accelerometer step-counter --count 100");
    const SensorList sensors = AddSensorList(*watch);
    auto limits = std::make_shared<WatchLimits>();
    watch->add_option("--count", limits->max_samples, "End after this many events")
        ->check(Between(1, 1e15))
        ->type_name("N");
    watch->callback([&context, sensors, limits] {
        shdclient::WatchOptions options;
        for (const auto* sensor : *sensors) options.handles.push_back(sensor->handle);
        LinePrinter printer;
        const auto summary = WatchEvents(context, options, *limits, printer);
        if (!summary) Fail(context, "watch", summary.error());
    });
}

}  // namespace shdtool
