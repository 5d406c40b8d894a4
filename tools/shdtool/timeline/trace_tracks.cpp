// Items onto the tracks of a trace. Called by the timeline command.
#include "tools/shdtool/timeline/trace_tracks.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "tools/client/sensor_info.h"
#include "tools/shdtool/base/hex.h"

namespace shdtool::timeline {
namespace {

constexpr Time kNsPerMs = 1'000'000;

// Samples of one report are sent one by one, within this time of each other.
constexpr Time kTogetherNs = 2 * kNsPerMs;

// A flush-complete event may seem to be earlier than its request by what the clocks of a recorder
// of the line and of one of events differ.
constexpr Time kClocksDifferNs = 5 * kNsPerMs;

// A viewer shows nothing of a slice without any length.
constexpr Time kShortestNs = 1'000;

constexpr std::array<std::string_view, 7> kProcessNames{"",        "shd",     "MCU",      "line",
                                                        "sensors", "clients", "simulator"};

// "report accelerometer 5 samples" of what goes on with bytes, so that the same kind of frame has
// the same name, and in a viewer the same colour.
std::string_view WithoutBytes(std::string_view words) {
    const auto is_hex = [](std::string_view word) {
        return word == "..." ||
               (word.size() == 2 && word.find_first_not_of("0123456789ABCDEF") == word.npos);
    };
    while (true) {
        const size_t blank = words.rfind(' ');
        if (blank == words.npos || !is_hex(words.substr(blank + 1))) return words;
        words = words.substr(0, blank);
    }
}

double Milliseconds(Time ns) {
    return static_cast<double>(ns) / kNsPerMs;
}

}  // namespace

// By number, from 1, in the order in which a viewer shows them.
enum class TraceTracks::Process : uint8_t { kShd = 1, kMcu, kLine, kSensors, kClients, kSimulator };

TraceEvents::Track TraceTracks::Track(Process process, const std::string& thread) {
    const auto number = static_cast<size_t>(process);
    return out_.TrackOf(static_cast<int>(number), kProcessNames[number], thread);
}

void TraceTracks::BeginFile(RecordingKind kind, const std::string& mark) {
    mark_ = mark.empty() ? "" : " (" + mark + ")";
    if (kind == RecordingKind::kLog) log_ = true;
    for (Flush& flush : flushes_) flush.answered = false;
}

void TraceTracks::Take(const Item& item) {
    std::visit([this](const auto& one) { On(one); }, item);
}

// What a recording of events has got shows that its client was connected by then.
void TraceTracks::Arrived(Time at) {
    if (!connected_) connected_ = at;
    end_ = std::max(end_, at);
}

void TraceTracks::On(const Sample& item) {
    Arrived(item.arrival);
    const shdclient::DecodedEvent& event = item.event;
    const std::string name = std::string(event.sensor->name) + mark_;
    out_.Counter(Track(Process::kSensors, name), name, event);
    Batch& batch = batches_[event.sensor->handle];
    if (batch.samples > 0 && item.arrival - batch.arrival > kTogetherNs) {
        WriteBatch(event.sensor->handle, batch);
    }
    if (batch.samples++ == 0) batch.first_stamp = event.timestamp_ns;
    batch.arrival = item.arrival;
}

// From the first sample's time to the arrival, as far as the one before had arrived by then.
void TraceTracks::WriteBatch(int32_t handle, Batch& batch) {
    const Time begin = std::max(std::min(batch.first_stamp, batch.arrival), batch.busy);
    if (batch.samples > 1) {
        out_.Slice(Track(Process::kSensors, shdclient::SensorName(handle) + mark_), begin,
                   batch.arrival, fmt::format("batch of {}", batch.samples),
                   {{"samples", batch.samples},
                    {"age_of_first_ms", Milliseconds(batch.arrival - batch.first_stamp)}},
                   {"batch"});
        batch.busy = std::max(batch.arrival, begin);
    }
    batch.samples = 0;
}

void TraceTracks::On(const FlushComplete& item) {
    Arrived(item.arrival);
    Batch& batch = batches_[item.handle];
    WriteBatch(item.handle, batch);
    Flush* asked = nullptr;
    for (Flush& flush : flushes_) {
        if (flush.handle != item.handle || flush.answered) continue;
        if (flush.at > item.arrival + kClocksDifferNs) continue;
        flush.answered = true;  // one event ends all flushes that are pending
        asked = &flush;
    }
    Time at = std::max(item.arrival, batch.busy);
    if (asked != nullptr) at = std::max(at, asked->at);
    const auto track = Track(Process::kSensors, shdclient::SensorName(item.handle) + mark_);
    out_.Slice(track, at, at + kShortestNs, "flush complete", {}, {"flush"});
    batch.busy = at + kShortestNs;
    if (asked != nullptr) out_.Flow("flush", asked->track, asked->at, track, at);
}

void TraceTracks::On(const Frame& item) {
    end_ = std::max(end_, item.end);
    const TraceEvents::Look look{item.damaged ? "damaged" : "frame", item.damaged};
    const std::string_view name = WithoutBytes(item.words);
    const std::string thread = (item.to_mcu ? "to the MCU" : "from the MCU") + mark_;
    if (item.source == Source::kTrace) {
        out_.Instant(Track(Process::kSimulator, thread), item.begin, name, {{"packet", item.words}},
                     look);
        return;
    }
    out_.Slice(Track(Process::kLine, thread), item.begin, item.end, name,
               {{"message", item.words}, {"bytes", FormatHex(item.raw)}, {"number", item.number}},
               look);
    constexpr std::string_view kLog = "log ";
    if (!log_ && !item.to_mcu && !item.damaged && item.words.starts_with(kLog)) {
        out_.Instant(Track(Process::kMcu, "log"), item.end, item.words.substr(kLog.size()), {},
                     {"mcu"});
    }
}

void TraceTracks::On(const LineChange& item) {
    end_ = std::max(end_, item.at);
    out_.Instant(Track(Process::kLine, "pins and settings" + mark_), item.at, item.words, {},
                 {"pin"});
}

void TraceTracks::On(const Exchange& item) {
    exchanges_[item.number] = item;
    if (item.mark == Mark::kLate) return;  // its flush and its wait were told
    waits_.push_back({item.begin, item.end, "waits for " + item.words, true});
    const auto track = Track(Process::kLine, "to the MCU" + mark_);
    for (const int32_t handle : item.flushed) flushes_.push_back({item.begin, track, handle});
}

void TraceTracks::On(const McuState& item) {
    end_ = std::max(end_, item.at);
    (item.source == Source::kTrace ? simulator_states_ : states_).push_back(item);
}

void TraceTracks::On(const EpisodeSpan& item) {
    episodes_[{item.kind, item.begin}] = item;
}

void TraceTracks::On(const LogText& item) {
    end_ = std::max(end_, item.at);
    const auto track = Track(item.of_mcu ? Process::kMcu : Process::kShd, "log" + mark_);
    out_.Instant(track, item.at, item.text.empty() ? " " : item.text,
                 {{"level", std::string(1, item.level)},
                  {"tag", item.tag},
                  {"pid", item.pid},
                  {"tid", item.tid}},
                 {item.tag, item.level == 'E' || item.level == 'F'});
}

void TraceTracks::On(const Work& item) {
    waits_.push_back({item.begin, item.end, item.words});
}

void TraceTracks::On(const Connection& item) {
    if (!item.up) WriteConnection(item.at);
    if (item.up) Arrived(item.at);
}

void TraceTracks::On(const Missed& item) {
    Arrived(item.begin);
    out_.Slice(Track(Process::kClients, "events missed by the recorder" + mark_), item.begin,
               item.end, item.certain ? "events were missed" : "events may have been missed", {},
               {"missed", true});
}

void TraceTracks::On(const Asked& item) {
    out_.Instant(Track(Process::kSensors, shdclient::SensorName(item.handle)), item.at,
                 item.period_us == 0
                     ? "off"
                     : fmt::format("every {} ms, {} to a report",
                                   static_cast<double>(item.period_us) / 1000, item.batch),
                 {}, {"asked"});
}

void TraceTracks::WriteConnection(Time end) {
    end_ = std::max(end_, end);
    if (!connected_) return;
    out_.Slice(Track(Process::kClients, "recorder" + mark_), *connected_,
               std::max(end, *connected_), "connected", {}, {"client"});
    connected_.reset();
}

// Exchanges that overlap, as late replies make them, stand on tracks side by side.
void TraceTracks::WriteExchanges() {
    std::vector<const Exchange*> sorted;
    for (const auto& [number, exchange] : exchanges_) sorted.push_back(&exchange);
    std::ranges::stable_sort(sorted, {}, &Exchange::begin);
    std::vector<Time> busy;
    for (const Exchange* exchange : sorted) {
        auto lane =
            std::ranges::find_if(busy, [exchange](Time until) { return until <= exchange->begin; });
        if (lane == busy.end()) lane = busy.insert(lane, INT64_MIN);
        *lane = std::max(exchange->end, exchange->begin + 1);
        const auto number = lane - busy.begin() + 1;
        const std::string thread =
            (number == 1 ? "exchanges" : fmt::format("exchanges {}", number)) + mark_;
        const std::string_view mark = NameOf(exchange->mark);
        const std::string name =
            mark.empty() ? exchange->words : fmt::format("{} [{}]", exchange->words, mark);
        out_.Slice(Track(Process::kLine, thread), exchange->begin, exchange->end, name,
                   {{"request", exchange->number}, {"mark", mark}},
                   {mark.empty() ? "exchange" : mark, !mark.empty()});
        end_ = std::max(end_, exchange->end);
    }
    exchanges_.clear();
}

void TraceTracks::EndFile() {
    for (auto& [handle, batch] : batches_) WriteBatch(handle, batch);
    batches_.clear();
    WriteExchanges();
    WriteConnection(end_);
}

// Each state holds until the next.
void TraceTracks::WriteStates(Process process, std::vector<McuState> states) {
    if (states.empty()) return;
    const auto track = Track(process, "state");
    std::ranges::stable_sort(states, {}, &McuState::at);
    for (size_t i = 0; i < states.size(); ++i) {
        const McuState& state = states[i];
        const std::string_view name = NameOf(state.state);
        const bool bad = state.state == State::kSilent || state.state == State::kDown;
        const Time end =
            i + 1 < states.size() ? states[i + 1].at : std::max(end_, state.at + kShortestNs);
        if (end <= state.at) continue;  // another source knew better
        out_.Slice(track, state.at, end, name, {{"reason", state.reason}}, {"state", bad});
    }
}

void TraceTracks::WriteEpisodes() {
    for (const auto& [key, episode] : episodes_) {
        const bool crash = episode.kind == EpisodeSpan::Kind::kCrash;
        const auto track = Track(Process::kShd, crash ? "crashes" : "recoveries and updates");
        const Time end = episode.end.value_or(end_);
        out_.Slice(
            track, episode.begin, end, NameOf(episode.kind),
            {{"what", episode.words}, {"ok", episode.ok}, {"ended", episode.end.has_value()}},
            {"episode", !episode.ok});
        for (const Phase& phase : episode.phases) {
            out_.Slice(track, phase.begin, phase.end.value_or(end), phase.words, {}, {"phase"});
        }
    }
}

// The line does not tell which thread asked: while a recovery goes on it is that one's, since it
// refuses the requests of clients. What seems to reach beyond the work that it is part of does so
// by the rounding of the log.
void TraceTracks::WriteMainThread() {
    const auto in_recovery = [this](const Wait& wait) {
        return wait.exchange && std::ranges::any_of(episodes_, [&](const auto& entry) {
                   const EpisodeSpan& span = entry.second;
                   return span.kind == EpisodeSpan::Kind::kRecovery && span.begin <= wait.begin &&
                          wait.begin <= span.end.value_or(end_);
               });
    };
    std::erase_if(waits_, in_recovery);
    std::ranges::stable_sort(waits_, [](const Wait& a, const Wait& b) {
        return a.begin != b.begin ? a.begin < b.begin : a.end > b.end;
    });
    std::vector<Time> open;  // ends of the work that this is part of
    for (const Wait& wait : waits_) {
        while (!open.empty() && open.back() <= wait.begin) open.pop_back();
        const Time end = open.empty() ? wait.end : std::min(wait.end, open.back());
        open.push_back(end);
        out_.Slice(Track(Process::kShd, "main thread"), wait.begin, end, wait.words, {},
                   {wait.exchange ? "wait" : "work"});
    }
}

void TraceTracks::End() {
    std::ranges::stable_sort(states_, {}, &McuState::at);
    StateFold fold;
    std::vector<McuState> states;
    for (const McuState& told : states_) {
        if (const auto state = fold.Push(told)) states.push_back(*state);
    }
    WriteStates(Process::kMcu, std::move(states));
    WriteStates(Process::kSimulator, std::move(simulator_states_));
    WriteEpisodes();
    WriteMainThread();
}

}  // namespace shdtool::timeline
