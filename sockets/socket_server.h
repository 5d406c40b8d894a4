// Base of the two local socket servers: one thread that accepts clients and hands the readable
// ones to OnData.
#pragma once

#include <pthread.h>

#include <vector>

#include "platform/mutex.h"
#include "platform/unique_fd.h"

class SocketServer {
  public:
    // Takes ownership of the listening socket; a negative descriptor means that there is none.
    explicit SocketServer(int listen_fd);
    SocketServer(const SocketServer&) = delete;
    SocketServer& operator=(const SocketServer&) = delete;

    // Closes the clients and the listening socket. Neither stops nor joins the thread: a server
    // lives as long as the process once it has been started.
    virtual ~SocketServer();

    // Reads from a readable client on the server's thread. A negative result drops the client.
    virtual int OnData(int client) = 0;

    // Starts the server's thread. Returns 0, or -1 without a thread when there is no socket to
    // listen on.
    [[nodiscard]] int Start();

    // One pass of the server's loop: blocks until a client or a connection is ready, and serves
    // all that are. Clients accepted in a pass are first read from in the next one.
    void ServeOnce();

  protected:
    // Ends a client that is no longer in the list. The base closes its descriptor.
    virtual void ReleaseClient(int client);

    // Clients in the order of acceptance. The server's thread alone adds and removes; a client is
    // closed only after it has left the list.
    Mutex clients_mutex_;
    std::vector<int> clients_ GUARDED_BY(clients_mutex_);

  private:
    static void* Run(void* server);
    void AcceptClient();
    UniqueFd TakeConnection();
    void RefuseConnection();
    void DropClient(int client);

    const UniqueFd listen_fd_;
    pthread_t thread_{};

    // Server thread: kept open so that one connection can still be taken, and closed at once,
    // when the process has run out of descriptors.
    UniqueFd spare_fd_;
};
