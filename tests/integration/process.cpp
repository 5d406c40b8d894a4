// Starting, signalling and reaping of child processes for the Hub.
#include "tests/integration/process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <stdexcept>
#include <thread>

namespace {

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

// The test's environment without the variables that the additions replace.
std::vector<std::string> Environment(const std::vector<std::string>& additions) {
    std::vector<std::string> result = additions;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::string name = text.substr(0, text.find('=') + 1);
        const bool replaced = std::ranges::any_of(
            additions, [&](const std::string& addition) { return addition.starts_with(name); });
        if (!replaced) result.push_back(text);
    }
    return result;
}

// Between fork and exec: only what a signal handler may do, too.
[[noreturn]] void Exec(const ProcessSpec& spec, char* const* arguments, char* const* environment,
                       pid_t parent) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);  // it ended before it could be watched
    const int input = spec.input >= 0 ? spec.input : open("/dev/null", O_RDONLY);
    const int flags = O_WRONLY | O_CREAT | O_APPEND;
    dup2(input, STDIN_FILENO);
    dup2(open(spec.output.c_str(), flags, 0666), STDOUT_FILENO);
    dup2(open(spec.errors.c_str(), flags, 0666), STDERR_FILENO);
    for (int fd = STDERR_FILENO + 1; fd < 64; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);
    if (spec.inherited >= 0) fcntl(spec.inherited, F_SETFD, 0);
    execve(arguments[0], arguments, environment);
    _exit(127);
}

}  // namespace

Process::Process(const ProcessSpec& spec) {
    std::vector<std::string> arguments = spec.arguments;
    std::vector<std::string> environment = Environment(spec.environment);
    const std::vector<char*> argv = Pointers(arguments);
    const std::vector<char*> envp = Pointers(environment);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("cannot fork for " + spec.arguments.front());
    if (pid_ == 0) Exec(spec, argv.data(), envp.data(), parent);
    setpgid(pid_, pid_);
}

Process::~Process() {
    kill(-pid_, SIGKILL);
    if (!status_) waitpid(pid_, nullptr, 0);
}

void Process::Signal(int number) const {
    if (!status_) kill(-pid_, number);
}

std::optional<int> Process::Wait(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!status_) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) status_ = status;
        if (status_ || std::chrono::steady_clock::now() >= deadline) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return status_;
}
