// A thread for each browser reads the recordings for it. Called by the view command.
#include "tools/shdtool/view/recording_feed.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <thread>
#include <utility>
#include <variant>

#include "platform/delay.h"
#include "tools/shdtool/engine/stop_signals.h"
#include "tools/shdtool/timeline/state_fold.h"
#include "tools/shdtool/view/item_json.h"
#include "tools/shdtool/view/line_meter.h"

namespace shdtool {
namespace {

using timeline::Item;
using timeline::McuState;
using timeline::Recording;
using timeline::RecordingKind;

struct Span {
    std::optional<timeline::Time> begin = {};
    timeline::Time end = 0;

    void Cover(timeline::Time at) {
        begin = std::min(begin.value_or(at), at);
        end = std::max(end, at);
    }
};

// Empty for an empty span.
std::string UnrecordedJson(timeline::Time begin, timeline::Time end) {
    if (begin >= end) return {};
    return fmt::format(R"({{"k":"unrecorded","t":{},"e":{}}})", begin / kNsPerUs, end / kNsPerUs);
}

}  // namespace

class RecordingFeed::Session final : public FeedSession {
  public:
    explicit Session(RecordingFeed& feed) : feed_(feed), ready_(feed.beginning_) {
        thread_ = ThreadWithoutSignals([this](const std::stop_token&) { ReadAll(); });
    }

    ~Session() override {
        const MutexLock lock(feed_.mutex_);
        left_ = true;
        feed_.changed_.Broadcast();
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    std::optional<std::string> Next() override {
        const MutexLock lock(feed_.mutex_);
        const std::time_t deadline = WallClockSec() + 1;
        while (ready_.empty() && !feed_.closed_) {
            if (feed_.changed_.WaitUntil(feed_.mutex_, deadline) != 0) break;
        }
        if (feed_.closed_) return std::nullopt;
        feed_.changed_.Broadcast();
        return std::exchange(ready_, {});
    }

  private:
    struct Gone {};  // the browser is, or the server ends

    void ReadAll() {
        try {
            LineMeter meter([this](timeline::Time, const std::string& json) { Add(json); });
            const auto tell = [&](const Recording& file) {
                const auto read = feed_.recordings_.Read(file, [&](const Item& item) {
                    if (std::holds_alternative<McuState>(item)) return;  // told at the beginning
                    if (const auto* frame = std::get_if<timeline::Frame>(&item)) meter.Add(*frame);
                    Add(ItemJson(item));
                });
                (void)read;  // what can be wrong with it was told when it was opened
            };
            // Samples last: what they mean depends on what was asked for, which the line tells.
            for (const bool events : {false, true}) {
                for (const Recording& file : feed_.recordings_.files()) {
                    if ((file.kind == RecordingKind::kEvents) == events) tell(file);
                }
            }
            Add(feed_.unrecorded_behind_);
            if (!items_.empty()) Hand();
        } catch (const Gone&) {
        }
    }

    void Add(const std::string& json) {
        AppendItems(items_, json);
        if (items_.size() >= kMessageBytes) Hand();
    }

    // Waits until the browser has taken what was there before.
    void Hand() {
        const MutexLock lock(feed_.mutex_);
        while (!ready_.empty() && !left_ && !feed_.closed_) feed_.changed_.Wait(feed_.mutex_);
        if (left_ || feed_.closed_) throw Gone{};
        ready_.swap(items_);
        feed_.changed_.Broadcast();
    }

    RecordingFeed& feed_;
    std::string items_;  // the thread's
    std::string ready_ GUARDED_BY(feed_.mutex_);
    bool left_ GUARDED_BY(feed_.mutex_) = false;
    std::jthread thread_;  // last, so that it ends first
};

shdclient::Result<std::unique_ptr<RecordingFeed>> RecordingFeed::Open(
    const std::vector<std::string>& paths) {
    auto recordings = timeline::Recordings::Open(paths);
    if (!recordings) return recordings.error();
    std::unique_ptr<RecordingFeed> feed(new RecordingFeed(std::move(*recordings)));
    const auto read = feed->ReadStates();
    if (!read) return read.error();
    return feed;
}

shdclient::Status RecordingFeed::ReadStates() {
    std::vector<McuState> states;
    Span all;
    Span events;
    for (const Recording& file : recordings_.files()) {
        if (file.kind == RecordingKind::kEvents) {
            for (const timeline::Time at : {file.begin, file.end}) {
                events.Cover(at);
                all.Cover(at);  // also when the last sensor fell silent long before
            }
        }
        const auto read = recordings_.Read(file, [&](const Item& item) {
            if (const auto at = PassedAt(item)) all.Cover(*at);
            if (const auto* state = std::get_if<McuState>(&item)) states.push_back(*state);
        });
        if (!read) return read.error();
        if (!read->empty()) warnings_.push_back(*read);
    }
    beginning_ = GreetingJson({.now_us = all.end / kNsPerUs,
                               .wall_us = recordings_.anchor().WallOfBoot(all.end) / kNsPerUs,
                               .title = Title(),
                               .line = Has(RecordingKind::kLine),
                               .log = Has(RecordingKind::kLog)});
    std::ranges::stable_sort(states, {}, &McuState::at);
    timeline::StateFold fold;
    for (const McuState& told : states) {
        if (const auto state = fold.Push(told)) AppendItems(beginning_, ItemJson(*state));
    }
    // Where no recording of events reaches, a sensor without samples is not silent.
    if (!events.begin) events = {.begin = all.end, .end = all.end};
    AppendItems(beginning_, UnrecordedJson(all.begin.value_or(0), *events.begin));
    unrecorded_behind_ = UnrecordedJson(events.end, all.end);
    return shdclient::Success();
}

bool RecordingFeed::Has(RecordingKind kind) const {
    return std::ranges::find(recordings_.files(), kind, &Recording::kind) !=
           recordings_.files().end();
}

std::string RecordingFeed::Title() const {
    std::string title;
    for (const Recording& file : recordings_.files()) {
        if (!title.empty()) title += ", ";
        title += file.path.substr(file.path.rfind('/') + 1);
    }
    return title;
}

std::unique_ptr<FeedSession> RecordingFeed::Join() {
    return std::make_unique<Session>(*this);
}

void RecordingFeed::Close() {
    const MutexLock lock(mutex_);
    closed_ = true;
    changed_.Broadcast();
}

}  // namespace shdtool
