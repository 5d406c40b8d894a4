// How many bytes go over the line, each way, from its frames. Used by the feeds.
#pragma once

#include <array>
#include <functional>
#include <string>

#include "tools/shdtool/timeline/item.h"

namespace shdtool {

// Not thread-safe. Times are of the boot clock.
class LineMeter {
  public:
    // json: told of each half second that is over, as an item of the page; of a longer time without
    // any byte only of the first and the last.
    explicit LineMeter(std::function<void(timeline::Time at, const std::string& json)> told)
        : told_(std::move(told)) {}

    // In the order of their ends, nearly.
    void Add(const timeline::Frame& frame);

    // It is this late, and no frame that ended before will follow.
    void Tick(timeline::Time now);

  private:
    void Tell();

    const std::function<void(timeline::Time, const std::string&)> told_;
    timeline::Time begin_ = 0;         // of the half second, 0: none yet
    std::array<uint64_t, 2> bytes_{};  // from and to the MCU, in it
};

}  // namespace shdtool
