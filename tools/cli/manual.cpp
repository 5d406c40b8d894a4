// The manual page from a program's rows, in the man macros of roff. Called by the parser for
// --manual, and so by the packages.
#include <fmt/format.h>

#include <cctype>

#include "tools/cli/parse.h"

namespace cli {
namespace {

// Minus signs, backslashes and dots at the beginning of a line mean something else to roff.
std::string Escaped(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (c == '\\') {
            out += "\\e";
        } else if (c == '-') {
            out += "\\-";
        } else {
            if ((c == '.' || c == '\'') && (out.empty() || out.back() == '\n')) out += "\\&";
            out += c;
        }
    }
    return out;
}

// A paragraph for each line; what is indented stays line by line.
std::string Paragraphs(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        out += fmt::format("{}\n{}\n", line.starts_with(' ') ? ".br" : ".PP", Escaped(line));
    }
    return out;
}

std::string Entries(const Options& options) {
    std::string out;
    for (const Option& option : options) {
        out += fmt::format(".TP\n\\fB{}\\fR", Escaped(option.name));
        if (*option.value != '\0' && !IsArgument(option)) {
            out += fmt::format(" \\fI{}\\fR", Escaped(option.value));
        }
        out += fmt::format("\n{}", Escaped(option.help));
        if (*option.standard != '\0') out += fmt::format(" ({})", Escaped(option.standard));
        out += '\n';
    }
    return out;
}

std::string Examples(std::string_view examples) {
    return examples.empty() ? "" : fmt::format(".PP\n.nf\n.RS\n{}\n.RE\n.fi\n", Escaped(examples));
}

}  // namespace

std::string ManualPage(const Program& program) {
    const std::string name = program.name;
    std::string title;
    for (const char c : name) title += static_cast<char>(std::toupper(c));
    std::string page =
        fmt::format(".TH {} 1 \"\" \"{} {}\" \"User Commands\"\n", title, name, SHD_VERSION);
    page += fmt::format(".SH NAME\n{} \\- {}\n", name, Escaped(program.summary));
    page += fmt::format(".SH SYNOPSIS\n\\fB{}\\fR [\\fIOPTIONS\\fR]{}\n", name,
                        program.commands.empty() ? "" : " \\fICOMMAND\\fR [\\fIARGUMENTS\\fR]");
    page += ".SH OPTIONS\n" + Entries(program.options);
    page += Entries({{.name = "-h, --help", .help = "Show the help of the program or a command"},
                     {.name = "--version", .help = "Show the version"}});
    if (!program.commands.empty()) page += ".SH COMMANDS\n";
    for (const Command& command : program.commands) {
        page += fmt::format(".SS {}\n{}.\n", Escaped(command.name), Escaped(command.summary));
        page += Entries(command.options) + Paragraphs(command.details) + Examples(command.examples);
    }
    page += ".SH DETAILS\n" + Paragraphs(program.details);
    page += ".SH EXAMPLES\n" + Examples(program.examples);
    return page;
}

}  // namespace cli
