// What a source of events hands on: an event, or a change of the connection. Passed by the live
// reader and by recordings to the loops that drive an EventSink.
#pragma once

#include "tools/client/event_watcher.h"

namespace shdtool {

struct Delivery {
    shdclient::WatchChange change = shdclient::WatchChange::kNone;
    // With a change only its arrival_ns counts, the time of that change.
    shdclient::WatchedEvent event{};
};

}  // namespace shdtool
