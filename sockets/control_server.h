// Server of the control socket "shdctl": reads requests, queues them for the main thread, and
// passes the replies on to clients that are still there.
#pragma once

#include <sys/select.h>

#include <array>
#include <cstdint>

#include "protocol/control.h"
#include "sockets/socket_server.h"

class SensorHub;

class ControlServer final : public SocketServer {
  public:
    // Takes ownership of the listening socket, see SocketServer.
    explicit ControlServer(int listen_fd);

    // Sets whose request queue receives the requests; borrowed. Before Start.
    void set_owner(SensorHub* owner) { owner_ = owner; }

    // Reads one request; blocks this server until all of its bytes have arrived.
    int OnData(int client) override EXCLUDES(clients_mutex_);

    // Sends the reply to the request that the main thread executes, whose client is the one given.
    // Never blocks. Returns 0, or -1 when the client has gone or the reply could not be sent whole.
    int Reply(int client, const shd::ControlReply& reply) EXCLUDES(clients_mutex_);

    // Called by the main thread when it has executed a client's request, answered or not. Lets the
    // server read again from a client that was held back.
    void RequestDone(int client) EXCLUDES(clients_mutex_);

  protected:
    [[nodiscard]] bool IsHeldBack(int client) const override REQUIRES(clients_mutex_);
    void ForgetClient(int client) override REQUIRES(clients_mutex_);

  private:
    // A client is not read from while this many requests of its number are queued, until half of
    // them are done. Those of clients that have gone count as well: they come before its own
    // anyway, and clients in quick succession must not fill the memory either.
    static constexpr uint32_t kMaxOpenRequests = 4096;

    // The requests that came from one descriptor's number and are queued or running. They are
    // executed in the order of arrival: first those of clients that have gone, which nobody may be
    // sent a reply to, then those of the client that has the number now.
    struct OpenRequests {
        uint32_t orphaned = 0;
        uint32_t own = 0;
        bool held_back = false;

        [[nodiscard]] uint32_t count() const { return orphaned + own; }
    };

    void RequestQueued(int client) EXCLUDES(clients_mutex_);

    SensorHub* owner_ = nullptr;

    std::array<OpenRequests, FD_SETSIZE> open_requests_ GUARDED_BY(clients_mutex_){};
};
