// The MCU-wide configurations: motion-health settings, the MCU's clock and the raw-data stream.
// Called by the control commands, start-up and recovery, on the main or the reboot thread; each
// blocks as SendSensorMsgAndWait does, with the limit given.
//
// Every operation returns the MCU's status byte, 0 to 255, or -1 when no usable reply came or the
// request was refused.
#pragma once

#include <cstdint>

#include "core/hub/sensor_table.h"

class SensorHub;

// Settings of the motion-health algorithm; the daemon passes the words on without a look at them.
struct McuHealthParam {
    uint32_t word[4];
};
static_assert(sizeof(McuHealthParam) == 16);

// The last settings passed to McuHealthConfig, by the main thread; the recovery passes them again.
extern McuHealthParam g_mcu_health_param GUARDED_BY(g_sensor_state_mutex);

// Remembers the settings, which may be the remembered ones, then sends them narrowed to 8, 8, 16
// and 16 bits. 2 s.
int McuHealthConfig(SensorHub* hub, const McuHealthParam* param);

// Sets the MCU's clock to a wall-clock time in seconds since the epoch. 2 s.
int McuDateTimeConfig(SensorHub* hub, uint32_t seconds);

// Selects the raw data that the MCU streams: bit 0 algorithm data, bit 1 heart-rate data, 0 off.
// Prepares or releases the sample buffers, deletes the logs when switched off, and keeps the
// choice in persist.velmar.shd.rawdatatype. Types above 3 switch it off here only and give -1.
// 10 s.
int McuRawDataConfig(SensorHub* hub, uint16_t type);
