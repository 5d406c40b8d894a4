// Server of the data socket "shddata": clients only listen, and every record goes to all of them.
#pragma once

#include <cstddef>

#include "sockets/socket_server.h"

class DataServer final : public SocketServer {
  public:
    // Takes ownership of the listening socket, see SocketServer.
    explicit DataServer(int listen_fd);

    // Discards what the client sent, in units of 1,024 bytes, and so notices its end; blocks this
    // server until a unit is complete or the client has gone.
    int OnData(int client) override;

    // Sends the record to every client in the order of acceptance. Never blocks: a client whose
    // socket buffer is full misses the record, or its tail. Any thread. Returns 0.
    int Broadcast(const void* data, size_t length) EXCLUDES(clients_mutex_);

  protected:
    // Asks for a send buffer that holds all samples of the largest report.
    void PrepareClient(int client) override;
};
