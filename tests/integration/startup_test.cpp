// Start-up of the daemon, from its files and properties to the main loop.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <filesystem>

#include "tests/integration/hub.h"

using namespace shd;

namespace {

TEST(StartUp, AppliesCalibrationAndPropertiesBeforeTheMainLoop) {
    Hub hub;
    hub.WriteFile("/nvdata/accclibration", {"\x38\x01\xC8\xFE\x00\x00\x00", 7});
    hub.WriteFile("/nvdata/BARO", "-499\n");
    hub.WriteFile("/data/property/persist.velmar.shd.mculog", "5");
    hub.WriteFile("/data/property/persist.velmar.shd.debug", "1");
    hub.WriteFile("/data/property/persist.velmar.shd.mcureboot", "0");
    hub.WriteFile("/data/property/persist.velmar.shd.rawdatatype", "3");
    hub.StartSimulator();
    hub.StartDaemon();
    hub.WaitForLog("InitParameter read clibration info :312 -312 0 res:313",
                   "InitParameter read clibration info :-499",
                   "Failed to get shdctl from environment",
                   "Failed to get shddata from environment",
                   "get mcu current version:SIM.900.0001, length:12.",
                   "mcu version same(SIM.900.0001), do not need update!",
                   "Start sensorhub daemon, control server create ok",
                   "Send Handshake to sensorhub", "Handshake OK", "Set MCU Log Level : 5",
                   "Set shd log debug : 1", "Set shd mcu reboot disable : 0", "Set parameter",
                   "Set parameter OK, start loop", "Set MCU Raw data Log Level : 3");
    EXPECT_EQ(hub.CountInLog("Handshake timeout"), 0);
    const std::vector<std::string> requests = {
        "handshake",
        "log level 01 05",
        "accelerometer set parameter 38 01 C8 FE 00 00",
        "pressure set parameter 0D FE FF FF",
        "raw-25 set parameter 05 00 00 00",
        "gyroscope set parameter 00 00 00 00",
        "raw-data config 03 00",
    };
    EXPECT_EQ(hub.Requests(), requests);
    EXPECT_EQ(hub.Stats().at("wakeups"), requests.size());  // one before each frame
}

TEST(StartUp, RequestsOnAnInheritedSocketWaitForTheHandshake) {
    Hub hub;
    hub.StartSimulator();
    hub.Simulate("noreply 0 0 1");
    const std::string path = hub.root() + "/dev/socket/shdctl";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    UniqueFd socket_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(socket_fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    hub.StartDaemon({"ANDROID_SOCKET_shdctl=" + std::to_string(socket_fd.get())}, socket_fd.get());
    socket_fd.Reset();

    hub.WaitForLog("Failed to get shddata from environment", "Send Handshake to sensorhub");
    const UniqueFd client = ConnectRaw(hub);
    SendRaw(client.get(), Request(0, SHB_MCU_VERSION));
    hub.WaitForLog("shd     : Handshake timeout");
    EXPECT_FALSE(Readable(client.get(), std::chrono::milliseconds(0)));
    EXPECT_EQ(ReceiveRaw(client.get()).command,
              SHB_MCU_RAWDATA_CONFIG);  // what a version reply carries
    hub.WaitForLog("Handshake OK", "Set parameter OK, start loop", "ProcessMcuVersion type:0");
    EXPECT_EQ(hub.CountInLog("Failed to get shdctl"), 0);
}

}  // namespace
