// Text logs of the MCU's raw algorithm and heart-rate data below /data/logdata/sensor, and the
// sample buffers behind them.
#pragma once

#include <cstdint>

#include "platform/mutex.h"

struct McuMessage;
class SensorHub;

// The sample buffers: one for each kind of samples of each stream.
enum class RawDataKind { kAlgAcc, kHrmPpg, kHrmAcc };

// Guards the sample buffers and their fill counts. Held for one configuration change, or for one
// message with its file writes.
extern Mutex g_raw_data_mutex;

// Allocates the buffer (2048 bytes) when it is not there, and zeroes it; its fill count stays.
// Returns false when memory is short.
[[nodiscard]] bool PrepareRawDataBuffer(RawDataKind kind) REQUIRES(g_raw_data_mutex);

// Releases every buffer and deletes both logs.
void ReleaseRawData() REQUIRES(g_raw_data_mutex);

// Logs one raw-data message, borrowed. Returns 0, or -1 for an unknown stream. Reader thread.
int ReceiveMcuRawData(SensorHub* hub, const McuMessage* message) EXCLUDES(g_raw_data_mutex);

// Accumulates the samples of one message and writes them to fd as lines once the last message of a
// run has come. Returns 0, or -1 when the message was dropped.
int ParseMcuRawData(int stream, int fd, const McuMessage* message) REQUIRES(g_raw_data_mutex);

// Marks the begin (end_flag 0) or the end of a heart-rate recording in its log while heart-rate
// samples are being logged and mcu_sensor_id is the heart-rate sensor's. Returns 0, or -1 when the
// log cannot be opened. Main or reboot thread.
int McuRawDataSaveFileFlag(SensorHub* hub, int end_flag, int32_t mcu_sensor_id)
    EXCLUDES(g_raw_data_mutex);
