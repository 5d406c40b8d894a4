// Which lines and episodes of a log somebody wants to see, and how they look. Used by the log
// command.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/shdtool/base/json.h"
#include "tools/shdtool/log/log_fold.h"

namespace shdtool {

struct LogFilter {
    std::vector<std::string> tags;  // empty: all
    char level = 'V';               // the least
    std::vector<int32_t> sensors;   // handles, empty: all; episodes concern every sensor
    std::string at;  // beginning of a time, "04:31", or with the date in front; empty: any
    bool episodes_only = false;

    [[nodiscard]] bool Wants(const LogItem& item) const;
};

// Without a line end. On a terminal broken at blanks.
[[nodiscard]] std::string TextOf(const LogItem& item);
[[nodiscard]] Json JsonOf(const LogItem& item);

}  // namespace shdtool
