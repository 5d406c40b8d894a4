// Follows the hub's events across restarts of the daemon: connects, filters by sensor, stamps the
// arrival and reconnects. The core of every tool that watches, records or audits.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "protocol/event.h"
#include "tools/client/event_decoder.h"
#include "tools/client/event_stream.h"
#include "tools/client/result.h"

namespace shdclient {

struct WatchedEvent {
    shd::SensorEvent record;
    DecodedEvent decoded;
    int64_t arrival_ns;  // BootTimeNs when it was read, the clock of decoded.timestamp_ns
};

struct WatchOptions {
    std::vector<int32_t> handles;  // empty: all sensors
    bool flush_complete = true;    // deliver the flush-complete events of these sensors, too
    bool reconnect = true;         // false: Poll fails with kDisconnected when the daemon goes
};

enum class WatchChange : uint8_t {
    kNone,         // still as before, connected or not
    kLost,         // the daemon has gone; Poll goes on trying to reconnect
    kReconnected,  // a daemon is back; events between the two are lost
};

// A time in which this client did not read what came, so that the daemon may have had to leave
// events out: what is missing from then was lost on the way and not by the MCU.
struct MissedSpan {
    int64_t from_ns;  // of BootTimeNs
    int64_t to_ns;
    bool certain;  // a record was cut; else only a gap in that time is a sign of it
};

// Not thread-safe: one thread at a time.
class EventWatcher {
  public:
    EventWatcher(std::string root, WatchOptions options);

    // The first connection. Errors as EventStream::Connect; call it again to try again.
    [[nodiscard]] Status Open();

    // Waits at most timeout (negative: without end) for events and appends those that have arrived.
    // Returns at once when some have, when the connection changed, or when a signal was caught (no
    // events, kNone): the caller looks at its flags and calls again. While disconnected it tries to
    // reconnect every 100 ms within the timeout; kReconnected comes with the first events or 100 ms
    // later. Fails only with kDisconnected, and only without reconnect.
    [[nodiscard]] Result<WatchChange> Poll(std::chrono::milliseconds timeout,
                                           std::vector<WatchedEvent>& events);

    // Says, once, that the last Poll found the signs of it: a record cut short, or a socket full of
    // events after a time without reading. The events of that Poll came behind it.
    [[nodiscard]] std::optional<MissedSpan> TakeMissed() {
        return std::exchange(missed_, std::nullopt);
    }

    [[nodiscard]] bool connected() const { return stream_ && opened_ns_ == 0; }
    // Bytes dropped in search of the next record, over all connections: not 0 means that the
    // daemon had to cut a record because events were not read fast enough.
    [[nodiscard]] uint64_t discarded_bytes() const;
    // For a poll loop of the caller's own; -1 while there is no connection.
    [[nodiscard]] int fd() const { return stream_ ? stream_->fd() : -1; }

  private:
    [[nodiscard]] Result<WatchChange> ReadEvents(std::vector<WatchedEvent>& events);
    [[nodiscard]] WatchChange TryToReconnect(std::chrono::milliseconds timeout);
    [[nodiscard]] bool Wanted(const DecodedEvent& event) const;

    const std::string root_;
    const WatchOptions options_;
    std::optional<EventStream> stream_;
    int64_t opened_ns_ = 0;  // of a reconnection that may be closed again at once; 0: of none
    uint64_t discarded_earlier_ = 0;
    int64_t looked_ns_ = 0;  // when the socket was last found empty, or began to be emptied
    std::optional<MissedSpan> missed_;
    std::vector<shd::SensorEvent> records_;
};

// Nanoseconds of the hub's CLOCK_BOOTTIME: this machine's, plus SHD_BOOT_AHEAD_NS (nanoseconds,
// read once) where the hub is another machine's, as behind scripts/adb-hub.
[[nodiscard]] int64_t BootTimeNs();

}  // namespace shdclient
