// shdtool completion: prints a completion script made from the commands as they are. Called by
// main.
#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "tools/client/sensor_info.h"
#include "tools/shdtool/commands.h"

namespace shdtool {
namespace {

// Offers the words of the command reached so far; bash itself offers files where none fits, as for
// the values of options.
constexpr const char* kBashScript =
    R"(# bash completion of shdtool; load it with: source <(shdtool completion bash)
_shdtool() {{
    local word=${{COMP_WORDS[COMP_CWORD]}} path= words= i
    local sensors="{sensors}"
    case "${{COMP_WORDS[COMP_CWORD - 1]}}" in
        {valued}) COMPREPLY=() && return ;;
    esac
    for ((i = 1; i < COMP_CWORD; i++)); do
        case "$path ${{COMP_WORDS[i]}}" in
{paths}            path="$path ${{COMP_WORDS[i]}}" ;;
        esac
    done
    case "$path" in
{words}    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}}
complete -o default -F _shdtool shdtool
)";

std::string SensorNames() {
    std::vector<std::string_view> names;
    for (const shdclient::SensorInfo& sensor : shdclient::AllSensors())
        names.push_back(sensor.name);
    return fmt::format("{}", fmt::join(names, " "));
}

// The words to choose from, which stand in the place of the type: on|off.
std::string Choices(const CLI::Option& option) {
    std::string type = option.get_type_name();
    if (type.find('|') == std::string::npos) return "";
    std::replace(type.begin(), type.end(), '|', ' ');
    return type;
}

std::string WordsOf(const CLI::App& command, const CLI::App& root) {
    std::set<std::string> words;
    for (const CLI::App* sub : command.get_subcommands({})) words.insert(sub->get_name());
    for (const CLI::App* app : {&command, &root}) {
        for (const CLI::Option* option : app->get_options()) {
            for (const std::string& name : option->get_lnames()) words.insert("--" + name);
        }
    }
    for (const CLI::Option* option : command.get_options()) {
        if (!option->get_positional()) continue;
        words.insert(option->get_name() == "SENSOR" ? "$sensors" : Choices(*option));
    }
    words.erase("");
    return fmt::format("{}", fmt::join(words, " "));
}

void CollectValuedOptions(const CLI::App& command, std::set<std::string>& names) {
    for (const CLI::Option* option : command.get_options()) {
        if (option->get_items_expected_max() == 0) continue;
        for (const std::string& name : option->get_lnames()) names.insert("--" + name);
        for (const std::string& name : option->get_snames()) names.insert("-" + name);
    }
    for (const CLI::App* sub : command.get_subcommands({})) CollectValuedOptions(*sub, names);
}

struct Tables {
    std::string paths;  // case patterns of the commands that can follow
    std::string words;  // case branches with the words of each command
};

void Collect(const CLI::App& command, const CLI::App& root, const std::string& path,
             Tables& tables) {
    tables.words += fmt::format("        \"{}\") words=\"{}\" ;;\n", path, WordsOf(command, root));
    for (const CLI::App* sub : command.get_subcommands({})) {
        const std::string sub_path = path + " " + sub->get_name();
        if (!tables.paths.empty()) tables.paths += " | \\\n";
        tables.paths += fmt::format("            \"{}\"", sub_path);
        Collect(*sub, root, sub_path, tables);
    }
}

std::string BashScript(const CLI::App& root) {
    Tables tables;
    Collect(root, root, "", tables);
    std::set<std::string> valued;
    CollectValuedOptions(root, valued);
    return fmt::format(kBashScript, fmt::arg("sensors", SensorNames()),
                       fmt::arg("valued", fmt::join(valued, " | ")),
                       fmt::arg("paths", tables.paths + ")\n    "),
                       fmt::arg("words", tables.words));
}

}  // namespace

void AddCompletionCommand(CLI::App& app, Context& /*context*/) {
    CLI::App* command = AddCommand(app, "completion", "Print a completion script for the shell",
                                   "  source <(shdtool completion bash)");
    command->require_subcommand(1);
    command->add_subcommand("bash", "The script for bash")->callback([&app] {
        fmt::print("{}", BashScript(app));
    });
}

}  // namespace shdtool
