// shdtool flush: asks for a flush and waits for its end on the data socket. A row of the table of
// commands.
#include <fmt/core.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "protocol/control.h"
#include "tools/client/event_decoder.h"
#include "tools/client/event_stream.h"
#include "tools/client/hub_client.h"
#include "tools/shdtool/base/command_rows.h"

using namespace shd;

namespace shdtool {
namespace {

using shdclient::Error;
using shdclient::ErrorCode;
using shdclient::EventStream;
using shdclient::HubClient;
using shdclient::Result;
using shdclient::SensorInfo;
using shdclient::Status;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kServedLimit{1'000};

// Looks for the flush-complete event of a sensor and counts its samples on the way.
class FlushWatch {
  public:
    FlushWatch(EventStream& stream, const SensorInfo& sensor) : stream_(stream), sensor_(sensor) {}

    // Runs the action and reads events meanwhile: the kernel keeps only some 280 of them, a few
    // hundredths of a second of a busy hub, and the daemon drops what does not fit.
    Status ReadDuring(const std::function<Status()>& action) {
        const std::jthread reader([this](const std::stop_token& stop) {
            constexpr milliseconds kStep{20};
            while (!stop.stop_requested() && !complete_ && Read(kStep)) continue;
        });
        return action();
    }

    // The number of samples when the event has come, also before this call.
    Result<size_t> Await(milliseconds limit) {
        const steady_clock::time_point deadline = steady_clock::now() + limit;
        for (milliseconds left = limit; !complete_;) {
            const Status read = Read(std::max(left, milliseconds(0)));
            if (!read) return read.error();
            if (left.count() <= 0 && !complete_) return TooLate(limit);
            left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
        }
        return samples_;
    }

  private:
    Status Read(milliseconds timeout) {
        pollfd ready{stream_.fd(), POLLIN, 0};
        (void)poll(&ready, 1, static_cast<int>(timeout.count()));
        std::vector<SensorEvent> events;
        const Result<size_t> count = stream_.Read(events);
        if (!count) return count.error();
        for (const SensorEvent& event : events) {
            const auto decoded = shdclient::DecodeEvent(event);
            if (complete_ || !decoded || decoded->sensor != &sensor_) continue;
            complete_ = decoded->flush_complete;
            if (!complete_) ++samples_;
        }
        return shdclient::Success();
    }

    [[nodiscard]] Error TooLate(milliseconds limit) const {
        return {ErrorCode::kTimeout,
                fmt::format("flush of {}: taken by the hub, but no flush-complete event within {} "
                            "s ({} samples came)",
                            sensor_.name, std::chrono::duration<double>(limit).count(), samples_)};
    }

    EventStream& stream_;
    const SensorInfo& sensor_;
    size_t samples_ = 0;
    bool complete_ = false;
};

Outcome Flush(HubClient& hub, Context& context) {
    const SensorInfo& sensor = context.arguments.Sensor("SENSOR");
    Result<EventStream> stream = EventStream::Connect(context.root);
    if (!stream) return stream.error();
    // The event may come before the reply to the request, and must find this client on the list.
    const Status served = stream->WaitUntilServed(kServedLimit);
    if (!served) return served.error();
    FlushWatch watch(*stream, sensor);
    const steady_clock::time_point asked = steady_clock::now();
    const Status taken = watch.ReadDuring([&] { return hub.Flush(sensor.handle); });
    if (!taken) return taken.error();
    // The hub's limit ends on a whole second.
    const std::chrono::duration<double> took = steady_clock::now() - asked;
    if (!sensor.is_virtual && took > std::chrono::seconds(kQuickReplySec - 1)) {
        context.Warn(fmt::format("the hub took {:.1f} s to say so: the MCU probably did not answer",
                                 took.count()));
    }
    const double wait_ms = context.arguments.Number("--wait") * 1000;
    const Result<size_t> samples = watch.Await(milliseconds(static_cast<int64_t>(wait_ms)));
    if (!samples) return samples.error();
    return Report{fmt::format("{} flushed, {} sample{} on the way", sensor.name, *samples,
                              *samples == 1 ? "" : "s"),
                  SensorFields(sensor).Set("samples", *samples)};
}

}  // namespace

CommandRows FlushCommands() {
    return {{{"Sensors",
              "flush",
              "Make the MCU deliver a sensor's batch and wait for the flush-complete event",
              {cli::Sensor("SENSOR", "", "Name (or its unique beginning) or handle").Required(),
               cli::Number("--wait", "SEC", "Limit of the wait for the event in seconds", 0, 86'400)
                   .Standard("10")},
              "The hub sends the event also when the MCU refused the flush or did not answer; how "
              "long it took and whether samples came tell more.",
              "shdtool flush accelerometer"},
             Flush}};
}

}  // namespace shdtool
