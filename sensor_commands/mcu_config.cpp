// The MCU-wide configuration commands; called by the control commands, start-up and recovery.
#include "sensor_commands/mcu_config.h"

#include <cutils/properties.h>

#include <cstring>

#include "diagnostics/raw_data.h"
#include "platform/log.h"
#include "protocol/system.h"
#include "sensor_commands/command_table.h"

using namespace shd;

McuHealthParam g_mcu_health_param;

namespace {

constexpr char kLogTag[] = "shd";
constexpr uint64_t kMillisPerSecond = 1000;

// Bits of the raw-data type.
constexpr uint16_t kRawDataAlgorithm = 1;
constexpr uint16_t kRawDataHeartRate = 2;
constexpr uint16_t kRawDataBoth = kRawDataAlgorithm | kRawDataHeartRate;

uint8_t LowByte(uint32_t word) {
    return static_cast<uint8_t>(word & 0xFF);
}

// A choice that cannot be kept holds until the next start all the same.
void StoreRawDataType(const char* value) {
    property_set(kRawDataTypeProperty, value);
}

// The daemon's own side of a change. False when the type must not be sent.
bool ApplyRawDataType(uint16_t type) {
    if ((type & kRawDataAlgorithm) != 0) {
        if (!PrepareRawData(RawDataStream::kAlgorithm)) return false;
        StoreRawDataType("1");
    }
    if ((type & kRawDataHeartRate) != 0) {
        if (!PrepareRawData(RawDataStream::kHeartRate)) return false;
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
    McuHealthParam sent;
    {
        // The recovery passes g_mcu_health_param itself.
        const MutexLock lock(g_sensor_state_mutex);
        sent = *param;
        g_mcu_health_param = sent;
    }
    const uint8_t bytes[] = {LowByte(sent.word[0]), LowByte(sent.word[1]),
                             LowByte(sent.word[2]), LowByte(sent.word[2] >> 8),
                             LowByte(sent.word[3]), LowByte(sent.word[3] >> 8)};
    return ExchangeForStatus(hub, {McuOperation::kHealth, 0, bytes});
}

int McuDateTimeConfig(SensorHub* hub, uint32_t seconds) {
    const uint64_t milliseconds = seconds * kMillisPerSecond;
    uint8_t bytes[sizeof(milliseconds)];
    std::memcpy(bytes, &milliseconds, sizeof(bytes));
    return ExchangeForStatus(hub, {McuOperation::kDateTime, 0, bytes});
}

int McuRawDataConfig(SensorHub* hub, uint16_t type) {
    if (!ApplyRawDataType(type)) return -1;
    const uint8_t bytes[] = {LowByte(type), LowByte(static_cast<uint32_t>(type >> 8))};
    return ExchangeForStatus(hub, {McuOperation::kRawData, 0, bytes});
}
