// The command line by way of CLI11, the only file that knows that library. Called by the mains of
// the tools.
#include "tools/cli/parse.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>

namespace cli {
namespace {

std::vector<std::string> Words(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

// What is wrong with a value; empty when nothing is.
std::string Complaint(const Option& option, const std::string& text) {
    const auto within = [&](const auto& number, const char* what) {
        const bool good = number && static_cast<double>(*number) >= option.min &&
                          static_cast<double>(*number) <= option.max;
        return good ? ""
                    : fmt::format("'{}' is not {} from {:.10g} to {:.10g}", text, what, option.min,
                                  option.max);
    };
    switch (option.kind) {
        case Kind::kNumber:
            return within(ParseNumber(text), "a number");
        case Kind::kInteger:
            return within(ParseInteger(text), "a whole number");
        case Kind::kBytes:
            return within(ParseBytes(text), "a number of bytes");
        case Kind::kChoice: {
            const auto words = Words(option.words);
            if (std::find(words.begin(), words.end(), text) != words.end()) return "";
            return fmt::format("'{}' is none of {}", text, fmt::join(words, ", "));
        }
        case Kind::kSensor: {
            const auto sensor = shdclient::LookupSensor(text);
            return sensor ? "" : sensor.error().message;
        }
        default:
            return "";
    }
}

CLI::Option* Bind(CLI::App& app, const Option& option) {
    constexpr int kMany = 1 << 20;
    const std::string help = option.help;
    if (option.kind == Kind::kFlag) return app.add_flag(option.name, help);
    CLI::Option* bound = app.add_option(option.name, help);
    bound->check(
        CLI::Validator([&option](const std::string& text) { return Complaint(option, text); }, ""));
    bound->required(option.required);
    if (option.repeated && IsArgument(option)) {
        bound->expected(option.required ? 1 : 0, kMany);
        bound->allow_extra_args();
    } else if (option.repeated) {
        bound->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);  // one value each time
    }
    if (option.value_may_miss) bound->expected(0, 1);
    if (*option.environment != '\0') bound->envname(option.environment);
    return bound;
}

using Bound = std::vector<std::pair<const Option*, CLI::Option*>>;

// One parse of one command line.
class Parser {
  public:
    explicit Parser(const Program& program) : program_(program), app_(program.summary) {
        app_.name(program.name);
        app_.set_help_flag();
        app_.fallthrough();
        for (const char* name : {"-h,--help", "--version", "--manual"}) app_.add_flag(name);
        BindAll(app_, program.options);
        for (const Command& command : program.commands) AddCommand(command);
    }

    Parsed Run(int argc, const char* const* argv) {
        Parsed parsed;
        std::string fault;
        try {
            app_.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            fault = error.what();
        }
        const CLI::App* named = &app_;
        while (!named->get_subcommands().empty()) named = named->get_subcommands().front();
        const auto found = commands_.find(named);
        const Command* command = nullptr;
        if (found != commands_.end()) {
            parsed.command = found->second;
            command = &program_.commands[static_cast<size_t>(found->second)];
        }
        if (app_.count("--help") > 0) {
            parsed.text = HelpText(program_, command);
        } else if (app_.count("--version") > 0) {
            parsed.text = fmt::format("{} {}\n", program_.name, SHD_VERSION);
        } else if (app_.count("--manual") > 0) {
            parsed.text = ManualPage(program_);
        } else {
            parsed.error = Fault(*named, command, fault);
        }
        if (!fault.empty()) return parsed;
        for (const CLI::App* app : {static_cast<const CLI::App*>(&app_), named}) {
            Collect(bound_[app], parsed.arguments);
            if (named == &app_) break;
        }
        return parsed;
    }

  private:
    void BindAll(CLI::App& app, const Options& options) {
        std::map<std::string, CLI::Option*> by_name;
        for (const Option& option : options) {
            CLI::Option* bound = Bind(app, option);
            bound_[&app].emplace_back(&option, bound);
            by_name[KeyOf(option)] = bound;
        }
        for (const Option& option : options) {
            CLI::Option* own = by_name.at(KeyOf(option));
            for (const std::string& name : Words(option.excludes)) own->excludes(by_name.at(name));
            for (const std::string& name : Words(option.needs)) own->needs(by_name.at(name));
        }
    }

    void AddCommand(const Command& command) {
        CLI::App* parent = &app_;
        const auto path = Words(command.name);
        for (size_t i = 0; i + 1 < path.size(); ++i) parent = parent->get_subcommand(path[i]);
        CLI::App* sub = parent->add_subcommand(path.back(), command.summary);
        sub->set_help_flag();
        sub->fallthrough();
        BindAll(*sub, command.options);
        const auto index = static_cast<int>(commands_.size());
        commands_[sub] = index;
    }

    static void Collect(const Bound& options, Arguments& arguments) {
        for (const auto& [option, bound] : options) {
            const std::string key = KeyOf(*option);
            if (*option->standard != '\0') arguments.SetStandard(key, option->standard);
            for (const std::string& value : bound->results()) arguments.Add(key, value);
        }
    }

    [[nodiscard]] std::string Fault(const CLI::App& named, const Command* command,
                                    const std::string& fault) const {
        std::string path = program_.name;
        if (command != nullptr) path += fmt::format(" {}", command->name);
        const bool group = !named.get_subcommands([](const CLI::App*) { return true; }).empty();
        if (!group && fault.empty()) return "";
        if (!group) return fmt::format("{}; see '{} --help'", fault, path);
        for (const std::string& word : app_.remaining(true)) {
            if (word.starts_with('-')) return fmt::format("{}; see '{} --help'", fault, path);
            return fmt::format("there is no command '{}'; '{} --help' lists them", word, path);
        }
        if (!fault.empty()) return fmt::format("{}; see '{} --help'", fault, path);
        return fmt::format("name a command; '{} --help' lists them", path);
    }

    const Program& program_;
    CLI::App app_;
    std::map<const CLI::App*, Bound> bound_;  // the options of each command
    std::map<const CLI::App*, int> commands_;
};

}  // namespace

Parsed Parse(const Program& program, int argc, const char* const* argv) {
    return Parser(program).Run(argc, argv);
}

// What a full disk did not take is still in the stream's buffer, or is missing already.
bool EndOutput(const Program& program) {
    errno = 0;
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return true;
    fmt::print(stderr, "{}: cannot write to standard output: {}\n", program.name,
               errno != 0 ? std::strerror(errno) : "an earlier part of it is missing");
    return false;
}

}  // namespace cli
