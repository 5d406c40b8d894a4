// shdtool, the command line of the sensor hub: parses the arguments and runs one command. Called
// by people, scripts and tests.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <string_view>

#include "platform/standard_descriptors.h"
#include "tools/cli/parse.h"
#include "tools/client/default_root.h"
#include "tools/shdtool/base/command_rows.h"

namespace {

using namespace shdtool;

int Main(int argc, char** argv) {
    cli::Parsed parsed = cli::Parse(ThisProgram(), argc, argv);
    if (!parsed.text.empty()) {
        (void)std::fputs(parsed.text.c_str(), stdout);
        return kExitSuccess;
    }
    const auto& commands = AllCommands();
    const size_t row = parsed.command < 0 ? commands.size() : static_cast<size_t>(parsed.command);
    const std::string name = row < commands.size() ? commands[row].line.name : "";
    if (!parsed.error.empty()) {
        // What follows the mistake was not parsed any more.
        const bool json = std::any_of(argv, argv + argc, [](const char* argument) {
            return std::string_view(argument) == "--json";
        });
        return Complain(json, name, parsed.error, kExitUsage);
    }
    Context context{.arguments = std::move(parsed.arguments), .command = name};
    context.root = context.arguments.Has("--root") ? context.arguments.Text("--root")
                                                   : shdclient::DefaultRoot();
    context.json = context.arguments.Has("--json");
    context.timeout_sec = context.arguments.Number("--timeout");
    return RunCommand(commands[row], context);
}

}  // namespace

int main(int argc, char** argv) {
    FillStandardDescriptors();
    try {
        const int status = Main(argc, argv);
        if (status != kExitSuccess) return status;
        return cli::EndOutput(ThisProgram()) ? kExitSuccess : kExitRefused;
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "shdtool: internal error: %s\n", error.what());
        return kExitRefused;
    }
}
