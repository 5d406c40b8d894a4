// shdtool raw: sends any request, also one that the other commands would refuse, and shows the
// reply as it is. A row of the table of commands.
#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tools/client/hub_client.h"
#include "tools/shdtool/base/command_rows.h"
#include "tools/shdtool/base/hex.h"

using namespace shd;

namespace shdtool {
namespace {

using shdclient::HubClient;
using shdclient::Reply;
using shdclient::ReplyForm;
using shdclient::Result;

std::string DataText(const Reply& reply) {
    const auto end = std::find_if(reply.data.rbegin(), reply.data.rend(), [](uint8_t byte) {
                         return byte != 0;
                     }).base();
    if (end == reply.data.begin()) return "no data";
    return "data " + FormatHex(std::vector<uint8_t>(reply.data.begin(), end)) + " (then 0)";
}

Outcome SendRaw(HubClient& hub, const ClientRequest& request) {
    const std::string name = shdclient::CommandName(request.command);
    Json fields{{"handle", request.handle}, {"id", request.command}, {"name", name}};
    const Result<HubClient::Ticket> ticket = hub.Send(request);
    if (!ticket) return ticket.error();
    fields.Set("reply_expected", shdclient::HasReply(request.command));
    if (!shdclient::HasReply(request.command)) {
        return Report{name + " sent; no reply is expected", fields};
    }
    const Result<Reply> reply = hub.Receive(*ticket);
    if (!reply) return reply.error();
    const shdclient::Status outcome = shdclient::Outcome(request, *reply);
    if (!outcome) return outcome.error();
    fields.Set("result", reply->result);
    if (reply->form == ReplyForm::kText) {
        fields.Set("text", reply->text);
        return Report{name + ": text \"" + reply->text + "\"", fields};
    }
    if (reply->form == ReplyForm::kVirtual) {
        fields.Set("virtual", true);
        return Report{name + ": result 0 (virtual sensor, the MCU was not asked)", fields};
    }
    fields.Set("data", FormatHex(reply->data));
    return Report{fmt::format("{}: result {}, {}", name, reply->result, DataText(*reply)), fields};
}

Outcome Raw(HubClient& hub, Context& context) {
    ClientRequest request{};
    request.handle = static_cast<int32_t>(context.arguments.Integer("HANDLE"));
    request.command = static_cast<int32_t>(context.arguments.Integer("COMMAND"));
    const auto bytes = ParseHex(fmt::format("{}", fmt::join(context.arguments.All("HEX"), " ")));
    if (!bytes) return bytes.error();
    if (bytes->size() > sizeof(request.args)) {
        return WrongUsage(fmt::format("{} bytes are too many; a request has {}", bytes->size(),
                                      sizeof(request.args)));
    }
    std::copy(bytes->begin(), bytes->end(), request.args);
    return SendRaw(hub, request);
}

cli::Option Word(const char* name, const char* help) {
    return cli::Integer(name, "", help, INT32_MIN, INT32_MAX).Required();
}

}  // namespace

CommandRows RawCommands() {
    return {
        {{"MCU and daemon",
          "raw",
          "Send any request and show the reply; bytes not given are 0",
          {Word("HANDLE", "Sensor handle, any number"), Word("COMMAND", "Command id, any number"),
           cli::Text("HEX", "", "Up to 16 argument bytes").Repeated()},
          "A negative number goes behind --, as in: shdtool raw -- 0 -1",
          "shdtool raw 0 0\nshdtool raw 5 10 14 00 00 00 05 00 00 00"},
         Raw}};
}

}  // namespace shdtool
