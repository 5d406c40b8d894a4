// Recognises recordings and reads them. Called by the timeline command and by the view.
#include "tools/shdtool/timeline/recordings.h"

#include <fmt/format.h>

#include <array>
#include <optional>
#include <stdexcept>

#include "tools/shdtool/engine/record_file.h"
#include "tools/shdtool/files/file_io.h"
#include "tools/shdtool/files/growing_text.h"
#include "tools/shdtool/timeline/event_items.h"
#include "tools/shdtool/timeline/line_items.h"
#include "tools/shdtool/timeline/log_items.h"
#include "tools/shdtool/timeline/trace_items.h"

namespace shdtool::timeline {
namespace {

using shdclient::Error;
using shdclient::ErrorCode;
using shdclient::Result;

constexpr std::array<std::string_view, 4> kNames{"line", "events", "log", "trace"};

Error Unusable(const std::string& message) {
    return {ErrorCode::kInvalidArgument, message};
}

// Each line of a file; false from it ends that. Gives the beginning of a last line without an end.
Result<std::string> ForEachLine(const std::string& path,
                                const std::function<bool(std::string_view)>& line) {
    Result<UniqueFd> fd = OpenToRead(path);
    if (!fd) return fd.error();
    GrowingText text(std::move(*fd), path);
    bool going = true;
    const auto next = [&](std::string_view one) { going = going && line(one); };
    while (going && text.Read(next)) {
        if (text.endless()) return Unusable(path + " is no recording: it has endless lines");
    }
    std::string rest;
    text.Finish([&](std::string_view one) { rest = one; });
    return rest;
}

// Nothing when the line does not tell.
std::optional<RecordingKind> KindOf(std::string_view line) {
    if (TraceItems::IsTrace(line)) return RecordingKind::kTrace;
    if (wire::ParseClocks(line) || ParseLogLine(line)) return RecordingKind::kLog;
    try {
        wire::StepParser parser;
        if (parser.Parse(std::string(line))) return RecordingKind::kLine;
    } catch (const std::runtime_error&) {
    }
    return std::nullopt;
}

Result<RecordingKind> KindOfFile(const std::string& path) {
    constexpr std::string_view kEventsMagic = "SHDREC";
    constexpr int kLinesLookedAt = 1'000;  // headings and other programs' lines may stand in front
    std::optional<RecordingKind> kind;
    int lines = 0;
    const auto looked = ForEachLine(path, [&](std::string_view line) {
        if (lines == 0 && line.starts_with(kEventsMagic)) kind = RecordingKind::kEvents;
        if (!kind) kind = KindOf(line);
        return !kind && ++lines < kLinesLookedAt;
    });
    if (!looked) return looked.error();
    if (kind) return *kind;
    return Unusable(path +
                    " is no recording of the line (mcusim --record, shdtool tap -o) or of events "
                    "(shdtool record), no log of shd and no trace of mcusim");
}

Result<std::string> FindAnchors(Recording& file) {
    if (file.kind == RecordingKind::kEvents) {
        auto reader = RecordReader::Open(file.path);
        if (!reader) return reader.error();
        while (reader->Next()) {
        }
        for (const wire::Clocks& clocks : reader->clocks()) file.anchor.Add(clocks);
        file.begin = reader->begin_ns();
        file.end = reader->end_ns();
        return std::string();
    }
    return ForEachLine(file.path, [&file](std::string_view line) {
        if (file.kind != RecordingKind::kLine) {
            if (const auto clocks = wire::ParseClocks(line)) file.anchor.Add(*clocks);
        } else if (line.find(" @ ") != std::string_view::npos) {
            try {
                wire::StepParser parser;
                if (const auto step = parser.Parse(std::string(line))) {
                    file.anchor.Add(step->clocks);
                }
            } catch (const std::runtime_error&) {  // told when it is read
            }
        }
        return true;
    });
}

Error Unplaced(const Recording& file) {
    if (file.kind == RecordingKind::kLog) {
        return Unusable(fmt::format(
            "{} knows neither the year nor the boot clock: name a recording of the same session "
            "beside it, or record the log with 'shdtool log {} -f -o RECORDING'",
            file.path, file.path));
    }
    return Unusable(fmt::format(
        "{} does not say how its clock stands to the others; {} of today do: record it again",
        file.path,
        file.kind == RecordingKind::kTrace ? "traces" : "recordings of mcusim and shdtool tap"));
}

std::string CutOff(const std::string& path) {
    return path + " ends within a line, which is left out";
}

}  // namespace

std::string_view NameOf(RecordingKind kind) {
    return kNames[static_cast<size_t>(kind)];
}

Result<Recordings> Recordings::Open(const std::vector<std::string>& paths) {
    Recordings opened;
    for (const std::string& path : paths) {
        const Result<RecordingKind> kind = KindOfFile(path);
        if (!kind) return kind.error();
        Recording file{path, *kind};
        const auto looked = FindAnchors(file);
        if (!looked) return looked.error();
        opened.anchor_.Add(file.anchor);
        opened.files_.push_back(std::move(file));
    }
    for (const Recording& file : opened.files_) {
        const bool log = file.kind == RecordingKind::kLog;
        if (!(log ? opened.anchor_ : file.anchor).known()) return Unplaced(file);
    }
    return opened;
}

Result<std::string> Recordings::Read(const Recording& file, const Sink& sink) const {
    switch (file.kind) {
        case RecordingKind::kEvents: {
            auto reader = RecordReader::Open(file.path);
            if (!reader) return reader.error();
            const EventItems items(sink);
            while (const auto delivery = reader->Next()) items.Push(*delivery);
            return reader->damage() ? reader->damage()->message : std::string();
        }
        case RecordingKind::kLine: {
            LineItems items(sink);
            wire::StepParser parser;
            std::string wrong;
            const auto rest = ForEachLine(file.path, [&](std::string_view line) {
                try {
                    if (const auto step = parser.Parse(std::string(line))) items.Push(*step);
                } catch (const std::runtime_error& error) {
                    wrong = fmt::format("{}:{}: {}", file.path, parser.line(), error.what());
                }
                return wrong.empty();
            });
            if (!rest) return rest.error();
            if (!wrong.empty()) return Unusable(wrong);
            items.End();
            return rest->empty() ? std::string() : CutOff(file.path);
        }
        case RecordingKind::kTrace: {
            TraceItems items(sink);
            return ForEachLine(file.path, [&](std::string_view line) {
                items.Push(line);
                return true;
            });
        }
        case RecordingKind::kLog:
            break;
    }
    // A log's own clocks are the ones that were read beside it, so the others are not asked.
    LogItems items(sink, file.anchor.known() ? ClockAnchor() : anchor_);
    const auto rest = ForEachLine(file.path, [&](std::string_view line) {
        items.Push(line);
        return true;
    });
    if (!rest) return rest.error();
    if (!rest->empty()) items.Push(*rest);
    items.End();
    return std::string();
}

}  // namespace shdtool::timeline
