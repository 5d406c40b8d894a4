// The text logs of the raw-data streams: their lines, their time text and their files.
#pragma once

#include <string>

#include "platform/unique_fd.h"

// The local time as "MM-DD HH:MM:SS " with one trailing space; empty when it cannot be computed.
[[nodiscard]] std::string TimeText();

// Writes one line with one write, because two threads append to the same log; at most 159 bytes. A
// full disk costs the line.
void WriteLine(int fd, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Opens a log for appending and makes the file when it is not there. Invalid on failure.
[[nodiscard]] UniqueFd OpenLog(const char* path);

// Makes the directories of the logs where they are missing; a failure is logged.
void MakeLogDirectories();

// Deletes a log that has outgrown its limit of 12,000,000 bytes. True when it did.
[[nodiscard]] bool DeleteLargeLog(const char* path);
