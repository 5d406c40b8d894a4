// The command line of a program as plain data: commands, options and what their values are. From
// these rows the parser, the help, the completion scripts and the manual page are made.
#pragma once

#include <cstdint>
#include <vector>

namespace cli {

enum class Kind : uint8_t {
    kFlag,     // has no value
    kText,     // anything
    kChoice,   // one of the words of Option::words
    kNumber,   // min to max
    kInteger,  // min to max
    kBytes,    // a whole number, min to max, also as 200k or 2M
    kSensor,   // the name of a sensor, its unique beginning, or its handle
    kFile,     // a file to be read
    kNewFile,  // a file to be written
    kDirectory,
};

struct Option {
    const char* name;  // "--rate", "-o,--output", or of an argument "SENSOR"
    Kind kind = Kind::kText;
    const char* value = "";  // what stands for the value in the help: "HZ"
    const char* help = "";
    double min = 0;
    double max = 0;
    const char* standard = "";  // the value when it is not given; told behind the help
    const char* words = "";     // choices, or what else can be completed; separated by blanks
    bool required = false;
    bool repeated = false;         // an option may be given more than once, an argument is a list
    bool value_may_miss = false;   // --trace as well as --trace FILE
    const char* excludes = "";     // the options that cannot stand beside it, blanks between
    const char* needs = "";        // those that must
    const char* environment = "";  // the variable that is asked when it is not given
};

using Options = std::vector<Option>;

// All options of several lists, in their order.
[[nodiscard]] Options Joined(const std::vector<Options>& lists);

struct Command {
    const char* heading;  // of the part of the help that lists it
    const char* name;     // "watch"; "dump list" is the command list of the group dump
    const char* summary;
    Options options = {};
    const char* details = "";   // paragraphs, separated by line ends; indented lines stay
    const char* examples = "";  // one command line per line
};

struct Program {
    const char* name;
    const char* summary;
    Options options;  // understood behind a command, too
    const char* details;
    const char* examples;
    std::vector<Command> commands;  // a group stands before its commands; empty: there are none
};

}  // namespace cli
