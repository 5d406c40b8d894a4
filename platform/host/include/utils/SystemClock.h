// Stand-in for Android's elapsed-realtime clock on a development machine.
#pragma once

#include <cstdint>

namespace android {

// Nanoseconds since boot, time asleep included (CLOCK_BOOTTIME).
int64_t elapsedRealtimeNano();

}  // namespace android
