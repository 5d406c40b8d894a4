// The MCU's sensors as they stand on the wire: number, size of a sample, name. The simulator adds
// what they measure; descriptions of packets name them.
#pragma once

#include <cstdint>
#include <string_view>

namespace wire {

enum SensorId : uint8_t {
    kAccelerometer = 16,
    kGyroscope = 17,
    kPressure = 22,
    kPpg = 23,
    kLinearAcceleration = 32,
    kGravity = 33,
    kRotation = 35,
    kStepCounter = 48,
    kHeartRate = 50,
    kWristTilt = 51,
    kMotionHealth = 64,
};

struct McuSensor {
    uint8_t id;
    uint8_t sample_bytes;   // of a report, behind its header
    std::string_view name;  // by which the hub's clients know what it makes of the sensor
};

// nullptr when the MCU has no such sensor.
[[nodiscard]] const McuSensor* FindMcuSensor(uint8_t id);

}  // namespace wire
