// The data connection: non-blocking reads into the record assembler. Called by the event watcher
// and by tools that wait for one event.
#include "tools/client/event_stream.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

#include "tools/client/local_socket.h"

using namespace shd;

namespace shdclient {
namespace {

constexpr size_t kReadBytes = size_t{16} * 1024;
constexpr int kReadsPerCall = 4;
constexpr size_t kDiscardedBlockBytes = 1024;

}  // namespace

Result<EventStream> EventStream::Connect(std::string_view root) {
    std::string path = SocketPath(root, kDataSocket);
    Result<UniqueFd> fd = ConnectLocal(path);
    if (!fd) return fd.error();
    const int flags = fcntl(fd->get(), F_GETFL);
    if (flags < 0 || fcntl(fd->get(), F_SETFL, flags | O_NONBLOCK) != 0) {
        return Error{ErrorCode::kSystem, "cannot make " + path + " non-blocking"};
    }
    return EventStream(std::move(*fd), std::move(path));
}

Error EventStream::Disconnected() const {
    return {ErrorCode::kDisconnected,
            "the daemon closed the connection " + name_ + "; it may have ended or been restarted"};
}

Result<size_t> EventStream::Read(std::vector<SensorEvent>& events) {
    std::array<uint8_t, kReadBytes> buffer;
    const size_t before = events.size();
    bool closed = false;
    for (int i = 0; i < kReadsPerCall; ++i) {
        const ssize_t count = recv(fd_.get(), buffer.data(), buffer.size(), 0);
        if (count < 0 && errno == EINTR) continue;
        closed = count == 0 || (count < 0 && errno != EAGAIN);
        if (count <= 0) break;
        assembler_.Append(std::span(buffer).first(static_cast<size_t>(count)));
        for (SensorEvent event; assembler_.Next(event);) events.push_back(event);
        if (static_cast<size_t>(count) < buffer.size()) break;
    }
    if (closed && events.size() == before) return Disconnected();
    return events.size() - before;
}

size_t EventStream::Backlog() const {
    int unread = 0;
    return ioctl(fd_.get(), SIOCINQ, &unread) == 0 && unread > 0 ? static_cast<size_t>(unread) : 0;
}

Status EventStream::WaitUntilServed(std::chrono::milliseconds timeout) {
    constexpr int kStepMs = 1;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    const std::array<uint8_t, kDiscardedBlockBytes> block{};
    if (send(fd_.get(), block.data(), block.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(block.size())) {
        return Disconnected();
    }
    for (;;) {
        int unread = 0;
        if (ioctl(fd_.get(), SIOCOUTQ, &unread) != 0 || unread == 0) return Success();
        if (std::chrono::steady_clock::now() >= deadline) {
            return Error{ErrorCode::kTimeout, "the daemon does not serve " + name_};
        }
        (void)poll(nullptr, 0, kStepMs);
    }
}

}  // namespace shdclient
