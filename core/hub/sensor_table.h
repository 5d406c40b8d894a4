// The sensors: which MCU sensor stands behind each handle that clients use, and what the daemon
// remembers of each between requests and reports.
#pragma once

#include <array>
#include <cstdint>

#include "platform/mutex.h"
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

// The MCU sensor id of a handle; kMcuVirtualSensor or kMcuNoSensor where there is none. Any value
// may be passed; every handle with an id lies in 0..27.
[[nodiscard]] int32_t GetMcuSensorId(int32_t handle);

// Bytes of the calibration parameter of an MCU sensor: 6, 4, or 0 for sensors without one.
[[nodiscard]] size_t McuParameterSize(int32_t mcu_sensor_id);

// Whether a recovery switches the sensor of a handle on again when it was on.
[[nodiscard]] bool IsRestoredAfterReboot(int32_t handle);

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
