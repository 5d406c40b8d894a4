// Hands each line of the log to the episode that it belongs to. Called by the log command.
#include "tools/shdtool/log/log_fold.h"

#include <fmt/format.h>

namespace shdtool {
namespace {

// Two time-outs belong together when nothing was answered between them; the log does not show
// answers, but the longest wait is 10 s.
constexpr int64_t kTogetherMs = 30'000;

}  // namespace

template <typename Fold, typename Why>
void LogFolder::Begin(std::optional<Open<Fold>>& open, const LogLine& line, const Why& why) {
    slots_.push_back({Episode{}, true, false});
    open.emplace(Open<Fold>{Fold(line, why), std::prev(slots_.end())});
    open->slot->item = open->fold.episode();
}

template <typename Fold>
Fate LogFolder::Feed(std::optional<Open<Fold>>& open, const LogLine& line) {
    if (!open) return Fate::kOther;
    const Fate fate = open->fold.Add(line);
    open->slot->item = open->fold.episode();
    if (fate == Fate::kEnded) {
        open->slot->open = false;
        if (open->slot->announced) slots_.splice(slots_.end(), slots_, open->slot);
        open.reset();
    }
    return fate;
}

// The daemon has ended and taken the episode with it.
template <typename Fold>
void LogFolder::Abandon(std::optional<Open<Fold>>& open) {
    if (!open) return;
    Episode episode = open->fold.episode();
    episode.failure = "the daemon ended meanwhile";
    episode.running = false;
    open->slot->item = std::move(episode);
    open->slot->open = false;
    open.reset();
}

void LogFolder::FollowProcess(const LogLine& line) {
    if (line.pid == pid_) return;
    if (pid_ != 0) {
        Abandon(update_);
        Abandon(recovery_);
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
    if (std::string cause = UpdateFold::CauseOf(line.text); !cause.empty()) {
        update_cause_ = std::move(cause);
    }
    if (Feed(update_, line) != Fate::kOther) return;
    if (!update_ && UpdateFold::BeginsWith(line)) {
        return Begin(update_, line, std::exchange(update_cause_, ""));
    }
    if (Feed(recovery_, line) != Fate::kOther) return;
    if (!recovery_ && RecoveryFold::BeginsWith(line)) {
        const auto last = timed_out_.find(line.tid);
        const bool together =
            last != timed_out_.end() && ElapsedMs(last->second.first, line) < kTogetherMs;
        return Begin(recovery_, line, together ? last->second.second : std::string());
    }
    if (std::string request = RecoveryFold::TimedOutRequest(line.text); !request.empty()) {
        timed_out_[line.tid] = {line, std::move(request)};
    }
    Pass(line);
}

void LogFolder::End() {
    for (Slot& slot : slots_) slot.open = false;
    update_.reset();
    recovery_.reset();
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
