// Event watching with reconnection. Called by the watching tools.
#include "tools/client/event_watcher.h"

#include <poll.h>

#include <algorithm>
#include <ctime>
#include <utility>

using namespace shd;

namespace shdclient {
namespace {

constexpr std::chrono::milliseconds kReconnectInterval{100};

}  // namespace

int64_t BootTimeNs() {
    constexpr int64_t kNsPerSec = 1'000'000'000;
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return int64_t{now.tv_sec} * kNsPerSec + now.tv_nsec;
}

EventWatcher::EventWatcher(std::string root, WatchOptions options)
    : root_(std::move(root)), options_(std::move(options)) {}

Status EventWatcher::Open() {
    Result<EventStream> stream = EventStream::Connect(root_);
    if (!stream) return stream.error();
    stream_ = std::move(*stream);
    return Success();
}

uint64_t EventWatcher::discarded_bytes() const {
    return discarded_earlier_ + (stream_ ? stream_->assembler().discarded_bytes() : 0);
}

bool EventWatcher::Wanted(const DecodedEvent& event) const {
    if (event.flush_complete && !options_.flush_complete) return false;
    return options_.handles.empty() || std::find(options_.handles.begin(), options_.handles.end(),
                                                 event.sensor->handle) != options_.handles.end();
}

Result<WatchChange> EventWatcher::Poll(std::chrono::milliseconds timeout,
                                       std::vector<WatchedEvent>& events) {
    if (!stream_) return TryToReconnect(timeout);
    pollfd ready{stream_->fd(), POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(timeout.count())) <= 0) return WatchChange::kNone;
    return ReadEvents(events);
}

Result<WatchChange> EventWatcher::ReadEvents(std::vector<WatchedEvent>& events) {
    records_.clear();
    const Result<size_t> count = stream_->Read(records_);
    const int64_t arrival_ns = BootTimeNs();
    for (const SensorEvent& record : records_) {
        const std::optional<DecodedEvent> decoded = DecodeEvent(record);
        if (decoded && Wanted(*decoded)) events.push_back({record, *decoded, arrival_ns});
    }
    if (count) return WatchChange::kNone;
    discarded_earlier_ = discarded_bytes();
    stream_.reset();
    if (!options_.reconnect) return count.error();
    return WatchChange::kLost;
}

WatchChange EventWatcher::TryToReconnect(std::chrono::milliseconds timeout) {
    // The pause comes first: a daemon that is being killed may still take connections when it has
    // closed ours.
    do {
        const auto pause = std::min(timeout, kReconnectInterval);
        if (poll(nullptr, 0, static_cast<int>(pause.count())) < 0) break;
        if (Open()) return WatchChange::kReconnected;
        timeout -= pause;
    } while (timeout.count() > 0);
    return WatchChange::kNone;
}

}  // namespace shdclient
