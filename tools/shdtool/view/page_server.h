// The web server of the page, for this machine's browsers alone: the embedded files, the feed as
// server-sent events, and what the page asks for. Used by the view command.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "tools/client/result.h"
#include "tools/shdtool/view/feed.h"

namespace shdtool {

// Serves on threads of its own, which see no signals. It listens on 127.0.0.1, and everything it
// has lies below a random name that only its printed address tells; a request with another one, or
// that was meant for another host, is told nothing but 404.
class PageServer {
  public:
    // Carries out what a browser has posted, a JSON text, and returns the JSON answer. Called on a
    // thread of the server's, several at a time; the browser waits.
    using Act = std::function<std::string(const std::string& body)>;

    // port: 0: any free one. act: empty when the feed cannot be acted upon; posting is refused
    // then. The feed outlives the server. Fails with kSystem when the port cannot be had.
    [[nodiscard]] static shdclient::Result<std::unique_ptr<PageServer>> Start(int port, Feed& feed,
                                                                              Act act);
    ~PageServer();  // closes the feed and all connections
    PageServer(const PageServer&) = delete;
    PageServer& operator=(const PageServer&) = delete;

    // "http://127.0.0.1:PORT/TOKEN/".
    [[nodiscard]] const std::string& address() const;

  private:
    class Server;
    explicit PageServer(std::unique_ptr<Server> server);

    std::unique_ptr<Server> server_;
};

}  // namespace shdtool
