// Who is connected to a local socket of the daemon, as the kernel knows it, without connecting to
// it. Used by the clients and status commands.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/client/result.h"

namespace shdtool {

struct SocketClient {
    int32_t pid = 0;          // 0: not known, another user's process
    std::string name;         // of the process, empty when it is not known
    int64_t unread = 0;       // bytes that the daemon has sent and the client has not read
    int64_t unserved = 0;     // bytes that the client has sent and the daemon has not read
    int64_t buffer_used = 0;  // bytes of memory that the unread ones take, with their headers
    int64_t buffer_size = 0;  // beyond this the daemon's next record is lost to this client

    [[nodiscard]] bool losing() const { return buffer_size > 0 && buffer_used >= buffer_size; }
    // 0 to 100 and beyond.
    [[nodiscard]] int64_t fill_percent() const {
        return buffer_size > 0 ? buffer_used * 100 / buffer_size : 0;
    }
};

struct SocketUse {
    bool served = false;                // somebody listens on it
    int32_t server_pid = 0;             // 0: not known
    std::vector<SocketClient> clients;  // in order of their process ids
};

// The use of each path, in the order of the paths. Asks the kernel's socket diagnostics
// (NETLINK_SOCK_DIAG), which every user may, and looks through /proc for the owners, which needs
// the same user or root. Never blocks. Fails with kSystem where the kernel has no such diagnostics.
[[nodiscard]] shdclient::Result<std::vector<SocketUse>> ReadSocketUse(
    const std::vector<std::string>& paths);

}  // namespace shdtool
