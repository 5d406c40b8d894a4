// The observers behind --trace and --record. Called by the machine for all that happens.
#include "tools/mcusim/host/trace.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "tools/wire/describe.h"
#include "tools/wire/recording.h"

namespace mcusim {
namespace {

const char* Speaker(Direction direction) {
    return direction == Direction::kHostToMcu ? "host" : "mcu ";
}

std::FILE* OpenText(const std::string& path) {
    std::FILE* file = path == "-" ? stderr : std::fopen(path.c_str(), "we");
    if (file == nullptr) {
        throw std::runtime_error(fmt::format("{}: {}", path, std::strerror(errno)));
    }
    (void)setvbuf(file, nullptr, _IOLBF, 0);
    return file;
}

}  // namespace

TextOutput::TextOutput(const std::string& path) : path_(path), file_(OpenText(path)) {}

void TextOutput::Write(const std::string& line) {
    if (!file_ || std::fputs(line.c_str(), file_.get()) >= 0) return;
    const std::string complaint =
        fmt::format("mcusim: {}: {}; it ends here\n", path_, std::strerror(errno));
    file_.reset();
    (void)std::fputs(complaint.c_str(), stderr);
}

void Trace::Write(TimePoint at, const std::string& line) {
    if (clocks_.Due(at)) {
        output_.Write(
            fmt::format("{:12.6f} {}\n", Seconds(at), wire::FormatClocks(wire::ReadClocks())));
    }
    output_.Write(fmt::format("{:12.6f} {}\n", Seconds(at), line));
}

void Trace::OnBytes(TimePoint at, Direction direction, std::span<const uint8_t> bytes,
                    bool bootloader) {
    if (!bootloader) return;
    Write(at, fmt::format("{} bootloader {}", Speaker(direction), DescribeBytes(bytes)));
}

void Trace::OnPacket(TimePoint at, Direction direction, std::span<const uint8_t> packet,
                     std::string_view note) {
    Write(at, fmt::format("{} {}{}{}", Speaker(direction),
                          packet.empty() ? "frame" : DescribePacket(packet),
                          note.empty() ? "" : ": ", note));
}

void Trace::OnMode(TimePoint at, std::string_view mode) {
    Write(at, fmt::format("---- {}", mode));
}

void Recorder::Write(TimePoint at, const std::string& step) {
    if (clocks_.Due(at)) output_.Write(FormatStep(at, wire::ReadClocks()));
    output_.Write(step);
}

void Recorder::OnBytes(TimePoint at, Direction direction, std::span<const uint8_t> bytes,
                       bool /*bootloader*/) {
    Write(at, FormatStep(at, direction, bytes));
}

void Recorder::OnPin(TimePoint at, Pin pin, bool high) {
    Write(at, FormatStep(at, pin, high));
}

void Recorder::OnMode(TimePoint at, std::string_view /*mode*/) {
    Write(at, "");
}

}  // namespace mcusim
