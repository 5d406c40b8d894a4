// What every command of shdtool shares: its row, the global options, the exit status, and the one
// place that prints an outcome as text or as a JSON object. Included by all command files.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/cli/arguments.h"
#include "tools/cli/command_line.h"
#include "tools/client/hub_client.h"
#include "tools/client/result.h"
#include "tools/shdtool/base/json.h"

namespace shdtool {

enum ExitStatus : int {
    kExitSuccess = 0,
    kExitRefused = 1,   // the hub or the MCU said no or did not answer; a check found a fault
    kExitUsage = 2,     // wrong command line, or a file that is not what it should be
    kExitNoDaemon = 3,  // nobody behind the sockets
};

[[nodiscard]] ExitStatus ExitStatusOf(shdclient::ErrorCode code);

// What a command has to say in the end.
struct Report {        // NOLINT(bugprone-exception-escape): moving a Json does not throw
    std::string text;  // without the last line end; nothing is printed when it is empty
    Json fields = {};  // an object; printed behind "ok" and "command" with --json
    int exit_status = kExitSuccess;
    // Why the status is not 0, in one line: goes to standard error, or to "error" with --json.
    std::string complaint = {};
    bool streamed = false;  // with --json everything but a complaint has been printed already
};

using Outcome = shdclient::Result<Report>;

// One run of one command. Lives in main for the whole run.
struct Context {
    cli::Arguments arguments;
    std::string command;    // its name
    std::string root = {};  // directory tree of the daemon; empty: the device's own
    bool json = false;
    double timeout_sec = 0;  // limit of the wait for each reply
    std::vector<std::string> warnings = {};

    [[nodiscard]] std::chrono::milliseconds timeout() const;

    // Says something that does not change the outcome: at once on standard error as
    // "shdtool: warning: TEXT"; with --json in the "warnings" of the outcome.
    void Warn(const std::string& text);
};

// A row of the table of commands: one that runs by itself, one that asks the hub and shows the
// answer, or the head of a group, which does neither.
struct Command {
    using Run = Outcome (*)(Context& context);
    using Ask = Outcome (*)(shdclient::HubClient& hub, Context& context);

    Command(cli::Command its_line, Run function) : line(std::move(its_line)), run(function) {}
    Command(cli::Command its_line, Ask function) : line(std::move(its_line)), ask(function) {}
    Command(cli::Command its_line) : line(std::move(its_line)) {}

    cli::Command line;
    Run run = nullptr;
    Ask ask = nullptr;
};

// Runs a command and prints its outcome. Errors go to standard error as "shdtool: MESSAGE"; with
// --json to standard output as {"ok": false, "command", "error", "exit_status"}. Returns the exit
// status.
[[nodiscard]] int RunCommand(const Command& command, Context& context);

// The outcome when a request has failed, or that text and these fields.
[[nodiscard]] Outcome Answer(const shdclient::Status& done, const std::string& text,
                             const Json& fields);

// Wrong usage that no row of the table can tell.
[[nodiscard]] shdclient::Error WrongUsage(const std::string& message);

// Says what is wrong when no outcome can be had. command may be empty. Returns the status.
[[nodiscard]] int Complain(bool json, std::string_view command, const std::string& message,
                           int exit_status, int32_t mcu_status = 0);

// Connects to the hub with the context's time limit. When a reply takes longer than 2 s, a person
// at a terminal is told how long the wait can last.
[[nodiscard]] shdclient::Result<shdclient::HubClient> ConnectHub(const Context& context);

// {"sensor": NAME, "handle": N}, the beginning of the JSON fields of a sensor's command.
[[nodiscard]] Json SensorFields(const shdclient::SensorInfo& sensor);

}  // namespace shdtool
