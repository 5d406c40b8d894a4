// Firmware updates: at start-up, after failures, and as the last resort of both handshake loops.
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/integration/hub.h"

namespace {

constexpr const char kVersionProperty[] = "/data/property/persist.mcu.version";
constexpr int kErase = -1;  // in place of a block

// From the last line waited for, the end of an update, to the main loop or the end of a recovery.
void ExpectHandshakeAtTheFirstTry(Hub& hub, const char* end) {
    const int timeouts = hub.CountInLog("Handshake timeout");
    hub.WaitForLog("Handshake OK", end);
    EXPECT_EQ(hub.CountInLog("Handshake timeout"), timeouts);
    const EventTap tap(hub);
    Must(hub.Client().Activate(0));
    Eventually("events", [&tap] { return tap.Count(0) > 0; });
}

TEST(Update, ReplacesADifferentFirmware) {
    Hub hub;
    hub.StartSimulator();
    hub.InstallImage("SIM.900.0002", 5000);
    hub.StartDaemon();
    hub.WaitForLog("board current mcu version: SIM.900.0001,target mcu version: SIM.900.0002",
                   "next go to update mcu.", "mcu_update enter!", "mcu_init enter!",
                   "set_update_gpio, set mcu to update mode!", "send 7F cmd to handshake",
                   "read 7F cmd response buf = 79.", "mcu_init_cmd ok!",
                   "extended_erase_cmd enter!", "write extended erase cmd ok!",
                   "file_size = 5224, mcu image_size = 5000, begin write mcu memory!",
                   "write last mcu memory!", "mcu_end(set gpio to normal mode) ok!",
                   "mcu_update ok!");
    ExpectHandshakeAtTheFirstTry(hub, "start loop");
    EXPECT_EQ(hub.ReadFile(kVersionProperty), "SIM.900.0002");
    EXPECT_EQ(Must(hub.Client().Version(0)), "SIM.900.0002");
}

TEST(Update, SucceedsUnderAnApplicationThatNeverStopsTalking) {
    const char* text = std::getenv("SHD_UPDATES");
    const int updates = text != nullptr ? std::atoi(text) : 3;
    Hub hub;
    hub.WriteFile("/chatter", "every 1ms log y\n");  // a "y" is the bootloader's acknowledgement
    hub.StartSimulator({"--baud", "115200", "--script", hub.root() + "/chatter"});
    for (int i = 0; i < updates; ++i) {
        SCOPED_TRACE(i);
        hub.InstallImage("SIM.900.000" + std::to_string(2 + i % 2), 1100);
        hub.StartDaemon();
        hub.WaitForLog("mcu_update enter!", "mcu_update ok!");
        hub.StopDaemon();
    }
}

// Cuts the power while each of these blocks is written, or during the erase, then lets an update
// succeed. What is on the line says how far the update is, and not the daemon's log, which is ahead
// of it.
void CutThePower(std::initializer_list<int> blocks) {
    constexpr int64_t kBlockBytes = 265;  // that the host sends for a block of 256
    constexpr int64_t kEraseBytes = 3;    // which may still be on the line when they are seen
    Hub hub;
    // The erase takes a second.
    hub.StartSimulator({"--baud", "115200", "--flash-time-scale", "0.25"});
    hub.InstallImage("SIM.900.0002", 8192);
    size_t traced = 0;
    for (const int block : blocks) {
        SCOPED_TRACE(block);
        hub.StartDaemon();
        Eventually("the erase", [&] {
            const size_t found = hub.ReadFile("/../trace").find("bootloader FF FF 00", traced);
            if (found != std::string::npos) traced = found + 1;
            return found != std::string::npos;
        });
        if (block == kErase) {
            hub.Simulate("brownout 100");
        } else {
            hub.Simulate("fault in " + std::to_string(kEraseBytes + block * kBlockBytes) +
                         " power 100");
        }
        hub.WaitForLog(block == kErase ? "write erase all fail!" : "mcu_image_update error!");
        EXPECT_EQ(hub.DaemonExitStatus(), 255);
        EXPECT_EQ(hub.Stats().at("version"), "");
    }
    hub.StartDaemon();
    hub.WaitForLog("get mcu version(1/3)", "get mcu version(2/3)", "get mcu version(3/3)",
                   "mcu_get_current_version over 3 times,reset mcu!", "get mcu version(5/3)",
                   "get mcu current version error, go to update!", "mcu_update ok!");
    ExpectHandshakeAtTheFirstTry(hub, "start loop");
    EXPECT_EQ(hub.Stats().at("version"), "SIM.900.0002");
}

TEST(Update, SucceedsAfterPowerCutsAtAnyBlock) {
    CutThePower({0, 1, 14, 29});
}

TEST(SlowUpdate, SucceedsAfterAPowerCutDuringTheErase) {  // whose answer is awaited for 40 s
    CutThePower({kErase});
}

// An image of four whole blocks and a last one, and a bootloader with a fault.
template <typename... Lines>
void ExpectFailure(const char* fault, const Lines&... lines) {
    SCOPED_TRACE(fault);
    Hub hub;
    hub.StartSimulator();
    hub.InstallImage("SIM.900.0002", 1100);
    hub.Simulate(fault);
    hub.StartDaemon();
    hub.WaitForLog("mcu_update enter!", lines...);
    EXPECT_EQ(hub.DaemonExitStatus(), 255);
    EXPECT_EQ(hub.CountInLog("mcu_update ok!"), 0);
    EXPECT_EQ(hub.CountInLog("Start sensorhub daemon"), 0);
    EXPECT_EQ(hub.ReadFile(kVersionProperty), "");
}

TEST(Update, FailsInItsOwnWayAtEachStage) {
    constexpr const char* kSilence = "read mcu_send_cmd return 0,error!";
    constexpr const char* kNack = "read mcu_send_cmd return 1f,error!";
    constexpr const char* kBegin = "begin write mcu memory!";
    constexpr const char* kCurrent = "write_memory_cmd current error!";
    constexpr const char* kEnd = "mcu_image_update error!";
    ExpectFailure("mute 1 9", "handshake over 5 times(retry:1), error!",
                  "handshake over 5 times(retry:4), error!",
                  "mcu init over 3 times, mcu int fail !", "mcu_init error!");
    ExpectFailure("mute 2", "extended_erase_cmd enter!", kSilence, "write extended erase fail!",
                  "extended_erase_cmd error!");
    ExpectFailure("mute 4", "write extended erase cmd ok!", kBegin, kSilence, kCurrent, kEnd);
    ExpectFailure("mute 5", kBegin, kSilence, "write memory address fail!", kCurrent, kEnd);
    ExpectFailure("mute 9", kBegin, kSilence, "write memory data fail!", kCurrent, kEnd);
    ExpectFailure("nack 1", kBegin, kNack, "write memory data fail!", kCurrent, kEnd);
    ExpectFailure("nack 5", kBegin, "write last mcu memory!", kNack, "write memory data fail!",
                  "write_memory_cmd last error!", kEnd);
}

TEST(SlowUpdate, FromTheStartUpHandshakeLoopEndsWithAHandshake) {
    Hub hub;
    hub.StartSimulator();
    hub.InstallImage("SIM.900.0002", 5000, false);
    hub.StartDaemon();
    hub.WaitForLog("mcu_update ok!", "Send Handshake to sensorhub");
    hub.InstallImage("SIM.900.0003", 5000);
    hub.Simulate("nack 1");  // meets the recovery that the same silence has started: it is earlier
    // The last of them may come on either side of the recovery's end.
    for (int i = 0; i < 9; ++i) hub.WaitForLog("W shd     : Handshake timeout");
    hub.WaitForLog("SensorMcuReboot Handshake timeout index:11 update mcu failure",
                   "SensorMcuReboot Handshake timeout update mcu", "mcu_update ok!");
    EXPECT_EQ(hub.CountInLog("W shd     : Handshake timeout"), 12);
    ExpectHandshakeAtTheFirstTry(hub, "start loop");
}

TEST(SlowUpdate, FromTheRecoveryEndsWithAHandshake) {
    Hub hub;
    hub.StartUp();
    Must(hub.Client().Activate(19));
    hub.Simulate("flip 0x08000500 3");  // the firmware will not start again
    hub.Simulate("hang");
    while (hub.CountInLog("ReInit uart") == 0) (void)hub.Client().SetDelay(19, 100);
    for (int i = 0; i < 12; ++i) hub.WaitForLog("SensorMcuReboot Handshake timeout");
    hub.WaitForLog("SensorMcuReboot Handshake timeout update mcu", "mcu_update ok!");
    ExpectHandshakeAtTheFirstTry(hub, "SensorWakeLockAcquiredLocked :0");
    EXPECT_EQ(hub.CountInLog("SensorMcuReboot SensorActive:19"), 1);
}

}  // namespace
