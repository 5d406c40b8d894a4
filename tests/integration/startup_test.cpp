// Start-up of the daemon, from its files and properties to the main loop.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

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

TEST(StartUp, ServersTellEachWaitOnStandardOutputAtOnce) {
    Hub hub;
    hub.StartSimulator();
    hub.StartDaemon({"sh", "-c", R"(exec "$0" >"$SHD_ROOT/stdout")"});
    hub.WaitForLog("Set parameter OK, start loop");
    (void)hub.Client();
    Eventually("the wait that a client has ended", [&] {
        return hub.ReadFile("/stdout").find("select event comming = 1 max_fd =") !=
               std::string::npos;
    });
}

// A socket with the control server's name.
UniqueFd BindControlSocket(const Hub& hub) {
    const std::string path = hub.root() + "/dev/socket/shdctl";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    return fd;
}

TEST(StartUp, RequestsOnAnInheritedSocketWaitForTheHandshake) {
    Hub hub;
    hub.StartSimulator();
    hub.Simulate("noreply 0 0 1");
    UniqueFd socket_fd = BindControlSocket(hub);
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

TEST(StartUp, StrayDaemonsEndWithoutTouchingTheHubThatRuns) {
    Hub hub;
    hub.StartUp();
    const UniqueFd client = ConnectRaw(hub);
    const nlohmann::json before = hub.Stats();
    const std::string link = hub.root() + "-link";
    std::filesystem::create_symlink(hub.root(), link);
    const struct {
        const char* what;
        std::vector<std::string> command;
        int status;
        const char* says;
    } strays[] = {
        {"argument", {"SHD_ROOT=" + hub.root(), SHD_BINARY, "--help"}, 2, "usage: shd"},
        {"argument, no tree", {"SHD_ROOT=/none", SHD_BINARY, ""}, 2, "usage: shd"},
        {"second daemon", {"SHD_ROOT=" + hub.root(), SHD_BINARY}, 1, "Another daemon serves"},
        {"second daemon, by another path", {"SHD_ROOT=" + link, SHD_BINARY}, 1, "Another daemon"},
    };
    for (const auto& stray : strays) {
        SCOPED_TRACE(stray.what);
        const std::string errors = hub.root() + "-errors";
        Process process(stray.command, errors);
        Eventually("it ends", [&] { return process.Status().has_value(); });
        EXPECT_EQ(WEXITSTATUS(*process.Status()), stray.status);
        std::ifstream file(errors);
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        EXPECT_NE(text.find(stray.says), std::string::npos) << text;
        EXPECT_EQ(std::ranges::count(text, '\n'), 1) << text;
        EXPECT_EQ(hub.Stats().at("resets"), before.at("resets"));
        SendRaw(client.get(), Request(0, SHB_SENSOR_ACTIVE));
        EXPECT_EQ(ReceiveRaw(client.get()).result, 0);
        EXPECT_TRUE(hub.Client().Deactivate(0).ok());  // the socket is still there
    }
}

TEST(StartUp, TreeOfAKilledDaemonIsTakenOver) {
    Hub hub;
    hub.StartUp();
    hub.StopDaemon();  // by a signal that it does not handle
    hub.StartDaemon();
    hub.WaitForLog("Set parameter OK, start loop");
    EXPECT_TRUE(hub.Client().Activate(0).ok());
}

TEST(StartUp, SocketThatSomebodyListensOnIsLeftToThem) {
    Hub hub;
    hub.StartSimulator();
    const UniqueFd listener = BindControlSocket(hub);
    ASSERT_EQ(listen(listener.get(), 8), 0);
    hub.StartDaemon();
    hub.WaitForLog("Another process listens on", "Set parameter OK, start loop");
    while (UniqueFd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)).valid()) continue;
    const UniqueFd client = ConnectRaw(hub);
    EXPECT_TRUE(UniqueFd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)).valid());
}

}  // namespace
