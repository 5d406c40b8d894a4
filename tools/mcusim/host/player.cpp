// Playing a recorded session. Run by the simulator for --replay.
#include "tools/mcusim/host/player.h"

#include <fmt/core.h>

#include <algorithm>
#include <utility>

#include "tools/wire/describe.h"

namespace mcusim {
namespace {

// How many recorded requests a host may leave out before one counts as one too many.
constexpr size_t kLookAhead = 8;

// The header tells requests apart.
size_t HeaderSize(const Bytes& packet) {
    return packet.empty() || packet[0] == kChannelControl ? kControlHeaderBytes
                                                          : kSensorHeaderBytes;
}

bool SameHeader(const Bytes& a, const Bytes& b) {
    const size_t size = HeaderSize(a);
    return a.size() >= size && b.size() >= size &&
           std::equal(a.begin(), a.begin() + static_cast<ptrdiff_t>(size), b.begin());
}

// The clock is of today in every session.
bool SameRequest(const Bytes& a, const Bytes& b) {
    if (a == b) return true;
    const std::optional<Request> request = ParseRequest(a);
    return request && request->service == kServiceClock && a.size() == b.size() && SameHeader(a, b);
}

}  // namespace

Player::Player(const std::vector<RecordedStep>& steps, TimePoint max_gap, Complaint complain)
    : max_gap_(max_gap), complain_(std::move(complain)) {
    bool boot0 = false, reset = true, bootloader = false;
    TimePoint before{0};
    for (const RecordedStep& step : steps) {
        // What a recorder says of its own clock, and how the line was set, is nothing to play.
        if (step.kind == StepKind::kClocks || step.kind == StepKind::kSettings) continue;
        const TimePoint pause = step.at - before;
        before = step.at;
        switch (step.kind) {
            case StepKind::kPin:
                if (step.pin == Pin::kBoot0) {
                    boot0 = step.high;
                } else if (!std::exchange(reset, step.high) && step.high) {
                    recorded_resets_.push_back({step.line, boot0});
                    bootloader = boot0;
                    reply_.clear();
                }
                break;
            case StepKind::kHostBytes:
                AddHostBytes(step, bootloader);
                break;
            case StepKind::kGate:
                ++all_gates_;
                break;
            case StepKind::kMcuBytes:
                AddPart(step, pause, bootloader);
                break;
            default:
                break;
        }
    }
    reader_.Clear();
}

void Player::AddHostBytes(const RecordedStep& step, bool bootloader) {
    if (bootloader) return demands_.push_back({step.line, step.at, true, step.bytes});
    for (const uint8_t byte : step.bytes) {
        std::optional<Bytes> request = reader_.Push(byte);
        if (request) demands_.push_back({step.line, step.at, false, std::move(*request)});
    }
}

void Player::AddPart(const RecordedStep& step, TimePoint pause, bool bootloader) {
    Part part{step.at,    pause,        demands_.size(), recorded_resets_.size(),
              all_gates_, std::nullopt, step.bytes};
    if (bootloader && !demands_.empty()) part.answers = demands_.size() - 1;
    for (size_t i = 0; i < step.bytes.size() && !bootloader; ++i) {
        const uint8_t byte = step.bytes[i];
        if (byte == kFlagByte) {
            if (const auto demand = DemandOf(reply_)) part.answers = demand;
            reply_.clear();
        } else if (byte == kEscapeByte) {
            reply_escaped_ = true;
        } else {
            reply_.push_back(std::exchange(reply_escaped_, false) ? byte ^ kEscapeMask : byte);
        }
    }
    parts_.push_back(std::move(part));
}

// The latest request that this packet of the MCU replies to.
std::optional<size_t> Player::DemandOf(const Bytes& reply) const {
    if (reply.size() < HeaderSize(reply) || reply[1] != kTypeResponse) return std::nullopt;
    Bytes request = reply;
    request[1] = kTypeRequest;
    for (size_t i = demands_.size(); i-- > 0;) {
        if (!demands_[i].bootloader && SameHeader(request, demands_[i].bytes)) return i;
    }
    return std::nullopt;
}

void Player::Differ(int line, const std::string& what) {
    ++differences_;
    complain_(line, what);
}

void Player::Met(TimePoint at) {
    demands_[met_++].came = at;
    bytes_met_ = 0;
    byte_differed_ = false;
    last_ = at;
}

void Player::HostWrote(TimePoint at, std::span<const uint8_t> bytes) {
    for (const uint8_t byte : bytes) {
        if (met_ == demands_.size() || !demands_[met_].bootloader) {
            if (const std::optional<Bytes> request = reader_.Push(byte)) TakeRequest(at, *request);
            continue;
        }
        const Demand& demand = demands_[met_];
        if (byte != demand.bytes[bytes_met_] && !std::exchange(byte_differed_, true)) {
            Differ(demand.line, fmt::format("byte {} for the bootloader is {:02x}, was {:02x}",
                                            bytes_met_ + 1, byte, demand.bytes[bytes_met_]));
        }
        if (++bytes_met_ == demand.bytes.size()) Met(at);
    }
}

void Player::TakeRequest(TimePoint at, const Bytes& request) {
    const auto end = std::min(met_ + kLookAhead, demands_.size());
    for (size_t i = met_; i < end && !demands_[i].bootloader; ++i) {
        if (!SameRequest(demands_[i].bytes, request)) continue;
        for (; met_ < i; Met(at)) {
            Differ(demands_[met_].line, "left out: " + DescribePacket(demands_[met_].bytes));
        }
        return Met(at);
    }
    const int line = met_ < demands_.size() ? demands_[met_].line : 0;
    if (line == 0 || !SameHeader(request, demands_[met_].bytes)) {
        return Differ(line, "not recorded: " + DescribePacket(request));
    }
    Differ(line, fmt::format("{}, was {}", DescribePacket(request),
                             DescribePacket(demands_[met_].bytes)));
    Met(at);
}

void Player::SetPin(TimePoint at, Pin pin, bool high) {
    if (pin == Pin::kBoot0) boot0_high_ = high;
    if (pin != Pin::kReset || std::exchange(reset_high_, high) || !high) return;
    last_ = at;
    const size_t number = resets_++;
    if (number >= recorded_resets_.size()) return Differ(0, "not recorded: a reset");
    const Reset& recorded = recorded_resets_[number];
    if (recorded.bootloader == boot0_high_) return;
    Differ(recorded.line, boot0_high_ ? "reset into the bootloader, was into the application"
                                      : "reset into the application, was into the bootloader");
}

std::optional<TimePoint> Player::NextDue() const {
    if (sent_ == parts_.size()) return std::nullopt;
    const Part& part = parts_[sent_];
    if (met_ < part.demands || resets_ < part.resets) return std::nullopt;
    if (part.answers) {
        const Demand& demand = demands_[*part.answers];
        return demand.came + (part.recorded - demand.recorded);
    }
    if (gates_ < part.gates) return std::nullopt;
    return met_ > part.demands ? last_ : last_ + std::min(part.pause, max_gap_);
}

std::optional<Burst> Player::TakeOutput(TimePoint now) {
    const std::optional<TimePoint> due = NextDue();
    if (!due || *due > now) return std::nullopt;
    last_ = now;
    return Burst{parts_[sent_++].bytes, TimePoint(0), *due};
}

bool Player::complete() const {
    return sent_ == parts_.size() && met_ == demands_.size() && resets_ >= recorded_resets_.size();
}

std::string Player::Stats() const {
    return fmt::format(
        R"({{"mode":"replay","complete":{},"differences":{},"requests":{},"parts":{},"resets":{},)"
        R"("recorded":{{"requests":{},"parts":{},"resets":{}}}}})",
        complete(), differences_, met_, sent_, resets_, demands_.size(), parts_.size(),
        recorded_resets_.size());
}

}  // namespace mcusim
