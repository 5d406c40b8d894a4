// Matches control replies with their requests and explains refusals. Called by HubClient.
#include "tools/client/reply.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "tools/client/sensor_info.h"

namespace shdclient {
namespace {

struct CommandInfo {
    int32_t command;
    std::string_view name;
    bool mcu_wide;          // replies carry handle 0
    bool text;              // replies carry a text in place of the result
    int32_t reply_command;  // what the reply repeats as the command
};

constexpr CommandInfo kCommands[] = {
    {SHB_SENSOR_ACTIVE, "activate", false, false, SHB_SENSOR_ACTIVE},
    {SHB_SENSOR_DEACTIVE, "deactivate", false, false, SHB_SENSOR_DEACTIVE},
    {SHB_SENSOR_DELAY, "set delay", false, false, SHB_SENSOR_DELAY},
    {SHB_SENSOR_SELFTEST, "self test", false, false, SHB_SENSOR_SELFTEST},
    {SHB_SENSOR_PARAMETER, "set parameter", false, false, SHB_SENSOR_PARAMETER},
    {SHB_SENSOR_CALIBRATION, "calibration", false, false, SHB_SENSOR_CALIBRATION},
    {SHB_MCU_LOG_LEVEL, "MCU log level", true, false, SHB_MCU_LOG_LEVEL},
    {SHB_MCU_RAWDATA_CONFIG, "raw-data configuration", true, false, SHB_MCU_RAWDATA_CONFIG},
    {SHB_MCU_HEALTH_CONFIG, "health configuration", true, false, SHB_MCU_HEALTH_CONFIG},
    {SHB_MCU_DATETIME_CONFIG, "date and time", true, false, SHB_MCU_DATETIME_CONFIG},
    {SHB_SENSOR_BATCH, "batch", false, false, SHB_SENSOR_BATCH},
    {SHB_SENSOR_FLUSH, "flush", false, false, SHB_SENSOR_FLUSH},
    {SHB_SENSOR_GETINFO, "get information", false, true, SHB_SENSOR_GETINFO},
    {SHB_MCU_VERSION, "MCU version", true, true, SHB_MCU_RAWDATA_CONFIG},
    {SHB_DEBUG_LOG, "debug log", true, false, SHB_DEBUG_LOG},
    {SHB_MCU_SLEEP, "sleep", true, false, SHB_MCU_SLEEP},
    {SHB_MCU_WAKEUP, "wake up", true, false, SHB_MCU_WAKEUP},
};

constexpr int32_t kErrorCommand = -1;

const CommandInfo* FindCommand(int32_t command) {
    const auto* found = std::find_if(std::begin(kCommands), std::end(kCommands),
                                     [&](const CommandInfo& c) { return c.command == command; });
    return found == std::end(kCommands) ? nullptr : found;
}

bool IsVirtual(int32_t handle) {
    const SensorInfo* sensor = FindSensor(handle);
    return sensor != nullptr && sensor->is_virtual;
}

std::string TextOf(const ControlReply& record) {
    char text[kControlReplyTextSize + 1] = {};
    const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
    std::memcpy(text, bytes + kControlReplyTextOffset, kControlReplyTextSize);
    return text;
}

std::string RefusalReason(const ClientRequest& request) {
    if (FindSensor(request.handle) == nullptr) {
        return "the hub knows no sensor handle " + std::to_string(request.handle);
    }
    if (FindCommand(request.command) == nullptr) {
        return "the hub knows no command " + std::to_string(request.command) +
               ", or it is restarting the MCU";
    }
    return "the hub is restarting the MCU; try again in a few seconds";
}

}  // namespace

std::string CommandName(int32_t command) {
    const CommandInfo* info = FindCommand(command);
    return info != nullptr ? std::string(info->name) : "command " + std::to_string(command);
}

std::string RequestName(const ClientRequest& request) {
    const CommandInfo* command = FindCommand(request.command);
    std::string subject = CommandName(request.command);
    if (command == nullptr || !command->mcu_wide) subject += " of " + SensorName(request.handle);
    return subject;
}

bool HasReply(int32_t command) {
    return command != SHB_MCU_SLEEP && command != SHB_MCU_WAKEUP;
}

ClientRequest MakeRequest(int32_t handle, ControlCommand command) {
    ClientRequest request{};
    request.handle = handle;
    request.command = command;
    return request;
}

Result<Reply> InterpretReply(const ClientRequest& request, const ControlReply& record) {
    const CommandInfo* command = FindCommand(request.command);
    const Error misfit{ErrorCode::kProtocol,
                       "the reply to " + RequestName(request) + " does not fit: length " +
                           std::to_string(record.length) + ", handle " +
                           std::to_string(record.handle) + ", kind " + std::to_string(record.kind) +
                           ", command " + std::to_string(record.command)};
    if (record.length != static_cast<int32_t>(sizeof(record)) || record.kind != kControlReplyKind) {
        return misfit;
    }

    Reply reply;
    reply.result = record.result;
    const bool own_handle = record.handle == request.handle;
    if (own_handle && record.command == kErrorCommand) {
        reply.form = ReplyForm::kError;
        return reply;
    }
    if (IsVirtual(request.handle)) {
        if (!own_handle || record.command != SHB_SENSOR_ACTIVE) return misfit;
        reply.form = ReplyForm::kVirtual;
        return reply;
    }
    if (command == nullptr || record.command != command->reply_command) return misfit;
    if (record.handle != (command->mcu_wide ? 0 : request.handle)) return misfit;
    if (command->text) {
        reply.form = ReplyForm::kText;
        reply.text = TextOf(record);
        reply.result = reply.text.empty() ? -1 : 0;
        return reply;
    }
    reply.form = ReplyForm::kResult;
    std::copy(std::begin(record.data), std::end(record.data), reply.data.begin());
    return reply;
}

Status Outcome(const ClientRequest& request, const Reply& reply) {
    if (reply.form == ReplyForm::kError) {
        return Error{ErrorCode::kRefused, RequestName(request) + ": " + RefusalReason(request), -1};
    }
    if (reply.result == 0) return Success();
    std::string reason = ": the MCU refused with status " + std::to_string(reply.result);
    if (reply.result == -1) {
        reason = reply.form == ReplyForm::kText
                     ? ": the MCU gave no text (silent, or nothing to say; see the log of shd)"
                     : ": no usable answer from the MCU (silent or not reachable; see the log of "
                       "shd)";
    }
    return Error{ErrorCode::kRefused, RequestName(request) + reason, reply.result};
}

}  // namespace shdclient
