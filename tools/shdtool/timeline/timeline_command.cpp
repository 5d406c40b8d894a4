// shdtool timeline: recordings of one session as one trace. A row of the table of commands; it
// needs no daemon.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

#include "tools/shdtool/base/command_rows.h"
#include "tools/shdtool/files/growing_file.h"
#include "tools/shdtool/timeline/trace_tracks.h"

namespace shdtool {
namespace {

using shdclient::Result;
using timeline::Recording;
using timeline::RecordingKind;
using timeline::Recordings;

// The order in which the tracks want them.
constexpr RecordingKind kOrder[] = {RecordingKind::kLog, RecordingKind::kLine,
                                    RecordingKind::kTrace, RecordingKind::kEvents};

shdclient::Status CheckOutput(const std::string& output, const Recordings& recordings) {
    for (const Recording& file : recordings.files()) {
        std::error_code none;
        if (!std::filesystem::equivalent(output, file.path, none)) continue;
        return WrongUsage(output + " is one of the recordings; name another file");
    }
    return shdclient::Success();
}

// Tells files of one kind from each other.
std::string MarkOf(const Recording& file, const Recordings& recordings) {
    const auto same_kind = std::ranges::count(recordings.files(), file.kind, &Recording::kind);
    return same_kind > 1 ? std::filesystem::path(file.path).filename().string() : "";
}

shdclient::Status Draw(Context& context, const Recordings& recordings,
                       timeline::TraceTracks& tracks) {
    for (const RecordingKind kind : kOrder) {
        for (const Recording& file : recordings.files()) {
            if (file.kind != kind) continue;
            tracks.BeginFile(kind, MarkOf(file, recordings));
            const auto rest =
                recordings.Read(file, [&](const timeline::Item& item) { tracks.Take(item); });
            if (!rest) return rest.error();
            if (!rest->empty()) context.Warn(*rest);
            tracks.EndFile();
        }
    }
    tracks.End();
    return shdclient::Success();
}

Outcome Timeline(Context& context) {
    const std::string output = context.arguments.Text("--output");
    const auto recordings = Recordings::Open(context.arguments.All("FILE"));
    if (!recordings) return recordings.error();
    if (const auto other = CheckOutput(output, *recordings); !other) return other.error();
    GrowingFile file;
    const auto made = file.Create(output, context.arguments.Has("--force"));
    if (!made) return made.error();
    timeline::TraceEvents events(file);
    timeline::TraceTracks tracks(events);
    const auto drawn = Draw(context, *recordings, tracks);
    if (!drawn) {
        (void)std::remove(output.c_str());  // half a trace opens nowhere
        return drawn.error();
    }
    const int64_t began_ns = recordings->anchor().WallOfBoot(0);
    events.End({{"clock", "CLOCK_BOOTTIME"}, {"boot_clock_began_ns_since_epoch", began_ns}});
    if (const auto written = file.status(); !written) return written.error();
    Json files = Json::List();
    for (const Recording& read : recordings->files()) {
        files.Add({{"file", read.path}, {"kind", NameOf(read.kind)}});
    }
    return Report{fmt::format("{}: {} events, {} bytes", output, events.events(), file.bytes()),
                  {{"file", output},
                   {"events", events.events()},
                   {"bytes", file.bytes()},
                   {"recordings", files}}};
}

const cli::Options kTimelineOptions{
    cli::File(
        "FILE", "",
        "Recordings of the same time: of the line, of events, of the log, a simulator's trace")
        .Required()
        .Repeated(),
    cli::NewFile("-o,--output", "FILE", "The trace to be made").Required(),
    cli::Flag("--force", "Replace the trace when it exists")};

constexpr const char* kTimelineDetails =
    "Puts everything on the boot clock and writes it in the Trace Event Format, which trace "
    "viewers open: frames and exchanges of the line (late replies, and answers that the daemon "
    "took for another request's, are marked), the daemon's main thread, recoveries and updates "
    "with their phases, samples, batches and flushes of the sensors, the recording client, and "
    "both logs.\n"
    "What a file is shows by what it holds. Recordings of the line (mcusim --record, shdtool tap "
    "-o), of events (shdtool record), of the log (shdtool log -o) and traces (mcusim --trace) say "
    "how their clocks stand to each other. A log as shd wrote it does not: it takes that from the "
    "recordings beside it, and its local time is read in the zone of this machine (TZ).";

}  // namespace

CommandRows TimelineCommands() {
    return {{{"Files", "timeline",
              "Merge recordings of a session into one trace for a trace viewer", kTimelineOptions,
              kTimelineDetails, "shdtool timeline walk.line walk.shdrec shd.log -o walk.json"},
             Timeline}};
}

}  // namespace shdtool
