// Child processes and what they use; see the header.
#include "bench/child.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

void Check(bool ok, std::string_view what) {
    if (!ok) throw std::runtime_error(fmt::format("{}: {}", what, strerror(errno)));
}

Child::Child(std::vector<std::string> command, const std::string& errors) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (std::string& argument : command) arguments.push_back(argument.data());
    arguments.push_back(nullptr);
    const pid_t parent = getpid();
    pid_ = fork();
    Check(pid_ >= 0, "fork");
    if (pid_ > 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    dup2(null, STDIN_FILENO);
    dup2(null, STDOUT_FILENO);
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC;
    dup2(open(errors.c_str(), kFlags, 0666), STDERR_FILENO);
    char** program = arguments.data();
    while (std::strchr(*program, '=') != nullptr) putenv(*program++);
    execvp(*program, program);
    _exit(127);
}

Child& Child::operator=(Child&& other) noexcept {
    std::swap(pid_, other.pid_);
    return *this;
}

Child::~Child() {
    if (pid_ < 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

Usage Child::Measure() const {
    const std::string process = fmt::format("/proc/{}", pid_);
    Usage usage;
    for (const auto& task : std::filesystem::directory_iterator(process + "/task")) {
        int64_t run_ns = 0;
        std::ifstream(task.path() / "schedstat") >> run_ns;
        usage.cpu_ns += run_ns;
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.find("ctxt_switches:") != std::string::npos) {
                usage.switches += std::stoll(line.substr(line.find(':') + 1));
            }
        }
    }
    std::ifstream memory(process + "/smaps_rollup");
    for (std::string line; std::getline(memory, line);) {
        if (line.starts_with("Private_")) {
            usage.private_kib += std::stoll(line.substr(line.find(':') + 1));
        }
    }
    return usage;
}
