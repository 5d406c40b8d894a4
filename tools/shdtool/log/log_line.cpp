// Parsing of log lines and the look-up of sensors in their texts. Called by the folding and by the
// log command.
#include "tools/shdtool/log/log_line.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

#include "core/hub/sensor_map.h"
#include "tools/client/sensor_info.h"

namespace shdtool {
namespace {

constexpr std::array<std::string_view, 4> kNoise{"--------- ", "---- clocks ", "Start server",
                                                 "select event comming"};
constexpr int64_t kDayMs = 86'400'000;

struct Date {
    int month, day, hour, minute, second, millisecond;

    [[nodiscard]] bool valid() const {
        return month >= 1 && month <= 12 && day >= 1 && day <= 31 && hour >= 0 && hour < 24 &&
               minute >= 0 && minute < 60 && second >= 0 && second <= 60 && millisecond >= 0;
    }
    [[nodiscard]] int64_t Milliseconds() const {
        return ((hour * 60LL + minute) * 60 + second) * 1000 + millisecond;
    }
};

std::optional<LogLine> ParseThreadtime(const std::string& line) {
    Date date{};
    LogLine out;
    int stamp_end = 0;
    int head_end = 0;
    const int fields =
        std::sscanf(line.c_str(), "%2d-%2d %2d:%2d:%2d.%3d%n %d %d %c %n", &date.month, &date.day,
                    &date.hour, &date.minute, &date.second, &date.millisecond, &stamp_end, &out.pid,
                    &out.tid, &out.level, &head_end);
    if (fields != 9 || head_end == 0 || !date.valid()) return std::nullopt;
    const size_t colon = line.find(": ", static_cast<size_t>(head_end));
    if (colon == std::string::npos || kLogLevels.find(out.level) == std::string_view::npos) {
        return std::nullopt;
    }
    out.stamp = line.substr(0, static_cast<size_t>(stamp_end));
    out.time_ms = date.Milliseconds();
    out.tag = line.substr(static_cast<size_t>(head_end), colon - static_cast<size_t>(head_end));
    out.tag.erase(out.tag.find_last_not_of(' ') + 1);
    out.text = line.substr(colon + 2);
    return out;
}

// How the daemon's texts name a sensor: by a number behind these words, or by the words alone.
struct NumberPattern {
    std::string_view words;
    bool mcu_sensor_id;  // else it is a handle
};
constexpr std::array<NumberPattern, 4> kNumberPatterns{{
    {"SensorMcuReboot sensor:", false},
    {"SensorMcuReboot SensorActive:", false},
    {"ProcessVirtualSensor type:", false},
    {"Process msg mcu in reboot ignore sensor ", true},
}};
struct NamePattern {
    std::string_view words;
    int32_t handle;
};
constexpr std::array<NamePattern, 4> kNamePatterns{{
    {"SENSOR_TYPE_STEP_COUNTER", shd::kHandleStepCounter},
    {"SENSOR_TYPE_HEART_RATE", shd::kHandleHeartRate},
    {"SENSOR_TYPE_WRIST_TILT_GESTURE", shd::kHandleWristTilt},
    {"SENSORS_MOTION_HEALTH_HANDLE", shd::kHandleMotionHealth},
}};

std::vector<int32_t> HandlesOf(int32_t number, bool mcu_sensor_id) {
    std::vector<int32_t> handles;
    for (const SensorMapEntry& entry : g_sensor_map) {
        const int32_t id = mcu_sensor_id ? entry.mcu_sensor_id : entry.handle;
        if (id == number && number != kMcuVirtualSensor) handles.push_back(entry.handle);
    }
    return handles;
}

SensorMention MentionAt(std::string_view text, size_t at, bool mcu_sensor_id) {
    while (at < text.size() && text[at] == ' ') ++at;
    const auto number = NumberAt(text, at);
    if (!number) return {};
    const size_t end = std::min(text.find_first_not_of("-0123456789", at), text.size());
    return {end, HandlesOf(*number, mcu_sensor_id)};
}

// "Sensor Active :16 timeout" and its siblings. A version text has a number of its own, and an
// information text can be anything.
SensorMention FindCommandMention(std::string_view text) {
    constexpr std::string_view kWord = "Sensor ";
    const size_t colon = text.find(" :");
    if (!text.starts_with(kWord) || colon == std::string_view::npos ||
        text.starts_with("Sensor Version")) {
        return {};
    }
    SensorMention mention = MentionAt(text, colon + 2, true);
    const std::string_view rest = text.substr(mention.end);
    const bool known = rest.starts_with(" timeout") || rest.starts_with(" data ") ||
                       rest.find(" failure ret:") != std::string_view::npos;
    return known ? mention : SensorMention{};
}

}  // namespace

std::optional<LogLine> ParseLogLine(std::string_view line) {
    if (auto parsed = ParseThreadtime(std::string(line))) return parsed;
    const size_t journal = line.find("]: ");
    if (journal == std::string_view::npos) return std::nullopt;
    return ParseThreadtime(std::string(line.substr(journal + 3)));
}

bool IsDaemonTag(std::string_view tag) {
    return fmt::format(" {} ", kDaemonTags).find(fmt::format(" {} ", tag)) != std::string::npos;
}

bool IsLogNoise(std::string_view line) {
    return line.empty() ||
           std::any_of(kNoise.begin(), kNoise.end(),
                       [line](std::string_view noise) { return line.starts_with(noise); });
}

int64_t ElapsedMs(const LogLine& begin, const LogLine& end) {
    const int64_t elapsed = (end.time_ms - begin.time_ms + kDayMs) % kDayMs;
    return elapsed > kDayMs / 2 ? elapsed - kDayMs : elapsed;
}

std::optional<int32_t> NumberAt(std::string_view text, size_t at) {
    int32_t number = 0;
    if (at >= text.size()) return std::nullopt;
    const auto result = std::from_chars(text.data() + at, text.data() + text.size(), number);
    return result.ec == std::errc() ? std::optional(number) : std::nullopt;
}

std::optional<DumpPiece> FindDumpPiece(const std::string& text) {
    unsigned ctl = 0;
    DumpPiece piece{};
    const int fields =
        std::sscanf(text.c_str(), "McuCoreDumpProcess ctl:%x dump count:%x dump index:%x", &ctl,
                    &piece.count, &piece.index);
    return fields == 3 ? std::optional(piece) : std::nullopt;
}

SensorMention FindMention(std::string_view text) {
    for (const auto& [words, mcu_sensor_id] : kNumberPatterns) {
        if (text.starts_with(words)) return MentionAt(text, words.size(), mcu_sensor_id);
    }
    for (const auto& [words, handle] : kNamePatterns) {
        if (text.starts_with(words)) return {0, {handle}};
    }
    return FindCommandMention(text);
}

std::vector<int32_t> HandlesOfMcuSensor(int32_t id) {
    return HandlesOf(id, true);
}

std::vector<std::string> SensorNames(const std::vector<int32_t>& handles) {
    std::vector<std::string> names(handles.size());
    std::ranges::transform(handles, names.begin(), shdclient::SensorName);
    return names;
}

std::string NamesOf(const std::vector<int32_t>& handles, std::string_view between) {
    return fmt::format("{}", fmt::join(SensorNames(handles), between));
}

std::string WithSensorName(std::string_view text) {
    const SensorMention mention = FindMention(text);
    if (mention.end == 0 || mention.handles.empty()) return std::string(text);
    return fmt::format("{} ({}){}", text.substr(0, mention.end), NamesOf(mention.handles, "/"),
                       text.substr(mention.end));
}

}  // namespace shdtool
