// Takes events from the reader thread and hands them to a sink. Called by the watching commands.
#include "tools/shdtool/watch/loop.h"

#include <fmt/core.h>
#include <poll.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "tools/shdtool/watch/reader.h"
#include "tools/shdtool/watch/signals.h"

namespace shdtool {
namespace {

using shdclient::Status;
using shdclient::WatchChange;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Events gather this long in the reader, so that a busy hub does not wake this thread for each.
constexpr int kPauseMs = 5;

milliseconds TimeLeft(const WatchLimits& limits, steady_clock::time_point start) {
    if (limits.duration.count() == 0) return limits.tick;
    const auto left =
        limits.duration - std::chrono::floor<milliseconds>(steady_clock::now() - start);
    return std::clamp(left, milliseconds(0), limits.tick);
}

void TellAboutLosses(const WatchState& state) {
    if (state.discarded_bytes > 0) {
        fmt::print(stderr,
                   "shdtool: events were lost: they came faster than this machine read them, and "
                   "the daemon cut or left out some ({} bytes of cut records)\n",
                   state.discarded_bytes);
    }
    if (state.overrun_events > 0) {
        fmt::print(stderr, "shdtool: {} events were lost: the output takes them too slowly\n",
                   state.overrun_events);
    }
}

// One run of the loop.
class Loop {
  public:
    Loop(const Context& context, const shdclient::WatchOptions& options,
         const SamplingRequest& sampling, const WatchLimits& limits, EventSink& sink)
        : limits_(limits), sink_(sink), reader_(context.root, options) {
        if (!sampling.enable) return;
        enabler_.emplace(context.root, context.timeout(), sampling);
    }

    [[nodiscard]] shdclient::Result<WatchState> Run() {
        const Status started = reader_.Start();
        if (!started) return started.error();
        if (enabler_) enabler_->Ask();
        const StopSignals signals;
        const steady_clock::time_point start = steady_clock::now();
        while (!StopSignals::requested() && !full_) {
            const milliseconds wait = TimeLeft(limits_, start);
            if (wait.count() == 0) break;
            const Status done = Round(wait);
            if (!done) return done.error();
            TellAboutSilence(steady_clock::now() - start);
        }
        const Status ended = sink_.OnEnd(state_);
        if (!ended) return ended.error();
        TellAboutLosses(state_);
        return state_;
    }

  private:
    [[nodiscard]] Status Round(milliseconds wait) {
        Status taken = reader_.Take(wait, deliveries_);
        if (enabler_) {
            const auto enabled = enabler_->Check();
            if (!enabled) return enabled.error();
            if (*enabled) sink_.OnEnabled();
        }
        for (const Delivery& delivery : deliveries_) {
            Deliver(delivery);
            if (full_) break;
        }
        state_.now_ns = shdclient::BootTimeNs();
        state_.discarded_bytes = reader_.discarded_bytes();
        state_.overrun_events = reader_.overrun_events();
        Status ticked = sink_.OnTick(state_);
        if (!ticked) return ticked;
        if (!taken) return taken;
        if (!full_ && !deliveries_.empty()) (void)poll(nullptr, 0, kPauseMs);
        return shdclient::Success();
    }

    void Deliver(const Delivery& delivery) {
        if (delivery.change != WatchChange::kNone) {
            state_.connected = delivery.change == WatchChange::kReconnected;
            if (state_.connected && enabler_) enabler_->Ask();
            sink_.OnChange(delivery.change, delivery.event.arrival_ns);
            return;
        }
        sink_.OnEvent(delivery.event);
        if (delivery.event.decoded.flush_complete) return;
        full_ = ++state_.samples == limits_.max_samples;
    }

    void TellAboutSilence(steady_clock::duration elapsed) {
        constexpr std::chrono::seconds kSilence{3};
        if (told_ || elapsed < kSilence) return;
        told_ = true;
        if (state_.samples == 0 && state_.connected) sink_.OnSilence();
    }

    const WatchLimits& limits_;
    EventSink& sink_;
    EventReader reader_;
    std::optional<SensorEnabler> enabler_;
    std::vector<Delivery> deliveries_;
    WatchState state_;
    bool full_ = false;
    bool told_ = false;
};

}  // namespace

const char* ChangeText(WatchChange change) {
    return change == WatchChange::kLost ? "connection to the daemon lost; waiting for it"
                                        : "connected to the daemon again; events between are lost";
}

void EventSink::OnChange(WatchChange change, int64_t /*at_ns*/) {
    fmt::print(stderr, "shdtool: {}\n", ChangeText(change));
}

void EventSink::OnSilence() {
    fmt::print(stderr, "shdtool: no sample came so far; is a sensor enabled?\n");
}

Status EventSink::OnTick(const WatchState& /*state*/) {
    return shdclient::Success();
}

Status EventSink::OnEnd(const WatchState& /*state*/) {
    return shdclient::Success();
}

shdclient::Result<WatchState> WatchEvents(const Context& context,
                                          const shdclient::WatchOptions& options,
                                          const SamplingRequest& sampling,
                                          const WatchLimits& limits, EventSink& sink) {
    return Loop(context, options, sampling, limits, sink).Run();
}

}  // namespace shdtool
