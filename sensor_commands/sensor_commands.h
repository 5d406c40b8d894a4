// One operation for each thing that the daemon asks of an MCU sensor or of the MCU's basic
// services. Called by the control commands, start-up and the reboot procedure, on the main thread
// or the reboot thread; each blocks as SendSensorMsgAndWait does, with a limit of 2 or 10 s.
//
// Every operation returns 0 for success, -1 for a failed exchange, an empty reply or a bad
// argument, and otherwise the MCU's status byte, 1 to 255. mcu_sensor_id is the MCU's name of a
// sensor (GetMcuSensorId).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

class SensorHub;

// Room that a caller of a text operation provides, zero-filled.
inline constexpr size_t kMcuTextSize = 256;

inline constexpr int kHandshakeTimeoutSec = 2;

// Arguments of the batch command, in the order in which they are sent.
struct SensorBatchArgs {
    int32_t period_ms;    // sampling period
    int32_t batchcnt;     // samples a batch, 0 = no batching
    int32_t batch_extra;  // meaning left to the MCU
};
static_assert(sizeof(SensorBatchArgs) == 12);

int SensorActive(SensorHub* hub, int32_t mcu_sensor_id);

// Leaves the rotation sensor running, with result 0, while both of its handles are enabled.
int SensorDeactive(SensorHub* hub, int32_t mcu_sensor_id);

int SensorSetDelay(SensorHub* hub, int32_t mcu_sensor_id, int32_t delay_ms);
int SensorBatch(SensorHub* hub, int32_t mcu_sensor_id, const SensorBatchArgs& args);
// What the MCU answers to a flush; all 0 when there was no usable answer.
struct SensorFlushReply {
    int32_t announced = 0;  // samples still to come; may be negative
    int32_t accepted = 0;   // the same, 0 when the MCU refused
};
[[nodiscard]] SensorFlushReply SensorFlush(SensorHub* hub, int32_t mcu_sensor_id);

int SensorSelfTest(SensorHub* hub, int32_t mcu_sensor_id);

// Stores McuParameterSize(mcu_sensor_id) bytes at calibration when the MCU returned them; sensors
// without a parameter store nothing.
int SensorCalibration(SensorHub* hub, int32_t mcu_sensor_id, uint8_t* calibration);

// Sends up to 28 parameter bytes; more are not sent at all.
int SensorSetParameter(SensorHub* hub, int32_t mcu_sensor_id, std::span<const uint8_t> value);

// Store a text without a terminator in kMcuTextSize zero-filled bytes. An information text of 256
// bytes or more is an error; a longer version text is cut to 255.
int SensorGetInfo(SensorHub* hub, int32_t mcu_sensor_id, char* text);
int SensorVersion(SensorHub* hub, int text_number, char* text);

// Any reply is success.
int SensorHandshake(SensorHub* hub, int timeout_sec);

// Stores level in persist.velmar.shd.mculog, whatever the MCU answers, and sends it. The first
// byte is 1 except for clients that send another.
int McuLogLevel(SensorHub* hub, int first_byte, int level);
