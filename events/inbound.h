// Keeping of calibration results on the receive path; the routing itself is SensorHub::OnEvent.
#pragma once

struct McuMessage;

// Writes the data of a reply to a calibration command to /nvdata/accclibration, from where
// start-up hands it back to the MCU. Ignores every other message. Reader thread.
void SaveCalibration(const McuMessage& message);
