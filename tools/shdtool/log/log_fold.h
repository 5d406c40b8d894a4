// Folds a log: the lines of each recovery and of each firmware update become one episode. Used by
// the log command; needs no daemon.
#pragma once

#include <list>
#include <map>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "tools/shdtool/log/episode_fold.h"

namespace shdtool {

using LogItem = std::variant<LogLine, Episode>;

// One log, line by line; one thread.
class LogFolder {
  public:
    // hold: lines behind the beginning of an episode wait for its end, so that the episode stands
    // where it began. Else it is delivered twice, when it begins and when it has ended.
    explicit LogFolder(bool hold) : hold_(hold) {}

    // Takes the next line of the daemon.
    void Add(const LogLine& line);
    // A line that belongs to no episode and stands in its place.
    void Pass(const LogLine& line) { slots_.push_back({line}); }
    // The log ends here; an episode that has not ended stays one that is running.
    void End();
    // What is known by now, in its order; the rest waits for more lines.
    [[nodiscard]] std::vector<LogItem> Take();

  private:
    struct Slot {
        LogItem item;
        bool open = false;  // an episode that goes on
        bool announced = false;
    };
    struct Open {
        EpisodeFold fold;
        std::list<Slot>::iterator slot;
    };

    [[nodiscard]] bool Fold(EpisodeKind kind, const LogLine& line);
    void AbandonAll();
    void FollowProcess(const LogLine& line);
    [[nodiscard]] std::string ToldBefore(EpisodeKind kind, const LogLine& line);

    const bool hold_;
    std::list<Slot> slots_;
    std::map<EpisodeKind, Open> open_;
    int32_t pid_ = 0;
    std::string update_cause_;
    std::map<int32_t, std::pair<LogLine, std::string>> timed_out_;  // each thread's last request
};

}  // namespace shdtool
