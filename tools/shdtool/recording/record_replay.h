// Plays a recording into a sink, at the speed at which it was recorded or another. Used by replay.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/shdtool/recording/record_file.h"
#include "tools/shdtool/watch/loop.h"

namespace shdtool {

struct ReplayOptions {
    std::vector<int32_t> handles;  // empty: all sensors
    double speed = 1;              // of the recording's time; 0: without waiting
};

// Blocks until the recording or a limit is over, or SIGINT or SIGTERM comes, which all count as
// success; a limit of time is the recording's time. The time begins with the first entry. What is
// damaged in the file is left to the caller, see RecordReader. Fails when the sink does.
[[nodiscard]] shdclient::Result<WatchState> ReplayEvents(RecordReader& reader,
                                                         const ReplayOptions& options,
                                                         const WatchLimits& limits,
                                                         EventSink& sink);

}  // namespace shdtool
