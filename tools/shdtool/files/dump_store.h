// The core dumps that the daemon keeps below /data/mcudumplog. Used by the dump and status
// commands.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "protocol/system.h"

namespace shdtool {

using shd::kDumpSlots;

struct DumpFile {
    int64_t size;      // bytes
    int64_t modified;  // seconds since the epoch
};

struct DumpSlot {
    std::string raw_path;
    std::string text_path;        // base64
    std::optional<DumpFile> raw;  // empty: not there, or no regular file
    std::optional<DumpFile> text;

    [[nodiscard]] bool empty() const { return !raw && !text; }
    // When the later file was written, seconds since the epoch; 0: there is none.
    [[nodiscard]] int64_t written() const {
        return std::max(raw ? raw->modified : 0, text ? text->modified : 0);
    }
};

// The slots of the tree below root, in their order; nothing fails, missing files leave gaps.
[[nodiscard]] std::array<DumpSlot, kDumpSlots> ReadDumpSlots(std::string_view root);

// One line on whether the two files of a slot hold the same bytes, and where they do not.
struct DumpVerdict {
    bool intact;
    std::string text;
};
[[nodiscard]] DumpVerdict CompareDumpFiles(const DumpSlot& slot);

}  // namespace shdtool
