// The table of the MCU's sensors and the encoding of their samples. Read by everything that deals
// with sensors.
#include "tools/mcusim/application/sensor_traits.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

namespace mcusim {
namespace {

// One count of the raw readings in SI units.
constexpr double kAccelerometerUnit = 9.801 / 2048;  // m/s^2, full scale 16 g
constexpr double kGyroscopeUnit = 0.0012211112;      // rad/s, full scale 2300 degrees/s
constexpr double kPressureUnit = 1.0 / 2048;         // hPa

McuSensor Wire(SensorId id) {
    return *FindMcuSensor(id);
}

const SensorTraits kSensors[] = {
    {Wire(kAccelerometer), 3, 6, 20, Reporting::kBatched,
     "accelerometer, simulated, +-16 g, 2048 counts per g"},
    {Wire(kGyroscope), 3, 4, 20, Reporting::kBatched,
     "gyroscope, simulated, +-2300 dps, 0.0012211 rad/s per count"},
    {Wire(kPressure), 1, 4, 200, Reporting::kBatched, "barometer, simulated, 2048 counts per hPa"},
    {Wire(kPpg), 5, 4, 40, Reporting::kBatched,
     "optical pulse sensor, simulated, two green, red, infrared and ambient light"},
    {Wire(kLinearAcceleration), 3, 0, 20, Reporting::kBatched,
     "linear acceleration, fused from accelerometer and gyroscope"},
    {Wire(kGravity), 3, 0, 20, Reporting::kBatched,
     "gravity, fused from accelerometer and gyroscope"},
    {Wire(kRotation), 4, 0, 20, Reporting::kBatched,
     "rotation vector, fused from accelerometer and gyroscope"},
    {Wire(kStepCounter), 1, 0, 200, Reporting::kOnChange,
     "step counter, steps since the MCU's start"},
    {Wire(kHeartRate), 2, 0, 1000, Reporting::kSingle,
     "heart rate, simulated, beats per minute with status 0 to 3"},
    {Wire(kWristTilt), 1, 0, 100, Reporting::kOnEvent, "wrist tilt gesture"},
    {Wire(kMotionHealth), 3, 0, 60'000, Reporting::kBatched,
     "motion health records: date, steps and state"},
};

template <typename Integer>
Integer Quantise(double value) {
    if (std::isnan(value)) return 0;
    const double low = static_cast<double>(std::numeric_limits<Integer>::min());
    const double high = static_cast<double>(std::numeric_limits<Integer>::max());
    return static_cast<Integer>(std::clamp(std::round(value), low, high));
}

void AppendCounts(Bytes& out, double x, double y, double z, double unit) {
    for (const double value : {x, y, z}) {
        Append16(out, static_cast<uint16_t>(Quantise<int16_t>(value / unit)));
    }
}

void AppendFloats(Bytes& out, std::span<const double> values) {
    for (const double value : values) AppendFloat(out, static_cast<float>(value));
}

}  // namespace

std::span<const SensorTraits> Sensors() {
    return kSensors;
}

const SensorTraits* FindSensor(uint8_t id) {
    const auto* found = std::ranges::find(kSensors, id, &SensorTraits::id);
    return found == std::end(kSensors) ? nullptr : found;
}

const SensorTraits* FindSensor(std::string_view name_or_id) {
    unsigned id = 0;
    const char* end = name_or_id.data() + name_or_id.size();
    if (const auto parsed = std::from_chars(name_or_id.data(), end, id);
        parsed.ec == std::errc() && parsed.ptr == end && id <= 0xFF) {
        return FindSensor(static_cast<uint8_t>(id));
    }
    const auto* found = std::ranges::find(kSensors, name_or_id, &SensorTraits::name);
    return found == std::end(kSensors) ? nullptr : found;
}

void AppendSample(Bytes& out, uint8_t sensor, const SampleValues& v) {
    switch (sensor) {
        case kAccelerometer:  // mounted a quarter turn about z
            return AppendCounts(out, -v[1], v[0], v[2], kAccelerometerUnit);
        case kGyroscope:  // mounted upside down
            return AppendCounts(out, v[0], -v[1], -v[2], kGyroscopeUnit);
        case kPressure:
            return Append32(out, Quantise<uint32_t>(v[0] / kPressureUnit));
        case kPpg:
            for (const double light : v) Append16(out, Quantise<uint16_t>(light));
            return;
        case kLinearAcceleration:
        case kGravity:
            return AppendFloats(out, std::span(v).first(3));
        case kRotation:
            return AppendFloats(out, std::array{v[0], v[1], -v[2], v[3]});
        case kMotionHealth: {  // date, steps, 4 unused, status, 5 unused
            const size_t begin = out.size();
            Append32(out, Quantise<uint32_t>(v[0]));
            Append16(out, Quantise<uint16_t>(v[1]));
            out.resize(begin + 10, 0);
            out.push_back(Quantise<uint8_t>(v[2]));
            out.resize(begin + 16, 0);
            return;
        }
        case kHeartRate:
            Append32(out, Quantise<uint32_t>(v[0]));
            return Append32(out, Quantise<uint32_t>(v[1]));
        default:
            return Append32(out, Quantise<uint32_t>(v[0]));
    }
}

}  // namespace mcusim
