// Time stamps of samples, the batch index and the flush accounting: the steps that every kind of
// sensor event shares.
#pragma once

#include <cstdint>

#include "core/hub/sensor_table.h"
#include "protocol/event.h"

class SensorHub;

// Index of the next sample of a report, counted from the end of its batch. A configured batch
// (batchcnt) that arrives in several reports is counted down across them; index, which starts at
// the report's sample count, counts within the report otherwise.
[[nodiscard]] int32_t NextBatchIndex(SensorState& state, int32_t count, int32_t* index)
    REQUIRES(g_sensor_state_mutex);

// Stamps the event of a sample that lies index sample intervals before now (ns). While a flush is
// pending its countdown takes the index's place. The time stamp stays as it is when
// period_ms * index / 1000, computed in 32 bits and wrapping, reaches now.
void StampEvent(SensorState& state, shd::SensorEvent* event, int64_t now, int32_t index)
    REQUIRES(g_sensor_state_mutex);

// StampEvent for the sensor that the event names. Returns 0, or -1 without an event.
int AddTimeStamp(shd::SensorEvent* event, int64_t now, int32_t index)
    EXCLUDES(g_sensor_state_mutex);

// Takes consumed samples of a report off what a pending flush still waits for.
void ConsumeFlush(SensorState& state, int32_t consumed) REQUIRES(g_sensor_state_mutex);

// Sends the flush-complete event of a handle when its flush is pending and no samples remain.
// Reader thread or main thread.
void SendFlushComplete(SensorHub* hub, int32_t handle) EXCLUDES(g_sensor_state_mutex);

// Sends the event to every data client.
void SendEvent(SensorHub* hub, const shd::SensorEvent& event);

// A zeroed sample event.
[[nodiscard]] shd::SensorEvent MakeEvent(int32_t handle, int32_t type);

// Stores a value in one of the event's sixteen 32-bit data slots.
void SetDataSlot(shd::SensorEvent* event, size_t slot, float value);
