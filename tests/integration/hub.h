// A watch on the bench: the real daemon and the simulated MCU in a private directory tree. Every
// integration test builds one, drives it through its sockets, files and log, and leaves no process
// and no file behind when it ends, however it ends.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "protocol/control.h"
#include "protocol/event.h"
#include "tools/client/event_stream.h"
#include "tools/client/hub_client.h"

// Returns once the condition holds. Throws, naming what was awaited, when that takes far longer
// than on any machine.
void Eventually(std::string_view what, const std::function<bool()>& condition);

// The value of a result; throws the error's message when there is none.
template <typename T>
T Must(shdclient::Result<T> result) {
    if (!result) throw std::runtime_error(result.error().message);
    return std::move(*result);
}

// A child process in a group of its own, killed at destruction or when the test ends.
class Process {
  public:
    // command: VARIABLE=VALUE..., program, arguments. errors: the file for standard error.
    // inherited: a descriptor that the child keeps, or -1.
    Process(std::vector<std::string> command, const std::string& errors, int input = -1,
            int inherited = -1);
    ~Process();
    [[nodiscard]] pid_t pid() const { return pid_; }
    // The status of waitpid once the process has ended.
    [[nodiscard]] std::optional<int> Status();

  private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};

// Methods throw std::runtime_error when what they wait for does not come.
class Hub {
  public:
    Hub();
    ~Hub();

    [[nodiscard]] const std::string& root() const { return root_; }
    [[nodiscard]] std::string ReadFile(std::string_view device_path) const;  // "": none
    void WriteFile(std::string_view device_path, std::string_view content) const;
    // Puts an image in place that the daemon accepts; one that is not runnable leaves the MCU
    // silent.
    void InstallImage(const std::string& version, size_t size, bool runnable = true) const;

    // Starts mcusim with an unthrottled line, no boot delay and instant flash, but for what the
    // options say, and waits until it serves.
    void StartSimulator(const std::vector<std::string>& options = {});
    void KillSimulator();
    // Runs a command on its channel and returns what follows "ok".
    std::string Simulate(const std::string& command) const;
    [[nodiscard]] nlohmann::json Stats() const { return nlohmann::json::parse(Simulate("stats")); }
    // What the MCU has received since its last reset into the application, in mcusim's words.
    [[nodiscard]] std::vector<std::string> Requests() const;

    // Starts the daemon with a new log and does not wait for it.
    void StartDaemon(const std::vector<std::string>& environment = {}, int inherited = -1);
    // Simulator and daemon, up to the main loop.
    void StartUp(const std::vector<std::string>& simulator_options = {});
    // Waits for the daemon to end by itself; its exit status.
    int DaemonExitStatus();
    // Ends the daemon. Fails the test when it had ended before or a sanitizer has reported.
    void StopDaemon();
    [[nodiscard]] std::string ProcPath() const { return "/proc/" + std::to_string(daemon_->pid()); }

    // Waits for lines of the daemon's log that contain these texts, in this order and behind the
    // line of the last call.
    template <typename... Texts>
    void WaitForLog(const Texts&... texts) {
        (WaitForLine(texts), ...);
    }
    // How often the text stands in the whole log so far.
    [[nodiscard]] int CountInLog(std::string_view text);

    [[nodiscard]] shdclient::HubClient Client() const {
        return Must(shdclient::HubClient::Connect(root_));
    }

  private:
    void ReadLog();
    void WaitForLine(std::string_view text);

    std::string directory_;
    std::string root_;
    UniqueFd guard_;
    std::unique_ptr<Process> simulator_;
    std::unique_ptr<Process> daemon_;
    std::string log_;
    size_t log_seen_ = 0;
};

// A data client with a thread that reads all the time.
class EventTap {
  public:
    static constexpr int32_t kFlushOf = 1000;  // added to a handle: its flush-complete events

    explicit EventTap(const Hub& hub);
    ~EventTap();
    [[nodiscard]] std::vector<shd::SensorEvent> Of(int32_t handle) const;
    [[nodiscard]] int64_t Count(int32_t handle) const { return std::ssize(Of(handle)); }
    // False once the daemon has closed the connection or has sent anything but whole records.
    [[nodiscard]] bool intact() const;

  private:
    void Run(const std::stop_token& stop);

    shdclient::EventStream stream_;
    mutable std::mutex mutex_;
    std::map<int32_t, std::vector<shd::SensorEvent>> events_;
    bool intact_ = true;
    std::jthread thread_;
};

// A control connection on which any bytes can be sent, and its next whole reply.
UniqueFd ConnectRaw(const Hub& hub);
void SendRaw(int fd, const void* bytes, size_t size);
void SendRaw(int fd, const shd::ClientRequest& request);
shd::ControlReply ReceiveRaw(int fd);
// True when the descriptor becomes readable within the time.
bool Readable(int fd, std::chrono::milliseconds timeout);

shd::ClientRequest Request(int32_t handle, int32_t command,
                           std::initializer_list<uint8_t> args = {});
