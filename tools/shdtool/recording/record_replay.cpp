// The pace of a replay. Called by replay.
#include "tools/shdtool/recording/record_replay.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <optional>

#include "tools/shdtool/watch/signals.h"

namespace shdtool {
namespace {

using shdclient::Status;
using shdclient::WatchChange;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

constexpr milliseconds kTickInterval{50};

// One run.
class Replay {
  public:
    Replay(const ReplayOptions& options, const WatchLimits& limits, EventSink& sink)
        : options_(options), limits_(limits), sink_(sink) {}

    [[nodiscard]] shdclient::Result<WatchState> Run(RecordReader& reader) {
        const StopSignals signals;
        bool full = false;
        while (!full) {
            const std::optional<Delivery> entry = reader.Next();
            if (!entry) break;
            if (!started_) Start(entry->event.arrival_ns);
            if (IsBeyond(entry->event.arrival_ns)) break;
            const Status waited = WaitFor(entry->event.arrival_ns);
            if (!waited) return waited.error();
            if (StopSignals::requested()) break;
            full = Deliver(*entry);
        }
        const Status ended = sink_.OnEnd(state_);
        if (!ended) return ended.error();
        return state_;
    }

  private:
    void Start(int64_t arrival_ns) {
        started_ = true;
        first_ns_ = arrival_ns;
        start_ = steady_clock::now();
    }

    [[nodiscard]] bool IsBeyond(int64_t arrival_ns) const {
        return limits_.duration.count() > 0 &&
               nanoseconds(arrival_ns - first_ns_) > limits_.duration;
    }

    // The time of the recording that has come by now.
    [[nodiscard]] int64_t Playhead() const {
        const nanoseconds played = steady_clock::now() - start_;
        return first_ns_ +
               static_cast<int64_t>(static_cast<double>(played.count()) * options_.speed);
    }

    [[nodiscard]] Status WaitFor(int64_t arrival_ns) {
        if (options_.speed == 0) {
            state_.now_ns = arrival_ns;
            return Tick();
        }
        for (;;) {
            state_.now_ns = std::min(Playhead(), arrival_ns);
            Status ticked = Tick();
            if (!ticked) return ticked;
            const double left_ms =
                static_cast<double>(arrival_ns - state_.now_ns) / options_.speed / 1e6;
            if (left_ms < 1 || StopSignals::requested()) return shdclient::Success();
            const double tick_ms = static_cast<double>(kTickInterval.count());
            (void)poll(nullptr, 0, static_cast<int>(std::min(left_ms, tick_ms)));
        }
    }

    [[nodiscard]] Status Tick() {
        const auto now = steady_clock::now();
        if (now - ticked_ < kTickInterval) return shdclient::Success();
        ticked_ = now;
        return sink_.OnTick(state_);
    }

    // True when the number of samples is reached.
    [[nodiscard]] bool Deliver(const Delivery& entry) {
        if (entry.change != WatchChange::kNone) {
            state_.connected = entry.change == WatchChange::kReconnected;
            sink_.OnChange(entry.change, entry.event.arrival_ns);
            return false;
        }
        const shdclient::DecodedEvent& decoded = entry.event.decoded;
        const auto& handles = options_.handles;
        if (!handles.empty() &&
            std::find(handles.begin(), handles.end(), decoded.sensor->handle) == handles.end()) {
            return false;
        }
        sink_.OnEvent(entry.event);
        if (decoded.flush_complete) return false;
        return ++state_.samples == limits_.max_samples;
    }

    const ReplayOptions& options_;
    const WatchLimits& limits_;
    EventSink& sink_;
    WatchState state_;
    bool started_ = false;
    int64_t first_ns_ = 0;
    steady_clock::time_point start_{};
    steady_clock::time_point ticked_{};
};

}  // namespace

shdclient::Result<WatchState> ReplayEvents(RecordReader& reader, const ReplayOptions& options,
                                           const WatchLimits& limits, EventSink& sink) {
    return Replay(options, limits, sink).Run(reader);
}

}  // namespace shdtool
