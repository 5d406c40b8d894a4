// The directory tree in which the daemon finds its devices: directories, FIFOs that stand for
// control files, the link to the pty, files. The simulator makes it and takes it down again.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "platform/unique_fd.h"

namespace mcusim {

// Keeps a list of what it made in mcusim/manifest below the root, so that a simulator that is
// started again after it was killed still knows what to remove. Paths are relative to the root.
// Failing operations throw std::runtime_error naming the path and the reason.
class DeviceTree {
  public:
    // Makes the root where needed. Throws when another simulator serves it.
    explicit DeviceTree(const std::filesystem::path& root);
    // Removes what was made: files only while nobody has changed them, directories when empty.
    ~DeviceTree();
    DeviceTree(const DeviceTree&) = delete;
    DeviceTree& operator=(const DeviceTree&) = delete;

    void MakeDirectory(const std::string& path);
    // Makes the FIFO or uses the one that is there. The descriptor is open for reading and
    // writing, so that neither end ever waits for the other, and does not block.
    [[nodiscard]] UniqueFd OpenFifo(const std::string& path);
    // Makes a symbolic link; one that is there is replaced.
    void Link(const std::string& path, const std::string& target);
    // Writes the file when there is none.
    void MakeFile(const std::string& path, std::span<const uint8_t> content);
    // A file that something else creates next and that changes as it is used.
    void Adopt(const std::string& path);

    // From now on the files below mcusim/ are left behind at the end.
    void KeepState() { keep_state_ = true; }

    [[nodiscard]] std::string Path(const std::string& path) const { return root_ / path; }

  private:
    struct Entry {
        std::string path;
        std::string mark;  // what the file looked like; empty: does not matter
    };

    void Note(const std::string& path, const std::string& mark);
    void ReadManifest();
    void WriteManifest() const;
    [[nodiscard]] std::string MarkOf(const std::string& path) const;
    void Remove(const Entry& entry) const;

    const std::filesystem::path root_;
    UniqueFd manifest_;  // locked while the simulator runs
    std::vector<Entry> made_;
    bool keep_state_ = false;
};

}  // namespace mcusim
