// The record that every client of the data socket "shddata" receives for each sample: the image
// of Android's sensors_event_t, little-endian, with no framing.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

static_assert(std::endian::native == std::endian::little,
              "the records of this file are used as they lie in memory");

enum SensorEventType : int32_t {
    SENSOR_TYPE_FLUSH_COMPLETE = 0,  // version kFlushCompleteVersion: data words 1, then the handle
    SENSOR_TYPE_ACCELEROMETER = 1,   // m/s^2
    SENSOR_TYPE_GYROSCOPE = 4,       // rad/s
    SENSOR_TYPE_PRESSURE = 6,        // hPa
    SENSOR_TYPE_GRAVITY = 9,         // m/s^2
    SENSOR_TYPE_LINEAR_ACCELERATION = 10,   // m/s^2
    SENSOR_TYPE_ROTATION_VECTOR = 11,       // unit quaternion x, y, z, w
    SENSOR_TYPE_GAME_ROTATION_VECTOR = 15,  // unit quaternion x, y, z
    SENSOR_TYPE_SIGNIFICANT_MOTION = 17,    // data[0] = 1
    SENSOR_TYPE_STEP_COUNTER = 19,  // 64-bit count; the step detector (handle 18) uses it as well
    SENSOR_TYPE_HEART_RATE = 21,    // data[0] = beats per minute, byte 4 = status
    SENSOR_TYPE_WRIST_TILT_GESTURE = 26,
    SENSOR_TYPE_RAW_RECORD = 0x10001,     // 10 opaque bytes of MCU sensor 23
    SENSOR_TYPE_MOTION_HEALTH = 0x10002,  // 16 bytes: uint32 date, uint16 step, status at byte 10
};

inline constexpr int32_t kSampleEventVersion = 104;
inline constexpr int32_t kFlushCompleteVersion = 2;

struct SensorEvent {
    int32_t version;        // @0 kSampleEventVersion or kFlushCompleteVersion
    int32_t sensor;         // @4 sensor handle
    int32_t type;           // @8 SensorEventType
    int32_t reserved0;      // @12
    int64_t timestamp;      // @16 ns of android::elapsedRealtimeNano
    uint8_t data[64];       // @24 sixteen 32-bit slots, by type
    uint32_t flags;         // @88
    uint8_t reserved1[12];  // @92
};
static_assert(sizeof(SensorEvent) == 104 && offsetof(SensorEvent, timestamp) == 16 &&
              offsetof(SensorEvent, data) == 24 && offsetof(SensorEvent, flags) == 88);
