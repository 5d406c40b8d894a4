// A development machine's way of giving one tree to one daemon: a lock on its root directory, which
// the kernel drops with the process.
#include "platform/sole_daemon.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

#include "platform/device_path.h"
#include "platform/log.h"
#include "platform/unique_fd.h"

namespace {

constexpr char kLogTag[] = "shd";

UniqueFd g_tree;  // main thread; locked as long as it is open

}  // namespace

bool ClaimHub() {
    const DevicePath root("/");
    g_tree.Reset(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (flock(g_tree.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) return true;
    LOGE("Another daemon serves %s", root.c_str());
    return false;
}
