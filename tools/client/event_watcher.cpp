// Event watching with reconnection. Called by the watching tools.
#include "tools/client/event_watcher.h"

#include <poll.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <utility>

using namespace shd;

namespace shdclient {
namespace {

constexpr std::chrono::milliseconds kReconnectInterval{100};

// A connection that has lasted so long without events leads to a daemon. Who stands between the
// two, as adb does, takes one for a daemon that is not there, and closes it at once.
constexpr int64_t kProofNs = 100'000'000;

// The smallest send buffer that a system gives a socket takes some 280 events, each with what the
// kernel needs beside it. A reader that finds nearly as many after a while cannot have seen all.
constexpr size_t kFullBacklogBytes = 200 * sizeof(SensorEvent);
constexpr int64_t kStandstillNs = 50'000'000;

// What the hub's boot clock is ahead of this machine's.
int64_t AheadNs() {
    const char* ahead = std::getenv("SHD_BOOT_AHEAD_NS");
    return ahead != nullptr ? std::atoll(ahead) : 0;
}

}  // namespace

int64_t BootTimeNs() {
    static const int64_t ahead_ns = AheadNs();
    constexpr int64_t kNsPerSec = 1'000'000'000;
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return int64_t{now.tv_sec} * kNsPerSec + now.tv_nsec + ahead_ns;
}

EventWatcher::EventWatcher(std::string root, WatchOptions options)
    : root_(std::move(root)), options_(std::move(options)) {}

Status EventWatcher::Open() {
    Result<EventStream> stream = EventStream::Connect(root_);
    if (!stream) return stream.error();
    stream_ = std::move(*stream);
    opened_ns_ = 0;
    looked_ns_ = 0;
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
    if (!connected()) return TryToReconnect(timeout);
    pollfd ready{stream_->fd(), POLLIN, 0};
    // A process can be stopped between any two lines: each time is the one that hides no
    // standstill.
    const int64_t waited_ns = BootTimeNs();
    if (looked_ns_ == 0) looked_ns_ = waited_ns;
    const bool came = poll(&ready, 1, static_cast<int>(timeout.count())) > 0;
    const int64_t reading_ns = BootTimeNs();
    if (!came) {
        const bool on_time =
            reading_ns - waited_ns < std::chrono::nanoseconds(timeout).count() + kStandstillNs;
        looked_ns_ = on_time ? reading_ns : waited_ns;
        return WatchChange::kNone;
    }
    size_t backlog = stream_->Backlog();
    const uint64_t resyncs = stream_->assembler().resyncs();
    Result<WatchChange> change = ReadEvents(events);
    if (stream_) {
        backlog = std::max(backlog, records_.size() * sizeof(SensorEvent) + stream_->Backlog());
    }
    const bool cut = stream_ && stream_->assembler().resyncs() > resyncs;
    const int64_t read_ns = BootTimeNs();
    if (cut || (backlog >= kFullBacklogBytes && read_ns - looked_ns_ >= kStandstillNs)) {
        missed_ = MissedSpan{looked_ns_, read_ns, cut};
    }
    looked_ns_ = reading_ns;
    return change;
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
    for (;;) {
        const auto pause =
            timeout.count() < 0 ? kReconnectInterval : std::min(timeout, kReconnectInterval);
        // The pause comes first: a daemon that is being killed may still take connections when it
        // has closed ours.
        pollfd ready{fd(), POLLIN, 0};
        const int came = poll(&ready, 1, static_cast<int>(pause.count()));
        if (came < 0) return WatchChange::kNone;
        if (!stream_) {
            if (Open()) opened_ns_ = BootTimeNs();
        } else if (came > 0 && stream_->Backlog() == 0) {
            stream_.reset();  // closed again before anything came
        } else if (came > 0 || BootTimeNs() - opened_ns_ >= kProofNs) {
            opened_ns_ = 0;
            return WatchChange::kReconnected;
        }
        if (timeout.count() > 0) timeout -= pause;
        if (timeout.count() == 0) return WatchChange::kNone;
    }
}

}  // namespace shdclient
