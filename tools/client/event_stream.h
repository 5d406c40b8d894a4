// A connection to the data socket "shddata", on which the daemon sends every sensor event. Used by
// the event watcher of the tools, and usable by a sensors HAL in its own poll loop.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/unique_fd.h"
#include "protocol/event.h"
#include "tools/client/record_assembler.h"
#include "tools/client/result.h"

namespace shdclient {

// Not thread-safe: one thread at a time. The daemon never waits for a client: one that does not
// read in time loses events, see RecordAssembler for what it then receives.
class EventStream {
  public:
    // Connects to root/dev/socket/shddata. Errors as ConnectLocal (local_socket.h).
    [[nodiscard]] static Result<EventStream> Connect(std::string_view root);

    // Takes over a connected, non-blocking stream socket; name stands for it in error messages.
    EventStream(UniqueFd connected, std::string name)
        : fd_(std::move(connected)), name_(std::move(name)) {}

    // The non-blocking descriptor, owned by this object: poll it for POLLIN, then call Read.
    [[nodiscard]] int fd() const { return fd_.get(); }

    // Appends the events that have arrived, reading at most 64 KiB, and returns their number; 0
    // when none is complete. Never blocks. kDisconnected when the daemon has closed the connection;
    // the events that came before that are delivered first.
    [[nodiscard]] Result<size_t> Read(std::vector<shd::SensorEvent>& events);

    // Bytes that have arrived and were not read yet.
    [[nodiscard]] size_t Backlog() const;

    // Waits until the daemon's data server has this connection on its list, so that no event that
    // happens from now on is missed. A connection counts as made before the daemon has accepted it;
    // what a client sends is discarded in blocks of 1,024 bytes, so a block that has been taken is
    // the sign. kTimeout when that does not happen in time, kDisconnected.
    [[nodiscard]] Status WaitUntilServed(std::chrono::milliseconds timeout);

    [[nodiscard]] const RecordAssembler& assembler() const { return assembler_; }

  private:
    [[nodiscard]] Error Disconnected() const;

    UniqueFd fd_;
    std::string name_;
    RecordAssembler assembler_;
};

}  // namespace shdclient
