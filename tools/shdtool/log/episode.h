// What a fold makes of the many lines of one event in the daemon's log, and its one line of text.
// Filled by the folds, shown by the log command.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/shdtool/log/log_line.h"

namespace shdtool {

enum class EpisodeKind : uint8_t {
    kStart,     // another process of the daemon writes from here on
    kRecovery,  // restart of the MCU
    kUpdate,    // of the MCU's firmware
};

struct Episode {
    EpisodeKind kind = EpisodeKind::kStart;
    LogLine first;          // time, process and thread of its beginning
    std::string end_stamp;  // of its last line
    int64_t duration_ms = 0;
    bool running = false;  // it has begun; its end has not been read
    std::string cause;     // in words, empty when the log does not tell
    std::string failure;   // in words, empty when it went well

    // Recovery. Requests are named as far as the log does, sensors by their handles.
    std::vector<std::string> unanswered;   // requests, which caused it
    std::vector<int32_t> restored;         // sensors that were on and are on again
    std::vector<int32_t> not_restored;     // sensors that were on and could not be switched on
    std::vector<int32_t> parameters_lost;  // sensors whose calibration could not be sent
    int unanswered_handshakes = 0;
    int updates = 0;
    int refused_requests = 0;  // of clients, meanwhile

    // Update.
    int64_t blocks = 0;        // of the image, 0: it did not get to writing
    int64_t failed_block = 0;  // counted from 1, 0: it did not fail there
    bool block_exact = false;  // else estimated from the time that the line took
    bool erased = false;       // the MCU's old firmware is gone

    // It goes on until this line.
    void Extend(const LogLine& line);

    [[nodiscard]] bool ok() const { return failure.empty(); }
};

// What a line is to a fold.
enum class Fate : uint8_t {
    kOther,   // not a part of it, or worth a line of its own
    kFolded,  // told by the episode
    kEnded,   // likewise, and the episode has ended
};

// "start", "recovery" or "update".
[[nodiscard]] std::string_view EpisodeName(EpisodeKind kind);

// One line: what happened, how long it took, why, what came back and what did not.
[[nodiscard]] std::string Describe(const Episode& episode);

}  // namespace shdtool
