// The simulated bootloader's course: bytes in, transmissions, time, resets and injected faults.
// Called by the simulated board; what each command does is in bootloader_commands.cpp.
#include "tools/mcusim/board/bootloader.h"

#include <algorithm>
#include <utility>

namespace mcusim {
namespace {

constexpr uint8_t kHandshake = 0x7F;

}  // namespace

Bootloader::Bootloader(Flash& flash, BootloaderTimings timings)
    : flash_(flash), timings_(timings), ram_(firmware::kRamSizeBytes) {
    Restart();
}

void Bootloader::Reset() {
    operation_.reset();
    out_.clear();
    go_.reset();
    if (silent_resets_ > 0) --silent_resets_;
    stopped_ = silent_resets_ > 0;
    Restart();
}

void Bootloader::Restart() {
    unread_.reset();
    Expect(&Bootloader::OnHandshake, 1);
}

void Bootloader::OnByte(uint8_t byte, TimePoint arrival) {
    Advance(arrival);
    if (!operation_) {
        Accept(byte, arrival);
    } else if (!unread_) {
        unread_ = byte;
    }
}

void Bootloader::Accept(uint8_t byte, TimePoint arrival) {
    if (stopped_) return;
    // The part measures the line speed on this one byte; anything else on the line is noise to it.
    if (handler_ == &Bootloader::OnHandshake && byte != kHandshake) return;
    block_.push_back(byte);
    if (block_.size() == wanted_ && extent_ != nullptr) {
        wanted_ = std::exchange(extent_, nullptr)(block_);
    }
    if (block_.size() < wanted_) return;
    if (mute_in_ > 0 && --mute_in_ == 0) {
        silent_resets_ = mute_resets_;
        stopped_ = true;
        return;
    }
    now_ = arrival;
    (this->*handler_)();
}

void Bootloader::Expect(Handler handler, size_t head, Extent extent) {
    block_.clear();
    handler_ = handler;
    wanted_ = head;
    extent_ = extent;
}

void Bootloader::Send(std::span<const uint8_t> bytes) {
    for (const uint8_t byte : bytes) out_.push_back({byte, now_});
}

void Bootloader::AckAndExpect(Handler handler, size_t head, Extent extent) {
    out_.push_back({kAck, now_});
    Expect(handler, head, extent);
}

void Bootloader::Ack() {
    AckAndExpect(&Bootloader::OnCommand, 2);
}

void Bootloader::Nack() {
    out_.push_back({kNack, now_});
    Expect(&Bootloader::OnCommand, 2);
}

void Bootloader::OnHandshake() {
    Ack();
}

void Bootloader::Begin(std::deque<Step> steps, bool reset_after) {
    for (Step& step : steps) {
        step.duration =
            std::chrono::duration_cast<std::chrono::nanoseconds>(step.duration * timings_.scale);
    }
    const TimePoint first_end = now_ + steps.front().duration;
    operation_ = Operation{std::move(steps), reset_after, first_end};
}

void Bootloader::Advance(TimePoint now) {
    while (operation_ && operation_->step_end <= now) EndStep();
}

void Bootloader::EndStep() {
    now_ = operation_->step_end;
    operation_->steps.front().apply(1.0);
    operation_->steps.pop_front();
    if (!operation_->steps.empty()) {
        operation_->step_end += operation_->steps.front().duration;
        return;
    }
    const bool reset_after = operation_->reset_after;
    operation_.reset();
    Ack();
    if (reset_after) {
        Restart();
    } else if (unread_) {
        Accept(*std::exchange(unread_, std::nullopt), now_);
    }
}

std::optional<TimePoint> Bootloader::NextDue() const {
    if (!out_.empty()) return out_.front().earliest;
    if (operation_) return operation_->step_end;
    return std::nullopt;
}

std::vector<TimedByte> Bootloader::Poll(TimePoint now) {
    Advance(now);
    return std::exchange(out_, {});
}

void Bootloader::PowerCut(TimePoint now) {
    Advance(now);
    if (operation_) {
        const auto left = operation_->step_end - now;
        const Step& step = operation_->steps.front();
        const double share = 1.0 - std::chrono::duration<double>(left) / step.duration;
        step.apply(std::clamp(share, 0.0, 1.0));
        operation_.reset();
    }
    out_.clear();
    stopped_ = true;
}

void Bootloader::NackBlock(int n) {
    nack_in_ = std::max(n, 0);
}

void Bootloader::MuteAt(int n, int resets) {
    mute_in_ = std::max(n, 0);
    mute_resets_ = std::max(resets, 1);
}

std::optional<uint32_t> Bootloader::TakeGo() {
    return std::exchange(go_, std::nullopt);
}

}  // namespace mcusim
