// Reading and writing of whole files. Called by the commands around files, and by status.
#include "tools/shdtool/files/file_io.h"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <system_error>

#include "platform/unique_fd.h"

namespace shdtool {
namespace {

using shdclient::Error;
using shdclient::ErrorCode;

Error CannotRead(const std::string& path, const char* reason) {
    return {ErrorCode::kInvalidArgument, fmt::format("cannot read {}: {}", path, reason)};
}

bool WriteAll(int fd, std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(fd, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        bytes = bytes.subspan(static_cast<size_t>(count));
    }
    return true;
}

// Leaves the reason of a failure in errno.
bool ReplaceFile(const std::string& path, std::span<const uint8_t> bytes) {
    constexpr mode_t kMode = 0666;
    const std::string part = path + ".part";
    const UniqueFd fd(open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kMode));
    if (!fd.valid()) return false;
    if (WriteAll(fd.get(), bytes) && std::rename(part.c_str(), path.c_str()) == 0) return true;
    const int reason = errno;
    (void)unlink(part.c_str());
    errno = reason;
    return false;
}

}  // namespace

shdclient::Result<UniqueFd> OpenToRead(const std::string& path) {
    // A FIFO without a writer must not hold up the open.
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!fd.valid() || fstat(fd.get(), &status) != 0) {
        return CannotRead(path, std::strerror(errno));
    }
    if (S_ISDIR(status.st_mode)) return CannotRead(path, "it is a directory");
    if (!S_ISREG(status.st_mode)) return CannotRead(path, "it is no regular file");
    if (status.st_size == 0) return CannotRead(path, "it is empty");
    return fd;
}

shdclient::Result<std::string> ReadWholeFile(const std::string& path) {
    const shdclient::Result<UniqueFd> opened = OpenToRead(path);
    if (!opened) return opened.error();
    const UniqueFd& fd = *opened;
    struct stat status {};
    if (fstat(fd.get(), &status) != 0) return CannotRead(path, std::strerror(errno));
    if (static_cast<uint64_t>(status.st_size) > kMaxFileBytes) {
        return CannotRead(path, "it is larger than 64 MiB");
    }
    std::string content(static_cast<size_t>(status.st_size), '\0');
    size_t length = 0;
    while (length < content.size()) {
        const ssize_t count = read(fd.get(), content.data() + length, content.size() - length);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return CannotRead(path, std::strerror(errno));
        if (count == 0) break;  // truncated by somebody since it was measured
        length += static_cast<size_t>(count);
    }
    content.resize(length);
    return content;
}

std::span<const uint8_t> BytesOf(const std::string& content) {
    return {reinterpret_cast<const uint8_t*>(content.data()), content.size()};
}

shdclient::Status CheckWritable(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode)) return shdclient::Success();
    const char* reason = S_ISDIR(status.st_mode) ? "it is a directory" : "it is no regular file";
    return Error{ErrorCode::kInvalidArgument, fmt::format("cannot write {}: {}", path, reason)};
}

shdclient::Status WriteWholeFile(const std::string& path, std::span<const uint8_t> bytes) {
    shdclient::Status writable = CheckWritable(path);
    if (!writable) return writable;
    std::error_code none;  // a file that is not there yet is made where the path says
    const auto target = std::filesystem::canonical(path, none);
    if (ReplaceFile(none ? path : target.string(), bytes)) return shdclient::Success();
    return Error{ErrorCode::kInvalidArgument,
                 fmt::format("cannot write {}: {}", path, std::strerror(errno))};
}

std::string FormatFileTime(int64_t seconds_since_epoch) {
    return fmt::format("{:%Y-%m-%d %H:%M:%S}",
                       fmt::localtime(static_cast<std::time_t>(seconds_since_epoch)));
}

}  // namespace shdtool
