// The thread that exchanges requests with the hub. Called by the watching commands.
#include "tools/shdtool/engine/hub_worker.h"

#include <fmt/format.h>

#include <utility>

#include "tools/client/reply.h"
#include "tools/shdtool/engine/stop_signals.h"

using namespace shd;

namespace shdtool {
namespace {

using shdclient::ErrorCode;
using shdclient::HubClient;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kStopLatency{50};

}  // namespace

HubWorker::HubWorker(std::string root, milliseconds timeout)
    : root_(std::move(root)), timeout_(timeout) {
    thread_ = ThreadWithoutSignals([this](const std::stop_token& stop) { Run(stop); });
}

HubWorker::~HubWorker() {
    thread_.request_stop();
    const MutexLock lock(mutex_);
    posted_.Signal();
}

void HubWorker::Post(const ClientRequest& request) {
    {
        const MutexLock lock(mutex_);
        requests_.push_back(request);
        ++unfinished_;
    }
    posted_.Signal();
}

std::vector<HubOutcome> HubWorker::TakeOutcomes() {
    const MutexLock lock(mutex_);
    unfinished_ -= outcomes_.size();
    return std::exchange(outcomes_, {});
}

bool HubWorker::busy() {
    const MutexLock lock(mutex_);
    return unfinished_ > 0;
}

void HubWorker::Run(const std::stop_token& stop) {
    for (;;) {
        ClientRequest request;
        {
            const MutexLock lock(mutex_);
            while (requests_.empty() && !stop.stop_requested()) posted_.Wait(mutex_);
            if (stop.stop_requested()) return;
            request = requests_.front();
            requests_.pop_front();
        }
        shdclient::Status status = Execute(request, stop);
        const MutexLock lock(mutex_);
        outcomes_.push_back({request, std::move(status)});
    }
}

shdclient::Result<HubClient::Ticket> HubWorker::ConnectAndSend(const ClientRequest& request) {
    if (!hub_) {
        auto hub = HubClient::Connect(root_);
        if (!hub) return hub.error();
        hub_ = std::move(*hub);
        hub_->set_timeout(kStopLatency);
    }
    return hub_->Send(request);
}

shdclient::Status HubWorker::Execute(const ClientRequest& request, const std::stop_token& stop) {
    const steady_clock::time_point deadline = steady_clock::now() + timeout_;
    const bool connected_before = hub_.has_value();
    shdclient::Result<HubClient::Ticket> ticket = ConnectAndSend(request);
    // The daemon of the earlier requests may have gone since; the one that follows it did not get
    // this request yet.
    if (!ticket && connected_before && ticket.error().code == ErrorCode::kDisconnected) {
        hub_.reset();
        ticket = ConnectAndSend(request);
    }
    if (!ticket) {
        hub_.reset();
        return ticket.error();
    }
    for (;;) {
        const auto reply = hub_->Receive(*ticket);
        if (reply) return shdclient::Outcome(request, *reply);
        const bool waiting = reply.error().code == ErrorCode::kTimeout;
        if (waiting && steady_clock::now() < deadline && !stop.stop_requested()) continue;
        hub_.reset();
        if (!waiting) return reply.error();
        return shdclient::Error{ErrorCode::kTimeout,
                                fmt::format("no reply to {} from the daemon within {:g} s",
                                            shdclient::CommandName(request.command),
                                            std::chrono::duration<double>(timeout_).count())};
    }
}

}  // namespace shdtool
