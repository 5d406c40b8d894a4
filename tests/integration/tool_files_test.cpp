// shdtool log, dump and image against the files of a real hub: text, JSON and exit status.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>

#include "tests/integration/hub.h"
#include "tests/integration/tool.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

bool Has(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

std::string LogOf(const Hub& hub) {
    return hub.root() + "/../shd.log";
}

TEST(ToolLog, ARecoveryIsOneLineWithItsCauseAndWhatCameBack) {
    Hub hub;
    hub.StartUp();
    shdclient::HubClient client = hub.Client();
    Must(client.Activate(shd::kHandleStepCounter));
    Must(client.Activate(shd::kHandleAccelerometer));
    hub.Simulate("crash");
    hub.WaitForLog("SensorWakeLockAcquiredLocked :0");

    const ToolRun summary = RunTool(hub.root(), "log --summary " + LogOf(hub));
    EXPECT_EQ(summary.status, 0) << summary.err;
    EXPECT_TRUE(Has(summary.out,
                    ": the MCU crashed and sent a core dump in 6 pieces; back: "
                    "step-counter\n"))
        << summary.out;
    EXPECT_EQ(std::count(summary.out.begin(), summary.out.end(), '\n'), 1) << summary.out;

    const json episode = RunTool(hub.root(), "log --summary --json " + LogOf(hub)).json();
    EXPECT_EQ(episode["episode"], "recovery");
    EXPECT_EQ(episode["ok"], true);
    EXPECT_EQ(episode["restored"], json({"step-counter"}));
    EXPECT_GT(episode["duration_s"].get<double>(), 2.0);  // the reset pulse's settling alone
    const std::string at = episode["time"].get<std::string>().substr(6, 8);
    EXPECT_EQ(RunTool(hub.root(), "log --summary --at " + at + " " + LogOf(hub)).out, summary.out);

    const std::string folded = RunTool(hub.root(), "log " + LogOf(hub)).out;
    EXPECT_TRUE(Has(folded, "start loop") && Has(folded, "recovery in")) << folded;
    EXPECT_FALSE(Has(folded, "SensorMcuReboot")) << folded;
    const std::string all = RunTool(hub.root(), "log --all - <" + LogOf(hub)).out;
    EXPECT_TRUE(Has(all, "SensorMcuReboot SensorActive:19 (step-counter)")) << all;
    EXPECT_FALSE(Has(all, "recovery in")) << all;
    EXPECT_FALSE(Has(all, "\x1B"));
    const std::string one =
        RunTool(hub.root(), "log --all --sensor step-c --tag shd --tag mcu " + LogOf(hub)).out;
    EXPECT_TRUE(Has(one, "step-counter") && !Has(one, "step-detector")) << one;
    EXPECT_EQ(RunTool(hub.root(), "log --tag mcu --level E " + LogOf(hub)).out, "");
}

TEST(ToolLog, AFailedUpdateNamesItsBlock) {
    Hub hub;
    hub.StartSimulator({"--blank"});
    hub.Simulate("nack 5");
    hub.StartDaemon();
    EXPECT_NE(hub.DaemonExitStatus(), 0);
    const json update = RunTool(hub.root(), "log --summary --json " + LogOf(hub)).json();
    EXPECT_EQ(update["episode"], "update");
    EXPECT_EQ(update["ok"], false);
    EXPECT_EQ(update["erased"], true);
    EXPECT_EQ(update["blocks"], 192);  // of the simulator's own image
    EXPECT_EQ(update["block_exact"], false);
    EXPECT_GE(update["failed_block"], 1);
    EXPECT_TRUE(Has(update["failure"], "its data was refused")) << update;
}

// A log grows, is cut short and is replaced while it is followed.
TEST(ToolLog, AFollowedLogIsReadOnWhateverBecomesOfIt) {
    const Hub hub;
    fs::create_directories(hub.root());
    const std::string log = hub.root() + "/follow.log";
    const std::string seen = hub.root() + "/seen";
    const auto append = [&log](const std::string& text, std::ios::openmode mode = std::ios::app) {
        std::ofstream(log, mode) << "11-23 04:31:07.123   400   400 D shd     : " << text << "\n"
                                 << "11-23 04:31:07.124    12    12 D other   : not ours\n";
    };
    const auto shown = [&hub](const std::string& text) {
        Eventually(text + " is shown", [&] { return Has(hub.ReadFile("/seen"), text); });
    };
    append("first");
    const Process tool({"sh", "-c", std::string(SHDTOOL_BINARY " log -f ") + log + " >" + seen},
                       "/dev/null");
    shown("first");
    append("grown");
    shown("grown");
    append("cut", std::ios::trunc);
    shown("cut");
    fs::rename(log, log + ".1");
    append("replaced");
    shown("replaced");
    append("SendSensorMsgAndWait to many error, reboot mcu");
    shown("recovery begins: the MCU left two requests unanswered");
    EXPECT_FALSE(Has(hub.ReadFile("/seen"), "not ours"));
}

TEST(ToolDump, ShowsWhatTheCrashLeft) {
    Hub hub;
    hub.StartUp();
    hub.Simulate("crash noreboot");
    Eventually("the dump is stored", [&] {
        const std::string dump = hub.ReadFile("/mcusim/last_dump.bin");
        return !dump.empty() && hub.ReadFile("/data/mcudumplog/mcudump_0") == dump;
    });
    const ToolRun shown = RunTool(hub.root(), "dump show 0");
    EXPECT_EQ(shown.status, 0) << shown.err;
    for (const char* part :
         {"6144 bytes", "hard fault at pc 0x0800", "PRECISERR    bus error", "FORCED", "r12 ",
          "lr   0xfffffff9", "stack 0x2001f", "perhaps a return address", "memory 0x20000000"}) {
        EXPECT_TRUE(Has(shown.out, part)) << part << "\n" << shown.out;
    }
    const json fields = RunTool(hub.root(), "dump show 0 --json").json();
    EXPECT_EQ(fields["fault_status"]["cfsr_bits"], json({"PRECISERR", "BFARVALID"}));
    EXPECT_EQ(fields["registers"]["lr"], 0xFFFFFFF9);
    EXPECT_EQ(fields["areas"][0]["bytes"], 2048);
    // The base64 text says the same.
    fs::remove(hub.root() + "/data/mcudumplog/mcudump_0");
    EXPECT_EQ(RunTool(hub.root(), "dump show 0 --json").json()["registers"], fields["registers"]);
    EXPECT_GT(RunTool(hub.root(), "dump show 0 --hex").out.size(), shown.out.size());
}

TEST(ToolDump, OtherBytesAreShownAsBytesAndACutDumpIsSaidToBe) {
    const Hub hub;
    hub.WriteFile("/other", std::string(40, '\0') + "panic: bus\n" + std::string(5, '\xFF'));
    EXPECT_EQ(RunTool("", "dump show " + hub.root() + "/other").out,
              hub.root() +
                  "/other\n  56 bytes, in no layout that is known\n"
                  "strings\n"
                  "      40  panic: bus\n"
                  "00000000  00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00  |................|\n"
                  "*\n"
                  "00000020  00 00 00 00 00 00 00 00 70 61 6e 69 63 3a 20 62  |........panic: b|\n"
                  "00000030  75 73 0a ff ff ff ff ff                          |us......|\n");
    std::string head(104, '\0');
    head.replace(0, 4, "CDMP");
    head[4] = 1;
    head[9] = 1;  // 256 bytes, by its own account
    hub.WriteFile("/cut", head);
    const ToolRun cut = RunTool("", "dump show --json " + hub.root() + "/cut");
    EXPECT_EQ(cut.status, 1);
    EXPECT_EQ(cut.json()["missing_bytes"], 152);
}

TEST(ToolImage, AnImageIsGoodAndTheDaemonsDecisionIsALineOfItsOwn) {
    Hub hub;
    hub.InstallImage("SIM.900.7", 4096);
    const std::string show = "image show " + hub.root() + "/system/bin/mcu.bin ";
    const std::pair<const char*, const char*> decisions[] = {
        {"--no-probe", "writes it, unless the MCU runs this version"},
        {"--mcu-version SIM.900.7", "leaves the MCU as it is: it runs this version"},
        {"--mcu-version SIM.900.6", "writes it: the MCU runs SIM.900.6"},
        {"--mcu-version ''", "writes it, whatever its header says: the MCU tells no version"},
    };
    for (const auto& [option, decision] : decisions) {
        const ToolRun run = RunTool(hub.root(), show + option);
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_TRUE(run.out.ends_with(std::string("\nThe image is good.\nAt its next start the "
                                                  "daemon ") +
                                      decision + ".\n"))
            << run.out;
    }
    hub.StartUp();
    EXPECT_EQ(RunTool(hub.root(), show + "--json").json()["daemon"],
              "leaves the MCU as it is: it runs this version");
}

TEST(ToolImage, BuildLeavesAFileAloneWithoutForce) {
    const Hub hub;
    hub.WriteFile("/mcu.bin", "precious");
    const std::string build =
        "image build --version A.900.1 --simulated-firmware -o " + hub.root() + "/mcu.bin";
    const ToolRun refused = RunTool("", build);
    EXPECT_EQ(refused.status, 2);
    EXPECT_TRUE(Has(refused.err, "--force replaces it")) << refused.err;
    EXPECT_EQ(hub.ReadFile("/mcu.bin"), "precious");
    EXPECT_EQ(RunTool("", build + " --force").status, 0);
    EXPECT_EQ(hub.ReadFile("/mcu.bin").size(), 224U + 32768);

    hub.WriteFile("/blank", std::string(2000, '\xFF'));
    const ToolRun blank = RunTool("", "image build --version A.900.1 --payload " + hub.root() +
                                          "/blank -o " + hub.root() + "/blank.bin");
    EXPECT_EQ(blank.status, 1);
    EXPECT_TRUE(Has(blank.err, "blank.bin is not good: the payload is blank")) << blank.err;
}

}  // namespace
