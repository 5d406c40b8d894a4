// The calibration parameters and the log level that the MCU gets whenever it has started: after
// start-up's handshake and after that of a reboot.
#pragma once

#include <cstdint>
#include <optional>

class SensorHub;

// Written by start-up before the other threads exist, only read afterwards.
extern int16_t g_acc_calibration[3];  // x, y, z in MCU units, -312..312; parameter 16
extern int32_t g_baro_calibration;    // -499..499; parameter 22
extern const int32_t g_mcu_param_23;
extern const int32_t g_mcu_param_17;

// Sends the parameters 16, 22, 23 and 17, ignoring failures.
void SendMcuParameters(SensorHub* hub);

// Sends the log level of persist.velmar.shd.mculog when it is 0 to 5. Returns the level sent.
std::optional<int> RestoreMcuLogLevel(SensorHub* hub);
