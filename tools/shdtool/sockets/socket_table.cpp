// The kernel's table of local sockets and the processes that hold them. Called by the clients and
// status commands.
#include "tools/shdtool/sockets/socket_table.h"

#include <dirent.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <utility>

#include "platform/unique_fd.h"

namespace shdtool {
namespace {

using shdclient::Error;
using shdclient::ErrorCode;
using shdclient::Result;

// States of a socket as unix_diag reports them; the kernel borrows TCP's numbers.
constexpr uint8_t kEstablished = 1;
constexpr uint8_t kListening = 10;

struct KernelSocket {
    uint8_t state = 0;
    uint32_t inode = 0;
    uint32_t peer = 0;  // inode, 0: none
    std::string path;
    uint32_t file_inode = 0;
    uint32_t unread = 0;
    std::array<uint32_t, SK_MEMINFO_VARS> memory{};  // words of linux/sock_diag.h
};

Error SystemError() {
    return {ErrorCode::kSystem,
            std::string("the kernel's socket diagnostics do not answer: ") + std::strerror(errno)};
}

using Bytes = std::span<const uint8_t>;

// The record at the beginning of the bytes; what they lack stays 0.
template <typename Record>
Record Read(Bytes bytes) {
    Record record{};
    std::memcpy(&record, bytes.data(), std::min(bytes.size(), sizeof(record)));
    return record;
}

void Note(KernelSocket& socket, uint16_t type, Bytes value) {
    switch (type) {
        case UNIX_DIAG_NAME:
            socket.path.assign(value.begin(), std::find(value.begin(), value.end(), 0));
            break;
        case UNIX_DIAG_VFS:
            socket.file_inode = Read<unix_diag_vfs>(value).udiag_vfs_ino;
            break;
        case UNIX_DIAG_PEER:
            socket.peer = Read<uint32_t>(value);
            break;
        case UNIX_DIAG_RQLEN:
            socket.unread = Read<unix_diag_rqlen>(value).udiag_rqueue;
            break;
        case UNIX_DIAG_MEMINFO:
            socket.memory = Read<decltype(socket.memory)>(value);
            break;
        default:
            break;
    }
}

// Cuts the first message or attribute off the bytes: a header that begins with the length of both,
// the payload, and room up to a multiple of 4. Empty at the end, or at what cannot be one.
template <typename Header, typename Length>
std::optional<std::pair<Header, Bytes>> Next(Bytes& bytes, Length Header::*length) {
    const auto header = Read<Header>(bytes);
    const size_t size = header.*length;
    if (size < sizeof(Header) || size > bytes.size()) return std::nullopt;
    const Bytes payload = bytes.subspan(sizeof(Header), size - sizeof(Header));
    bytes = bytes.subspan(std::min<size_t>(NLMSG_ALIGN(size), bytes.size()));
    return std::pair(header, payload);
}

KernelSocket Decode(Bytes payload) {
    const auto message = Read<unix_diag_msg>(payload);
    KernelSocket socket;
    socket.state = message.udiag_state;
    socket.inode = message.udiag_ino;
    payload = payload.subspan(std::min(payload.size(), sizeof(message)));
    while (const auto attribute = Next(payload, &rtattr::rta_len)) {
        Note(socket, attribute->first.rta_type, attribute->second);
    }
    return socket;
}

bool SendQuestion(int fd) {
    struct {
        nlmsghdr header;
        unix_diag_req request;
    } message{};
    message.header.nlmsg_len = sizeof(message);
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message.request.sdiag_family = AF_UNIX;
    message.request.udiag_states = 1U << kEstablished | 1U << kListening;
    message.request.udiag_show =
        UDIAG_SHOW_NAME | UDIAG_SHOW_VFS | UDIAG_SHOW_PEER | UDIAG_SHOW_RQLEN | UDIAG_SHOW_MEMINFO;
    return send(fd, &message, sizeof(message), 0) == static_cast<ssize_t>(sizeof(message));
}

Result<std::vector<KernelSocket>> AskKernel() {
    const UniqueFd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    if (!fd.valid() || !SendQuestion(fd.get())) return SystemError();
    std::vector<KernelSocket> sockets;
    std::array<uint8_t, 32768> buffer{};
    while (true) {
        const ssize_t count = recv(fd.get(), buffer.data(), buffer.size(), 0);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return SystemError();
        Bytes left(buffer.data(), static_cast<size_t>(count));
        while (const auto message = Next(left, &nlmsghdr::nlmsg_len)) {
            const auto& [header, payload] = *message;
            if (header.nlmsg_type == NLMSG_DONE) return sockets;
            if (header.nlmsg_type == NLMSG_ERROR) {
                errno = -Read<nlmsgerr>(payload).error;
                return SystemError();
            }
            sockets.push_back(Decode(payload));
        }
    }
}

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;

struct Process {
    int32_t pid;
    std::string name;
};

std::string ProcessName(const std::string& directory) {
    std::ifstream file(directory + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

// The owners of all sockets that may be looked at, by inode; of several processes the lowest.
std::map<uint32_t, Process> ReadOwners() {
    constexpr std::string_view kPrefix = "socket:[";
    std::map<uint32_t, Process> owners;
    const Directory processes(opendir("/proc"), closedir);
    while (const dirent* entry = processes ? readdir(processes.get()) : nullptr) {
        int32_t pid = 0;
        const std::string number = entry->d_name;
        std::from_chars(number.data(), number.data() + number.size(), pid);
        if (pid <= 0) continue;
        const std::string directory = "/proc/" + number;
        const Directory files(opendir((directory + "/fd").c_str()), closedir);
        while (const dirent* file = files ? readdir(files.get()) : nullptr) {
            std::array<char, 64> target{};
            const ssize_t size =
                readlinkat(dirfd(files.get()), file->d_name, target.data(), target.size() - 1);
            const std::string_view link(target.data(), size > 0 ? static_cast<size_t>(size) : 0);
            uint32_t inode = 0;
            if (!link.starts_with(kPrefix)) continue;
            std::from_chars(link.data() + kPrefix.size(), link.data() + link.size(), inode);
            const auto owner = owners.find(inode);
            if (owner == owners.end() || owner->second.pid > pid) {
                owners[inode] = {pid, ProcessName(directory)};
            }
        }
    }
    return owners;
}

// Bound to this path, however the daemon spelled it.
bool IsAt(const KernelSocket& socket, const std::string& path) {
    if (socket.path == path) return true;
    const auto file_name = [](std::string_view name) { return name.substr(name.rfind('/') + 1); };
    struct stat status {};
    return file_name(socket.path) == file_name(path) && stat(path.c_str(), &status) == 0 &&
           static_cast<uint32_t>(status.st_ino) == socket.file_inode;
}

}  // namespace

Result<std::vector<SocketUse>> ReadSocketUse(const std::vector<std::string>& paths) {
    const Result<std::vector<KernelSocket>> sockets = AskKernel();
    if (!sockets) return sockets.error();
    const std::map<uint32_t, Process> owners = ReadOwners();
    const auto owner_of = [&owners](uint32_t inode) {
        const auto owner = owners.find(inode);
        return owner == owners.end() ? Process{0, ""} : owner->second;
    };
    std::map<uint32_t, const KernelSocket*> by_inode;
    for (const KernelSocket& socket : *sockets) by_inode[socket.inode] = &socket;

    std::vector<SocketUse> uses;
    for (const std::string& path : paths) {
        SocketUse& use = uses.emplace_back();
        for (const KernelSocket& socket : *sockets) {
            if (!IsAt(socket, path)) continue;
            if (socket.state == kListening) {
                use.served = true;
                use.server_pid = owner_of(socket.inode).pid;
                continue;
            }
            // The daemon's end of a connection; what it sends waits in the client's.
            const auto peer = by_inode.find(socket.peer);
            const Process owner = owner_of(socket.peer);
            use.clients.push_back({owner.pid, owner.name,
                                   peer == by_inode.end() ? 0 : peer->second->unread, socket.unread,
                                   socket.memory[SK_MEMINFO_WMEM_ALLOC],
                                   socket.memory[SK_MEMINFO_SNDBUF]});
        }
        std::sort(use.clients.begin(), use.clients.end(),
                  [](const SocketClient& a, const SocketClient& b) { return a.pid < b.pid; });
    }
    return uses;
}

}  // namespace shdtool
