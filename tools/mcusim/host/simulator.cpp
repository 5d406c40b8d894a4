// The event loop and the preparation of what it serves. Run by main.
#include "tools/mcusim/host/simulator.h"

#include <fmt/core.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <utility>

#include "protocol/system.h"
#include "tools/firmware/image.h"
#include "tools/firmware/payload.h"
#include "tools/mcusim/host/signal_file.h"
#include "tools/mcusim/host/tester_commands.h"
#include "tools/mcusim/host/text_file.h"
#include "tools/mcusim/host/trace.h"
#include "tools/wire/recording.h"

namespace mcusim {
namespace {

constexpr const char* kDefaultVersion = "SIM.900.0001";
constexpr size_t kFirmwareSizeBytes = 49'152;

// A host that answers a late byte answers late; up to this much is taken back, so that waking up
// late does not slow the line down.
constexpr TimePoint kMaxLateness = std::chrono::milliseconds(20);

TimePoint Monotonic() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

UniqueFd EndingSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, number);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return UniqueFd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

std::vector<uint8_t> Firmware(const std::string& version, uint64_t seed) {
    return firmware::BuildPayload(version, kFirmwareSizeBytes, static_cast<uint32_t>(seed));
}

// A path of the device as one below the tree's root.
std::string InTree(const char* device_path) {
    return device_path + 1;  // without the '/' in front
}

// Everything that has been written to a control file since the last time.
std::string Drain(int fd) {
    std::string text;
    std::array<char, 256> buffer;
    ssize_t count = 0;
    while ((count = read(fd, buffer.data(), buffer.size())) > 0) {
        text.append(buffer.data(), static_cast<size_t>(count));
    }
    return text;
}

}  // namespace

Simulator::Simulator(const SimulatorOptions& options)
    : tree_(options.root),
      state_directory_(tree_.Path("mcusim")),
      signals_(EndingSignals()),
      start_(Monotonic()) {
    prctl(PR_SET_TIMERSLACK, 1UL);
    if (options.keep) tree_.KeepState();
    if (options.script) script_.emplace(*options.script);
    PrepareFlash(options);
    MakeTree();
    start_ = Monotonic();
    if (options.replay) {
        StartPlayer(options);
    } else {
        StartMachine(options);
    }

    const std::string socket = kCommandSocket;
    std::filesystem::remove(tree_.Path(socket));  // of a simulator that was killed
    tree_.Adopt(socket);
    channel_ = std::make_unique<CommandChannel>(
        tree_.Path(socket), [this](const std::string& line) { return Answer(line); });
}

void Simulator::StartMachine(const SimulatorOptions& options) {
    machine_ = std::make_unique<Machine>(*flash_, options.machine);
    far_end_ = machine_.get();
    for (const auto& [sensor, path] : options.signals) {
        machine_->signals.Play(sensor->id, LoadSignal(path, *sensor));
    }
    if (options.trace) observers_.push_back(std::make_unique<Trace>(*options.trace));
    if (options.record) observers_.push_back(std::make_unique<Recorder>(*options.record));
    for (const auto& observer : observers_) machine_->AddObserver(*observer, TimePoint(0));
}

void Simulator::StartPlayer(const SimulatorOptions& options) {
    replay_ = *options.replay;
    player_ =
        std::make_unique<Player>(ParseRecording(ReadLines(replay_), replay_), options.replay_gap,
                                 [this](int line, const std::string& what) {
                                     fmt::print(stderr, "mcusim: {}{}: {}\n", replay_,
                                                line > 0 ? fmt::format(":{}", line) : "", what);
                                 });
    far_end_ = player_.get();
}

std::string Simulator::Answer(const std::string& line) {
    if (!player_) {
        CommandContext context{*machine_, Now(), quit_, state_directory_};
        machine_->Advance(context.now);
        return RunCommand(line, context);
    }
    if (line == "stats") return "ok " + player_->Stats();
    quit_ = line == "quit";
    if (line == "go") player_->Go();
    return quit_ || line == "go" ? "ok" : "error: a recording is played; it takes go, stats, quit";
}

void Simulator::PrepareFlash(const SimulatorOptions& options) {
    const std::string path = "mcusim/flash.bin";
    const bool fresh = !std::filesystem::exists(tree_.Path(path));
    tree_.Adopt(path);
    tree_.Adopt("mcusim/last_dump.bin");
    flash_.emplace(tree_.Path(path));
    const std::string version = options.firmware_version.value_or(kDefaultVersion);
    if (options.blank) {
        flash_->EraseAll();
    } else if (fresh || options.firmware_version) {
        flash_->EraseAll();
        flash_->Program(kFlashBase, Firmware(version, options.machine.seed));
    }

    const std::string in_flash = RunningVersion(*flash_).value_or(version);
    const std::string image = InTree(shd::kFirmwareImagePath);
    tree_.MakeDirectory(std::filesystem::path(image).parent_path());
    tree_.MakeFile(image, firmware::WrapImage(in_flash, Firmware(in_flash, options.machine.seed)));
}

void Simulator::MakeTree() {
    // What stands behind the last '/' is made here below, or by the daemon.
    for (const char* path :
         {"/dev/socket/", shd::kMcuSleepPath, shd::kMcuResetPath, "/data/property/",
          shd::kAccCalibrationPath, shd::kDumpDir, shd::kLogDataDir}) {
        tree_.MakeDirectory(std::filesystem::path(InTree(path)).parent_path());
    }
    files_.sleep = tree_.OpenFifo(InTree(shd::kMcuSleepPath));
    files_.lpm = tree_.OpenFifo(InTree(shd::kMcuLowPowerPath));
    files_.boot0 = tree_.OpenFifo(InTree(shd::kMcuBoot0Path));
    files_.boot1 = tree_.OpenFifo(InTree(shd::kMcuBoot1Path));
    files_.reset = tree_.OpenFifo(InTree(shd::kMcuResetPath));
    tree_.Link(InTree(shd::kUartPath), pty_.far_name());
}

TimePoint Simulator::Now() const {
    return Monotonic() - start_;
}

void Simulator::ServeControlFiles(TimePoint now) {
    // The reset line is read first: whatever the host put onto the boot pins before it is then
    // surely there.
    const std::string reset = Drain(files_.reset.get());
    const std::string boot0 = Drain(files_.boot0.get());
    Drain(files_.boot1.get());  // no mode that boot pin 1 would select is simulated
    Drain(files_.lpm.get());
    const size_t wakeups = Drain(files_.sleep.get()).size();
    if (machine_) machine_->CountWakeups(wakeups);

    for (const char level : boot0) {
        if (level == '0' || level == '1') far_end_->SetPin(now, Pin::kBoot0, level == '1');
    }
    for (const char level : reset) {
        if (level == '0' || level == '1') far_end_->SetPin(now, Pin::kReset, level == '1');
    }
}

void Simulator::ServeInput(TimePoint now) {
    while (far_end_->HasRoom()) {
        const std::vector<uint8_t> bytes = pty_.Read();
        if (bytes.empty()) return;
        far_end_->HostWrote(now - lateness_, bytes);
        lateness_ = TimePoint(0);
    }
}

void Simulator::ServeOutput(TimePoint now) {
    while (const std::optional<Burst> burst = far_end_->TakeOutput(now)) {
        pty_.Write(burst->bytes);
        lateness_ = std::min(Now() - burst->due, kMaxLateness);
    }
    far_end_->SetStalled(pty_.pending());
}

void Simulator::RunScript(TimePoint now) {
    const auto report = [](const std::string& where, const std::string& answer, bool ok) {
        fmt::print(ok ? stdout : stderr, "{}: {}{}\n", where, ok ? "" : "error: ", answer);
        std::fflush(stdout);
    };
    while (script_ && script_->NextDue().value_or(TimePoint::max()) <= now && !quit_) {
        CommandContext context{*machine_, *script_->NextDue(), quit_, state_directory_};
        machine_->Advance(context.now);
        script_->RunNext(context, report);
    }
}

std::optional<TimePoint> Simulator::NextDue() const {
    return Earlier(far_end_->NextDue(), script_ ? script_->NextDue() : std::nullopt);
}

void Simulator::Wait() {
    std::vector<pollfd> fds = {{signals_.get(), POLLIN, 0}, {pty_.fd(), 0, 0}};
    if (far_end_->HasRoom()) fds.back().events |= POLLIN;
    if (pty_.pending() > 0) fds.back().events |= POLLOUT;
    for (const UniqueFd* file :
         {&files_.sleep, &files_.lpm, &files_.boot0, &files_.boot1, &files_.reset}) {
        fds.push_back({file->get(), POLLIN, 0});
    }
    channel_->AddPollFds(fds);

    timespec timeout{};
    const std::optional<TimePoint> due = NextDue();
    if (due) {
        const TimePoint left = std::max(*due - Now(), TimePoint(0));
        timeout.tv_sec = static_cast<time_t>(left / std::chrono::seconds(1));
        timeout.tv_nsec = static_cast<long>((left % std::chrono::seconds(1)).count());
    }
    if (ppoll(fds.data(), fds.size(), due ? &timeout : nullptr, nullptr) < 0) return;
    if (fds.front().revents != 0) quit_ = true;
    channel_->Serve(fds);
}

bool Simulator::Run() {
    while (!quit_) {
        const TimePoint now = Now();
        RunScript(now);
        far_end_->Advance(now);
        ServeControlFiles(now);
        ServeInput(now);
        far_end_->Advance(now);
        ServeOutput(now);
        if (player_ && player_->complete() && !std::exchange(replay_told_, true)) {
            fmt::print("mcusim: played {}\n", replay_);
            std::fflush(stdout);
        }
        if (!quit_) Wait();
    }
    return !player_ || (player_->complete() && player_->differences() == 0);
}

}  // namespace mcusim
