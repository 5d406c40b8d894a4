// shdtool view: a page for a browser on this machine, of a running hub or of recordings. A row of
// the table of commands.
#include <fmt/core.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <utility>

#include "tools/shdtool/base/command_rows.h"
#include "tools/shdtool/base/hub_clocks.h"
#include "tools/shdtool/engine/stop_signals.h"
#include "tools/shdtool/view/actions.h"
#include "tools/shdtool/view/item_json.h"
#include "tools/shdtool/view/live_feed.h"
#include "tools/shdtool/view/live_history.h"
#include "tools/shdtool/view/page_server.h"
#include "tools/shdtool/view/recording_feed.h"
#include "tools/wire/recording.h"

namespace shdtool {
namespace {

bool IsThere(const std::string& path) {
    return !path.empty() && access(path.c_str(), R_OK) == 0;
}

std::string Greet(const std::string& root, const LiveFeed::Files& files) {
    const wire::Clocks clocks = HubClocks();
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

shdclient::Result<std::unique_ptr<PageServer>> Serve(const Context& context, Feed& feed,
                                                     PageServer::Act act) {
    auto server = PageServer::Start(static_cast<int>(context.arguments.Integer("--port")), feed,
                                    std::move(act));
    if (server) TellAddress(context, (*server)->address());
    return server;
}

Outcome ViewRecordings(Context& context) {
    const auto feed = RecordingFeed::Open(context.arguments.All("FILE"));
    if (!feed) return feed.error();
    for (const std::string& warning : (*feed)->warnings()) context.Warn(warning);
    const auto server = Serve(context, **feed, {});
    if (!server) return server.error();
    constexpr int kLookMs = 500;  // a signal that comes just before the wait is seen after it
    while (!StopRequested()) (void)poll(nullptr, 0, kLookMs);
    return Report{.text = "", .streamed = true};
}

Outcome ViewHub(Context& context) {
    const LiveFeed::Files files{context.arguments.Text("--line"), context.arguments.Text("--log")};
    for (const std::string& path : {files.line, files.log}) {
        if (!path.empty() && !IsThere(path)) context.Warn(path + " is not there yet");
    }
    LiveHistory history({}, [&] { return Greet(context.root, files); });
    LiveFeed feed(context.root, files, history);
    Actions actions(context.root, context.timeout(),
                    [&feed](const AskedSampling& asked) { feed.TakeAsked(asked); });
    const auto server =
        Serve(context, history, [&actions](const std::string& body) { return actions.Do(body); });
    if (!server) return server.error();
    const auto ended = feed.Run();
    actions.Close();
    if (!ended) return ended.error();
    return Report{.text = "", .streamed = true};
}

Outcome View(Context& context) {
    CatchStopSignals();
    const cli::Arguments& arguments = context.arguments;
    if (arguments.All("FILE").empty()) return ViewHub(context);
    if (arguments.Has("--line") || arguments.Has("--log")) {
        return WrongUsage("--line and --log belong to a running hub; name recordings alone");
    }
    return ViewRecordings(context);
}

const cli::Options kViewPageOptions{
    {.name = "FILE",
     .kind = cli::Kind::kFile,
     .help = "Recordings of any kind, shown together and read-only: of the line, of events, logs, "
             "traces of the simulator; without them the running hub",
     .repeated = true},
    {.name = "--port",
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
    "Prints the address of a page for a browser on this machine, which shows a running hub or "
    "recordings of one: sensors, the MCU's state, the line, clients and log on one clock. The "
    "address holds a random name that is the key to the page; other machines cannot reach it. Of "
    "a running hub the page also switches sensors on and off and, with a simulated MCU, makes it "
    "fail. Ends on Ctrl-C.";

}  // namespace

CommandRows ViewCommands() {
    return {{{"Events", "view", "Show the hub, or recordings, in a browser", kViewPageOptions,
              kViewDetails,
              "shdtool view\nshdtool view --line session.line --log shd.log\n"
              "shdtool view session.line walk.shdrec shd.log"},
             View}};
}

}  // namespace shdtool
