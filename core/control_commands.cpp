// Control commands: dispatched by the main loop, one request at a time.
#include "core/control_commands.h"

#include <cutils/properties.h>

#include <algorithm>
#include <string>

#include "core/hub/debug_flag.h"
#include "core/hub/sensor_table.h"
#include "events/event_stamp.h"
#include "mcu_link/byte_order.h"
#include "mcu_link/exchange/reboot_trigger.h"
#include "platform/delay.h"
#include "platform/log.h"
#include "protocol/system.h"
#include "sensor_commands/mcu_config.h"
#include "sensor_commands/sensor_commands.h"
#include "sockets/control_server.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "shd";
constexpr std::chrono::seconds kRebootPause{2};

// One request on its way through its handler.
struct Call {
    SensorHub* hub;
    int client;
    const ClientRequest& request;
    int32_t id;  // MCU sensor id

    template <typename T>
    [[nodiscard]] T Argument(size_t offset = 0) const {
        return ReadLe<T>(request.args + offset);
    }
};

ControlReply MakeReply(int32_t handle, int32_t command, int32_t result) {
    ControlReply reply{};
    reply.length = sizeof(reply);
    reply.handle = handle;
    reply.kind = kControlReplyKind;
    reply.command = command;
    reply.result = result;
    return reply;
}

char* TextOf(ControlReply* reply) {
    static_assert(kControlReplyTextSize == kMcuTextSize);
    return reinterpret_cast<char*>(reply) + kControlReplyTextOffset;
}

// Returns 0, or -1 when the client has gone or does not read: it then misses its reply, which only
// two commands report.
int Send(const Call& call, const ControlReply& reply) {
    return call.hub->control_server->Reply(call.client, reply);
}

// The reply of a command that has a handler, as its facts say.
ControlReply ReplyTo(const Call& call, int32_t result) {
    const CommandFacts* facts = FindCommand(call.request.command);
    return MakeReply(facts->mcu_wide ? 0 : call.request.handle, facts->reply_command, result);
}

int Answer(const Call& call, int32_t result) {
    Send(call, ReplyTo(call, result));
    return 0;
}

int AnswerError(const Call& call) {
    Send(call, MakeReply(call.request.handle, kErrorReplyCommand, -1));
    return 0;
}

// Starts the measurement of a sensor's sample interval afresh.
void RestartTiming(SensorState& state) REQUIRES(g_sensor_state_mutex) {
    state.last_time = -1;
    state.time_adjust = 0;
}

int Activate(const Call& call) {
    const int result = SensorActive(call.hub, call.id);
    {
        const MutexLock lock(g_sensor_state_mutex);
        SensorState& state = StateOf(call.request.handle);
        if (result == 0) state.enable = 1;
        RestartTiming(state);
    }
    return Answer(call, result);
}

int Deactivate(const Call& call) {
    const int result = SensorDeactive(call.hub, call.id);
    {
        const MutexLock lock(g_sensor_state_mutex);
        SensorState& state = StateOf(call.request.handle);
        state.enable = 0;
        state.batch_left = 0;
    }
    return Answer(call, result);
}

int SetDelay(const Call& call) {
    const auto delay_ms = call.Argument<int32_t>();
    const int result = SensorSetDelay(call.hub, call.id, delay_ms);
    {
        const MutexLock lock(g_sensor_state_mutex);
        StateOf(call.request.handle).period_ms = delay_ms;
    }
    return Answer(call, result);
}

int SelfTest(const Call& call) {
    // The heart-rate sensor is tested by its front end.
    const int32_t id = call.id == kMcuHeartRate ? kMcuRawRecord : call.id;
    return Answer(call, SensorSelfTest(call.hub, id));
}

int SetParameter(const Call& call) {
    const size_t size = McuParameterSize(call.id);
    static_assert(kMaxParameterSize <= sizeof(call.request.args));
    return Answer(call, SensorSetParameter(call.hub, call.id, {call.request.args, size}));
}

int Calibrate(const Call& call) {
    ControlReply reply = ReplyTo(call, 0);
    reply.result = SensorCalibration(call.hub, call.id, reply.data);
    Send(call, reply);
    return 0;
}

int SetMcuLogLevel(const Call& call) {
    return Answer(call, McuLogLevel(call.hub, call.request.args[0], call.request.args[1]));
}

int ConfigureRawData(const Call& call) {
    const auto type = call.Argument<uint16_t>();
    const int result = McuRawDataConfig(call.hub, type);
    LOGD("ProcessMcuRawDataConifg type:%d", type);
    return Answer(call, result);
}

int ConfigureHealth(const Call& call) {
    const auto param = call.Argument<McuHealthParam>();
    if (Send(call, ReplyTo(call, McuHealthConfig(call.hub, &param))) == 0) return 0;
    LOGE("ProcessMcuHealthConifg sensorhub_sendmsg failure\n");
    return -1;
}

int ConfigureDateTime(const Call& call) {
    const auto seconds = call.Argument<uint32_t>();
    if (Send(call, ReplyTo(call, McuDateTimeConfig(call.hub, seconds))) == 0) return 0;
    LOGE("ProcessDateTimeConifg sensorhub_sendmsg failure\n");
    return -1;
}

int Batch(const Call& call) {
    auto args = call.Argument<SensorBatchArgs>();
    if (!FindSensor(call.request.handle)->can_batch) args.batchcnt = 0;
    const int result = SensorBatch(call.hub, call.id, args);
    {
        const MutexLock lock(g_sensor_state_mutex);
        SensorState& state = StateOf(call.request.handle);
        state.period_ms = args.period_ms;
        state.batchcnt = args.batchcnt;
        RestartTiming(state);
    }
    return Answer(call, result);
}

int Flush(const Call& call) {
    const int32_t handle = call.request.handle;
    {
        const MutexLock lock(g_sensor_state_mutex);
        StateOf(handle).flush_pending = 1;
    }
    const SensorFlushReply reply = SensorFlush(call.hub, call.id);
    {
        const MutexLock lock(g_sensor_state_mutex);
        StateOf(handle).flush_count = reply.accepted;
    }
    // Otherwise the event follows the last of the announced samples, or the next report.
    if (reply.announced <= 0) SendFlushComplete(call.hub, handle);
    return Answer(call, 0);
}

int GetInformation(const Call& call) {
    ControlReply reply = ReplyTo(call, 0);
    SensorGetInfo(call.hub, call.id, TextOf(&reply));  // a failure shows as an empty text
    Send(call, reply);
    return 0;
}

int GetMcuVersion(const Call& call) {
    const auto number = call.Argument<uint16_t>();
    ControlReply reply = ReplyTo(call, 0);
    const int result = SensorVersion(call.hub, number, TextOf(&reply));
    LOGD("ProcessMcuVersion type:%d ret:%d", number, result);
    Send(call, reply);
    return 0;
}

int SwitchDebugLog(const Call& call) {
    const auto flag = call.Argument<uint16_t>();
    g_shd_log_debug = flag;
    property_set(kDebugProperty, std::to_string(flag).c_str());
    LOGD("ProcessMessage SHB_DEBUG_LOG flag:%d!", flag);
    return Answer(call, 0);
}

int LogSleep(const Call& /*call*/) {
    LOGD("ProcessMessage SHB_MCU_SLEEP!");
    return 0;
}

int LogWakeup(const Call& /*call*/) {
    LOGD("ProcessMessage SHB_MCU_WAKEUP!");
    return 0;
}

struct CommandHandler {
    int32_t command;
    int (*handle)(const Call& call);
};

constexpr CommandHandler kHandlers[] = {
    {SHB_SENSOR_ACTIVE, Activate},
    {SHB_SENSOR_DEACTIVE, Deactivate},
    {SHB_SENSOR_DELAY, SetDelay},
    {SHB_SENSOR_SELFTEST, SelfTest},
    {SHB_SENSOR_PARAMETER, SetParameter},
    {SHB_SENSOR_CALIBRATION, Calibrate},
    {SHB_MCU_LOG_LEVEL, SetMcuLogLevel},
    {SHB_MCU_RAWDATA_CONFIG, ConfigureRawData},
    {SHB_MCU_HEALTH_CONFIG, ConfigureHealth},
    {SHB_MCU_DATETIME_CONFIG, ConfigureDateTime},
    {SHB_SENSOR_BATCH, Batch},
    {SHB_SENSOR_FLUSH, Flush},
    {SHB_SENSOR_GETINFO, GetInformation},
    {SHB_MCU_VERSION, GetMcuVersion},
    {SHB_DEBUG_LOG, SwitchDebugLog},
    {SHB_MCU_SLEEP, LogSleep},
    {SHB_MCU_WAKEUP, LogWakeup},
};

static_assert(std::equal(std::begin(kHandlers), std::end(kHandlers), std::begin(kCommands),
                         std::end(kCommands),
                         [](const CommandHandler& handler, const CommandFacts& facts) {
                             return handler.command == facts.command;
                         }));

// Virtual sensors are answered here, whatever the command, also while the MCU is away.
int ProcessVirtualSensor(const Call& call) {
    const ClientRequest& request = call.request;
    LOGD("ProcessVirtualSensor type:%d cmd:%d", request.handle, request.command);
    {
        const MutexLock lock(g_sensor_state_mutex);
        SensorState& state = StateOf(request.handle);
        if (request.command == SHB_SENSOR_ACTIVE) state.virtual_enable = 1;
        if (request.command == SHB_SENSOR_DEACTIVE) state.virtual_enable = 0;
        if (request.command == SHB_SENSOR_FLUSH) {
            state.flush_pending = 1;
            state.flush_count = 0;
        }
    }
    if (request.command == SHB_SENSOR_FLUSH) SendFlushComplete(call.hub, request.handle);
    Send(call, MakeReply(request.handle, kVirtualReplyCommand, 0));
    return 0;
}

}  // namespace

int ProcessMessage(SensorHub* hub, const QueuedRequest& queued) {
    const ClientRequest& request = queued.request;
    const int32_t id = GetMcuSensorId(request.handle);
    const Call call{hub, queued.client, request, id};
    if (id == kMcuVirtualSensor) return ProcessVirtualSensor(call);
    if (g_mcu_rebooting != 0) {
        LOGE("Process msg mcu in reboot ignore sensor %4d ,command id = %4d", id, request.command);
        Delay(kRebootPause);
        return AnswerError(call);
    }
    if (id == kMcuNoSensor) {
        LOGE("Process msg Invalid sensor %4d ,command id = %4d", id, request.command);
        return AnswerError(call);
    }
    const auto* handler = std::find_if(
        std::begin(kHandlers), std::end(kHandlers),
        [&request](const CommandHandler& entry) { return entry.command == request.command; });
    return handler == std::end(kHandlers) ? AnswerError(call) : handler->handle(call);
}
