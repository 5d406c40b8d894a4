// Puts the rows of all commands together, and the options that all of them understand. Called by
// main and by the completion command.
#include "tools/shdtool/base/command_rows.h"

namespace shdtool {
namespace {

const cli::Options kGlobalOptions{
    {"--root", cli::Kind::kDirectory, "DIR",
     "Directory tree of the daemon; default: SHD_ROOT, else the device's own, else that of "
     "a running scripts/run"},
    {"--json", cli::Kind::kFlag, "", "Print one JSON object instead of text"},
    {"--timeout", cli::Kind::kNumber, "SEC", "Longest wait for a reply in seconds", 0.001, 86'400,
     "15"}};

constexpr const char* kDetails =
    "Exit status: 0 success, 1 the hub or the MCU refused or a check failed, 2 wrong usage or a "
    "file that is not what it should be, 3 no daemon there.";

}  // namespace

const CommandRows& AllCommands() {
    static const CommandRows rows = [] {
        CommandRows all;
        for (auto* family :
             {StatusCommands, ClientsCommands, ListCommands, WatchCommands, RecordCommands,
              ReplayCommands, AuditCommands, ViewCommands, SensorCommands, FlushCommands,
              McuCommands, RawCommands, TapCommands, LogCommands, TimelineCommands, DumpCommands,
              RawLogCommands, ImageCommands, CompletionCommands}) {
            for (Command& row : family()) all.push_back(std::move(row));
        }
        return all;
    }();
    return rows;
}

const cli::Program& ThisProgram() {
    static const cli::Program program = [] {
        cli::Program made{"shdtool",
                          "talks to shd, the sensor-hub daemon, over its local sockets",
                          kGlobalOptions,
                          kDetails,
                          "shdtool enable accelerometer --rate 50 && shdtool watch accelerometer",
                          {}};
        for (const Command& row : AllCommands()) made.commands.push_back(row.line);
        return made;
    }();
    return program;
}

}  // namespace shdtool
