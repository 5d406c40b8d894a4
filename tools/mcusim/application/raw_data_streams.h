// The raw-data streams with which the firmware's step and heart-rate algorithms are debugged. The
// application configures them and runs them beside its sensors.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "tools/mcusim/application/sensor_signals.h"
#include "tools/mcusim/line/sim_time.h"
#include "tools/mcusim/line/transmitter.h"

namespace mcusim {

// A stream runs while its bit of the configured type is set and its sensor is on. Its samples go
// out in transfers of several sizes; a message of kContinuedBytes or more announces that another
// one of the same transfer follows, so each transfer ends with a shorter one, an empty one at need.
class RawDataStreams {
  public:
    static constexpr uint16_t kAlgorithmBit = 1;  // gated by the step counter
    static constexpr uint16_t kHeartRateBit = 2;  // gated by the heart-rate sensor
    static constexpr size_t kContinuedBytes = 512;
    static constexpr size_t kHeaderBytes = 3;  // stream, message number, record kind

    // Both must outlive the streams.
    RawDataStreams(const SensorSignals& signals, Transmitter& transmitter)
        : signals_(signals), transmitter_(transmitter) {}

    void Reset();
    // False: no such type.
    [[nodiscard]] bool Configure(uint16_t type);
    // Starts and stops the streams as their sensors are switched.
    void Gate(bool step_counter_on, bool heart_rate_on, TimePoint now);
    // As SensorBank::Resume.
    void Resume(TimePoint now);

    void Advance(TimePoint now);
    [[nodiscard]] std::optional<TimePoint> NextDue() const;

    [[nodiscard]] uint64_t messages() const { return messages_; }

  private:
    static constexpr size_t kLanes = 5;

    // One record kind of one stream.
    struct Lane {
        bool running = false;
        TimePoint next_sample{0};
        size_t transfer = 0;  // position in the lane's cycle of transfer sizes
    };

    [[nodiscard]] std::optional<TimePoint> LaneDue(size_t index) const;
    void SendTransfer(size_t index);
    void SendMessage(size_t index, TimePoint at, std::span<const uint8_t> content);

    const SensorSignals& signals_;
    Transmitter& transmitter_;
    std::array<Lane, kLanes> lanes_;
    uint16_t type_ = 0;
    uint64_t messages_ = 0;
};

}  // namespace mcusim
