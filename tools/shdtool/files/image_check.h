// Examination of a firmware image as the daemon does it before an update. Used by the image
// commands.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/firmware/payload.h"

namespace shdtool {

// The header as the daemon sees it: a file shorter than the header is filled up with 0, and the
// last byte of the version counts as NUL.
struct ImageReport {
    size_t file_size = 0;  // bytes
    std::string sha256;    // of the file, in hexadecimal
    uint32_t magic = 0;
    uint32_t header_len = 0;  // bytes, file offset of the payload
    uint32_t image_size = 0;  // bytes of payload
    std::string version;
    std::string board_code;                    // three characters behind the first '.', or fewer
    std::string firmware_version;              // of the simulated MCU's firmware; empty: it is none
    std::optional<firmware::Vectors> vectors;  // of the payload
    std::vector<std::string> faults;           // why the payload cannot run on the part
    std::vector<std::string> refusals;         // of the header by the daemon, in its order
    std::string size_fault;                    // what the daemon notices only after the erase
    std::vector<std::string> notes;            // oddities that do no harm

    // All that is wrong, what matters most first.
    [[nodiscard]] std::vector<std::string> wrong() const;
    [[nodiscard]] bool good() const { return wrong().empty(); }
    // Empty when it is good.
    [[nodiscard]] std::string worst() const { return good() ? "" : wrong().front(); }
};

// Never fails: what makes an image useless stands in the report.
[[nodiscard]] ImageReport ExamineImage(std::span<const uint8_t> file);

// What the daemon does with the image at its next start when the MCU runs this version; nullopt:
// the version is not known; empty: the MCU does not tell it.
[[nodiscard]] std::string DaemonDecision(const ImageReport& image,
                                         const std::optional<std::string>& mcu_version);

// Readable on any terminal: other bytes as \xNN.
[[nodiscard]] std::string Printable(std::string_view text);

}  // namespace shdtool
