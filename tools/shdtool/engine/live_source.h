// The running hub as a source of events: reads the data socket on a thread of its own, so that no
// event is lost while its user prints, writes or waits. Used by every command that listens.
#pragma once

#include <optional>
#include <string>
#include <thread>

#include "platform/mutex.h"
#include "platform/unique_fd.h"
#include "tools/shdtool/engine/source.h"

namespace shdtool {

// The kernel keeps only some 280 events for a client, a few hundredths of a second of a busy hub;
// the daemon drops what does not fit. This reader takes them at once and keeps them in order in
// memory.
class LiveSource final : public EventSource {
  public:
    // Beyond it, new events are dropped and told as missed: about 60 MB.
    static constexpr size_t kMaxWaiting = 250'000;

    // handles: empty: all sensors.
    LiveSource(const std::string& root, const std::vector<int32_t>& handles);
    ~LiveSource() override;  // waits up to 50 ms for the thread

    // Connects and starts the thread, which sees no signals. Errors as EventStream::Connect.
    [[nodiscard]] shdclient::Status Start() override;
    // Fails as EventWatcher::Poll, after all that came before the failure has been taken.
    [[nodiscard]] shdclient::Result<bool> Take(std::chrono::milliseconds timeout,
                                               Deliveries& deliveries) override;
    [[nodiscard]] int64_t now_ns() const override { return shdclient::BootTimeNs(); }
    void Pause(bool /*paused*/) override {}
    [[nodiscard]] bool live() const override { return true; }

  private:
    void Run(const std::stop_token& stop);
    void Append(const Delivery& delivery) REQUIRES(mutex_);

    shdclient::EventWatcher watcher_;  // the thread's, once that runs
    UniqueFd wakeup_;                  // an eventfd, written when something is waiting

    Mutex mutex_;
    Deliveries waiting_ GUARDED_BY(mutex_);
    std::optional<shdclient::MissedSpan> dropped_ GUARDED_BY(mutex_);  // behind waiting_
    std::optional<shdclient::Error> failure_ GUARDED_BY(mutex_);

    std::jthread thread_;  // last, so that it ends first
};

}  // namespace shdtool
