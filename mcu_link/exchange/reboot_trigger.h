// Asking for an MCU reboot, and the words that say how one stands. The exchange and the core-dump
// capture ask; the procedure behind it (mcu_reboot.h) stands above both.
#pragma once

#include <atomic>
#include <cstdint>

class SensorHub;

// 1 from the start of a reboot until its procedure has ended, by any way.
inline std::atomic<int32_t> g_mcu_rebooting{0};

// Not 0 forbids reboots; set by start-up from persist.velmar.shd.mcureboot.
inline std::atomic<int32_t> g_mcu_reboot_disable{0};

// Set to 1 when a rebooted MCU has answered its handshake; cleared by the step counter when it
// re-bases its count.
inline std::atomic<int32_t> g_mcu_rebooted{0};

// Starts the reboot procedure on a thread of its own; safe on any thread, never blocks. Returns 0
// when started, -1 when reboots are forbidden, when one is running or when no thread can be made.
int StartMcuReboot(SensorHub* hub);
