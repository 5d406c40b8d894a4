// Sensor reports to events: called by the inbound routing for every data message of the MCU.
#include "events/sensor_data.h"

#include <utils/SystemClock.h>

#include <algorithm>
#include <cstring>
#include <optional>

#include "core/hub/debug_flag.h"
#include "core/hub/sensor_hub.h"
#include "events/event_stamp.h"
#include "events/step_counter.h"
#include "mcu_link/byte_order.h"
#include "platform/log.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "shd";
constexpr int64_t kNanosPerMilli = 1'000'000;

constexpr float kAccelerometerScale = 0.0047856453F;  // m/s^2 per unit
constexpr float kGyroscopeScale = 0.0012211112F;      // rad/s per unit
constexpr float kPressureScale = 0.00048828125F;      // hPa per unit: 1 / 2048
constexpr size_t kRawRecordSize = 10;
constexpr size_t kMotionHealthSize = 16;

// Reader thread only.
StepCounter g_step_counter;

void ConvertAccelerometer(const uint8_t* sample, SensorEvent* event) {
    const auto x = static_cast<float>(ReadLe<int16_t>(sample));
    const auto y = static_cast<float>(ReadLe<int16_t>(sample + 2));
    const auto z = static_cast<float>(ReadLe<int16_t>(sample + 4));
    SetDataSlot(event, 0, y * kAccelerometerScale);
    SetDataSlot(event, 1, -(x * kAccelerometerScale));
    SetDataSlot(event, 2, z * kAccelerometerScale);
}

void ConvertGyroscope(const uint8_t* sample, SensorEvent* event) {
    const auto x = static_cast<float>(ReadLe<int16_t>(sample));
    const auto y = static_cast<float>(ReadLe<int16_t>(sample + 2));
    const auto z = static_cast<float>(ReadLe<int16_t>(sample + 4));
    SetDataSlot(event, 0, x * kGyroscopeScale);
    SetDataSlot(event, 1, -(y * kGyroscopeScale));
    SetDataSlot(event, 2, -(z * kGyroscopeScale));
}

void ConvertPressure(const uint8_t* sample, SensorEvent* event) {
    SetDataSlot(event, 0, static_cast<float>(ReadLe<uint32_t>(sample)) * kPressureScale);
}

void ConvertVector(const uint8_t* sample, SensorEvent* event) {
    std::memcpy(event->data, sample, 3 * sizeof(float));
}

void ConvertRotation(const uint8_t* sample, SensorEvent* event) {
    std::memcpy(event->data, sample, 4 * sizeof(float));
    SetDataSlot(event, 2, -ReadLe<float>(sample + 2 * sizeof(float)));
}

struct BatchedSensor {
    int32_t mcu_sensor_id;
    int32_t handle;
    int32_t type;
    size_t sample_size;      // bytes
    bool measures_interval;  // from the arrival times of its batches
    void (*convert)(const uint8_t* sample, SensorEvent* event);
};

constexpr BatchedSensor kBatchedSensors[] = {
    {kMcuAccelerometer, kHandleAccelerometer, kTypeAccelerometer, 6, true, ConvertAccelerometer},
    {kMcuGyroscope, kHandleGyroscope, kTypeGyroscope, 6, true, ConvertGyroscope},
    {kMcuPressure, kHandlePressure, kTypePressure, 4, true, ConvertPressure},
    {kMcuGravity, kHandleGravity, kTypeGravity, 12, false, ConvertVector},
    {kMcuLinearAcceleration, kHandleLinearAcceleration, kTypeLinearAcceleration, 12, false,
     ConvertVector},
    {kMcuRotationVector, kHandleRotationVector, kTypeRotationVector, 16, false, ConvertRotation},
};

const BatchedSensor* FindBatchedSensor(int32_t mcu_sensor_id) {
    const auto* sensor = std::find_if(std::begin(kBatchedSensors), std::end(kBatchedSensors),
                                      [mcu_sensor_id](const BatchedSensor& entry) {
                                          return entry.mcu_sensor_id == mcu_sensor_id;
                                      });
    return sensor == std::end(kBatchedSensors) ? nullptr : sensor;
}

// How many of a report's count samples are sent: of a report larger than the configured batch only
// the newest batchcnt, unless a flush is pending.
int32_t SamplesToSend(const SensorState& state, int32_t count) REQUIRES(g_sensor_state_mutex) {
    const bool skips = state.batchcnt > 0 && state.flush_pending == 0 && state.batchcnt < count;
    return skips ? state.batchcnt : count;
}

// Takes the mean sample interval from the time between two batches of samples.
void MeasureInterval(SensorState& state, int32_t samples, int64_t now)
    REQUIRES(g_sensor_state_mutex) {
    state.time_adjust = 0;
    if (samples < 2) return;
    if (state.last_time >= 0) {
        state.time_adjust = (now - state.last_time) / samples - state.period_ms * kNanosPerMilli;
    }
    state.last_time = now;
}

// The game rotation vector is the rotation vector without its fourth component, sent first. Each
// of the two goes out only while its own handle is enabled; every other sensor always does.
void SendSample(SensorHub* hub, const SensorEvent& event, bool game_enabled, bool enabled) {
    if (game_enabled) {
        SensorEvent game = event;
        game.sensor = kHandleGameRotationVector;
        game.type = kTypeGameRotationVector;
        SetDataSlot(&game, 3, 0.0F);
        SendEvent(hub, game);
    }
    if (enabled) SendEvent(hub, event);
}

// What a report amounted to.
struct ReportResult {
    int32_t handle;
    int32_t consumed;  // samples
};

ReportResult ProcessRawRecords(SensorHub* hub, std::span<const uint8_t> data, int64_t now) {
    const auto count = static_cast<int32_t>(data.size() / kRawRecordSize);
    SensorEvent event = MakeEvent(kHandleRawRecord, kTypeRawRecord);
    for (int32_t index = count - 1; index >= 0; --index) {
        (void)AddTimeStamp(&event, now, index);
        std::memcpy(event.data, data.data(), kRawRecordSize);
        data = data.subspan(kRawRecordSize);
        SendEvent(hub, event);
    }
    return {kHandleRawRecord, count};
}

ReportResult ProcessHeartRate(SensorHub* hub, std::span<const uint8_t> data, int64_t now) {
    constexpr size_t kReportSize = 8;
    if (data.size() < kReportSize) return {kHandleHeartRate, 0};
    SensorEvent event = MakeEvent(kHandleHeartRate, kTypeHeartRate);
    (void)AddTimeStamp(&event, now, 0);
    const auto bpm = static_cast<float>(ReadLe<uint32_t>(data.data()));
    const auto status = ReadLe<uint32_t>(data.data() + 4);
    SetDataSlot(&event, 0, bpm);
    event.data[4] = static_cast<uint8_t>(status & 0xFF);
    SendEvent(hub, event);
    if (g_shd_log_debug != 0) {
        LOGD("SENSOR_TYPE_HEART_RATE bpm:%f status:%x", static_cast<double>(bpm), status);
    }
    return {kHandleHeartRate, 1};
}

ReportResult ProcessWristTilt(SensorHub* hub, int64_t now) {
    SensorEvent event = MakeEvent(kHandleWristTilt, kTypeWristTilt);
    (void)AddTimeStamp(&event, now, 0);
    if (g_shd_log_debug != 0) LOGD("SENSOR_TYPE_WRIST_TILT_GESTURE event");
    SendEvent(hub, event);
    return {kHandleWristTilt, 1};
}

ReportResult ProcessMotionHealth(SensorHub* hub, std::span<const uint8_t> data, int64_t now) {
    const auto count = static_cast<int32_t>(data.size() / kMotionHealthSize);
    int32_t report_index = count;
    SensorEvent event = MakeEvent(kHandleMotionHealth, kTypeMotionHealth);
    for (int32_t i = 0; i < count; ++i, data = data.subspan(kMotionHealthSize)) {
        int32_t index = 0;
        {
            const MutexLock lock(g_sensor_state_mutex);
            SensorState& state = StateOf(kHandleMotionHealth);
            index = NextBatchIndex(state, count, &report_index);
            StampEvent(state, &event, now, index);
        }
        if (g_shd_log_debug != 0) {
            LOGD("SENSORS_MOTION_HEALTH_HANDLE dataindex:%d date:%u step:%d status:%d", index,
                 ReadLe<uint32_t>(data.data()), ReadLe<uint16_t>(data.data() + 4), data[10]);
        }
        std::memcpy(event.data, data.data(), kMotionHealthSize);
        SendEvent(hub, event);
    }
    return {kHandleMotionHealth, count};
}

ReportResult ProcessOtherReport(SensorHub* hub, const McuMessage& message, int64_t now) {
    switch (message.service) {
        case kMcuRawRecord:
            return ProcessRawRecords(hub, message.payload(), now);
        case kMcuHeartRate:
            return ProcessHeartRate(hub, message.payload(), now);
        case kMcuStepCounter:
            return {kHandleStepCounter, g_step_counter.Process(hub, message, now)};
        case kMcuWristTilt:
            return ProcessWristTilt(hub, now);
        case kMcuMotionHealth:
            return ProcessMotionHealth(hub, message.payload(), now);
        default:
            return {0, 0};  // an unknown sensor's report is accounted to handle 0
    }
}

void AccountForFlush(SensorHub* hub, const ReportResult& result) {
    {
        const MutexLock lock(g_sensor_state_mutex);
        ConsumeFlush(StateOf(result.handle), result.consumed);
    }
    SendFlushComplete(hub, result.handle);
}

}  // namespace

int ProcessSensorData(SensorHub* hub, const McuMessage* message) {
    if (message == nullptr) return -1;
    const int64_t now = android::elapsedRealtimeNano();
    if (!ProcessBatchedData(hub, *message, now)) {
        AccountForFlush(hub, ProcessOtherReport(hub, *message, now));
    }
    return 0;
}

bool ProcessBatchedData(SensorHub* hub, const McuMessage& message, int64_t now) {
    const BatchedSensor* sensor = FindBatchedSensor(message.service);
    if (sensor == nullptr) return false;
    SensorEvent event = MakeEvent(sensor->handle, sensor->type);
    const auto data = message.payload();
    const auto count = static_cast<int32_t>(data.size() / sensor->sample_size);
    int32_t samples = 0;
    {
        const MutexLock lock(g_sensor_state_mutex);
        SensorState& state = StateOf(sensor->handle);
        samples = SamplesToSend(state, count);
        if (sensor->measures_interval) {
            MeasureInterval(state, samples, now);
        } else {
            state.time_adjust = 0;
        }
    }

    int32_t report_index = count;
    for (int32_t i = count - samples; i < count; ++i) {
        bool game_enabled = false;
        bool enabled = true;
        {
            const MutexLock lock(g_sensor_state_mutex);
            SensorState& state = StateOf(sensor->handle);
            const int32_t index = NextBatchIndex(state, samples, &report_index);
            StampEvent(state, &event, now, index);
            if (sensor->handle == kHandleRotationVector) {
                game_enabled = StateOf(kHandleGameRotationVector).enable != 0;
                enabled = state.enable != 0;
            }
        }
        sensor->convert(data.data() + static_cast<size_t>(i) * sensor->sample_size, &event);
        SendSample(hub, event, game_enabled, enabled);
    }
    AccountForFlush(hub, {sensor->handle, samples});
    return true;
}
