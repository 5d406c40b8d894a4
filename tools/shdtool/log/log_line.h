// One line of the daemon's log, and the sensors that its text names by number. Used by the folding
// and by the log command.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace shdtool {

inline constexpr std::string_view kLogLevels = "VDIWEF";  // the least first
// The tags under which the daemon writes, blanks between.
inline constexpr const char* kDaemonTags = "shd shd_hdlc shd_serial update_mcu mcu";

struct LogLine {
    std::string stamp;    // "11-23 04:31:07.123", local time; the log knows no year
    int64_t time_ms = 0;  // of the day
    int32_t pid = 0;
    int32_t tid = 0;
    char level = 0;  // one of kLogLevels
    std::string tag;
    std::string text;
};

// Parses what logcat -v threadtime prints, also behind the prefix of a journal ("... shd[12]: ").
// Empty when it is something else.
[[nodiscard]] std::optional<LogLine> ParseLogLine(std::string_view line);

// Whether the daemon writes under this tag; on a device all processes share one log.
[[nodiscard]] bool IsDaemonTag(std::string_view tag);

// True for what stands between the lines of a log without being one: logcat's headings, the clocks
// of a recorded log and the trace of the daemon's socket servers.
[[nodiscard]] bool IsLogNoise(std::string_view line);

// From one line to another that is less than half a day away, over midnight and the end of a month
// or year; negative when the clock was set back.
[[nodiscard]] int64_t ElapsedMs(const LogLine& begin, const LogLine& end);

// The number that starts at a place of the text; empty when there is none.
[[nodiscard]] std::optional<int32_t> NumberAt(std::string_view text, size_t at);

// "McuCoreDumpProcess ctl:...": a piece of a dump has come; the last one's index is the count.
struct DumpPiece {
    unsigned index;  // from 1
    unsigned count;
};
[[nodiscard]] std::optional<DumpPiece> FindDumpPiece(const std::string& text);

struct SensorMention {
    size_t end = 0;                // of the number in the text; 0 when the text holds a name
    std::vector<int32_t> handles;  // two share one MCU sensor; empty: no sensor is mentioned
};

// The sensor of the text, which the daemon names by its handle or by its MCU sensor id.
[[nodiscard]] SensorMention FindMention(std::string_view text);

// The sensors behind an MCU sensor id; none where there is no such id.
[[nodiscard]] std::vector<int32_t> HandlesOfMcuSensor(int32_t id);

[[nodiscard]] std::vector<std::string> SensorNames(const std::vector<int32_t>& handles);

// "accelerometer", or "rotation-vector/game-rotation-vector" for several.
[[nodiscard]] std::string NamesOf(const std::vector<int32_t>& handles, std::string_view between);

// The text with the name in parentheses behind the number of the sensor.
[[nodiscard]] std::string WithSensorName(std::string_view text);

}  // namespace shdtool
