// The sensors that the MCU offers: what each is called, how its samples look on the wire and when
// it reports. The sensor bank runs them, the application answers for them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "tools/mcusim/line/packet.h"
#include "tools/wire/sensors.h"

namespace mcusim {

enum class Reporting {
    kBatched,   // a sample each period, as many to a report as commanded
    kSingle,    // a sample each period, each its own report
    kOnChange,  // looks each period, reports when the value has changed
    kOnEvent,   // reports when something happens
};

// A sample in the units and axes of the daemon's events; unused values are 0.
inline constexpr size_t kMaxSampleValues = 5;
using SampleValues = std::array<double, kMaxSampleValues>;

struct SensorTraits : McuSensor {
    uint8_t value_count;        // of SampleValues
    uint8_t calibration_bytes;  // of its calibration and parameter, 0: it has none
    int32_t default_period_ms;
    Reporting reporting;
    std::string_view info;
};

[[nodiscard]] std::span<const SensorTraits> Sensors();
// By MCU sensor id or by name; nullptr when there is none.
[[nodiscard]] const SensorTraits* FindSensor(uint8_t id);
[[nodiscard]] const SensorTraits* FindSensor(std::string_view name_or_id);

// Appends one sample as the MCU sends it: raw units, the chip's axes. Values beyond the range of
// the wire's fields stop at its ends.
void AppendSample(Bytes& out, uint8_t sensor, const SampleValues& values);

}  // namespace mcusim
