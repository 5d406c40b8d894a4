// The commands that concern the MCU or the daemon as a whole. Rows of the table of commands.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>
#include <iterator>
#include <limits>
#include <string>

#include "tools/shdtool/base/command_rows.h"

namespace shdtool {
namespace {

using shdclient::HubClient;

constexpr const char* kHeading = "MCU and daemon";
constexpr double kMaxWord = std::numeric_limits<uint32_t>::max();

Outcome ShowVersion(HubClient& hub, Context& context) {
    const auto number = static_cast<uint16_t>(context.arguments.Integer("N"));
    const auto text = hub.Version(number);
    if (!text) return text.error();
    const std::string name = number == 0 ? "MCU firmware" : fmt::format("MCU text {}", number);
    return Report{name + ": " + *text, {{"number", number}, {"version", *text}}};
}

Outcome SetLogLevel(HubClient& hub, Context& context) {
    const auto level = static_cast<uint8_t>(context.arguments.Integer("LEVEL"));
    return Answer(hub.SetMcuLogLevel(level), fmt::format("MCU log level set to {}", level),
                  {{"level", level}});
}

Outcome SetRawData(HubClient& hub, Context& context) {
    // The place is what the hub calls the choice: bit 0 steps, bit 1 heart.
    constexpr std::string_view kStreams[] = {"off", "steps", "heart", "both"};
    const std::string stream = context.arguments.Text("STREAM");
    const auto* chosen = std::find(std::begin(kStreams), std::end(kStreams), stream);
    return Answer(hub.SetRawData(static_cast<uint16_t>(chosen - kStreams)), "raw data: " + stream,
                  {{"stream", stream}});
}

Outcome SetHealth(HubClient& hub, Context& context) {
    std::array<uint32_t, 4> w{};
    for (size_t i = 0; i < w.size(); ++i) {
        w[i] = static_cast<uint32_t>(context.arguments.Integer(fmt::format("W{}", i)));
    }
    return Answer(hub.SetHealth(w),
                  fmt::format("health settings sent; the MCU received {} {} {} {}", w[0] & 0xFF,
                              w[1] & 0xFF, w[2] & 0xFFFF, w[3] & 0xFFFF),
                  {{"words", Json::List(w)}});
}

Outcome SetDateTime(HubClient& hub, Context& context) {
    const std::string time = context.arguments.Text("TIME");
    const auto given = time == "now" ? int64_t{std::time(nullptr)} : cli::ParseInteger(time);
    if (!given || *given < 0 || *given > std::numeric_limits<uint32_t>::max()) {
        return WrongUsage(fmt::format("'{}' is neither 'now' nor seconds since 1970 (0 to {:.0f})",
                                      time, kMaxWord));
    }
    const auto seconds = static_cast<uint32_t>(*given);
    const std::string utc =
        fmt::format("{:%Y-%m-%d %H:%M:%S}", fmt::gmtime(static_cast<std::time_t>(seconds)));
    return Answer(hub.SetDateTime(seconds),
                  fmt::format("MCU clock set to {} UTC ({} s)", utc, seconds),
                  {{"seconds", seconds}, {"utc", utc}});
}

Outcome SetDebug(HubClient& hub, Context& context) {
    const std::string state = context.arguments.Text("STATE");
    return Answer(hub.SetDebugLog(state == "on"), "verbose event log " + state,
                  {{"debug", state == "on"}});
}

Outcome NotifySleep(HubClient& hub, Context& /*context*/) {
    return Answer(hub.NotifySleep(), "sleep sent; no reply is expected",
                  {{"reply_expected", false}});
}

Outcome NotifyWakeup(HubClient& hub, Context& /*context*/) {
    return Answer(hub.NotifyWakeup(), "wakeup sent; no reply is expected",
                  {{"reply_expected", false}});
}

cli::Option Number(const char* name, const char* help, double max) {
    return cli::Integer(name, "", help, 0, max).Required();
}

}  // namespace

CommandRows McuCommands() {
    constexpr const char* kNoReply = "The daemon only logs it and never replies.";
    return {
        {{kHeading,
          "version",
          "Show the version of the MCU's firmware",
          {cli::Integer("N", "", "Text 0 (the firmware's version), or 1 to 3 (further texts)", 0, 3)
               .Standard("0")},
          "",
          "shdtool version\nshdtool version 2"},
         ShowVersion},
        {{kHeading,
          "loglevel",
          "Set the MCU's log level",
          {Number("LEVEL", "0 to 5", 5)},
          "The level is kept for later starts of the daemon.",
          "shdtool loglevel 3"},
         SetLogLevel},
        {{kHeading,
          "rawdata",
          "Let the MCU stream raw data into log files",
          {cli::Choice("STREAM", "", "off, steps, heart or both", "off steps heart both")
               .Required()},
          "The logs are /data/logdata/sensor/alg.txt (steps) and hrm.txt (heart). Data comes while "
          "the step counter or the heart-rate sensor is enabled; off deletes both files.",
          "shdtool rawdata both && shdtool enable heart-rate"},
         SetRawData},
        {{kHeading,
          "health",
          "Send the settings of the motion-health algorithm",
          {Number("W0", "32-bit number", kMaxWord), Number("W1", "32-bit number", kMaxWord),
           Number("W2", "32-bit number", kMaxWord), Number("W3", "32-bit number", kMaxWord)},
          "Only the MCU knows what the four numbers mean; it receives their low 8, 8, 16 and 16 "
          "bits.",
          "shdtool health 1 30 175 70"},
         SetHealth},
        {{kHeading,
          "datetime",
          "Set the MCU's clock",
          {cli::Text("TIME", "", "now, or seconds since 1970 in UTC").Standard("now").Words("now")},
          "",
          "shdtool datetime\nshdtool datetime 1500000000"},
         SetDateTime},
        {{kHeading,
          "debug",
          "Switch the daemon's verbose event log",
          {cli::Choice("STATE", "", "on or off", "on off").Required()},
          "The choice is kept for later starts of the daemon.",
          "shdtool debug on"},
         SetDebug},
        {{kHeading,
          "sleep",
          "Tell the daemon that the system goes to sleep",
          {},
          kNoReply,
          "shdtool sleep"},
         NotifySleep},
        {{kHeading,
          "wakeup",
          "Tell the daemon that the system wakes up",
          {},
          kNoReply,
          "shdtool wakeup"},
         NotifyWakeup},
    };
}

}  // namespace shdtool
