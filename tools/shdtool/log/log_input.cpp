// Reading of a log that may grow, be cut short or be replaced. Called by the log command.
#include "tools/shdtool/log/log_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

shdclient::Status LogInput::Read(const std::function<void(std::string_view)>& line,
                                 const std::function<bool()>& pause) {
    while (true) {
        if (text_.Read(line)) {
            if (text_.endless()) {
                return shdclient::Error{shdclient::ErrorCode::kInvalidArgument,
                                        "this is no log: a line of it is longer than 1 MiB"};
            }
            if (standard_input_ && !pause()) break;
            continue;
        }
        if (!follow_ || !pause()) break;
        std::this_thread::sleep_for(kLookAgain);
        (void)text_.FollowChange();
    }
    text_.Finish(line);
    return shdclient::Success();
}

}  // namespace shdtool
