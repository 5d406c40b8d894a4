// Reset sequences of the MCU; used by the firmware update, the version check and the recovery.
#include "update_mcu/gpio.h"

#include <cstring>

#include "platform/control_file.h"
#include "platform/delay.h"
#include "platform/log.h"
#include "protocol/system.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "update_mcu";

// A control file that fails has been reported; the sequence goes on to its end regardless.
void PulseReset(const char* boot0, std::chrono::microseconds low,
                std::chrono::microseconds settle) {
    (void)write_gpio_data_str(kMcuBoot1Path, "0");
    (void)write_gpio_data_str(kMcuBoot0Path, boot0);
    (void)write_gpio_data_str(kMcuResetPath, "0");
    Delay(low);
    (void)write_gpio_data_str(kMcuResetPath, "1");
    Delay(settle);
}

}  // namespace

ssize_t write_gpio_data_str(const char* path, std::string_view text) {
    const ControlFileResult result = WriteControlFile(path, text);
    if (!result.opened) {
        LOGE("write_gpio_data_str open %s:%s!\n", path, strerror(result.error));
        return -1;
    }
    if (result.written < 0) LOGE("write_gpio_data_str err:%s!\n", strerror(result.error));
    return result.written;
}

void set_update_gpio() {
    PulseReset("1", std::chrono::milliseconds(20), std::chrono::milliseconds(80));
}

void set_normal_gpio() {
    PulseReset("0", std::chrono::milliseconds(12), std::chrono::seconds(2));
}
