// The thread that empties the data socket. Called by the watch loop.
#include "tools/shdtool/watch/reader.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "tools/shdtool/watch/signals.h"

namespace shdtool {
namespace {

using shdclient::WatchChange;

constexpr std::chrono::milliseconds kStopLatency{50};

}  // namespace

EventReader::EventReader(std::string root, shdclient::WatchOptions options)
    : watcher_(std::move(root), std::move(options)) {}

EventReader::~EventReader() = default;

shdclient::Status EventReader::Start() {
    shdclient::Status opened = watcher_.Open();
    if (!opened) return opened;
    wakeup_.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wakeup_.valid()) {
        return shdclient::Error{shdclient::ErrorCode::kSystem,
                                std::string("cannot make an eventfd: ") + std::strerror(errno)};
    }
    const BlockedSignals blocked;
    thread_ = std::jthread([this](const std::stop_token& stop) { Run(stop); });
    return shdclient::Success();
}

void EventReader::Append(const Delivery& delivery) {
    if (waiting_.size() >= kMaxWaiting && delivery.change == WatchChange::kNone) {
        ++overrun_events_;
        return;
    }
    waiting_.push_back(delivery);
}

void EventReader::Run(const std::stop_token& stop) {
    std::vector<shdclient::WatchedEvent> events;
    bool going = true;
    while (going && !stop.stop_requested()) {
        events.clear();
        const auto change = watcher_.Poll(kStopLatency, events);
        discarded_bytes_ = watcher_.discarded_bytes();
        const std::lock_guard lock(mutex_);
        for (const shdclient::WatchedEvent& event : events) Append({WatchChange::kNone, event});
        if (!change) {
            failure_ = change.error();
            going = false;
        } else if (*change != WatchChange::kNone) {
            Delivery delivery{*change};
            delivery.event.arrival_ns = shdclient::BootTimeNs();
            Append(delivery);
        }
        if (!waiting_.empty() || failure_) (void)eventfd_write(wakeup_.get(), 1);
    }
}

shdclient::Status EventReader::Take(std::chrono::milliseconds timeout,
                                    std::vector<Delivery>& deliveries) {
    deliveries.clear();
    pollfd ready{wakeup_.get(), POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(timeout.count())) <= 0) return shdclient::Success();
    eventfd_t count = 0;
    (void)eventfd_read(wakeup_.get(), &count);  // how often it was written says nothing
    const std::lock_guard lock(mutex_);
    deliveries.swap(waiting_);
    if (deliveries.empty() && failure_) return *failure_;
    if (failure_) (void)eventfd_write(wakeup_.get(), 1);
    return shdclient::Success();
}

}  // namespace shdtool
