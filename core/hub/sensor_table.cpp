// The sensor map and the per-sensor state; used by the commands, the events and the recovery.
#include "core/hub/sensor_table.h"

#include <algorithm>

using namespace shd;

namespace {

struct SensorMapEntry {
    int32_t handle;
    int32_t mcu_sensor_id;
    bool restored;  // switched on again by a recovery
};

// Handles that are not listed have no sensor.
constexpr SensorMapEntry g_sensor_map[] = {
    {kHandleAccelerometer, kMcuAccelerometer, false},
    {kHandleGyroscope, kMcuGyroscope, false},
    {kHandlePressure, kMcuPressure, false},
    {kHandleGravity, kMcuGravity, false},
    {kHandleLinearAcceleration, kMcuLinearAcceleration, false},
    {kHandleRotationVector, kMcuRotationVector, false},
    {kHandleGameRotationVector, kMcuRotationVector, false},
    {kHandleSignificantMotion, kMcuVirtualSensor, false},
    {kHandleStepDetector, kMcuVirtualSensor, true},
    {kHandleStepCounter, kMcuStepCounter, true},
    {kHandleHeartRate, kMcuHeartRate, false},
    {kHandleRawRecord, kMcuRawRecord, false},
    {kHandleWristTilt, kMcuWristTilt, true},
    {kHandleMotionHealth, kMcuMotionHealth, true},
};

// The map and what clients know of the sensors name the same ones. (Not by FindSensor: g++ with
// -fsanitize=undefined takes no comparison with a null pointer for a constant.)
static_assert(
    std::size(g_sensor_map) == std::size(kSensors) &&
    std::all_of(std::begin(g_sensor_map), std::end(g_sensor_map), [](const SensorMapEntry& entry) {
        return std::any_of(
            std::begin(kSensors), std::end(kSensors), [&entry](const SensorFacts& facts) {
                return facts.handle == entry.handle &&
                       facts.is_virtual == (entry.mcu_sensor_id == kMcuVirtualSensor);
            });
    }));

const SensorMapEntry* FindEntry(int32_t handle) {
    const auto* entry = std::find_if(
        std::begin(g_sensor_map), std::end(g_sensor_map),
        [handle](const SensorMapEntry& candidate) { return candidate.handle == handle; });
    return entry == std::end(g_sensor_map) ? nullptr : entry;
}

}  // namespace

Mutex g_sensor_state_mutex;
std::array<SensorState, kSensorHandleCount> g_sensor_state;

int32_t GetMcuSensorId(int32_t handle) {
    const SensorMapEntry* entry = FindEntry(handle);
    return entry == nullptr ? static_cast<int32_t>(kMcuNoSensor) : entry->mcu_sensor_id;
}

bool IsRestoredAfterReboot(int32_t handle) {
    const SensorMapEntry* entry = FindEntry(handle);
    return entry != nullptr && entry->restored;
}

size_t McuParameterSize(int32_t mcu_sensor_id) {
    const auto* entry = std::find_if(std::begin(g_sensor_map), std::end(g_sensor_map),
                                     [mcu_sensor_id](const SensorMapEntry& candidate) {
                                         return candidate.mcu_sensor_id == mcu_sensor_id;
                                     });
    return entry == std::end(g_sensor_map) ? 0 : FindSensor(entry->handle)->parameter_size;
}
