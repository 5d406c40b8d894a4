// The MCU-wide configuration commands; called by the control commands, start-up and recovery.
#include "sensor_commands/mcu_config.h"

#include <cutils/properties.h>

#include <cstring>

#include "diagnostics/raw_data.h"
#include "mcu_link/mcu_packet.h"
#include "platform/log.h"
#include "protocol/system.h"
#include "sensor_commands/command_reply.h"

using namespace shd;

std::array<std::atomic<uint32_t>, 4> g_mcu_health_param;

namespace {

constexpr char kLogTag[] = "shd";
constexpr int kQuickTimeoutSec = 2;
constexpr int kSlowTimeoutSec = 10;
constexpr uint64_t kMillisPerSecond = 1000;

constexpr uint16_t kRawDataAlgorithm = 1;
constexpr uint16_t kRawDataHeartRate = 2;
constexpr uint16_t kRawDataBoth = 3;

McuPacket ConfigPacket(int service, int command, std::span<const uint8_t> arguments) {
    McuPacket packet{};
    BuildSensorPacket(&packet, service, command);
    AppendArguments(&packet, arguments);
    return packet;
}

int ExchangeConfig(SensorHub* hub, const McuPacket& packet, const char* name) {
    const CommandReply reply = ExchangeCommand(hub, packet, kQuickTimeoutSec);
    if (reply.fault == ReplyFault::kTimeout) LOGE("%s Msg send/recv error", name);
    if (reply.fault == ReplyFault::kEmpty) LOGE("%s recv invalid data len", name);
    return reply.status();
}

int SendHealthWords(SensorHub* hub) {
    const uint32_t word2 = g_mcu_health_param[2];
    const uint32_t word3 = g_mcu_health_param[3];
    const uint8_t bytes[] = {
        static_cast<uint8_t>(g_mcu_health_param[0] & 0xFF),
        static_cast<uint8_t>(g_mcu_health_param[1] & 0xFF),
        static_cast<uint8_t>(word2 & 0xFF),
        static_cast<uint8_t>((word2 >> 8) & 0xFF),
        static_cast<uint8_t>(word3 & 0xFF),
        static_cast<uint8_t>((word3 >> 8) & 0xFF),
    };
    return ExchangeConfig(hub, ConfigPacket(MCU_SERVICE_HEALTH, MCU_CMD_HEALTH, bytes),
                          "McuHealthConfig");
}

void StoreRawDataType(const char* value) {
    (void)property_set(kRawDataTypeProperty, value);
}

bool Prepare(RawDataKind kind, const char* buffer_name) REQUIRES(g_raw_data_mutex) {
    if (PrepareRawDataBuffer(kind)) return true;
    LOGE("McuRawDataConfig %s alloc failure", buffer_name);
    return false;
}

// The daemon's own side of a change. False when the type must not be sent.
bool ApplyRawDataType(uint16_t type) EXCLUDES(g_raw_data_mutex) {
    const MutexLock lock(g_raw_data_mutex);
    if ((type & kRawDataAlgorithm) != 0) {
        if (!Prepare(RawDataKind::kAlgAcc, "g_p_alg_acc_raw_data")) return false;
        StoreRawDataType("1");
    }
    if ((type & kRawDataHeartRate) != 0) {
        if (!Prepare(RawDataKind::kHrmPpg, "g_p_hrm_ppg_raw_data")) return false;
        if (!Prepare(RawDataKind::kHrmAcc, "g_p_hrm_acc_raw_data")) return false;
        StoreRawDataType("2");
    }
    if ((type & kRawDataBoth) == kRawDataBoth) StoreRawDataType("3");
    if (type >= kRawDataAlgorithm && type <= kRawDataBoth) return true;

    ReleaseRawData();
    StoreRawDataType("0");
    if (type == 0) return true;
    LOGE("McuRawDataConfig not support");
    return false;
}

}  // namespace

int McuHealthConfig(SensorHub* hub, const McuHealthParam* param) {
    if (param == nullptr) {
        LOGE("McuHealthConfig param NULL");
        return -1;
    }
    for (size_t i = 0; i < g_mcu_health_param.size(); ++i) g_mcu_health_param[i] = param->word[i];
    return SendHealthWords(hub);
}

int McuHealthConfigAgain(SensorHub* hub) {
    return SendHealthWords(hub);
}

int McuDateTimeConfig(SensorHub* hub, uint32_t seconds) {
    const uint64_t milliseconds = seconds * kMillisPerSecond;
    uint8_t bytes[sizeof(milliseconds)];
    std::memcpy(bytes, &milliseconds, sizeof(bytes));
    return ExchangeConfig(hub, ConfigPacket(MCU_SERVICE_DATETIME, MCU_CMD_DATETIME, bytes),
                          "McuDateTimeConfig");
}

int McuRawDataConfig(SensorHub* hub, uint16_t type) {
    if (!ApplyRawDataType(type)) return -1;
    const uint8_t bytes[] = {static_cast<uint8_t>(type & 0xFF), static_cast<uint8_t>(type >> 8)};
    const McuPacket packet = ConfigPacket(MCU_SERVICE_LOG, MCU_CMD_RAWDATA, bytes);
    return ExchangeCommand(hub, packet, kSlowTimeoutSec).status();
}
