// Files that stand aside for the tap's own. Called by the tap at its begin and end.
#include "tools/tap/displaced_file.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <utility>

namespace tap {
namespace {

shdclient::Error SystemError(const std::string& path, const char* what) {
    return {shdclient::ErrorCode::kSystem, path + ": " + what + ": " + std::strerror(errno)};
}

bool IsLink(const std::string& path) {
    struct stat info {};
    return lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
}

// What is left of a run whose guardian was killed with it.
void PutBackLeftOver(const std::string& path, const std::string& aside) {
    struct stat info {};
    if (lstat(aside.c_str(), &info) == 0 && IsLink(path)) {
        (void)rename(aside.c_str(), path.c_str());
    }
}

}  // namespace

DisplacedFile::DisplacedFile(std::string path, bool bind)
    : path_(std::move(path)), aside_(path_ + ".untapped"), bind_(bind) {}

DisplacedFile::DisplacedFile(DisplacedFile&& other) noexcept
    : path_(std::move(other.path_)),
      aside_(std::move(other.aside_)),
      bind_(other.bind_),
      taken_(std::exchange(other.taken_, false)) {}

DisplacedFile::~DisplacedFile() {
    PutBack();
}

void DisplacedFile::PutBack() noexcept {
    if (!std::exchange(taken_, false)) return;
    if (bind_) {
        (void)umount2(path_.c_str(), MNT_DETACH);
    } else {
        (void)rename(aside_.c_str(), path_.c_str());
    }
}

shdclient::Result<DisplacedFile> DisplacedFile::Take(const std::string& path, const std::string& by,
                                                     bool bind) {
    DisplacedFile file(path, bind);
    if (bind) {
        if (mount(by.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0) return file;
        file.taken_ = false;
        return SystemError(path, "nothing can be bound over it");
    }
    PutBackLeftOver(path, file.aside_);
    if (rename(path.c_str(), file.aside_.c_str()) != 0) {
        file.taken_ = false;
        return SystemError(path, "it cannot stand aside");
    }
    if (symlink(by.c_str(), path.c_str()) != 0) return SystemError(path, "no link there");
    return file;
}

Guardian::Guardian(const std::function<void()>& clean_up, const std::string& epitaph) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return;
    UniqueFd watched(ends[0]);
    leash_.Reset(ends[1]);
    std::fflush(nullptr);  // nothing is printed twice
    pid_ = fork();
    if (pid_ != 0) return;

    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGPIPE}) {
        (void)std::signal(number, SIG_IGN);
    }
    (void)setsid();
    (void)dup2(watched.Release(), STDIN_FILENO);
    (void)close(STDOUT_FILENO);
    (void)close_range(STDERR_FILENO + 1, ~0U, 0);
    char farewell = 0;
    ssize_t count = 0;
    do {
        count = read(STDIN_FILENO, &farewell, 1);
    } while (count < 0 && errno == EINTR);
    if (count == 0) {
        clean_up();
        (void)!write(STDERR_FILENO, epitaph.data(), epitaph.size());
    }
    _exit(0);
}

Guardian::~Guardian() {
    if (pid_ <= 0) return;
    (void)!write(leash_.get(), "x", 1);
    leash_.Reset();
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace tap
