// Recorded sessions of the line, played back to the real daemon, and the tap that records them in
// front of a real MCU.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "protocol/system.h"
#include "tests/integration/hub.h"
#include "tests/integration/tool.h"

using namespace shd;

namespace {

// What a client sees of one session.
struct Seen {
    std::vector<std::string> texts;
    std::map<int32_t, std::vector<std::array<float, 3>>> values;  // by handle
    int64_t flushes = 0;
    bool operator==(const Seen&) const = default;
};

Seen RunSession(const Hub& hub) {
    constexpr int32_t kEvents = 25;
    Seen seen;
    shdclient::HubClient client = hub.Client();
    seen.texts = {Must(client.Version(0)), Must(client.Information(kHandleGyroscope))};
    const EventTap tap(hub);
    for (const int32_t handle : {kHandleAccelerometer, kHandleGyroscope}) {
        Must(client.Batch(handle, 10, 10));
        Must(client.Activate(handle));
    }
    for (const int32_t handle : {kHandleAccelerometer, kHandleGyroscope}) {
        Eventually("events", [&] { return tap.Count(handle) >= kEvents; });
    }
    Must(client.Flush(kHandleAccelerometer));
    const int32_t flush = EventTap::kFlushOf + kHandleAccelerometer;
    Eventually("flush", [&] { return tap.Count(flush) > 0; });
    Must(client.Deactivate(kHandleAccelerometer));
    Must(client.Deactivate(kHandleGyroscope));
    seen.texts.push_back(Must(client.Information(kHandlePressure)));  // behind all events
    seen.flushes = tap.Count(flush);
    for (const int32_t handle : {kHandleAccelerometer, kHandleGyroscope}) {
        for (const SensorEvent& event : tap.Of(handle)) {
            std::array<float, 3> values{};
            std::memcpy(values.data(), event.data, sizeof(values));
            seen.values[handle].push_back(values);
        }
    }
    return seen;
}

// A file that goes with the test.
struct Recording {
    const std::string path =
        testing::TempDir() + "shd-replay." + std::to_string(getpid()) + ".line";
    ~Recording() { std::filesystem::remove(path); }
};

TEST(Replay, ARecordedSessionGivesTheSameEventsAndReplies) {
    const Recording recording;
    Seen seen;
    {
        Hub hub;
        hub.StartUp({"--record", recording.path});
        seen = RunSession(hub);
    }
    EXPECT_EQ(seen.flushes, 1);
    Hub hub;
    hub.StartUp({"--replay", recording.path});
    const Seen again = RunSession(hub);
    EXPECT_EQ(again.texts, seen.texts);
    EXPECT_EQ(again.values, seen.values);
    EXPECT_EQ(again.flushes, seen.flushes);
    Eventually("the recording's end", [&] { return hub.Stats().at("complete") == true; });
    EXPECT_EQ(hub.Stats().at("differences"), 0) << hub.Stats();
}

TEST(Replay, ARecordedUpdateAndARecoveryGoThroughAgain) {
    const Recording recording;
    {
        Hub hub;
        hub.StartUp({"--record", recording.path, "--blank"});
        hub.Simulate("crash");
        hub.WaitForLog("SensorMcuReboot sensor:27 not enable");
    }
    Hub hub;
    hub.StartUp({"--replay", recording.path});
    Eventually("the recording's end", [&] { return hub.Stats().at("complete") == true; });
    EXPECT_EQ(hub.Stats().at("differences"), 0) << hub.Stats();
    EXPECT_EQ(hub.CountInLog("mcu_update ok!"), 1);
    EXPECT_EQ(hub.CountInLog("SensorMcuReboot Handshake OK"), 1);
}

// A tap in the line of a hub whose daemon has not been started.
class Tap {
  public:
    Tap(const Hub& hub, const std::string& options)
        : hub_(hub),
          real_(Line()),
          process_(
              {"SHD_ROOT=" + hub.root(), SHDTOOL_BINARY, "tap", "--quiet", "--output", options},
              errors_) {
        Eventually("the tap", [this] { return Line() != real_; });
    }

    // The files are back in their places afterwards, and nothing is left beside them.
    void End(int signal) {
        kill(process_.pid(), signal);
        Eventually("the tap's end", [this] { return process_.Status().has_value(); });
        Eventually("the real line", [this] { return Line() == real_; });
        for (const char* pin : {kMcuBoot0Path, kMcuResetPath}) {
            Eventually(pin, [&] {
                return std::filesystem::is_fifo(hub_.root() + pin) &&
                       !std::filesystem::is_symlink(hub_.root() + pin);
            });
            EXPECT_FALSE(std::filesystem::exists(hub_.root() + pin + std::string(".untapped")));
        }
    }

    [[nodiscard]] std::string errors() const { return hub_.ReadFile("/../tap.err"); }

  private:
    [[nodiscard]] std::string Line() const {
        std::error_code error;
        return std::filesystem::read_symlink(hub_.root() + kUartPath, error);
    }

    const Hub& hub_;
    const std::string errors_ = hub_.root() + "/../tap.err";
    const std::string real_;
    Process process_;
};

TEST(Tap, ATappedSessionGivesTheSameEventsWhenItIsPlayed) {
    const Recording recording;
    Seen seen;
    {
        Hub hub;
        hub.StartSimulator();
        Tap tap(hub, recording.path);
        hub.StartDaemon();
        hub.WaitForLog("Set parameter OK, start loop");
        EXPECT_NE(RunTool(hub.root(), "tap").err.find("has it open"), std::string::npos);
        seen = RunSession(hub);
        tap.End(SIGTERM);
    }
    EXPECT_EQ(seen.flushes, 1);
    Hub hub;
    hub.StartUp({"--replay", recording.path});
    EXPECT_EQ(RunSession(hub), seen);
    Eventually("the recording's end", [&] { return hub.Stats().at("complete") == true; });
    EXPECT_EQ(hub.Stats().at("differences"), 0) << hub.Stats();
}

// The line's settings and the pins pass through; a killed tap leaves a line that the daemon's next
// recovery opens again.
TEST(Tap, AnUpdateAndARecoveryPassThrough) {
    const Recording recording;
    Hub hub;
    hub.StartSimulator({"--blank"});
    Tap tap(hub, recording.path);
    hub.StartDaemon();
    hub.WaitForLog("mcu_update ok!", "Set parameter OK, start loop");
    hub.Simulate("crash");
    hub.WaitForLog("SensorMcuReboot sensor:27 not enable");

    const std::string text = RunTool(hub.root(), "tap --from " + recording.path).out;
    size_t at = 0;
    for (const char* said :
         {"host request version 0", "---- line 115200 bit/s 8E1", "---- boot0 1", "---- reset 1",
          "host bootloader start (7F)", "mcu  bootloader ACK", "host bootloader extended erase",
          "host bootloader the whole flash", "host bootloader write memory",
          "host bootloader address 0x08000000", "host bootloader block of 256 bytes",
          "---- boot0 0", "---- line 115200 bit/s 8N1", "mcu  reply handshake", "mcu  core dump",
          "reset me", "mcu  reply handshake"}) {
        at = text.find(said, at);
        ASSERT_NE(at, std::string::npos) << said << " is missing in\n" << text;
    }
    EXPECT_EQ(text.find("damaged"), std::string::npos) << text;

    tap.End(SIGKILL);
    Eventually("word of it",
               [&] { return tap.errors().find("the tap was killed") != std::string::npos; });
    EXPECT_FALSE(hub.Client().Version(0));
    Eventually("service", [&] { return hub.Client().Version(0).ok(); });
    hub.WaitForLog("SensorMcuReboot Handshake OK");
}

}  // namespace
