// What a source of events hands on: an event, a change of the connection, or the word that events
// are missing. Passed by the sources through the loop to the views.
#pragma once

#include <vector>

#include "tools/client/event_watcher.h"

namespace shdtool {

enum class DeliveryKind : uint8_t {
    kEvent,
    kLost,         // the connection to the daemon
    kReconnected,  // a daemon is back; events between the two are lost
    kMissed,       // events may have been lost on the way here, see shdclient::MissedSpan
};

struct Delivery {
    DeliveryKind kind = DeliveryKind::kEvent;
    // Of the other kinds only its arrival_ns counts, the time of that change; of kMissed the end.
    shdclient::WatchedEvent event{};
    int64_t from_ns = 0;   // kMissed: the beginning
    bool certain = false;  // kMissed: see shdclient::MissedSpan
};

using Deliveries = std::vector<Delivery>;

}  // namespace shdtool
