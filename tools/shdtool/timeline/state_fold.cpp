// Weighs the sources of the MCU's state. Called by the timeline command and by the view.
#include "tools/shdtool/timeline/state_fold.h"

namespace shdtool::timeline {

const McuState* StateFold::Ruling() const {
    const auto of = [this](Source source) -> const McuState* {
        const auto& told = told_[static_cast<size_t>(source)];
        return told ? &*told : nullptr;
    };
    const McuState* line = of(Source::kLine);
    const McuState* log = of(Source::kLog);
    const McuState* events = of(Source::kEvents);
    if (events != nullptr && events->state != State::kService) return events;
    const bool flashing =
        line != nullptr && (line->state == State::kBootloader || line->state == State::kUpdating);
    const bool episode =
        log != nullptr && (log->state == State::kRecovering || log->state == State::kUpdating);
    if (line != nullptr && (flashing || !episode)) return line;
    return log != nullptr ? log : events;
}

std::optional<McuState> StateFold::Push(const McuState& told) {
    const auto source = static_cast<size_t>(told.source);
    if (source >= told_.size()) return std::nullopt;
    told_[source] = told;
    const McuState* ruling = Ruling();
    if (shown_ && shown_->state == ruling->state && shown_->reason == ruling->reason) {
        return std::nullopt;
    }
    shown_ = *ruling;
    McuState now = *ruling;
    // What was told earlier and rules again does so from now on.
    if (now.source != told.source) now.at = told.at;
    return now;
}

}  // namespace shdtool::timeline
