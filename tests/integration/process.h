// A child process of a test, which never outlives it. Used by the Hub for the daemon, the simulated
// MCU and whoever cleans up behind a test that was killed.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "platform/unique_fd.h"

struct ProcessSpec {
    std::vector<std::string> arguments;         // the program's path first
    std::vector<std::string> environment = {};  // NAME=VALUE, added to the test's own
    std::string output = "/dev/null";           // file that receives standard output
    std::string errors = "/dev/null";           // file that receives standard error
    int input = -1;                             // descriptor for standard input; -1: /dev/null
    int inherited = -1;                         // one descriptor that the child keeps; -1: none
};

// In a process group of its own; killed with it at destruction, or when the thread that made it
// ends. Throws std::runtime_error when the process cannot be made.
class Process {
  public:
    explicit Process(const ProcessSpec& spec);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    void Signal(int number) const;

    // The status that waitpid reports; nullopt when the process is still there after the timeout.
    [[nodiscard]] std::optional<int> Wait(std::chrono::milliseconds timeout);

  private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};
