// The sensor table and the look-up by name. Called by the client library and the tools.
#include "tools/client/sensor_info.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>

#include "events/sensor_event.h"

namespace shdclient {
namespace {

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

// Columns: handle, name, event type, virtual, can batch, block bytes, form, data bytes, axes.
using enum DataForm;
constexpr std::array kSensors{
    SensorInfo{0, "accelerometer", SENSOR_TYPE_ACCELEROMETER, false, true, 6, kFloats, 12,
               kAccelerationAxes},
    SensorInfo{5, "gyroscope", SENSOR_TYPE_GYROSCOPE, false, true, 4, kFloats, 12, kTurnAxes},
    SensorInfo{6, "pressure", SENSOR_TYPE_PRESSURE, false, true, 4, kFloats, 4, kPressureAxes},
    SensorInfo{9, "gravity", SENSOR_TYPE_GRAVITY, false, false, 0, kFloats, 12, kAccelerationAxes},
    SensorInfo{10, "linear-acceleration", SENSOR_TYPE_LINEAR_ACCELERATION, false, false, 0, kFloats,
               12, kAccelerationAxes},
    SensorInfo{11, "rotation-vector", SENSOR_TYPE_ROTATION_VECTOR, false, false, 0, kFloats, 16,
               kQuaternionAxes},
    SensorInfo{15, "game-rotation-vector", SENSOR_TYPE_GAME_ROTATION_VECTOR, false, false, 0,
               kFloats, 12, kThreeOfQuaternion},
    SensorInfo{17, "significant-motion", SENSOR_TYPE_SIGNIFICANT_MOTION, true, false, 0, kFloats, 4,
               kMotionAxes},
    SensorInfo{18, "step-detector", SENSOR_TYPE_STEP_COUNTER, true, false, 0, kFloats, 4,
               kStepAxes},
    SensorInfo{19, "step-counter", SENSOR_TYPE_STEP_COUNTER, false, true, 0, kStepCount, 8,
               kStepCountAxes},
    SensorInfo{21, "heart-rate", SENSOR_TYPE_HEART_RATE, false, true, 0, kHeartRate, 5,
               kHeartRateAxes},
    SensorInfo{25, "raw-25", SENSOR_TYPE_RAW_RECORD, false, true, 4, kOpaque, 10, {}},
    SensorInfo{26, "wrist-tilt", SENSOR_TYPE_WRIST_TILT_GESTURE, false, true, 0, kFloats, 4, {}},
    SensorInfo{27, "motion-health", SENSOR_TYPE_MOTION_HEALTH, false, true, 0, kMotionHealth, 16,
               kHealthAxes},
};

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
