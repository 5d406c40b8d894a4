// Step-counter reports and the two virtual sensors behind them; called by the event conversion.
#include "events/step_counter.h"

#include <cstring>

#include "core/hub/debug_flag.h"
#include "events/event_stamp.h"
#include "mcu_link/byte_order.h"
#include "mcu_link/exchange/reboot_trigger.h"
#include "mcu_link/mcu_packet.h"
#include "platform/log.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "shd";
constexpr int64_t kSignificantMotionPauseNs = 10'000'000'000;

}  // namespace

int32_t StepCounter::Process(SensorHub* hub, const McuMessage& message, int64_t now) {
    const auto data = message.payload();
    if (data.size() < sizeof(uint32_t)) return 0;
    SensorEvent event = MakeEvent(kHandleStepCounter, kTypeStepCounter);
    (void)AddTimeStamp(&event, now, 0);

    const auto mcu_step = ReadLe<uint32_t>(data.data());
    if (g_mcu_rebooted.exchange(0) != 0) last_reset_ = last_step_;
    const uint32_t value = mcu_step + last_reset_;
    SendDetectedSteps(hub, value, event.timestamp);
    SendSignificantMotion(hub, value, event.timestamp);
    if (g_shd_log_debug != 0) {
        LOGD("SENSOR_TYPE_STEP_COUNTER step:%u", value);
        LOGD("SENSOR_TYPE_STEP_COUNTER history mcu step:%u value:%u last_step:%u last_reset:%u",
             mcu_step, value, last_step_, last_reset_);
    }
    last_step_ = value;

    const uint64_t wide = value;
    std::memcpy(event.data, &wide, sizeof(wide));
    SendEvent(hub, event);
    return 1;
}

void StepCounter::SendDetectedSteps(SensorHub* hub, uint32_t value, int64_t timestamp) const {
    {
        const MutexLock lock(g_sensor_state_mutex);
        if (StateOf(kHandleStepDetector).virtual_enable == 0) return;
    }
    SensorEvent event = MakeEvent(kHandleStepDetector, kTypeStepCounter);
    event.timestamp = timestamp;
    SetDataSlot(&event, 0, 1.0F);
    const auto steps = static_cast<int32_t>(value - last_step_);
    for (int32_t i = 0; i < steps; ++i) SendEvent(hub, event);
}

void StepCounter::SendSignificantMotion(SensorHub* hub, uint32_t value, int64_t timestamp) const {
    {
        const MutexLock lock(g_sensor_state_mutex);
        SensorState& state = StateOf(kHandleSignificantMotion);
        if (state.virtual_enable == 0) return;
        if (state.last_time < 0 || timestamp < state.last_time) state.last_time = 0;
        if (value == last_step_ || timestamp - state.last_time <= kSignificantMotionPauseNs) return;
        state.last_time = timestamp;
    }
    SensorEvent event = MakeEvent(kHandleSignificantMotion, kTypeSignificantMotion);
    event.timestamp = timestamp;
    SetDataSlot(&event, 0, 1.0F);
    SendEvent(hub, event);
}
