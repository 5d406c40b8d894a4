// The MCU's sensor and service commands; called by the control commands, start-up and recovery.
#include "sensor_commands/sensor_commands.h"

#include <cutils/properties.h>

#include <array>
#include <cstring>
#include <string>

#include "core/hub/sensor_table.h"
#include "diagnostics/raw_data.h"
#include "mcu_link/byte_order.h"
#include "mcu_link/exchange/exchange.h"
#include "platform/log.h"
#include "protocol/system.h"
#include "sensor_commands/command_table.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "shd";
constexpr int kVersionTexts = 4;

template <typename T>
std::array<uint8_t, sizeof(T)> BytesOf(const T& value) {
    std::array<uint8_t, sizeof(T)> bytes;
    std::memcpy(bytes.data(), &value, bytes.size());
    return bytes;
}

bool AreBothRotationHandlesEnabled() {
    const MutexLock lock(g_sensor_state_mutex);
    return StateOf(kHandleRotationVector).enable != 0 &&
           StateOf(kHandleGameRotationVector).enable != 0;
}

}  // namespace

int SensorActive(SensorHub* hub, int32_t mcu_sensor_id) {
    McuRawDataSaveFileFlag(hub, 0, mcu_sensor_id);  // a missing marker has been reported
    return ExchangeForStatus(hub, {McuOperation::kActive, mcu_sensor_id});
}

int SensorDeactive(SensorHub* hub, int32_t mcu_sensor_id) {
    if (mcu_sensor_id == kMcuRotationVector && AreBothRotationHandlesEnabled()) {
        LOGD("Sensor Deactive rotation sensor not all closed");
        return 0;
    }
    McuRawDataSaveFileFlag(hub, 1, mcu_sensor_id);  // a missing marker has been reported
    return ExchangeForStatus(hub, {McuOperation::kDeactive, mcu_sensor_id});
}

int SensorSetDelay(SensorHub* hub, int32_t mcu_sensor_id, int32_t delay_ms) {
    McuPacket packet{};
    BuildDelayPacket(&packet, mcu_sensor_id, delay_ms);
    return ExchangeForStatus(hub, {McuOperation::kSetDelay, mcu_sensor_id, BytesOf(delay_ms)},
                             packet);
}

int SensorBatch(SensorHub* hub, int32_t mcu_sensor_id, const SensorBatchArgs& args) {
    return ExchangeForStatus(hub, {McuOperation::kBatch, mcu_sensor_id, BytesOf(args)});
}

SensorFlushReply SensorFlush(SensorHub* hub, int32_t mcu_sensor_id) {
    const CommandReply reply = Exchange(hub, {McuOperation::kFlush, mcu_sensor_id});
    if (reply.message == nullptr) return {};
    const int32_t announced = ReadLe<int16_t>(reply.message->data);
    const uint8_t status = reply.message->data[2];
    return {announced, status == 0 ? announced : 0};
}

int SensorSelfTest(SensorHub* hub, int32_t mcu_sensor_id) {
    return ExchangeForStatus(hub, {McuOperation::kSelfTest, mcu_sensor_id});
}

int SensorCalibration(SensorHub* hub, int32_t mcu_sensor_id, uint8_t* calibration) {
    McuCall call{McuOperation::kCalibration, mcu_sensor_id};
    const CommandReply reply = Exchange(hub, call);
    if (reply.message == nullptr) return -1;

    // The status follows the calibration bytes.
    const size_t size = McuParameterSize(mcu_sensor_id);
    const auto data = reply.message->payload();
    call.status = -1;
    if (data.size() > size) {
        if (size > 0) std::memcpy(calibration, data.data(), size);
        call.status = data[size];
    }
    if (call.status != 0) ReportRefusal(call);
    return call.status;
}

int SensorSetParameter(SensorHub* hub, int32_t mcu_sensor_id, std::span<const uint8_t> value) {
    return ExchangeForStatus(hub, {McuOperation::kSetParameter, mcu_sensor_id, value});
}

int SensorGetInfo(SensorHub* hub, int32_t mcu_sensor_id, char* text) {
    if (text == nullptr) {
        LOGE("Sensor GetInfo invalid param");
        return -1;
    }
    const CommandReply reply = Exchange(hub, {McuOperation::kGetInfo, mcu_sensor_id});
    if (reply.message == nullptr) return -1;
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
    const CommandReply reply =
        Exchange(hub, {McuOperation::kVersion, text_number, {}, known ? text_number : 1});
    if (reply.message == nullptr) return -1;
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
    property_set(kMcuLogProperty, std::to_string(level).c_str());  // the MCU counts, not this
    const uint8_t bytes[] = {static_cast<uint8_t>(first_byte), static_cast<uint8_t>(level)};
    return ExchangeForStatus(hub, {McuOperation::kLogLevel, 0, bytes});
}
