// Recovery of an MCU that has stopped answering, under clients that stay connected.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "tests/integration/hub.h"

using namespace shd;

namespace {

std::vector<int64_t> StepCounts(const EventTap& tap) {
    std::vector<int64_t> counts;
    for (const SensorEvent& event : tap.Of(19)) {
        counts.push_back(0);
        std::memcpy(&counts.back(), event.data, sizeof(int64_t));
    }
    return counts;
}

// What the MCU is told after its reset.
std::vector<std::string> Restoration() {
    return {"handshake",
            "accelerometer set parameter 00 00 00 00 00 00",
            "pressure set parameter 00 00 00 00",
            "raw-25 set parameter 05 00 00 00",
            "gyroscope set parameter 00 00 00 00",
            "step-counter deactive",
            "step-counter batch every 100 ms, 0 to a report",
            "step-counter active",
            "wrist-tilt deactive",
            "wrist-tilt batch every 50 ms, 0 to a report",
            "wrist-tilt active",
            "motion-health deactive",
            "clock set",
            "motion-health health config 01 02 03 00 04 00",
            "motion-health batch every 100 ms, 2 to a report",
            "motion-health active"};
}

TEST(Recovery, BringsASilentMcuBackUnderItsClients) {
    const char* text = std::getenv("SHD_RECOVERIES");
    const int recoveries = text != nullptr ? std::atoi(text) : 2;
    Hub hub;
    hub.StartUp();
    const EventTap taps[] = {EventTap(hub), EventTap(hub)};
    shdclient::HubClient client = hub.Client();
    Must(client.SetHealth({1, 2, 3, 4}));
    Must(client.Batch(19, 100, 0));
    Must(client.Batch(26, 50, 0));
    Must(client.Batch(27, 100, 2));
    for (const int32_t handle : {18, 19, 26, 27, 0}) Must(client.Activate(handle));
    std::atomic<int> refused{0};
    std::jthread requester([&](const std::stop_token& stop) {
        shdclient::HubClient other = hub.Client();
        while (!stop.stop_requested()) {
            const auto reply = Must(other.Exchange(Request(6, SHB_SENSOR_BATCH, {100})));
            if (reply.form == shdclient::ReplyForm::kError) ++refused;
        }
    });

    for (int i = 0; i < recoveries; ++i) {
        SCOPED_TRACE(i);
        hub.Simulate("steps +100");
        Eventually("steps", [&] { return !StepCounts(taps[0]).empty(); });
        const int64_t before = StepCounts(taps[0]).back();
        const bool hangs_twice = i % 3 == 1;
        if (i % 3 == 2) hub.Simulate("delay 300");  // a request is under way
        hub.Simulate(hangs_twice ? "hang hard" : "hang");
        hub.WaitForLog("Wait timeout", "Wait timeout", "to many error, reboot mcu",
                       "SensorWakeLockAcquiredLocked :1");
        EXPECT_TRUE(i > 0 || hub.CountInLog("Wait timeout") == 2);
        Must(client.Activate(17));
        hub.WaitForLog("ReInit uart");
        if (hangs_twice) hub.WaitForLog("SensorMcuReboot Handshake timeout");
        if (hangs_twice) hub.Simulate("resume");
        hub.WaitForLog("SensorMcuReboot Handshake OK", "SensorMcuReboot Set parameter",
                       "SensorMcuReboot sensor:18 not enable", "SensorMcuReboot SensorActive:19",
                       "SensorMcuReboot SensorActive:26", "SensorMcuReboot SensorActive:27",
                       "SensorWakeLockAcquiredLocked :0");
        hub.Simulate("delay 0");
        const std::vector<std::string> requests = hub.Requests();
        const std::vector<std::string> expected = Restoration();
        for (size_t k = 0; k < expected.size(); ++k) {
            EXPECT_TRUE(requests.at(k).starts_with(expected[k])) << requests.at(k);
        }
        hub.Simulate("steps +7");
        hub.Simulate("tilt");
        for (const EventTap& tap : taps) {
            Eventually("the steps go on", [&] { return StepCounts(tap).back() >= before + 7; });
            Eventually("tilt", [&] { return tap.Count(26) == i + 1; });
            Eventually("motion health", [&] { return tap.Count(27) > i; });
        }
    }
    requester.request_stop();
    requester.join();
    EXPECT_GE(refused, recoveries);
    for (const EventTap& tap : taps) {
        const std::vector<int64_t> counts = StepCounts(tap);
        EXPECT_TRUE(std::ranges::is_sorted(counts)) << testing::PrintToString(counts);
        EXPECT_EQ(tap.Count(18), counts.back());  // one event of the step detector for each
        EXPECT_TRUE(tap.intact());
    }
    EXPECT_FALSE(hub.Stats().at("sensors").at("accelerometer").at("active"));
}

TEST(Recovery, CanBeDisabledByProperty) {
    Hub hub;
    hub.WriteFile("/data/property/persist.velmar.shd.mcureboot", "1");
    hub.StartUp();
    hub.Simulate("hang");
    shdclient::HubClient client = hub.Client();
    EXPECT_FALSE(client.Activate(0).ok());
    EXPECT_FALSE(client.Activate(0).ok());
    hub.WaitForLog("SendSensorMsgAndWait to many error, reboot mcu", "SensorMcuReboot disable");
    hub.Simulate("resume");
    Must(client.Activate(0));
    EXPECT_EQ(hub.CountInLog("ReInit uart"), 0);
}

}  // namespace
