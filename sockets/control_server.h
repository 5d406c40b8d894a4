// Server of the control socket "shdctl": reads requests and queues them for the main thread, which
// answers the client directly.
#pragma once

#include <sys/select.h>

#include <array>
#include <cstdint>

#include "sockets/socket_server.h"

class SensorHub;

class ControlServer final : public SocketServer {
  public:
    using SocketServer::SocketServer;

    // Sets whose request queue receives the requests; borrowed. Before Start.
    void set_owner(SensorHub* owner) { owner_ = owner; }

    // Reads one request; blocks this server until all of its bytes have arrived.
    int OnData(int client) override;

    // Called by the main thread when a request has been executed and answered. The descriptor
    // number of a client that has gone stays reserved until then, so that a late reply never
    // reaches a client that came after it.
    void RequestDone(int client) EXCLUDES(requests_mutex_);

  protected:
    void ReleaseClient(int client) override;

  private:
    struct Requests {
        uint32_t open = 0;  // queued or running
        bool gone = false;  // the client has been dropped
    };

    void RequestQueued(int client) EXCLUDES(requests_mutex_);

    SensorHub* owner_ = nullptr;

    Mutex requests_mutex_;
    std::array<Requests, FD_SETSIZE> requests_ GUARDED_BY(requests_mutex_){};  // by descriptor
};
