// Hands each line of the log to the episode that it belongs to. Called by the log command.
#include "tools/shdtool/log/log_fold.h"

#include <fmt/format.h>

namespace shdtool {
namespace {

// Two time-outs belong together when nothing was answered between them; the log does not show
// answers, but the longest wait is 10 s.
constexpr int64_t kTogetherMs = 30'000;

}  // namespace

// What an episode that begins with this line has been told of already.
std::string LogFolder::ToldBefore(EpisodeKind kind, const LogLine& line) {
    if (kind == EpisodeKind::kUpdate) return std::exchange(update_cause_, "");
    const auto last = timed_out_.find(line.tid);
    const bool together =
        last != timed_out_.end() && ElapsedMs(last->second.first, line) < kTogetherMs;
    return together ? last->second.second : "";
}

// Whether the line begins an episode of this kind or belongs to the open one.
bool LogFolder::Fold(EpisodeKind kind, const LogLine& line) {
    const auto found = open_.find(kind);
    if (found == open_.end()) {
        if (!EpisodeFold::Begins(kind, line)) return false;
        const EpisodeFold fold(kind, line, ToldBefore(kind, line));
        slots_.push_back({fold.episode(), true, false});
        open_.emplace(kind, Open{fold, std::prev(slots_.end())});
        return true;
    }
    auto& [fold, slot] = found->second;
    const Fate fate = fold.Add(line);
    slot->item = fold.episode();
    if (fate == Fate::kEnded) {
        slot->open = false;
        if (slot->announced) slots_.splice(slots_.end(), slots_, slot);
        open_.erase(found);
    }
    return fate != Fate::kOther;
}

// The daemon has ended and taken its episodes with it.
void LogFolder::AbandonAll() {
    for (const auto& [kind, open] : open_) {
        Episode episode = open.fold.episode();
        episode.failure = "the daemon ended meanwhile";
        episode.running = false;
        open.slot->item = std::move(episode);
        open.slot->open = false;
    }
    open_.clear();
}

void LogFolder::FollowProcess(const LogLine& line) {
    if (line.pid == pid_) return;
    if (pid_ != 0) {
        AbandonAll();
        Episode start;
        start.first = line;
        start.end_stamp = line.stamp;
        start.cause = fmt::format("the daemon is process {} now, it was {}", line.pid, pid_);
        slots_.push_back({std::move(start)});
        timed_out_.clear();
    }
    pid_ = line.pid;
}

void LogFolder::Add(const LogLine& line) {
    FollowProcess(line);
    if (std::string cause = EpisodeFold::CauseOfUpdate(line.text); !cause.empty()) {
        update_cause_ = std::move(cause);
    }
    if (Fold(EpisodeKind::kUpdate, line) || Fold(EpisodeKind::kRecovery, line)) return;
    if (std::string request = EpisodeFold::TimedOutRequest(line.text); !request.empty()) {
        timed_out_[line.tid] = {line, std::move(request)};
    }
    Pass(line);
}

void LogFolder::End() {
    for (Slot& slot : slots_) slot.open = false;
    open_.clear();
}

std::vector<LogItem> LogFolder::Take() {
    std::vector<LogItem> items;
    for (auto slot = slots_.begin(); slot != slots_.end();) {
        if (slot->open && hold_) break;
        if (!slot->open || !slot->announced) items.push_back(slot->item);
        slot->announced = true;
        slot = slot->open ? std::next(slot) : slots_.erase(slot);
    }
    return items;
}

}  // namespace shdtool
