// The text command channel. Served by the simulator's event loop.
#include "tools/mcusim/host/command_channel.h"

#include <fmt/core.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace mcusim {
namespace {

constexpr int kBacklog = 8;

bool IsReady(const std::vector<pollfd>& fds, int fd) {
    return std::ranges::any_of(
        fds, [fd](const pollfd& entry) { return entry.fd == fd && entry.revents != 0; });
}

UniqueFd Listen(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        throw std::runtime_error(path + ": too long for a socket's name");
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid() ||
        bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(fd.get(), kBacklog) != 0) {
        throw std::runtime_error(fmt::format("{}: {}", path, std::strerror(errno)));
    }
    return fd;
}

}  // namespace

CommandChannel::CommandChannel(const std::string& socket_path, Executor executor)
    : executor_(std::move(executor)), listener_(Listen(socket_path)) {
    peers_.push_back({UniqueFd(), STDIN_FILENO, STDOUT_FILENO, "", false});
}

void CommandChannel::AddPollFds(std::vector<pollfd>& fds) const {
    fds.push_back({listener_.get(), POLLIN, 0});
    for (const Peer& peer : peers_) fds.push_back({peer.in, POLLIN, 0});
}

void CommandChannel::Serve(const std::vector<pollfd>& fds) {
    for (Peer& peer : peers_) {
        if (IsReady(fds, peer.in)) ReadFrom(peer);
    }
    peers_.remove_if([](const Peer& peer) { return peer.gone; });
    if (IsReady(fds, listener_.get())) Accept();
}

void CommandChannel::Accept() {
    UniqueFd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!fd.valid() || peers_.size() >= kMaxClients) return;
    const int number = fd.get();
    peers_.push_back({std::move(fd), number, number, "", false});
}

void CommandChannel::ReadFrom(Peer& peer) {
    std::array<char, 1024> buffer;
    const ssize_t count = read(peer.in, buffer.data(), buffer.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (count <= 0) {
        peer.gone = true;
        return;
    }
    peer.line.append(buffer.data(), static_cast<size_t>(count));
    size_t end = 0;
    while (!peer.gone && (end = peer.line.find('\n')) != std::string::npos) {
        std::string line = peer.line.substr(0, end);
        peer.line.erase(0, end + 1);
        if (line.ends_with('\r')) line.pop_back();
        if (!line.empty()) Answer(peer, executor_(line));
    }
    if (peer.line.size() > kMaxLineBytes) {
        Answer(peer, "error: line too long");
        peer.gone = true;
    }
}

void CommandChannel::Answer(Peer& peer, std::string text) {
    text += '\n';
    if (!peer.owned.valid()) {
        if (write(peer.out, text.data(), text.size()) < 0) peer.gone = true;
        return;
    }
    // A client that does not read its answers is dropped rather than waited for.
    const ssize_t sent = send(peer.out, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent != static_cast<ssize_t>(text.size())) peer.gone = true;
}

}  // namespace mcusim
