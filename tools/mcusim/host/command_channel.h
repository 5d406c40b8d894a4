// The text command channel: lines in, one answer line each, on standard input and on a local
// socket. The simulator polls its descriptors and supplies the execution.
#pragma once

#include <poll.h>

#include <functional>
#include <list>
#include <string>
#include <vector>

#include "platform/unique_fd.h"

namespace mcusim {

class CommandChannel {
  public:
    static constexpr size_t kMaxClients = 16;
    static constexpr size_t kMaxLineBytes = 4096;

    using Executor = std::function<std::string(const std::string& line)>;

    // Listens on socket_path, which must not exist, and reads standard input until its end.
    // executor returns the answer to a command line without a newline. Throws std::runtime_error.
    CommandChannel(const std::string& socket_path, Executor executor);

    // Adds what it waits for.
    void AddPollFds(std::vector<pollfd>& fds) const;
    // Serves whatever is ready among them; others are ignored.
    void Serve(const std::vector<pollfd>& fds);

  private:
    struct Peer {
        UniqueFd owned;  // invalid for standard input
        int in;
        int out;
        std::string line;
        bool gone = false;
    };

    void Accept();
    void ReadFrom(Peer& peer);
    static void Answer(Peer& peer, std::string text);

    const Executor executor_;
    UniqueFd listener_;
    std::list<Peer> peers_;
};

}  // namespace mcusim
