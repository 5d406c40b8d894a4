// The parameters and the log level of a freshly started MCU; sent by start-up and by recovery.
#include "sensor_commands/mcu_parameters.h"

#include <cutils/properties.h>

#include <array>
#include <cstdlib>
#include <cstring>

#include "core/hub/sensor_map.h"
#include "protocol/system.h"
#include "sensor_commands/sensor_commands.h"

using namespace shd;

int16_t g_acc_calibration[3] = {0, 0, 0};
int32_t g_baro_calibration = 0;
const int32_t g_mcu_param_23 = 5;
const int32_t g_mcu_param_17 = 0;

namespace {

constexpr int kHighestLogLevel = 5;

template <typename T>
void SendParameter(SensorHub* hub, int32_t mcu_sensor_id, const T& value) {
    std::array<uint8_t, sizeof(value)> bytes;
    std::memcpy(bytes.data(), &value, bytes.size());
    SensorSetParameter(hub, mcu_sensor_id, bytes);
}

}  // namespace

void SendMcuParameters(SensorHub* hub) {
    SendParameter(hub, kMcuAccelerometer, g_acc_calibration);
    SendParameter(hub, kMcuPressure, g_baro_calibration);
    SendParameter(hub, kMcuRawRecord, g_mcu_param_23);
    SendParameter(hub, kMcuGyroscope, g_mcu_param_17);
}

std::optional<int> RestoreMcuLogLevel(SensorHub* hub) {
    char value[PROPERTY_VALUE_MAX];
    if (property_get(kMcuLogProperty, value, nullptr) == 0) return std::nullopt;
    const int level = std::atoi(value);
    if (level < 0 || level > kHighestLogLevel) return std::nullopt;
    McuLogLevel(hub, 1, level);
    return level;
}
