// Runs commands and prints their outcome. Called by main.
#include "tools/shdtool/base/command.h"

#include <fmt/core.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>

#include "tools/shdtool/base/terminal.h"

namespace shdtool {
namespace {

using shdclient::ErrorCode;
using std::chrono::milliseconds;

constexpr milliseconds kSlowReply{2'000};

void TellAboutWait(milliseconds left) {
    Say(stderr, fmt::format("shdtool: no reply yet; waiting up to {} s more", left.count() / 1000));
}

Outcome Execute(const Command& command, Context& context) {
    if (command.run != nullptr) return command.run(context);
    shdclient::Result<shdclient::HubClient> hub = ConnectHub(context);
    if (!hub) return hub.error();
    return command.ask(*hub, context);
}

void PrintJson(const Context& context, const Report& report) {
    Json object{{"ok", report.exit_status == kExitSuccess}, {"command", context.command}};
    object.Merge(report.fields);
    if (!report.complaint.empty()) object.Set("error", report.complaint);
    if (!context.warnings.empty()) object.Set("warnings", Json::List(context.warnings));
    if (report.exit_status != kExitSuccess) object.Set("exit_status", report.exit_status);
    PrintLine(stdout, object.Text());
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

milliseconds Context::timeout() const {
    return milliseconds(std::llround(timeout_sec * 1000));
}

void Context::Warn(const std::string& text) {
    if (json) {
        warnings.push_back(text);
    } else {
        Say(stderr, "shdtool: warning: " + text);
    }
}

int Complain(bool json, std::string_view command, const std::string& message, int exit_status,
             int32_t mcu_status) {
    (void)std::fflush(stdout);  // what was found stands ahead of the complaint wherever both go
    if (!json) {
        Say(stderr, "shdtool: " + message);
        return exit_status;
    }
    Json object{{"ok", false}, {"command", command}, {"error", message}};
    if (mcu_status != 0) object.Set("status", mcu_status);
    PrintLine(stdout, object.Set("exit_status", exit_status).Text());
    if (std::fflush(stdout) != 0) Say(stderr, "shdtool: " + message);
    return exit_status;
}

int RunCommand(const Command& command, Context& context) {
    const Outcome outcome = Execute(command, context);
    if (!outcome) {
        return Complain(context.json, context.command, outcome.error().message,
                        ExitStatusOf(outcome.error().code), outcome.error().status);
    }
    if (context.json && !outcome->streamed) {
        PrintJson(context, *outcome);
        return outcome->exit_status;
    }
    if (!context.json && !outcome->text.empty()) Say(stdout, outcome->text);
    if (outcome->complaint.empty()) return outcome->exit_status;
    return Complain(context.json, context.command, outcome->complaint, outcome->exit_status);
}

Outcome Answer(const shdclient::Status& done, const std::string& text, const Json& fields) {
    if (!done) return done.error();
    return Report{text, fields};
}

shdclient::Error WrongUsage(const std::string& message) {
    return {ErrorCode::kInvalidArgument, message};
}

shdclient::Result<shdclient::HubClient> ConnectHub(const Context& context) {
    shdclient::Result<shdclient::HubClient> hub = shdclient::HubClient::Connect(context.root);
    if (!hub) return hub;
    hub->set_timeout(context.timeout());
    const bool told = !context.json && isatty(STDERR_FILENO) == 1;
    if (told) hub->set_slow_notice(kSlowReply, TellAboutWait);
    return hub;
}

Json SensorFields(const shdclient::SensorInfo& sensor) {
    return {{"sensor", sensor.name}, {"handle", sensor.handle}};
}

}  // namespace shdtool
