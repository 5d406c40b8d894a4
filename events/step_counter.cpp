// Step-counter reports and the two virtual sensors behind them; called by the event conversion.
#include "events/step_counter.h"

#include <cstring>

#include "core/hub/debug_flag.h"
#include "core/hub/sensor_hub.h"
#include "events/event_stamp.h"
#include "mcu_link/exchange/reboot_trigger.h"
#include "mcu_link/line.h"
#include "platform/log.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "shd";
constexpr int32_t kLongRun = 10'000;  // more steps than a day has between two reports
constexpr int64_t kSignificantMotionPauseNs = 10'000'000'000;

bool IsDetectorOn() EXCLUDES(g_sensor_state_mutex) {
    const MutexLock lock(g_sensor_state_mutex);
    return StateOf(kHandleStepDetector).virtual_enable != 0;
}

void SendDetectedSteps(SensorHub* hub, uint32_t value, int64_t timestamp) {
    SensorEvent event = MakeEvent(kHandleStepDetector);
    event.timestamp = timestamp;
    SetDataSlot(&event, 0, 1.0F);
    const auto steps = static_cast<int32_t>(value - g_step_history.last_step);
    for (int32_t i = 0; i < steps; ++i) {
        // A jump of the count makes a long run, whose end nobody must have to wait for: a reply
        // that is not read in time would make a healthy MCU look silent.
        if (!IsDetectorOn() || g_line.hold_requested()) return;
        if (i >= kLongRun && hub->replies_awaited != 0) return;
        SendEvent(hub, event);
    }
}

void SendSignificantMotion(SensorHub* hub, uint32_t value, int64_t timestamp) {
    {
        const MutexLock lock(g_sensor_state_mutex);
        SensorState& state = StateOf(kHandleSignificantMotion);
        if (state.virtual_enable == 0) return;
        if (state.last_time < 0 || timestamp < state.last_time) state.last_time = 0;
        if (value == g_step_history.last_step) return;
        if (timestamp - state.last_time <= kSignificantMotionPauseNs) return;
        state.last_time = timestamp;
    }
    SensorEvent event = MakeEvent(kHandleSignificantMotion);
    event.timestamp = timestamp;
    SetDataSlot(&event, 0, 1.0F);
    SendEvent(hub, event);
}

}  // namespace

StepHistory g_step_history{};

void ProcessStepCount(SensorHub* hub, uint32_t mcu_step, int64_t now) {
    StepHistory& history = g_step_history;
    SensorEvent event = MakeEvent(kHandleStepCounter);
    AddTimeStamp(&event, now, 0);

    if (g_mcu_rebooted.exchange(0) != 0) history.last_reset = history.last_step;
    const uint32_t value = mcu_step + history.last_reset;
    SendDetectedSteps(hub, value, event.timestamp);
    SendSignificantMotion(hub, value, event.timestamp);
    if (g_shd_log_debug != 0) {
        LOGD("SENSOR_TYPE_STEP_COUNTER step:%u", value);
        LOGD("SENSOR_TYPE_STEP_COUNTER history mcu step:%u value:%u last_step:%u last_reset:%u",
             mcu_step, value, history.last_step, history.last_reset);
    }
    history.last_step = value;

    const uint64_t wide = value;
    std::memcpy(event.data, &wide, sizeof(wide));
    SendEvent(hub, event);
}
