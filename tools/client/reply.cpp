// Matches control replies with their requests and explains refusals. Called by HubClient.
#include "tools/client/reply.h"

#include <algorithm>
#include <cstring>

#include "tools/client/sensor_info.h"

using namespace shd;

namespace shdclient {
namespace {

bool IsVirtual(int32_t handle) {
    const SensorFacts* sensor = shd::FindSensor(handle);
    return sensor != nullptr && sensor->is_virtual;
}

std::string TextOf(const ControlReply& record) {
    char text[kControlReplyTextSize + 1] = {};
    const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
    std::memcpy(text, bytes + kControlReplyTextOffset, kControlReplyTextSize);
    return text;
}

std::string RefusalReason(const ClientRequest& request) {
    if (shd::FindSensor(request.handle) == nullptr) {
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
    const CommandFacts* info = FindCommand(command);
    return info != nullptr ? std::string(info->name) : "command " + std::to_string(command);
}

std::string RequestName(const ClientRequest& request) {
    const CommandFacts* command = FindCommand(request.command);
    std::string subject = CommandName(request.command);
    if (command == nullptr || !command->mcu_wide) subject += " of " + SensorName(request.handle);
    return subject;
}

bool HasReply(int32_t command) {
    const CommandFacts* facts = FindCommand(command);
    return facts == nullptr || facts->content != ReplyContent::kNone;
}

ClientRequest MakeRequest(int32_t handle, ControlCommand command) {
    ClientRequest request{};
    request.handle = handle;
    request.command = command;
    return request;
}

Result<Reply> InterpretReply(const ClientRequest& request, const ControlReply& record) {
    const CommandFacts* command = FindCommand(request.command);
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
    if (own_handle && record.command == kErrorReplyCommand) {
        reply.form = ReplyForm::kError;
        return reply;
    }
    if (IsVirtual(request.handle)) {
        if (!own_handle || record.command != kVirtualReplyCommand) return misfit;
        reply.form = ReplyForm::kVirtual;
        return reply;
    }
    if (command == nullptr || record.command != command->reply_command) return misfit;
    if (record.handle != (command->mcu_wide ? 0 : request.handle)) return misfit;
    if (command->content == ReplyContent::kText) {
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
