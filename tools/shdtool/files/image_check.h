// Examination of a firmware image as the daemon does it before an update. Used by the image
// commands.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace shdtool {

// The header as the daemon sees it: a file shorter than the header is filled up with 0, and the
// last byte of the version counts as NUL.
struct ImageReport {
    size_t file_size = 0;  // bytes
    uint32_t magic = 0;
    uint32_t header_len = 0;  // bytes, file offset of the payload
    uint32_t image_size = 0;  // bytes of payload
    std::string version;
    std::string board_code;             // three characters behind the first '.', or fewer
    std::string firmware_version;       // of the simulated MCU's firmware; empty: it is none
    std::vector<std::string> refusals;  // by the daemon, in the order in which it looks
    std::vector<std::string> notes;     // oddities that do not keep the daemon from updating
};

// Never fails: what makes an image useless stands among the refusals.
[[nodiscard]] ImageReport ExamineImage(std::span<const uint8_t> file);

// Readable on any terminal: other bytes as \xNN.
[[nodiscard]] std::string Printable(std::string_view text);

}  // namespace shdtool
