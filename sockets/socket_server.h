// Base of the two local socket servers: one thread that accepts clients and hands the readable
// ones to OnData.
#pragma once

#include <pthread.h>

#include <vector>

#include "platform/mutex.h"
#include "platform/unique_fd.h"

class SocketServer {
  public:
    // Takes ownership of the listening socket; a negative descriptor means that there is none. The
    // name is borrowed for the server's life.
    SocketServer(const char* name, int listen_fd);
    SocketServer(const SocketServer&) = delete;
    SocketServer& operator=(const SocketServer&) = delete;

    // Closes the clients and the listening socket. Neither stops nor joins the thread: a server
    // lives as long as the process once it has been started.
    virtual ~SocketServer();

    // Reads from a readable client on the server's thread. A negative result drops the client.
    virtual int OnData(int client) = 0;

    // Starts the server's thread. Returns 0, or -1 without a thread: silently when there is no
    // socket to listen on, else with one warning that says why.
    [[nodiscard]] int Start();

    // One pass of the server's loop: blocks until a client or a connection is ready, or Wake is
    // called, and serves all that are ready. Clients accepted in a pass are first read from in the
    // next one.
    void ServeOnce();

  protected:
    // Called with each new client before it gets anything.
    virtual void PrepareClient(int /*client*/) {}

    // Whether a client is left unread. Wake ends the wait of a server for clients that are
    // no longer held back.
    [[nodiscard]] virtual bool IsHeldBack(int /*client*/) const REQUIRES(clients_mutex_) {
        return false;
    }

    // Called when a client has left the list, just before its descriptor is closed.
    virtual void ForgetClient(int /*client*/) REQUIRES(clients_mutex_) {}

    // Ends the wait of ServeOnce, or the next one. Never blocks. Any thread.
    void Wake();

    // Clients in the order of acceptance. The server's thread alone adds, removes and closes.
    mutable Mutex clients_mutex_;
    std::vector<int> clients_ GUARDED_BY(clients_mutex_);

  private:
    static void* Run(void* server);
    void AcceptClient();
    [[nodiscard]] int TakeConnection(UniqueFd* client);
    void DropClient(int client) EXCLUDES(clients_mutex_);

    const char* const name_;
    const UniqueFd listen_fd_;
    const UniqueFd wake_fd_;  // an event counter, readable from Wake until the server has woken up
    pthread_t thread_{};

    // Server thread: kept open so that one connection can still be taken, and closed at once,
    // when the process has run out of descriptors.
    UniqueFd spare_fd_;
};
