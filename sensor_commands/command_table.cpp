// The table of MCU commands and their common exchange; called by the sensor commands and the
// MCU-wide configurations.
#include "sensor_commands/command_table.h"

#include <algorithm>
#include <iterator>

#include "mcu_link/byte_order.h"
#include "mcu_link/exchange/exchange.h"
#include "platform/log.h"
#include "protocol/control.h"

namespace {

constexpr char kLogTag[] = "shd";
constexpr int kQuickSec = shd::kQuickReplySec;
constexpr int kSlowSec = shd::kLongestReplySec;
constexpr int32_t kOfSensor = -1;  // the service is the sensor that the call names

using Message = void (*)(const McuCall& call);

// A message as a function, so that its format is checked where it stands.
#define MESSAGE(...) [](const McuCall& call) { (void)call, LOGE(__VA_ARGS__); }

struct Row {
    McuOperation operation;
    int32_t service;  // or kOfSensor
    int32_t command;
    int timeout_sec;
    Message timeout = nullptr;  // silent without one, as the following
    Message no_data = nullptr;
    Message refused = nullptr;
};

constexpr Row kRows[] = {
    {McuOperation::kActive, kOfSensor, MCU_CMD_ACTIVE, kQuickSec,
     MESSAGE("Sensor Active :%d timeout", call.id),
     MESSAGE("Sensor Active :%d data len < 1", call.id),
     MESSAGE("Sensor Active :%d failure ret:%d", call.id, call.status)},
    {McuOperation::kDeactive, kOfSensor, MCU_CMD_DEACTIVE, kQuickSec,
     MESSAGE("Sensor Deactive :%d timeout", call.id),
     MESSAGE("Sensor Deactive :%d data len < 1", call.id),
     MESSAGE("Sensor DeActive :%d failure ret:%d", call.id, call.status)},
    {McuOperation::kSetDelay, kOfSensor, MCU_CMD_SET_DELAY, kQuickSec,
     MESSAGE("Sensor SetDelay :%d timeout", call.id),
     MESSAGE("Sensor SetDelay :%d data len < 1", call.id),
     MESSAGE("Sensor SetDelay :%d delay_ms:%d failure ret:%d", call.id,
             ReadLe<int32_t>(call.arguments.data()), call.status)},
    {McuOperation::kBatch, kOfSensor, MCU_CMD_BATCH, kQuickSec,
     MESSAGE("Sensor Batch :%d timeout", call.id),
     MESSAGE("Sensor Batch :%d data len < 1", call.id),
     MESSAGE("Sensor Batch :%d period:%u batchcnt:%u failure ret:%d", call.id,
             ReadLe<uint32_t>(call.arguments.data()), ReadLe<uint32_t>(call.arguments.data() + 4),
             call.status)},
    {McuOperation::kFlush, kOfSensor, MCU_CMD_FLUSH, kQuickSec,
     MESSAGE("Sensor Flush :%d timeout", call.id),
     MESSAGE("Sensor Flush :%d data len < 1", call.id)},
    {McuOperation::kSelfTest, kOfSensor, MCU_CMD_SELFTEST, kSlowSec,
     MESSAGE("Sensor SelfTest :%d timeout", call.id),
     MESSAGE("Sensor SelfTest :%d data len < 1", call.id),
     MESSAGE("Sensor Selftest :%d failure ret:%d", call.id, call.status)},
    {McuOperation::kCalibration, kOfSensor, MCU_CMD_CALIBRATION, kSlowSec,
     MESSAGE("Sensor Clibration :%d timeout", call.id),
     MESSAGE("Sensor Clibration :%d data len < 1", call.id),
     MESSAGE("Sensor Clibration :%d failure ret:%d", call.id, call.status)},
    {McuOperation::kSetParameter, kOfSensor, MCU_CMD_SET_PARAMETER, kSlowSec,
     MESSAGE("Sensor SetParameter :%d timeout", call.id)},
    {McuOperation::kGetInfo, kOfSensor, MCU_CMD_GET_INFO, kSlowSec,
     MESSAGE("Sensor GetInfo :%d timeout", call.id),
     MESSAGE("Sensor GetInfo :%d data len < 1", call.id)},
    {McuOperation::kVersion, MCU_SERVICE_VERSION, MCU_CMD_VERSION, kSlowSec,
     MESSAGE("Sensor Version :%d timeout", call.id),
     MESSAGE("Sensor Version :%d data len < 1", call.id)},
    {McuOperation::kLogLevel, MCU_SERVICE_LOG, MCU_CMD_LOG_LEVEL, kSlowSec},
    {McuOperation::kRawData, MCU_SERVICE_LOG, MCU_CMD_RAWDATA, kSlowSec},
    {McuOperation::kHealth, MCU_SERVICE_HEALTH, MCU_CMD_HEALTH, kQuickSec,
     MESSAGE("McuHealthConfig Msg send/recv error"),
     MESSAGE("McuHealthConfig recv invalid data len")},
    {McuOperation::kDateTime, MCU_SERVICE_DATETIME, MCU_CMD_DATETIME, kQuickSec,
     MESSAGE("McuDateTimeConfig Msg send/recv error"),
     MESSAGE("McuDateTimeConfig recv invalid data len")},
};

#undef MESSAGE

// The rows stand in the order of their operations.
constexpr bool IsInOrder() {
    for (size_t i = 0; i < std::size(kRows); ++i) {
        if (kRows[i].operation != static_cast<McuOperation>(i)) return false;
    }
    return std::size(kRows) == static_cast<size_t>(McuOperation::kCount);
}
static_assert(IsInOrder());
static_assert(std::all_of(std::begin(kRows), std::end(kRows),
                          [](const Row& row) { return row.timeout_sec <= shd::kLongestReplySec; }));

const Row& RowOf(McuOperation operation) {
    return kRows[static_cast<size_t>(operation)];
}

void Log(Message message, const McuCall& call) {
    if (message != nullptr) message(call);
}

McuPacket BuildPacket(const McuCall& call) {
    const Row& row = RowOf(call.operation);
    McuPacket packet{};
    BuildSensorPacket(&packet, row.service == kOfSensor ? call.id : row.service,
                      row.command + call.variant);
    if (!call.arguments.empty()) AppendArguments(&packet, call.arguments);
    return packet;
}

CommandReply ExchangePacket(SensorHub* hub, const McuCall& call, const McuPacket& packet) {
    const Row& row = RowOf(call.operation);
    McuMessagePtr message;
    if (SendSensorMsgAndWait(hub, packet, &message, row.timeout_sec) != 0) {
        Log(row.timeout, call);
        return {};
    }
    if (message->data_len < 1) {
        Log(row.no_data, call);
        return {};
    }
    return {std::move(message)};
}

}  // namespace

CommandReply Exchange(SensorHub* hub, const McuCall& call) {
    return ExchangePacket(hub, call, BuildPacket(call));
}

int ExchangeForStatus(SensorHub* hub, const McuCall& call) {
    return ExchangeForStatus(hub, call, BuildPacket(call));
}

int ExchangeForStatus(SensorHub* hub, const McuCall& call, const McuPacket& packet) {
    McuCall answered = call;
    answered.status = ExchangePacket(hub, call, packet).status();
    if (answered.status > 0) ReportRefusal(answered);
    return answered.status;
}

void ReportRefusal(const McuCall& call) {
    Log(RowOf(call.operation).refused, call);
}
