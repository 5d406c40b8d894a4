// Unit and axis conversion of single samples; called for each sample of a report.
#include "events/sample_conversion.h"

#include <cstring>

#include "events/event_stamp.h"

using namespace shd;

namespace {

constexpr float kAccelerometerScale = 0.0047856453F;  // m/s^2 per unit
constexpr float kGyroscopeScale = 0.0012211112F;      // rad/s per unit
constexpr float kPressureScale = 0.00048828125F;      // hPa per unit: 1 / 2048

}  // namespace

void ConvertAccelerometer(const McuAxes& sample, SensorEvent* event) {
    SetDataSlot(event, 0, static_cast<float>(sample.y) * kAccelerometerScale);
    SetDataSlot(event, 1, -(static_cast<float>(sample.x) * kAccelerometerScale));
    SetDataSlot(event, 2, static_cast<float>(sample.z) * kAccelerometerScale);
}

void ConvertGyroscope(const McuAxes& sample, SensorEvent* event) {
    SetDataSlot(event, 0, static_cast<float>(sample.x) * kGyroscopeScale);
    SetDataSlot(event, 1, -(static_cast<float>(sample.y) * kGyroscopeScale));
    SetDataSlot(event, 2, -(static_cast<float>(sample.z) * kGyroscopeScale));
}

void ConvertPressure(const uint32_t& sample, SensorEvent* event) {
    SetDataSlot(event, 0, static_cast<float>(sample) * kPressureScale);
}

void ConvertVector(const McuVector& sample, SensorEvent* event) {
    std::memcpy(event->data, &sample, sizeof(sample));
}

void ConvertRotation(const McuRotation& sample, SensorEvent* event) {
    std::memcpy(event->data, &sample, sizeof(sample));
    SetDataSlot(event, 2, -sample.z);
}

void ConvertHeartRate(const McuHeartRate& sample, SensorEvent* event) {
    SetDataSlot(event, 0, static_cast<float>(sample.bpm));
    event->data[4] = static_cast<uint8_t>(sample.status & 0xFF);
}
