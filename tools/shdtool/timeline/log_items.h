// Log lines, recoveries, updates, crashes and states of the MCU from the daemon's log. Used by the
// timeline command and by the view, for files and for logs that grow.
#pragma once

#include <map>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "tools/shdtool/log/log_fold.h"
#include "tools/shdtool/timeline/clock_anchor.h"

namespace shdtool::timeline {

// One log; one thread. Its local times are read in the zone of this process (TZ).
class LogItems {
  public:
    // beside: how both clocks stood, by other sources; only used until the log says so itself.
    explicit LogItems(Sink sink, ClockAnchor beside = {})
        : sink_(std::move(sink)), beside_(std::move(beside)) {}

    // Both clocks as they are, where the log that is being read is being written.
    void Anchor(const wire::Clocks& clocks);

    // The log's lines, in their order, without their ends. Those that cannot be placed in time, and
    // those of other programs, make no items.
    void Push(std::string_view line);

    // No further line will come.
    void End();

    [[nodiscard]] bool placed() const { return own_.known() || beside_.known(); }

  private:
    struct Words;
    static const Words kPhases[];
    static const Words kStates[];
    [[nodiscard]] static const Words* Find(std::span<const Words> words, std::string_view text);

    [[nodiscard]] Time Place(const LogLine& line);
    void TakeEpisodes(Time at);
    void TakeEpisode(const Episode& episode, Time at);
    void TakeCrash(const DumpPiece& piece, Time at);
    void TakeMainThread(const LogLine& line, Time at);
    void BeginPhase(EpisodeSpan& span, Time at, std::string_view words);
    void Enter(Time at, State state, const std::string& reason);
    [[nodiscard]] std::pair<State, std::string> Resting() const;

    const Sink sink_;
    const ClockAnchor beside_;
    ClockAnchor own_;
    std::string minute_;  // "11-23 04:31", whose beginning is this on the wall clock
    int64_t minute_wall_ns_ = 0;

    LogFolder folder_{false};
    std::map<EpisodeKind, EpisodeSpan> open_;
    std::optional<EpisodeSpan> crash_;
    std::optional<std::pair<State, std::string>> state_;
    int32_t pid_ = 0;
    std::optional<Time> start_up_;  // since when the daemon starts
};

}  // namespace shdtool::timeline
