// Receives control requests and knows which of their clients are still there to be answered.
#include "sockets/control_server.h"

#include <cstdlib>
#include <memory>

#include "core/hub/sensor_hub.h"
#include "platform/log.h"
#include "protocol/system.h"
#include "sockets/socket_io.h"

namespace {

constexpr char kLogTag[] = "shd";

}  // namespace

ControlServer::ControlServer(int listen_fd) : SocketServer(shd::kControlSocketName, listen_fd) {}

int ControlServer::OnData(int client) {
    std::unique_ptr<QueuedRequest, FreeDeleter> buffer(
        static_cast<QueuedRequest*>(std::malloc(sizeof(QueuedRequest))));
    if (buffer == nullptr) {
        LOGE("OnData alloc msg buff failure!");
        return -1;
    }
    if (ReadFull(client, &buffer->request, sizeof(buffer->request)) != 0) return -1;
    buffer->client = client;
    RequestQueued(client);
    return owner_->request_queue.EnqueueMessage(buffer.release());
}

int ControlServer::Reply(int client, const shd::ControlReply& reply) {
    const MutexLock lock(clients_mutex_);
    if (open_requests_[static_cast<size_t>(client)].orphaned > 0) return -1;
    return SendReply(client, reply);
}

void ControlServer::RequestQueued(int client) {
    const MutexLock lock(clients_mutex_);
    OpenRequests& open = open_requests_[static_cast<size_t>(client)];
    ++open.own;
    if (open.count() >= kMaxOpenRequests) open.held_back = true;
}

void ControlServer::RequestDone(int client) {
    {
        const MutexLock lock(clients_mutex_);
        OpenRequests& open = open_requests_[static_cast<size_t>(client)];
        --(open.orphaned > 0 ? open.orphaned : open.own);
        if (!open.held_back || open.count() > kMaxOpenRequests / 2) return;
        open.held_back = false;
    }
    Wake();
}

bool ControlServer::IsHeldBack(int client) const {
    return open_requests_[static_cast<size_t>(client)].held_back;
}

void ControlServer::ForgetClient(int client) {
    OpenRequests& open = open_requests_[static_cast<size_t>(client)];
    open = {open.count(), 0, open.held_back};
}
