// What every command of shdtool shares: the global options, the exit status, and the one place
// that prints a result as a line or as a JSON object. Included by all command files.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "tools/client/hub_client.h"
#include "tools/client/result.h"

namespace shdtool {

using Json = nlohmann::ordered_json;

enum ExitStatus : int {
    kExitSuccess = 0,
    kExitRefused = 1,   // the hub or the MCU said no or did not answer; a check found a fault
    kExitUsage = 2,     // wrong command line, or a file that is not what it should be
    kExitNoDaemon = 3,  // nobody behind the sockets
};

// The global options and what the command left behind. Lives in main for the whole run; command
// callbacks keep references to it.
struct Context {
    std::string root;  // directory tree of the daemon; empty: the device's own
    bool json = false;
    double timeout_sec = 15;  // limit of the wait for each reply
    int exit_status = kExitSuccess;
};

// What a command that succeeded has to say.
struct Report {        // NOLINT(bugprone-exception-escape): moving a Json does not throw
    std::string line;  // without a line end; may hold several lines
    Json fields;       // an object; printed behind "ok" and "command" with --json
};

[[nodiscard]] ExitStatus ExitStatusOf(shdclient::ErrorCode code);

// Adds a subcommand. Its help shows the description, which also stands in the list of commands, and
// ends with the details (lines of their own, may be empty), the examples (command lines with two
// blanks in front) and the names of the global options.
CLI::App* AddCommand(CLI::App& app, const std::string& name, const std::string& description,
                     const std::string& examples, const std::string& details = "");

// A check for numbers from min to max, both included, with an error that says so.
[[nodiscard]] CLI::Validator Between(double min, double max);

// Prints the error to standard error as "shdtool: MESSAGE", or to standard output as a JSON object
// {"ok": false, ...} with --json, and sets the exit status.
void Fail(Context& context, std::string_view command, const shdclient::Error& error);

// Runs a command and prints its report, or its error as Fail does.
void Run(Context& context, std::string_view command,
         const std::function<shdclient::Result<Report>()>& action);

// Connects to the hub with the context's time limit. When a reply takes longer than 2 s, a person
// at a terminal is told how long the wait can last.
[[nodiscard]] shdclient::Result<shdclient::HubClient> ConnectHub(const Context& context);

// Connects to the hub first; then as Run.
void RunWithHub(Context& context, std::string_view command,
                const std::function<shdclient::Result<Report>(shdclient::HubClient&)>& action);

// Prints an object on one line of standard output. Bytes that are no UTF-8 are replaced.
void PrintJson(const Json& object);

}  // namespace shdtool
