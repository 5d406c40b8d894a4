// The last two minutes of a live hub, for any number of browsers at their own pace: one writer that
// never waits, and a place for each browser. What a browser that stands still has not read is not
// kept for it beyond a limit, and it is told so. Filled by the live feed, read by the web server.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/mutex.h"
#include "tools/shdtool/view/feed.h"

namespace shdtool {

// What holds until something of the same key takes its place: a browser that comes later, or that
// missed it, is told the latest.
struct StandingItem {
    std::string key;
    std::string json;
    bool over = false;  // it holds no longer
};

// What happened since the batch before. Times are of the boot clock.
struct FeedBatch {
    int64_t from_us = 0;
    int64_t to_us = 0;
    std::string items = {};  // JSON objects, commas between
    std::vector<StandingItem> standing = {};

    void Add(const std::string& json);
    // The item, which is standing, too.
    void Add(const std::string& json, const std::string& key, bool over = false);
};

class LiveHistory final : public Feed {
  public:
    struct Limits {
        int64_t span_us = 120'000'000;
        size_t bytes = size_t{32} << 20;     // of JSON: two minutes of a full line take some 20 MB
        size_t lag_bytes = size_t{4} << 20;  // unread by one browser; half a minute of a full line
    };

    // greeting: the first item for a browser, asked for on its connection's thread.
    LiveHistory(Limits limits, std::function<std::string()> greeting)
        : limits_(limits), greeting_(std::move(greeting)) {}

    [[nodiscard]] const Limits& limits() const { return limits_; }

    // Never waits for a browser. An empty batch only wakes the sessions, which tell the time.
    void Push(FeedBatch batch);

    [[nodiscard]] std::unique_ptr<FeedSession> Join() override;
    void Close() override;

  private:
    class Session;

    void Evict(int64_t now_us) REQUIRES(mutex_);
    // The batch of this number, which is kept.
    [[nodiscard]] const FeedBatch& Batch(uint64_t number) const REQUIRES(mutex_) {
        return batches_[static_cast<size_t>(number - first_)];
    }
    [[nodiscard]] uint64_t end() const REQUIRES(mutex_) { return first_ + batches_.size(); }

    const Limits limits_;
    const std::function<std::string()> greeting_;

    Mutex mutex_;
    CondVar pushed_;  // with mutex_: a batch, or the end
    std::deque<FeedBatch> batches_ GUARDED_BY(mutex_);
    uint64_t first_ GUARDED_BY(mutex_) = 0;                           // number of the oldest batch
    size_t bytes_ GUARDED_BY(mutex_) = 0;                             // of all batches
    std::map<std::string, std::string> standing_ GUARDED_BY(mutex_);  // before the oldest batch
    int64_t now_us_ GUARDED_BY(mutex_) = 0;                           // of the last push
    bool closed_ GUARDED_BY(mutex_) = false;
};

}  // namespace shdtool
