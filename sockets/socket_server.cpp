// The select loop that both local socket servers share; each runs it on a thread of its own.
#include "sockets/socket_server.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace {

// Held while a server accepts: the number that its spare leaves must not become a client of the
// other server.
Mutex g_accept_mutex;

int OpenSpare() {
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

}  // namespace

SocketServer::SocketServer(int listen_fd) : listen_fd_(listen_fd), spare_fd_(OpenSpare()) {
    // Accepting must not block with the lock held, whatever became of the connection meanwhile.
    if (listen_fd_.valid()) (void)fcntl(listen_fd, F_SETFL, O_NONBLOCK);
}

SocketServer::~SocketServer() {
    const MutexLock lock(clients_mutex_);
    for (const int client : clients_) close(client);
}

int SocketServer::Start() {
    // Without a socket from the system there is nothing to listen on: the IPv4 fallback has
    // neither address nor port, and this daemon never opens a network listener.
    if (!listen_fd_.valid() || listen_fd_.get() >= FD_SETSIZE) return -1;
    return pthread_create(&thread_, nullptr, Run, this) == 0 ? 0 : -1;
}

void* SocketServer::Run(void* server) {
    std::puts("Start server");
    while (true) static_cast<SocketServer*>(server)->ServeOnce();
}

void SocketServer::ServeOnce() {
    std::vector<int> poll_list;
    {
        const MutexLock lock(clients_mutex_);
        poll_list = clients_;
    }
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(listen_fd_.get(), &readable);
    int max_fd = listen_fd_.get();
    for (const int client : poll_list) {
        FD_SET(client, &readable);
        max_fd = std::max(max_fd, client);
    }

    const int ready = select(max_fd + 1, &readable, nullptr, nullptr, nullptr);
    std::printf("select event comming = %d max_fd =%d\n", ready, max_fd);
    if (ready <= 0) return;
    if (FD_ISSET(listen_fd_.get(), &readable)) AcceptClient();
    for (const int client : poll_list) {
        if (FD_ISSET(client, &readable) && OnData(client) < 0) DropClient(client);
    }
}

void SocketServer::AcceptClient() {
    UniqueFd client = TakeConnection();
    if (!client.valid() || client.get() >= FD_SETSIZE) return;  // select could not watch it
    const MutexLock lock(clients_mutex_);
    clients_.push_back(client.Release());
}

UniqueFd SocketServer::TakeConnection() {
    const MutexLock lock(g_accept_mutex);
    if (!spare_fd_.valid()) spare_fd_.Reset(OpenSpare());
    UniqueFd client(accept4(listen_fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client.valid() && (errno == EMFILE || errno == ENFILE)) RefuseConnection();
    return client;
}

// A connection that stays pending would make the listening socket readable for ever.
void SocketServer::RefuseConnection() {
    spare_fd_.Reset();
    UniqueFd refused(accept4(listen_fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    refused.Reset();  // its number is the one that the spare gets again
    spare_fd_.Reset(OpenSpare());
}

void SocketServer::DropClient(int client) {
    {
        const MutexLock lock(clients_mutex_);
        clients_.erase(std::find(clients_.begin(), clients_.end(), client));
    }
    ReleaseClient(client);
}

void SocketServer::ReleaseClient(int client) {
    close(client);
}
