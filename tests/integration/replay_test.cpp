// Recorded sessions of the line, played back to the real daemon.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/integration/hub.h"

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

}  // namespace
