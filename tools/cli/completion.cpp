// Completion scripts from a program's rows: a table of words that both shells share, and the few
// lines that each of them wants around it. Called by the mains of the tools.
#include <fmt/format.h>

#include <string>
#include <vector>

#include "tools/cli/parse.h"

namespace cli {
namespace {

// $1 is the command so far, as in /dump/list, $2 the word before the one to be completed. Prints
// the words that can follow; FILES and DIRECTORIES ask for what the shell itself knows.
constexpr const char* kTable = R"(_{name}_words() {{
    local sensors="{sensors}"
    case "$1 $2" in
{values}    esac
    case "$1" in
{words}    esac
}}
# The command that the words $@ name.
_{name}_path() {{
    local reached= part
    for part in "$@"; do
        case "$reached/$part" in
            {paths}) reached="$reached/$part" ;;
        esac
    done
    echo "$reached"
}}
)";

constexpr const char* kBash = R"(# bash completion of {name}
{table}_{name}() {{
    local word=${{COMP_WORDS[COMP_CWORD]}} reached offered
    reached=$(_{name}_path "${{COMP_WORDS[@]:1:COMP_CWORD-1}}")
    offered=$(_{name}_words "$reached" "${{COMP_WORDS[COMP_CWORD-1]}}")
    COMPREPLY=()
    case " $offered " in
        *" DIRECTORIES "*) mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
        *" FILES "*) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
    esac
    offered=${{offered//FILES/}}
    mapfile -t -O "${{#COMPREPLY[@]}}" COMPREPLY \
        < <(compgen -W "${{offered//DIRECTORIES/}}" -- "$word")
}}
complete -o filenames -F _{name} {name}
)";

constexpr const char* kZsh = R"(#compdef {name}
{table}_{name}() {{
    local reached
    local -a offered
    reached=$(_{name}_path "${{(@)words[2,CURRENT-1]}}")
    offered=(${{=$(_{name}_words "$reached" "${{words[CURRENT-1]}}")}})
    (( ${{offered[(I)FILES]}} )) && _files
    (( ${{offered[(I)DIRECTORIES]}} )) && _files -/
    compadd -- ${{${{offered:#FILES}}:#DIRECTORIES}}
}}
compdef _{name} {name}
)";

std::string Offered(const Option& option) {
    if (option.kind == Kind::kSensor) return "$sensors";
    if (option.kind == Kind::kDirectory) return "DIRECTORIES";
    const bool file = option.kind == Kind::kFile || option.kind == Kind::kNewFile;
    return std::string(option.words) + (file ? " FILES" : "");
}

std::string PathOf(const Command& command) {
    std::string path = "/";
    for (const char* c = command.name; *c != '\0'; ++c) path += *c == ' ' ? '/' : *c;
    return path;
}

// The branches for the values of options: the word before names one.
std::string ValueBranches(const std::string& path, const Options& options) {
    std::string branches;
    for (const Option& option : options) {
        if (IsArgument(option) || option.kind == Kind::kFlag) continue;
        std::string patterns = fmt::format("{}\" {}\"", path, KeyOf(option));
        const std::string name = option.name;
        const size_t comma = name.find(',');
        if (comma != std::string::npos) {
            patterns += fmt::format(" | {}\" {}\"", path, name.substr(0, comma));
        }
        branches += fmt::format("        {}) echo \"{}\"; return ;;\n", patterns, Offered(option));
    }
    return branches;
}

// What can follow a command: those below it, its options and the values of its arguments.
std::string WordBranch(const Program& program, const std::string& path, const Options& options) {
    std::vector<std::string> words;
    for (const Command& command : program.commands) {
        const std::string below = PathOf(command);
        const bool child =
            below.starts_with(path + "/") && below.find('/', path.size() + 1) == std::string::npos;
        if (child) words.push_back(below.substr(path.size() + 1));
    }
    for (const Option& option : options) {
        words.push_back(IsArgument(option) ? Offered(option) : KeyOf(option));
    }
    if (!path.empty()) {
        for (const Option& option : program.options) words.push_back(KeyOf(option));
    }
    return fmt::format("        \"{}\") echo \"{} --help\" ;;\n", path, fmt::join(words, " "));
}

std::string Table(const Program& program) {
    std::vector<std::string> sensors;
    for (const auto& sensor : shdclient::AllSensors()) sensors.emplace_back(sensor.name);
    std::string values;
    std::string words = WordBranch(program, "", program.options);
    std::vector<std::string> paths;
    for (const Command& command : program.commands) {
        const std::string path = PathOf(command);
        paths.push_back(path);
        values += ValueBranches(path, command.options);
        words += WordBranch(program, path, command.options);
    }
    values += ValueBranches("*", program.options);
    if (paths.empty()) paths.emplace_back("/");
    return fmt::format(kTable, fmt::arg("name", program.name),
                       fmt::arg("sensors", fmt::join(sensors, " ")), fmt::arg("values", values),
                       fmt::arg("words", words), fmt::arg("paths", fmt::join(paths, " | ")));
}

}  // namespace

std::string CompletionScript(const Program& program, const std::string& shell) {
    return fmt::format(fmt::runtime(shell == "zsh" ? kZsh : kBash), fmt::arg("name", program.name),
                       fmt::arg("table", Table(program)));
}

}  // namespace cli
