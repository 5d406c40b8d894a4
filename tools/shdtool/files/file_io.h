// Whole files in memory, with errors in words. Used by the commands that read what the daemon has
// left on disk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "platform/unique_fd.h"
#include "tools/client/result.h"

namespace shdtool {

// Far beyond the 12 MB of a raw-data log or any dump.
inline constexpr size_t kMaxFileBytes = size_t{64} << 20;

// Opens a regular file that is not empty, for reading. Directories, special files and empty files
// are refused with kInvalidArgument, the file's name and the reason.
[[nodiscard]] shdclient::Result<UniqueFd> OpenToRead(const std::string& path);

// Reads a file as OpenToRead has it, of at most kMaxFileBytes.
[[nodiscard]] shdclient::Result<std::string> ReadWholeFile(const std::string& path);

// The same content as bytes; points into it.
[[nodiscard]] std::span<const uint8_t> BytesOf(const std::string& content);

// Success when a file can be written there: there is none, or a regular one. Otherwise
// kInvalidArgument with its name.
[[nodiscard]] shdclient::Status CheckWritable(const std::string& path);

// Writes a file by way of PATH.part, so that nobody sees half of it. A symbolic link is followed.
// Fails as CheckWritable, and when the file cannot be written.
[[nodiscard]] shdclient::Status WriteWholeFile(const std::string& path,
                                               std::span<const uint8_t> bytes);

// Local time, "2026-11-22 22:38:59".
[[nodiscard]] std::string FormatFileTime(int64_t seconds_since_epoch);

}  // namespace shdtool
