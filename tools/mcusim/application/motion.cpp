// The wrist model. Asked by the sensors' signals for every sample.
#include "tools/mcusim/application/motion.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace mcusim {
namespace {

constexpr double kTurn = 2 * std::numbers::pi;
constexpr double kGravity = 9.80665;

constexpr double kAccelerometerNoise = 0.02;  // m/s^2
constexpr double kGyroscopeNoise = 0.004;     // rad/s
constexpr double kHalfDifferenceSec = 0.001;

constexpr double kWalkCycleSec = 60.0;
constexpr double kWalkSec = 40.0;
constexpr double kStepsPerSec = 1.8;
constexpr double kStepsPerCycle = kWalkSec * kStepsPerSec;
constexpr double kStrideBlendSec = 1.5;

constexpr double kTiltEverySec = 25.0;
constexpr double kTiltFirstSec = 7.0;
constexpr double kTiltSpreadSec = 5.0;
constexpr double kTiltWidthSec = 0.35;

constexpr double kHeartExertion = 11.0;  // beats a minute
constexpr double kHeartWander = 3.0;
constexpr double kHeartWanderSec = 23.0;

uint64_t Mix(uint64_t x) {  // splitmix64
    x += 0x9E3779B97F4A7C15U;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9U;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBU;
    return x ^ (x >> 31);
}

double Fraction(uint64_t bits) {
    return static_cast<double>(bits >> 11) * 0x1.0p-53;
}

double Smooth(double x) {
    x = std::clamp(x, 0.0, 1.0);
    return x * x * (3 - 2 * x);
}

Quaternion Multiply(const Quaternion& a, const Quaternion& b) {
    return {a.w * b.x + a.x * b.w + a.y * b.z - a.z * b.y,
            a.w * b.y - a.x * b.z + a.y * b.w + a.z * b.x,
            a.w * b.z + a.x * b.y - a.y * b.x + a.z * b.w,
            a.w * b.w - a.x * b.x - a.y * b.y - a.z * b.z};
}

Quaternion Conjugate(const Quaternion& q) {
    return {-q.x, -q.y, -q.z, q.w};
}

// A world vector in the axes of a watch with this orientation.
Vector3 IntoWatch(const Quaternion& orientation, const Vector3& v) {
    const Quaternion turned =
        Multiply(Multiply(Conjugate(orientation), {v.x, v.y, v.z, 0}), orientation);
    return {turned.x, turned.y, turned.z};
}

}  // namespace

WristModel::WristModel(uint64_t seed) : seed_(Mix(seed)) {
    for (size_t i = 0; i < std::size(phase_); ++i) phase_[i] = kTurn * Fraction(Mix(seed_ + i));
    walk_offset_ = 2 + 8 * Fraction(Mix(seed_ + 100));
    resting_rate_ = 66 + 10 * Fraction(Mix(seed_ + 101));
}

double WristModel::Noise(uint32_t stream, TimePoint time) const {
    const uint64_t bits = Mix(seed_ ^ Mix(stream) ^ static_cast<uint64_t>(time.count()));
    return Fraction(bits) + Fraction(Mix(bits)) - 1;
}

double WristModel::Steps(double t) const {
    const double cycles = std::floor((t + walk_offset_) / kWalkCycleSec);
    const double within = t + walk_offset_ - cycles * kWalkCycleSec;
    return cycles * kStepsPerCycle + kStepsPerSec * std::min(within, kWalkSec);
}

double WristModel::Activity(double t) const {
    const double within = std::fmod(t + walk_offset_, kWalkCycleSec);
    return Smooth(within / kStrideBlendSec) * Smooth((kWalkSec - within) / kStrideBlendSec);
}

bool WristModel::Walking(TimePoint time) const {
    return Activity(Seconds(time)) > 0;
}

uint32_t WristModel::StepsSince(TimePoint begin, TimePoint end) const {
    return static_cast<uint32_t>(std::floor(Steps(Seconds(end))) -
                                 std::floor(Steps(Seconds(begin))));
}

TimePoint WristModel::NextStep(TimePoint after) const {
    const double step = std::floor(Steps(Seconds(after))) + 1;
    const double cycle = std::ceil(step / kStepsPerCycle) - 1;
    const double t = cycle * kWalkCycleSec + (step - cycle * kStepsPerCycle) / kStepsPerSec;
    // A microsecond later the count has surely gone up.
    return std::max(FromSeconds(t - walk_offset_), after) + std::chrono::microseconds(1);
}

double WristModel::TiltTime(int64_t index) const {
    const auto number = static_cast<uint64_t>(index);
    return kTiltFirstSec + kTiltEverySec * static_cast<double>(index) +
           kTiltSpreadSec * Fraction(Mix(seed_ + 200 + number));
}

TimePoint WristModel::NextTilt(TimePoint after) const {
    auto index = static_cast<int64_t>((Seconds(after) - kTiltFirstSec) / kTiltEverySec) - 1;
    index = std::max<int64_t>(index, 0);
    while (FromSeconds(TiltTime(index)) <= after) ++index;
    return FromSeconds(TiltTime(index));
}

double WristModel::Tilt(double t) const {
    const auto nearest = static_cast<int64_t>(std::floor((t - kTiltFirstSec) / kTiltEverySec));
    double tilt = 0;
    for (int64_t index = std::max<int64_t>(nearest - 1, 0); index <= nearest + 1; ++index) {
        const double x = (t - TiltTime(index)) / kTiltWidthSec;
        tilt += std::exp(-x * x);
    }
    return tilt;
}

Quaternion WristModel::OrientationAt(double t) const {
    const double swing = Activity(t) * std::sin(kTurn / 2 * Steps(t));
    const double yaw = 0.6 * std::sin(kTurn * t / 17 + phase_[0]) + 0.15 * swing;
    const double pitch = 0.25 * std::sin(kTurn * t / 11 + phase_[1]) + 0.35 * swing;
    const double roll = 0.3 * std::sin(kTurn * t / 13 + phase_[2]) + 1.1 * Tilt(t);
    const Quaternion about_z{0, 0, std::sin(yaw / 2), std::cos(yaw / 2)};
    const Quaternion about_x{std::sin(pitch / 2), 0, 0, std::cos(pitch / 2)};
    const Quaternion about_y{0, std::sin(roll / 2), 0, std::cos(roll / 2)};
    const Quaternion q = Multiply(Multiply(about_z, about_x), about_y);
    return q.w < 0 ? Quaternion{-q.x, -q.y, -q.z, -q.w} : q;
}

Quaternion WristModel::Orientation(TimePoint time) const {
    return OrientationAt(Seconds(time));
}

Vector3 WristModel::Gravity(TimePoint time) const {
    return IntoWatch(Orientation(time), {0, 0, kGravity});
}

Vector3 WristModel::LinearAcceleration(TimePoint time) const {
    const double t = Seconds(time);
    const double activity = Activity(t);
    const double steps = Steps(t);
    const Vector3 world{0.6 * activity * std::sin(kTurn / 2 * steps + 0.4),
                        1.4 * activity * std::sin(kTurn * steps + 0.8),
                        2.2 * activity * std::sin(kTurn * steps)};
    return IntoWatch(OrientationAt(t), world);
}

Vector3 WristModel::Acceleration(TimePoint time) const {
    const Vector3 gravity = Gravity(time);
    const Vector3 linear = LinearAcceleration(time);
    return {gravity.x + linear.x + kAccelerometerNoise * Noise(0, time),
            gravity.y + linear.y + kAccelerometerNoise * Noise(1, time),
            gravity.z + linear.z + kAccelerometerNoise * Noise(2, time)};
}

Vector3 WristModel::AngularVelocity(TimePoint time) const {
    const double t = Seconds(time);
    const Quaternion before = OrientationAt(t - kHalfDifferenceSec);
    const Quaternion after = OrientationAt(t + kHalfDifferenceSec);
    // The small turn from one to the other, in the watch's own axes.
    const Quaternion turn = Multiply(Conjugate(before), after);
    const double scale = (turn.w < 0 ? -2 : 2) / (2 * kHalfDifferenceSec);
    return {turn.x * scale + kGyroscopeNoise * Noise(3, time),
            turn.y * scale + kGyroscopeNoise * Noise(4, time),
            turn.z * scale + kGyroscopeNoise * Noise(5, time)};
}

double WristModel::PressureHpa(TimePoint time) const {
    const double t = Seconds(time);
    return 1013.25 + 0.35 * std::sin(kTurn * t / 600 + phase_[3]) +
           0.04 * std::sin(kTurn * t / 47 + phase_[4]) + 0.01 * Noise(6, time);
}

double WristModel::HeartRate(TimePoint time) const {
    const double t = Seconds(time);
    return resting_rate_ + kHeartWander * std::sin(kTurn * t / kHeartWanderSec + phase_[5]) +
           kHeartExertion * (1 + std::sin(kTurn * (t + walk_offset_ - 10) / kWalkCycleSec)) / 2;
}

double WristModel::PulsePhase(TimePoint time) const {
    // The integral of HeartRate, in closed form.
    const double t = Seconds(time);
    const double wander =
        -kHeartWander * kHeartWanderSec / kTurn * std::cos(kTurn * t / kHeartWanderSec + phase_[5]);
    const double exertion = -kHeartExertion / 2 * kWalkCycleSec / kTurn *
                            std::cos(kTurn * (t + walk_offset_ - 10) / kWalkCycleSec);
    return ((resting_rate_ + kHeartExertion / 2) * t + wander + exertion) / 60;
}

}  // namespace mcusim
