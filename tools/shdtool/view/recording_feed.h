// Recordings of a session for the page, as a feed that each browser gets whole: the files are read
// anew for each, as fast as it takes them. Run by the view command.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/mutex.h"
#include "tools/client/result.h"
#include "tools/shdtool/timeline/recordings.h"
#include "tools/shdtool/view/feed.h"

namespace shdtool {

class RecordingFeed final : public Feed {
  public:
    // Reads all files once, for the states that they tell together. Fails as Recordings does.
    [[nodiscard]] static shdclient::Result<std::unique_ptr<RecordingFeed>> Open(
        const std::vector<std::string>& paths);

    // What is wrong with the end of files, whose beginning is good.
    [[nodiscard]] const std::vector<std::string>& warnings() const { return warnings_; }

    [[nodiscard]] std::unique_ptr<FeedSession> Join() override;
    void Close() override;

  private:
    class Session;

    explicit RecordingFeed(timeline::Recordings recordings) : recordings_(std::move(recordings)) {}
    [[nodiscard]] shdclient::Status ReadStates();
    [[nodiscard]] bool Has(timeline::RecordingKind kind) const;
    [[nodiscard]] std::string Title() const;

    const timeline::Recordings recordings_;
    std::vector<std::string> warnings_;
    std::string beginning_;          // the items that come first: greeting and states
    std::string unrecorded_behind_;  // and last: the time behind the recordings of events

    Mutex mutex_;
    CondVar changed_;  // with mutex_: something of a session, or the end
    bool closed_ GUARDED_BY(mutex_) = false;
};

}  // namespace shdtool
