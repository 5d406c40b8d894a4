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

    // The same option with one thing more.
    [[nodiscard]] Option Required() const { return With(&Option::required, true); }
    [[nodiscard]] Option Repeated() const { return With(&Option::repeated, true); }
    [[nodiscard]] Option Standard(const char* is) const { return With(&Option::standard, is); }
    [[nodiscard]] Option Words(const char* are) const { return With(&Option::words, are); }
    [[nodiscard]] Option Excludes(const char* them) const { return With(&Option::excludes, them); }
    [[nodiscard]] Option Needs(const char* them) const { return With(&Option::needs, them); }

  private:
    template <typename T>
    [[nodiscard]] Option With(T Option::*field, T content) const {
        Option changed = *this;
        changed.*field = content;
        return changed;
    }
};

// value: empty for an argument.
[[nodiscard]] inline Option Flag(const char* name, const char* help) {
    return {name, Kind::kFlag, "", help};
}
[[nodiscard]] inline Option Text(const char* name, const char* value, const char* help) {
    return {name, Kind::kText, value, help};
}
[[nodiscard]] inline Option Choice(const char* name, const char* value, const char* help,
                                   const char* words) {
    return Option{name, Kind::kChoice, value, help}.Words(words);
}
[[nodiscard]] inline Option Number(const char* name, const char* value, const char* help,
                                   double min, double max) {
    return {name, Kind::kNumber, value, help, min, max};
}
[[nodiscard]] inline Option Integer(const char* name, const char* value, const char* help,
                                    double min, double max) {
    return {name, Kind::kInteger, value, help, min, max};
}
[[nodiscard]] inline Option Sensor(const char* name, const char* value, const char* help) {
    return {name, Kind::kSensor, value, help};
}
[[nodiscard]] inline Option File(const char* name, const char* value, const char* help) {
    return {name, Kind::kFile, value, help};
}
[[nodiscard]] inline Option NewFile(const char* name, const char* value, const char* help) {
    return {name, Kind::kNewFile, value, help};
}

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
