// Core dumps and raw-data logs, as files on the device.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>

#include "tests/integration/hub.h"

namespace {

// Of texts that were padded one by one: each group of four characters stands for itself.
std::string DecodeBase64(std::string_view text) {
    constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bytes;
    for (; text.size() >= 4; text.remove_prefix(4)) {
        size_t bits = 0;
        for (const char digit : text.substr(0, 4)) {
            bits = bits << 6 | (digit == '=' ? 0 : kAlphabet.find(digit));
        }
        const size_t count = text[2] == '=' ? 1 : text[3] == '=' ? 2 : 3;
        for (size_t i = 0; i < count; ++i) bytes += static_cast<char>(bits >> (16 - 8 * i) & 0xFF);
    }
    return bytes;
}

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
            const std::string directory = "/data/mcudumplog/";
            const std::string number = std::to_string(i);
            EXPECT_EQ(hub.ReadFile(directory + "mcudump_" + number), slots[i]);
            const std::string name = i == 0 ? "mcudumpbase64" : "mcudumpbase64." + number;
            EXPECT_EQ(DecodeBase64(hub.ReadFile(directory + name)), slots[i]);
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
