// Connections to the daemon's local sockets and the names of files below its directory tree. Used
// by HubClient, EventStream and the tools.
#pragma once

#include <string>
#include <string_view>

#include "platform/unique_fd.h"
#include "protocol/system.h"
#include "tools/client/result.h"

namespace shdclient {

inline constexpr std::string_view kControlSocket = shd::kControlSocketName;
inline constexpr std::string_view kDataSocket = shd::kDataSocketName;

// A path of the device below root; with an empty root the path itself.
[[nodiscard]] std::string PathBelow(std::string_view root, std::string_view device_path);

// The path of a socket of the daemon: root/dev/socket/name.
[[nodiscard]] std::string SocketPath(std::string_view root, std::string_view name);

// Connects to a local stream socket; the descriptor is blocking and close-on-exec. Waits at most
// 2 s for a daemon whose backlog is full. Fails with kUnavailable (no socket, nobody listening, no
// permission), kTimeout, kInvalidArgument (path too long) or kSystem.
[[nodiscard]] Result<UniqueFd> ConnectLocal(const std::string& path);

}  // namespace shdclient
