// A window for a command. Used by the tests of the tools' views, texts and completions.
#include "tests/integration/tool_window.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>

#include <array>
#include <cctype>
#include <csignal>

#include "tests/integration/hub.h"

ToolWindow::ToolWindow(const std::string& root, const std::string& command, int columns, int rows,
                       const std::string& environment) {
    winsize size{};
    size.ws_col = static_cast<unsigned short>(columns);
    size.ws_row = static_cast<unsigned short>(rows);
    const std::string set =
        environment.empty() ? "TERM=xterm-256color LC_ALL=C.UTF-8" : environment;
    const std::string binary = SHDTOOL_BINARY;
    const std::string line = "PATH=" + binary.substr(0, binary.rfind('/')) + ":$PATH exec env " +
                             set + " SHD_ROOT='" + root + "' " + command;
    int fd = -1;
    pid_ = forkpty(&fd, nullptr, nullptr, &size);
    if (pid_ == 0) {
        execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
        _exit(127);
    }
    fd_.Reset(fd);
}

ToolWindow::~ToolWindow() {
    if (pid_ < 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

void ToolWindow::Press(std::string_view keys) const {
    ASSERT_EQ(write(fd_.get(), keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
}

void ToolWindow::Read() {
    std::array<char, 4096> buffer{};
    pollfd ready{fd_.get(), POLLIN, 0};
    while (poll(&ready, 1, 0) > 0) {
        const ssize_t count = read(fd_.get(), buffer.data(), buffer.size());
        if (count <= 0) return;
        bytes_.append(buffer.data(), static_cast<size_t>(count));
    }
}

std::string ToolWindow::Page() const {
    constexpr std::string_view kHome = "\x1b[H";
    const bool whole = bytes_.ends_with("\x1b[J");  // erases what is below a page
    const size_t end = whole ? bytes_.size() : bytes_.rfind(kHome);
    const size_t begin = end == std::string::npos ? end : bytes_.rfind(kHome, end - 1);
    if (begin == std::string::npos) return "";
    std::string page;
    bool sequence = false;
    for (const char c : bytes_.substr(begin, end - begin)) {
        if (c == '\x1b') sequence = true;
        if (!sequence && c != '\r') page += c;
        if (sequence && std::isalpha(static_cast<unsigned char>(c)) != 0 && c != 'B') {
            sequence = false;
        } else if (sequence && c == 'B') {  // the end of a choice of characters: ESC ( B
            sequence = false;
        }
    }
    return page;
}

std::string ToolWindow::WaitForPage(std::string_view text) {
    std::string page;
    Eventually("the window shows '" + std::string(text) + "'", [&] {
        Read();
        page = Page();
        return page.find(text) != std::string::npos;
    });
    return page;
}

std::string ToolWindow::WaitForPageWithout(std::string_view text) {
    std::string page;
    Eventually("the window does not show '" + std::string(text) + "'", [&] {
        Read();
        page = Page();
        return !page.empty() && page.find(text) == std::string::npos;
    });
    return page;
}

void ToolWindow::WaitForBytes(std::string_view text) {
    Eventually("the window has shown '" + std::string(text) + "'", [&] {
        Read();
        return bytes_.find(text) != std::string::npos;
    });
}

int ToolWindow::Status() {
    int status = 0;
    Eventually("the command ends", [&] {
        Read();
        return waitpid(pid_, &status, WNOHANG) == pid_;
    });
    Read();
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
