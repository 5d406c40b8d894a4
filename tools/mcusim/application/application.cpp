// The MCU's firmware: reception, timing and lookup of commands. The commands themselves are in
// application_commands.cpp.
#include "tools/mcusim/application/application.h"

#include <utility>

#include "tools/mcusim/application/application_commands.h"

namespace mcusim {
namespace {

// From the end of a request to the beginning of its reply.
constexpr TimePoint kTurnaround = std::chrono::microseconds(300);

}  // namespace

Application::Application(SensorSignals& signals, Faults& faults, Transmitter& transmitter)
    : signals_(signals),
      faults_(faults),
      transmitter_(transmitter),
      sensors_(signals, transmitter),
      raw_data_(signals, transmitter) {
    PowerCut();
}

void Application::PowerCut() {
    log_level_ = kLogLevelWarning;
}

void Application::Boot(TimePoint now, std::string version) {
    version_ = std::move(version);
    signals_.PowerOn(now);
    sensors_.Reset();
    raw_data_.Reset();
    reader_.Clear();
    deferred_.clear();
    Log(now, kLogLevelInfo, "boot, firmware " + version_);
}

void Application::Resume(TimePoint now) {
    sensors_.Resume(now);
    raw_data_.Resume(now);
    reader_.Clear();
    deferred_.clear();
}

void Application::Watch(TimePoint at, std::span<const uint8_t> packet,
                        std::string_view note) const {
    if (watcher_) watcher_(at, packet, note);
}

void Application::OnByte(uint8_t byte, TimePoint arrival) {
    const uint64_t bad_frames = reader_.bad_frames();
    std::optional<Bytes> packet = reader_.Push(byte);
    if (reader_.bad_frames() != bad_frames) Watch(arrival, {}, "damaged");
    if (packet) OnPacket(std::move(*packet), arrival);
}

void Application::OnPacket(Bytes packet, TimePoint arrival) {
    ++frames_in_;
    if (faults_.DropIncoming()) return Watch(arrival, packet, "lost on the line");
    const std::optional<Request> request = ParseRequest(packet);
    Watch(arrival, packet, request ? "" : "not a request");
    if (!request) return;

    Advance(arrival);
    const CommandEntry* entry = FindCommand(*request);
    const TimePoint extra = faults_.reply_delay() + (entry == nullptr ? TimePoint(0) : entry->work);
    if (extra > TimePoint(0)) {
        deferred_.emplace(arrival + kTurnaround + extra, std::move(packet));
    } else {
        Execute(packet, arrival + kTurnaround);
    }
}

void Application::Execute(std::span<const uint8_t> packet, TimePoint at) {
    const Request request = *ParseRequest(packet);
    uint8_t status = kStatusOk;
    switch (faults_.Judge(request.service, request.command, status)) {
        case Faults::Verdict::kSwallow:
            return;
        case Faults::Verdict::kRefuse:
            return Refuse(request, status, at);
        case Faults::Verdict::kServe:
            break;
    }
    const CommandEntry* entry = FindCommand(request);
    if (entry == nullptr) return Refuse(request, kStatusUnsupported, at);
    if (request.args.size() < entry->min_args) return Refuse(request, kStatusBadArgument, at);
    (this->*entry->handler)(request, at);
    raw_data_.Gate(sensors_.Find(kStepCounter)->active, sensors_.Find(kHeartRate)->active, at);
}

void Application::Advance(TimePoint now) {
    while (!deferred_.empty() && deferred_.begin()->first <= now) {
        const auto next = deferred_.extract(deferred_.begin());
        RunSensors(next.key());
        Execute(next.mapped(), next.key());
    }
    RunSensors(now);
}

void Application::RunSensors(TimePoint now) {
    // Side by side in time, so that each finds the send buffer as it was at that moment.
    while (const std::optional<TimePoint> raw_due = raw_data_.NextDue()) {
        if (*raw_due > now) break;
        sensors_.Advance(*raw_due);
        raw_data_.Advance(*raw_due);
    }
    sensors_.Advance(now);
}

std::optional<TimePoint> Application::NextDue() const {
    const std::optional<TimePoint> next = Earlier(sensors_.NextDue(), raw_data_.NextDue());
    return deferred_.empty() ? next : Earlier(next, deferred_.begin()->first);
}

void Application::Log(TimePoint now, std::string_view text) {
    const std::span bytes(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    (void)transmitter_.Send(now, BuildChannelPacket(kChannelLog, bytes),
                            FrameKind::kLog);  // counted there when the buffer is full
}

void Application::Log(TimePoint now, int level, std::string_view text) {
    if (log_level_ >= level) Log(now, text);
}

}  // namespace mcusim
