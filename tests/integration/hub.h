// A watch on the bench: the real daemon and the simulated MCU in a private directory tree. Every
// integration test builds one, drives it through its sockets, files and log, and leaves nothing
// behind when it ends, however it ends.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/control_protocol.h"
#include "events/sensor_event.h"
#include "tests/integration/process.h"
#include "tools/client/event_stream.h"
#include "tools/client/hub_client.h"

// How long a test waits for what must happen: far beyond any machine's slowness.
inline constexpr std::chrono::seconds kPatience{60};

// Returns once the condition holds. Throws, naming what was awaited, when it does not in time.
void Eventually(std::string_view what, const std::function<bool()>& condition,
                std::chrono::seconds patience = kPatience);

// The value of a result; throws the error's message when there is none.
template <typename T>
T Must(shdclient::Result<T> result) {
    if (!result) throw std::runtime_error(result.error().message);
    return std::move(*result);
}

// Methods throw std::runtime_error when what they wait for does not come: the test then fails with
// the reason and the end of the daemon's log.
class Hub {
  public:
    Hub();
    ~Hub();
    Hub(const Hub&) = delete;
    Hub& operator=(const Hub&) = delete;

    [[nodiscard]] const std::string& root() const { return root_; }
    [[nodiscard]] std::string Path(std::string_view device_path) const;
    [[nodiscard]] std::string ReadFile(std::string_view device_path) const;  // "": none
    void WriteFile(std::string_view device_path, std::string_view content) const;
    void SetProperty(std::string_view name, std::string_view value) const;
    [[nodiscard]] std::string Property(std::string_view name) const;
    // Puts an image of size payload bytes in place of /system/bin/mcu.bin; one that is not runnable
    // is accepted by the daemon, but leaves an MCU that stays silent.
    void InstallImage(const std::string& version, size_t size = 8192, bool runnable = true) const;

    // Starts mcusim with an unthrottled line, no boot delay and instant flash, but for what the
    // options say, and waits until it serves.
    void StartSimulator(const std::vector<std::string>& options = {});
    void KillSimulator();
    // Runs a command on its channel and returns what follows "ok".
    std::string Simulate(const std::string& command) const;
    [[nodiscard]] nlohmann::json Stats() const;
    // What the MCU has received since its last reset into the application, in mcusim's words.
    [[nodiscard]] std::vector<std::string> Requests() const;
    // A counter of one of the MCU's sensors.
    [[nodiscard]] int64_t Stat(const std::string& sensor, const std::string& counter) const;

    // Starts the daemon, with a log of its own, and does not wait for it.
    void StartDaemon(const std::vector<std::string>& environment = {}, int inherited = -1);
    // Simulator and daemon, up to the main loop.
    void StartUp(const std::vector<std::string>& simulator_options = {});
    // Waits for the daemon to end by itself; its exit status.
    int DaemonExitStatus();
    // Ends the daemon and fails the test when it had ended before or a sanitizer reported.
    void StopDaemon();
    [[nodiscard]] pid_t daemon_pid() const { return daemon_->pid(); }
    [[nodiscard]] size_t DaemonDescriptors() const;

    // Waits for lines of the daemon's log that contain these texts, in this order and behind the
    // line of the last call.
    template <typename... Texts>
    void WaitForLog(const Texts&... texts) {
        (WaitForLine(texts), ...);
    }
    // Lines of the whole log so far that contain the text.
    [[nodiscard]] int CountInLog(std::string_view text);

    [[nodiscard]] shdclient::HubClient Client() const {
        return Must(shdclient::HubClient::Connect(root_));
    }

  private:
    void ReadLog();
    void WaitForLine(std::string_view text);
    [[noreturn]] void Fail(const std::string& why);

    std::string directory_;
    std::string root_;
    UniqueFd guard_;  // its closing lets the guard remove the directory
    std::unique_ptr<Process> simulator_;
    std::unique_ptr<Process> daemon_;
    int starts_ = 0;
    std::string log_path_;
    std::string log_;
    size_t log_seen_ = 0;
};

// A data client with a thread that reads all the time.
class EventTap {
  public:
    explicit EventTap(const Hub& hub);
    ~EventTap();

    // The sensor's samples so far.
    [[nodiscard]] std::vector<SensorEvent> Of(int32_t handle) const;
    [[nodiscard]] int64_t Count(int32_t handle) const;
    [[nodiscard]] int64_t FlushCompletes(int32_t handle) const;
    // The last value of the step counter; -1: none yet.
    [[nodiscard]] int64_t Steps() const;
    // False once the daemon has closed the connection or has sent anything but whole records.
    [[nodiscard]] bool intact() const;

  private:
    void Run(const std::stop_token& stop);

    shdclient::EventStream stream_;
    mutable std::mutex mutex_;
    std::vector<SensorEvent> events_;
    bool intact_ = true;
    std::jthread thread_;
};

// A control client that sends any bytes and sees replies as they are.
class RawClient {
  public:
    explicit RawClient(const Hub& hub);
    void Send(const void* bytes, size_t size) const;
    void Send(const ClientRequest& request) const { Send(&request, sizeof(request)); }
    // The next whole reply.
    [[nodiscard]] ControlReply Receive() const;
    [[nodiscard]] bool HasReply() const;
    // Ends the sending side and waits until the daemon has dropped the client.
    void FinishSending() const;

  private:
    UniqueFd fd_;
};

// A request with the argument bytes given.
ClientRequest Request(int32_t handle, int32_t command, std::initializer_list<uint8_t> args = {});
