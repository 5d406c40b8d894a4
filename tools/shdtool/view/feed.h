// What a browser is told, as JSON: the seam between the web server and what it shows. The server
// joins a feed for each browser; live hubs and recordings are the two kinds of it.
#pragma once

#include <memory>
#include <optional>
#include <string>

namespace shdtool {

// One browser's place in a feed. One thread, that of its connection.
class FeedSession {
  public:
    virtual ~FeedSession() = default;

    // What comes next: JSON objects, commas between. Waits at most a second for it, "" when there
    // is nothing for now. Empty once the feed is closed.
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
