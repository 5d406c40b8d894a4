// The MCU's boot pins and its reset line, driven through control files below /proc/mcu.
#pragma once

#include <string_view>

#include <sys/types.h>

// Writes text to a control file. Returns what write returned, or -1 when the file cannot be
// opened; both failures are logged.
ssize_t write_gpio_data_str(const char* path, std::string_view text);

// Resets the MCU into its ROM bootloader and waits until it has settled (100 ms in all).
void set_update_gpio();

// Resets the MCU into its application and waits until that has started (2 s).
void set_normal_gpio();
