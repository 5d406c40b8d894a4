// The lines of a recovery. Called by the log folder.
#include "tools/shdtool/log/recovery_fold.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace shdtool {
namespace {

constexpr std::string_view kTimeoutTrigger = "SendSensorMsgAndWait to many error, reboot mcu";
constexpr std::string_view kWriteTrigger = "SendSensorMsgAndWait wakeup to many error, reboot mcu";

// The thread of a recovery takes the wake lock before anything else, and releases it at its end.
constexpr std::array<std::string_view, 2> kThreadBegins{"SensorWakeLockAcquiredLocked :1",
                                                        "sensorhub_write_proc_file "};
constexpr std::string_view kThreadEnds = "SensorWakeLockAcquiredLocked :0";

bool IsThreadsFirst(std::string_view text) {
    return text.starts_with(kThreadBegins[0]) || text.starts_with(kThreadBegins[1]);
}

// The last piece of a dump asks for the restart; 0 when the line is another.
unsigned DumpPieces(const std::string& text) {
    unsigned ctl = 0;
    unsigned count = 0;
    unsigned index = 0;
    const int fields =
        std::sscanf(text.c_str(), "McuCoreDumpProcess ctl:%x dump count:%x dump index:%x", &ctl,
                    &count, &index);
    return fields == 3 && count == index ? count : 0;
}

std::string CauseOf(const std::string& text) {
    if (text == kTimeoutTrigger) return "the MCU left two requests unanswered";
    if (text == kWriteTrigger) return "three requests could not be written to the UART";
    const unsigned pieces = DumpPieces(text);
    if (pieces == 0) return "";
    return fmt::format("the MCU crashed and sent a core dump in {} piece{}", pieces,
                       pieces == 1 ? "" : "s");
}

}  // namespace

bool RecoveryFold::BeginsWith(const LogLine& line) {
    return !CauseOf(line.text).empty() || IsThreadsFirst(line.text);
}

std::string RecoveryFold::TimedOutRequest(std::string_view text) {
    constexpr std::string_view kSensor = "Sensor ";
    constexpr std::string_view kTimeout = " timeout";
    constexpr std::string_view kConfigTimeout = " Msg send/recv error";
    if (text.ends_with(kConfigTimeout)) {
        return std::string(text.substr(0, text.size() - kConfigTimeout.size()));
    }
    const size_t colon = text.find(" :");
    if (!text.starts_with(kSensor) || !text.ends_with(kTimeout) || colon == text.npos) return "";
    const std::string command(text.substr(kSensor.size(), colon - kSensor.size()));
    const SensorMention mention = FindMention(text);
    if (mention.handles.empty()) return command;
    return fmt::format("{} {}", command, NamesOf(mention.handles, "/"));
}

RecoveryFold::RecoveryFold(const LogLine& first, const std::string& earlier)
    : by_timeout_(first.text == kTimeoutTrigger),
      thread_(IsThreadsFirst(first.text) ? first.tid : 0) {
    episode_.kind = EpisodeKind::kRecovery;
    episode_.first = first;
    episode_.Extend(first);
    episode_.running = true;
    episode_.cause = CauseOf(first.text);
    if (by_timeout_ && !earlier.empty()) episode_.unanswered.push_back(earlier);
}

Fate RecoveryFold::Add(const LogLine& line) {
    if (thread_ == 0 && line.tid != episode_.first.tid && IsThreadsFirst(line.text)) {
        thread_ = line.tid;
    }
    const Fate fate = AddOf(line);
    if (fate != Fate::kOther) {
        episode_.Extend(line);
    }
    return fate;
}

Fate RecoveryFold::AddOf(const LogLine& line) {
    if (!CauseOf(line.text).empty() || line.text == "SensorMcuReboot thread has exist") {
        return Fate::kFolded;  // another reason for the same recovery
    }
    if (line.text.starts_with("Process msg mcu in reboot ignore sensor")) {
        ++episode_.refused_requests;
        return Fate::kFolded;
    }
    if (thread_ != 0 && line.tid == thread_) return AddOfThread(line);
    return line.tid == episode_.first.tid ? AddOfTrigger(line) : Fate::kOther;
}

Fate RecoveryFold::Fail(const char* reason) {
    episode_.failure = reason;
    return Fate::kFolded;
}

// The thread that asked for the recovery, which goes on with what it was doing.
Fate RecoveryFold::AddOfTrigger(const LogLine& line) {
    if (line.text == "SensorMcuReboot disable") {
        (void)Fail("forbidden by persist.velmar.shd.mcureboot");
    } else if (line.text == "SensorMcuReboot thread create failure") {
        (void)Fail("no thread could be started");
    } else {
        const std::string request = TimedOutRequest(line.text);
        if (request.empty() || !by_timeout_) return Fate::kOther;
        by_timeout_ = false;
        episode_.unanswered.push_back(request);
        return Fate::kFolded;
    }
    episode_.running = false;
    return Fate::kEnded;
}

// What the recovery's own thread says, by the beginning of the text; a longer one stands ahead of
// one that it begins with.
struct RecoveryFold::Rule {
    std::string_view words;
    Fate (*apply)(RecoveryFold& fold, const LogLine& line, std::string_view rest);
};

Fate RecoveryFold::AddOfThread(const LogLine& line) {
    static constexpr auto kSensorFailed = [](RecoveryFold& fold, const LogLine&, std::string_view) {
        fold.sensor_failed_ = true;
        return Fate::kFolded;
    };
    static constexpr auto kCountUpdate = [](RecoveryFold& fold, const LogLine&, std::string_view) {
        ++fold.episode_.updates;
        return Fate::kFolded;
    };
    static constexpr Rule kRules[] = {
        {kThreadEnds,
         [](RecoveryFold& fold, const LogLine&, std::string_view) {
             if (!fold.answered_ && fold.episode_.ok()) (void)fold.Fail("the MCU did not answer");
             fold.episode_.running = false;
             return Fate::kEnded;
         }},
        {"SensorMcuReboot Handshake timeout index:",
         [](RecoveryFold& fold, const LogLine&, std::string_view) {
             return fold.Fail("the MCU answers no handshake, and new firmware did not help");
         }},
        {"SensorMcuReboot init UART timeout index:",
         [](RecoveryFold& fold, const LogLine&, std::string_view) {
             return fold.Fail("the UART could not be opened");
         }},
        {"SensorMcuReboot Handshake timeout update mcu", kCountUpdate},
        {"SensorMcuReboot init UART timeout update mcu", kCountUpdate},
        {"SensorMcuReboot Handshake timeout",
         [](RecoveryFold& fold, const LogLine&, std::string_view) {
             ++fold.episode_.unanswered_handshakes;
             return Fate::kFolded;
         }},
        {"SensorMcuReboot Handshake OK",
         [](RecoveryFold& fold, const LogLine&, std::string_view) {
             fold.answered_ = true;
             return Fate::kFolded;
         }},
        {"SensorMcuReboot SensorActive:",
         [](RecoveryFold& fold, const LogLine&, std::string_view rest) {
             auto& handles =
                 fold.sensor_failed_ ? fold.episode_.not_restored : fold.episode_.restored;
             handles.push_back(NumberAt(rest, 0).value_or(-1));
             fold.sensor_failed_ = false;
             return Fate::kFolded;
         }},
        {"Sensor Active :", kSensorFailed},
        {"Sensor Batch :", kSensorFailed},
        {"Sensor SetParameter :",
         [](RecoveryFold& fold, const LogLine& failed, std::string_view) {
             for (const int32_t handle : FindMention(failed.text).handles) {
                 fold.episode_.parameters_lost.push_back(handle);
             }
             return Fate::kFolded;
         }},
        {"BoardSerial ReInit open uart failure",
         [](RecoveryFold&, const LogLine&, std::string_view) { return Fate::kFolded; }},
    };
    for (const Rule& rule : kRules) {
        if (!line.text.starts_with(rule.words)) continue;
        return rule.apply(*this, line, std::string_view(line.text).substr(rule.words.size()));
    }
    return line.level == 'W' || line.level == 'E' ? Fate::kOther : Fate::kFolded;
}

}  // namespace shdtool
