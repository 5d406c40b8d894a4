// A plain connection to the page's server, as a browser has one. Used by the tests of the view
// command.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <stdexcept>
#include <string>

#include "platform/unique_fd.h"

// A connection to a server on this machine, to which a request has been sent.
class Talk {
  public:
    // receive_bytes: how much the kernel takes for this end at most; 0: as always.
    Talk(int port, const std::string& request, int receive_bytes = 0)
        : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (receive_bytes > 0) {
            setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &receive_bytes, sizeof(receive_bytes));
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            send(fd_.get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) {
            throw std::runtime_error("cannot talk to the server");
        }
    }

    // What has come, at least up to this text or the end; throws after a minute without either.
    std::string Until(const std::string& text) {
        const timeval limit{60, 0};
        setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        std::string got;
        std::array<char, 65536> buffer{};
        while (got.find(text) == std::string::npos) {
            const ssize_t count = recv(fd_.get(), buffer.data(), buffer.size(), 0);
            if (count == 0) break;
            if (count < 0) throw std::runtime_error("never came: " + text);
            got.append(buffer.data(), static_cast<size_t>(count));
        }
        return got;
    }
    std::string UntilEnd() { return Until("\x01 never sent"); }

  private:
    UniqueFd fd_;
};
