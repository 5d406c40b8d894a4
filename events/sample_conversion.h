// Samples in the MCU's units and axes to the values of an event; used by the table of report
// formats. Each conversion fills SensorEvent::data from the bytes of one whole sample.
#pragma once

#include <cstdint>

#include "protocol/event.h"

void ConvertAccelerometer(const uint8_t* sample, shd::SensorEvent* event);  // three int16
void ConvertGyroscope(const uint8_t* sample, shd::SensorEvent* event);      // three int16
void ConvertPressure(const uint8_t* sample, shd::SensorEvent* event);       // uint32
void ConvertVector(const uint8_t* sample, shd::SensorEvent* event);         // three floats
void ConvertRotation(const uint8_t* sample, shd::SensorEvent* event);       // four floats
void ConvertHeartRate(const uint8_t* sample, shd::SensorEvent* event);      // two uint32
