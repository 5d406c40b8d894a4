// Writing of the Trace Event Format. Called by the timeline command.
#include "tools/shdtool/timeline/trace_events.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>

namespace shdtool::timeline {
namespace {

constexpr size_t kPieceBytes = 65'536;

// Exactly, in microseconds; the boot clock is never negative, but a log may be older than the boot.
std::string Microseconds(Time ns) {
    constexpr int64_t kNsPerUs = 1'000;
    const int64_t size = std::abs(ns);
    return fmt::format("{}{}.{:03}", ns < 0 ? "-" : "", size / kNsPerUs, size % kNsPerUs);
}

std::string Quoted(std::string_view text) {
    return Json(text).Text();
}

// The fields that all kinds share.
std::string Head(char phase, const TraceEvents::Track& track, Time at) {
    return fmt::format(R"({{"ph":"{}","pid":{},"tid":{},"ts":{})", phase, track.process,
                       track.thread, Microseconds(at));
}

std::string ArgsText(const Json& args) {
    const std::string text = args.Text();
    return text == "null" ? "{}" : text;
}

std::string NameAndLook(std::string_view name, const TraceEvents::Look& look) {
    return fmt::format(R"(,"name":{},"cat":{}{})", Quoted(name), Quoted(look.category),
                       look.bad ? R"(,"cname":"terrible")" : "");
}

}  // namespace

TraceEvents::TraceEvents(GrowingFile& file) : file_(file) {
    pending_ = "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[";
}

void TraceEvents::Add(const std::string& event) {
    pending_ += events_++ == 0 ? "\n" : ",\n";
    pending_ += event;
    if (pending_.size() < kPieceBytes) return;
    file_.Write(pending_);
    pending_.clear();
}

void TraceEvents::Metadata(const Track& track, std::string_view what, const Json& args) {
    Add(fmt::format(R"({{"ph":"M","pid":{},"tid":{},"name":"{}","args":{}}})", track.process,
                    track.thread, what, args.Text()));
}

TraceEvents::Track TraceEvents::TrackOf(int process, std::string_view process_name,
                                        const std::string& thread_name) {
    const auto [found, is_new] = tracks_.try_emplace({process, thread_name});
    Track& track = found->second;
    if (!is_new) return track;
    track = {process, ++threads_[process]};
    if (track.thread == 1) {
        Metadata(track, "process_name", {{"name", process_name}});
        Metadata(track, "process_sort_index", {{"sort_index", process}});
    }
    Metadata(track, "thread_name", {{"name", thread_name}});
    Metadata(track, "thread_sort_index", {{"sort_index", track.thread}});
    return track;
}

void TraceEvents::Slice(const Track& track, Time begin, Time end, std::string_view name,
                        const Json& args, const Look& look) {
    Add(fmt::format(R"({},"dur":{}{},"args":{}}})", Head('X', track, begin),
                    Microseconds(std::max<Time>(end - begin, 0)), NameAndLook(name, look),
                    ArgsText(args)));
}

void TraceEvents::Instant(const Track& track, Time at, std::string_view name, const Json& args,
                          const Look& look) {
    Add(fmt::format(R"({},"s":"t"{},"args":{}}})", Head('i', track, at), NameAndLook(name, look),
                    ArgsText(args)));
}

void TraceEvents::Counter(const Track& track, std::string_view name,
                          const shdclient::DecodedEvent& sample) {
    const shdclient::SensorInfo& sensor = *sample.sensor;
    std::string values;
    for (size_t i = 0; i < sample.value_count; ++i) {
        if (!std::isfinite(sample.all_values[i])) continue;
        const shdclient::Axis& axis = sensor.axes[i];
        fmt::format_to(std::back_inserter(values), R"({}"{}{}{}{}":{})", values.empty() ? "" : ",",
                       axis.name, axis.unit.empty() ? "" : " [", axis.unit,
                       axis.unit.empty() ? "" : "]", sample.all_values[i]);
    }
    if (values.empty()) return;
    Add(fmt::format(R"({}{},"args":{{{}}}}})", Head('C', track, sample.timestamp_ns),
                    NameAndLook(name, {"sample"}), values));
}

void TraceEvents::Flow(std::string_view name, const Track& from, Time begin, const Track& to,
                       Time end) {
    const std::string shared =
        fmt::format(R"({},"id":{}}})", NameAndLook(name, {"flow"}), ++flows_);
    Add(Head('s', from, begin) + shared);
    Add(Head('f', to, end) + R"(,"bp":"e")" + shared);
}

void TraceEvents::End(const Json& other) {
    pending_ += "\n],\"otherData\":" + other.Text() + "}\n";
    file_.Write(pending_);
    pending_.clear();
}

}  // namespace shdtool::timeline
