// The map of the sensors: which MCU sensor stands behind each handle that clients use. Included by
// the daemon's sensor table, and by the tools that read the daemon's log.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "protocol/sensors.h"

enum McuSensorId : int32_t {
    kMcuAccelerometer = 16,
    kMcuGyroscope = 17,
    kMcuPressure = 22,
    kMcuRawRecord = 23,
    kMcuLinearAcceleration = 32,
    kMcuGravity = 33,
    kMcuRotationVector = 35,
    kMcuStepCounter = 48,
    kMcuHeartRate = 50,
    kMcuWristTilt = 51,
    kMcuMotionHealth = 64,
    kMcuVirtualSensor = 255,  // derived by the daemon from the step counter
    kMcuNoSensor = -1,
};

struct SensorMapEntry {
    int32_t handle;
    int32_t mcu_sensor_id;
    bool restored;  // switched on again by a recovery
};

// Handles that are not listed have no sensor.
inline constexpr SensorMapEntry g_sensor_map[] = {
    {shd::kHandleAccelerometer, kMcuAccelerometer, false},
    {shd::kHandleGyroscope, kMcuGyroscope, false},
    {shd::kHandlePressure, kMcuPressure, false},
    {shd::kHandleGravity, kMcuGravity, false},
    {shd::kHandleLinearAcceleration, kMcuLinearAcceleration, false},
    {shd::kHandleRotationVector, kMcuRotationVector, false},
    {shd::kHandleGameRotationVector, kMcuRotationVector, false},
    {shd::kHandleSignificantMotion, kMcuVirtualSensor, false},
    {shd::kHandleStepDetector, kMcuVirtualSensor, true},
    {shd::kHandleStepCounter, kMcuStepCounter, true},
    {shd::kHandleHeartRate, kMcuHeartRate, false},
    {shd::kHandleRawRecord, kMcuRawRecord, false},
    {shd::kHandleWristTilt, kMcuWristTilt, true},
    {shd::kHandleMotionHealth, kMcuMotionHealth, true},
};

// The map and what clients know of the sensors name the same ones. (Not by FindSensor: g++ with
// -fsanitize=undefined takes no comparison with a null pointer for a constant.)
static_assert(std::size(g_sensor_map) == std::size(shd::kSensors) &&
              std::all_of(std::begin(g_sensor_map), std::end(g_sensor_map),
                          [](const SensorMapEntry& entry) {
                              return std::any_of(
                                  std::begin(shd::kSensors), std::end(shd::kSensors),
                                  [&entry](const shd::SensorFacts& facts) {
                                      return facts.handle == entry.handle &&
                                             facts.is_virtual ==
                                                 (entry.mcu_sensor_id == kMcuVirtualSensor);
                                  });
                          }));

[[nodiscard]] constexpr const SensorMapEntry* FindSensorMapEntry(int32_t handle) {
    const auto* entry = std::find_if(
        std::begin(g_sensor_map), std::end(g_sensor_map),
        [handle](const SensorMapEntry& candidate) { return candidate.handle == handle; });
    return entry == std::end(g_sensor_map) ? nullptr : entry;
}

// The MCU sensor id of a handle; kMcuVirtualSensor or kMcuNoSensor where there is none. Any value
// may be passed; every handle with an id lies in 0..27.
[[nodiscard]] constexpr int32_t GetMcuSensorId(int32_t handle) {
    const SensorMapEntry* entry = FindSensorMapEntry(handle);
    return entry == nullptr ? static_cast<int32_t>(kMcuNoSensor) : entry->mcu_sensor_id;
}

// Whether a recovery switches the sensor of a handle on again when it was on.
[[nodiscard]] constexpr bool IsRestoredAfterReboot(int32_t handle) {
    const SensorMapEntry* entry = FindSensorMapEntry(handle);
    return entry != nullptr && entry->restored;
}
