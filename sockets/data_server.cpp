// Delivery of sensor events to the clients of the data socket.
#include "sockets/data_server.h"

#include <array>

#include "sockets/socket_io.h"

int DataServer::OnData(int client) {
    std::array<char, 1024> discarded;
    return ReadFull(client, discarded.data(), static_cast<int>(discarded.size()));
}

int DataServer::Broadcast(const void* data, size_t length) {
    const MutexLock lock(clients_mutex_);
    for (const int client : clients_) (void)SendAll(client, data, length);
    return 0;
}
