// The program mcusim: options in, simulator out. Run by people, by scripts/run and by the
// integration tests.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/standard_descriptors.h"
#include "tools/mcusim/application/sensor_traits.h"
#include "tools/mcusim/host/command_client.h"
#include "tools/mcusim/host/simulator.h"
#include "tools/mcusim/host/tester_commands.h"

namespace {

constexpr int kExitUsage = 2;

std::pair<const mcusim::SensorTraits*, std::string> ParseSignal(const std::string& text) {
    const size_t equals = text.find('=');
    const mcusim::SensorTraits* sensor =
        mcusim::FindSensor(std::string_view(text).substr(0, equals));
    if (equals == std::string::npos || sensor == nullptr) {
        std::string names;
        for (const mcusim::SensorTraits& traits : mcusim::Sensors())
            names += fmt::format(" {}", traits.name);
        throw std::runtime_error(
            fmt::format("--signal {}: write SENSOR=FILE with one of{}", text, names));
    }
    return {sensor, text.substr(equals + 1)};
}

// 1 when a command was refused.
int SendCommands(const std::string& root, const std::vector<std::string>& commands) {
    int status = 0;
    for (const std::string& command : commands) {
        const std::string answer =
            mcusim::SendCommand(root + "/" + mcusim::kCommandSocket, command);
        fmt::print("{}\n", answer);
        if (!answer.starts_with("ok")) status = 1;
    }
    return status;
}

int RunSimulator(const mcusim::SimulatorOptions& options) {
    mcusim::Simulator simulator(options);
    fmt::print("mcusim: ready {}\n", options.root);
    std::fflush(stdout);
    simulator.Run();
    return 0;
}

int ParseAndRun(int argc, char** argv) {
    CLI::App app("The simulated sensor-hub MCU and its board, below a directory of its own.");
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return fmt::format("mcusim: {}; see 'mcusim --help'\n", error.what());
    });
    CLI::Validator word = CLI::Range(0.0, double{UINT32_MAX});
    word.description("");
    mcusim::SimulatorOptions options;
    double boot_delay_sec = 0.3;
    app.add_option("--root", options.root, "directory to serve; made when missing")
        ->envname("SHD_ROOT")
        ->type_name("DIR");
    app.add_option("--baud", options.machine.baud, "line speed in bit/s; 0: bytes take no time")
        ->check(word)
        ->capture_default_str();
    app.add_option("--seed", options.machine.seed, "of every signal and of every random fault")
        ->check(word)
        ->capture_default_str();
    app.add_option("--boot-delay", boot_delay_sec, "seconds from a reset to a listening firmware")
        ->check(CLI::Range(0.0, 3600.0))
        ->capture_default_str();
    app.add_option("--flash-time-scale", options.machine.bootloader_timings.scale,
                   "factor on the flash's erase and program times; 0: instant")
        ->check(CLI::Range(0.0, 1000.0))
        ->capture_default_str();
    CLI::Option* version =
        app.add_option("--firmware-version", options.firmware_version,
                       "put a firmware with this version text into flash [SIM.900.0001]");
    app.add_flag("--blank", options.blank, "start with an erased flash")->excludes(version);
    app.add_flag("--keep", options.keep, "leave the flash contents (mcusim/) behind at the end");
    app.add_option("--script", options.script,
                   "file of steps \"at 5s hang\" or \"every 1s steps +2\"");
    std::string trace_path;
    const CLI::Option* trace =
        app.add_option("--trace", trace_path,
                       "print every frame in words, to this file or to standard error")
            ->expected(0, 1)
            ->type_name("[FILE]");
    app.add_option("--record", options.record, "write the line's bytes of both directions here");
    std::vector<std::string> signals;
    app.add_option("--signal", signals, "play a recorded signal: SENSOR=FILE.csv; repeatable")
        ->type_name("SENSOR=FILE")
        ->allow_extra_args(false);
    std::vector<std::string> commands;
    app.add_option("--send", commands,
                   "send a command to the simulator that runs on the directory; repeatable")
        ->type_name("COMMAND")
        ->allow_extra_args(false);
    app.footer(
        "Commands, on standard input and on DIR/dev/socket/mcusim; numbers are decimal, or\n"
        "hexadecimal with 0x in front:\n" +
        mcusim::CommandHelp() +
        "\nExit status: 0 success, 1 failed or refused, 2 wrong usage.\n"
        "Example:\n"
        "  mcusim --root /tmp/hub --trace trace.log &\n"
        "  SHD_ROOT=/tmp/hub shd &\n"
        "  mcusim --root /tmp/hub --send 'drop 0.1' --send stats");
    try {
        app.parse(argc, argv);
        if (options.root.empty()) throw CLI::RequiredError("--root DIR, or SHD_ROOT,");
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kExitUsage;
    }
    if (!commands.empty()) return SendCommands(options.root, commands);
    if (trace->count() > 0) options.trace = trace_path.empty() ? "-" : trace_path;
    options.machine.boot_delay = mcusim::FromSeconds(boot_delay_sec);

    for (const std::string& signal : signals) options.signals.push_back(ParseSignal(signal));
    return RunSimulator(options);
}

}  // namespace

int main(int argc, char** argv) {
    FillStandardDescriptors();
    for (const int number : {SIGPIPE, SIGTTIN, SIGTTOU}) std::signal(number, SIG_IGN);
    try {
        return ParseAndRun(argc, argv);
    } catch (const std::exception& error) {
        std::fputs((std::string("mcusim: ") + error.what() + "\n").c_str(), stderr);
        return 1;
    }
}
