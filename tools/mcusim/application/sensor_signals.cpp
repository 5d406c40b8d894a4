// What each sensor measures. Asked by the sensor bank and by the raw-data streams.
#include "tools/mcusim/application/sensor_signals.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace mcusim {
namespace {

constexpr uint64_t kClockAfterPowerOnMs = 1'451'606'400'000;  // 2016-01-01, as the chip starts
constexpr double kHeartStatusGood = 3;
constexpr double kHeartStatusMoving = 2;

constexpr double kFullTurn = 2 * std::numbers::pi;

SampleValues ToValues(const Vector3& v) {
    return {v.x, v.y, v.z, 0, 0};
}

// The first row later than that time.
auto LaterRow(const RecordedSignal& signal, TimePoint time) {
    return std::ranges::upper_bound(signal.rows, time, {}, &RecordedSignal::Row::time);
}

const SampleValues& RowAt(const RecordedSignal& signal, TimePoint time) {
    const auto later = LaterRow(signal, time);
    return later == signal.rows.begin() ? later->values : std::prev(later)->values;
}

}  // namespace

void SensorSignals::PowerOn(TimePoint now) {
    power_on_ = now;
    added_steps_ = 0;
    SetClock(kClockAfterPowerOnMs, now);
}

void SensorSignals::SetClock(uint64_t ms_since_epoch, TimePoint now) {
    clock_ms_ = ms_since_epoch;
    clock_set_ = now;
}

void SensorSignals::Play(uint8_t sensor, RecordedSignal signal) {
    recorded_.insert_or_assign(sensor, std::move(signal));
}

double SensorSignals::ClockSec(TimePoint time) const {
    return std::floor(static_cast<double>(clock_ms_) / 1000 + Seconds(time - clock_set_));
}

double SensorSignals::StepsBetween(TimePoint begin, TimePoint end) const {
    if (const auto recorded = recorded_.find(kStepCounter); recorded != recorded_.end()) {
        return RowAt(recorded->second, end)[0] - RowAt(recorded->second, begin)[0];
    }
    return wrist_.StepsSince(begin, end);
}

double SensorSignals::HeartRate(TimePoint time) const {
    return std::round(heart_rate_.value_or(wrist_.HeartRate(time)));
}

SampleValues SensorSignals::Pulse(TimePoint time) const {
    const double beats = heart_rate_ ? *heart_rate_ / 60 * Seconds(time) : wrist_.PulsePhase(time);
    const double x = kFullTurn * beats;
    const double wave = std::sin(x) + 0.35 * std::sin(2 * x + 0.9);
    const double noise = 6 * wrist_.Noise(20, time);
    return {21'000 + 420 * wave + noise, 20'300 + 400 * wave - noise, 30'500 + 160 * wave + noise,
            34'200 + 230 * wave - noise, 1'200 + 40 * wrist_.Noise(21, time)};
}

SampleValues SensorSignals::At(uint8_t sensor, TimePoint time, TimePoint period) const {
    if (const auto recorded = recorded_.find(sensor); recorded != recorded_.end()) {
        return RowAt(recorded->second, time);
    }
    switch (sensor) {
        case kAccelerometer:
            return ToValues(wrist_.Acceleration(time));
        case kGyroscope:
            return ToValues(wrist_.AngularVelocity(time));
        case kPressure:
            return {wrist_.PressureHpa(time)};
        case kPpg:
            return Pulse(time);
        case kLinearAcceleration:
            return ToValues(wrist_.LinearAcceleration(time));
        case kGravity:
            return ToValues(wrist_.Gravity(time));
        case kRotation: {
            const Quaternion q = wrist_.Orientation(time);
            return {q.x, q.y, q.z, q.w};
        }
        case kStepCounter:
            return {StepsBetween(power_on_, time) + added_steps_};
        case kHeartRate:
            return {HeartRate(time), wrist_.Walking(time) ? kHeartStatusMoving : kHeartStatusGood};
        case kMotionHealth: {
            const TimePoint begin = std::max(time - period, power_on_);
            return {ClockSec(time), StepsBetween(begin, time), wrist_.Walking(time) ? 1.0 : 0.0};
        }
        default:
            return {1};
    }
}

std::optional<TimePoint> SensorSignals::NextChange(uint8_t sensor, TimePoint after) const {
    if (const auto recorded = recorded_.find(sensor); recorded != recorded_.end()) {
        const auto later = LaterRow(recorded->second, after);
        if (later == recorded->second.rows.end()) return std::nullopt;
        return later->time;
    }
    return sensor == kStepCounter ? wrist_.NextStep(after) : wrist_.NextTilt(after);
}

}  // namespace mcusim
