// Follows one recovery of the MCU through the daemon's log, from what caused it to the last sensor
// that is on again. Used by the log folder.
#pragma once

#include "tools/shdtool/log/episode.h"

namespace shdtool {

class RecoveryFold {
  public:
    // Whether a recovery begins with this line: the request or the core dump that asks for one, or,
    // in a log that begins later, its thread's first word.
    [[nodiscard]] static bool BeginsWith(const LogLine& line);

    // first: a line for which that is true. earlier: a request that was not answered before it,
    // empty when none is known.
    RecoveryFold(const LogLine& first, const std::string& earlier);

    [[nodiscard]] Fate Add(const LogLine& line);
    [[nodiscard]] const Episode& episode() const { return episode_; }

    // "Active accelerometer": the request whose time-out this text reports, empty when it does not.
    [[nodiscard]] static std::string TimedOutRequest(std::string_view text);

  private:
    struct Rule;

    Fate AddOf(const LogLine& line);
    Fate AddOfTrigger(const LogLine& line);
    Fate AddOfThread(const LogLine& line);
    Fate Fail(const char* reason);

    Episode episode_;
    bool by_timeout_ = false;
    bool sensor_failed_ = false;  // since the last sensor was dealt with
    bool answered_ = false;
    int32_t thread_ = 0;  // that runs the recovery, 0: it has not said anything yet
};

}  // namespace shdtool
