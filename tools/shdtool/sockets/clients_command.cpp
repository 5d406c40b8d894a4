// shdtool clients: who is connected to the daemon's sockets, and who does not read fast enough. A
// row of the table of commands; it connects to nothing.
#include <fmt/format.h>

#include <string>

#include "tools/client/local_socket.h"
#include "tools/shdtool/base/command_rows.h"
#include "tools/shdtool/base/terminal.h"
#include "tools/shdtool/files/image_check.h"
#include "tools/shdtool/sockets/socket_table.h"

namespace shdtool {
namespace {

using shdclient::Result;

constexpr int64_t kLatePercent = 50;  // of the buffer; a client that keeps up leaves next to none

struct Row {
    std::string socket;
    SocketClient client;
};

std::string StateOf(const Row& row) {
    if (row.client.losing()) return "LOSES DATA";
    if (row.client.fill_percent() >= kLatePercent) return "late";
    return row.client.unserved > 0 ? "waits for the hub" : "ok";
}

std::string TextOf(const Row& row) {
    const SocketClient& client = row.client;
    const std::string pid = client.pid > 0 ? std::to_string(client.pid) : "?";
    const std::string name = client.pid > 0 ? Printable(client.name) : "not yours";
    const Style style = client.losing() ? Style::kFault : Style::kPlain;
    return fmt::format("{:<7} {:>8}  {:<15} {:>9} {:>9} {:>4} %  {}", row.socket, pid, name,
                       client.unread, client.unserved, client.fill_percent(),
                       Styled(StateOf(row), style));
}

Json JsonOf(const Row& row) {
    const SocketClient& client = row.client;
    return {{"socket", row.socket},
            {"pid", client.pid > 0 ? Json(client.pid) : Json()},
            {"name", client.pid > 0 ? Json(client.name) : Json()},
            {"unread_bytes", client.unread},
            {"unserved_bytes", client.unserved},
            {"buffer_used", client.buffer_used},
            {"buffer_size", client.buffer_size},
            {"losing", client.losing()}};
}

Outcome ShowClients(Context& context) {
    const std::string names[] = {std::string(shdclient::kControlSocket),
                                 std::string(shdclient::kDataSocket)};
    std::vector<std::string> paths;
    for (const std::string& name : names) {
        paths.push_back(shdclient::SocketPath(context.root, name));
    }
    const Result<std::vector<SocketUse>> uses = ReadSocketUse(paths);
    if (!uses) return uses.error();
    std::vector<Row> rows;
    bool served = false;
    for (size_t i = 0; i < paths.size(); ++i) {
        served = served || (*uses)[i].served;
        for (const SocketClient& client : (*uses)[i].clients) rows.push_back({names[i], client});
    }
    if (!served) {
        return shdclient::Error{
            shdclient::ErrorCode::kUnavailable,
            fmt::format("no daemon: nobody listens on {} or {}", paths[0], paths[1])};
    }
    Report report{rows.empty()
                      ? "nobody is connected"
                      : fmt::format("{:<7} {:>8}  {:<15} {:>9} {:>9} {:>6}  {}", "SOCKET",
                                    "PROCESS", "NAME", "UNREAD B", "UNSERVED", "BUFFER", "STATE")};
    Json list = Json::List();
    size_t losing = 0;
    for (const Row& row : rows) {
        report.text += "\n" + TextOf(row);
        list.Add(JsonOf(row));
        if (row.client.losing()) ++losing;
    }
    report.fields = {{"clients", list}, {"losing", losing}};
    if (losing == 0) return report;
    report.exit_status = kExitRefused;
    report.complaint = fmt::format("{} client{} not read fast enough and lose{} events", losing,
                                   losing == 1 ? " does" : "s do", losing == 1 ? "s" : "");
    return report;
}

}  // namespace

CommandRows ClientsCommands() {
    return {{{"Overview",
              "clients",
              "Say who is connected to the daemon, and who is losing data",
              {},
              "Asks the kernel, not the daemon. UNREAD is what the daemon has sent and the client "
              "has not read, UNSERVED what the client has sent and the daemon has not read; BUFFER "
              "is how much of the room for what is unread is taken. The daemon never waits: when "
              "it is full, events are lost to this client. The processes of other users are not "
              "shown without root.\n"
              "Exit status: 0 nobody is losing data, 1 somebody is, 3 no daemon there.",
              "shdtool clients"},
             ShowClients}};
}

}  // namespace shdtool
