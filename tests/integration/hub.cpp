// The bench around daemon and simulated MCU, and its clients; used by every integration test.
#include "tests/integration/hub.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tools/client/local_socket.h"
#include "tools/mcusim/firmware_image.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr size_t kLogTailBytes = 3000;

void Pause() {
    std::this_thread::sleep_for(milliseconds(3));
}

std::string ReadAll(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool Readable(int fd, milliseconds timeout) {
    pollfd entry{fd, POLLIN, 0};
    return poll(&entry, 1, static_cast<int>(timeout.count())) > 0;
}

// Removes the directory as soon as the returned descriptor is closed, by whatever ends this
// process. It is nobody's child, so that not even the end of the whole test run stops it.
UniqueFd Guard(const std::string& directory) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    const UniqueFd far(ends[0]);
    UniqueFd near(ends[1]);
    const std::string script = "exec 3<&0; setsid -f sh -c 'cat <&3; rm -rf -- \"$0\"' \"$1\"";
    Process shell({.arguments = {"/bin/sh", "-c", script, "sh", directory}, .input = far.get()});
    if (shell.Wait(kPatience) != 0) throw std::runtime_error("no guard for " + directory);
    return near;
}

}  // namespace

void Eventually(std::string_view what, const std::function<bool()>& condition,
                std::chrono::seconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("never happened: " + std::string(what));
        }
        Pause();
    }
}

Hub::Hub() {
    std::string name = testing::TempDir() + "shd-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no directory " + name);
    directory_ = name;
    root_ = name + "/root";
    guard_ = Guard(name);
    fs::create_directory(root_);
}

Hub::~Hub() {
    StopDaemon();
    simulator_.reset();
    // A directory that a test has made read-only can still be emptied.
    std::error_code ignored;
    for (const auto& entry : fs::recursive_directory_iterator(directory_, ignored)) {
        if (entry.is_directory()) fs::permissions(entry, fs::perms::owner_all, ignored);
    }
    fs::remove_all(directory_, ignored);
}

std::string Hub::Path(std::string_view device_path) const {
    return root_ + std::string(device_path);
}

std::string Hub::ReadFile(std::string_view device_path) const {
    return ReadAll(Path(device_path));
}

void Hub::WriteFile(std::string_view device_path, std::string_view content) const {
    const std::string path = Path(device_path);
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path + ".new", std::ios::binary) << content;
    fs::rename(path + ".new", path);
}

void Hub::SetProperty(std::string_view name, std::string_view value) const {
    WriteFile("/data/property/" + std::string(name), value);
}

std::string Hub::Property(std::string_view name) const {
    return ReadFile("/data/property/" + std::string(name));
}

void Hub::InstallImage(const std::string& version, size_t size, bool runnable) const {
    std::vector<uint8_t> payload = mcusim::BuildFirmwarePayload(version, size, 7);
    if (!runnable) payload.back() ^= 1;
    const std::vector<uint8_t> image = mcusim::WrapImage(version, payload);
    WriteFile("/system/bin/mcu.bin", std::string(image.begin(), image.end()));
}

void Hub::StartSimulator(const std::vector<std::string>& options) {
    const std::string output = directory_ + "/mcusim.log";
    ProcessSpec spec{
        .arguments = {MCUSIM_BINARY, "--root", root_, "--trace", directory_ + "/trace"}};
    const std::array defaults = {"--baud", "0", "--boot-delay", "0", "--flash-time-scale", "0"};
    for (size_t i = 0; i < defaults.size(); i += 2) {
        if (std::ranges::count(options, defaults[i]) > 0) continue;
        spec.arguments.insert(spec.arguments.end(), {defaults[i], defaults[i + 1]});
    }
    spec.arguments.insert(spec.arguments.end(), options.begin(), options.end());
    spec.output = spec.errors = output;
    fs::remove(output);
    simulator_ = std::make_unique<Process>(spec);
    Eventually("mcusim is ready", [&] {
        if (simulator_->Wait(milliseconds(0))) throw std::runtime_error(ReadAll(output));
        return ReadAll(output).find("mcusim: ready") != std::string::npos;
    });
}

void Hub::KillSimulator() {
    simulator_.reset();
    // Its pty's number may soon be that of another test.
    fs::remove(Path("/dev/ttyHSL1"));
}

std::string Hub::Simulate(const std::string& command) const {
    const UniqueFd fd = Must(shdclient::ConnectLocal(shdclient::SocketPath(root_, "mcusim")));
    const std::string line = command + "\n";
    (void)send(fd.get(), line.data(), line.size(), MSG_NOSIGNAL);
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

nlohmann::json Hub::Stats() const {
    return nlohmann::json::parse(Simulate("stats"));
}

std::vector<std::string> Hub::Requests() const {
    std::vector<std::string> requests;
    std::ifstream trace(directory_ + "/trace");
    for (std::string line; std::getline(trace, line);) {
        constexpr std::string_view kRequest = "host request ";
        const size_t found = line.find(kRequest);
        if (line.ends_with("---- app")) requests.clear();
        if (found != std::string::npos) requests.push_back(line.substr(found + kRequest.size()));
    }
    return requests;
}

int64_t Hub::Stat(const std::string& sensor, const std::string& counter) const {
    return Stats().at("sensors").at(sensor).at(counter).get<int64_t>();
}

void Hub::StartDaemon(const std::vector<std::string>& environment, int inherited) {
    log_path_ = directory_ + "/shd." + std::to_string(++starts_) + ".log";
    log_.clear();
    log_seen_ = 0;
    ProcessSpec spec{.arguments = {SHD_BINARY},
                     .environment = {"SHD_ROOT=" + root_},
                     .errors = log_path_,
                     .inherited = inherited};
    spec.environment.insert(spec.environment.end(), environment.begin(), environment.end());
    daemon_ = std::make_unique<Process>(spec);
}

void Hub::StartUp(const std::vector<std::string>& simulator_options) {
    StartSimulator(simulator_options);
    StartDaemon();
    WaitForLog("Set parameter OK, start loop");
}

int Hub::DaemonExitStatus() {
    const std::optional<int> status = daemon_->Wait(kPatience);
    if (!status || !WIFEXITED(*status)) Fail("the daemon did not exit");
    daemon_.reset();
    ReadLog();
    return WEXITSTATUS(*status);
}

void Hub::StopDaemon() {
    if (daemon_ != nullptr) {
        daemon_->Signal(SIGTERM);
        const std::optional<int> status = daemon_->Wait(kPatience);
        EXPECT_TRUE(status && WIFSIGNALED(*status) && WTERMSIG(*status) == SIGTERM)
            << "the daemon had ended before; status " << status.value_or(-1);
        daemon_.reset();
    }
    ReadLog();
    const size_t tail = log_.size() - std::min(log_.size(), kLogTailBytes);
    for (const char* report : {"WARNING: ThreadSanitizer", "ERROR: AddressSanitizer",
                               "ERROR: LeakSanitizer", "runtime error:"}) {
        const size_t found = log_.find(report);
        EXPECT_EQ(found, std::string::npos) << log_.substr(std::min(found, tail));
    }
    if (testing::Test::HasFailure()) std::fputs(log_.substr(tail).c_str(), stderr);
}

size_t Hub::DaemonDescriptors() const {
    const fs::path directory = "/proc/" + std::to_string(daemon_pid()) + "/fd";
    return static_cast<size_t>(std::distance(fs::directory_iterator(directory), {}));
}

void Hub::ReadLog() {
    std::ifstream file(log_path_, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(log_.size()));
    log_.append(std::istreambuf_iterator<char>(file), {});
}

void Hub::Fail(const std::string& why) {
    ReadLog();
    throw std::runtime_error(why + "; waited for from here on:\n" + log_.substr(log_seen_));
}

void Hub::WaitForLine(std::string_view text) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    size_t end = std::string::npos;
    while (end == std::string::npos) {
        const bool last = std::chrono::steady_clock::now() > deadline || daemon_ == nullptr ||
                          daemon_->Wait(milliseconds(0));
        ReadLog();
        const size_t found = log_.find(text, log_seen_);
        if (found != std::string::npos) end = log_.find('\n', found);
        if (end != std::string::npos) break;
        if (last) Fail("not in the log: " + std::string(text));
        Pause();
    }
    log_seen_ = end + 1;
}

int Hub::CountInLog(std::string_view text) {
    ReadLog();
    int count = 0;
    for (size_t at = 0; (at = log_.find(text, at)) != std::string::npos; at += text.size()) ++count;
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
        events_.insert(events_.end(), events.begin(), events.end());
        intact_ = count.ok() && stream_.assembler().discarded_bytes() == 0;
        if (!count.ok()) return;
    }
}

std::vector<SensorEvent> EventTap::Of(int32_t handle) const {
    const std::scoped_lock lock(mutex_);
    std::vector<SensorEvent> found;
    std::ranges::copy_if(events_, std::back_inserter(found), [handle](const SensorEvent& event) {
        return event.version == kSampleEventVersion && event.sensor == handle;
    });
    return found;
}

int64_t EventTap::Count(int32_t handle) const {
    return std::ssize(Of(handle));
}

int64_t EventTap::FlushCompletes(int32_t handle) const {
    const std::scoped_lock lock(mutex_);
    return std::ranges::count_if(events_, [handle](const SensorEvent& event) {
        int32_t flushed = 0;
        std::memcpy(&flushed, event.data + sizeof(flushed), sizeof(flushed));
        return event.version == kFlushCompleteVersion && flushed == handle;
    });
}

int64_t EventTap::Steps() const {
    const std::vector<SensorEvent> events = Of(19);
    if (events.empty()) return -1;
    int64_t steps = 0;
    std::memcpy(&steps, events.back().data, sizeof(steps));
    return steps;
}

bool EventTap::intact() const {
    const std::scoped_lock lock(mutex_);
    return intact_;
}

RawClient::RawClient(const Hub& hub)
    : fd_(Must(shdclient::ConnectLocal(shdclient::SocketPath(hub.root(), "shdctl")))) {}

void RawClient::Send(const void* bytes, size_t size) const {
    if (send(fd_.get(), bytes, size, MSG_NOSIGNAL) != static_cast<ssize_t>(size)) {
        throw std::runtime_error("the daemon takes no request");
    }
}

ControlReply RawClient::Receive() const {
    ControlReply reply{};
    if (!Readable(fd_.get(), kPatience)) throw std::runtime_error("no reply");
    if (recv(fd_.get(), &reply, sizeof(reply), MSG_WAITALL) != sizeof(reply)) {
        throw std::runtime_error("the daemon closed the connection");
    }
    return reply;
}

bool RawClient::HasReply() const {
    return Readable(fd_.get(), milliseconds(0));
}

void RawClient::FinishSending() const {
    shutdown(fd_.get(), SHUT_WR);
    char byte = 0;
    while (Readable(fd_.get(), kPatience) && recv(fd_.get(), &byte, 1, 0) > 0) {
    }
}

ClientRequest Request(int32_t handle, int32_t command, std::initializer_list<uint8_t> args) {
    ClientRequest request{};
    request.handle = handle;
    request.command = command;
    std::ranges::copy(args, request.args);
    return request;
}
