// Files and lines of the raw-data logs; called by the raw-data logging.
#include "diagnostics/log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "platform/delay.h"
#include "platform/device_path.h"
#include "platform/log.h"
#include "protocol/system.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "shd";
constexpr mode_t kDirMode = 0755;
constexpr mode_t kFileMode = 0666;
constexpr off_t kFileLimit = 12'000'000;  // bytes

}  // namespace

std::string TimeText() {
    const std::time_t now = WallClockSec();
    tm local{};
    if (localtime_r(&now, &local) == nullptr) return {};
    std::array<char, 64> text{};
    const size_t length = std::strftime(text.data(), text.size(), "%m-%d %H:%M:%S ", &local);
    return {text.data(), length};
}

void WriteLine(int fd, const char* format, ...) {
    std::array<char, 160> line{};
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(line.data(), line.size(), format, args);
    va_end(args);
    if (length <= 0) return;
    (void)!write(fd, line.data(), std::min(static_cast<size_t>(length), line.size() - 1));
}

UniqueFd OpenLog(const char* path) {
    return UniqueFd(
        open(DevicePath(path).c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, kFileMode));
}

void MakeLogDirectories() {
    struct stat status {};
    if (stat(DevicePath(kRawDataDir).c_str(), &status) == 0) return;
    if (mkdir(DevicePath(kLogDataDir).c_str(), kDirMode) != 0) {
        LOGE("mkdir MCU_DATA_DIR already exist");
    }
    if (mkdir(DevicePath(kRawDataDir).c_str(), kDirMode) != 0) {
        LOGE("mkdir MCU_RAW_DATA_DIR already exist");
    }
}

bool DeleteLargeLog(const char* path) {
    struct stat status {};
    const DevicePath device_path(path);
    if (stat(device_path.c_str(), &status) != 0 || status.st_size <= kFileLimit) return false;
    unlink(device_path.c_str());
    return true;
}
