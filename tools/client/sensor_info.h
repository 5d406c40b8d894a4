// The table of the hub's sensors as clients see them: handles, names, event types, axes and units.
// Shared by the client library, the command line tools and any sensors HAL on top of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "protocol/sensors.h"
#include "tools/client/result.h"

namespace shdclient {

inline constexpr size_t kMaxAxes = 4;

struct Axis {
    std::string_view name;
    std::string_view unit;  // empty when the value has none
};

// How the values lie in SensorEvent::data.
enum class DataForm : uint8_t {
    kFloats,        // one float per axis
    kStepCount,     // uint64 steps
    kHeartRate,     // float beats per minute, status in byte 4
    kOpaque,        // bytes that only the MCU understands
    kMotionHealth,  // uint32 date, uint16 steps, status in byte 10, the other bytes opaque
};

struct SensorInfo : shd::SensorFacts {
    DataForm form;
    uint8_t data_bytes;  // bytes of SensorEvent::data that its events use, the others are 0
    std::span<const Axis> axes;
};

// All sensors, in order of their handles. The table is constant and lives for ever.
[[nodiscard]] std::span<const SensorInfo> AllSensors();

// The sensor of a handle, or nullptr when the hub has none there.
[[nodiscard]] const SensorInfo* FindSensor(int32_t handle);

// The name of the sensor of a handle, or "handle N" when the hub has none there.
[[nodiscard]] std::string SensorName(int32_t handle);

// Finds a sensor as a person writes it: its handle in decimal, its name in any case (underscores
// and blanks count as hyphens), or the beginning of a name when only one sensor's name begins so.
// Fails with kInvalidArgument and names the candidates, or all sensors.
[[nodiscard]] Result<const SensorInfo*> LookupSensor(std::string_view text);

}  // namespace shdclient
