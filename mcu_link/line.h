// Ownership of the UART. One write of the port takes the line lock; a LinkHold keeps it for as
// long as the line or its descriptor's number is in other hands (reset, reopening, firmware
// update) and keeps the reader thread away from it meanwhile.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "platform/mutex.h"

class Line {
  public:
    // Guards who owns the UART: held for one write, or for a whole LinkHold.
    [[nodiscard]] Mutex& mutex() { return mutex_; }

    // Makes the calling thread the reader that holds park. Called once, by the reader thread,
    // before its first read.
    void AttachReader();

    // Whether the reader must park before its next read. Reader thread; one atomic load.
    [[nodiscard]] bool hold_requested() const { return hold_.load() != 0; }

    // Blocks the reader thread until the hold has ended.
    void ParkReader();

  private:
    friend class LinkHold;

    // Reader thread's identity, written once before reader_attached_.
    pthread_t reader_{};
    std::atomic<bool> reader_attached_{false};

    std::atomic<uint32_t> hold_{0};  // 32 bits, so that waiting on it is one futex
    std::atomic<bool> parked_{false};

    Mutex mutex_;
};

extern Line g_line;

// Owns the line exclusively from construction to destruction: no write of the port starts, and the
// reader thread is parked, interrupted in a read that it is blocked in. Construction blocks until
// another owner has let go and the reader has finished the message in hand. Its end gives the line
// its normal settings back and drops what is pending, when the daemon's port is open. Not
// recursive; the holder must not write through BoardSerial. Without a reader thread it costs only
// the lock.
class SCOPED_CAPABILITY LinkHold {
  public:
    LinkHold() ACQUIRE(g_line.mutex());
    ~LinkHold() RELEASE();
    LinkHold(const LinkHold&) = delete;
    LinkHold& operator=(const LinkHold&) = delete;
};
