// JSON objects for the page. Called by the feeds.
#include "tools/shdtool/view/item_json.h"

#include <fmt/format.h>

#include <cmath>
#include <iterator>

#include "tools/shdtool/engine/line_budget.h"
#include "tools/shdtool/engine/spacing.h"

namespace shdtool {
namespace {

// What enable takes, too.
constexpr int64_t kMinPeriodUs = 1'000;
constexpr int64_t kMaxPeriodUs = 3'600'000'000;
constexpr int64_t kMaxBatch = 100'000;

Json SensorJson(const shdclient::SensorInfo& sensor) {
    Json axes = Json::List();
    for (const shdclient::Axis& axis : sensor.axes) {
        axes.Add({{"name", axis.name}, {"unit", axis.unit}});
    }
    return {{"h", sensor.handle},
            {"name", sensor.name},
            {"axes", axes},
            {"period_min_us", kMinPeriodUs},
            {"period_max_us", kMaxPeriodUs},
            {"batch_max", sensor.can_batch ? kMaxBatch : 0},
            {"periodic", IsPeriodic(sensor)}};
}

// The busiest item, so without a Json: 2,000 a second on a full line.
std::string SampleJson(const shdclient::WatchedEvent& event) {
    std::string text =
        fmt::format(R"({{"k":"sample","h":{},"t":{},"a":{},"v":[)", event.decoded.sensor->handle,
                    event.decoded.timestamp_ns / kNsPerUs, event.arrival_ns / kNsPerUs);
    const char* comma = "";
    for (const double value : event.decoded.values()) {
        text += comma;
        comma = ",";
        if (std::isfinite(value)) {
            fmt::format_to(std::back_inserter(text), "{:.9g}", value);
        } else {
            text += "null";
        }
    }
    return text + "]}";
}

}  // namespace

std::string GreetingJson(const Greeting& greeting) {
    Json sensors = Json::List();
    for (const shdclient::SensorInfo& sensor : shdclient::AllSensors()) {
        sensors.Add(SensorJson(sensor));
    }
    return Json{{"k", "hello"},
                {"now", greeting.now_us},
                {"wall", greeting.wall_us},
                {"live", greeting.live},
                {"sim", greeting.simulator},
                {"title", greeting.title},
                {"sensors", sensors},
                {"line", greeting.line},
                {"log", greeting.log},
                {"capacity", kLineBytesPerSec}}
        .Text();
}

std::string DeliveryJson(const Delivery& delivery) {
    const int64_t at_us = delivery.event.arrival_ns / kNsPerUs;
    switch (delivery.kind) {
        case DeliveryKind::kEvent:
            if (!delivery.event.decoded.flush_complete) return SampleJson(delivery.event);
            return fmt::format(R"({{"k":"flush","h":{},"t":{}}})",
                               delivery.event.decoded.sensor->handle, at_us);
        case DeliveryKind::kMissed:
            return fmt::format(R"({{"k":"missed","t":{},"e":{},"certain":{}}})",
                               delivery.from_ns / kNsPerUs, at_us, delivery.certain);
        case DeliveryKind::kLost:
        case DeliveryKind::kReconnected:
            break;
    }
    return fmt::format(R"({{"k":"connection","t":{},"up":{}}})", at_us,
                       delivery.kind == DeliveryKind::kReconnected);
}

std::string StateJson(int64_t at_us, std::string_view state, std::string_view reason) {
    return Json{{"k", "state"}, {"t", at_us}, {"s", state}, {"m", reason}}.Text();
}

std::string ClientsJson(int64_t at_us, const SocketUse& control, const SocketUse& data) {
    Json list = Json::List();
    const auto add = [&list](const SocketUse& use, const char* name) {
        for (const SocketClient& client : use.clients) {
            list.Add({{"pid", client.pid},
                      {"name", client.name},
                      {"socket", name},
                      {"unread", client.unread},
                      {"fill", client.fill_percent()},
                      {"losing", client.losing()}});
        }
    };
    add(data, "data");
    add(control, "control");
    return Json{{"k", "clients"}, {"t", at_us}, {"list", list}}.Text();
}

}  // namespace shdtool
