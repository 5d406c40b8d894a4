// What the daemon remembers of each sensor between requests and reports, beside the map of the
// sensors. Used by the commands, the events and the recovery.
#pragma once

#include <array>
#include <cstdint>

#include "core/hub/sensor_map.h"
#include "platform/mutex.h"
#include "protocol/sensors.h"

// Bytes of the calibration parameter of an MCU sensor: 6, 4, or 0 for sensors without one.
[[nodiscard]] size_t McuParameterSize(int32_t mcu_sensor_id);

struct SensorState {
    int32_t enable;          // 1 while a client has the sensor activated
    int32_t period_ms;       // sampling period last requested
    int32_t batchcnt;        // batch size last requested, in samples; 0 = no batching
    int32_t batch_left;      // countdown of a batch that arrives in several reports
    int32_t virtual_enable;  // 1 while the virtual sensor is enabled
    int64_t last_time;       // ns: arrival of the previous batch, -1 = none yet; for handle 17 the
                             // time of the last significant-motion event
    int64_t time_adjust;     // ns: measured mean sample interval minus period_ms
    int32_t flush_pending;   // 1 from a flush request until its flush-complete event
    int32_t flush_count;     // samples that the MCU still delivers before the flush is complete
};

// Held for one short step at a time, never while a record is sent or a file is written.
extern Mutex g_sensor_state_mutex;

// Indexed by handle.
extern std::array<SensorState, shd::kSensorHandleCount> g_sensor_state
    GUARDED_BY(g_sensor_state_mutex);

// The state of a handle that is known to have an MCU sensor id.
[[nodiscard]] inline SensorState& StateOf(int32_t handle) REQUIRES(g_sensor_state_mutex) {
    return g_sensor_state[static_cast<size_t>(handle)];
}
