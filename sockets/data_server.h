// Server of the data socket "shddata": clients only listen, and every record goes to all of them.
#pragma once

#include <cstddef>

#include "sockets/socket_server.h"

class DataServer final : public SocketServer {
  public:
    using SocketServer::SocketServer;

    // Discards what the client sent, in units of 1,024 bytes, and so notices its end; blocks this
    // server until a unit is complete or the client has gone.
    int OnData(int client) override;

    // Sends the record to every client in the order of acceptance. Never blocks: a client whose
    // socket buffer is full misses the record, or its tail. Any thread. Returns 0.
    int Broadcast(const void* data, size_t length) EXCLUDES(clients_mutex_);
};
