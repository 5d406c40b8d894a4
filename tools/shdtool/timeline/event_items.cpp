// Events as items. Called by the timeline command and by the view.
#include "tools/shdtool/timeline/event_items.h"

namespace shdtool::timeline {

void EventItems::Push(const Delivery& delivery) const {
    const shdclient::WatchedEvent& event = delivery.event;
    const Time at = event.arrival_ns;
    switch (delivery.kind) {
        case DeliveryKind::kEvent:
            if (event.decoded.flush_complete) {
                sink_(FlushComplete{at, event.decoded.sensor->handle});
            } else {
                sink_(Sample{at, event.decoded});
            }
            return;
        case DeliveryKind::kLost:
            sink_(Connection{at, false});
            sink_(McuState{at, State::kDown, "the connection to the daemon is lost",
                           Source::kEvents});
            return;
        case DeliveryKind::kReconnected:
            sink_(Connection{at, true});
            sink_(McuState{at, State::kService, "", Source::kEvents});
            return;
        case DeliveryKind::kMissed:
            sink_(Missed{delivery.from_ns, at, delivery.certain});
            return;
    }
}

}  // namespace shdtool::timeline
