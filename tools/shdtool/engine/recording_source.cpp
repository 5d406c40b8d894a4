// The pace of a replay. Called by the loop.
#include "tools/shdtool/engine/recording_source.h"

#include <poll.h>

#include <algorithm>

namespace shdtool {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

constexpr size_t kMostAtOnce = 4096;  // so that views are drawn also without waiting

}  // namespace

shdclient::Status RecordingSource::Start() {
    start_ = steady_clock::now();
    now_ns_ = reader_.begin_ns();
    Advance();
    return shdclient::Success();
}

void RecordingSource::Advance() {
    do {
        next_ = reader_.Next();
    } while (next_ && !Wanted(*next_));
}

bool RecordingSource::Wanted(const Delivery& delivery) const {
    if (delivery.kind != DeliveryKind::kEvent || handles_.empty()) return true;
    const int32_t handle = delivery.event.decoded.sensor->handle;
    return std::find(handles_.begin(), handles_.end(), handle) != handles_.end();
}

void RecordingSource::Pause(bool paused) {
    if (paused == paused_.has_value()) return;
    if (paused) {
        paused_ = steady_clock::now();
    } else {
        start_ += steady_clock::now() - *paused_;
        paused_.reset();
    }
}

// The time of the recording that has come by now.
int64_t RecordingSource::Playhead() const {
    const nanoseconds played = paused_.value_or(steady_clock::now()) - start_;
    return reader_.begin_ns() + static_cast<int64_t>(static_cast<double>(played.count()) * speed_);
}

shdclient::Result<bool> RecordingSource::Take(milliseconds timeout, Deliveries& deliveries) {
    deliveries.clear();
    const steady_clock::time_point deadline = steady_clock::now() + timeout;
    for (;;) {
        const int64_t until_ns = speed_ > 0 ? Playhead() : INT64_MAX;
        while (next_ && next_->event.arrival_ns <= until_ns && deliveries.size() < kMostAtOnce) {
            deliveries.push_back(*next_);
            now_ns_ = std::max(now_ns_, next_->event.arrival_ns);
            Advance();
        }
        const int64_t end_ns = next_ ? next_->event.arrival_ns : reader_.end_ns();
        if (!next_ && end_ns <= until_ns) {
            now_ns_ = std::max(now_ns_, end_ns);
            return false;
        }
        if (speed_ == 0) return true;
        now_ns_ = std::max(now_ns_, std::min(until_ns, end_ns));
        const steady_clock::time_point now = steady_clock::now();
        if (!deliveries.empty() || now >= deadline) return true;
        const auto left = std::chrono::ceil<milliseconds>(deadline - now);
        const double due_ms = static_cast<double>(end_ns - until_ns) / speed_ / 1e6;
        const double wait_ms = std::min(static_cast<double>(left.count()), std::max(due_ms, 1.0));
        if (poll(nullptr, 0, static_cast<int>(wait_ms)) < 0) return true;  // a signal
    }
}

}  // namespace shdtool
