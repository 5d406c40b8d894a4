// The wire in virtual time. Used by machine, board and transmitter.
#include "tools/mcusim/line/serial_line.h"

#include <algorithm>
#include <utility>

namespace mcusim {
namespace {

// A long stream from the host is taken in at this pace instead of only at its end.
constexpr TimePoint kInputTurn = std::chrono::milliseconds(5);

size_t BytesEndedBy(const Burst& burst, TimePoint now) {
    if (now >= burst.due) return burst.bytes.size();
    if (burst.byte_time == TimePoint(0)) return 0;
    const auto missing =
        static_cast<size_t>((burst.due - now - TimePoint(1)) / burst.byte_time + 1);
    return burst.bytes.size() - std::min(missing, burst.bytes.size());
}

}  // namespace

TimePoint SerialLine::ByteTime(int bits_per_byte) const {
    if (baud_ == 0) return TimePoint(0);
    return TimePoint(int64_t{bits_per_byte} * 1'000'000'000 / baud_);
}

void SerialLine::HostWrote(TimePoint at, std::span<const uint8_t> bytes, int bits_per_byte) {
    const TimePoint byte_time = ByteTime(bits_per_byte);
    input_end_ = std::max(input_end_, at);
    for (const uint8_t byte : bytes) {
        input_end_ += byte_time;
        input_.push_back({byte, input_end_});
    }
    bytes_in_ += bytes.size();
}

std::optional<ArrivedByte> SerialLine::TakeArrived(TimePoint now) {
    if (input_.empty() || input_.front().arrival > now) return std::nullopt;
    const ArrivedByte byte = input_.front();
    input_.pop_front();
    return byte;
}

void SerialLine::DelayInput(const ArrivedByte& taken, TimePoint delay) {
    input_.push_front(taken);
    for (ArrivedByte& byte : input_) byte.arrival += delay;
    input_end_ = std::max(input_end_ + delay, input_.back().arrival);
}

void SerialLine::Send(TimePoint earliest, std::span<const uint8_t> bytes, int bits_per_byte) {
    const TimePoint byte_time = ByteTime(bits_per_byte);
    output_end_ = std::max(output_end_, earliest);
    while (!bytes.empty()) {
        const auto part = bytes.first(std::min(bytes.size(), kBurstBytes));
        output_end_ += byte_time * static_cast<int64_t>(part.size());
        output_.push_back({{part.begin(), part.end()}, byte_time, output_end_});
        bytes = bytes.subspan(part.size());
    }
}

std::optional<Burst> SerialLine::TakeDue(TimePoint now) {
    if (output_.empty() || output_.front().due > now) return std::nullopt;
    Burst burst = std::move(output_.front());
    output_.pop_front();
    bytes_out_ += burst.bytes.size();
    return burst;
}

void SerialLine::DelayOutput(Burst rest, TimePoint delay) {
    bytes_out_ -= rest.bytes.size();
    output_.push_front(std::move(rest));
    for (Burst& burst : output_) burst.due += delay;
    output_end_ = std::max(output_end_ + delay, output_.back().due);
}

void SerialLine::CutOutput(TimePoint now) {
    while (!output_.empty() && BytesEndedBy(output_.back(), now) == 0) output_.pop_back();
    if (!output_.empty() && output_.back().due > now) {
        Burst& last = output_.back();
        last.bytes.resize(BytesEndedBy(last, now));
        last.due = now;
    }
    output_end_ = std::min(output_end_, now);
}

size_t SerialLine::BacklogBytes(TimePoint at) const {
    size_t backlog = 0;
    for (auto burst = output_.rbegin(); burst != output_.rend() && burst->due > at; ++burst) {
        backlog += burst->bytes.size() - BytesEndedBy(*burst, at);
    }
    return backlog;
}

std::optional<TimePoint> SerialLine::NextDue() const {
    std::optional<TimePoint> next;
    if (!input_.empty()) {
        next = std::min(input_.back().arrival, input_.front().arrival + kInputTurn);
    }
    return output_.empty() ? next : Earlier(next, output_.front().due);
}

}  // namespace mcusim
