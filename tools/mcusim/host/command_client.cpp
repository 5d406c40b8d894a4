// The other end of the command socket. Called by main for --send.
#include "tools/mcusim/host/command_client.h"

#include <fmt/core.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "platform/unique_fd.h"

namespace mcusim {

std::string SendCommand(const std::string& socket_path, const std::string& command) {
    if (command.find_first_not_of(" \t\r") == std::string::npos ||
        command.find('\n') != std::string::npos) {
        throw std::runtime_error("a command is one line that is not empty");
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof(address.sun_path)) {
        throw std::runtime_error(socket_path + ": too long for a socket's name");
    }
    std::memcpy(address.sun_path, socket_path.c_str(), socket_path.size() + 1);
    const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid() ||
        connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        throw std::runtime_error(
            fmt::format("{}: no simulator listens here: {}", socket_path, std::strerror(errno)));
    }

    const std::string line = command + "\n";
    (void)send(fd.get(), line.data(), line.size(), MSG_NOSIGNAL);  // a failure shows below
    std::string answer;
    std::array<char, 4096> buffer;
    while (!answer.ends_with('\n')) {
        const ssize_t count = recv(fd.get(), buffer.data(), buffer.size(), 0);
        if (count <= 0) throw std::runtime_error(socket_path + ": the simulator did not answer");
        answer.append(buffer.data(), static_cast<size_t>(count));
    }
    answer.pop_back();
    return answer;
}

}  // namespace mcusim
