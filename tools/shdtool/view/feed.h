// What a browser is told, as JSON: the seam between the web server and what it shows. The server
// joins a feed for each browser; live hubs and recordings are the two kinds of it.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace shdtool {

// What a session hands over at once; beyond it the rest comes next.
inline constexpr size_t kMessageBytes = size_t{64} << 10;

// Adds JSON objects to others, commas between; either may be none.
inline void AppendItems(std::string& items, const std::string& more) {
    if (!items.empty() && !more.empty()) items += ',';
    items += more;
}

// One browser's place in a feed. One thread, that of its connection.
class FeedSession {
  public:
    virtual ~FeedSession() = default;

    // What comes next: JSON objects, commas between. Waits at most a second for it, "" when there
    // is nothing yet. Empty once the feed is closed.
    [[nodiscard]] virtual std::optional<std::string> Next() = 0;
};

class Feed {
  public:
    virtual ~Feed() = default;

    // From its beginning, or from as far back as it reaches. Any thread.
    [[nodiscard]] virtual std::unique_ptr<FeedSession> Join() = 0;

    // Ends all sessions, and their waits at once. Any thread.
    virtual void Close() = 0;
};

}  // namespace shdtool
