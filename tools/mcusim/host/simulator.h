// The simulator as a process: the machine, the device tree around it and the one event loop that
// moves bytes between them. main() makes one and runs it.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/unique_fd.h"
#include "tools/mcusim/application/sensor_traits.h"
#include "tools/mcusim/board/flash.h"
#include "tools/mcusim/board/machine.h"
#include "tools/mcusim/board/observer.h"
#include "tools/mcusim/host/command_channel.h"
#include "tools/mcusim/host/device_tree.h"
#include "tools/mcusim/host/player.h"
#include "tools/mcusim/host/pty.h"
#include "tools/mcusim/host/script.h"

namespace mcusim {

// Where commands are taken, below the root.
inline constexpr const char* kCommandSocket = "dev/socket/mcusim";

struct SimulatorOptions {
    std::string root;
    std::optional<std::string> firmware_version;  // nothing: the one in flash, else the default
    bool blank = false;
    bool keep = false;
    std::optional<std::string> script;
    std::optional<std::string> trace;  // a file's name, "-" for standard error
    std::optional<std::string> record;
    std::optional<std::string> replay;  // a recording's name; only root, versions and seed count
    TimePoint replay_gap = std::chrono::milliseconds(100);
    std::vector<std::pair<const SensorTraits*, std::string>> signals;  // sensor, file's name
    MachineOptions machine;
};

class Simulator {
  public:
    // Makes the tree and switches the machine on; throws when something is in the way.
    explicit Simulator(const SimulatorOptions& options);

    // Serves until quit, SIGINT, SIGTERM or SIGHUP. False when the host did otherwise than in the
    // recording that was played.
    [[nodiscard]] bool Run();

  private:
    struct ControlFiles {
        UniqueFd sleep, lpm, boot0, boot1, reset;
    };

    void MakeTree();
    void PrepareFlash(const SimulatorOptions& options);
    void StartMachine(const SimulatorOptions& options);
    void StartPlayer(const SimulatorOptions& options);
    [[nodiscard]] std::string Answer(const std::string& line);
    [[nodiscard]] TimePoint Now() const;
    void ServeControlFiles(TimePoint now);
    void ServeInput(TimePoint now);
    void ServeOutput(TimePoint now);
    void RunScript(TimePoint now);
    [[nodiscard]] std::optional<TimePoint> NextDue() const;
    void Wait();

    DeviceTree tree_;
    const std::string state_directory_;
    UniqueFd signals_;
    Pty pty_;
    std::optional<Flash> flash_;
    std::vector<std::unique_ptr<Observer>> observers_;
    ControlFiles files_;
    TimePoint start_;
    std::unique_ptr<Machine> machine_;  // or, to play a recording,
    std::unique_ptr<Player> player_;
    FarEnd* far_end_ = nullptr;  // the one there is
    std::string replay_;
    bool replay_told_ = false;  // that everything has been played
    std::unique_ptr<CommandChannel> channel_;
    std::optional<Script> script_;
    TimePoint lateness_{0};  // by which the last bytes reached the host after they were due
    bool quit_ = false;
};

}  // namespace mcusim
