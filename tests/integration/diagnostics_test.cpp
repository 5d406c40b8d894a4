// Core dumps and raw-data logs, as files on the device.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>

#include "tests/integration/hub.h"
#include "tests/integration/tool.h"

namespace {

TEST(Diagnostics, CoreDumpsSurviveTheCrash) {
    Hub hub;
    hub.StartUp();
    const EventTap tap(hub);
    shdclient::HubClient client = hub.Client();
    Must(client.Activate(0));
    Must(client.Activate(19));
    std::array<std::string, 6> slots;
    const auto expect_slots = [&] {
        for (size_t i = 0; i < slots.size(); ++i) {
            EXPECT_EQ(hub.ReadFile("/data/mcudumplog/mcudump_" + std::to_string(i)), slots[i]);
        }
        const nlohmann::json list = RunTool(hub.root(), "dump list --json").json();
        for (const auto& slot : list.at("slots")) {
            EXPECT_TRUE(slot.at("intact")) << slot;  // its base64 text says the same
        }
    };
    hub.Simulate("crash 5");
    hub.WaitForLog("dump count:5 dump index:1 reboot", "dump count:5 dump index:5 reboot",
                   "SensorMcuReboot Handshake OK", "SensorMcuReboot SensorActive:19",
                   "SensorWakeLockAcquiredLocked :0");
    slots[0] = hub.ReadFile("/mcusim/last_dump.bin");
    EXPECT_GT(slots[0].size(), 1000U);
    expect_slots();
    const int64_t before = tap.Count(19);
    hub.Simulate("steps +3");
    Eventually("steps", [&] { return tap.Count(19) > before; });
    Must(client.Activate(0));

    for (int crash = 2; crash <= 7; ++crash) {
        hub.Simulate("crash 3 noreboot");
        std::string& slot = slots[static_cast<size_t>(crash - 1) % slots.size()];
        slot = hub.ReadFile("/mcusim/last_dump.bin");
        hub.Simulate("reset");
        hub.Simulate("log crash " + std::to_string(crash) + " over");
        hub.WaitForLog("crash " + std::to_string(crash) + " over");
    }
    expect_slots();
    EXPECT_EQ(hub.CountInLog("ReInit uart"), 1);
    EXPECT_TRUE(tap.intact());
}

TEST(Diagnostics, RawDataIsLoggedAndFilesInTheWayHarmNothing) {
    Hub hub;
    hub.StartUp();
    shdclient::HubClient client = hub.Client();
    const auto contains = [&hub](const char* file, const char* text) {
        return hub.ReadFile(file).find(text) != std::string::npos;
    };
    const char* const alg = "/data/logdata/sensor/alg.txt";
    const char* const hrm = "/data/logdata/sensor/hrm.txt";
    Must(client.SetRawData(3));
    Must(client.Activate(19));
    Must(client.Activate(21));
    hub.Simulate("steps +5");
    Eventually("step data", [&] { return contains(alg, "steps ") && contains(alg, "\n1 "); });
    Eventually("heart-rate data", [&] {
        return contains(hrm, "bpm ") && contains(hrm, "\n1 ") && contains(hrm, "\n5 ");
    });
    Must(client.Deactivate(21));
    EXPECT_TRUE(contains(hrm, "heartrate end time:"));

    for (const char* file : {alg, hrm}) {
        std::filesystem::remove(hub.root() + file);
        std::filesystem::create_directory(hub.root() + file);
    }
    std::filesystem::remove_all(hub.root() + "/data/mcudumplog");
    (void)client.Activate(21);
    hub.WaitForLog("McuRawDataSaveFileFlag open file:");
    hub.WaitForLog("open file /logdata/hrm.txt failure");
    hub.WaitForLog("open file /logdata/alg.txt failure");
    hub.Simulate("crash 2");
    hub.WaitForLog("access MCU_DATA_DIR err:No such file or directory!",
                   "dump count:2 dump index:2 reboot", "SensorWakeLockAcquiredLocked :0");
    Must(client.Activate(0));
    EXPECT_FALSE(std::filesystem::exists(hub.root() + "/data/mcudumplog"));
}

}  // namespace
