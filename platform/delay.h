// Every way in which the daemon lets time pass or reads the wall clock, beside mutex.h. Tests link
// their own implementation, so that no test really waits.
#pragma once

#include <chrono>
#include <ctime>

// Blocks the calling thread for at least the given time; a signal does not shorten it.
void Delay(std::chrono::microseconds duration);

// Waits until fd can be read without blocking, or its other end has gone, for at most timeout; a
// signal does not shorten it.
// Returns a positive value when it is readable, 0 when the time is over, a negative value with
// errno set on an error.
[[nodiscard]] int WaitReadable(int fd, std::chrono::microseconds timeout);

// Seconds of the wall clock since the epoch (what time() returns).
[[nodiscard]] std::time_t WallClockSec();
