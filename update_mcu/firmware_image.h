// Reading the firmware image file /system/bin/mcu.bin and writing it into the MCU's flash. The
// update procedure and the version check call it.
#pragma once

#include "protocol/image_header.h"

// Reads the image's header; a shorter file leaves the rest 0, and the version is terminated in any
// case. Returns 0, or -1 without a destination or when the file cannot be opened.
[[nodiscard]] int get_mcu_head(shd::mcu_head* head);

// Writes the whole payload into the erased flash, in order of addresses. The update port must be
// open and past its handshake. Returns 0, or -1 at the first failure; what has been written stays.
[[nodiscard]] int mcu_image_update();
