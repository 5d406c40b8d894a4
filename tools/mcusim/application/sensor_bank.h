// The MCU's sensors at work: sampling at the commanded periods, batching, flushing, reporting. The
// application passes commands on to it and lets it run up to the present.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "tools/mcusim/application/sensor_signals.h"
#include "tools/mcusim/application/sensor_traits.h"
#include "tools/mcusim/line/sim_time.h"
#include "tools/mcusim/line/transmitter.h"

namespace mcusim {

// Samples are taken at whole multiples of the sensor's period on the MCU's clock, so their values
// do not depend on the moment of a command or on how late the event loop runs: samples that fell
// due meanwhile are made up with their own times.
class SensorBank {
  public:
    // Largest data of one report; a bigger batch is split. A frame of this size keeps the line
    // busy for about a tenth of a second.
    static constexpr size_t kMaxReportBytes = 1200;
    static constexpr int32_t kMaxPeriodMs = 24 * 3600 * 1000;
    static constexpr int32_t kMaxBatch = 30'000;

    struct Channel {
        const SensorTraits* traits = nullptr;
        bool active = false;
        int32_t period_ms = 0;
        int32_t batch = 0;  // samples to a report as commanded
        TimePoint last_sample{0};
        std::optional<TimePoint> next_sample;
        Bytes pending;           // samples taken and not yet reported
        uint64_t generated = 0;  // counts of samples, from the start of the simulator
        uint64_t sent = 0;
        uint64_t dropped = 0;    // found the send buffer full
        uint64_t discarded = 0;  // still pending when the sensor was switched off
        uint64_t reports = 0;

        [[nodiscard]] size_t pending_samples() const {
            return pending.size() / traits->sample_bytes;
        }
    };

    // Both must outlive the bank.
    SensorBank(SensorSignals& signals, Transmitter& transmitter);

    // Every sensor off and with its default period; only the counters stay.
    void Reset();

    // The MCU runs again after it stood still: samples that were due meanwhile are never taken.
    void Resume(TimePoint now);

    // Commands for a sensor that exists, each at a time not before the last Advance. False: an
    // argument is out of range and nothing has changed.
    void Activate(uint8_t sensor, TimePoint now);
    void Deactivate(uint8_t sensor);
    [[nodiscard]] bool SetPeriod(uint8_t sensor, int32_t period_ms, TimePoint now);
    [[nodiscard]] bool SetBatch(uint8_t sensor, int32_t period_ms, int32_t count, TimePoint now);
    // Samples taken by now that wait for their report.
    [[nodiscard]] size_t Pending(uint8_t sensor, TimePoint now);
    // Reports them.
    void Flush(uint8_t sensor, TimePoint now);

    // Steps were added by hand. EmitTilt reports a gesture; false while the sensor is off.
    void PokeSteps(TimePoint now);
    [[nodiscard]] bool EmitTilt(TimePoint now);

    // Takes every sample due by now and reports what is complete, in order of time.
    void Advance(TimePoint now);
    // When Advance next has something to report.
    [[nodiscard]] std::optional<TimePoint> NextDue() const;

    [[nodiscard]] const Channel* Find(uint8_t sensor) const;
    [[nodiscard]] std::span<const Channel> channels() const { return channels_; }

  private:
    [[nodiscard]] static std::optional<TimePoint> ReportDue(const Channel& channel);
    [[nodiscard]] Channel& Get(uint8_t sensor);
    void Schedule(Channel& channel, TimePoint after);
    void Sample(Channel& channel, TimePoint at);
    void RunTo(Channel& channel, TimePoint now);
    void Report(Channel& channel, TimePoint at, size_t samples);

    SensorSignals& signals_;
    Transmitter& transmitter_;
    std::vector<Channel> channels_;
};

}  // namespace mcusim
