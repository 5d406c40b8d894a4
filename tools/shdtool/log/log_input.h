// The lines of a log file, or of standard input, also while they are being written. Used by the log
// command.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "tools/client/result.h"
#include "tools/shdtool/files/growing_text.h"

namespace shdtool {

class LogInput {
  public:
    // path: "-" is standard input. Fails as OpenToRead (file_io.h), but an empty file may be
    // followed.
    [[nodiscard]] static shdclient::Result<LogInput> Open(const std::string& path, bool follow);

    // Hands over each line without its end, and calls pause, which ends it with false, whenever
    // nothing more is there yet. Returns at the end; that of a followed file never comes: one
    // that is cut short is read from its beginning, one that another has taken the place of goes on
    // with that. Standard input ends in any case. Fails with kInvalidArgument on a line of more
    // than 1 MiB, which no log has.
    [[nodiscard]] shdclient::Status Read(const std::function<void(std::string_view)>& line,
                                         const std::function<bool()>& pause);

  private:
    LogInput(UniqueFd fd, const std::string& path, bool follow)
        : text_(std::move(fd), path), standard_input_(path == "-"), follow_(follow) {}

    GrowingText text_;
    bool standard_input_;
    bool follow_;
};

}  // namespace shdtool
