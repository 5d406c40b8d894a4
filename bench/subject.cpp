// Starting, feeding and reading of the programs under load; used by the load generator.
#include "bench/subject.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <fmt/format.h>
#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>
#include <string_view>
#include <thread>

#include "protocol/control.h"
#include "protocol/event.h"
#include "protocol/system.h"
#include "tools/client/local_socket.h"
#include "tools/wire/frame.h"
#include "tools/wire/packet.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr milliseconds kPatience{20'000};
constexpr milliseconds kGlance{1};
constexpr milliseconds kSettle{300};  // nothing comes any more
constexpr uint8_t kAccelerometer = 16;
constexpr size_t kSampleBytes = 6;

void Await(std::string_view what, const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error(fmt::format("never happened: {}", what));
        }
        std::this_thread::sleep_for(kGlance);
    }
}

bool Readable(int fd, milliseconds timeout) {
    pollfd entry{fd, POLLIN, 0};
    return poll(&entry, 1, static_cast<int>(timeout.count())) > 0;
}

// A port of the loopback interface that is free now.
int FreePort() {
    const UniqueFd fd(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    Check(bind(fd.get(), generic, size) == 0 && getsockname(fd.get(), generic, &size) == 0, "port");
    return ntohs(address.sin_port);
}

UniqueFd ConnectPort(int port) {
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    const bool connected =
        connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    if (!connected) fd.Reset();
    return fd;
}

void Drain(int fd) {
    std::array<char, 65536> buffer;
    while (recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT) > 0) continue;
}

// The answer of an MCU that says yes to everything: status 0, or its version's text.
std::vector<uint8_t> AnswerTo(const wire::Request& request) {
    std::vector<uint8_t> data = {wire::kStatusOk};
    if (request.service == wire::kServiceVersion) {
        data.clear();
        wire::AppendText(data, "SIM.900.0001");
    }
    return wire::EncodeFrame(wire::BuildReply(request, data));
}

// A true heading of a compass: a sentence of NMEA 0183 that changes nothing in gpsd.
std::string Sentence(int number) {
    const std::string body = fmt::format("GPHDT,{:03}.{},T", number % 360, number % 10);
    uint8_t sum = 0;
    for (const char c : body) sum = static_cast<uint8_t>(sum ^ static_cast<uint8_t>(c));
    return fmt::format("${}*{:02X}\r\n", body, sum);
}

}  // namespace

int64_t NowNs() {
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

Subject::Subject(std::string name, std::string directory, Binaries binaries, int samples)
    : name_(std::move(name)),
      directory_(std::move(directory)),
      binaries_(std::move(binaries)),
      samples_(samples) {
    fs::create_directories(directory_ + "/dev/socket");
    BuildFrame(samples);
}

void Subject::BuildFrame(int samples) {
    std::minstd_rand random(1);
    if (name_ == "gpsd") {
        for (int i = 0; i < samples; ++i) {
            const std::string sentence = Sentence(static_cast<int>(random() % 3600));
            frame_.insert(frame_.end(), sentence.begin(), sentence.end());
        }
    } else {
        std::vector<uint8_t> bytes(static_cast<size_t>(samples) * kSampleBytes);
        for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random() & 0xFF);
        frame_ = wire::EncodeFrame(wire::BuildReport(kAccelerometer, bytes));
    }
    const bool records = name_ != "gpsd" && name_ != "ser2net";
    share_ = records ? static_cast<size_t>(samples) * sizeof(shd::SensorEvent) : frame_.size();
}

void Subject::MakeLine() {
    near_.Reset(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    Check(near_.valid() && grantpt(near_.get()) == 0 && unlockpt(near_.get()) == 0, "pty");
    std::array<char, 128> name{};
    Check(ptsname_r(near_.get(), name.data(), name.size()) == 0, "pty's name");
    far_name_ = name.data();
    chmod(far_name_.c_str(), 0666);  // gpsd gives up its rights
    far_.Reset(open(far_name_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios settings{};
    Check(tcgetattr(far_.get(), &settings) == 0, "pty's settings");
    cfmakeraw(&settings);
    cfsetspeed(&settings, B115200);
    Check(tcsetattr(far_.get(), TCSANOW, &settings) == 0, "pty's settings");
    fs::create_symlink(far_name_, directory_ + shd::kUartPath);
}

std::vector<std::string> Subject::Command(int samples) {
    if (name_ == "shd") return {"SHD_ROOT=" + directory_, binaries_.shd};
    if (name_.starts_with("relay")) {
        const char* size = name_ == "relay256" ? "256" : "1";
        return {binaries_.relay, "data", directory_, std::to_string(samples), size};
    }
    if (name_ == "ser2net") {
        const std::string file = directory_ + "/ser2net.yaml";
        std::ofstream(file) << fmt::format(
            "connection: &line\n"
            "  accepter: unix,{}/dev/socket/shddata\n"
            "  connector: serialdev,{},115200n81,local\n"
            "  options:\n"
            "    chardelay: false\n"
            "    max-connections: 1000\n",
            directory_, far_name_);
        return {"ser2net", "-n", "-d", "-u", "-c", file};
    }
    if (name_ != "gpsd") throw std::runtime_error("no such program: " + name_);
    port_ = FreePort();
    std::vector<std::string> command = {"gpsd",   "-N", "-n",  "-p", "-s",
                                        "115200", "-f", "8N1", "-S"};
    command.insert(command.end(), {std::to_string(port_), far_name_});
    if (geteuid() == 0) {
        // Otherwise it gives up its rights by itself, and with them its end with its parent.
        const std::array prefix = {"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups",
                                   "--pdeathsig=KILL"};
        command.insert(command.begin(), prefix.begin(), prefix.end());
    }
    return command;
}

void Subject::Start() {
    MakeLine();
    const int64_t start = NowNs();
    child_ = Child(Command(samples_), directory_ + "/log");
    if (name_ != "shd") return;
    AwaitDaemon();
    startup_ns_ = NowNs() - start;
}

void Subject::ConnectControl() {
    const std::string path = shdclient::SocketPath(directory_, shd::kControlSocketName);
    Await("the control socket", [&] {
        if (auto fd = shdclient::ConnectLocal(path); fd.ok()) control_ = std::move(*fd);
        return control_.valid();
    });
}

void Subject::AwaitDaemon() {
    ConnectControl();
    shd::ClientRequest request{};
    request.command = shd::SHB_SENSOR_DELAY;
    request.args[0] = 10;
    Check(send(control_.get(), &request, sizeof(request), MSG_NOSIGNAL) > 0, "request");
    AnswerRequests(control_.get());
    shd::ControlReply reply{};
    Check(recv(control_.get(), &reply, sizeof(reply), MSG_WAITALL) == sizeof(reply), "reply");
}

void Subject::AnswerRequests(int reply_fd) {
    wire::FrameReader reader;
    std::array<pollfd, 2> fds = {{{reply_fd, POLLIN, 0}, {near_.get(), POLLIN, 0}}};
    while (true) {
        const auto patience = static_cast<int>(kPatience.count());
        Check(poll(fds.data(), fds.size(), patience) > 0, "the daemon says nothing");
        if (fds[0].revents != 0) return;
        std::array<uint8_t, 512> buffer{};
        const ssize_t count = read(near_.get(), buffer.data(), buffer.size());
        for (ssize_t i = 0; i < count; ++i) {
            const auto packet = reader.Push(buffer[static_cast<size_t>(i)]);
            const auto request = packet ? wire::ParseRequest(*packet) : std::nullopt;
            if (!request) continue;
            const auto answer = AnswerTo(*request);
            Check(write(near_.get(), answer.data(), answer.size()) > 0, "answer");
        }
    }
}

void Subject::StartOnSimulator(int baud) {
    simulator_ = Child({binaries_.mcusim, "--root", directory_, "--baud", std::to_string(baud),
                        "--boot-delay", "0"},
                       directory_ + "/mcusim.log");
    const std::string serves = shdclient::SocketPath(directory_, "mcusim");
    Await("mcusim serves", [&] { return shdclient::ConnectLocal(serves).ok(); });
    const bool echo = name_ != "shd";
    child_ = Child(
        echo ? std::vector<std::string>{binaries_.relay, "echo", directory_} : Command(samples_),
        directory_ + "/log");
    ConnectControl();
    (void)Request();  // the first one waits for the start-up
}

int64_t Subject::Request() {
    shd::ClientRequest request{};
    request.command = shd::SHB_MCU_VERSION;
    shd::ControlReply reply{};
    const int64_t start = NowNs();
    Check(send(control_.get(), &request, sizeof(request), MSG_NOSIGNAL) > 0, "request");
    Check(recv(control_.get(), &reply, sizeof(reply), MSG_WAITALL) == sizeof(reply), "reply");
    return NowNs() - start;
}

UniqueFd Subject::ConnectData() const {
    const std::string path = shdclient::SocketPath(directory_, shd::kDataSocketName);
    UniqueFd fd;
    Await(name_ + " serves data", [&] {
        if (name_ == "gpsd") {
            fd = ConnectPort(port_);
        } else if (auto connected = shdclient::ConnectLocal(path); connected.ok()) {
            fd = std::move(*connected);
        }
        return fd.valid();
    });
    const timeval patience{.tv_sec = kPatience.count() / 1000, .tv_usec = 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    constexpr std::string_view kWatch = "?WATCH={\"enable\":true,\"nmea\":true};\n";
    if (name_ == "gpsd") Check(send(fd.get(), kWatch.data(), kWatch.size(), 0) > 0, "watch");
    return fd;
}

void Subject::SendFrame() {
    const auto size = static_cast<ssize_t>(frame_.size());
    Check(write(near_.get(), frame_.data(), frame_.size()) == size, "line");
}

void Subject::ConnectClients(int count) {
    while (std::ssize(clients_) < count) clients_.push_back(ConnectData());
    const auto drain = [this] {
        std::this_thread::sleep_for(kSettle);
        for (const UniqueFd& client : clients_) Drain(client.get());
    };
    drain();  // gpsd's greetings
    for (const UniqueFd& client : clients_) {
        Await(name_ + " serves every client", [&] {
            if (!Readable(client.get(), kGlance)) SendFrame();
            return Readable(client.get(), 10 * kGlance);
        });
    }
    drain();
}

int64_t Subject::Pass() {
    // The last client is served last; when it has all, the others need not be waited for.
    std::vector<char> buffer(share_);
    int64_t end = 0;
    const int64_t start = NowNs();
    SendFrame();
    for (auto client = clients_.rbegin(); client != clients_.rend(); ++client) {
        size_t left = share_;
        while (left > 0) {
            const ssize_t count = recv(client->get(), buffer.data(), left, MSG_WAITALL);
            Check(count > 0, name_ + " has lost something");
            left -= static_cast<size_t>(count);
        }
        if (end == 0) end = NowNs();
    }
    return end - start;
}
