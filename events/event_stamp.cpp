// Stamping and flush accounting of sensor events; used by the event conversion, the step counter
// and, for flush-complete events, the control commands.
#include "events/event_stamp.h"

#include <algorithm>
#include <cstring>

#include "core/hub/sensor_hub.h"
#include "platform/log.h"
#include "sockets/data_server.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "shd";

// Products of numbers that clients and the MCU choose wrap instead of overflowing.
int32_t WrappingProduct(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

int64_t WrappingProduct(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) * static_cast<uint64_t>(b));
}

int64_t WrappingDifference(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

}  // namespace

ReportTiming TimingOf(const SensorState& state, int64_t now) {
    return {now, state.period_ms, state.time_adjust};
}

BatchIndices::BatchIndices(SensorState& state, int32_t samples, int32_t count)
    : wrap_(samples < state.batchcnt ? state.batchcnt : 0), left_(count) {
    if (wrap_ == 0) return;
    left_ = std::max(state.batch_left, 0);
    // A report smaller than the batch goes beyond the end of one batch at most.
    state.batch_left = left_ - samples + (samples > left_ ? wrap_ : 0);
}

int32_t BatchIndices::Next() {
    if (left_ <= 0) left_ = wrap_;
    return --left_;
}

int AddTimeStamp(SensorEvent* event, const ReportTiming& timing, int32_t index) {
    if (event == nullptr) {
        LOGE("AddTimeStamp param null");
        return -1;
    }
    {
        const MutexLock lock(g_sensor_state_mutex);
        SensorState& state = StateOf(event->sensor);
        if (state.flush_pending == 1 && state.flush_count > 0) index = --state.flush_count;
    }
    if (WrappingProduct(timing.period_ms, index) / 1000 >= timing.now) return 0;
    const int64_t interval = timing.period_ms * kNanosPerMilli + timing.time_adjust;
    event->timestamp = WrappingDifference(timing.now, WrappingProduct(int64_t{index}, interval));
    return 0;
}

int AddTimeStamp(SensorEvent* event, int64_t now, int32_t index) {
    ReportTiming timing{};
    if (event != nullptr) {
        const MutexLock lock(g_sensor_state_mutex);
        timing = TimingOf(StateOf(event->sensor), now);
    }
    return AddTimeStamp(event, timing, index);
}

void AccountForFlush(SensorHub* hub, int32_t handle, int32_t consumed) {
    {
        const MutexLock lock(g_sensor_state_mutex);
        SensorState& state = StateOf(handle);
        if (state.flush_count > 0) state.flush_count -= consumed;
        if (state.flush_pending != 1 || state.flush_count > 0) return;
        state.flush_pending = 0;
    }
    SensorEvent event{};
    event.version = kFlushCompleteVersion;
    event.type = kTypeFlushComplete;
    const int32_t words[] = {1, handle};
    std::memcpy(event.data, words, sizeof(words));
    SendEvent(hub, event);
}

void SendFlushComplete(SensorHub* hub, int32_t handle) {
    AccountForFlush(hub, handle, 0);
}

void SendEvent(SensorHub* hub, const SensorEvent& event) {
    hub->data_server->Broadcast(&event, sizeof(event));
}

SensorEvent MakeEvent(int32_t handle) {
    SensorEvent event{};
    event.version = kSampleEventVersion;
    event.sensor = handle;
    event.type = FindSensor(handle)->type;
    return event;
}

void SetDataSlot(SensorEvent* event, size_t slot, float value) {
    std::memcpy(event->data + slot * sizeof(value), &value, sizeof(value));
}
