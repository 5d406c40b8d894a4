// JSON objects for the page. Called by the feeds.
#include "tools/shdtool/view/item_json.h"

#include <fmt/format.h>

#include <cmath>
#include <iterator>
#include <variant>

#include "tools/client/sensor_info.h"
#include "tools/shdtool/base/json.h"
#include "tools/shdtool/engine/line_budget.h"
#include "tools/shdtool/engine/spacing.h"

namespace shdtool {
namespace {

using namespace timeline;

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

// A text as a JSON string, quotes and all.
std::string Quoted(std::string_view text) {
    return Json(text).Text();
}

std::string TimeOrNull(const std::optional<Time>& time) {
    return time ? std::to_string(*time / kNsPerUs) : "null";
}

// Without a Json, since a full line makes thousands of them a second.
struct Writer {
    std::string operator()(const Sample& sample) const {
        std::string text =
            fmt::format(R"({{"k":"sample","h":{},"t":{},"a":{},"v":[)", sample.event.sensor->handle,
                        sample.event.timestamp_ns / kNsPerUs, sample.arrival / kNsPerUs);
        const char* comma = "";
        for (const double value : sample.event.values()) {
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
    std::string operator()(const FlushComplete& flush) const {
        return fmt::format(R"({{"k":"flush","h":{},"t":{}}})", flush.handle,
                           flush.arrival / kNsPerUs);
    }
    std::string operator()(const Frame& frame) const {
        return fmt::format(R"({{"k":"frame","n":{},"t":{},"e":{},"d":"{}","m":{},"x":"{:02x}",)"
                           R"("bad":{}}})",
                           frame.number, frame.begin / kNsPerUs, frame.end / kNsPerUs,
                           frame.to_mcu ? "to" : "from", Quoted(frame.words),
                           fmt::join(frame.raw, ""), frame.damaged);
    }
    std::string operator()(const LineChange& change) const {
        return fmt::format(R"({{"k":"pin","t":{},"m":{}}})", change.at / kNsPerUs,
                           Quoted(change.words));
    }
    std::string operator()(const Exchange& exchange) const {
        return fmt::format(R"({{"k":"exchange","n":{},"t":{},"e":{},"m":{},"mark":"{}"}})",
                           exchange.number, exchange.begin / kNsPerUs, exchange.end / kNsPerUs,
                           Quoted(exchange.words), NameOf(exchange.mark));
    }
    std::string operator()(const McuState& state) const {
        return StateJson(state.at / kNsPerUs, NameOf(state.state), state.reason);
    }
    std::string operator()(const EpisodeSpan& episode) const {
        std::string phases;
        for (const Phase& phase : episode.phases) {
            phases +=
                fmt::format(R"({}{{"t":{},"e":{},"m":{}}})", phases.empty() ? "" : ",",
                            phase.begin / kNsPerUs, TimeOrNull(phase.end), Quoted(phase.words));
        }
        return fmt::format(
            R"({{"k":"episode","t":{},"e":{},"kind":"{}","m":{},"ok":{},"phases":[{}]}})",
            episode.begin / kNsPerUs, TimeOrNull(episode.end), NameOf(episode.kind),
            Quoted(episode.words), episode.ok, phases);
    }
    std::string operator()(const LogText& log) const {
        return fmt::format(R"({{"k":"log","t":{},"who":"{}","level":"{}","tag":{},"m":{}}})",
                           log.at / kNsPerUs, log.of_mcu ? "mcu" : "shd", log.level,
                           Quoted(log.tag), Quoted(log.text));
    }
    std::string operator()(const Work& /*not shown*/) const { return {}; }
    std::string operator()(const Connection& connection) const {
        return fmt::format(R"({{"k":"connection","t":{},"up":{}}})", connection.at / kNsPerUs,
                           connection.up);
    }
    std::string operator()(const Missed& missed) const {
        return fmt::format(R"({{"k":"missed","t":{},"e":{},"certain":{}}})",
                           missed.begin / kNsPerUs, missed.end / kNsPerUs, missed.certain);
    }
    std::string operator()(const Clients& clients) const {
        Json list = Json::List();
        for (const ClientState& client : clients.list) {
            list.Add({{"pid", client.pid},
                      {"name", client.name},
                      {"socket", client.control ? "control" : "data"},
                      {"unread", client.unread},
                      {"fill", client.fill_percent},
                      {"losing", client.losing}});
        }
        return Json{{"k", "clients"}, {"t", clients.at / kNsPerUs}, {"list", list}}.Text();
    }
    std::string operator()(const Asked& asked) const {
        return fmt::format(R"({{"k":"asked","t":{},"h":{},"period_us":{},"batch":{}}})",
                           asked.at / kNsPerUs, asked.handle, asked.period_us, asked.batch);
    }
};

struct Passed {
    template <typename Standing>
    std::optional<Time> operator()(const Standing& /*item*/) const {
        return std::nullopt;
    }
    std::optional<Time> operator()(const Sample& item) const { return item.arrival; }
    std::optional<Time> operator()(const FlushComplete& item) const { return item.arrival; }
    std::optional<Time> operator()(const Frame& item) const { return item.end; }
    std::optional<Time> operator()(const LineChange& item) const { return item.at; }
    std::optional<Time> operator()(const Exchange& item) const { return item.end; }
    std::optional<Time> operator()(const LogText& item) const { return item.at; }
    std::optional<Time> operator()(const Missed& item) const { return item.end; }
};

struct Key {
    template <typename Passing>
    std::string operator()(const Passing& /*item*/) const {
        return {};
    }
    std::string operator()(const McuState& /*item*/) const { return "state"; }
    std::string operator()(const Connection& /*item*/) const { return "connection"; }
    std::string operator()(const Clients& /*item*/) const { return "clients"; }
    std::string operator()(const Asked& item) const { return fmt::format("asked {}", item.handle); }
    std::string operator()(const EpisodeSpan& item) const {
        return fmt::format("{} {}", NameOf(item.kind), item.begin);
    }
};

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

std::string StateJson(int64_t at_us, std::string_view state, std::string_view reason) {
    return Json{{"k", "state"}, {"t", at_us}, {"s", state}, {"m", reason}}.Text();
}

std::string ItemJson(const timeline::Item& item) {
    return std::visit(Writer{}, item);
}

std::optional<timeline::Time> PassedAt(const timeline::Item& item) {
    return std::visit(Passed{}, item);
}

std::string StandingKey(const timeline::Item& item) {
    return std::visit(Key{}, item);
}

}  // namespace shdtool
