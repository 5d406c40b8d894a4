// The files that the tools are given: recordings, dumps, logs, scripts and signals. One program for
// each kind, linked from this source and told apart by its name, "log_fuzz"; the input is the file.
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <sstream>
#include <stdexcept>

#include "platform/unique_fd.h"
#include "tests/fuzz/fuzz.h"
#include "tools/mcusim/host/player.h"
#include "tools/mcusim/host/script.h"
#include "tools/mcusim/host/signal_file.h"
#include "tools/shdtool/engine/record_file.h"
#include "tools/shdtool/files/dump_analysis.h"
#include "tools/shdtool/files/dump_text.h"
#include "tools/shdtool/files/rawlog.h"
#include "tools/shdtool/log/log_fold.h"
#include "tools/shdtool/timeline/recordings.h"
#include "tools/wire/recording.h"

namespace {

using namespace shdtest;
using Bytes = std::span<const uint8_t>;

// A file in memory alone.
class MemoryFile {
  public:
    explicit MemoryFile(Bytes bytes) : fd_(memfd_create("fuzz", MFD_CLOEXEC)) {
        const auto size = static_cast<ssize_t>(bytes.size());
        Require(write(fd_.get(), bytes.data(), bytes.size()) == size, "the file is written");
    }
    [[nodiscard]] std::string path() const { return "/proc/self/fd/" + std::to_string(fd_.get()); }

  private:
    UniqueFd fd_;
};

std::vector<std::string> Lines(Bytes bytes) {
    std::istringstream text(Text(bytes));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
}

void Recording(Bytes bytes) {
    const MemoryFile file(bytes);
    auto reader = shdtool::RecordReader::Open(file.path());
    if (!reader.ok()) return;
    size_t entries = 0;
    while (reader->Next()) ++entries;
    Require(entries <= bytes.size(), "an entry takes a byte at least");
    (void)reader->damage();
}

void Dump(Bytes bytes) {
    const shdtool::DumpAnalysis analysis = shdtool::AnalyseDump(bytes);
    if (analysis.head) {
        (void)shdtool::ExceptionName(analysis.head->exception);
        (void)shdtool::FaultRegisters(*analysis.head);
    }
    size_t held = 0;
    for (const shdtool::DumpArea& area : analysis.areas) {
        held += area.bytes.size();
        (void)shdtool::HexRows(area.bytes, area.address);
    }
    Require(held <= bytes.size(), "areas lie within the dump and do not overlap");
}

void DumpText(Bytes bytes) {
    const shdtool::DecodedDump decoded = shdtool::DecodeDumpText(Text(bytes));
    Require(decoded.bytes.size() <= bytes.size() / 4 * 3, "three bytes for four characters");
    Require(!decoded.damage || decoded.damage->offset <= bytes.size(), "the damage is in the text");
}

void RawLog(Bytes bytes) {
    for (const std::string& line : Lines(bytes)) {
        if (const auto parsed = shdtool::ParseRawLogLine(line)) {
            (void)shdtool::RawLogCsvRow(1, *parsed);
        }
    }
}

void Log(Bytes bytes) {
    shdtool::LogFolder folder(bytes.size() % 2 != 0);
    size_t lines = 0;
    for (const std::string& text : Lines(bytes)) {
        (void)shdtool::IsLogNoise(text);
        const auto line = shdtool::ParseLogLine(text);
        if (!line) continue;
        ++lines;
        (void)shdtool::WithSensorName(line->text);
        folder.Add(*line);
    }
    folder.End();
    Require(lines == 0 || !folder.Take().empty(), "lines do not get lost");
}

void LineRecording(Bytes bytes) {
    constexpr int kMaxParts = 10'000;
    const auto steps = wire::ParseRecording(Lines(bytes), "file");
    mcusim::Player player(steps, mcusim::TimePoint(0), [](int, const std::string&) {});
    for (const wire::RecordedStep& step : steps) player.HostWrote(step.at, step.bytes);
    for (int parts = 0; parts < kMaxParts && player.NextDue(); ++parts) {
        (void)player.TakeOutput(*player.NextDue());
    }
    (void)player.complete();
}

void Timeline(Bytes bytes) {
    using namespace shdtool::timeline;
    const MemoryFile file(bytes);
    const auto recordings = Recordings::Open({file.path()});
    if (!recordings) return;
    std::array<Time, 2> busy{INT64_MIN, INT64_MIN};
    const auto take = [&busy](const Item& item) {
        if (const auto* exchange = std::get_if<Exchange>(&item)) {
            Require(exchange->begin <= exchange->end, "an exchange ends behind its beginning");
        }
        const auto* frame = std::get_if<Frame>(&item);
        if (frame == nullptr) return;
        Require(busy.at(frame->to_mcu) <= frame->begin && frame->begin <= frame->end,
                "frames of one direction follow one another");
        busy.at(frame->to_mcu) = frame->end;
    };
    (void)recordings->Read(recordings->files().front(), take);
}

void Script(Bytes bytes) {
    const MemoryFile file(bytes);
    (void)mcusim::Script(file.path()).NextDue();
}

void Signal(Bytes bytes) {
    const MemoryFile file(bytes);
    for (const mcusim::SensorTraits& sensor : mcusim::Sensors()) {
        try {
            const auto signal = mcusim::LoadSignal(file.path(), sensor);
            Require(!signal.rows.empty(), "a signal has rows");
        } catch (const std::runtime_error&) {  // too many values for this one, perhaps
        }
    }
}

constexpr struct {
    std::string_view name;
    void (*read)(Bytes);
} kKinds[] = {
    {"recording", Recording},
    {"dump", Dump},
    {"dump_text", DumpText},
    {"rawlog", RawLog},
    {"log", Log},
    {"script", Script},
    {"line_recording", LineRecording},
    {"signal", Signal},
    {"timeline", Timeline},
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    for (const auto& kind : kKinds) {
        if (program_invocation_short_name != std::string(kind.name) + "_fuzz") continue;
        try {
            kind.read({bytes, size});
        } catch (const std::runtime_error&) {  // what is wrong with the file
        }
    }
    return 0;
}
