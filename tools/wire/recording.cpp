// Recorded sessions as text. Called by mcusim's recorder and player, and by shdtool.
#include "tools/wire/recording.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace wire {
namespace {

using Time = RecordedStep::Time;

// Longer than any host runs, and far from the end of the nanoseconds' range.
constexpr double kMaxTimeSec = 100.0 * 365 * 24 * 3600;
constexpr uint32_t kMaxBaud = 4'000'000;
constexpr std::string_view kClocksWords = "---- clocks ";

// By Pin.
constexpr std::string_view kPinNames[] = {"boot0", "reset"};

void Require(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(what);
}

template <typename Number, typename... Base>
bool Parse(std::string_view text, Number& number, Base... base) {
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number, base...);
    return parsed.ec == std::errc() && parsed.ptr == end;
}

// Nothing when it is no time in seconds.
std::optional<Time> ParseTime(std::string_view text) {
    double seconds = 0;
    if (!Parse(text, seconds) || !(seconds >= 0 && seconds <= kMaxTimeSec)) return std::nullopt;
    return std::chrono::duration_cast<Time>(std::chrono::duration<double>(seconds));
}

Bytes ParseHex(std::string_view text) {
    constexpr int kHexadecimal = 16;
    Require(!text.empty() && text.size() % 2 == 0, "bytes are pairs of hexadecimal digits");
    Bytes bytes;
    for (size_t i = 0; i < text.size(); i += 2) {
        uint8_t byte = 0;
        Require(Parse(text.substr(i, 2), byte, kHexadecimal),
                "bytes are pairs of hexadecimal digits");
        bytes.push_back(byte);
    }
    return bytes;
}

using Words = std::span<const std::string>;  // behind the time and the sign

void ParseBytes(RecordedStep& step, Words words) {
    step.bytes = ParseHex(words[0]);
}

void ParsePin(RecordedStep& step, Words words) {
    const auto* pin = std::ranges::find(kPinNames, words[0]);
    Require(pin != std::end(kPinNames) && (words[1] == "0" || words[1] == "1"),
            "a pin is boot0 or reset, with its level 0 or 1");
    step.pin = static_cast<Pin>(pin - std::begin(kPinNames));
    step.high = words[1] == "1";
}

void ParseClocks(RecordedStep& step, Words words) {
    const auto wall = ParseTime(words[0]), boot = ParseTime(words[1]);
    Require(wall && boot, "clocks are the wall clock and the boot clock in seconds");
    step.clocks = {*wall, *boot};
}

void ParseSettings(RecordedStep& step, Words words) {
    LineSettings& settings = step.settings;
    Require(Parse(words[0], settings.baud) && settings.baud <= kMaxBaud &&
                (words[1] == "8n1" || words[1] == "8e1"),
            "settings are a speed in bit/s and 8n1 or 8e1");
    settings.even_parity = words[1] == "8e1";
}

void ParseGate(RecordedStep&, Words words) {
    Require(words[0] == "go", "a gate is opened by go");
}

struct Form {
    std::string_view sign;
    StepKind kind;
    size_t words;
    void (*parse)(RecordedStep& step, Words words);
};

constexpr Form kForms[] = {
    {">", StepKind::kHostBytes, 1, ParseBytes}, {"<", StepKind::kMcuBytes, 1, ParseBytes},
    {"!", StepKind::kPin, 2, ParsePin},         {"@", StepKind::kClocks, 2, ParseClocks},
    {"?", StepKind::kGate, 1, ParseGate},       {"%", StepKind::kSettings, 2, ParseSettings},
};

RecordedStep ParseStep(const std::string& text) {
    constexpr const char* kWhat =
        "a step is TIME > BYTES, TIME < BYTES, TIME ! PIN LEVEL, TIME ? go, "
        "TIME @ WALL BOOT or TIME % SPEED FORMAT";
    std::istringstream stream(text);
    const std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
    Require(words.size() >= 3, kWhat);
    const auto at = ParseTime(words[0]);
    const auto* form = std::ranges::find(kForms, words[1], &Form::sign);
    Require(at && form != std::end(kForms) && words.size() == 2 + form->words, kWhat);
    RecordedStep step{.at = *at, .kind = form->kind};
    form->parse(step, Words(words).subspan(2));
    return step;
}

double Seconds(Time time) {
    return std::chrono::duration<double>(time).count();
}

Time ReadClock(clockid_t clock) {
    timespec now{};
    (void)clock_gettime(clock, &now);  // cannot fail for these two
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

}  // namespace

std::string FormatClocks(const Clocks& clocks) {
    return fmt::format("{}{:.6f} {:.6f}", kClocksWords, Seconds(clocks.wall), Seconds(clocks.boot));
}

std::optional<Clocks> ParseClocks(std::string_view line) {
    const size_t words = line.find(kClocksWords);
    if (words == std::string_view::npos ||
        line.substr(0, words).find_first_not_of(" .0123456789") != std::string_view::npos) {
        return std::nullopt;
    }
    line.remove_prefix(words + kClocksWords.size());
    const size_t blank = line.find(' ');
    if (blank == std::string_view::npos) return std::nullopt;
    const auto wall = ParseTime(line.substr(0, blank)), boot = ParseTime(line.substr(blank + 1));
    if (!wall || !boot) return std::nullopt;
    return Clocks{*wall, *boot};
}

std::string_view NameOf(Pin pin) {
    return kPinNames[static_cast<size_t>(pin)];
}

Clocks ReadClocks() {
    return {ReadClock(CLOCK_REALTIME), ReadClock(CLOCK_BOOTTIME)};
}

std::string FormatStep(Time at, Direction direction, std::span<const uint8_t> bytes) {
    return fmt::format("{:.6f} {} {:02x}\n", Seconds(at),
                       direction == Direction::kHostToMcu ? '>' : '<', fmt::join(bytes, ""));
}

std::string FormatStep(Time at, Pin pin, bool high) {
    return fmt::format("{:.6f} ! {} {}\n", Seconds(at), NameOf(pin), high ? 1 : 0);
}

std::string FormatStep(Time at, const LineSettings& settings) {
    return fmt::format("{:.6f} % {} {}\n", Seconds(at), settings.baud,
                       settings.even_parity ? "8e1" : "8n1");
}

std::string FormatStep(Time at, const Clocks& clocks) {
    return fmt::format("{:.6f} @ {:.6f} {:.6f}\n", Seconds(at), Seconds(clocks.wall),
                       Seconds(clocks.boot));
}

std::optional<RecordedStep> StepParser::Parse(const std::string& text) {
    ++line_;
    if (text.find_first_not_of(" \t\r") == std::string::npos || text[0] == '#') return std::nullopt;
    RecordedStep step = ParseStep(text);
    step.line = line_;
    // A burst is due when its last bit is in, so it may be older than what the host did meanwhile.
    at_ = step.at = std::max(step.at, at_);
    return step;
}

std::vector<RecordedStep> ParseRecording(std::span<const std::string> lines,
                                         const std::string& path) {
    std::vector<RecordedStep> steps;
    StepParser parser;
    for (const std::string& text : lines) {
        try {
            if (auto step = parser.Parse(text)) steps.push_back(std::move(*step));
        } catch (const std::runtime_error& error) {
            throw std::runtime_error(fmt::format("{}:{}: {}", path, parser.line(), error.what()));
        }
    }
    if (steps.empty()) throw std::runtime_error(path + ": no steps");
    return steps;
}

}  // namespace wire
