// Puts another file in the place of one that a program opens by name, and the first one back in the
// end. The tap takes the place of the tty and of the MCU's control files with it.
#pragma once

#include <functional>
#include <string>

#include "platform/unique_fd.h"
#include "tools/client/result.h"

namespace tap {

// One file that stands aside. In a directory tree it is renamed to PATH.untapped and a symbolic
// link takes its name; on the device itself (whose /dev and /proc are not ours to rename in) the
// other file is bound over it, which takes the right to mount.
class DisplacedFile {
  public:
    // by exists for as long as the file stands aside. A PATH.untapped that an earlier run has left
    // is put back first. Fails with kSystem, naming path.
    [[nodiscard]] static shdclient::Result<DisplacedFile> Take(const std::string& path,
                                                               const std::string& by, bool bind);

    DisplacedFile(DisplacedFile&& other) noexcept;
    DisplacedFile& operator=(DisplacedFile&&) = delete;
    ~DisplacedFile();  // puts it back

    // Async-signal-safe. Nothing happens when it has been put back already.
    void PutBack() noexcept;

  private:
    DisplacedFile(std::string path, bool bind);

    std::string path_;
    std::string aside_;
    bool bind_;
    bool taken_ = true;
};

// A process that cleans up when this one is killed before it could. It ends with this process,
// holds no other file open and ignores the signals of the terminal.
class Guardian {
  public:
    // Call it while the process has one thread. clean_up runs in the other process; epitaph is what
    // that says on standard error afterwards.
    Guardian(const std::function<void()>& clean_up, const std::string& epitaph);
    ~Guardian();  // dismisses it and waits for its end
    Guardian(const Guardian&) = delete;
    Guardian& operator=(const Guardian&) = delete;

  private:
    UniqueFd leash_;  // its end without a word is the sign
    int pid_ = -1;
};

}  // namespace tap
