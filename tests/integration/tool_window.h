// shdtool in a pseudo terminal of a given size, with keys to press. Used by the tests of its live
// views.
#pragma once

#include <string>
#include <string_view>

#include "platform/unique_fd.h"

// shdtool in a window of its own, killed at destruction.
class ToolWindow {
  public:
    // environment: "TERM=xterm NO_COLOR=1", empty: TERM=xterm-256color and UTF-8.
    ToolWindow(const std::string& root, const std::string& arguments, int columns, int rows,
               const std::string& environment = "");
    ~ToolWindow();

    void Press(std::string_view keys) const;
    // Waits until what the window shows contains the text, and returns it: the lines of the last
    // whole page, without control sequences.
    std::string WaitForPage(std::string_view text);
    // Waits for the end; the exit status.
    int Status();
    // All bytes so far.
    [[nodiscard]] const std::string& bytes() const { return bytes_; }

  private:
    void Read();
    [[nodiscard]] std::string Page() const;

    pid_t pid_ = -1;
    UniqueFd fd_;
    std::string bytes_;
};
