// Unit and axis conversion of single samples; called for each sample of a report.
#include "events/sample_conversion.h"

#include <cstring>

#include "events/event_stamp.h"
#include "mcu_link/byte_order.h"

using namespace shd;

namespace {

constexpr float kAccelerometerScale = 0.0047856453F;  // m/s^2 per unit
constexpr float kGyroscopeScale = 0.0012211112F;      // rad/s per unit
constexpr float kPressureScale = 0.00048828125F;      // hPa per unit: 1 / 2048

float ReadAxis(const uint8_t* sample, size_t axis) {
    return static_cast<float>(ReadLe<int16_t>(sample + axis * sizeof(int16_t)));
}

}  // namespace

void ConvertAccelerometer(const uint8_t* sample, SensorEvent* event) {
    SetDataSlot(event, 0, ReadAxis(sample, 1) * kAccelerometerScale);
    SetDataSlot(event, 1, -(ReadAxis(sample, 0) * kAccelerometerScale));
    SetDataSlot(event, 2, ReadAxis(sample, 2) * kAccelerometerScale);
}

void ConvertGyroscope(const uint8_t* sample, SensorEvent* event) {
    SetDataSlot(event, 0, ReadAxis(sample, 0) * kGyroscopeScale);
    SetDataSlot(event, 1, -(ReadAxis(sample, 1) * kGyroscopeScale));
    SetDataSlot(event, 2, -(ReadAxis(sample, 2) * kGyroscopeScale));
}

void ConvertPressure(const uint8_t* sample, SensorEvent* event) {
    SetDataSlot(event, 0, static_cast<float>(ReadLe<uint32_t>(sample)) * kPressureScale);
}

void ConvertVector(const uint8_t* sample, SensorEvent* event) {
    std::memcpy(event->data, sample, 3 * sizeof(float));
}

void ConvertRotation(const uint8_t* sample, SensorEvent* event) {
    std::memcpy(event->data, sample, 4 * sizeof(float));
    SetDataSlot(event, 2, -ReadLe<float>(sample + 2 * sizeof(float)));
}

void ConvertHeartRate(const uint8_t* sample, SensorEvent* event) {
    SetDataSlot(event, 0, static_cast<float>(ReadLe<uint32_t>(sample)));
    event->data[4] = sample[4];  // the status word's low byte
}
