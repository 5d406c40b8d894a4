// The world in which the simulated watch lives: a wrist that turns, walks and is raised, the heart
// beneath it and the air around it. The sensors take their samples from here.
#pragma once

#include <cstdint>

#include "tools/mcusim/line/sim_time.h"

namespace mcusim {

struct Vector3 {
    double x = 0, y = 0, z = 0;
};

// Unit quaternion that turns the watch's axes (x right, y up, z out of the glass) into the world's
// (x east, y north, z up).
struct Quaternion {
    double x = 0, y = 0, z = 0, w = 1;
};

// Everything is a pure function of the seed and the time. A minute holds 40 s of walking at
// 1.8 steps a second and 20 s of rest; the wrist is raised about every 25 s.
class WristModel {
  public:
    explicit WristModel(uint64_t seed);

    [[nodiscard]] Quaternion Orientation(TimePoint time) const;
    [[nodiscard]] Vector3 Gravity(TimePoint time) const;             // m/s^2, watch axes
    [[nodiscard]] Vector3 LinearAcceleration(TimePoint time) const;  // m/s^2, watch axes
    [[nodiscard]] Vector3 Acceleration(TimePoint time) const;        // both together, with noise
    [[nodiscard]] Vector3 AngularVelocity(TimePoint time) const;     // rad/s, watch axes
    [[nodiscard]] double PressureHpa(TimePoint time) const;
    [[nodiscard]] double HeartRate(TimePoint time) const;   // beats a minute
    [[nodiscard]] double PulsePhase(TimePoint time) const;  // beats since time 0
    [[nodiscard]] bool Walking(TimePoint time) const;

    [[nodiscard]] uint32_t StepsSince(TimePoint begin, TimePoint end) const;
    // The first step after that moment, and the first raising of the wrist.
    [[nodiscard]] TimePoint NextStep(TimePoint after) const;
    [[nodiscard]] TimePoint NextTilt(TimePoint after) const;

    // Reproducible noise in -1..1, different for each stream, axis and time.
    [[nodiscard]] double Noise(uint32_t stream, TimePoint time) const;

  private:
    [[nodiscard]] double Steps(double t) const;     // real-valued; whole at each step
    [[nodiscard]] double Activity(double t) const;  // 0 at rest to 1 in full stride
    [[nodiscard]] double TiltTime(int64_t index) const;
    [[nodiscard]] double Tilt(double t) const;
    [[nodiscard]] Quaternion OrientationAt(double t) const;

    const uint64_t seed_;
    double phase_[6];
    double walk_offset_;
    double resting_rate_;
};

}  // namespace mcusim
