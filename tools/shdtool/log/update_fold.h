// Follows one firmware update through the daemon's log, to its end or to the block at which it
// failed. Used by the log folder.
#pragma once

#include "tools/shdtool/log/episode.h"

namespace shdtool {

class UpdateFold {
  public:
    [[nodiscard]] static bool BeginsWith(const LogLine& line);

    // Why the next update will run, told by this text; empty when it does not.
    [[nodiscard]] static std::string CauseOf(const std::string& text);

    // first: a line for which BeginsWith is true.
    UpdateFold(const LogLine& first, const std::string& cause);

    [[nodiscard]] Fate Add(const LogLine& line);
    [[nodiscard]] const Episode& episode() const { return episode_; }

  private:
    [[nodiscard]] Fate End(const LogLine& line, std::string_view failed_step);
    void LocateBlock(const LogLine& line);
    [[nodiscard]] std::string ReplyText() const;

    Episode episode_;
    LogLine writing_;                    // since when blocks are written
    std::string_view fault_;             // the first one that says what is wrong
    std::string_view part_ = "command";  // of the block that is being written
    int32_t reply_ = -1;                 // of the bootloader, -1: no wrong one was seen
    bool last_block_ = false;
    bool restarted_ = false;
};

}  // namespace shdtool
