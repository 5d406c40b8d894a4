// The command table. Used by the command channel, by scripts and for the help.
#include "tools/mcusim/host/tester_commands.h"

#include <fmt/core.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <span>
#include <stdexcept>

#include "tools/cli/parse.h"
#include "tools/mcusim/application/dump_builder.h"
#include "tools/mcusim/host/command_args.h"

namespace mcusim {
namespace {

using std::chrono::milliseconds;

constexpr int64_t kMaxDelayMs = 3'600'000;
constexpr int64_t kMaxCount = 1'000'000;

struct CommandTraits {
    std::string_view name;
    std::string_view usage;
    std::string_view help;
    CommandAction (*parse)(CommandArgs& args);
};

std::string CommandNames();

// An action without an answer of its own.
template <typename Function>
CommandAction Do(Function function) {
    return [function](CommandContext& context) {
        function(context);
        return std::string();
    };
}

void Require(bool ok, const char* why) {
    if (!ok) throw CommandError(why);
}

void RequireApplication(const CommandContext& context) {
    Require(context.machine.board.mode() == Board::Mode::kApplication,
            "the application is not running");
}

CommandAction ParseHang(CommandArgs& args) {
    const bool hard = args.TakeIf("hard");
    return Do([hard](CommandContext& context) {
        Require(context.machine.board.Hang(context.now, hard), "the bootloader cannot hang");
    });
}

CommandAction ParseStatus(CommandArgs& args) {
    const auto service = static_cast<uint8_t>(args.Integer("service", 0, 255));
    const auto command = static_cast<uint8_t>(args.Integer("command", 0, 255));
    const auto status = static_cast<uint8_t>(args.Integer("status", 0, 255));
    const int count = args.AtEnd() ? 0 : static_cast<int>(args.Integer("count", 1, kMaxCount));
    return Do([=](CommandContext& context) {
        context.machine.faults.RefuseRequests(service, command, status, count);
    });
}

CommandAction ParseNoReply(CommandArgs& args) {
    const auto service = static_cast<uint8_t>(args.Integer("service", 0, 255));
    const auto command = static_cast<uint8_t>(args.Integer("command", 0, 255));
    const int count = args.AtEnd() ? 0 : static_cast<int>(args.Integer("count", 1, kMaxCount));
    return Do([=](CommandContext& context) {
        context.machine.faults.SwallowRequests(service, command, count);
    });
}

CommandAction ParseLog(CommandArgs& args) {
    return Do([text = std::string(args.Rest())](CommandContext& context) {
        RequireApplication(context);
        context.machine.application.Log(context.now, text);
    });
}

CommandAction ParseSteps(CommandArgs& args) {
    const auto steps = static_cast<uint32_t>(args.Integer("steps", 1, kMaxCount));
    return Do([steps](CommandContext& context) {
        context.machine.signals.AddSteps(steps);
        context.machine.application.sensors().PokeSteps(context.now);
    });
}

CommandAction ParseHeart(CommandArgs& args) {
    if (args.TakeIf("auto")) {
        return Do(
            [](CommandContext& context) { context.machine.signals.SetHeartRate(std::nullopt); });
    }
    const double bpm = args.Number("beats per minute", 1, 300);
    return Do([bpm](CommandContext& context) { context.machine.signals.SetHeartRate(bpm); });
}

CommandAction ParseTilt(CommandArgs&) {
    return Do([](CommandContext& context) {
        RequireApplication(context);
        Require(context.machine.application.sensors().EmitTilt(context.now),
                "the wrist-tilt sensor is off");
    });
}

void KeepDump(const std::string& directory, std::span<const uint8_t> dump) {
    const std::string path = directory + "/last_dump.bin";
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(dump.data()),
               static_cast<std::streamsize>(dump.size()));
    file.close();
    if (!file) throw CommandError(path + " cannot be written");
}

CommandAction ParseCrash(CommandArgs& args) {
    int pieces = kDefaultDumpPieces;
    bool ask_for_reset = !args.TakeIf("noreboot");
    if (ask_for_reset && !args.AtEnd()) {
        pieces = static_cast<int>(args.Integer("pieces", 1, kMaxDumpPieces));
        ask_for_reset = !args.TakeIf("noreboot");
    }
    return [=](CommandContext& context) {
        RequireApplication(context);
        const auto dump = context.machine.Crash(context.now, pieces, ask_for_reset);
        KeepDump(context.state_directory, dump);
        return fmt::format("{} bytes in {} pieces", dump.size(), pieces);
    };
}

CommandAction ParseBrownout(CommandArgs& args) {
    const int64_t ms = args.AtEnd() ? 500 : args.Integer("milliseconds", 1, kMaxDelayMs);
    return Do([ms](CommandContext& context) {
        context.machine.board.Brownout(context.now, milliseconds(ms));
    });
}

CommandAction ParseMute(CommandArgs& args) {
    const auto answer = static_cast<int>(args.Integer("answer", 0, kMaxCount));
    const int resets = args.AtEnd() ? 1 : static_cast<int>(args.Integer("resets", 1, kMaxCount));
    return Do([=](CommandContext& context) { context.machine.bootloader.MuteAt(answer, resets); });
}

CommandAction ParseFlip(CommandArgs& args) {
    const auto address = static_cast<uint32_t>(
        args.Integer("address", kFlashBase, kFlashBase + kFlashSizeBytes - 1));
    const auto bit = static_cast<unsigned>(args.Integer("bit", 0, 7));
    return Do([=](CommandContext& context) { context.machine.flash.FlipBit(address, bit); });
}

struct LineFaultWord {
    std::string_view name;
    LineFault::Kind kind;
};

constexpr LineFaultWord kLineFaults[] = {
    {"drop", LineFault::Kind::kDrop},     {"flip", LineFault::Kind::kFlip},
    {"double", LineFault::Kind::kDouble}, {"insert", LineFault::Kind::kInsert},
    {"pause", LineFault::Kind::kPause},   {"silence", LineFault::Kind::kSilence},
    {"power", LineFault::Kind::kPower},
};

CommandAction ParseFault(CommandArgs& args) {
    const std::string_view word = args.Word();
    if (word == "none") {
        return Do([](CommandContext& context) { context.machine.line_fault.Clear(); });
    }
    Require(word == "in" || word == "out", "the direction is in or out");
    LineFault::Order order{};
    order.direction = word == "in" ? wire::Direction::kHostToMcu : wire::Direction::kMcuToHost;
    order.byte = static_cast<uint64_t>(args.Integer("byte", 0, INT32_MAX));
    const auto* fault = std::ranges::find(kLineFaults, args.Word(), &LineFaultWord::name);
    Require(fault != std::end(kLineFaults), "no such fault");
    order.kind = fault->kind;
    if (order.kind == LineFault::Kind::kFlip) {
        order.value = static_cast<uint8_t>(1 << args.Integer("bit", 0, 7));
    } else if (order.kind == LineFault::Kind::kInsert) {
        order.value = static_cast<uint8_t>(args.Integer("value", 0, 255));
    } else if (order.kind == LineFault::Kind::kPause || order.kind == LineFault::Kind::kPower) {
        order.duration = milliseconds(args.Integer("milliseconds", 1, kMaxDelayMs));
    }
    return Do([order](CommandContext& context) { context.machine.line_fault.Set(order); });
}

constexpr CommandTraits kCommands[] = {
    {"help", "", "the commands on one line",
     [](CommandArgs&) -> CommandAction { return [](CommandContext&) { return CommandNames(); }; }},
    {"hang", "[hard]", "stop listening and sending until a reset; hard: until resume", ParseHang},
    {"resume", "", "end a hang; the application goes on where it stood",
     [](CommandArgs&) {
         return Do([](CommandContext& context) { context.machine.board.Resume(context.now); });
     }},
    {"drop", "P", "lose each frame, either way, with probability P (0 to 1)",
     [](CommandArgs& args) {
         return Do([p = args.Number("probability", 0, 1)](CommandContext& context) {
             context.machine.faults.set_drop_probability(p);
         });
     }},
    {"corrupt", "P", "flip a bit in each frame sent with probability P (0 to 1)",
     [](CommandArgs& args) {
         return Do([p = args.Number("probability", 0, 1)](CommandContext& context) {
             context.machine.faults.set_corrupt_probability(p);
         });
     }},
    {"delay", "MS", "carry out and answer each request MS milliseconds later",
     [](CommandArgs& args) {
         const milliseconds delay(args.Integer("milliseconds", 0, kMaxDelayMs));
         return Do(
             [delay](CommandContext& context) { context.machine.faults.set_reply_delay(delay); });
     }},
    {"status", "SERVICE COMMAND STATUS [COUNT]",
     "refuse the next COUNT (or all) such requests with STATUS; STATUS 0 ends it", ParseStatus},
    {"noreply", "SERVICE COMMAND [COUNT]",
     "swallow the next COUNT (or all) such requests; status SERVICE COMMAND 0 ends it",
     ParseNoReply},
    {"log", "TEXT", "send a line of the MCU's log", ParseLog},
    {"steps", "+N", "count N more steps", ParseSteps},
    {"heart", "BPM|auto", "set the heart rate; auto: the model's own again", ParseHeart},
    {"tilt", "", "report a wrist tilt gesture now", ParseTilt},
    {"crash", "[PIECES] [noreboot]",
     "send a core dump in PIECES pieces (6) that asks for a reset, then stand still", ParseCrash},
    {"reset", "", "a pulse on the reset line; boot pin 0 selects what starts",
     [](CommandArgs&) {
         return Do([](CommandContext& context) { context.machine.board.PulseReset(context.now); });
     }},
    {"brownout", "[MS]", "cut the power now, for MS milliseconds (500)", ParseBrownout},
    {"nack", "N", "bootloader: refuse the N-th block to be written from now; 0 ends it",
     [](CommandArgs& args) {
         const auto block = static_cast<int>(args.Integer("block", 0, kMaxCount));
         return Do(
             [block](CommandContext& context) { context.machine.bootloader.NackBlock(block); });
     }},
    {"mute", "N [RESETS]",
     "bootloader: silent from the N-th answer from now until the RESETS-th (first) reset after; "
     "0 ends it",
     ParseMute},
    {"fault", "in|out BYTE drop|flip BIT|double|insert VALUE|pause MS|silence|power MS",
     "once, at that byte (0: the next one) to or from the MCU: lose it, invert a bit, send it "
     "twice, send another one before it, hold it and the rest up, lose everything both ways until "
     "a reset, cut the power; fault none takes it back",
     ParseFault},
    {"flip", "ADDRESS BIT", "invert a bit (0 to 7) of a byte in flash", ParseFlip},
    {"stats", "", "counters and state as one line of JSON",
     [](CommandArgs&) -> CommandAction {
         return [](CommandContext& context) { return context.machine.Stats(context.now); };
     }},
    {"quit", "", "end the simulator",
     [](CommandArgs&) { return Do([](CommandContext& context) { context.quit = true; }); }},
};

std::string UsageOf(const CommandTraits& traits) {
    return fmt::format("{}{}{}", traits.name, traits.usage.empty() ? "" : " ", traits.usage);
}

std::string CommandNames() {
    std::string names;
    for (const CommandTraits& traits : kCommands) {
        names += (names.empty() ? "" : "; ") + UsageOf(traits);
    }
    return names;
}

}  // namespace

CommandAction ParseCommand(std::string_view line) {
    CommandArgs args(line);
    const std::string_view name = args.Word();
    const auto* traits = std::ranges::find(kCommands, name, &CommandTraits::name);
    if (traits == std::end(kCommands)) {
        throw CommandError(fmt::format("no command \"{}\"; try help", name));
    }
    try {
        CommandAction action = traits->parse(args);
        args.ExpectEnd();
        return action;
    } catch (const CommandError& error) {
        throw CommandError(fmt::format("{} (usage: {})", error.what(), UsageOf(*traits)));
    }
}

std::string RunCommand(std::string_view line, CommandContext& context) {
    try {
        const std::string answer = ParseCommand(line)(context);
        return answer.empty() ? "ok" : "ok " + answer;
    } catch (const std::exception& error) {
        return fmt::format("error: {}", error.what());
    }
}

std::string CommandHelp() {
    constexpr size_t kColumns = 80;
    constexpr size_t kIndent = 6;
    std::string text;
    for (const CommandTraits& traits : kCommands) {
        text += fmt::format("  {}\n{}\n", UsageOf(traits),
                            cli::Wrapped(traits.help, kColumns, kIndent));
    }
    return text;
}

std::string CommandWords() {
    std::string words;
    for (const CommandTraits& traits : kCommands) {
        words.append(words.empty() ? "" : " ").append(traits.name);
    }
    return words;
}

}  // namespace mcusim
