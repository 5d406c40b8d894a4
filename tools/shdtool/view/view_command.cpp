// shdtool view: a page for a browser on this machine, of a running hub. A row of the table of
// commands.
#include <fmt/core.h>
#include <unistd.h>

#include <cstdio>

#include "tools/client/local_socket.h"
#include "tools/shdtool/base/command_rows.h"
#include "tools/shdtool/base/terminal.h"
#include "tools/shdtool/engine/stop_signals.h"
#include "tools/shdtool/view/actions.h"
#include "tools/shdtool/view/item_json.h"
#include "tools/shdtool/view/live_feed.h"
#include "tools/shdtool/view/live_history.h"
#include "tools/shdtool/view/page_server.h"
#include "tools/wire/recording.h"

namespace shdtool {
namespace {

bool IsThere(const std::string& path) {
    return !path.empty() && access(path.c_str(), R_OK) == 0;
}

std::string Greet(const std::string& root, const LiveFeed::Files& files) {
    const wire::Clocks clocks = wire::ReadClocks();
    return GreetingJson({.now_us = clocks.boot.count() / kNsPerUs,
                         .wall_us = clocks.wall.count() / kNsPerUs,
                         .live = true,
                         .simulator = HasSimulator(root),
                         .title = root.empty() ? "the hub of this device" : "the hub in " + root,
                         .line = IsThere(files.line),
                         .log = IsThere(files.log)});
}

void TellAddress(const Context& context, const std::string& address) {
    if (context.json) {
        fmt::print("{}\n", Json{{"ok", true}, {"command", "view"}, {"address", address}}.Text());
    } else {
        fmt::print("{}\n", address);
    }
    (void)std::fflush(stdout);
}

Outcome View(Context& context) {
    CatchStopSignals();
    const LiveFeed::Files files{context.arguments.Text("--line"), context.arguments.Text("--log")};
    for (const std::string& path : {files.line, files.log}) {
        if (!path.empty() && !IsThere(path)) context.Warn(path + " is not there yet");
    }
    LiveHistory history({}, [&] { return Greet(context.root, files); });
    LiveFeed feed(context.root, files, history);
    Actions actions(context.root, context.timeout(),
                    [&feed](const AskedSampling& asked) { feed.TakeAsked(asked); });
    const auto server =
        PageServer::Start(static_cast<int>(context.arguments.Integer("--port")), history,
                          [&actions](const std::string& body) { return actions.Do(body); });
    if (!server) return server.error();
    TellAddress(context, (*server)->address());
    const auto ended = feed.Run();
    actions.Close();
    if (!ended) return ended.error();
    return Report{.text = "", .streamed = true};
}

const cli::Options kViewPageOptions{{.name = "--port",
                                     .kind = cli::Kind::kInteger,
                                     .value = "N",
                                     .help = "Listen on this port; 0: on any that is free",
                                     .min = 0,
                                     .max = 65535,
                                     .standard = "0"},
                                    {.name = "--line",
                                     .kind = cli::Kind::kFile,
                                     .value = "FILE",
                                     .help = "Follow a recording of the line that is being written "
                                             "(mcusim --record, shdtool tap -o)"},
                                    {.name = "--log",
                                     .kind = cli::Kind::kFile,
                                     .value = "FILE",
                                     .help = "Follow the daemon's log, which a file receives"}};

constexpr const char* kViewDetails =
    "Prints the address of a page for a browser on this machine: the sensors, the MCU's state, the "
    "line, the clients and the log on one clock. The address holds a random name that is the key "
    "to the page; other machines cannot reach it. The page also switches sensors on and off and, "
    "with a simulated MCU, makes it fail. Ends on Ctrl-C.";

}  // namespace

CommandRows ViewCommands() {
    return {{{"Events", "view", "Show the hub in a browser", kViewPageOptions, kViewDetails,
              "shdtool view\nshdtool view --port 8080"},
             View}};
}

}  // namespace shdtool
