// The bench around daemon and simulated MCU, and its clients; used by every integration test.
#include "tests/integration/hub.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tools/client/local_socket.h"
#include "tools/firmware/image.h"
#include "tools/firmware/payload.h"

using namespace shd;

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr std::chrono::seconds kPatience{60};
constexpr milliseconds kGlance{3};  // between two looks at what is awaited
constexpr size_t kLogTailBytes = 3000;

std::string ReadAll(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Removes the directory as soon as the returned descriptor is closed, by whatever ends this
// process. It is nobody's child, so that not even the end of the whole test run stops it.
UniqueFd Guard(const std::string& directory) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    const UniqueFd far(ends[0]);
    UniqueFd near(ends[1]);
    const std::string script = "exec 3<&0; setsid -f sh -c 'cat <&3; rm -rf -- \"$0\"' \"$0\"";
    Process shell({"sh", "-c", script, directory}, "/dev/null", far.get());
    Eventually("a guard watches the directory", [&] { return shell.Status().has_value(); });
    return near;
}

}  // namespace

void Eventually(std::string_view what, const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("never happened: " + std::string(what));
        }
        std::this_thread::sleep_for(kGlance);
    }
}

Process::Process(std::vector<std::string> command, const std::string& errors, int input,
                 int inherited) {
    const std::array prefix = {"/usr/bin/setpriv", "--pdeathsig", "KILL", "/usr/bin/env"};
    command.insert(command.begin(), prefix.begin(), prefix.end());
    std::vector<char*> arguments;
    for (std::string& argument : command) arguments.push_back(argument.data());
    arguments.push_back(nullptr);

    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (input >= 0) posix_spawn_file_actions_adddup2(&files, input, STDIN_FILENO);
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&files, STDERR_FILENO, errors.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0666);
    if (inherited >= 0) posix_spawn_file_actions_adddup2(&files, inherited, inherited);
    const int error =
        posix_spawn(&pid_, arguments[0], &files, &attributes, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) throw std::runtime_error("cannot start " + command.back());
}

Process::~Process() {
    kill(-pid_, SIGKILL);
    if (!status_) waitpid(pid_, nullptr, 0);
}

std::optional<int> Process::Status() {
    int status = 0;
    if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_) status_ = status;
    return status_;
}

Hub::Hub() {
    directory_ = testing::TempDir() + "shd-XXXXXX";
    if (mkdtemp(directory_.data()) == nullptr) throw std::runtime_error("no " + directory_);
    root_ = directory_ + "/root";
    guard_ = Guard(directory_);
}

Hub::~Hub() {
    StopDaemon();
    simulator_.reset();
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
}

std::string Hub::ReadFile(std::string_view device_path) const {
    return ReadAll(root_ + std::string(device_path));
}

void Hub::WriteFile(std::string_view device_path, std::string_view content) const {
    const std::string path = root_ + std::string(device_path);
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path + ".new", std::ios::binary) << content;
    fs::rename(path + ".new", path);
}

void Hub::InstallImage(const std::string& version, size_t size, bool runnable) const {
    std::vector<uint8_t> payload = firmware::BuildPayload(version, size, 7);
    if (!runnable) payload.back() ^= 1;
    const std::vector<uint8_t> image = firmware::WrapImage(version, payload);
    WriteFile("/system/bin/mcu.bin", std::string(image.begin(), image.end()));
}

void Hub::StartSimulator(const std::vector<std::string>& options) {
    std::vector<std::string> command = {MCUSIM_BINARY, "--root", root_};
    if (std::ranges::count(options, "--replay") == 0) {
        command.insert(command.end(), {"--trace", directory_ + "/trace"});
    }
    const std::array defaults = {"--baud", "0", "--boot-delay", "0", "--flash-time-scale", "0"};
    for (size_t i = 0; i < defaults.size(); i += 2) {
        if (std::ranges::count(options, defaults[i]) > 0) continue;
        command.insert(command.end(), {defaults[i], defaults[i + 1]});
    }
    command.insert(command.end(), options.begin(), options.end());
    const std::string errors = directory_ + "/mcusim.log";
    simulator_ = std::make_unique<Process>(command, errors);
    Eventually("mcusim serves", [&] {
        if (simulator_->Status()) throw std::runtime_error(ReadAll(errors));
        const auto fd = shdclient::ConnectLocal(shdclient::SocketPath(root_, "mcusim"));
        return fd.ok();
    });
}

void Hub::KillSimulator() {
    simulator_.reset();
    fs::remove(root_ + "/dev/ttyHSL1");  // the pty's number may soon be another test's
}

std::string Hub::Simulate(const std::string& command) const {
    const UniqueFd fd = Must(shdclient::ConnectLocal(shdclient::SocketPath(root_, "mcusim")));
    const std::string line = command + "\n";
    SendRaw(fd.get(), line.data(), line.size());
    std::string answer;
    std::array<char, 4096> buffer{};
    while (!answer.ends_with('\n') && Readable(fd.get(), kPatience)) {
        const ssize_t count = recv(fd.get(), buffer.data(), buffer.size(), 0);
        if (count <= 0) break;
        answer.append(buffer.data(), static_cast<size_t>(count));
    }
    if (!answer.starts_with("ok")) throw std::runtime_error("mcusim: " + command + ": " + answer);
    return answer.substr(std::min<size_t>(3, answer.size()));
}

std::vector<std::string> Hub::Requests() const {
    constexpr std::string_view kRequest = "host request ";
    std::vector<std::string> requests;
    std::ifstream trace(directory_ + "/trace");
    for (std::string line; std::getline(trace, line);) {
        const size_t found = line.find(kRequest);
        if (line.ends_with("---- app")) requests.clear();
        if (found != std::string::npos) requests.push_back(line.substr(found + kRequest.size()));
    }
    return requests;
}

void Hub::StartDaemon(const std::vector<std::string>& environment, int inherited) {
    log_.clear();
    log_seen_ = 0;
    std::vector<std::string> command = {"SHD_ROOT=" + root_};
    command.insert(command.end(), environment.begin(), environment.end());
    command.emplace_back(SHD_BINARY);
    daemon_ = std::make_unique<Process>(command, directory_ + "/shd.log", -1, inherited);
}

void Hub::StartUp(const std::vector<std::string>& simulator_options) {
    StartSimulator(simulator_options);
    StartDaemon();
    WaitForLog("Set parameter OK, start loop");
}

int Hub::DaemonExitStatus() {
    Eventually("the daemon exits", [this] { return daemon_->Status().has_value(); });
    const int status = *daemon_->Status();
    daemon_.reset();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void Hub::StopDaemon() {
    if (daemon_ != nullptr) {
        EXPECT_FALSE(daemon_->Status()) << "the daemon had ended before";
        kill(daemon_->pid(), SIGTERM);
        Eventually("the daemon ends", [this] { return daemon_->Status().has_value(); });
        daemon_.reset();
    }
    ReadLog();
    const std::string all = log_ + ReadAll(directory_ + "/mcusim.log");
    for (const char* report : {"WARNING: ThreadSanitizer", "ERROR: AddressSanitizer",
                               "ERROR: LeakSanitizer", "runtime error:"}) {
        const size_t found = all.find(report);
        if (found != std::string::npos) ADD_FAILURE() << all.substr(found, kLogTailBytes);
    }
    const bool failed = testing::Test::HasFailure() || std::uncaught_exceptions() > 0;
    const size_t tail = log_.size() - std::min(log_.size(), kLogTailBytes);
    if (failed) std::fputs(log_.c_str() + tail, stderr);
    log_.clear();
}

void Hub::ReadLog() {
    std::ifstream file(directory_ + "/shd.log", std::ios::binary);
    file.seekg(static_cast<std::streamoff>(log_.size()));
    log_.append(std::istreambuf_iterator<char>(file), {});
}

void Hub::WaitForLine(std::string_view text) {
    Eventually("\"" + std::string(text) + "\" is logged", [&] {
        const bool last = daemon_ == nullptr || daemon_->Status();
        ReadLog();
        const size_t found = log_.find(text, log_seen_);
        const size_t end = log_.find('\n', found);
        if (end != std::string::npos) {
            log_seen_ = end + 1;
            return true;
        }
        if (last) throw std::runtime_error("never logged: " + std::string(text));
        return false;
    });
}

int Hub::CountInLog(std::string_view text) {
    ReadLog();
    int count = 0;
    for (size_t at = 0; (at = log_.find(text, at)) != std::string::npos; ++at) ++count;
    return count;
}

EventTap::EventTap(const Hub& hub) : stream_(Must(shdclient::EventStream::Connect(hub.root()))) {
    Must(stream_.WaitUntilServed(kPatience));
    thread_ = std::jthread([this](const std::stop_token& stop) { Run(stop); });
}

EventTap::~EventTap() {
    thread_.request_stop();
    thread_.join();
}

void EventTap::Run(const std::stop_token& stop) {
    while (!stop.stop_requested()) {
        if (!Readable(stream_.fd(), milliseconds(20))) continue;
        std::vector<SensorEvent> events;
        const shdclient::Result<size_t> count = stream_.Read(events);
        const std::scoped_lock lock(mutex_);
        intact_ = count.ok() && stream_.assembler().discarded_bytes() == 0;
        if (!count.ok()) return;
        for (const SensorEvent& event : events) {
            int32_t flushed = 0;
            std::memcpy(&flushed, event.data + sizeof(flushed), sizeof(flushed));
            const bool is_flush = event.version == kFlushCompleteVersion;
            events_[is_flush ? kFlushOf + flushed : event.sensor].push_back(event);
        }
    }
}

std::vector<SensorEvent> EventTap::Of(int32_t handle) const {
    const std::scoped_lock lock(mutex_);
    const auto found = events_.find(handle);
    return found == events_.end() ? std::vector<SensorEvent>{} : found->second;
}

bool EventTap::intact() const {
    const std::scoped_lock lock(mutex_);
    return intact_;
}

UniqueFd ConnectRaw(const Hub& hub) {
    return Must(shdclient::ConnectLocal(shdclient::SocketPath(hub.root(), "shdctl")));
}

void SendRaw(int fd, const void* bytes, size_t size) {
    const ssize_t sent = send(fd, bytes, size, MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(size)) throw std::runtime_error("cannot send");
}

void SendRaw(int fd, const ClientRequest& request) {
    SendRaw(fd, &request, sizeof(request));
}

ControlReply ReceiveRaw(int fd) {
    ControlReply reply{};
    if (!Readable(fd, kPatience)) throw std::runtime_error("no reply");
    if (recv(fd, &reply, sizeof(reply), MSG_WAITALL) != sizeof(reply)) {
        throw std::runtime_error("the daemon closed the connection");
    }
    return reply;
}

bool Readable(int fd, milliseconds timeout) {
    pollfd entry{fd, POLLIN, 0};
    return poll(&entry, 1, static_cast<int>(timeout.count())) > 0;
}

ClientRequest Request(int32_t handle, int32_t command, std::initializer_list<uint8_t> args) {
    ClientRequest request{};
    request.handle = handle;
    request.command = command;
    std::ranges::copy(args, request.args);
    return request;
}
