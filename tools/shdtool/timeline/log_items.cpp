// The daemon's log as items. Called by the timeline command and by the view.
#include "tools/shdtool/timeline/log_items.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace shdtool::timeline {
namespace {

constexpr int64_t kNsPerSec = 1'000'000'000;
constexpr int64_t kNsPerMs = 1'000'000;

// A request that comes while the MCU is being restarted is refused after this time.
constexpr Time kRefusalNs = 2 * kNsPerSec;
constexpr std::string_view kRefusal = "Process msg mcu in reboot ignore sensor";
constexpr std::string_view kStarted = "Set parameter OK, start loop";

std::string WithoutLineEnd(std::string text) {
    text.erase(text.find_last_not_of('\n') + 1);
    return text;
}

// The wall clock at this local date and time of the year that brings it next to another time.
int64_t WallOfDate(std::tm date, int64_t near_ns) {
    const auto near_sec = static_cast<std::time_t>(near_ns / kNsPerSec);
    std::tm there{};
    if (localtime_r(&near_sec, &there) == nullptr) return near_ns;
    int64_t best_ns = 0;
    int64_t best_distance = INT64_MAX;
    for (int year = there.tm_year - 1; year <= there.tm_year + 1; ++year) {
        std::tm candidate = date;
        candidate.tm_year = year;
        candidate.tm_isdst = -1;
        const int64_t wall_ns = int64_t{std::mktime(&candidate)} * kNsPerSec;
        const int64_t distance = std::abs(wall_ns - near_ns);
        if (distance < best_distance) best_ns = wall_ns;
        best_distance = std::min(distance, best_distance);
    }
    return best_ns;
}

EpisodeSpan::Kind KindOf(EpisodeKind kind) {
    return kind == EpisodeKind::kUpdate ? EpisodeSpan::Kind::kUpdate : EpisodeSpan::Kind::kRecovery;
}

}  // namespace

// What the beginning of a text says.
struct LogItems::Words {
    std::string_view text;
    EpisodeKind of;  // kStart: of none
    std::string_view words;
    State state = State::kStarting;
};

// Where a phase of an episode begins; the first one begins with the episode.
const LogItems::Words LogItems::kPhases[] = {
    {"SensorWakeLockAcquiredLocked :1", EpisodeKind::kRecovery, "resets the MCU"},
    {"SensorMcuReboot ReInit uart", EpisodeKind::kRecovery, "opens the UART and shakes hands"},
    {"SensorMcuReboot Handshake OK", EpisodeKind::kRecovery, "restores the settings"},
    {"SensorMcuReboot sensor:", EpisodeKind::kRecovery, "restores the sensors"},
    {"SensorMcuReboot SensorActive:", EpisodeKind::kRecovery, "restores the sensors"},
    {"mcu_update enter!", EpisodeKind::kUpdate, "starts the bootloader"},
    {"extended_erase_cmd enter!", EpisodeKind::kUpdate, "erases the flash"},
    {"write extended erase cmd ok!", EpisodeKind::kUpdate, "writes the image and starts it"},
};

const LogItems::Words LogItems::kStates[] = {
    {"Start sensorhub daemon", EpisodeKind::kStart, "the daemon starts", State::kStarting},
    {"Send Handshake to sensorhub", EpisodeKind::kStart, "the daemon starts", State::kStarting},
    {"get mcu current version:", EpisodeKind::kStart, "the daemon starts", State::kStarting},
    {kStarted, EpisodeKind::kStart, "", State::kService},
};

const LogItems::Words* LogItems::Find(std::span<const Words> words, std::string_view text) {
    const auto found = std::ranges::find_if(
        words, [text](const Words& row) { return text.starts_with(row.text); });
    return found == words.end() ? nullptr : &*found;
}

Time LogItems::Place(const LogLine& line) {
    constexpr size_t kMinuteLength = std::string_view("11-23 04:31").size();
    constexpr int64_t kMsPerMinute = 60'000;
    const ClockAnchor& anchor = own_.known() ? own_ : beside_;
    const std::string minute = line.stamp.substr(0, kMinuteLength);
    if (minute != minute_) {
        std::tm date{};
        (void)std::sscanf(minute.c_str(), "%d-%d %d:%d", &date.tm_mon, &date.tm_mday, &date.tm_hour,
                          &date.tm_min);  // the line was parsed by these
        --date.tm_mon;
        minute_wall_ns_ = WallOfDate(date, anchor.latest_wall_ns());
        minute_ = minute;
    }
    return anchor.BootOfWall(minute_wall_ns_ + line.time_ms % kMsPerMinute * kNsPerMs);
}

void LogItems::Anchor(const wire::Clocks& clocks) {
    own_.Add(clocks);
    minute_.clear();  // the wall clock may have been set
}

void LogItems::Push(std::string_view line) {
    if (const auto clocks = wire::ParseClocks(line)) return Anchor(*clocks);
    const std::optional<LogLine> parsed = ParseLogLine(line);
    if (!parsed || !IsDaemonTag(parsed->tag) || !placed()) return;
    const Time at = Place(*parsed);
    sink_(LogText{at, parsed->tag == "mcu", parsed->level, parsed->pid, parsed->tid, parsed->tag,
                  WithSensorName(WithoutLineEnd(parsed->text))});
    TakeMainThread(*parsed, at);
    if (const auto piece = FindDumpPiece(parsed->text)) TakeCrash(*piece, at);
    folder_.Add(*parsed);
    TakeEpisodes(at);
    if (const Words* phase = Find(kPhases, parsed->text)) {
        const auto open = open_.find(phase->of);
        if (open != open_.end()) BeginPhase(open->second, at, phase->words);
    }
    if (const Words* told = Find(kStates, parsed->text); told != nullptr && open_.empty()) {
        Enter(at, told->state, std::string(told->words));
    }
}

void LogItems::End() {
    folder_.End();
    (void)folder_.Take();  // what has not ended was told when it began
}

void LogItems::Enter(Time at, State state, const std::string& reason) {
    if (state_ && state_->first == state) return;
    state_ = {state, reason};
    sink_(McuState{at, state, reason, Source::kLog});
}

void LogItems::TakeMainThread(const LogLine& line, Time at) {
    if (line.pid != pid_) {
        start_up_ = at;
        pid_ = line.pid;
    }
    if (line.text.starts_with(kStarted) && start_up_) {
        sink_(Work{*start_up_, at, "start-up"});
        start_up_.reset();
    }
    if (line.text.starts_with(kRefusal)) {
        sink_(Work{at, at + kRefusalNs, "refuses a request: the MCU is being restarted"});
    }
}

void LogItems::TakeCrash(const DumpPiece& piece, Time at) {
    if (!crash_) {
        crash_ = EpisodeSpan{.kind = EpisodeSpan::Kind::kCrash, .begin = at};
        Enter(at, State::kSilent, "the firmware has crashed and sends its core dump");
    }
    crash_->words =
        fmt::format("the MCU crashed; core dump, piece {} of {}", piece.index, piece.count);
    if (piece.index == piece.count) {
        crash_->words = fmt::format("the MCU crashed; core dump in {} pieces", piece.count);
        crash_->end = at;
        crash_->ok = false;
    }
    sink_(*crash_);
    if (crash_->end) crash_.reset();
}

void LogItems::TakeEpisodes(Time at) {
    for (const LogItem& item : folder_.Take()) {
        if (const auto* episode = std::get_if<Episode>(&item)) TakeEpisode(*episode, at);
    }
}

// What the MCU is when no episode goes on.
std::pair<State, std::string> LogItems::Resting() const {
    if (start_up_) return {State::kStarting, "the daemon starts"};
    return {State::kService, ""};
}

void LogItems::TakeEpisode(const Episode& episode, Time at) {
    if (episode.kind == EpisodeKind::kStart) {
        Enter(at, State::kStarting, episode.cause);
        return;
    }
    const State state =
        episode.kind == EpisodeKind::kUpdate ? State::kUpdating : State::kRecovering;
    if (episode.running) {
        EpisodeSpan span{.kind = KindOf(episode.kind), .begin = at};
        span.words = Describe(episode);
        open_[episode.kind] = span;
        sink_(span);
        Enter(at, state, episode.cause);
        return;
    }
    const auto found = open_.find(episode.kind);
    if (found == open_.end()) return;
    EpisodeSpan span = std::move(found->second);
    open_.erase(found);
    span.end = at;
    span.words = Describe(episode);
    span.ok = episode.ok();
    if (!span.phases.empty()) span.phases.back().end = at;
    sink_(span);
    if (!open_.empty()) {
        Enter(at,
              open_.begin()->first == EpisodeKind::kUpdate ? State::kUpdating : State::kRecovering,
              "");
    } else if (!span.ok) {
        Enter(at, episode.erased ? State::kDown : State::kSilent, episode.failure);
    } else {
        const auto [resting, reason] = Resting();
        Enter(at, resting, reason);
    }
}

void LogItems::BeginPhase(EpisodeSpan& span, Time at, std::string_view words) {
    if (!span.phases.empty()) {
        if (span.phases.back().words == words) return;
        span.phases.back().end = at;
    }
    span.phases.push_back({span.phases.empty() ? span.begin : at, {}, std::string(words)});
    sink_(span);
}

}  // namespace shdtool::timeline
