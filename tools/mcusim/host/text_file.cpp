// Reading of text files. Called by the readers of scripts, signals and recordings.
#include "tools/mcusim/host/text_file.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace mcusim {
namespace {

constexpr off_t kMaxBytes = off_t{64} << 20;

// What keeps the file from being read; nullptr: nothing.
const char* Obstacle(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return std::strerror(errno);
    if (S_ISDIR(status.st_mode)) return "it is a directory";
    if (!S_ISREG(status.st_mode)) return "it is no regular file";
    if (status.st_size == 0) return "it is empty";
    return status.st_size > kMaxBytes ? "it is larger than 64 MiB" : nullptr;
}

}  // namespace

std::vector<std::string> ReadLines(const std::string& path) {
    const char* obstacle = Obstacle(path);
    std::vector<std::string> lines;
    errno = 0;
    std::ifstream file;
    if (obstacle == nullptr) file.open(path);
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    if (obstacle == nullptr && (!file.is_open() || file.bad())) obstacle = std::strerror(errno);
    if (obstacle != nullptr) {
        throw std::runtime_error(fmt::format("cannot read {}: {}", path, obstacle));
    }
    return lines;
}

}  // namespace mcusim
