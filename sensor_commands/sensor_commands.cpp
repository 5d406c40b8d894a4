// The MCU's sensor and service commands; called by the control commands, start-up and recovery.
#include "sensor_commands/sensor_commands.h"

#include <cutils/properties.h>

#include <cstring>
#include <string>

#include "core/hub/sensor_table.h"
#include "diagnostics/raw_data.h"
#include "mcu_link/exchange/exchange.h"
#include "platform/log.h"
#include "protocol/system.h"
#include "sensor_commands/command_reply.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "shd";
constexpr int kQuickTimeoutSec = 2;
constexpr int kSlowTimeoutSec = 10;
constexpr int kVersionTexts = 4;

McuPacket SensorPacket(int service, int command) {
    McuPacket packet{};
    BuildSensorPacket(&packet, service, command);
    return packet;
}

// Exchanges the command and reports a missing or an empty reply under the command's name.
CommandReply Exchange(SensorHub* hub, const McuPacket& packet, int timeout_sec, const char* name,
                      int id) {
    CommandReply reply = ExchangeCommand(hub, packet, timeout_sec);
    if (reply.fault == ReplyFault::kTimeout) LOGE("Sensor %s :%d timeout", name, id);
    if (reply.fault == ReplyFault::kEmpty) LOGE("Sensor %s :%d data len < 1", name, id);
    return reply;
}

// The status, reported under the name that the failure line uses when the MCU refused.
int CheckedStatus(const CommandReply& reply, const char* failure_name, int id) {
    const int status = reply.status();
    if (status > 0) LOGE("Sensor %s :%d failure ret:%d", failure_name, id, status);
    return status;
}

}  // namespace

int SensorActive(SensorHub* hub, int32_t mcu_sensor_id) {
    (void)McuRawDataSaveFileFlag(hub, 0, mcu_sensor_id);
    const McuPacket packet = SensorPacket(mcu_sensor_id, MCU_CMD_ACTIVE);
    const auto reply = Exchange(hub, packet, kQuickTimeoutSec, "Active", mcu_sensor_id);
    return CheckedStatus(reply, "Active", mcu_sensor_id);
}

int SensorDeactive(SensorHub* hub, int32_t mcu_sensor_id) {
    if (mcu_sensor_id == kMcuRotationVector) {
        bool both_enabled = false;
        {
            const MutexLock lock(g_sensor_state_mutex);
            both_enabled = StateOf(kHandleRotationVector).enable != 0 &&
                           StateOf(kHandleGameRotationVector).enable != 0;
        }
        if (both_enabled) {
            LOGD("Sensor Deactive rotation sensor not all closed");
            return 0;
        }
    }
    const McuPacket packet = SensorPacket(mcu_sensor_id, MCU_CMD_DEACTIVE);
    (void)McuRawDataSaveFileFlag(hub, 1, mcu_sensor_id);
    const auto reply = Exchange(hub, packet, kQuickTimeoutSec, "Deactive", mcu_sensor_id);
    return CheckedStatus(reply, "DeActive", mcu_sensor_id);
}

int SensorSetDelay(SensorHub* hub, int32_t mcu_sensor_id, int32_t delay_ms) {
    McuPacket packet{};
    BuildDelayPacket(&packet, mcu_sensor_id, delay_ms);
    const int status = Exchange(hub, packet, kQuickTimeoutSec, "SetDelay", mcu_sensor_id).status();
    if (status > 0) {
        LOGE("Sensor SetDelay :%d delay_ms:%d failure ret:%d", mcu_sensor_id, delay_ms, status);
    }
    return status;
}

int SensorBatch(SensorHub* hub, int32_t mcu_sensor_id, const SensorBatchArgs& args) {
    McuPacket packet = SensorPacket(mcu_sensor_id, MCU_CMD_BATCH);
    uint8_t bytes[sizeof(args)];
    std::memcpy(bytes, &args, sizeof(bytes));
    AppendArguments(&packet, bytes);
    const int status = Exchange(hub, packet, kQuickTimeoutSec, "Batch", mcu_sensor_id).status();
    if (status > 0) {
        LOGE("Sensor Batch :%d period:%u batchcnt:%u failure ret:%d", mcu_sensor_id,
             static_cast<unsigned>(args.period_ms), static_cast<unsigned>(args.batchcnt), status);
    }
    return status;
}

int SensorSelfTest(SensorHub* hub, int32_t mcu_sensor_id) {
    const McuPacket packet = SensorPacket(mcu_sensor_id, MCU_CMD_SELFTEST);
    const auto reply = Exchange(hub, packet, kSlowTimeoutSec, "SelfTest", mcu_sensor_id);
    return CheckedStatus(reply, "Selftest", mcu_sensor_id);
}

int SensorCalibration(SensorHub* hub, int32_t mcu_sensor_id, uint8_t* calibration) {
    const McuPacket packet = SensorPacket(mcu_sensor_id, MCU_CMD_CALIBRATION);
    const auto reply = Exchange(hub, packet, kSlowTimeoutSec, "Clibration", mcu_sensor_id);
    if (reply.fault != ReplyFault::kNone) return -1;

    // The status follows the calibration bytes.
    const size_t size = McuParameterSize(mcu_sensor_id);
    const auto data = reply.message->payload();
    int status = -1;
    if (data.size() > size) {
        if (size > 0) std::memcpy(calibration, data.data(), size);
        status = data[size];
    }
    if (status != 0) LOGE("Sensor Clibration :%d failure ret:%d", mcu_sensor_id, status);
    return status;
}

int SensorSetParameter(SensorHub* hub, int32_t mcu_sensor_id, std::span<const uint8_t> value) {
    McuPacket packet = SensorPacket(mcu_sensor_id, MCU_CMD_SET_PARAMETER);
    AppendArguments(&packet, value);
    const CommandReply reply = ExchangeCommand(hub, packet, kSlowTimeoutSec);
    if (reply.fault == ReplyFault::kTimeout) LOGE("Sensor SetParameter :%d timeout", mcu_sensor_id);
    return reply.status();
}

int SensorGetInfo(SensorHub* hub, int32_t mcu_sensor_id, char* text) {
    if (text == nullptr) {
        LOGE("Sensor GetInfo invalid param");
        return -1;
    }
    const McuPacket packet = SensorPacket(mcu_sensor_id, MCU_CMD_GET_INFO);
    const auto reply = Exchange(hub, packet, kSlowTimeoutSec, "GetInfo", mcu_sensor_id);
    if (reply.fault != ReplyFault::kNone) return -1;
    const std::string_view info = reply.message->text();
    if (info.size() >= kMcuTextSize) {
        LOGE("Sensor GetInfo :%d data too long", mcu_sensor_id);
        return -1;
    }
    info.copy(text, info.size());
    LOGE("Sensor GetInfo :%s", text);
    return 0;
}

int SensorVersion(SensorHub* hub, int text_number, char* text) {
    if (text == nullptr) {
        LOGE("Sensor Version invalid param");
        return -1;
    }
    const bool known = text_number >= 0 && text_number < kVersionTexts;
    const McuPacket packet = SensorPacket(MCU_SERVICE_VERSION, known ? text_number : 1);
    const auto reply = Exchange(hub, packet, kSlowTimeoutSec, "Version", text_number);
    if (reply.fault != ReplyFault::kNone) return -1;
    reply.message->text().copy(text, kMcuTextSize - 1);
    return 0;
}

int SensorHandshake(SensorHub* hub, int timeout_sec) {
    McuPacket packet{};
    BuildCtrlPacket(&packet, MCU_CMD_HANDSHAKE);
    McuMessagePtr reply;
    return SendSensorMsgAndWait(hub, packet, &reply, timeout_sec);
}

int McuLogLevel(SensorHub* hub, int first_byte, int level) {
    (void)property_set(kMcuLogProperty, std::to_string(level).c_str());
    McuPacket packet = SensorPacket(MCU_SERVICE_LOG, MCU_CMD_LOG_LEVEL);
    const uint8_t bytes[] = {static_cast<uint8_t>(first_byte), static_cast<uint8_t>(level)};
    AppendArguments(&packet, bytes);
    return ExchangeCommand(hub, packet, kSlowTimeoutSec).status();
}
