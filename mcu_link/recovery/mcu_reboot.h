// The recovery of a silent MCU: reset, reopening of the UART, handshake, firmware update as the
// last resort, and restoration of what the MCU knew. Started by StartMcuReboot.
#pragma once

class SensorHub;

// Entry of the reboot thread; argument is the SensorHub.
void* SensorMcuRebootFn(void* argument);

// Runs the recovery on the calling thread, which is the reboot thread: 3 s at least, minutes when
// the firmware has to be written. Clears g_mcu_rebooting on every way out and sets g_mcu_rebooted
// once the MCU is back.
void SensorMcuReboot(SensorHub* hub);
