// The MCU's low-power control file, used while the MCU is rebooted.
#pragma once

#include <string_view>

#include <sys/types.h>

// Writes text to the low-power control file. Returns what write returned, or -1 when the file
// cannot be opened; both failures are logged.
ssize_t sensorhub_write_proc_file(std::string_view text);

// Keeps the MCU out of low-power mode (acquired not 0) or lets it go back.
void SensorWakeLockAcquiredLocked(int acquired);
