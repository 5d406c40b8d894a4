// The table of the MCU's sensors. Read by the simulator and by descriptions of packets.
#include "tools/wire/sensors.h"

#include <algorithm>
#include <iterator>

#include "protocol/sensors.h"

namespace wire {
namespace {

constexpr std::string_view NameOf(shd::SensorHandle handle) {
    return shd::FindSensor(handle)->name;
}

constexpr McuSensor kSensors[] = {
    {kAccelerometer, 6, NameOf(shd::kHandleAccelerometer)},
    {kGyroscope, 6, NameOf(shd::kHandleGyroscope)},
    {kPressure, 4, NameOf(shd::kHandlePressure)},
    {kPpg, 10, NameOf(shd::kHandleRawRecord)},
    {kLinearAcceleration, 12, NameOf(shd::kHandleLinearAcceleration)},
    {kGravity, 12, NameOf(shd::kHandleGravity)},
    {kRotation, 16, NameOf(shd::kHandleRotationVector)},
    {kStepCounter, 4, NameOf(shd::kHandleStepCounter)},
    {kHeartRate, 8, NameOf(shd::kHandleHeartRate)},
    {kWristTilt, 4, NameOf(shd::kHandleWristTilt)},
    {kMotionHealth, 16, NameOf(shd::kHandleMotionHealth)},
};

}  // namespace

const McuSensor* FindMcuSensor(uint8_t id) {
    const auto* found = std::ranges::find(kSensors, id, &McuSensor::id);
    return found == std::end(kSensors) ? nullptr : found;
}

}  // namespace wire
