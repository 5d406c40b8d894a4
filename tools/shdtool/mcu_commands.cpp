// The commands that concern the MCU or the daemon as a whole. Called by main.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <array>
#include <cstdint>
#include <ctime>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tools/client/hub_client.h"
#include "tools/shdtool/commands.h"

namespace shdtool {
namespace {

using shdclient::HubClient;
using shdclient::Result;
using shdclient::Status;

constexpr double kMaxWord = std::numeric_limits<uint32_t>::max();

Result<Report> Finish(const Status& done, const std::string& line, const Json& fields) {
    if (!done) return done.error();
    return Report{line, fields};
}

void AddVersion(CLI::App& app, Context& context) {
    constexpr uint16_t kMaxText = 3;
    CLI::App* command = AddCommand(app, "version", "Show the version of the MCU's firmware",
                                   "  shdtool version\n  shdtool version 2");
    auto number = std::make_shared<uint16_t>(uint16_t{0});
    command->add_option("N", *number, "text 0 (the firmware's version), or 1 to 3 (further texts)")
        ->check(Between(0, kMaxText))
        ->type_name("");
    command->callback([&context, number] {
        RunWithHub(context, "version", [&](HubClient& hub) -> Result<Report> {
            const Result<std::string> text = hub.Version(*number);
            if (!text) return text.error();
            const std::string name =
                *number == 0 ? "MCU firmware" : fmt::format("MCU text {}", *number);
            return Report{name + ": " + *text, {{"number", *number}, {"version", *text}}};
        });
    });
}

void AddLogLevel(CLI::App& app, Context& context) {
    constexpr int kMaxLevel = 5;
    CLI::App* command =
        AddCommand(app, "loglevel", "Set the MCU's log level", "  shdtool loglevel 3",
                   "The level is kept for later starts of the daemon.");
    auto level = std::make_shared<int>(0);
    command->add_option("LEVEL", *level, "0 to 5")
        ->required()
        ->check(Between(0, kMaxLevel))
        ->type_name("");
    command->callback([&context, level] {
        RunWithHub(context, "loglevel", [&](HubClient& hub) {
            return Finish(hub.SetMcuLogLevel(static_cast<uint8_t>(*level)),
                          fmt::format("MCU log level set to {}", *level), {{"level", *level}});
        });
    });
}

// What the hub calls a choice of raw data: bit 0 steps, bit 1 heart.
uint16_t RawDataType(const std::string& choice) {
    const std::map<std::string, uint16_t> types{
        {"off", 0}, {"steps", 1}, {"heart", 2}, {"both", 3}};
    return types.at(choice);
}

void AddRawData(CLI::App& app, Context& context) {
    CLI::App* command =
        AddCommand(app, "rawdata", "Let the MCU stream raw data into log files",
                   "  shdtool rawdata both && shdtool enable heart-rate",
                   "The logs are /data/logdata/sensor/alg.txt (steps) and hrm.txt (heart). Data "
                   "comes while the step\n"
                   "counter or the heart-rate sensor is enabled; off deletes both files.");
    auto type = std::make_shared<std::string>();
    command->add_option("STREAM", *type, "which data")
        ->required()
        ->check(CLI::IsMember(std::vector<std::string>{"off", "steps", "heart", "both"})
                    .description(""))
        ->type_name("off|steps|heart|both");
    command->callback([&context, type] {
        RunWithHub(context, "rawdata", [&](HubClient& hub) {
            return Finish(hub.SetRawData(RawDataType(*type)), "raw data: " + *type,
                          {{"stream", *type}});
        });
    });
}

void AddHealth(CLI::App& app, Context& context) {
    CLI::App* command =
        AddCommand(app, "health", "Send the settings of the motion-health algorithm",
                   "  shdtool health 1 30 175 70",
                   "Only the MCU knows what the four numbers mean; it receives their low 8, 8, 16 "
                   "and 16 bits.");
    auto words = std::make_shared<std::array<uint32_t, 4>>();
    for (size_t i = 0; i < words->size(); ++i) {
        command->add_option(fmt::format("W{}", i), (*words)[i], "32-bit number")
            ->required()
            ->check(Between(0, kMaxWord))
            ->type_name("");
    }
    command->callback([&context, words] {
        RunWithHub(context, "health", [&](HubClient& hub) {
            const auto& w = *words;
            return Finish(hub.SetHealth(w),
                          fmt::format("health settings sent; the MCU received {} {} {} {}",
                                      w[0] & 0xFF, w[1] & 0xFF, w[2] & 0xFFFF, w[3] & 0xFFFF),
                          {{"words", w}});
        });
    });
}

// "now" or seconds since the epoch.
uint32_t ParseTime(const std::string& text) {
    if (text == "now") return static_cast<uint32_t>(std::time(nullptr));
    uint32_t seconds = 0;
    if (!CLI::detail::lexical_cast(text, seconds)) {
        throw CLI::ValidationError(
            "TIME", fmt::format("'{}' is neither 'now' nor seconds since 1970 (0 to {:.0f})", text,
                                kMaxWord));
    }
    return seconds;
}

void AddDateTime(CLI::App& app, Context& context) {
    CLI::App* command = AddCommand(app, "datetime", "Set the MCU's clock",
                                   "  shdtool datetime\n  shdtool datetime 1500000000");
    auto time = std::make_shared<std::string>("now");
    command->add_option("TIME", *time, "now (the default), or seconds since 1970 in UTC")
        ->type_name("");
    command->callback([&context, time] {
        const uint32_t seconds = ParseTime(*time);
        RunWithHub(context, "datetime", [&](HubClient& hub) {
            const std::string utc =
                fmt::format("{:%Y-%m-%d %H:%M:%S}", fmt::gmtime(static_cast<std::time_t>(seconds)));
            return Finish(hub.SetDateTime(seconds),
                          fmt::format("MCU clock set to {} UTC ({} s)", utc, seconds),
                          {{"seconds", seconds}, {"utc", utc}});
        });
    });
}

void AddDebug(CLI::App& app, Context& context) {
    CLI::App* command =
        AddCommand(app, "debug", "Switch the daemon's verbose event log", "  shdtool debug on",
                   "The choice is kept for later starts of the daemon.");
    auto state = std::make_shared<std::string>();
    command->add_option("STATE", *state, "of the log")
        ->required()
        ->check(CLI::IsMember(std::vector<std::string>{"on", "off"}).description(""))
        ->type_name("on|off");
    command->callback([&context, state] {
        RunWithHub(context, "debug", [&](HubClient& hub) {
            const bool on = *state == "on";
            return Finish(hub.SetDebugLog(on), "verbose event log " + *state, {{"debug", on}});
        });
    });
}

using Notification = Status (HubClient::*)();

void AddNotification(CLI::App& app, Context& context, const std::string& name,
                     const std::string& description, Notification notify) {
    CLI::App* command = AddCommand(app, name, description, "  shdtool " + name,
                                   "The daemon only logs it and never replies.");
    command->callback([&context, name, notify] {
        RunWithHub(context, name, [&](HubClient& hub) {
            return Finish((hub.*notify)(), name + " sent; no reply is expected",
                          {{"reply_expected", false}});
        });
    });
}

}  // namespace

void AddMcuCommands(CLI::App& app, Context& context) {
    AddVersion(app, context);
    AddLogLevel(app, context);
    AddRawData(app, context);
    AddHealth(app, context);
    AddDateTime(app, context);
    AddDebug(app, context);
    AddNotification(app, context, "sleep", "Tell the daemon that the system goes to sleep",
                    &HubClient::NotifySleep);
    AddNotification(app, context, "wakeup", "Tell the daemon that the system wakes up",
                    &HubClient::NotifyWakeup);
}

}  // namespace shdtool
