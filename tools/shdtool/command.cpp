// Runs commands and prints their outcome. Called by the callbacks of all command files.
#include "tools/shdtool/command.h"

#include <fmt/core.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace shdtool {
namespace {

using shdclient::ErrorCode;
using std::chrono::milliseconds;

constexpr milliseconds kSlowReply{2'000};

void TellAboutWait(milliseconds left) {
    fmt::print(stderr, "shdtool: no reply yet; waiting up to {} s more\n", left.count() / 1000);
}

}  // namespace

ExitStatus ExitStatusOf(ErrorCode code) {
    switch (code) {
        case ErrorCode::kInvalidArgument:
            return kExitUsage;
        case ErrorCode::kUnavailable:
        case ErrorCode::kDisconnected:
            return kExitNoDaemon;
        case ErrorCode::kTimeout:
        case ErrorCode::kRefused:
        case ErrorCode::kProtocol:
        case ErrorCode::kSystem:
            break;
    }
    return kExitRefused;
}

CLI::App* AddCommand(CLI::App& app, const std::string& name, const std::string& description,
                     const std::string& examples, const std::string& details) {
    CLI::App* command = app.add_subcommand(name, description);
    command->footer(details + (details.empty() ? "" : "\n") + "Example:\n" + examples +
                    "\nGlobal options (see 'shdtool --help'): --root DIR, --json, --timeout SEC");
    return command;
}

CLI::Validator Between(double min, double max) {
    return CLI::Validator(
        [min, max](const std::string& text) -> std::string {
            double number = 0;
            if (CLI::detail::lexical_cast(text, number) && number >= min && number <= max) {
                return "";
            }
            return fmt::format("'{}' is not a number from {:.10g} to {:.10g}", text, min, max);
        },
        "");
}

void PrintJson(const Json& object) {
    fmt::print("{}\n", object.dump(-1, ' ', false, Json::error_handler_t::replace));
}

void Fail(Context& context, std::string_view command, const shdclient::Error& error) {
    context.exit_status = ExitStatusOf(error.code);
    if (!context.json) {
        fmt::print(stderr, "shdtool: {}\n", error.message);
        return;
    }
    Json object{{"ok", false}, {"command", command}, {"error", error.message}};
    if (error.code == ErrorCode::kRefused) object["status"] = error.status;
    object["exit_status"] = context.exit_status;
    PrintJson(object);
}

void Run(Context& context, std::string_view command,
         const std::function<shdclient::Result<Report>()>& action) {
    const shdclient::Result<Report> report = action();
    if (!report) {
        Fail(context, command, report.error());
    } else if (context.json) {
        Json object{{"ok", true}, {"command", command}};
        object.update(report->fields);
        PrintJson(object);
    } else {
        fmt::print("{}\n", report->line);
    }
}

shdclient::Result<shdclient::HubClient> ConnectHub(const Context& context) {
    shdclient::Result<shdclient::HubClient> hub = shdclient::HubClient::Connect(context.root);
    if (!hub) return hub;
    hub->set_timeout(milliseconds(static_cast<int64_t>(context.timeout_sec * 1000)));
    if (isatty(STDERR_FILENO) == 1) hub->set_slow_notice(kSlowReply, TellAboutWait);
    return hub;
}

void RunWithHub(Context& context, std::string_view command,
                const std::function<shdclient::Result<Report>(shdclient::HubClient&)>& action) {
    Run(context, command, [&]() -> shdclient::Result<Report> {
        shdclient::Result<shdclient::HubClient> hub = ConnectHub(context);
        if (!hub) return hub.error();
        return action(*hub);
    });
}

}  // namespace shdtool
