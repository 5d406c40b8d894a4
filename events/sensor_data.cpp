// Sensor reports to events: called by the inbound routing for every data message of the MCU.
#include "events/sensor_data.h"

#include <utils/SystemClock.h>

#include <algorithm>
#include <cstring>
#include <span>

#include "core/hub/debug_flag.h"
#include "core/hub/sensor_hub.h"
#include "events/event_stamp.h"
#include "events/sample_conversion.h"
#include "events/step_counter.h"
#include "mcu_link/byte_order.h"
#include "platform/log.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "shd";
constexpr int32_t kNoHandle = -1;

struct ReportFormat;

// A report on its way to the clients.
struct Report {
    SensorHub* hub;
    const ReportFormat& format;
    std::span<const uint8_t> data;
    int64_t now;  // ns: arrival

    // Whole samples; a rest is not looked at.
    [[nodiscard]] int32_t count() const;
    [[nodiscard]] const uint8_t* Sample(int32_t number) const;
};

// How an MCU sensor reports, one row a sensor.
struct ReportFormat {
    int32_t handle;
    SampleConversion sample;                   // of an opaque one the size alone
    int32_t (*process)(const Report& report);  // sends the events, returns the samples consumed
    bool measures_interval = false;            // from the arrival times of its batches
    // Gets a copy of each sample without its fourth value, ahead of it. Each of the two handles
    // then has its events only while it is enabled itself; every other sensor always has them.
    int32_t companion = kNoHandle;
};

int32_t Report::count() const {
    return static_cast<int32_t>(data.size() / format.sample.size);
}

const uint8_t* Report::Sample(int32_t number) const {
    return data.data() + static_cast<size_t>(number) * format.sample.size;
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

// All that the samples of one report need to know, read in one step.
struct ReportSettings {
    int32_t samples;  // to be sent
    ReportTiming timing;
    BatchIndices indices;
    bool enabled = true;
    bool companion_enabled = false;
};

ReportSettings ReadBatchSettings(const Report& report) EXCLUDES(g_sensor_state_mutex) {
    const ReportFormat& format = report.format;
    const MutexLock lock(g_sensor_state_mutex);
    SensorState& state = StateOf(format.handle);
    const int32_t samples = SamplesToSend(state, report.count());
    if (format.measures_interval) {
        MeasureInterval(state, samples, report.now);
    } else {
        state.time_adjust = 0;
    }
    ReportSettings settings{samples, TimingOf(state, report.now),
                            BatchIndices(state, samples, report.count())};
    if (format.companion != kNoHandle) {
        settings.enabled = state.enable != 0;
        settings.companion_enabled = StateOf(format.companion).enable != 0;
    }
    return settings;
}

void SendCompanion(SensorHub* hub, SensorEvent event, int32_t handle) {
    event.sensor = handle;
    event.type = FindSensor(handle)->type;
    SetDataSlot(&event, 3, 0.0F);
    SendEvent(hub, event);
}

int32_t ProcessBatchedData(const Report& report) {
    ReportSettings settings = ReadBatchSettings(report);
    SensorEvent event = MakeEvent(report.format.handle);
    const int32_t count = report.count();
    for (int32_t i = count - settings.samples; i < count; ++i) {
        AddTimeStamp(&event, settings.timing, settings.indices.Next());
        report.format.sample.convert(report.Sample(i), &event);
        if (settings.companion_enabled) SendCompanion(report.hub, event, report.format.companion);
        if (settings.enabled) SendEvent(report.hub, event);
    }
    return settings.samples;
}

int32_t ProcessRawRecords(const Report& report) {
    const int32_t count = report.count();
    SensorEvent event = MakeEvent(report.format.handle);
    ReportTiming timing{};
    {
        const MutexLock lock(g_sensor_state_mutex);
        timing = TimingOf(StateOf(report.format.handle), report.now);
    }
    for (int32_t i = 0; i < count; ++i) {
        AddTimeStamp(&event, timing, count - 1 - i);
        std::memcpy(event.data, report.Sample(i), report.format.sample.size);
        SendEvent(report.hub, event);
    }
    return count;
}

int32_t ProcessHeartRate(const Report& report) {
    if (report.count() == 0) return 0;
    SensorEvent event = MakeEvent(report.format.handle);
    AddTimeStamp(&event, report.now, 0);
    report.format.sample.convert(report.Sample(0), &event);
    SendEvent(report.hub, event);
    if (g_shd_log_debug != 0) {
        LOGD("SENSOR_TYPE_HEART_RATE bpm:%f status:%x",
             static_cast<double>(ReadLe<float>(event.data)),
             ReadLe<uint32_t>(report.Sample(0) + 4));
    }
    return 1;
}

int32_t ProcessStepCounter(const Report& report) {
    if (report.count() == 0) return 0;
    ProcessStepCount(report.hub, ReadLe<uint32_t>(report.Sample(0)), report.now);
    return 1;
}

// The gesture is the report; its bytes are not looked at.
int32_t ProcessWristTilt(const Report& report) {
    SensorEvent event = MakeEvent(report.format.handle);
    AddTimeStamp(&event, report.now, 0);
    if (g_shd_log_debug != 0) LOGD("SENSOR_TYPE_WRIST_TILT_GESTURE event");
    SendEvent(report.hub, event);
    return 1;
}

ReportSettings ReadRecordSettings(const Report& report) EXCLUDES(g_sensor_state_mutex) {
    const int32_t count = report.count();
    const MutexLock lock(g_sensor_state_mutex);
    SensorState& state = StateOf(report.format.handle);
    return {count, TimingOf(state, report.now), BatchIndices(state, count, count)};
}

int32_t ProcessMotionHealth(const Report& report) {
    ReportSettings settings = ReadRecordSettings(report);
    SensorEvent event = MakeEvent(report.format.handle);
    for (int32_t i = 0; i < settings.samples; ++i) {
        const uint8_t* record = report.Sample(i);
        const int32_t index = settings.indices.Next();
        if (g_shd_log_debug != 0) {
            LOGD("SENSORS_MOTION_HEALTH_HANDLE dataindex:%d date:%u step:%d status:%d", index,
                 ReadLe<uint32_t>(record), ReadLe<uint16_t>(record + 4), record[10]);
        }
        AddTimeStamp(&event, settings.timing, index);
        std::memcpy(event.data, record, report.format.sample.size);
        SendEvent(report.hub, event);
    }
    return settings.samples;
}

constexpr ReportFormat kReportFormats[] = {
    {kHandleAccelerometer, kConversion<McuAxes, ConvertAccelerometer>, ProcessBatchedData, true},
    {kHandleGyroscope, kConversion<McuAxes, ConvertGyroscope>, ProcessBatchedData, true},
    {kHandlePressure, kConversion<uint32_t, ConvertPressure>, ProcessBatchedData, true},
    {kHandleGravity, kConversion<McuVector, ConvertVector>, ProcessBatchedData},
    {kHandleLinearAcceleration, kConversion<McuVector, ConvertVector>, ProcessBatchedData},
    {kHandleRotationVector, kConversion<McuRotation, ConvertRotation>, ProcessBatchedData, false,
     kHandleGameRotationVector},
    {kHandleRawRecord, {10}, ProcessRawRecords},
    {kHandleHeartRate, kConversion<McuHeartRate, ConvertHeartRate>, ProcessHeartRate},
    {kHandleStepCounter, {sizeof(uint32_t)}, ProcessStepCounter},
    {kHandleWristTilt, {1}, ProcessWristTilt},
    {kHandleMotionHealth, {16}, ProcessMotionHealth},
};

// Every sensor of the MCU, and no virtual one, has its events from a row.
static_assert(std::all_of(std::begin(kSensors), std::end(kSensors), [](const SensorFacts& sensor) {
    return sensor.is_virtual != std::any_of(std::begin(kReportFormats), std::end(kReportFormats),
                                            [&sensor](const ReportFormat& format) {
                                                return format.handle == sensor.handle ||
                                                       format.companion == sensor.handle;
                                            });
}));

const ReportFormat* FindReportFormat(int32_t mcu_sensor_id) {
    const auto* format = std::find_if(std::begin(kReportFormats), std::end(kReportFormats),
                                      [mcu_sensor_id](const ReportFormat& candidate) {
                                          return GetMcuSensorId(candidate.handle) == mcu_sensor_id;
                                      });
    return format == std::end(kReportFormats) ? nullptr : format;
}

}  // namespace

int ProcessSensorData(SensorHub* hub, const McuMessage* message) {
    if (message == nullptr) return -1;
    const int64_t now = android::elapsedRealtimeNano();
    const ReportFormat* format = FindReportFormat(message->service);
    if (format == nullptr) {
        SendFlushComplete(hub, 0);  // an unknown sensor's report is accounted to handle 0
        return 0;
    }
    const int32_t consumed = format->process({hub, *format, message->payload(), now});
    AccountForFlush(hub, format->handle, consumed);
    return 0;
}
