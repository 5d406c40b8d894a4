// The daemon's waits, its locks and its wall clock on any POSIX system; the tests' platform has its
// own.
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>

#include "platform/delay.h"
#include "platform/mutex.h"

void Delay(std::chrono::microseconds duration) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
    const auto rest = std::chrono::nanoseconds(duration - seconds);
    timespec remaining{};
    remaining.tv_sec = static_cast<std::time_t>(seconds.count());
    remaining.tv_nsec = static_cast<long>(rest.count());
    while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
    }
}

int WaitReadable(int fd, std::chrono::microseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        // poll rather than select: a descriptor may be numbered above select's range.
        pollfd entry{fd, POLLIN, 0};
        const int ready = poll(&entry, 1, static_cast<int>(std::max<int64_t>(rest.count(), 0)));
        if (ready >= 0 || errno != EINTR) return ready;
    }
}

std::time_t WallClockSec() {
    return std::time(nullptr);
}

void Mutex::Lock() {
    pthread_mutex_lock(&mutex_);
}

void Mutex::Unlock() {
    pthread_mutex_unlock(&mutex_);
}

int CondVar::WaitUntil(Mutex& mutex, std::time_t deadline_sec) {
    timespec deadline{};
    deadline.tv_sec = deadline_sec;
    return pthread_cond_timedwait(&condition_, &mutex.mutex_, &deadline);
}
