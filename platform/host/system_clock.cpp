// The elapsed-realtime clock on a development machine.
#include <utils/SystemClock.h>

#include <ctime>

int64_t android::elapsedRealtimeNano() {
    constexpr int64_t kNanosPerSecond = 1'000'000'000;
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * kNanosPerSecond + now.tv_nsec;
}
