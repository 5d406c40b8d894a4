// Writes the MCU's low-power control file; called by the reboot procedure at its start and end.
#include "mcu_link/recovery/wake.h"

#include <cstring>
#include <string>

#include "platform/control_file.h"
#include "platform/log.h"
#include "protocol/system.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "shd";

}  // namespace

ssize_t sensorhub_write_proc_file(std::string_view text) {
    const ControlFileResult result = WriteControlFile(kMcuLowPowerPath, text);
    if (!result.opened) {
        LOGE("sensorhub_write_proc_file open %s:%s!\n", kMcuLowPowerPath, strerror(result.error));
        return -1;
    }
    if (result.written < 0) {
        LOGE("sensorhub_write_proc_file err:%s!\n", strerror(result.error));
    } else {
        LOGD("sensorhub_write_proc_file filename:%s %s ret:%d !\n", kMcuLowPowerPath,
             std::string(text).c_str(), static_cast<int>(result.written));
    }
    return result.written;
}

void SensorWakeLockAcquiredLocked(int acquired) {
    (void)sensorhub_write_proc_file(acquired != 0 ? "0" : "1");
    LOGD("SensorWakeLockAcquiredLocked :%d", acquired);
}
