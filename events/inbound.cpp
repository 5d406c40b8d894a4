// Routing of every inbound message; called by the reader thread.
#include "events/inbound.h"

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "core/hub/sensor_hub.h"
#include "diagnostics/core_dump.h"
#include "diagnostics/raw_data.h"
#include "events/sensor_data.h"
#include "platform/device_path.h"
#include "platform/log.h"
#include "platform/unique_fd.h"
#include "protocol/system.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "shd";
constexpr mode_t kCalibrationMode = 0700;

void LogMcuLine(const McuMessage& message) {
    __android_log_print(ANDROID_LOG_DEBUG, "mcu", "%s", std::string(message.text()).c_str());
}

bool IsCalibrationReply(const McuMessage& message) {
    if (message.type != MCU_TYPE_RESPONSE) return false;
    if (message.channel == MCU_CHANNEL_CTRL) return message.service == MCU_CMD_CALIBRATION;
    return message.channel == MCU_CHANNEL_SENSOR && message.cmd == MCU_CMD_CALIBRATION;
}

}  // namespace

void SaveCalibration(const McuMessage& message) {
    constexpr char kSaveTag[] = "shd_hdlc";
    if (!IsCalibrationReply(message)) return;
    __android_log_print(ANDROID_LOG_DEBUG, kSaveTag, "nvdata save clibration info\n");
    const UniqueFd file(open(DevicePath(kAccCalibrationPath).c_str(),
                             O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, kCalibrationMode));
    if (!file.valid()) return;
    const auto data = message.payload();
    // A full disk shows at the next start, which takes no value that is out of range.
    (void)!write(file.get(), data.data(), data.size());
    __android_log_print(ANDROID_LOG_DEBUG, kSaveTag, "nvdata save clibration info ok\n");
}

int SensorHub::OnEvent(McuMessage* raw_message) {
    McuMessagePtr message(raw_message);
    SaveCalibration(*message);
    switch (message->channel) {
        case MCU_CHANNEL_SENSOR:
            if (message->type == MCU_TYPE_DATA) {
                ProcessSensorData(this, message.get());
            } else {
                reply_queue.EnqueueMessage(message.release());
            }
            break;
        case MCU_CHANNEL_CTRL:
            LOGD("OnEvent Receive Mcu Control response");
            reply_queue.EnqueueMessage(message.release());
            break;
        case MCU_CHANNEL_LOG:
            LogMcuLine(*message);
            break;
        case MCU_CHANNEL_RAWDATA:
            ReceiveMcuRawData(this, message.get());
            break;
        case MCU_CHANNEL_COREDUMP:
            McuCoreDumpProcess(this, message.get());
            break;
        default:
            LOGW("OnEvent Receive Mcu unknown message");
            break;
    }
    return 0;
}
