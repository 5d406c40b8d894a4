// The sensor table and the look-up by name. Called by the client library and the tools.
#include "tools/client/sensor_info.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>

namespace shdclient {
namespace {

using namespace shd;

constexpr std::array<Axis, 3> kAccelerationAxes{{{"x", "m/s^2"}, {"y", "m/s^2"}, {"z", "m/s^2"}}};
constexpr std::array<Axis, 3> kTurnAxes{{{"x", "rad/s"}, {"y", "rad/s"}, {"z", "rad/s"}}};
constexpr std::array<Axis, 1> kPressureAxes{{{"pressure", "hPa"}}};
constexpr std::array<Axis, 4> kQuaternionAxes{{{"x", ""}, {"y", ""}, {"z", ""}, {"w", ""}}};
constexpr std::array<Axis, 1> kMotionAxes{{{"motion", ""}}};
constexpr std::array<Axis, 1> kStepAxes{{{"step", ""}}};
constexpr std::array<Axis, 1> kStepCountAxes{{{"count", "steps"}}};
constexpr std::array<Axis, 2> kHeartRateAxes{{{"rate", "bpm"}, {"status", ""}}};
constexpr std::array<Axis, 3> kHealthAxes{{{"date", ""}, {"steps", "steps"}, {"status", ""}}};
constexpr std::span<const Axis> kThreeOfQuaternion = std::span(kQuaternionAxes).first(3);

constexpr SensorInfo Sensor(int32_t handle, DataForm form, uint8_t data_bytes,
                            std::span<const Axis> axes) {
    return {*shd::FindSensor(handle), form, data_bytes, axes};
}

using enum DataForm;
constexpr std::array kSensors{
    Sensor(kHandleAccelerometer, kFloats, 12, kAccelerationAxes),
    Sensor(kHandleGyroscope, kFloats, 12, kTurnAxes),
    Sensor(kHandlePressure, kFloats, 4, kPressureAxes),
    Sensor(kHandleGravity, kFloats, 12, kAccelerationAxes),
    Sensor(kHandleLinearAcceleration, kFloats, 12, kAccelerationAxes),
    Sensor(kHandleRotationVector, kFloats, 16, kQuaternionAxes),
    Sensor(kHandleGameRotationVector, kFloats, 12, kThreeOfQuaternion),
    Sensor(kHandleSignificantMotion, kFloats, 4, kMotionAxes),
    Sensor(kHandleStepDetector, kFloats, 4, kStepAxes),
    Sensor(kHandleStepCounter, kStepCount, 8, kStepCountAxes),
    Sensor(kHandleHeartRate, kHeartRate, 5, kHeartRateAxes),
    Sensor(kHandleRawRecord, kOpaque, 10, {}),
    Sensor(kHandleWristTilt, kFloats, 4, {}),
    Sensor(kHandleMotionHealth, kMotionHealth, 16, kHealthAxes),
};
static_assert(kSensors.size() == std::size(shd::kSensors));

std::string Normalised(std::string_view text) {
    std::string name(text);
    std::transform(name.begin(), name.end(), name.begin(), [](char c) {
        if (c == '_' || c == ' ') return '-';
        return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    });
    return name;
}

std::string AllNames() {
    std::string names;
    for (const SensorInfo& sensor : kSensors) {
        if (!names.empty()) names += ", ";
        names += sensor.name;
    }
    return names;
}

Error Unknown(std::string_view text) {
    return {ErrorCode::kInvalidArgument,
            "no sensor '" + std::string(text) + "'; the sensors are " + AllNames()};
}

}  // namespace

std::span<const SensorInfo> AllSensors() {
    return kSensors;
}

const SensorInfo* FindSensor(int32_t handle) {
    const auto* found = std::find_if(kSensors.begin(), kSensors.end(),
                                     [&](const SensorInfo& s) { return s.handle == handle; });
    return found == kSensors.end() ? nullptr : found;
}

std::string SensorName(int32_t handle) {
    const SensorInfo* sensor = FindSensor(handle);
    return sensor != nullptr ? std::string(sensor->name) : "handle " + std::to_string(handle);
}

Result<const SensorInfo*> LookupSensor(std::string_view text) {
    int32_t handle = -1;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, handle);
    if (error == std::errc() && rest == end) {
        const SensorInfo* sensor = FindSensor(handle);
        if (sensor == nullptr) return Unknown(text);
        return sensor;
    }

    const std::string name = Normalised(text);
    const SensorInfo* found = nullptr;
    std::string candidates;
    if (name.empty()) return Unknown(text);
    for (const SensorInfo& sensor : kSensors) {
        if (sensor.name == name) return &sensor;
        if (!sensor.name.starts_with(name)) continue;
        if (found != nullptr) candidates += " or ";
        candidates += sensor.name;
        found = &sensor;
    }
    if (found == nullptr) return Unknown(text);
    if (candidates != found->name) {
        return Error{ErrorCode::kInvalidArgument,
                     "'" + std::string(text) + "' could be " + candidates + "; write more of it"};
    }
    return found;
}

}  // namespace shdclient
