// The simulator's trace as items. Called by the recordings.
#include "tools/shdtool/timeline/trace_items.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>
#include <string>

namespace shdtool::timeline {
namespace {

constexpr double kNsPerSec = 1e9;
constexpr size_t kSpeakerLength = 5;
constexpr std::string_view kHost = "host ", kMcu = "mcu  ", kBoard = "---- ";

struct Entry {
    int64_t at_ns;  // on the simulator's clock
    std::string_view speaker, words;
};

std::optional<Entry> Parse(std::string_view line) {
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    double seconds = 0;
    const auto number = std::from_chars(line.data(), line.data() + line.size(), seconds);
    line.remove_prefix(static_cast<size_t>(number.ptr - line.data()));
    const bool fits = number.ec == std::errc() && line.size() > 1 + kSpeakerLength &&
                      line.front() == ' ' && std::abs(seconds) < 1e9;
    if (!fits) return std::nullopt;
    const Entry entry{std::llround(seconds * kNsPerSec), line.substr(1, kSpeakerLength),
                      line.substr(1 + kSpeakerLength)};
    const bool known = entry.speaker == kHost || entry.speaker == kMcu || entry.speaker == kBoard;
    return known ? std::optional(entry) : std::nullopt;
}

struct Mode {
    std::string_view name;
    State state;
    std::string_view reason;
};
constexpr Mode kModes[] = {
    {"off", State::kDown, "it is switched off"},
    {"reset", State::kStarting, "its reset line is low"},
    {"boot", State::kStarting, "the firmware boots"},
    {"app", State::kService, ""},
    {"bootloader", State::kBootloader, ""},
    {"blank", State::kDown, "it has no complete firmware"},
    {"hung", State::kSilent, "the firmware hangs"},
};

}  // namespace

bool TraceItems::IsTrace(std::string_view line) {
    return Parse(line).has_value();
}

void TraceItems::Push(std::string_view line) {
    const std::optional<Entry> entry = Parse(line);
    if (!entry) return;
    if (const auto clocks = wire::ParseClocks(line)) {
        clock_.Anchor(entry->at_ns, clocks->boot.count());
        return;
    }
    if (!clock_.known()) return;
    const Time at = clock_.BootOf(entry->at_ns);
    if (entry->speaker == kBoard) {
        const auto* mode = std::ranges::find(kModes, entry->words, &Mode::name);
        if (mode == std::end(kModes)) return;
        sink_(McuState{at, mode->state, std::string(mode->reason), Source::kTrace});
        return;
    }
    Frame frame;
    frame.number = ++frames_;
    frame.begin = frame.end = at;
    frame.to_mcu = entry->speaker == kHost;
    frame.damaged = entry->words.ends_with(" on the line");  // lost or damaged
    frame.words = entry->words;
    frame.source = Source::kTrace;
    sink_(frame);
}

}  // namespace shdtool::timeline
