// Receives control requests and keeps the descriptors that replies still need.
#include "sockets/control_server.h"

#include <sys/socket.h>

#include <cstdlib>
#include <memory>

#include "core/hub/sensor_hub.h"
#include "platform/log.h"
#include "sockets/socket_io.h"

namespace {

constexpr char kLogTag[] = "shd";

}  // namespace

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

void ControlServer::RequestQueued(int client) {
    const MutexLock lock(requests_mutex_);
    ++requests_[static_cast<size_t>(client)].open;
}

void ControlServer::RequestDone(int client) {
    const MutexLock lock(requests_mutex_);
    Requests& requests = requests_[static_cast<size_t>(client)];
    if (--requests.open > 0 || !requests.gone) return;
    requests.gone = false;
    close(client);
}

void ControlServer::ReleaseClient(int client) {
    const MutexLock lock(requests_mutex_);
    Requests& requests = requests_[static_cast<size_t>(client)];
    if (requests.open == 0) {
        close(client);
        return;
    }
    requests.gone = true;
    shutdown(client, SHUT_RDWR);
}
