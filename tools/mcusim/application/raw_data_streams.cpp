// The raw-data streams. Configured, gated and run by the application.
#include "tools/mcusim/application/raw_data_streams.h"

#include <algorithm>

#include "tools/mcusim/application/sensor_traits.h"
#include "tools/mcusim/line/packet.h"

namespace mcusim {
namespace {

using std::chrono::milliseconds;

enum Stream : uint8_t { kAlgorithm = 0, kHeart = 1 };
enum Kind : uint8_t { kAccelerometerSamples = 1, kPpgSamples = 5, kSummary = 0xE0 };

constexpr size_t kTransferSizes = 4;

struct LaneTraits {
    Stream stream;
    Kind kind;
    uint8_t sensor;                               // whose samples these are
    std::array<uint8_t, kTransferSizes> samples;  // of the transfers, over and over
    size_t message_content;                       // most bytes of one message
    milliseconds period;
};

constexpr LaneTraits kLaneTraits[] = {
    {kAlgorithm, kSummary, kStepCounter, {1, 1, 1, 1}, 16, milliseconds(1000)},
    {kAlgorithm, kAccelerometerSamples, kAccelerometer, {5, 100, 25, 200}, 509, milliseconds(40)},
    {kHeart, kSummary, kHeartRate, {1, 1, 1, 1}, 16, milliseconds(1000)},
    {kHeart, kAccelerometerSamples, kAccelerometer, {5, 100, 25, 200}, 509, milliseconds(40)},
    {kHeart, kPpgSamples, kPpg, {5, 60, 25, 120}, 640, milliseconds(40)},
};

}  // namespace

void RawDataStreams::Reset() {
    type_ = 0;
    lanes_ = {};
}

bool RawDataStreams::Configure(uint16_t type) {
    if (type > (kAlgorithmBit | kHeartRateBit)) return false;
    type_ = type;
    return true;
}

void RawDataStreams::Gate(bool step_counter_on, bool heart_rate_on, TimePoint now) {
    const bool algorithm = (type_ & kAlgorithmBit) != 0 && step_counter_on;
    const bool heart = (type_ & kHeartRateBit) != 0 && heart_rate_on;
    for (size_t index = 0; index < kLanes; ++index) {
        const bool run = kLaneTraits[index].stream == kAlgorithm ? algorithm : heart;
        if (run == lanes_[index].running) continue;
        lanes_[index] = {run, GridAfter(now, kLaneTraits[index].period), 0};
    }
}

void RawDataStreams::Resume(TimePoint now) {
    for (size_t index = 0; index < kLanes; ++index) {
        lanes_[index].next_sample = GridAfter(now, kLaneTraits[index].period);
    }
}

std::optional<TimePoint> RawDataStreams::LaneDue(size_t index) const {
    const Lane& lane = lanes_[index];
    if (!lane.running) return std::nullopt;
    const LaneTraits& traits = kLaneTraits[index];
    return lane.next_sample + (traits.samples[lane.transfer] - 1) * traits.period;
}

std::optional<TimePoint> RawDataStreams::NextDue() const {
    std::optional<TimePoint> next;
    for (size_t index = 0; index < kLanes; ++index) {
        next = Earlier(next, LaneDue(index));
    }
    return next;
}

void RawDataStreams::Advance(TimePoint now) {
    while (true) {
        size_t first = kLanes;
        TimePoint first_due = now;
        for (size_t index = 0; index < kLanes; ++index) {
            const std::optional<TimePoint> due = LaneDue(index);
            if (!due || *due > first_due || (first != kLanes && *due == first_due)) continue;
            first = index;
            first_due = *due;
        }
        if (first == kLanes) return;
        SendTransfer(first);
    }
}

void RawDataStreams::SendTransfer(size_t index) {
    const LaneTraits& traits = kLaneTraits[index];
    Lane& lane = lanes_[index];
    Bytes content;
    TimePoint at{0};
    for (int sample = 0; sample < traits.samples[lane.transfer]; ++sample) {
        at = lane.next_sample;
        lane.next_sample += traits.period;
        AppendSample(content, traits.sensor, signals_.At(traits.sensor, at, traits.period));
    }
    lane.transfer = (lane.transfer + 1) % kTransferSizes;

    std::span<const uint8_t> rest(content);
    size_t sent = 0;
    do {
        sent = std::min(rest.size(), traits.message_content);
        SendMessage(index, at, rest.first(sent));
        rest = rest.subspan(sent);
    } while (kHeaderBytes + sent >= kContinuedBytes);
}

void RawDataStreams::SendMessage(size_t index, TimePoint at, std::span<const uint8_t> content) {
    const LaneTraits& traits = kLaneTraits[index];
    Bytes data = {traits.stream, static_cast<uint8_t>(messages_ & 0xFF), traits.kind};
    data.insert(data.end(), content.begin(), content.end());
    ++messages_;
    (void)transmitter_.Send(at, BuildChannelPacket(kChannelRawData, data),
                            FrameKind::kRawData);  // counted there when the buffer is full
}

}  // namespace mcusim
