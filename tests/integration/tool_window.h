// A command in a pseudo terminal of a given size, with keys to press. Used by the tests of the
// tools' views, texts and completions.
#pragma once

#include <csignal>
#include <string>
#include <string_view>

#include "platform/unique_fd.h"

// A command in a window of its own, killed at destruction.
class ToolWindow {
  public:
    // root: the tree for SHD_ROOT. command: as a shell reads it, with shdtool and mcusim on the
    // PATH. environment: "TERM=xterm NO_COLOR=1", empty: TERM=xterm-256color and UTF-8.
    ToolWindow(const std::string& root, const std::string& command, int columns, int rows,
               const std::string& environment = "");
    ~ToolWindow();

    void Press(std::string_view keys) const;
    // Waits until what the window shows contains the text, and returns it: the lines of the last
    // whole page, without control sequences.
    std::string WaitForPage(std::string_view text);
    // The same, until what the window shows does not contain it.
    std::string WaitForPageWithout(std::string_view text);
    // Waits until all bytes so far contain the text.
    void WaitForBytes(std::string_view text);
    // Waits for the end; the exit status.
    int Status();
    // Sends the program a signal.
    void Signal(int number) const { kill(pid_, number); }
    // All bytes so far.
    [[nodiscard]] const std::string& bytes() const { return bytes_; }

  private:
    void Read();
    [[nodiscard]] std::string Page() const;

    pid_t pid_ = -1;
    UniqueFd fd_;
    std::string bytes_;
};
