// Recorded sessions as text. Called by the recorder and by the simulator for --replay.
#include "tools/mcusim/host/recording.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "tools/mcusim/host/text_file.h"

namespace mcusim {
namespace {

constexpr double kMaxTimeSec = 7 * 24 * 3600;

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

RecordedStep ParseStep(const std::string& text) {
    std::istringstream stream(text);
    const std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
    double seconds = 0;
    Require(words.size() >= 3 && Parse(words[0], seconds) && seconds >= 0 && seconds <= kMaxTimeSec,
            "a step is TIME > BYTES, TIME < BYTES or TIME ! PIN LEVEL");
    RecordedStep step{.at = FromSeconds(seconds)};
    if (words[1] == "!") {
        const auto* pin = std::ranges::find(kPinNames, words[2]);
        Require(
            pin != std::end(kPinNames) && words.size() == 4 && (words[3] == "0" || words[3] == "1"),
            "a pin is boot0 or reset, with its level 0 or 1");
        step.pin = static_cast<Pin>(pin - std::begin(kPinNames));
        step.high = words[3] == "1";
        return step;
    }
    Require(words.size() == 3 && (words[1] == ">" || words[1] == "<"),
            "a step is TIME > BYTES, TIME < BYTES or TIME ! PIN LEVEL");
    step.kind = words[1] == ">" ? RecordedStep::Kind::kHostBytes : RecordedStep::Kind::kMcuBytes;
    step.bytes = ParseHex(words[2]);
    return step;
}

}  // namespace

std::string FormatStep(TimePoint at, Direction direction, std::span<const uint8_t> bytes) {
    return fmt::format("{:.6f} {} {:02x}\n", Seconds(at),
                       direction == Direction::kHostToMcu ? '>' : '<', fmt::join(bytes, ""));
}

std::string FormatStep(TimePoint at, Pin pin, bool high) {
    return fmt::format("{:.6f} ! {} {}\n", Seconds(at), kPinNames[static_cast<size_t>(pin)],
                       high ? 1 : 0);
}

std::vector<RecordedStep> LoadRecording(const std::string& path) {
    std::vector<RecordedStep> steps;
    int line = 0;
    for (const std::string& text : ReadLines(path)) {
        ++line;
        if (text.find_first_not_of(" \t\r") == std::string::npos || text[0] == '#') continue;
        try {
            RecordedStep step = ParseStep(text);
            step.line = line;
            // A burst is due when its last bit is in, so it may be older than what the host did
            // meanwhile.
            if (!steps.empty()) step.at = std::max(step.at, steps.back().at);
            steps.push_back(std::move(step));
        } catch (const std::runtime_error& error) {
            throw std::runtime_error(fmt::format("{}:{}: {}", path, line, error.what()));
        }
    }
    if (steps.empty()) throw std::runtime_error(path + ": no steps");
    return steps;
}

}  // namespace mcusim
