// Whether the MCU's firmware must be replaced, and its replacement through the ROM bootloader.
#pragma once

#include <optional>
#include <string>

// Asks the running application for its version, on a descriptor of its own: about 3 s when the MCU
// stays silent. At most 63 characters; nothing when no valid reply came. Start-up only, before the
// daemon's port is open.
[[nodiscard]] std::optional<std::string> mcu_get_current_version();

// Compares the running firmware with the image file. Returns 0 when the update must run, -1 when
// it must not; in the latter case the MCU has been reset into its application. Start-up only.
[[nodiscard]] int mcu_version_check();

// Writes the image file into the MCU's flash and restarts it: seconds for the erase, and the time
// that the line takes for the image. Owns the line while it runs and leaves the daemon's port,
// when that is open, with its normal settings. A call made while another thread's update runs
// waits for that one and returns its result. Returns 0 when the image was written, otherwise -1.
// From the first reset on a failure leaves the MCU in its bootloader, and so does an image file
// that has become unreadable by the end, which still counts as success.
[[nodiscard]] int mcu_update();
