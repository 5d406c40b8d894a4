// Reads the data socket on a thread of its own, so that no event is lost while its user prints,
// writes or waits. Used by the watch loop.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/unique_fd.h"
#include "tools/client/event_watcher.h"
#include "tools/client/result.h"
#include "tools/shdtool/watch/delivery.h"

namespace shdtool {

// The kernel keeps only some 280 events for a client, a few hundredths of a second of a busy hub;
// the daemon drops what does not fit. This reader takes them at once and keeps them in order in
// memory. Its user is one thread.
class EventReader {
  public:
    // Beyond it, new events are dropped and counted: about 60 MB.
    static constexpr size_t kMaxWaiting = 250'000;

    EventReader(std::string root, shdclient::WatchOptions options);
    ~EventReader();  // waits up to 50 ms for the thread
    EventReader(const EventReader&) = delete;
    EventReader& operator=(const EventReader&) = delete;

    // Connects and starts the thread, which sees no signals. Errors as EventStream::Connect.
    [[nodiscard]] shdclient::Status Start();

    // Waits at most timeout for deliveries and replaces the content of deliveries by all that are
    // there; returns early, with none, when a signal was caught. Fails as EventWatcher::Poll, after
    // all that came before the failure has been taken.
    [[nodiscard]] shdclient::Status Take(std::chrono::milliseconds timeout,
                                         std::vector<Delivery>& deliveries);

    [[nodiscard]] uint64_t discarded_bytes() const { return discarded_bytes_; }
    [[nodiscard]] uint64_t overrun_events() const { return overrun_events_; }

  private:
    void Run(const std::stop_token& stop);
    void Append(const Delivery& delivery);

    shdclient::EventWatcher watcher_;  // the thread's, once that runs
    UniqueFd wakeup_;                  // an eventfd, written when something is waiting
    std::atomic<uint64_t> discarded_bytes_ = 0;
    std::atomic<uint64_t> overrun_events_ = 0;

    std::mutex mutex_;
    std::vector<Delivery> waiting_;            // guarded by mutex_
    std::optional<shdclient::Error> failure_;  // guarded by mutex_

    std::jthread thread_;  // last, so that it ends first
};

}  // namespace shdtool
