// Reading of files that grow, as far as they are by now. Called by the view.
#include "tools/shdtool/timeline/follow.h"

#include <stdexcept>

#include "tools/shdtool/base/hub_clocks.h"

namespace shdtool::timeline {
namespace {

// Reads what there is; begins calls for each new beginning of the file.
void ReadOn(GrowingText& text, const GrowingText::Line& line, const std::function<void()>& begin) {
    do {
        while (text.Read(line)) {
        }
        if (!text.FollowChange()) return;
        begin();
    } while (true);
}

}  // namespace

void LineFollower::Push(std::string_view line) {
    try {
        if (const auto step = parser_.Parse(std::string(line))) items_->Push(*step);
    } catch (const std::runtime_error&) {
        ++bad_lines_;
    }
}

void LineFollower::Poll() {
    ReadOn(
        text_, [this](std::string_view line) { Push(line); },
        [this] {
            if (items_) items_->End();
            items_ = std::make_unique<LineItems>(sink_);
            parser_ = {};
        });
    // What happened just now may still be on its way into the file.
    constexpr std::chrono::milliseconds kPatience{200};
    if (items_) items_->Tick((HubClocks().boot - kPatience).count());
}

void LogFollower::Poll() {
    const wire::Clocks now = HubClocks();
    ReadOn(
        text_, [this](std::string_view line) { items_->Push(line); },
        [&] {
            items_ = std::make_unique<LogItems>(sink_);
            items_->Anchor(now);
        });
    if (items_ && clocks_.Due(now.boot)) items_->Anchor(now);
}

}  // namespace shdtool::timeline
