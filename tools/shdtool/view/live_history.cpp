// A ring of batches and the sessions that read it. Called by the live feed and by the web server.
#include "tools/shdtool/view/live_history.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace shdtool {
namespace {

constexpr int64_t kTellTimeUs = 100'000;

// What a batch takes.
size_t Weight(const FeedBatch& batch) {
    size_t weight = sizeof(batch) + batch.items.size();
    for (const StandingItem& item : batch.standing) weight += sizeof(item) + item.json.size();
    return weight;
}

}  // namespace

void FeedBatch::Add(const std::string& json) {
    AppendItems(items, json);
}

void FeedBatch::Add(const std::string& json, const std::string& key, bool over) {
    AppendItems(items, json);
    standing.push_back({key, json, over});
}

class LiveHistory::Session final : public FeedSession {
  public:
    explicit Session(LiveHistory& history) : history_(history) {}

    std::optional<std::string> Next() override {
        if (!begun_) return Begin({});
        {
            const MutexLock lock(history_.mutex_);
            while (!history_.closed_ && next_ == history_.end() &&
                   history_.now_us_ - told_us_ < kTellTimeUs) {
                history_.pushed_.Wait(history_.mutex_);
            }
            if (history_.closed_) return std::nullopt;
            if (next_ >= history_.first_) return Continue();
        }
        return Begin(seen_us_);
    }

  private:
    // From the oldest that is left; lost_from_us: since when this browser has missed something.
    std::string Begin(std::optional<int64_t> lost_from_us) {
        std::string items = history_.greeting_();
        const MutexLock lock(history_.mutex_);
        begun_ = true;
        next_ = history_.first_;
        joined_ = history_.end();
        seen_us_ = history_.batches_.empty() ? history_.now_us_ : history_.batches_.front().from_us;
        if (lost_from_us) AppendItems(items, Dropped(*lost_from_us, seen_us_));
        for (const auto& [key, json] : history_.standing_) AppendItems(items, json);
        return items;
    }

    std::string Continue() REQUIRES(history_.mutex_) {
        std::string items;
        if (Lag() > history_.limits_.lag_bytes) items = SkipToPresent();
        while (next_ < history_.end() && items.size() < kMessageBytes) {
            const FeedBatch& batch = history_.Batch(next_);
            AppendItems(items, batch.items);
            seen_us_ = batch.to_us;
            ++next_;
        }
        if (history_.now_us_ - told_us_ >= kTellTimeUs) {
            told_us_ = history_.now_us_;
            AppendItems(items, fmt::format(R"({{"k":"now","t":{}}})", told_us_));
        }
        return items;
    }

    // What came before this browser does not count.
    [[nodiscard]] size_t Lag() const REQUIRES(history_.mutex_) {
        size_t lag = 0;
        for (uint64_t i = std::max(next_, joined_); i < history_.end(); ++i) {
            lag += Weight(history_.Batch(i));
        }
        return lag;
    }

    // Returns the word about what is skipped, and what holds or has ended behind it.
    std::string SkipToPresent() REQUIRES(history_.mutex_) {
        std::map<std::string, std::string> standing;
        for (; next_ < history_.end(); ++next_) {
            for (const StandingItem& item : history_.Batch(next_).standing) {
                standing[item.key] = item.json;
            }
        }
        std::string items = Dropped(seen_us_, history_.batches_.back().to_us);
        seen_us_ = history_.batches_.back().to_us;
        for (const auto& [key, json] : standing) AppendItems(items, json);
        return items;
    }

    static std::string Dropped(int64_t from_us, int64_t to_us) {
        return fmt::format(R"({{"k":"dropped","t":{},"e":{}}})", from_us, to_us);
    }

    LiveHistory& history_;
    bool begun_ = false;
    uint64_t next_ = 0;    // number of the batch to be told next
    uint64_t joined_ = 0;  // of the first one after this session began
    int64_t seen_us_ = 0;  // until when it was told everything
    int64_t told_us_ = 0;  // the time that it was told last
};

void LiveHistory::Evict(int64_t now_us) {
    while (!batches_.empty() &&
           (bytes_ > limits_.bytes || batches_.front().to_us < now_us - limits_.span_us)) {
        for (const StandingItem& item : batches_.front().standing) {
            standing_[item.key] = item.json;
            if (item.over) standing_.erase(item.key);
        }
        bytes_ -= Weight(batches_.front());
        batches_.pop_front();
        ++first_;
    }
}

void LiveHistory::Push(FeedBatch batch) {
    const MutexLock lock(mutex_);
    now_us_ = batch.to_us;
    if (!batch.items.empty()) {
        bytes_ += Weight(batch);
        batches_.push_back(std::move(batch));
    }
    Evict(now_us_);
    pushed_.Broadcast();
}

std::unique_ptr<FeedSession> LiveHistory::Join() {
    return std::make_unique<Session>(*this);
}

void LiveHistory::Close() {
    const MutexLock lock(mutex_);
    closed_ = true;
    pushed_.Broadcast();
}

}  // namespace shdtool
