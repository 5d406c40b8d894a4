// The record that every client of the data socket "shddata" receives for each sample: the image
// of Android's sensors_event_t, little-endian, with no framing.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "protocol/sensors.h"

namespace shd {

static_assert(std::endian::native == std::endian::little,
              "the records of this file are used as they lie in memory");

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

}  // namespace shd
