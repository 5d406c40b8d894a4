// The sensor map and the per-sensor state; used by the commands, the events and the recovery.
#include "core/sensor_table.h"

#include <algorithm>

namespace {

struct SensorMapEntry {
    int32_t handle;
    int32_t mcu_sensor_id;
};

// Handles that are not listed have no sensor.
constexpr SensorMapEntry g_sensor_map[] = {
    {kHandleAccelerometer, kMcuAccelerometer},
    {kHandleGyroscope, kMcuGyroscope},
    {kHandlePressure, kMcuPressure},
    {kHandleGravity, kMcuGravity},
    {kHandleLinearAcceleration, kMcuLinearAcceleration},
    {kHandleRotationVector, kMcuRotationVector},
    {kHandleGameRotationVector, kMcuRotationVector},
    {kHandleSignificantMotion, kMcuVirtualSensor},
    {kHandleStepDetector, kMcuVirtualSensor},
    {kHandleStepCounter, kMcuStepCounter},
    {kHandleHeartRate, kMcuHeartRate},
    {kHandleRawRecord, kMcuRawRecord},
    {kHandleWristTilt, kMcuWristTilt},
    {kHandleMotionHealth, kMcuMotionHealth},
};

}  // namespace

Mutex g_sensor_state_mutex;
std::array<SensorState, kSensorHandleCount> g_sensor_state;

int32_t GetMcuSensorId(int32_t handle) {
    const auto* entry = std::find_if(
        std::begin(g_sensor_map), std::end(g_sensor_map),
        [handle](const SensorMapEntry& candidate) { return candidate.handle == handle; });
    return entry == std::end(g_sensor_map) ? static_cast<int32_t>(kMcuNoSensor)
                                           : entry->mcu_sensor_id;
}

size_t McuParameterSize(int32_t mcu_sensor_id) {
    switch (mcu_sensor_id) {
        case kMcuAccelerometer:
            return kMaxMcuParameterSize;  // three int16
        case kMcuGyroscope:
        case kMcuPressure:
        case kMcuRawRecord:
            return 4;
        default:
            return 0;
    }
}
