// Local sockets on a development machine: the reserved namespace is /dev/socket.
#include <cutils/sockets.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "platform/device_path.h"
#include "platform/log.h"
#include "platform/unique_fd.h"

namespace {

constexpr char kLogTag[] = "shd";

// Removes a socket that a process left behind when it was killed, but none that somebody listens
// on.
void RemoveAbandoned(const sockaddr_un& address, int type) {
    const UniqueFd probe(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    const bool answered = connect(probe.get(), generic, sizeof(address)) == 0;
    if (!answered && errno == ECONNREFUSED) unlink(address.sun_path);
}

}  // namespace

int socket_local_server(const char* name, int /*namespace_id*/, int type) {
    constexpr int kBacklog = 4;
    const std::string path = DevicePath(std::string("/dev/socket/") + name).c_str();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);

    UniqueFd fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    if (!fd.valid()) return -1;
    RemoveAbandoned(address, type);
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        if (errno == EADDRINUSE) LOGW("Another process listens on %s", path.c_str());
        return -1;
    }
    if (listen(fd.get(), kBacklog) != 0) return -1;
    return fd.Release();
}
