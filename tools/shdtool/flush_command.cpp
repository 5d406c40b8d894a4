// shdtool flush: asks for a flush and waits for its end on the data socket. Called by main.
#include <fmt/core.h>
#include <poll.h>

#include <chrono>
#include <memory>
#include <vector>

#include "tools/client/event_decoder.h"
#include "tools/client/event_stream.h"
#include "tools/client/hub_client.h"
#include "tools/shdtool/commands.h"
#include "tools/shdtool/sensor_argument.h"

namespace shdtool {
namespace {

using shdclient::Error;
using shdclient::ErrorCode;
using shdclient::EventStream;
using shdclient::HubClient;
using shdclient::Result;
using shdclient::SensorInfo;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kServedLimit{1'000};

// Waits for the flush-complete event of the sensor and counts its samples on the way.
Result<size_t> AwaitFlushComplete(EventStream& stream, const SensorInfo& sensor,
                                  milliseconds limit) {
    const steady_clock::time_point deadline = steady_clock::now() + limit;
    size_t samples = 0;
    std::vector<SensorEvent> events;
    for (;;) {
        events.clear();
        const Result<size_t> count = stream.Read(events);
        if (!count) return count.error();
        for (const SensorEvent& event : events) {
            const auto decoded = shdclient::DecodeEvent(event);
            if (!decoded || decoded->sensor != &sensor) continue;
            if (decoded->flush_complete) return samples;
            ++samples;
        }
        const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
        if (left.count() <= 0) {
            return Error{
                ErrorCode::kTimeout,
                fmt::format("flush of {}: taken by the hub, but no flush-complete event "
                            "within {} s ({} samples came)",
                            sensor.name, std::chrono::duration<double>(limit).count(), samples)};
        }
        pollfd ready{stream.fd(), POLLIN, 0};
        (void)poll(&ready, 1, static_cast<int>(left.count()));
    }
}

Result<Report> Flush(const Context& context, HubClient& hub, const SensorInfo& sensor,
                     double wait_sec) {
    Result<EventStream> stream = EventStream::Connect(context.root);
    if (!stream) return stream.error();
    // The event may come before the reply to the request, and must find this client on the list.
    const shdclient::Status served = stream->WaitUntilServed(kServedLimit);
    if (!served) return served.error();
    const shdclient::Status taken = hub.Flush(sensor.handle);
    if (!taken) return taken.error();
    const Result<size_t> samples =
        AwaitFlushComplete(*stream, sensor, milliseconds(static_cast<int64_t>(wait_sec * 1000)));
    if (!samples) return samples.error();
    Json fields = SensorFields(sensor);
    fields["samples"] = *samples;
    return Report{fmt::format("{} flushed, {} sample{} on the way", sensor.name, *samples,
                              *samples == 1 ? "" : "s"),
                  fields};
}

}  // namespace

void AddFlushCommand(CLI::App& app, Context& context) {
    constexpr double kDefaultWaitSec = 10;
    constexpr double kMaxWaitSec = 86'400;
    CLI::App* command = AddCommand(
        app, "flush", "Make the MCU deliver a sensor's batch and wait for the flush-complete event",
        "  shdtool flush accelerometer",
        "The hub sends the event also when the MCU refused the flush or did not answer; whether\n"
        "samples came tells more.");
    const SensorArgument sensor = AddSensorArgument(*command);
    auto wait_sec = std::make_shared<double>(kDefaultWaitSec);
    command->add_option("--wait", *wait_sec, "Limit of the wait for the event in seconds (10)")
        ->check(Between(0, kMaxWaitSec))
        ->type_name("SEC");
    command->callback([&context, sensor, wait_sec] {
        RunWithHub(context, "flush",
                   [&](HubClient& hub) { return Flush(context, hub, **sensor, *wait_sec); });
    });
}

}  // namespace shdtool
