// Puts an episode into words. Called by the log command.
#include "tools/shdtool/log/episode.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace shdtool {
namespace {

using Parts = std::vector<std::string>;

std::string Seconds(int64_t milliseconds) {
    return fmt::format("{:.1f} s", static_cast<double>(milliseconds) / 1000);
}

void AddSensors(Parts& parts, std::string_view what, const std::vector<int32_t>& handles) {
    if (!handles.empty()) parts.push_back(fmt::format("{}: {}", what, NamesOf(handles, ", ")));
}

void AddCount(Parts& parts, int count, std::string_view what) {
    if (count > 0) parts.push_back(fmt::format("{} {}{}", count, what, count == 1 ? "" : "s"));
}

void AddRecovery(Parts& parts, const Episode& episode) {
    if (!episode.unanswered.empty()) {
        parts.push_back(fmt::format("no answer to {}", fmt::join(episode.unanswered, " and ")));
    }
    if (episode.running) return;
    AddCount(parts, episode.unanswered_handshakes, "unanswered handshake");
    AddCount(parts, episode.updates, "firmware update");
    AddCount(parts, episode.refused_requests, "client request");
    if (episode.refused_requests > 0) parts.back() += " refused";
    AddSensors(parts, "calibration not sent", episode.parameters_lost);
    AddSensors(parts, "NOT BACK", episode.not_restored);
    if (!episode.ok()) return;
    AddSensors(parts, "back", episode.restored);
    if (episode.restored.empty()) parts.emplace_back("no sensor switched on again");
}

void AddUpdate(Parts& parts, const Episode& episode) {
    if (episode.running) return;
    if (episode.ok() && episode.blocks > 0) {
        parts.push_back(fmt::format("{} blocks written", episode.blocks));
    }
    if (!episode.ok() && episode.erased) parts.emplace_back("the MCU has no firmware now");
}

}  // namespace

void Episode::Extend(const LogLine& line) {
    end_stamp = line.stamp;
    duration_ms = std::max<int64_t>(ElapsedMs(first, line), 0);
}

std::string_view EpisodeName(EpisodeKind kind) {
    constexpr std::array<std::string_view, 3> kNames{"start", "recovery", "update"};
    return kNames[static_cast<size_t>(kind)];
}

std::string Describe(const Episode& episode) {
    std::string head(EpisodeName(episode.kind));
    if (episode.running && episode.duration_ms == 0) {
        head += " begins";
    } else if (episode.running) {
        head += fmt::format(" has not ended after {}", Seconds(episode.duration_ms));
    } else if (episode.kind != EpisodeKind::kStart) {
        head += fmt::format(" {} {}", episode.ok() ? "in" : "FAILED after",
                            Seconds(episode.duration_ms));
    }
    Parts parts;
    if (!episode.failure.empty()) parts.push_back(episode.failure);
    if (!episode.cause.empty()) parts.push_back(episode.cause);
    if (episode.kind == EpisodeKind::kRecovery) AddRecovery(parts, episode);
    if (episode.kind == EpisodeKind::kUpdate) AddUpdate(parts, episode);
    return parts.empty() ? head : fmt::format("{}: {}", head, fmt::join(parts, "; "));
}

}  // namespace shdtool
