// Delivery of sensor events to the clients of the data socket.
#include "sockets/data_server.h"

#include <sys/socket.h>

#include <array>

#include "protocol/system.h"
#include "sockets/socket_io.h"

namespace {

// One frame carries up to 374 samples, sent one by one within a moment. The system grants up to
// net.core.wmem_max.
constexpr int kSendBufferBytes = 1 << 20;

}  // namespace

DataServer::DataServer(int listen_fd) : SocketServer(shd::kDataSocketName, listen_fd) {}

void DataServer::PrepareClient(int client) {
    (void)setsockopt(client, SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof(kSendBufferBytes));
}

int DataServer::OnData(int client) {
    std::array<char, 1024> discarded;
    return ReadFull(client, discarded.data(), static_cast<int>(discarded.size()));
}

int DataServer::Broadcast(const void* data, size_t length) {
    const MutexLock lock(clients_mutex_);
    for (const int client : clients_) (void)SendAll(client, data, length);
    return 0;
}
