// A program that the load generator runs beside itself, and what it uses of the machine.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// What a process has used since it was started, all its threads together.
struct Usage {
    int64_t cpu_ns = 0;
    int64_t switches = 0;  // of context, voluntary and not
    int64_t private_kib = 0;
};

// A child process, killed at destruction or when this process ends. An empty one is none.
class Child {
  public:
    Child() = default;
    // command: VARIABLE=VALUE..., program, arguments. errors: the file for its standard error.
    Child(std::vector<std::string> command, const std::string& errors);
    Child(Child&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
    Child& operator=(Child&& other) noexcept;
    ~Child();

    [[nodiscard]] Usage Measure() const;

  private:
    pid_t pid_ = -1;
};

// Throws std::runtime_error with what and the text of errno.
void Check(bool ok, std::string_view what);
