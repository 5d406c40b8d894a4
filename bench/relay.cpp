// The least that anybody could do in the daemon's place: the bare system calls, nothing decoded,
// nothing converted, no lock. The load generator runs it as the measure of the daemon.
//   relay data ROOT RECORDS READ_SIZE   at each end of a frame on ROOT/dev/ttyHSL1, RECORDS records
//                                       to every client of ROOT/dev/socket/shddata
//   relay echo ROOT                     for each request on ROOT/dev/socket/shdctl: the wake-up,
//   one
//                                       frame to the MCU, its answer, a log line, one reply
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "protocol/control.h"
#include "protocol/event.h"
#include "protocol/system.h"

namespace {

constexpr uint8_t kFlag = 0x7E;
constexpr size_t kMaxClients = 1000;
constexpr int kBacklog = 4;
constexpr int kSendBufferBytes = 1 << 20;  // as the daemon asks for

int Must(int result, const char* what) {
    if (result >= 0) return result;
    std::perror(what);
    std::exit(1);
}

int OpenLine(const std::string& root) {
    const int line =
        Must(open((root + shd::kUartPath).c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC), "line");
    termios settings{};
    tcgetattr(line, &settings);
    cfmakeraw(&settings);
    tcsetattr(line, TCSANOW, &settings);
    return line;
}

int Listen(const std::string& root, const char* name) {
    const int fd = Must(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = root + "/dev/socket/" + name;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    Must(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), path.c_str());
    Must(listen(fd, kBacklog), "listen");
    return fd;
}

std::array<int, kMaxClients> g_clients;
std::atomic<size_t> g_client_count{0};

void AcceptClients(int listener) {
    for (size_t count = 0; count < kMaxClients; g_client_count = ++count) {
        g_clients[count] = Must(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), "accept");
        setsockopt(g_clients[count], SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes,
                   sizeof(kSendBufferBytes));
    }
}

[[noreturn]] void RelayData(const std::string& root, int records, size_t read_size) {
    std::thread(AcceptClients, Listen(root, shd::kDataSocketName)).detach();
    const int line = OpenLine(root);
    std::vector<uint8_t> buffer(read_size);
    const shd::SensorEvent record{};
    while (true) {
        const ssize_t count = read(line, buffer.data(), buffer.size());
        for (ssize_t i = 0; i < count; ++i) {
            if (buffer[static_cast<size_t>(i)] != kFlag) continue;
            const size_t clients = g_client_count;
            for (int sent = 0; sent < records; ++sent) {
                for (size_t client = 0; client < clients; ++client) {
                    (void)send(g_clients[client], &record, sizeof(record),
                               MSG_DONTWAIT | MSG_NOSIGNAL);  // a loss shows at the client
                }
            }
        }
    }
}

[[noreturn]] void Echo(const std::string& root) {
    constexpr std::array<uint8_t, 7> kVersionRequest = {0x01, 0x00, 0x0F, 0x00, 0xAD, 0x63, kFlag};
    constexpr std::string_view kLogLine =
        "01-01 00:00:00.000 10000 10000 D shd     : ProcessMessage request of a client\n";
    const std::string sleep_path = root + shd::kMcuSleepPath;
    const int listener = Listen(root, shd::kControlSocketName);
    const int line = OpenLine(root);
    const int client = Must(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), "accept");
    shd::ClientRequest request{};
    const shd::ControlReply reply{};
    while (recv(client, &request, sizeof(request), MSG_WAITALL) > 0) {
        const int sleep =
            Must(open(sleep_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC), "sleep file");
        (void)!write(sleep, "0", 1);
        close(sleep);
        (void)!write(line, kVersionRequest.data(), kVersionRequest.size());
        for (uint8_t byte = 0; byte != kFlag;) (void)!read(line, &byte, 1);
        (void)!write(STDERR_FILENO, kLogLine.data(), kLogLine.size());
        (void)send(client, &reply, sizeof(reply), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    std::exit(0);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view mode = argc > 2 ? argv[1] : "";
    if (mode == "data" && argc == 5) {
        RelayData(argv[2], std::atoi(argv[3]), static_cast<size_t>(std::atoi(argv[4])));
    }
    if (mode == "echo" && argc == 3) Echo(argv[2]);
    std::fputs("usage: relay data ROOT RECORDS READ_SIZE | relay echo ROOT\n", stderr);
    return 2;
}
