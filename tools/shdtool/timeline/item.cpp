// Names of what a timeline shows. Called by everything that writes items.
#include "tools/shdtool/timeline/item.h"

#include <array>

namespace shdtool::timeline {
namespace {

constexpr std::array<std::string_view, 7> kStates{"starting",   "service",  "silent", "bootloader",
                                                  "recovering", "updating", "down"};
static_assert(kStates.size() == static_cast<size_t>(State::kDown) + 1);
constexpr std::array<std::string_view, 4> kMarks{"", "unanswered", "late", "shifted"};
static_assert(kMarks.size() == static_cast<size_t>(Mark::kShifted) + 1);
constexpr std::array<std::string_view, 3> kEpisodes{"recovery", "update", "crash"};
static_assert(kEpisodes.size() == static_cast<size_t>(EpisodeSpan::Kind::kCrash) + 1);

}  // namespace

std::string_view NameOf(State state) {
    return kStates[static_cast<size_t>(state)];
}

std::string_view NameOf(Mark mark) {
    return kMarks[static_cast<size_t>(mark)];
}

std::string_view NameOf(EpisodeSpan::Kind kind) {
    return kEpisodes[static_cast<size_t>(kind)];
}

}  // namespace shdtool::timeline
