// Frames, exchanges, settings of sensors and states of the MCU from what was said on the line. Used
// by the timeline command and by the view, for files and for recordings that grow.
#pragma once

#include <array>
#include <map>

#include "tools/shdtool/timeline/clock_anchor.h"
#include "tools/shdtool/timeline/exchanges.h"
#include "tools/wire/message_reader.h"

namespace shdtool::timeline {

// One recording; one thread.
class LineItems {
  public:
    explicit LineItems(Sink sink) : sink_(std::move(sink)), exchanges_(sink_) {}
    LineItems(const LineItems&) = delete;  // its parts refer to one another
    LineItems& operator=(const LineItems&) = delete;

    // The recording's steps, in their order. What stands before the first anchor cannot be placed
    // in time and makes no items.
    void Push(const wire::RecordedStep& step);

    // It is this late, and there is no further step before that: tells what is overdue by now.
    void Tick(Time now);

    // No further step will come.
    void End();

    // Whether an anchor has come.
    [[nodiscard]] bool placed() const { return clock_.known(); }

  private:
    struct Sampling {
        int64_t period_ms = 0;
        int32_t batch = 0;
        bool on = false;
    };

    void Take(const wire::Message& message);
    void TakeFrame(const wire::Message& message);
    void TakePin(const wire::Message& message, Time at);
    void TakePacket(const Frame& frame, const wire::Bytes& packet);
    void TakeSetting(const Frame& frame, const wire::Request& request);
    void TakeBootloader(const Frame& frame);
    void TellSampling(Time at, uint8_t mcu_sensor, const Sampling& sampling);
    void Enter(Time at, State state, const std::string& reason);
    void EnterBootloader(Time at, const std::string& reason);
    void Overdue(Time now);
    void ReportsOverdue(Time now);
    [[nodiscard]] Frame PlacedFrame(const wire::Message& message);

    const Sink sink_;
    RecorderClock clock_;
    int64_t wall_ahead_ = 0;  // of the boot clock
    wire::MessageReader reader_;
    Exchanges exchanges_;
    wire::LineSettings settings_;
    std::array<Time, 2> line_busy_{INT64_MIN, INT64_MIN};  // until then, by wire::Direction
    uint64_t frames_ = 0;
    bool boot0_ = false;
    bool starting_ = true;        // the daemon, as far as the line tells; else it recovers the MCU
    std::optional<State> state_;  // none before the line has told
    std::string reason_;
    Time state_since_ = INT64_MIN;
    Time heard_ = INT64_MIN;               // when the MCU said something good last
    std::map<uint8_t, Sampling> sensors_;  // by MCU sensor
};

}  // namespace shdtool::timeline
