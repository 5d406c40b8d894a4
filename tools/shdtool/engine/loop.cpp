// Takes events from a source and hands them to a sink. Called by watch, replay, record and audit.
#include "tools/shdtool/engine/loop.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <optional>

#include "tools/shdtool/base/terminal.h"
#include "tools/shdtool/engine/stop_signals.h"

namespace shdtool {
namespace {

using shdclient::Status;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

// Events gather this long in the reader, so that a busy hub does not wake this thread for each.
constexpr int kPauseMs = 5;

constexpr milliseconds kTick{100};  // between two looks of the sink

// One run of the loop.
class Loop {
  public:
    Loop(const Context& context, EventSource& source, const WatchRequest& request, EventSink& sink)
        : request_(request), source_(source), sink_(sink) {
        if (request.enable) enabler_.emplace(context.root, context.timeout(), request);
    }

    [[nodiscard]] shdclient::Result<WatchState> Run() {
        const Status started = source_.Start();
        if (!started) return started.error();
        state_.start_ns = state_.now_ns = source_.now_ns();
        if (enabler_) enabler_->Ask();
        CatchStopSignals();
        sink_.OnStart(source_);
        while (!StopRequested() && !done_) {
            const Status round = Round(TimeLeft());
            if (!round) return round.error();
        }
        const Status ended = sink_.OnEnd(state_);
        if (!ended) return ended.error();
        return state_;
    }

  private:
    [[nodiscard]] milliseconds TimeLeft() const {
        if (request_.duration.count() == 0) return kTick;
        const nanoseconds left = request_.duration - nanoseconds(state_.now_ns - state_.start_ns);
        return std::clamp(std::chrono::ceil<milliseconds>(left), milliseconds(0), kTick);
    }

    [[nodiscard]] bool IsBeyond(int64_t at_ns) const {
        return request_.duration.count() > 0 &&
               nanoseconds(at_ns - state_.start_ns) >= request_.duration;
    }

    [[nodiscard]] Status Round(milliseconds wait) {
        const auto taken = source_.Take(wait, deliveries_);
        if (enabler_) {
            const auto enabled = enabler_->Check();
            if (!enabled) return enabled.error();
            if (*enabled) sink_.OnEnabled(source_.now_ns());
        }
        for (const Delivery& delivery : deliveries_) {
            done_ = done_ || IsBeyond(delivery.event.arrival_ns);
            if (done_) break;
            Deliver(delivery);
        }
        state_.now_ns = source_.now_ns();
        if (IsBeyond(state_.now_ns)) {
            state_.now_ns = state_.start_ns + nanoseconds(request_.duration).count();
            done_ = true;
        }
        TellAboutSilence();
        const auto going = sink_.OnTick(state_);
        if (!going) return going.error();
        if (!taken) return taken.error();
        done_ = done_ || !*going || !*taken;
        if (!done_ && source_.live() && !deliveries_.empty()) (void)poll(nullptr, 0, kPauseMs);
        return shdclient::Success();
    }

    void Deliver(const Delivery& delivery) {
        if (delivery.kind == DeliveryKind::kEvent) {
            sink_.OnEvent(delivery.event);
            if (delivery.event.decoded.flush_complete) return;
            done_ = ++state_.samples == request_.max_samples;
            return;
        }
        if (delivery.kind == DeliveryKind::kMissed) {
            state_.missed_ns += delivery.event.arrival_ns - delivery.from_ns;
            state_.surely_missed = state_.surely_missed || delivery.certain;
        } else {
            state_.connected = delivery.kind == DeliveryKind::kReconnected;
            if (state_.connected && enabler_) enabler_->Ask();
        }
        sink_.OnChange(delivery);
    }

    void TellAboutSilence() {
        constexpr std::chrono::seconds kSilence{3};
        const bool due = nanoseconds(state_.now_ns - state_.start_ns) >= kSilence;
        if (told_ || !due || !source_.live()) return;
        told_ = true;
        if (state_.samples == 0 && state_.connected) sink_.OnSilence();
    }

    const WatchRequest& request_;
    EventSource& source_;
    EventSink& sink_;
    std::optional<SensorEnabler> enabler_;
    Deliveries deliveries_;
    WatchState state_;
    bool done_ = false;
    bool told_ = false;
};

}  // namespace

std::string ChangeText(const Delivery& change) {
    switch (change.kind) {
        case DeliveryKind::kEvent:
            return "";
        case DeliveryKind::kLost:
            return "connection to the daemon lost; waiting for it";
        case DeliveryKind::kReconnected:
            return "connected to the daemon again; events between are lost";
        case DeliveryKind::kMissed:
            break;
    }
    return fmt::format("events may have been lost on the way here: nobody read them for {:.2f} s",
                       static_cast<double>(change.event.arrival_ns - change.from_ns) / 1e9);
}

void EventSink::OnChange(const Delivery& change) {
    Say(stderr, "shdtool: " + ChangeText(change));
}

void EventSink::OnSilence() {
    Say(stderr, "shdtool: no sample came so far; is a sensor enabled?");
}

shdclient::Result<bool> EventSink::OnTick(const WatchState& /*state*/) {
    return true;
}

Status EventSink::OnEnd(const WatchState& /*state*/) {
    return shdclient::Success();
}

shdclient::Result<WatchState> WatchEvents(const Context& context, EventSource& source,
                                          const WatchRequest& request, EventSink& sink) {
    return Loop(context, source, request, sink).Run();
}

}  // namespace shdtool
