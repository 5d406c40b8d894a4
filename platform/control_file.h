// Writing of short texts to the kernel's control files under /proc, shared by the MCU wake-up and
// the boot and reset lines. Callers report failures in their own words.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "platform/device_path.h"
#include "platform/unique_fd.h"

struct ControlFileResult {
    bool opened = false;
    ssize_t written = -1;  // what write returned, when opened
    int error = 0;         // errno of the call that failed
};

// Writes text to the control file in one write. Never blocks: a FIFO that stands in for a control
// file and that nobody serves counts as one that cannot be opened (O_NONBLOCK has no effect on
// the kernel's own files).
inline ControlFileResult WriteControlFile(const char* path, std::string_view text) {
    ControlFileResult result;
    const UniqueFd fd(open(DevicePath(path).c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK));
    result.opened = fd.valid();
    if (result.opened) result.written = write(fd.get(), text.data(), text.size());
    result.error = errno;
    return result;
}
