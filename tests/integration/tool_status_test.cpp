// shdtool status and clients against a real hub: text, JSON and exit status.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "tests/integration/hub.h"
#include "tests/integration/tool.h"
#include "tools/client/local_socket.h"

namespace {

using nlohmann::json;

// The names of the rows in their order.
std::vector<std::string> RowNames(const std::string& text) {
    constexpr size_t kName = 6;  // behind the verdict
    std::vector<std::string> names;
    for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) {
        const std::string row = text.substr(at + kName, text.find("  ", at + kName) - at - kName);
        names.push_back(row);
    }
    return names;
}

TEST(ToolStatus, LooksBeforeItAsksAndAsksTheMcuLast) {
    Hub hub;
    hub.StartUp();
    const int64_t frames = hub.Stats()["frames_in"];
    const ToolRun looked = RunTool(hub.root(), "status --no-probe");
    EXPECT_EQ(looked.status, 0) << looked.out << looked.err;
    EXPECT_EQ(hub.Stats()["frames_in"], frames) << "the MCU was asked";

    const ToolRun asked = RunTool(hub.root(), "status");
    EXPECT_EQ(asked.status, 0) << asked.out;
    EXPECT_EQ(RowNames(asked.out),
              (std::vector<std::string>{
                  "UART", "firmware image", "persist.velmar.shd.mculog", "persist.velmar.shd.debug",
                  "persist.velmar.shd.mcureboot", "persist.velmar.shd.rawdatatype",
                  "persist.mcu.version", "accelerometer calibration", "pressure calibration",
                  "core dumps", "raw data alg.txt", "raw data hrm.txt", "control socket",
                  "data socket", "clients", "daemon", "data server", "MCU", "next start"}));
    EXPECT_EQ(asked.out.find('\x1B'), std::string::npos);
}

TEST(ToolStatus, JsonHasFieldsForPrograms) {
    Hub hub;
    hub.StartUp();
    hub.WriteFile("/data/property/persist.velmar.shd.mcureboot", "1");
    hub.Simulate("crash noreboot");
    Eventually("the dump is there", [&] {
        return RunTool(hub.root(), "status --no-probe --json").json()["core_dumps"]["count"] == 1;
    });
    hub.Simulate("reset");
    shdclient::HubClient client = hub.Client();
    Eventually("it is served", [&] { return client.Version(0).ok(); });
    const ToolRun run = RunTool(hub.root(), "status --json");
    const json status = run.json();
    EXPECT_EQ(run.status, 0) << run.out;
    EXPECT_EQ(status["ok"], true);
    EXPECT_EQ(status["persist.velmar.shd.mcureboot"]["value"], "1");
    EXPECT_EQ(status["persist.velmar.shd.mcureboot"]["verdict"], "warn");
    EXPECT_EQ(status["control_socket"]["clients"], 1);
    EXPECT_EQ(status["mcu"]["version"], status["firmware_image"]["version"]);
    EXPECT_EQ(status["next_start"]["decision"], "leaves the MCU as it is: it runs this version");
    for (const char* row : {"daemon", "data_server", "mcu"}) {
        EXPECT_GT(status[row]["latency_ms"].get<double>(), 0) << row;
    }
}

TEST(ToolStatus, AHubThatIsNotThereIsStatusThree) {
    Hub hub;
    hub.StartSimulator();
    const ToolRun none = RunTool(hub.root(), "status --json");
    EXPECT_EQ(none.status, 3) << none.out;
    EXPECT_EQ(none.json()["control_socket"]["verdict"], "FAIL");
    EXPECT_EQ(none.json()["uart"]["verdict"], "ok");
    EXPECT_EQ(none.json()["mcu"]["answers"], nullptr);
    const ToolRun clients = RunTool(hub.root(), "clients");
    EXPECT_EQ(clients.status, 3);
    EXPECT_NE(clients.err.find("no daemon: nobody listens on"), std::string::npos) << clients.err;
}

// A link to itself is what a file of another user is: there, but not to be read, by root neither.
TEST(ToolStatus, DoesNotTakeWhatItMayNotReadForAbsent) {
    Hub hub;
    hub.StartSimulator();
    for (const char* path : {"/nvdata/accclibration", "/nvdata/BARO", "/data/mcudumplog",
                             "/data/logdata", "/data/property/persist.velmar.shd.mcureboot"}) {
        const std::string link = hub.root() + path;
        std::filesystem::create_directories(std::filesystem::path(link).parent_path());
        std::filesystem::remove(link);
        std::filesystem::create_symlink(link, link);
    }
    const json status = RunTool(hub.root(), "status --json").json();
    for (const char* row :
         {"accelerometer_calibration", "pressure_calibration", "core_dumps", "raw_data_alg.txt",
          "raw_data_hrm.txt", "persist.velmar.shd.mcureboot"}) {
        EXPECT_EQ(status[row]["verdict"], "warn") << row;
        EXPECT_EQ(status[row].value("problem", "").find("not known, cannot read"), 0U) << row;
    }
    const ToolRun dumps = RunTool(hub.root(), "dump list");
    EXPECT_NE(dumps.err.find("cannot read"), std::string::npos) << dumps.out << dumps.err;
}

TEST(ToolClients, NamesWhoLosesDataAndNobodyElse) {
    Hub hub;
    hub.StartUp();
    EXPECT_EQ(RunTool(hub.root(), "clients").out, "nobody is connected\n");

    shdclient::HubClient control = hub.Client();
    const EventTap reads(hub);
    const UniqueFd sleeps =
        Must(shdclient::ConnectLocal(shdclient::SocketPath(hub.root(), shdclient::kDataSocket)));
    const json calm = RunTool(hub.root(), "clients --json").json();
    ASSERT_EQ(calm["clients"].size(), 3U) << calm;
    EXPECT_EQ(calm["losing"], 0);
    for (const json& client : calm["clients"]) {
        EXPECT_EQ(client["pid"], getpid()) << client;
        EXPECT_EQ(client["losing"], false) << client;
    }
    EXPECT_EQ(calm["clients"][0]["socket"], "shdctl");

    for (const int32_t handle : {shd::kHandleAccelerometer, shd::kHandleGyroscope}) {
        Must(control.Batch(handle, 5, 0));
        Must(control.Activate(handle));
    }
    ToolRun run;
    Eventually("a client loses data", [&] {
        run = RunTool(hub.root(), "clients --json");
        return run.json()["losing"] == 1;
    });
    EXPECT_EQ(run.status, 1);
    const json losses = run.json();
    for (const json& client : losses["clients"]) {
        const bool losing = client["unread_bytes"].get<int64_t>() > 10'000;
        EXPECT_EQ(client["losing"], losing) << client;
        EXPECT_EQ(client["buffer_used"] >= client["buffer_size"], losing) << client;
    }
    EXPECT_NE(RunTool(hub.root(), "clients").out.find("LOSES DATA"), std::string::npos);
    EXPECT_EQ(RunTool(hub.root(), "status --no-probe --json").json()["clients"]["verdict"], "warn");
}

}  // namespace
