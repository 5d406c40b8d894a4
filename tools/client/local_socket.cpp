// Connects to the daemon's local sockets and puts failures into words. Called by HubClient and
// EventStream.
#include "tools/client/local_socket.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace shdclient {
namespace {

constexpr timeval kConnectTimeout{.tv_sec = 2, .tv_usec = 0};

Error ConnectError(const std::string& path, int error) {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            return {ErrorCode::kUnavailable,
                    "no daemon: there is no socket " + path +
                        "; start shd, or name the directory tree that it runs in"};
        case ECONNREFUSED:
            return {ErrorCode::kUnavailable,
                    "no daemon: nobody listens on " + path + "; the shd that made it has ended"};
        case EACCES:
        case EPERM:
            return {ErrorCode::kUnavailable, "no permission for the socket " + path +
                                                 "; run as its owner or as a member of its group"};
        case EAGAIN:
            return {ErrorCode::kTimeout,
                    "the daemon behind " + path + " takes no new connection; is it stopped?"};
        default:
            return {ErrorCode::kSystem, "cannot connect to " + path + ": " + std::strerror(error)};
    }
}

}  // namespace

std::string PathBelow(std::string_view root, std::string_view device_path) {
    while (root.ends_with('/')) root.remove_suffix(1);
    return std::string(root) + std::string(device_path);
}

std::string SocketPath(std::string_view root, std::string_view name) {
    return PathBelow(root, "/dev/socket/") + std::string(name);
}

Result<UniqueFd> ConnectLocal(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        return Error{ErrorCode::kInvalidArgument,
                     "the socket path " + path + " is too long for a local socket (at most " +
                         std::to_string(sizeof(address.sun_path) - 1) + " characters)"};
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);

    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) return ConnectError(path, errno);
    (void)setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &kConnectTimeout, sizeof(kConnectTimeout));
    int result = -1;
    do {
        result = connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    } while (result != 0 && errno == EINTR);
    if (result != 0) return ConnectError(path, errno);
    return fd;
}

}  // namespace shdclient
