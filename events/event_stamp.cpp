// Stamping and flush accounting of sensor events; used by the event conversion, the step counter
// and, for flush-complete events, the control commands.
#include "events/event_stamp.h"

#include <cstring>

#include "core/hub/sensor_hub.h"
#include "platform/log.h"
#include "sockets/data_server.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "shd";
constexpr int64_t kNanosPerMilli = 1'000'000;

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

int32_t NextBatchIndex(SensorState& state, int32_t count, int32_t* index) {
    if (count >= state.batchcnt) return --*index;
    if (state.batch_left <= 0) state.batch_left = state.batchcnt;
    return --state.batch_left;
}

void StampEvent(SensorState& state, SensorEvent* event, int64_t now, int32_t index) {
    if (state.flush_pending == 1 && state.flush_count > 0) index = --state.flush_count;
    if (WrappingProduct(state.period_ms, index) / 1000 >= now) return;
    const int64_t interval = state.period_ms * kNanosPerMilli + state.time_adjust;
    event->timestamp = WrappingDifference(now, WrappingProduct(int64_t{index}, interval));
}

int AddTimeStamp(SensorEvent* event, int64_t now, int32_t index) {
    if (event == nullptr) {
        LOGE("AddTimeStamp param null");
        return -1;
    }
    const MutexLock lock(g_sensor_state_mutex);
    StampEvent(StateOf(event->sensor), event, now, index);
    return 0;
}

void ConsumeFlush(SensorState& state, int32_t consumed) {
    if (state.flush_count > 0) state.flush_count -= consumed;
}

void SendFlushComplete(SensorHub* hub, int32_t handle) {
    {
        const MutexLock lock(g_sensor_state_mutex);
        SensorState& state = StateOf(handle);
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

void SendEvent(SensorHub* hub, const SensorEvent& event) {
    (void)hub->data_server->Broadcast(&event, sizeof(event));
}

SensorEvent MakeEvent(int32_t handle, int32_t type) {
    SensorEvent event{};
    event.version = kSampleEventVersion;
    event.sensor = handle;
    event.type = type;
    return event;
}

void SetDataSlot(SensorEvent* event, size_t slot, float value) {
    std::memcpy(event->data + slot * sizeof(value), &value, sizeof(value));
}
