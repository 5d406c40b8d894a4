// Reading of a log that may grow, be cut short or be replaced. Called by the log command.
#include "tools/shdtool/log/log_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "tools/shdtool/files/file_io.h"

namespace shdtool {
namespace {

using shdclient::Result;

constexpr const char* kStandardInput = "-";
constexpr std::chrono::milliseconds kLookAgain{200};

bool IsEmptyFile(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size == 0;
}

}  // namespace

Result<LogInput> LogInput::Open(const std::string& path, bool follow) {
    if (path == kStandardInput) {
        return LogInput(UniqueFd(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)), path, false);
    }
    if (follow && IsEmptyFile(path)) {
        return LogInput(UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC)), path, true);
    }
    Result<UniqueFd> fd = OpenToRead(path);
    if (!fd) return fd.error();
    return LogInput(std::move(*fd), path, follow);
}

void LogInput::Read(const std::function<void(std::string_view)>& line,
                    const std::function<void()>& pause) {
    std::array<char, 65536> buffer{};
    while (true) {
        const ssize_t count = read(fd_.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) {
            if (!follow_) break;
            pause();
            std::this_thread::sleep_for(kLookAgain);
            FollowChange();
            continue;
        }
        partial_.append(buffer.data(), static_cast<size_t>(count));
        size_t begin = 0;
        for (size_t end = 0; (end = partial_.find('\n', begin)) != std::string::npos;) {
            std::string_view text = std::string_view(partial_).substr(begin, end - begin);
            if (text.ends_with('\r')) text.remove_suffix(1);
            line(text);
            begin = end + 1;
        }
        partial_.erase(0, begin);
        if (path_ == kStandardInput) pause();
    }
    if (!partial_.empty()) line(partial_);
}

void LogInput::FollowChange() {
    struct stat own {};
    struct stat named {};
    if (fstat(fd_.get(), &own) != 0 || stat(path_.c_str(), &named) != 0) return;
    if (own.st_ino != named.st_ino || own.st_dev != named.st_dev) {
        UniqueFd next(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        if (!next.valid() || !S_ISREG(named.st_mode)) return;
        fd_ = std::move(next);
        partial_.clear();
    } else if (own.st_size < lseek(fd_.get(), 0, SEEK_CUR)) {
        (void)lseek(fd_.get(), 0, SEEK_SET);
        partial_.clear();
    }
}

}  // namespace shdtool
