// Lays out the help from a program's rows. Called by the parser.
#include <fmt/format.h>

#include <algorithm>

#include "tools/cli/parse.h"

namespace cli {
namespace {

constexpr size_t kColumns = 80;
constexpr size_t kHelpColumn = 26;

std::string NameColumn(const Option& option) {
    std::string name = option.name;
    const size_t comma = name.find(',');
    if (comma != std::string::npos) name.insert(comma + 1, " ");
    if (*option.value != '\0' && !IsArgument(option)) name += fmt::format(" {}", option.value);
    return name;
}

// A name with its help beside it, or below it where the name is too long.
std::string Entry(const std::string& name, const std::string& help) {
    const std::string text = Wrapped(help, kColumns, kHelpColumn);
    if (text.empty() || name.size() + 4 > kHelpColumn) return fmt::format("  {}\n{}\n", name, text);
    return fmt::format("  {:<{}}{}\n", name, kHelpColumn - 2, text.substr(kHelpColumn));
}

std::string Entries(const Options& options, bool arguments) {
    std::string text;
    for (const Option& option : options) {
        if (IsArgument(option) != arguments) continue;
        std::string help = option.help;
        if (*option.standard != '\0') help += fmt::format(" ({})", option.standard);
        text += Entry(NameColumn(option), help);
    }
    return text;
}

std::string Usage(const Program& program, const Command* command) {
    std::string text = fmt::format("Usage: {}", program.name);
    if (command != nullptr) text += fmt::format(" {}", command->name);
    for (const Option& option : command != nullptr ? command->options : program.options) {
        if (!IsArgument(option)) continue;
        const std::string name = fmt::format("{}{}", option.name, option.repeated ? "..." : "");
        text += option.required ? " " + name : " [" + name + "]";
    }
    text += " [OPTIONS]";
    if (command == nullptr && !program.commands.empty()) text += " COMMAND";
    return text + "\n\n";
}

// The commands of a group, or all that are in none, under their headings.
std::string CommandList(const Program& program, const std::string& group) {
    std::string text;
    std::string heading;
    for (const Command& command : program.commands) {
        std::string name = command.name;
        const bool inside = !group.empty() && name.starts_with(group + " ");
        const bool top = group.empty() && name.find(' ') == std::string::npos;
        if (!inside && !top) continue;
        const std::string own = inside ? "Commands" : command.heading;
        if (heading != own) text += fmt::format("\n{}:\n", own);
        heading = own;
        if (inside) name.erase(0, group.size() + 1);
        text += Entry(name, command.summary);
    }
    return text;
}

std::string Section(const char* title, const std::string& entries) {
    return entries.empty() ? "" : fmt::format("\n{}:\n{}", title, entries);
}

// The bytes of a line that stand on the next printed line of so many columns.
size_t PieceOf(std::string_view line, size_t columns) {
    size_t seen = 0;
    size_t blank = 0;  // where the last word that fits ends
    for (size_t i = 0; i < line.size(); ++i) {
        const bool starts = (static_cast<unsigned char>(line[i]) & 0xC0) != 0x80;
        if (line[i] == ' ' && seen <= columns) blank = i;
        if (starts && ++seen > columns)
            return blank > 0 ? blank : std::min(line.find(' '), line.size());
    }
    return line.size();
}

}  // namespace

std::string KeyOf(const Option& option) {
    const std::string name = option.name;
    const size_t comma = name.find(',');
    return comma == std::string::npos ? name : name.substr(comma + 1);
}

bool IsArgument(const Option& option) {
    return *option.name != '-';
}

Options Joined(const std::vector<Options>& lists) {
    Options all;
    for (const Options& list : lists) all.insert(all.end(), list.begin(), list.end());
    return all;
}

std::string Wrapped(std::string_view text, size_t width, size_t indent) {
    std::string out;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        const size_t columns = line.starts_with(' ') ? std::string::npos : width - indent;
        do {
            const size_t length = PieceOf(line, columns);
            if (!out.empty()) out += '\n';
            if (length > 0) out += std::string(indent, ' ').append(line.substr(0, length));
            line.remove_prefix(std::min(length + 1, line.size()));
        } while (!line.empty());
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return out;
}

std::string HelpText(const Program& program, const Command* command) {
    const bool own = command != nullptr;
    const Options& options = own ? command->options : program.options;
    const std::string details = own ? command->details : program.details;
    const std::string examples = own ? command->examples : program.examples;
    std::string text = Usage(program, command);
    text += Wrapped(own ? command->summary : program.summary, kColumns, 0) + "\n";
    text += Section("Arguments", Entries(options, true));
    text += Section("Options",
                    Entries(options, false) + (own ? ""
                                                   : Entry("-h, --help", "Show this help") +
                                                         Entry("--version", "Show the version")));
    text += CommandList(program, own ? command->name : "");
    if (!details.empty()) text += fmt::format("\n{}\n", Wrapped(details, kColumns, 0));
    if (!examples.empty()) text += fmt::format("\nExamples:\n{}\n", Wrapped(examples, 1000, 2));
    if (own) text += fmt::format("\nOptions of every command: see '{} --help'\n", program.name);
    return text;
}

}  // namespace cli
