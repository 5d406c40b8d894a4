// The directory tree around the daemon. Made and taken down by the simulator.
#include "tools/mcusim/host/device_tree.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace mcusim {
namespace {

namespace fs = std::filesystem;

constexpr const char* kStateDirectory = "mcusim";
constexpr const char* kManifest = "mcusim/manifest";

[[noreturn]] void Fail(const std::string& path, const char* what) {
    throw std::runtime_error(fmt::format("{}: {}: {}", path, what, std::strerror(errno)));
}

}  // namespace

DeviceTree::DeviceTree(const fs::path& root) : root_(fs::absolute(root).lexically_normal()) {
    std::error_code error;
    if (!fs::exists(root_, error)) {
        fs::create_directories(root_, error);
        if (error) throw std::runtime_error(fmt::format("{}: {}", root_.string(), error.message()));
        made_.push_back({"", ""});
    }
    const bool new_state = !fs::exists(root_ / kStateDirectory, error);
    if (new_state) fs::create_directory(root_ / kStateDirectory, error);

    const std::string manifest = Path(kManifest);
    manifest_.Reset(open(manifest.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    if (!manifest_.valid()) Fail(manifest, "cannot be opened");
    if (flock(manifest_.get(), LOCK_EX | LOCK_NB) != 0) {
        throw std::runtime_error(
            fmt::format("{}: another mcusim is running on it", root_.string()));
    }
    ReadManifest();
    if (new_state) Note(kStateDirectory, "");
    Note(kManifest, "");
}

DeviceTree::~DeviceTree() {
    for (auto entry = made_.rbegin(); entry != made_.rend(); ++entry) Remove(*entry);
}

void DeviceTree::Remove(const Entry& entry) const {
    const bool is_state = entry.path.starts_with("mcusim/");
    if (keep_state_ && is_state && entry.path != kManifest) return;
    if (!entry.mark.empty() && MarkOf(entry.path) != entry.mark) return;
    std::error_code ignored;  // a directory that is not empty stays
    fs::remove(Path(entry.path), ignored);
}

void DeviceTree::ReadManifest() {
    std::ifstream manifest(Path(kManifest));
    std::string line;
    while (std::getline(manifest, line)) {
        const size_t tab = line.find('\t');
        if (tab != std::string::npos) made_.push_back({line.substr(0, tab), line.substr(tab + 1)});
    }
}

void DeviceTree::WriteManifest() const {
    std::string text;
    for (const Entry& entry : made_) text += fmt::format("{}\t{}\n", entry.path, entry.mark);
    const std::string path = Path(kManifest);
    if (ftruncate(manifest_.get(), 0) != 0 ||
        pwrite(manifest_.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        Fail(path, "cannot be written");
    }
}

void DeviceTree::Note(const std::string& path, const std::string& mark) {
    const auto found = std::ranges::find(made_, path, &Entry::path);
    if (found != made_.end()) {
        found->mark = mark;
    } else {
        made_.push_back({path, mark});
    }
    WriteManifest();
}

std::string DeviceTree::MarkOf(const std::string& path) const {
    struct stat status {};
    if (stat(Path(path).c_str(), &status) != 0) return "";
    return fmt::format("{}:{}.{:09}", status.st_size, status.st_mtim.tv_sec,
                       status.st_mtim.tv_nsec);
}

void DeviceTree::MakeDirectory(const std::string& path) {
    fs::path part;
    for (const fs::path& name : fs::path(path)) {
        part /= name;
        if (mkdir((root_ / part).c_str(), 0777) == 0) {
            Note(part, "");
        } else if (errno != EEXIST) {
            Fail(root_ / part, "cannot be made");
        }
    }
}

UniqueFd DeviceTree::OpenFifo(const std::string& path) {
    const std::string full = Path(path);
    if (mkfifo(full.c_str(), 0666) == 0) {
        Note(path, "");
    } else if (errno != EEXIST) {
        Fail(full, "cannot be made");
    }
    UniqueFd fd(open(full.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!fd.valid()) Fail(full, "cannot be opened");
    struct stat status {};
    if (fstat(fd.get(), &status) != 0 || !S_ISFIFO(status.st_mode)) {
        throw std::runtime_error(full + ": is in the way and not a FIFO");
    }
    return fd;
}

void DeviceTree::Link(const std::string& path, const std::string& target) {
    const std::string full = Path(path);
    const std::string fresh = full + ".new";
    std::error_code error;
    const fs::file_status status = fs::symlink_status(full, error);
    if (fs::exists(status) && !fs::is_symlink(status)) {
        throw std::runtime_error(full + ": is in the way and not a link");
    }
    fs::remove(fresh, error);
    if (symlink(target.c_str(), fresh.c_str()) != 0) Fail(full, "cannot be linked");
    if (rename(fresh.c_str(), full.c_str()) != 0) Fail(full, "cannot be linked");
    Note(path, "");
}

void DeviceTree::MakeFile(const std::string& path, std::span<const uint8_t> content) {
    const std::string full = Path(path);
    std::error_code error;
    if (fs::exists(full, error)) return;
    std::ofstream file(full, std::ios::binary);
    file.write(reinterpret_cast<const char*>(content.data()),
               static_cast<std::streamsize>(content.size()));
    file.close();
    if (!file) {
        const int reason = errno;
        fs::remove(full, error);  // the next start would take the half of it for whole
        errno = reason;
        Fail(full, "cannot be written");
    }
    Note(path, MarkOf(path));
}

void DeviceTree::Adopt(const std::string& path) {
    std::error_code error;
    if (!fs::exists(Path(path), error)) Note(path, "");
}

}  // namespace mcusim
