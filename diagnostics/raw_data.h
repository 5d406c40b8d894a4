// Text logs of the MCU's raw algorithm and heart-rate data below /data/logdata/sensor.
#pragma once

#include <cstdint>

#include "diagnostics/sample_buffers.h"

struct McuMessage;
class SensorHub;

// Makes the stream's sample buffers ready: allocated and zeroed. False, with the reason logged,
// when memory is short; those before it stay.
[[nodiscard]] bool PrepareRawData(RawDataStream stream) EXCLUDES(g_raw_data_mutex);

// Releases every buffer and deletes both logs.
void ReleaseRawData() EXCLUDES(g_raw_data_mutex);

// Logs one raw-data message, borrowed. Returns 0, or -1 for an unknown stream. Reader thread.
int ReceiveMcuRawData(SensorHub* hub, const McuMessage* message) EXCLUDES(g_raw_data_mutex);

// Accumulates the samples of one message and writes them to fd as lines once the last message of a
// run has come. Returns 0, or -1 when the message was dropped.
int ParseMcuRawData(RawDataStream stream, int fd, const McuMessage* message)
    REQUIRES(g_raw_data_mutex);

// Marks the begin (end_flag 0) or the end of a heart-rate recording in its log while heart-rate
// samples are being logged and mcu_sensor_id is the heart-rate sensor's. Returns 0, or -1 when the
// log cannot be opened. Main or reboot thread.
int McuRawDataSaveFileFlag(SensorHub* hub, int end_flag, int32_t mcu_sensor_id)
    EXCLUDES(g_raw_data_mutex);
