// shdtool, the command line of the sensor hub: parses the arguments and runs one command. Called
// by people, scripts and tests.
#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
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
        fmt::print("{}", parsed.text);
        return kExitSuccess;
    }
    const Command* command =
        parsed.command < 0 ? nullptr : &AllCommands()[static_cast<size_t>(parsed.command)];
    const std::string name = command != nullptr ? command->line.name : "";
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
    return RunCommand(*command, context);
}

// What a full disk did not take is still in the stream's buffer, or is missing already.
int EndOutput() {
    errno = 0;
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return kExitSuccess;
    fmt::print(stderr, "shdtool: cannot write to standard output: {}\n",
               errno != 0 ? std::strerror(errno) : "an earlier part of it is missing");
    return kExitRefused;
}

}  // namespace

int main(int argc, char** argv) {
    FillStandardDescriptors();
    try {
        const int status = Main(argc, argv);
        return status == kExitSuccess ? EndOutput() : status;
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "shdtool: internal error: %s\n", error.what());
        return kExitRefused;
    }
}
