// Time stamps of samples, the batch index and the flush accounting: the steps that every kind of
// sensor event shares.
#pragma once

#include <cstdint>

#include "core/hub/sensor_table.h"
#include "protocol/event.h"

class SensorHub;

inline constexpr int64_t kNanosPerMilli = 1'000'000;

// What the samples of one report are stamped with, as it stood when the report arrived: settings
// that a command changes meanwhile count from the next report on.
struct ReportTiming {
    int64_t now;          // ns of android::elapsedRealtimeNano: arrival
    int32_t period_ms;    // sampling period last requested
    int64_t time_adjust;  // ns, see SensorState
};

[[nodiscard]] ReportTiming TimingOf(const SensorState& state, int64_t now)
    REQUIRES(g_sensor_state_mutex);

// The indices of a report's samples, counted from the end of their batch. A configured batch
// (batchcnt) that arrives in several reports is counted down across them; otherwise the indices
// count within the report. Takes the whole report's share of the countdown at construction.
class BatchIndices {
  public:
    // samples: how many of the report's count samples are sent.
    BatchIndices(SensorState& state, int32_t samples, int32_t count) REQUIRES(g_sensor_state_mutex);

    // Called once for each sample sent, in their order.
    [[nodiscard]] int32_t Next();

  private:
    int32_t wrap_;  // batch size of a countdown across reports, 0 within the report
    int32_t left_;
};

// Stamps the event of a sample that lies index sample intervals before the report's arrival. While
// a flush of the event's sensor is pending its countdown takes the index's place. The time stamp
// stays as it is when period_ms * index / 1000, computed in 32 bits and wrapping, reaches the
// arrival time. Returns 0, or -1 without an event.
int AddTimeStamp(shd::SensorEvent* event, const ReportTiming& timing, int32_t index)
    EXCLUDES(g_sensor_state_mutex);

// The same for a report of one sample, which arrived at now.
int AddTimeStamp(shd::SensorEvent* event, int64_t now, int32_t index)
    EXCLUDES(g_sensor_state_mutex);

// Takes consumed samples of a report off what a pending flush of the handle still waits for, and
// sends its flush-complete event when none remain: one step, so that a flush that is counted
// meanwhile is either seen whole or not at all. Reader thread.
void AccountForFlush(SensorHub* hub, int32_t handle, int32_t consumed)
    EXCLUDES(g_sensor_state_mutex);

// Sends the flush-complete event of a handle when its flush is pending and no samples remain.
// Reader thread or main thread.
void SendFlushComplete(SensorHub* hub, int32_t handle) EXCLUDES(g_sensor_state_mutex);

// Sends the event to every data client.
void SendEvent(SensorHub* hub, const shd::SensorEvent& event);

// A zeroed sample event of the sensor of a handle that has one.
[[nodiscard]] shd::SensorEvent MakeEvent(int32_t handle);

// Stores a value in one of the event's sixteen 32-bit data slots.
void SetDataSlot(shd::SensorEvent* event, size_t slot, float value);
