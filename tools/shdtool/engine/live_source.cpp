// The thread that empties the data socket. Called by the loop.
#include "tools/shdtool/engine/live_source.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "tools/shdtool/engine/stop_signals.h"

namespace shdtool {
namespace {

using shdclient::WatchChange;

constexpr std::chrono::milliseconds kStopLatency{50};

Delivery Change(DeliveryKind kind, int64_t from_ns, int64_t at_ns, bool certain = false) {
    Delivery delivery{kind};
    delivery.certain = certain;
    delivery.event.arrival_ns = at_ns;
    delivery.from_ns = from_ns;
    return delivery;
}

}  // namespace

LiveSource::LiveSource(const std::string& root, const std::vector<int32_t>& handles)
    : watcher_(root, {.handles = handles}) {}

LiveSource::~LiveSource() = default;

shdclient::Status LiveSource::Start() {
    shdclient::Status opened = watcher_.Open();
    if (!opened) return opened;
    wakeup_.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wakeup_.valid()) {
        return shdclient::Error{shdclient::ErrorCode::kSystem,
                                std::string("cannot make an eventfd: ") + std::strerror(errno)};
    }
    thread_ = ThreadWithoutSignals([this](const std::stop_token& stop) { Run(stop); });
    return shdclient::Success();
}

void LiveSource::Append(const Delivery& delivery) {
    const bool droppable = delivery.kind == DeliveryKind::kEvent;
    if (droppable && (dropped_ || waiting_.size() >= kMaxWaiting)) {
        const int64_t at_ns = delivery.event.arrival_ns;
        dropped_ = shdclient::MissedSpan{dropped_ ? dropped_->from_ns : at_ns, at_ns, true};
        return;
    }
    waiting_.push_back(delivery);
}

void LiveSource::Run(const std::stop_token& stop) {
    std::vector<shdclient::WatchedEvent> events;
    bool going = true;
    while (going && !stop.stop_requested()) {
        events.clear();
        const auto change = watcher_.Poll(kStopLatency, events);
        const auto missed = watcher_.TakeMissed();
        const MutexLock lock(mutex_);
        if (missed) {
            Append(Change(DeliveryKind::kMissed, missed->from_ns, missed->to_ns, missed->certain));
        }
        for (const shdclient::WatchedEvent& event : events) {
            Append({DeliveryKind::kEvent, event, 0});
        }
        if (!change) {
            failure_ = change.error();
            going = false;
        } else if (*change != WatchChange::kNone) {
            const bool lost = *change == WatchChange::kLost;
            Append(Change(lost ? DeliveryKind::kLost : DeliveryKind::kReconnected, 0,
                          shdclient::BootTimeNs()));
        }
        if (!waiting_.empty() || failure_) (void)eventfd_write(wakeup_.get(), 1);
    }
}

shdclient::Result<bool> LiveSource::Take(std::chrono::milliseconds timeout,
                                         Deliveries& deliveries) {
    deliveries.clear();
    pollfd ready{wakeup_.get(), POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(timeout.count())) <= 0) return true;
    eventfd_t count = 0;
    (void)eventfd_read(wakeup_.get(), &count);  // how often it was written says nothing
    const MutexLock lock(mutex_);
    deliveries.swap(waiting_);
    if (deliveries.empty() && failure_) return *failure_;
    if (const auto dropped = std::exchange(dropped_, std::nullopt)) {
        deliveries.push_back(Change(DeliveryKind::kMissed, dropped->from_ns, dropped->to_ns, true));
    }
    if (failure_) (void)eventfd_write(wakeup_.get(), 1);
    return true;
}

}  // namespace shdtool
