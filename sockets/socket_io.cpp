// Record I/O on client sockets, used by both servers.
#include "sockets/socket_io.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

using namespace shd;

int ReadFull(int fd, void* buffer, int length) {
    auto* bytes = static_cast<uint8_t*>(buffer);
    while (length > 0) {
        const ssize_t count = recvfrom(fd, bytes, static_cast<size_t>(length), 0, nullptr, nullptr);
        if (count <= 0) return -1;
        bytes += count;
        length -= static_cast<int>(count);
    }
    return 0;
}

bool SendAll(int fd, const void* data, size_t length) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    while (length > 0) {
        const ssize_t count = send(fd, bytes, length, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        bytes += count;
        length -= static_cast<size_t>(count);
    }
    return true;
}

int SendReply(int client, const ControlReply& reply) {
    if (client < 0) return -1;
    return SendAll(client, &reply, sizeof(reply)) ? 0 : -1;
}
