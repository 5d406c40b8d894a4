// The hub's sensors as its clients see them: handles, event types and the facts that daemon, client
// library and tools share. Whoever builds requests or reads events includes it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

namespace shd {

inline constexpr int32_t kSensorHandleCount = 28;  // handles 0..27

enum SensorHandle : int32_t {
    kHandleAccelerometer = 0,
    kHandleGyroscope = 5,
    kHandlePressure = 6,
    kHandleGravity = 9,
    kHandleLinearAcceleration = 10,
    kHandleRotationVector = 11,
    kHandleGameRotationVector = 15,
    kHandleSignificantMotion = 17,
    kHandleStepDetector = 18,
    kHandleStepCounter = 19,
    kHandleHeartRate = 21,
    kHandleRawRecord = 25,
    kHandleWristTilt = 26,
    kHandleMotionHealth = 27,
};

// SensorEvent::type, the numbers of Android's sensors HAL and two of the hub's own.
enum SensorEventType : int32_t {
    kTypeFlushComplete = 0,        // version kFlushCompleteVersion: data words 1, then the handle
    kTypeAccelerometer = 1,        // m/s^2
    kTypeGyroscope = 4,            // rad/s
    kTypePressure = 6,             // hPa
    kTypeGravity = 9,              // m/s^2
    kTypeLinearAcceleration = 10,  // m/s^2
    kTypeRotationVector = 11,      // unit quaternion x, y, z, w
    kTypeGameRotationVector = 15,  // unit quaternion x, y, z
    kTypeSignificantMotion = 17,   // data[0] = 1
    kTypeStepCounter = 19,         // 64-bit count; the step detector uses it as well, data[0] = 1
    kTypeHeartRate = 21,           // data[0] = beats per minute, byte 4 = status
    kTypeWristTilt = 26,
    kTypeRawRecord = 0x10001,     // 10 opaque bytes of MCU sensor 23
    kTypeMotionHealth = 0x10002,  // 16 bytes: uint32 date, uint16 step, status at byte 10
};

struct SensorFacts {
    int32_t handle;          // SensorHandle
    std::string_view name;   // lower case with hyphens
    int32_t type;            // SensorEventType of its events
    bool is_virtual;         // derived by the daemon; needs no MCU and works while that is away
    bool can_batch;          // false: the hub replaces a batch size by 0
    uint8_t parameter_size;  // bytes of its calibration parameter, 0: it has none
};

// In order of their handles; a handle that is not listed has no sensor.
inline constexpr SensorFacts kSensors[] = {
    {kHandleAccelerometer, "accelerometer", kTypeAccelerometer, false, true, 6},
    {kHandleGyroscope, "gyroscope", kTypeGyroscope, false, true, 4},
    {kHandlePressure, "pressure", kTypePressure, false, true, 4},
    {kHandleGravity, "gravity", kTypeGravity, false, false, 0},
    {kHandleLinearAcceleration, "linear-acceleration", kTypeLinearAcceleration, false, false, 0},
    {kHandleRotationVector, "rotation-vector", kTypeRotationVector, false, false, 0},
    {kHandleGameRotationVector, "game-rotation-vector", kTypeGameRotationVector, false, false, 0},
    {kHandleSignificantMotion, "significant-motion", kTypeSignificantMotion, true, false, 0},
    {kHandleStepDetector, "step-detector", kTypeStepCounter, true, false, 0},
    {kHandleStepCounter, "step-counter", kTypeStepCounter, false, true, 0},
    {kHandleHeartRate, "heart-rate", kTypeHeartRate, false, true, 0},
    {kHandleRawRecord, "raw-25", kTypeRawRecord, false, true, 4},
    {kHandleWristTilt, "wrist-tilt", kTypeWristTilt, false, true, 0},
    {kHandleMotionHealth, "motion-health", kTypeMotionHealth, false, true, 0},
};

// The sensor of a handle, any value, or null where there is none.
[[nodiscard]] constexpr const SensorFacts* FindSensor(int32_t handle) {
    const auto* found = std::find_if(std::begin(kSensors), std::end(kSensors),
                                     [handle](const SensorFacts& s) { return s.handle == handle; });
    return found == std::end(kSensors) ? nullptr : found;
}

// The largest calibration parameter, in bytes.
inline constexpr size_t kMaxParameterSize = 6;
static_assert(std::all_of(std::begin(kSensors), std::end(kSensors), [](const SensorFacts& s) {
    return s.handle >= 0 && s.handle < kSensorHandleCount && s.parameter_size <= kMaxParameterSize;
}));

}  // namespace shd
