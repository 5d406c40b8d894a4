// The per-sensor state; used by the commands, the events and the recovery.
#include "core/hub/sensor_table.h"

#include <algorithm>

using namespace shd;

Mutex g_sensor_state_mutex;
std::array<SensorState, kSensorHandleCount> g_sensor_state;

size_t McuParameterSize(int32_t mcu_sensor_id) {
    const auto* entry = std::find_if(std::begin(g_sensor_map), std::end(g_sensor_map),
                                     [mcu_sensor_id](const SensorMapEntry& candidate) {
                                         return candidate.mcu_sensor_id == mcu_sensor_id;
                                     });
    return entry == std::end(g_sensor_map) ? 0 : FindSensor(entry->handle)->parameter_size;
}
