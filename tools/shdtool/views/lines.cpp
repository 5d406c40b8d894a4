// Formats events one line each. Called by watch and replay.
#include "tools/shdtool/views/lines.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "tools/shdtool/base/command.h"
#include "tools/shdtool/base/hex.h"
#include "tools/shdtool/base/terminal.h"
#include "tools/shdtool/views/event_format.h"

namespace shdtool {
namespace {

using shdclient::DecodedEvent;
using shdclient::WatchedEvent;

constexpr size_t kLineColumns = 103;  // with the time stamp

shdclient::Status WriteOut(std::string& text) {
    const bool written =
        std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
    text.clear();
    if (written) return shdclient::Success();
    return shdclient::Error{
        shdclient::ErrorCode::kSystem,
        fmt::format("cannot write to standard output: {}", std::strerror(errno))};
}

Json ValuesOf(const DecodedEvent& event) {
    Json values;
    for (size_t i = 0; i < event.value_count; ++i) {
        values.Set(event.sensor->axes[i].name, PlainNumber(event.all_values[i]));
    }
    return values;
}

}  // namespace

void StreamPrinter::OnEvent(const WatchedEvent& event) {
    Format(event, pending_);
}

shdclient::Result<bool> StreamPrinter::OnTick(const WatchState& /*state*/) {
    if (pending_.empty()) return true;
    const shdclient::Status written = WriteOut(pending_);
    if (!written) return written.error();
    return true;
}

shdclient::Status StreamPrinter::OnEnd(const WatchState& /*state*/) {
    return pending_.empty() ? shdclient::Success() : WriteOut(pending_);
}

void LinePrinter::Format(const WatchedEvent& event, std::string& out) {
    const DecodedEvent& decoded = event.decoded;
    auto end = std::back_inserter(out);
    if (decoded.flush_complete) {
        fmt::format_to(end, "{:<20}  {}\n", decoded.sensor->name, FormatValues(decoded));
        return;
    }
    std::string spacing = "first";
    const auto previous = last_ns_.find(decoded.sensor->handle);
    if (previous != last_ns_.end()) {
        spacing = FormatSpacing(decoded.timestamp_ns - previous->second);
    }
    last_ns_[decoded.sensor->handle] = decoded.timestamp_ns;
    const std::string values = FormatValues(decoded);
    if (Terminal().terminal && WindowOf().columns < kLineColumns) {
        fmt::format_to(end, "{:<20} {:<46} {:>11}\n", decoded.sensor->name, values, spacing);
        return;
    }
    fmt::format_to(end, "{:<20}  {:<44}  {:>18}  {:>13}\n", decoded.sensor->name, values,
                   FormatTime(decoded.timestamp_ns), spacing);
}

void JsonPrinter::Format(const WatchedEvent& event, std::string& out) {
    const DecodedEvent& decoded = event.decoded;
    Json object{{"event", decoded.flush_complete ? "flush-complete" : "sample"}};
    object.Merge(SensorFields(*decoded.sensor));
    if (!decoded.flush_complete) object.Set("timestamp_ns", decoded.timestamp_ns);
    object.Set("arrival_ns", event.arrival_ns);
    if (decoded.value_count > 0) object.Set("values", ValuesOf(decoded));
    if (decoded.byte_count > 0) object.Set("bytes", FormatHex(decoded.bytes()));
    out += object.Text();
    out += '\n';
}

void JsonPrinter::OnChange(const Delivery& change) {
    const char* name = change.kind == DeliveryKind::kLost     ? "disconnected"
                       : change.kind == DeliveryKind::kMissed ? "missed"
                                                              : "reconnected";
    Json object{{"event", name}, {"arrival_ns", change.event.arrival_ns}};
    if (change.kind == DeliveryKind::kMissed) object.Set("from_ns", change.from_ns);
    Print(object.Text() + "\n");
}

void JsonPrinter::OnSilence() {
    Print(
        Json{{"event", "warning"}, {"text", "no sample came so far; is a sensor enabled?"}}.Text() +
        "\n");
}

CsvPrinter::CsvPrinter() {
    Print("event,sensor,handle,timestamp_ns,arrival_ns,value1,value2,value3,value4,bytes\n");
}

void CsvPrinter::Format(const WatchedEvent& event, std::string& out) {
    const DecodedEvent& decoded = event.decoded;
    auto end = std::back_inserter(out);
    fmt::format_to(end, "{},{},{},", decoded.flush_complete ? "flush-complete" : "sample",
                   decoded.sensor->name, decoded.sensor->handle);
    if (!decoded.flush_complete) fmt::format_to(end, "{}", decoded.timestamp_ns);
    fmt::format_to(end, ",{}", event.arrival_ns);
    for (size_t i = 0; i < shdclient::kMaxAxes; ++i) {
        out += ',';
        if (i < decoded.value_count) fmt::format_to(end, "{}", PlainNumber(decoded.all_values[i]));
    }
    out += ',';
    if (decoded.byte_count > 0) out += FormatHex(decoded.bytes());
    out += '\n';
}

}  // namespace shdtool
