// The command line of mcusim. Called by main.
#include "tools/mcusim/host/command_line.h"

#include <fmt/core.h>

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "tools/mcusim/application/sensor_traits.h"
#include "tools/mcusim/host/tester_commands.h"

namespace mcusim {
namespace {

// "accelerometer=", ... with what stands between two of them.
std::string SensorNames(std::string_view behind, std::string_view between) {
    std::string names;
    for (const SensorTraits& traits : Sensors()) {
        names += fmt::format("{}{}{}", names.empty() ? "" : between, traits.name, behind);
    }
    return names;
}

cli::Options MakeOptions(const char* signal_words, const char* command_words) {
    using cli::Kind;
    constexpr double kWord = UINT32_MAX;
    return {
        {.name = "--root",
         .kind = Kind::kDirectory,
         .value = "DIR",
         .help = "Directory to serve, made when missing; default: SHD_ROOT. With --send without "
                 "either, that of a running scripts/run"},
        {.name = "--baud",
         .kind = Kind::kInteger,
         .value = "N",
         .help = "Line speed in bit/s; 0: bytes take no time",
         .max = kWord,
         .standard = "115200"},
        {.name = "--seed",
         .kind = Kind::kInteger,
         .value = "N",
         .help = "Of every signal and of every random fault",
         .max = kWord,
         .standard = "1"},
        {.name = "--boot-delay",
         .kind = Kind::kNumber,
         .value = "SEC",
         .help = "Seconds from a reset to a listening firmware",
         .max = 3600,
         .standard = "0.3"},
        {.name = "--flash-time-scale",
         .kind = Kind::kNumber,
         .value = "X",
         .help = "Factor on the flash's erase and program times; 0: instant",
         .max = 1000,
         .standard = "1"},
        {.name = "--firmware-version",
         .value = "TEXT",
         .help = "Put a firmware with this version text into flash; SIM.900.0001 without a flash "
                 "file",
         .excludes = "--blank"},
        {.name = "--blank", .kind = Kind::kFlag, .help = "Start with an erased flash"},
        {.name = "--keep",
         .kind = Kind::kFlag,
         .help = "Leave the flash contents (mcusim/) behind at the end"},
        {.name = "--script",
         .kind = Kind::kFile,
         .value = "FILE",
         .help = "Steps such as \"at 5s hang\" or \"every 1s steps +2\""},
        {.name = "--signal",
         .value = "SENSOR=FILE",
         .help = "Play a sensor's signal from a file of comma-separated values",
         .words = signal_words,
         .repeated = true},
        {.name = "--trace",
         .kind = Kind::kNewFile,
         .value = "[FILE]",
         .help = "Print every frame in words, to this file or to standard error",
         .value_may_miss = true},
        {.name = "--record",
         .kind = Kind::kNewFile,
         .value = "FILE",
         .help = "Write the line's bytes of both directions, with times"},
        {.name = "--replay",
         .kind = Kind::kFile,
         .value = "FILE",
         .help = "Instead of a simulated MCU, play the MCU's side of such a record",
         .excludes = "--blank --keep --script --signal --trace --record"},
        {.name = "--replay-gap",
         .kind = Kind::kNumber,
         .value = "SEC",
         .help = "Longest pause kept before what the recorded MCU says unasked",
         .max = 3600,
         .standard = "0.1",
         .needs = "--replay"},
        {.name = "--send",
         .value = "COMMAND",
         .help = "Send a command to the simulator that runs on the directory",
         .words = command_words,
         .repeated = true},
        {.name = "--completion",
         .kind = Kind::kChoice,
         .value = "SHELL",
         .help = "Print a completion script for bash or zsh",
         .words = "bash zsh"},
    };
}

std::pair<const SensorTraits*, std::string> ParseSignal(const std::string& text) {
    const size_t equals = text.find('=');
    const SensorTraits* sensor = FindSensor(std::string_view(text).substr(0, equals));
    if (equals == std::string::npos || sensor == nullptr) {
        throw UsageError(fmt::format("--signal {}: write SENSOR=FILE with one of {}", text,
                                     SensorNames("", ", ")));
    }
    return {sensor, text.substr(equals + 1)};
}

std::optional<std::string> Given(const cli::Arguments& arguments, const char* name) {
    return arguments.Has(name) ? std::optional(arguments.Text(name)) : std::nullopt;
}

}  // namespace

const cli::Program& CommandLine() {
    static const std::string details =
        "--signal and --send may be repeated. Commands, for --send, on standard input and on "
        "DIR/dev/socket/mcusim (numbers are decimal, or hexadecimal with 0x in front):\n" +
        CommandHelp() +
        "Exit status: 0 success; 1 failed, refused, or a replay in which the host did otherwise; "
        "2 wrong usage.";
    static const std::string signal_words = SensorNames("=", " ");
    static const std::string command_words = CommandWords();
    static const cli::Program program{
        "mcusim",
        "the simulated sensor-hub MCU and its board, below a directory of its own",
        MakeOptions(signal_words.c_str(), command_words.c_str()),
        details.c_str(),
        "mcusim --root /tmp/hub --trace trace.log &\n"
        "SHD_ROOT=/tmp/hub shd &\n"
        "mcusim --root /tmp/hub --send 'drop 0.1' --send stats\n"
        "source <(mcusim --completion bash)",
        {}};
    return program;
}

SimulatorOptions OptionsOf(const cli::Arguments& arguments) {
    SimulatorOptions options;
    options.machine.baud = static_cast<uint32_t>(arguments.Integer("--baud"));
    options.machine.seed = static_cast<uint64_t>(arguments.Integer("--seed"));
    options.machine.boot_delay = FromSeconds(arguments.Number("--boot-delay"));
    options.machine.bootloader_timings.scale = arguments.Number("--flash-time-scale");
    options.firmware_version = Given(arguments, "--firmware-version");
    options.blank = arguments.Has("--blank");
    options.keep = arguments.Has("--keep");
    options.script = Given(arguments, "--script");
    options.trace = Given(arguments, "--trace");
    if (options.trace && options.trace->empty()) options.trace = "-";
    options.record = Given(arguments, "--record");
    options.replay = Given(arguments, "--replay");
    options.replay_gap = FromSeconds(arguments.Number("--replay-gap"));
    for (const std::string& signal : arguments.All("--signal")) {
        options.signals.push_back(ParseSignal(signal));
    }
    return options;
}

}  // namespace mcusim
