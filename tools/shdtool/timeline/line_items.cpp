// What the steps of a line mean on the boot clock. Called by the timeline command and by the view.
#include "tools/shdtool/timeline/line_items.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "tools/client/sensor_info.h"
#include "tools/shdtool/log/log_line.h"
#include "tools/wire/describe.h"

namespace shdtool::timeline {
namespace {

using wire::Direction;

constexpr int64_t kNsPerSec = 1'000'000'000;
constexpr int64_t kNsPerMs = 1'000'000;

// A sensor that reports steadily and leaves out this many reports, and half a second, is silent.
constexpr int64_t kReportsMissed = 3;
constexpr int64_t kPatienceNs = kNsPerSec / 2;
// What anybody may ask for is more than a number of nanoseconds can be.
constexpr int64_t kLongestReportMs = 1'000'000'000;

// Start, eight data bits, parity and stop.
int64_t ByteNs(const wire::LineSettings& settings) {
    const int64_t bits = settings.even_parity ? 11 : 10;
    return settings.baud == 0 ? 0 : bits * kNsPerSec / settings.baud;
}

std::string WordsOf(const wire::Message& message) {
    if (message.kind == wire::Message::Kind::kFrame) return wire::DescribePacket(message.payload);
    constexpr size_t kSpeaker = 5;  // "host ", "mcu  ", "---- "
    return Describe(message).substr(kSpeaker);
}

// Whether the sensor reports by its period alone, and not when something has happened.
bool IsSteady(uint8_t mcu_sensor) {
    return std::ranges::any_of(HandlesOfMcuSensor(mcu_sensor), [](int32_t handle) {
        const shdclient::SensorInfo* sensor = shdclient::FindSensor(handle);
        return sensor != nullptr && sensor->form == shdclient::DataForm::kFloats;
    });
}

// Of AN3155; each is followed by its complement.
constexpr uint8_t kErase = 0x43, kExtendedErase = 0x44, kWriteMemory = 0x31;

}  // namespace

void LineItems::Push(const wire::RecordedStep& step) {
    if (step.kind == wire::StepKind::kClocks) {
        clock_.Anchor(step.at.count(), step.clocks.boot.count());
        wall_ahead_ = (step.clocks.wall - step.clocks.boot).count();
    }
    if (!clock_.known()) return;
    if (step.kind == wire::StepKind::kSettings) settings_ = step.settings;
    Overdue(clock_.BootOf(step.at.count()));
    for (const wire::Message& message : reader_.Push(step)) Take(message);
}

void LineItems::Tick(Time now) {
    if (clock_.known()) Overdue(now);
}

void LineItems::End() {
    for (const wire::Message& message : reader_.End()) Take(message);
}

void LineItems::Enter(Time at, State state, const std::string& reason) {
    if (state_ == state && reason_ == reason) return;
    state_ = state;
    reason_ = reason;
    state_since_ = std::max(at, state_since_);
    sink_(McuState{state_since_, state, reason, Source::kLine});
}

void LineItems::EnterBootloader(Time at, const std::string& reason) {
    if (state_ == State::kBootloader || state_ == State::kUpdating) return;
    Enter(at, State::kBootloader, reason);
}

void LineItems::Overdue(Time now) {
    ReportsOverdue(now);  // it shows silence earlier
    const auto unanswered = exchanges_.Expire(now);
    if (unanswered && state_ == State::kService && heard_ <= unanswered->begin) {
        Enter(unanswered->begin, State::kSilent, fmt::format("no answer to {}", unanswered->words));
    }
}

void LineItems::ReportsOverdue(Time now) {
    if (state_ != State::kService) return;
    for (const auto& [sensor, sampling] : sensors_) {
        if (!sampling.on || sampling.period_ms <= 0 || !IsSteady(sensor)) continue;
        const int64_t report_ns =
            std::min(sampling.period_ms * std::max(sampling.batch, 1), kLongestReportMs) * kNsPerMs;
        if (now - heard_ < kReportsMissed * report_ns + kPatienceNs) continue;
        Enter(heard_ + report_ns, State::kSilent,
              fmt::format("no report of {}", NamesOf(HandlesOfMcuSensor(sensor), "/")));
        return;
    }
}

void LineItems::Take(const wire::Message& message) {
    using Kind = wire::Message::Kind;
    const Time at = clock_.BootOf(message.at.count());
    switch (message.kind) {
        case Kind::kPin:
            return TakePin(message, at);
        case Kind::kSettings:
            sink_(LineChange{at, WordsOf(message)});
            if (message.settings.even_parity) {
                EnterBootloader(at, "the line has the bootloader's settings");
            }
            return;
        case Kind::kFrame:
        case Kind::kBadFrame:
        case Kind::kFragment:
        case Kind::kBootloader:
            return TakeFrame(message);
    }
}

// The host's bytes follow on the moment at which they were written, the MCU's end with the one at
// which they were handed over. Neither can be on the line before the last ones were off it.
Frame LineItems::PlacedFrame(const wire::Message& message) {
    const int64_t length = static_cast<int64_t>(message.raw.size()) * ByteNs(settings_);
    const bool to_mcu = message.direction == Direction::kHostToMcu;
    Time& busy = line_busy_[static_cast<size_t>(message.direction)];
    const Time last = clock_.BootOf(message.at.count());
    const Time first = last - (message.at - message.begin).count();
    Frame frame;
    frame.begin = std::max(to_mcu ? first : std::min(first, last - length), busy);
    frame.end = std::max(to_mcu ? std::max(last, frame.begin + length) : last, frame.begin);
    frame.number = ++frames_;
    frame.to_mcu = to_mcu;
    frame.words = WordsOf(message);
    frame.raw = message.raw;
    busy = frame.end;
    return frame;
}

void LineItems::TakeFrame(const wire::Message& message) {
    using Kind = wire::Message::Kind;
    Frame frame = PlacedFrame(message);
    frame.damaged = message.kind == Kind::kBadFrame || message.kind == Kind::kFragment;
    sink_(frame);
    if (message.kind == Kind::kBootloader) TakeBootloader(frame);
    if (message.kind == Kind::kFrame && !message.payload.empty()) {
        TakePacket(frame, message.payload);
    }
}

void LineItems::TakePacket(const Frame& frame, const wire::Bytes& packet) {
    if (frame.to_mcu) {
        exchanges_.OnRequest(frame, packet, wall_ahead_);
        if (const auto request = wire::ParseRequest(packet)) TakeSetting(frame, *request);
        return;
    }
    heard_ = frame.end;
    const bool control = packet[0] == wire::kChannelControl;
    const bool sensor = packet[0] == wire::kChannelSensor && packet.size() > 1;
    if (packet[0] == wire::kChannelCoreDump) {
        Enter(frame.begin, State::kSilent, "the firmware has crashed and sends its core dump");
    }
    // The first version reply comes to a daemon that resets the MCU next.
    const bool version = sensor && packet[1] != wire::kTypeData && packet.size() > 2 &&
                         packet[2] == wire::kServiceVersion;
    if (control || (sensor && (state_ || !version))) {
        Enter(frame.end, State::kService, "");
        starting_ = false;
    }
    if (control || (sensor && packet[1] != wire::kTypeData)) exchanges_.OnReply(frame, packet);
}

void LineItems::TakeSetting(const Frame& frame, const wire::Request& request) {
    if (request.channel != wire::kChannelSensor || HandlesOfMcuSensor(request.service).empty()) {
        return;
    }
    Sampling& sampling = sensors_[request.service];
    constexpr size_t kPeriodBytes = 4, kBatchBytes = 8;
    const bool period = request.args.size() >= kPeriodBytes;
    switch (request.command) {
        case wire::kCommandActive:
            sampling.on = true;
            heard_ = std::max(heard_, frame.end);  // it has until then to report
            break;
        case wire::kCommandDeactive:
            sampling.on = false;
            break;
        case wire::kCommandBatch:
            if (request.args.size() < kBatchBytes) return;
            sampling.batch = static_cast<int32_t>(wire::Read32(request.args, kPeriodBytes));
            [[fallthrough]];
        case wire::kCommandSetDelay:
            if (!period) return;
            sampling.period_ms = static_cast<int32_t>(wire::Read32(request.args, 0));
            heard_ = std::max(heard_, frame.end);
            break;
        default:
            return;
    }
    TellSampling(frame.end, request.service, sampling);
}

void LineItems::TellSampling(Time at, uint8_t mcu_sensor, const Sampling& sampling) {
    constexpr int64_t kUsPerMs = 1'000;
    if (sampling.on && sampling.period_ms <= 0) return;  // asked for before the recording began
    for (const int32_t handle : HandlesOfMcuSensor(mcu_sensor)) {
        sink_(Asked{at, handle, sampling.on ? sampling.period_ms * kUsPerMs : 0, sampling.batch});
    }
}

void LineItems::TakeBootloader(const Frame& frame) {
    EnterBootloader(frame.begin, "");
    if (!frame.to_mcu || frame.raw.size() != 2 || (frame.raw[0] ^ frame.raw[1]) != 0xFF) return;
    switch (frame.raw[0]) {
        case kErase:
        case kExtendedErase:
            return Enter(frame.begin, State::kUpdating, "its flash is being erased");
        case kWriteMemory:
            return Enter(frame.begin, State::kUpdating, "its flash is being written");
        default:
            return;
    }
}

void LineItems::TakePin(const wire::Message& message, Time at) {
    sink_(LineChange{at, WordsOf(message)});
    if (message.pin == wire::Pin::kBoot0) {
        boot0_ = message.high;
        return;
    }
    if (message.high) {
        if (boot0_) EnterBootloader(at, "reset with its boot pin high");
        return;
    }
    for (auto& [sensor, sampling] : sensors_) {
        if (std::exchange(sampling.on, false)) TellSampling(at, sensor, sampling);
    }
    if (exchanges_.OnReset(at)) starting_ = true;
    if (boot0_) return;  // its rising edge follows at once
    if (starting_) {
        Enter(at, State::kStarting, "the daemon starts and resets the MCU");
    } else {
        Enter(at, State::kRecovering, "the daemon resets the MCU");
    }
}

}  // namespace shdtool::timeline
