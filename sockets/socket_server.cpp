// The select loop that both local socket servers share; each runs it on a thread of its own.
#include "sockets/socket_server.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/delay.h"
#include "platform/log.h"

namespace {

constexpr char kLogTag[] = "shd";

// How long a connection waits that can be neither taken nor refused.
constexpr std::chrono::milliseconds kAcceptPause{100};

// Held while a server accepts: the number that its spare leaves must not become a client of the
// other server.
Mutex g_accept_mutex;

int OpenSpare() {
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool IsWatchable(const UniqueFd& fd) {
    return fd.valid() && fd.get() < FD_SETSIZE;
}

// Clients must leave numbers for the port, which a recovery opens anew, and for files.
bool IsForClients(const UniqueFd& fd) {
    constexpr rlim_t kKeptFree = 16;
    rlimit limit{};
    if (!IsWatchable(fd) || getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
    return static_cast<rlim_t>(fd.get()) + kKeptFree < limit.rlim_cur;
}

// Returns 0 or the error.
int Accept(const UniqueFd& listen_fd, UniqueFd* client) {
    client->Reset(accept4(listen_fd.get(), nullptr, nullptr, SOCK_CLOEXEC));
    return client->valid() ? 0 : errno;
}

}  // namespace

SocketServer::SocketServer(const char* name, int listen_fd)
    : name_(name),
      listen_fd_(listen_fd),
      wake_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      spare_fd_(OpenSpare()) {
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
    if (!listen_fd_.valid()) return -1;
    if (!IsWatchable(listen_fd_) || !IsWatchable(wake_fd_)) {
        LOGW("Server of %s cannot start: no descriptor below %d", name_, FD_SETSIZE);
        return -1;
    }
    const int error = pthread_create(&thread_, nullptr, Run, this);
    if (error != 0) LOGW("Server of %s cannot start: no thread: %s", name_, strerror(error));
    return error == 0 ? 0 : -1;
}

void* SocketServer::Run(void* server) {
    std::puts("Start server");
    while (true) static_cast<SocketServer*>(server)->ServeOnce();
}

void SocketServer::Wake() {
    (void)eventfd_write(wake_fd_.get(), 1);  // a counter that is full wakes the server as well
}

void SocketServer::ServeOnce() {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(listen_fd_.get(), &readable);
    FD_SET(wake_fd_.get(), &readable);
    int max_fd = listen_fd_.get();
    std::vector<int> poll_list;
    {
        const MutexLock lock(clients_mutex_);
        for (const int client : clients_) {
            max_fd = std::max(max_fd, client);
            if (IsHeldBack(client)) continue;
            FD_SET(client, &readable);
            poll_list.push_back(client);
        }
    }

    const int count = std::max(max_fd, wake_fd_.get()) + 1;
    const int ready = select(count, &readable, nullptr, nullptr, nullptr);
    std::printf("select event comming = %d max_fd =%d\n", ready, max_fd);
    if (ready <= 0) return;
    if (FD_ISSET(wake_fd_.get(), &readable)) {
        eventfd_t wakes = 0;
        (void)eventfd_read(wake_fd_.get(), &wakes);
    }
    if (FD_ISSET(listen_fd_.get(), &readable)) AcceptClient();
    for (const int client : poll_list) {
        if (FD_ISSET(client, &readable) && OnData(client) < 0) DropClient(client);
    }
}

void SocketServer::AcceptClient() {
    UniqueFd client;
    const int error = TakeConnection(&client);
    // The connection that still waits keeps the listening socket readable.
    if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
        Delay(kAcceptPause);
    }
    if (!IsForClients(client)) return;
    PrepareClient(client.get());
    const MutexLock lock(clients_mutex_);
    clients_.push_back(client.Release());
}

// Returns 0 or an error. Without a descriptor for the client the connection is refused by means of
// the spare; that fails when another thread takes the spare's number meanwhile.
int SocketServer::TakeConnection(UniqueFd* client) {
    const MutexLock lock(g_accept_mutex);
    if (!spare_fd_.valid()) spare_fd_.Reset(OpenSpare());
    int error = Accept(listen_fd_, client);
    if (error == EMFILE || error == ENFILE) {
        spare_fd_.Reset();
        error = Accept(listen_fd_, client);
        client->Reset();  // its number is the one that the spare gets again
        spare_fd_.Reset(OpenSpare());
    }
    return error;
}

void SocketServer::DropClient(int client) {
    const MutexLock lock(clients_mutex_);
    clients_.erase(std::find(clients_.begin(), clients_.end(), client));
    ForgetClient(client);
    close(client);
}
