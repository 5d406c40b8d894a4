// The whole inbound path, from the bytes on the UART to events, files and queues, with every sensor
// switched on. The input: for each handle what its clients asked for, as a byte that says whether
// five words follow, then the UART's bytes.
#include "core/hub/debug_flag.h"
#include "events/step_counter.h"
#include "mcu_link/exchange/reboot_trigger.h"
#include "mcu_link/uart_reader.h"
#include "sensor_commands/mcu_config.h"
#include "tests/fuzz/uart_bytes.h"

namespace {

using namespace shdtest;

constexpr int32_t kStepDetector = 18;  // stays off: it sends an event a step, 2^31 at most

struct Target : TestHub {
    Target() {
        MakeDirectory("/nvdata");
        MakeDirectory("/data/mcudumplog");
    }
};

void SetStates(Input& input) {
    for (int32_t handle = 0; handle < shd::kSensorHandleCount; ++handle) {
        SensorState& state = State(handle);
        state = {};
        state.enable = 1;
        state.virtual_enable = handle != kStepDetector ? 1 : 0;
        if (input.Number() % 2 == 0) continue;
        state.period_ms = input.Number<int32_t>();
        state.batchcnt = input.Number<int32_t>();
        state.flush_count = input.Number<int32_t>();
        state.flush_pending = state.flush_count != 0 ? 1 : 0;
        state.last_time = -1 + (input.Number<int64_t>() & INT64_MAX) % 1'000'000'000'000;
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    static Target target;
    Input input(bytes, size);
    SetStates(input);
    g_step_history = {};
    g_mcu_rebooted = static_cast<int>(size % 2);
    g_shd_log_debug = static_cast<int>(size / 2 % 2);
    (void)McuRawDataConfig(&target.hub, 3);
    MessageAssembler assembler(&target.hub);
    assembler.Feed(UartBytes(input));
    while (const McuMessagePtr reply{target.hub.reply_queue.DequeueMessageTimeout(0)}) {
    }
    (void)target.TakeEvents();
    (void)TakeJournal();
    return 0;
}
