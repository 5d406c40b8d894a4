// The lines of a text file, also while it is being written, and before somebody has made it. Used
// by the log command and by the timeline.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/unique_fd.h"

namespace shdtool {

class GrowingText {
  public:
    using Line = std::function<void(std::string_view)>;  // without its end

    // There may be no such file yet.
    explicit GrowingText(std::string path) : path_(std::move(path)) {}
    // path: where fd was opened.
    GrowingText(UniqueFd fd, std::string path) : fd_(std::move(fd)), path_(std::move(path)) {}

    // Reads once and hands over the lines that are complete by that. False: nothing was there.
    bool Read(const Line& line);

    // Behind the end: goes to the beginning of a file that was cut short, to the one that has taken
    // the place of this, or to the one that there is now. True: what comes is the file's beginning.
    bool FollowChange();

    // Hands over the beginning of a line whose end has not come.
    void Finish(const Line& line);

    // The line that has begun is longer than any line of text.
    [[nodiscard]] bool endless() const { return partial_.size() > kLongestLine; }

    [[nodiscard]] bool there() const { return fd_.valid(); }

  private:
    static constexpr size_t kLongestLine = size_t{1} << 20;

    UniqueFd fd_;
    std::string path_;
    std::string partial_;
};

}  // namespace shdtool
