// shdtool, the command line of the sensor hub: parses the arguments and runs one command. Called
// by people, scripts and tests.
#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "platform/standard_descriptors.h"
#include "tools/client/local_socket.h"
#include "tools/shdtool/commands.h"

namespace {

constexpr double kMaxTimeoutSec = 86'400;

void AddGlobalOptions(CLI::App& app, shdtool::Context& context) {
    app.require_subcommand(1);
    app.fallthrough();  // the global options are understood behind the command, too
    app.set_help_flag("-h,--help", "Show this help");
    app.add_option("--root", context.root,
                   "Directory tree of the daemon (default: SHD_ROOT, else the device's own)")
        ->type_name("DIR");
    app.add_flag("--json", context.json, "Print one JSON object instead of text");
    app.add_option("--timeout", context.timeout_sec, "Longest wait for a reply in seconds (15)")
        ->check(shdtool::Between(0.001, kMaxTimeoutSec))
        ->type_name("SEC");
    app.footer(
        "Exit status: 0 success, 1 the hub or the MCU refused or a check failed, 2 wrong usage,\n"
        "3 no daemon there.\n"
        "Example:\n"
        "  shdtool enable accelerometer --rate 50 && shdtool watch accelerometer --count 10");
}

std::string UsageError(const CLI::App* app, const CLI::Error& error) {
    const std::vector<std::string> unknown = app->remaining(true);
    std::string command = app->get_name();
    while (!app->get_subcommands().empty()) {
        app = app->get_subcommands().front();
        command += " " + app->get_name();
    }
    const bool is_group = !app->get_subcommands({}).empty();
    if (is_group && error.get_name() == "RequiredError") {
        const std::string complaint =
            unknown.empty() ? "name a command"
                            : fmt::format("there is no command '{}'", unknown.front());
        return fmt::format("shdtool: {}; '{} --help' lists them\n", complaint, command);
    }
    return fmt::format("shdtool: {}; see '{} --help'\n", error.what(), command);
}

// The command families in the order of the help, each under its heading.
struct Family {
    const char* heading;
    void (*add)(CLI::App& app, shdtool::Context& context);
};

constexpr Family kFamilies[] = {
    {"Overview", shdtool::AddStatusCommand},     {"Overview", shdtool::AddListCommand},
    {"Events", shdtool::AddWatchCommand},        {"Events", shdtool::AddRecordCommands},
    {"Events", shdtool::AddAuditCommand},        {"Sensors", shdtool::AddSensorCommands},
    {"Sensors", shdtool::AddFlushCommand},       {"Sensors", shdtool::AddServiceCommands},
    {"MCU and daemon", shdtool::AddMcuCommands}, {"MCU and daemon", shdtool::AddRawCommand},
    {"Files", shdtool::AddDumpCommands},         {"Files", shdtool::AddRawLogCommand},
    {"Files", shdtool::AddImageCommands},        {"Shell", shdtool::AddCompletionCommand},
};

void AddCommands(CLI::App& app, shdtool::Context& context) {
    for (const Family& family : kFamilies) {
        const size_t before = app.get_subcommands({}).size();
        family.add(app, context);
        const std::vector<CLI::App*> commands = app.get_subcommands({});
        for (size_t i = before; i < commands.size(); ++i) commands[i]->group(family.heading);
    }
}

int Main(int argc, char** argv) {
    shdtool::Context context;
    context.root = shdclient::DefaultRoot();
    CLI::App app("Talks to shd, the sensor-hub daemon, over its local sockets.", "shdtool");
    AddGlobalOptions(app, context);
    app.failure_message(UsageError);

    AddCommands(app, context);

    try {
        app.parse(argc, argv);
    } catch (const CLI::RuntimeError& error) {
        return error.get_exit_code();  // a command has said what was wrong
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? shdtool::kExitSuccess : shdtool::kExitUsage;
    }
    return context.exit_status;
}

// What a full disk did not take is still in the stream's buffer, or is missing already.
int EndOutput() {
    errno = 0;
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return shdtool::kExitSuccess;
    fmt::print(stderr, "shdtool: cannot write to standard output: {}\n",
               errno != 0 ? std::strerror(errno) : "an earlier part of it is missing");
    return shdtool::kExitRefused;
}

}  // namespace

int main(int argc, char** argv) {
    FillStandardDescriptors();
    try {
        const int status = Main(argc, argv);
        return status == shdtool::kExitSuccess ? EndOutput() : status;
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "shdtool: internal error: %s\n", error.what());
        return shdtool::kExitRefused;
    }
}
