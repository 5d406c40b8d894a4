// Which hub is meant when none is named. Called by the mains of the tools.
#include "tools/client/default_root.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstdlib>

#include "tools/client/local_socket.h"

namespace shdclient {
namespace {

// The hub of scripts/run, empty: none. A link that a killed run has left behind, whose simulator is
// gone, and one of another user's, count as none.
std::string FindDemoHub() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    const std::string link =
        std::string(runtime != nullptr && *runtime != '\0' ? runtime : "/tmp") + "/shd-demo-" +
        std::to_string(getuid());
    struct stat state {};
    if (lstat(link.c_str(), &state) != 0 || !S_ISLNK(state.st_mode) || state.st_uid != getuid()) {
        return "";
    }
    std::array<char, PATH_MAX> target{};
    const ssize_t length = readlink(link.c_str(), target.data(), target.size());
    if (length <= 0 || static_cast<size_t>(length) == target.size()) return "";
    const std::string root(target.data(), static_cast<size_t>(length));
    return ConnectLocal(SocketPath(root, "mcusim")).ok() ? root : "";
}

}  // namespace

std::string DefaultRoot() {
    if (const char* root = std::getenv("SHD_ROOT"); root != nullptr) return root;
    return access(SocketPath("", kDataSocket).c_str(), F_OK) == 0 ? "" : FindDemoHub();
}

bool IsDemoHub(const std::string& root) {
    return !root.empty() && FindDemoHub() == root;
}

}  // namespace shdclient
