// Selection and presentation of log items. Called by the log command.
#include "tools/shdtool/log/log_view.h"

#include <fmt/format.h>

#include <algorithm>

#include "tools/shdtool/base/terminal.h"
#include "tools/shdtool/files/image_check.h"

namespace shdtool {
namespace {

char LevelOf(const Episode& episode) {
    if (!episode.ok()) return 'E';
    return episode.kind == EpisodeKind::kUpdate ? 'I' : 'W';
}

Style StyleOf(char level) {
    if (level == 'E' || level == 'F') return Style::kFault;
    if (level == 'W') return Style::kWarning;
    return level == 'I' ? Style::kGood : Style::kDim;
}

std::string_view TimeOf(std::string_view stamp) {
    return stamp.substr(std::string_view("MM-DD ").size());
}

bool BeginsAt(std::string_view stamp, const std::string& at) {
    return stamp.starts_with(at) || TimeOf(stamp).starts_with(at);
}

bool WasOn(const Episode& episode, const std::string& at) {
    const std::string& begin = episode.first.stamp;
    const std::string& end = episode.end_stamp;
    const auto between = [&at](std::string_view from, std::string_view to) {
        return from < at && at < to;
    };
    return BeginsAt(begin, at) || BeginsAt(end, at) || between(begin, end) ||
           between(TimeOf(begin), TimeOf(end));
}

Json JsonOfEpisode(const Episode& episode) {
    Json json{{"episode", EpisodeName(episode.kind)},
              {"time", episode.first.stamp},
              {"end", episode.end_stamp},
              {"pid", episode.first.pid},
              {"duration_s", static_cast<double>(episode.duration_ms) / 1000},
              {"running", episode.running},
              {"ok", episode.ok() && !episode.running},
              {"cause", episode.cause},
              {"failure", episode.failure}};
    if (episode.kind == EpisodeKind::kRecovery) {
        json.Merge({{"unanswered", Json::List(episode.unanswered)},
                    {"unanswered_handshakes", episode.unanswered_handshakes},
                    {"updates", episode.updates},
                    {"refused_requests", episode.refused_requests},
                    {"restored", Json::List(SensorNames(episode.restored))},
                    {"not_restored", Json::List(SensorNames(episode.not_restored))},
                    {"parameters_lost", Json::List(SensorNames(episode.parameters_lost))}});
    }
    if (episode.kind == EpisodeKind::kUpdate) {
        json.Merge({{"blocks", episode.blocks},
                    {"failed_block", episode.failed_block},
                    {"block_exact", episode.block_exact},
                    {"erased", episode.erased}});
    }
    return json;
}

}  // namespace

bool LogFilter::Wants(const LogItem& item) const {
    const auto level_reached = [this](char of) {
        return kLogLevels.find(of) >= kLogLevels.find(level);
    };
    const auto tag_wanted = [this](std::string_view tag) {
        return tags.empty() || std::find(tags.begin(), tags.end(), tag) != tags.end();
    };
    if (const auto* episode = std::get_if<Episode>(&item)) {
        return WasOn(*episode, at) && level_reached(LevelOf(*episode)) &&
               tag_wanted(episode->kind == EpisodeKind::kUpdate ? "update_mcu" : "shd");
    }
    const LogLine& line = std::get<LogLine>(item);
    if (episodes_only) return false;
    if (line.stamp.empty()) {  // somebody else's words
        return tags.empty() && sensors.empty() && at.empty() && level == 'V';
    }
    if (!sensors.empty()) {
        const std::vector<int32_t> handles = FindMention(line.text).handles;
        if (std::find_first_of(handles.begin(), handles.end(), sensors.begin(), sensors.end()) ==
            handles.end()) {
            return false;
        }
    }
    return level_reached(line.level) && tag_wanted(line.tag) && BeginsAt(line.stamp, at);
}

std::string TextOf(const LogItem& item) {
    const auto* episode = std::get_if<Episode>(&item);
    const LogLine& line = episode != nullptr ? episode->first : std::get<LogLine>(item);
    if (line.stamp.empty()) return Printable(line.text);
    const char level = episode != nullptr ? LevelOf(*episode) : line.level;
    const std::string_view tag = episode != nullptr ? ">>" : std::string_view(line.tag);
    const std::string head = fmt::format("{} {} {:<10} ", line.stamp, level, tag);
    const std::string text =
        Fit(Printable(episode != nullptr ? Describe(*episode) : WithSensorName(line.text)),
            head.size());
    if (episode != nullptr) {
        return Styled(head + text, level == 'E' ? Style::kFault : Style::kHeading);
    }
    return Styled(head, StyleOf(level)) + text;
}

Json JsonOf(const LogItem& item) {
    if (const auto* episode = std::get_if<Episode>(&item)) return JsonOfEpisode(*episode);
    const LogLine& line = std::get<LogLine>(item);
    if (line.stamp.empty()) return {{"text", line.text}};
    return {{"time", line.stamp},
            {"pid", line.pid},
            {"tid", line.tid},
            {"level", std::string(1, line.level)},
            {"tag", line.tag},
            {"text", line.text},
            {"sensors", Json::List(SensorNames(FindMention(line.text).handles))}};
}

}  // namespace shdtool
