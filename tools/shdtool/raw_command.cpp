// shdtool raw: sends any request, also one that the other commands would refuse, and shows the
// reply as it is. Called by main.
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tools/client/hub_client.h"
#include "tools/shdtool/commands.h"
#include "tools/shdtool/hex.h"

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

Result<Report> SendRaw(HubClient& hub, const ClientRequest& request) {
    const std::string name = shdclient::CommandName(request.command);
    Json fields{{"handle", request.handle}, {"id", request.command}, {"name", name}};
    const Result<HubClient::Ticket> ticket = hub.Send(request);
    if (!ticket) return ticket.error();
    fields["reply_expected"] = shdclient::HasReply(request.command);
    if (!shdclient::HasReply(request.command)) {
        return Report{name + " sent; no reply is expected", fields};
    }
    const Result<Reply> reply = hub.Receive(*ticket);
    if (!reply) return reply.error();
    const shdclient::Status outcome = shdclient::Outcome(request, *reply);
    if (!outcome) return outcome.error();
    fields["result"] = reply->result;
    if (reply->form == ReplyForm::kText) {
        fields["text"] = reply->text;
        return Report{name + ": text \"" + reply->text + "\"", fields};
    }
    if (reply->form == ReplyForm::kVirtual) {
        fields["virtual"] = true;
        return Report{name + ": result 0 (virtual sensor, the MCU was not asked)", fields};
    }
    fields["data"] = FormatHex(reply->data);
    return Report{fmt::format("{}: result {}, {}", name, reply->result, DataText(*reply)), fields};
}

struct RawArguments {
    int32_t handle = 0;
    int32_t command = 0;
    std::vector<std::string> words;
};

ClientRequest BuildRequest(const RawArguments& arguments) {
    ClientRequest request{};
    request.handle = arguments.handle;
    request.command = arguments.command;
    const auto bytes = ParseHex(fmt::format("{}", fmt::join(arguments.words, " ")));
    if (!bytes) throw CLI::ValidationError("HEX", bytes.error().message);
    if (bytes->size() > sizeof(request.args)) {
        throw CLI::ValidationError("HEX", fmt::format("{} bytes are too many; a request has {}",
                                                      bytes->size(), sizeof(request.args)));
    }
    std::copy(bytes->begin(), bytes->end(), request.args);
    return request;
}

}  // namespace

void AddRawCommand(CLI::App& app, Context& context) {
    CLI::App* command =
        AddCommand(app, "raw", "Send any request and show the reply; bytes not given are 0",
                   "  shdtool raw 0 0\n  shdtool raw 5 10 14 00 00 00 05 00 00 00",
                   "A negative number goes behind --, as in: shdtool raw -- 0 -1");
    auto arguments = std::make_shared<RawArguments>();
    command->add_option("HANDLE", arguments->handle, "sensor handle, any number")
        ->check(Between(INT32_MIN, INT32_MAX))
        ->required()
        ->type_name("");
    command->add_option("COMMAND", arguments->command, "command id, any number")
        ->check(Between(INT32_MIN, INT32_MAX))
        ->required()
        ->type_name("");
    command->add_option("HEX", arguments->words, "up to 16 argument bytes")->type_name("");
    command->callback([&context, arguments] {
        const ClientRequest request = BuildRequest(*arguments);
        RunWithHub(context, "raw", [&](HubClient& hub) { return SendRaw(hub, request); });
    });
}

}  // namespace shdtool
