// Whole files in memory, with errors in words. Used by the commands that read what the daemon has
// left on disk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "tools/client/result.h"

namespace shdtool {

// Far beyond the 12 MB of a raw-data log or any dump.
inline constexpr size_t kMaxFileBytes = size_t{64} << 20;

// Reads a regular file of at most kMaxFileBytes. Fails with kInvalidArgument and the file's name.
[[nodiscard]] shdclient::Result<std::string> ReadWholeFile(const std::string& path);

// Writes a file by way of PATH.part, so that nobody sees half of it. A symbolic link is followed;
// a device or a pipe stays what it is and takes the bytes. Fails with kInvalidArgument and its
// name.
[[nodiscard]] shdclient::Status WriteWholeFile(const std::string& path,
                                               std::span<const uint8_t> bytes);

// Local time, "2026-11-22 22:38:59".
[[nodiscard]] std::string FormatFileTime(int64_t seconds_since_epoch);

}  // namespace shdtool
