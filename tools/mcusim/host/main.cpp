// The program mcusim: options in, simulator out. Run by people, by scripts/run and by the
// integration tests.
#include <fmt/core.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "platform/standard_descriptors.h"
#include "tools/client/default_root.h"
#include "tools/mcusim/host/command_client.h"
#include "tools/mcusim/host/command_line.h"

namespace {

constexpr int kExitRefused = 1;
constexpr int kExitUsage = 2;

std::string RootOf(const cli::Arguments& arguments) {
    if (arguments.Has("--root")) return arguments.Text("--root");
    if (arguments.Has("--send")) return shdclient::DefaultRoot();
    const char* root = std::getenv("SHD_ROOT");
    return root != nullptr ? root : "";
}

int SendCommands(const std::string& root, const std::vector<std::string>& commands) {
    int status = 0;
    for (const std::string& command : commands) {
        const std::string answer =
            mcusim::SendCommand(root + "/" + mcusim::kCommandSocket, command);
        (void)std::fputs((answer + "\n").c_str(), stdout);
        if (!answer.starts_with("ok")) status = kExitRefused;
    }
    return status;
}

int RunSimulator(const mcusim::SimulatorOptions& options) {
    mcusim::Simulator simulator(options);
    fmt::print("mcusim: ready {}\n", options.root);
    (void)std::fflush(stdout);
    return simulator.Run() ? 0 : kExitRefused;
}

int ParseAndRun(int argc, char** argv) {
    const cli::Parsed parsed = cli::Parse(mcusim::CommandLine(), argc, argv);
    const cli::Arguments& arguments = parsed.arguments;
    std::string text = parsed.text;
    if (!parsed.error.empty()) throw mcusim::UsageError(parsed.error);
    if (text.empty() && arguments.Has("--completion")) {
        text = cli::CompletionScript(mcusim::CommandLine(), arguments.Text("--completion"));
    }
    if (!text.empty()) {
        (void)std::fputs(text.c_str(), stdout);
        return 0;
    }
    mcusim::SimulatorOptions options = mcusim::OptionsOf(arguments);
    options.root = RootOf(arguments);
    if (options.root.empty()) {
        throw mcusim::UsageError("name the directory: --root DIR, or SHD_ROOT");
    }
    if (arguments.Has("--send")) return SendCommands(options.root, arguments.All("--send"));
    return RunSimulator(options);
}

int Complain(const std::exception& error, int status) {
    (void)std::fputs(fmt::format("mcusim: {}\n", error.what()).c_str(), stderr);
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    FillStandardDescriptors();
    for (const int number : {SIGPIPE, SIGTTIN, SIGTTOU}) (void)std::signal(number, SIG_IGN);
    try {
        const int status = ParseAndRun(argc, argv);
        return cli::EndOutput(mcusim::CommandLine()) ? status : kExitRefused;
    } catch (const mcusim::UsageError& error) {
        return Complain(error, kExitUsage);
    } catch (const std::exception& error) {
        return Complain(error, kExitRefused);
    }
}
