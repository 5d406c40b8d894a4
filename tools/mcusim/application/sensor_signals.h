// What each sensor measures at a moment: the wrist model, unless a recorded signal is played or a
// command has set something else. The sensor bank and the raw-data streams read it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "tools/mcusim/application/motion.h"
#include "tools/mcusim/application/sensor_traits.h"
#include "tools/mcusim/line/sim_time.h"

namespace mcusim {

// A signal from a file. Between two rows the earlier one holds, after the last row the last one.
struct RecordedSignal {
    struct Row {
        TimePoint time;
        SampleValues values;
    };
    std::vector<Row> rows;  // at least one, by rising time
};

class SensorSignals {
  public:
    explicit SensorSignals(uint64_t seed) : wrist_(seed) {}

    // The MCU starts: steps count from 0 again, and its calendar is lost.
    void PowerOn(TimePoint now);
    void SetClock(uint64_t ms_since_epoch, TimePoint now);

    void AddSteps(uint32_t steps) { added_steps_ += steps; }
    void SetHeartRate(std::optional<double> bpm) { heart_rate_ = bpm; }
    void Play(uint8_t sensor, RecordedSignal signal);

    // The sample of that sensor at that time; period is the time since its previous sample, which
    // only the motion-health records look at.
    [[nodiscard]] SampleValues At(uint8_t sensor, TimePoint time, TimePoint period) const;

    // When the value of a sensor that reports on change or on an event next changes by itself.
    [[nodiscard]] std::optional<TimePoint> NextChange(uint8_t sensor, TimePoint after) const;

    [[nodiscard]] double HeartRate(TimePoint time) const;

  private:
    [[nodiscard]] SampleValues Pulse(TimePoint time) const;
    [[nodiscard]] double ClockSec(TimePoint time) const;
    [[nodiscard]] double StepsBetween(TimePoint begin, TimePoint end) const;

    const WristModel wrist_;
    std::map<uint8_t, RecordedSignal> recorded_;
    std::optional<double> heart_rate_;
    TimePoint power_on_{0};
    uint32_t added_steps_ = 0;
    uint64_t clock_ms_ = 0;
    TimePoint clock_set_{0};
};

}  // namespace mcusim
