// Sends requests to the hub beside an event loop that must not wait for the replies. Used by the
// watching commands that switch sensors on and by the audit's flushes.
#pragma once

#include <chrono>
#include <deque>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/mutex.h"
#include "tools/client/hub_client.h"
#include "tools/client/result.h"

namespace shdtool {

struct HubOutcome {
    shd::ClientRequest request;
    shdclient::Status status;
};

// Requests go out one after the other, in order, over one connection that is made when needed and
// again after it broke. Its user is one thread.
class HubWorker {
  public:
    // timeout: the limit of the wait for each reply.
    HubWorker(std::string root, std::chrono::milliseconds timeout);
    ~HubWorker();  // gives up a wait for a reply, within 50 ms
    HubWorker(const HubWorker&) = delete;
    HubWorker& operator=(const HubWorker&) = delete;

    void Post(const shd::ClientRequest& request);

    // The outcomes since the last call, in the order of the requests. Never waits.
    [[nodiscard]] std::vector<HubOutcome> TakeOutcomes();

    // True until the outcome of every request has been taken.
    [[nodiscard]] bool busy();

  private:
    void Run(const std::stop_token& stop);
    [[nodiscard]] shdclient::Result<shdclient::HubClient::Ticket> ConnectAndSend(
        const shd::ClientRequest& request);
    [[nodiscard]] shdclient::Status Execute(const shd::ClientRequest& request,
                                            const std::stop_token& stop);

    const std::string root_;
    const std::chrono::milliseconds timeout_;
    std::optional<shdclient::HubClient> hub_;  // the thread's

    Mutex mutex_;
    CondVar posted_;  // with mutex_: a request, or the end
    std::deque<shd::ClientRequest> requests_ GUARDED_BY(mutex_);
    std::vector<HubOutcome> outcomes_ GUARDED_BY(mutex_);
    size_t unfinished_ GUARDED_BY(mutex_) = 0;  // requests whose outcome has not been taken

    std::jthread thread_;  // last, so that it ends first
};

}  // namespace shdtool
