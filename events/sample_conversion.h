// Samples in the MCU's units and axes to the values of an event; used by the table of report
// formats. A sample's layout is a type, from which its size follows.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mcu_link/byte_order.h"
#include "protocol/event.h"

// Samples as they lie in a report, little-endian.
struct McuAxes {
    int16_t x, y, z;
};
struct McuVector {
    float x, y, z;
};
struct McuRotation {
    float x, y, z, w;
};
struct McuHeartRate {
    uint32_t bpm;     // beats per minute
    uint32_t status;  // the low byte is passed on
};
static_assert(sizeof(McuAxes) == 6 && sizeof(McuVector) == 12 && sizeof(McuRotation) == 16 &&
              sizeof(McuHeartRate) == 8);

// Each fills SensorEvent::data.
void ConvertAccelerometer(const McuAxes& sample, shd::SensorEvent* event);
void ConvertGyroscope(const McuAxes& sample, shd::SensorEvent* event);
void ConvertPressure(const uint32_t& sample, shd::SensorEvent* event);
void ConvertVector(const McuVector& sample, shd::SensorEvent* event);
void ConvertRotation(const McuRotation& sample, shd::SensorEvent* event);
void ConvertHeartRate(const McuHeartRate& sample, shd::SensorEvent* event);

// A conversion from the bytes of a report.
struct SampleConversion {
    size_t size = 0;  // bytes of a sample
    void (*convert)(const uint8_t* sample, shd::SensorEvent* event) = nullptr;
};

template <typename Sample, void (*kConvert)(const Sample& sample, shd::SensorEvent* event)>
inline constexpr SampleConversion kConversion = {
    sizeof(Sample), [](const uint8_t* sample, shd::SensorEvent* event) {
        kConvert(ReadLe<Sample>(sample), event);
    }};
