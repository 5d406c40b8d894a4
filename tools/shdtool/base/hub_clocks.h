// Both clocks of the hub, which may be another machine's. Called by whatever sets events and texts
// beside each other.
#pragma once

#include <chrono>

#include "tools/client/event_watcher.h"
#include "tools/wire/recording.h"

namespace shdtool {

// The wall clocks of two machines are taken to agree.
inline wire::Clocks HubClocks() {
    return {wire::ReadClocks().wall, std::chrono::nanoseconds(shdclient::BootTimeNs())};
}

}  // namespace shdtool
