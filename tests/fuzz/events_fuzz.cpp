// The events of sensor reports against the model of them. The input is a list of steps, each a byte
// and what it needs: settings of a sensor, a flush, an MCU that restarted, time that passes, and
// above those the id of an MCU sensor that reports a block of data.
#include "core/hub/debug_flag.h"
#include "events/step_counter.h"
#include "mcu_link/exchange/reboot_trigger.h"
#include "tests/fuzz/event_model.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/test_hub.h"

namespace {

using namespace shdtest;

enum StepKind : uint8_t { kSettings, kFlush, kReboot, kTime, kFirstReport };

constexpr size_t kMaxBlock = 600;      // bytes: what the client's socket holds of events
constexpr uint32_t kStepsAtOnce = 64;  // likewise, of the step detector

// The state as the daemon has it, in the model's terms.
ModelSensor StateNow(int32_t handle) {
    const SensorState& s = State(handle);
    return {s.enable,    s.period_ms,   s.batchcnt,      s.batch_left, s.virtual_enable,
            s.last_time, s.time_adjust, s.flush_pending, s.flush_count};
}

void SetState(int32_t handle, const ModelSensor& m) {
    State(handle) = {m.enable,    m.period_ms,   m.batchcnt,      m.batch_left, m.virtual_enable,
                     m.last_time, m.time_adjust, m.flush_pending, m.flush_count};
}

struct Target : TestHub {
    EventModel model;

    void Change(StepKind kind, Input& input);
    void ReportBoth(uint8_t id, Input& input);
};

void Target::Change(StepKind kind, Input& input) {
    if (kind == kReboot) {
        model.rebooted = true;
        g_mcu_rebooted = 1;
    } else if (kind == kTime) {
        g_elapsed_ns += input.Number<uint32_t>() * int64_t{input.Number()};
    } else {
        const int32_t handle = input.Number() % shd::kSensorHandleCount;
        ModelSensor& sensor = model.sensors[static_cast<size_t>(handle)];
        if (kind == kFlush) {
            sensor.flush_pending = 1;
            sensor.flush_count = input.Number<int32_t>();
        } else {
            const uint8_t bits = input.Number();
            sensor.enable = bits & 1;
            sensor.virtual_enable = bits >> 1 & 1;
            sensor.period_ms = input.Number<int32_t>();
            sensor.batchcnt = input.Number<int32_t>();
            sensor.last_time = -1;
            sensor.time_adjust = 0;
        }
        SetState(handle, sensor);
    }
}

void Target::ReportBoth(uint8_t id, Input& input) {
    const auto block = input.Block<uint16_t>();
    std::vector<uint8_t> packet = {1, 2, id, 0};
    const auto data = block.first(std::min(block.size(), kMaxBlock));
    packet.insert(packet.end(), data.begin(), data.end());
    if (id == 48 && data.size() >= 4 && State(18).virtual_enable != 0) {
        // A few steps more than the last value, whatever the report's other bytes say.
        const uint32_t base =
            model.rebooted ? 0 : g_step_history.last_step - g_step_history.last_reset;
        const uint32_t steps = base + packet[4] % kStepsAtOnce;
        std::memcpy(packet.data() + 4, &steps, sizeof(steps));
    }
    McuMessagePtr message;
    Require(ParseMcuMessage(packet, &message) == 0, "the packet is one");
    (void)hub.OnEvent(message.release());
    const std::vector<shd::SensorEvent> events = TakeEvents();
    const auto expected = model.Report(id, std::span(packet).subspan(4), g_elapsed_ns);
    Require(events.size() == expected.size(), "the number of events");
    const size_t size = events.size() * sizeof(shd::SensorEvent);
    Require(size == 0 || std::memcmp(events.data(), expected.data(), size) == 0, "the events");
    for (int32_t handle = 0; handle < shd::kSensorHandleCount; ++handle) {
        const ModelSensor state = StateNow(handle);
        const ModelSensor& other = model.sensors[static_cast<size_t>(handle)];
        Require(state.batch_left == other.batch_left && state.last_time == other.last_time &&
                    state.time_adjust == other.time_adjust &&
                    state.flush_pending == other.flush_pending &&
                    state.flush_count == other.flush_count,
                "what is remembered of the sensor");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    static Target target;
    target.model = {};
    g_elapsed_ns = 1'000'000'000'000;
    g_mcu_rebooted = 0;
    g_step_history = {};
    g_shd_log_debug = static_cast<int>(size % 2);
    for (int32_t handle = 0; handle < shd::kSensorHandleCount; ++handle) SetState(handle, {});
    for (Input input(bytes, size); !input.empty();) {
        const uint8_t kind = input.Number();
        if (kind < kFirstReport) {
            target.Change(static_cast<StepKind>(kind), input);
        } else {
            target.ReportBoth(kind, input);
        }
    }
    (void)TakeJournal();
    return 0;
}
