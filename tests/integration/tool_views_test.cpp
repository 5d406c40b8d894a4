// shdtool's screens in windows of given sizes: the live views and their keys, the width of every
// other text, plain terminals, a window that is closed.
#include <gmock/gmock.h>

#include <algorithm>
#include <regex>

#include "tests/integration/tool_hub.h"
#include "tests/integration/tool_recording.h"
#include "tests/integration/tool_window.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using namespace std::chrono_literals;

using ToolViews = ToolHub;

size_t LongestLine(const std::string& page) {
    size_t longest = 0;
    size_t columns = 0;
    for (const char c : page) {
        if (c != '\r' && (static_cast<unsigned char>(c) & 0xC0) != 0x80) ++columns;
        if (c == '\n') columns = 0;
        longest = std::max(longest, columns);
    }
    return longest;
}

TEST_F(ToolViews, TableFitsItsWindowAndObeysItsKeys) {
    for (const char* sensor : {"acc", "gyro", "pressure", "gravity", "linear", "rotation", "game",
                               "heart", "raw-25", "step-counter"}) {
        ASSERT_EQ(Run(std::string("enable ") + sensor).status, 0);
    }
    {
        ToolWindow window(hub_->root(), "shdtool watch", 80, 18);
        const std::string page = window.WaitForPage("sensors\n");
        EXPECT_LE(LongestLine(page), 80u);
        EXPECT_THAT(page, HasSubstr("from the MCU "));
        window.Press("?");
        (void)window.WaitForPage("reset the statistics");
        window.Press("?");
        window.Press("\x1b[B");
        (void)window.WaitForPage("+1 sensor above, ");
        window.Press("q");
        EXPECT_EQ(window.Status(), 0);
        EXPECT_THAT(window.bytes(), HasSubstr("\x1b[?1049l"));
    }
    {
        // Too small for the title; Ctrl-Z gives the terminal back, and the keys work afterwards.
        ToolWindow window(hub_->root(), "shdtool watch", 60, 5);
        EXPECT_THAT(window.WaitForPage("+9 sensors"), HasSubstr("\naccelerometer"));
        window.Press("\x1a");
        window.WaitForBytes("\x1b[?1049l\x1b[23;0;0t\x1b[?1049h");
        window.Press("q");
        EXPECT_EQ(window.Status(), 0);
    }
    {
        ToolWindow window(hub_->root(), "shdtool watch", 200, 50);
        const std::string page = window.WaitForPage("heart-rate");
        EXPECT_LE(LongestLine(page), 200u);
        EXPECT_THAT(page, HasSubstr("game-rotation-vector"));
        EXPECT_THAT(page, Not(HasSubstr("+1 sensor")));
    }
    {
        ToolWindow window(hub_->root(), "shdtool watch acc --plot --window 2", 80, 24);
        EXPECT_LE(LongestLine(window.WaitForPage("\xe2\xa3")), 80u);  // Braille
    }
    for (const char* sensor : {"gravity", "linear", "rotation", "game", "raw-25"}) {
        (void)Run(std::string("disable ") + sensor);
    }
}

TEST_F(ToolViews, SaysWhoIsSilent) {
    ASSERT_EQ(Run("enable accelerometer --rate 50").status, 0);
    ASSERT_EQ(Run("enable gyroscope --rate 50").status, 0);
    ToolWindow window(hub_->root(), "shdtool watch accelerometer gyroscope pressure", 80, 24);
    (void)window.WaitForPage("gyroscope");
    std::this_thread::sleep_for(1s);
    ASSERT_EQ(Run("disable gyroscope").status, 0);
    EXPECT_THAT(window.WaitForPage("SILENT"), HasSubstr("gyroscope               0.00"));
    EXPECT_THAT(window.WaitForPage("none yet"), HasSubstr("pressure "));
    ASSERT_EQ(Run("disable accelerometer").status, 0);
    (void)window.WaitForPage("NOBODY SENDS: no sample for");
    ASSERT_EQ(Run("enable accelerometer").status, 0);
    (void)window.WaitForPage("did not come back after the outage: gyroscope");
    EXPECT_THAT(window.bytes(), HasSubstr("\x1b[31m"));
}

TEST_F(ToolViews, SaysAboveTheTableHowASecondTerminalReachesTheHub) {
    ASSERT_EQ(Run("enable accelerometer --rate 50").status, 0);
    {
        ToolWindow window(hub_->root(), "shdtool watch", 80, 24);
        EXPECT_THAT(window.WaitForPage("accelerometer"),
                    testing::StartsWith("in a second terminal: export SHD_ROOT=" + hub_->root()));
    }
    // As scripts/run does.
    const std::string link = testing::TempDir() + "shd-demo-" + std::to_string(getuid());
    unlink(link.c_str());
    ASSERT_EQ(symlink(hub_->root().c_str(), link.c_str()), 0);
    for (const char* arguments : {"shdtool watch", "shdtool watch --plot"}) {
        ToolWindow window(hub_->root(), arguments, 200, 24,
                          "TERM=xterm LC_ALL=C XDG_RUNTIME_DIR=" + testing::TempDir());
        EXPECT_THAT(window.WaitForPage("accelerometer"),
                    testing::StartsWith("in a second terminal: " SHDTOOL_BINARY " finds this hub"));
    }
    unlink(link.c_str());
}

TEST_F(ToolViews, PlainTerminalsGetPlainText) {
    const struct {
        std::string environment;
        std::string arguments;
        bool drawn;
    } rows[] = {
        {"TERM=dumb LC_ALL=C", "watch --table --count 20", false},
        {"-u TERM LC_ALL=C", "watch --count 20", false},
        {"TERM=xterm LC_ALL=C NO_COLOR=1", "watch --count 40", true},
        {"TERM=xterm LC_ALL=C NO_COLOR=1", "watch --plot --count 40", true},
    };
    ASSERT_EQ(Run("enable accelerometer --rate 50").status, 0);
    for (const auto& row : rows) {
        ToolWindow window(hub_->root(), "shdtool " + row.arguments, 80, 24, row.environment);
        EXPECT_EQ(window.Status(), 0) << row.environment;
        EXPECT_EQ(window.bytes().find('\x1b') != std::string::npos, row.drawn) << row.environment;
        EXPECT_THAT(window.bytes(), Not(HasSubstr("\x1b[3"))) << row.environment;  // colours
        for (const char c : window.bytes()) {
            ASSERT_LT(static_cast<unsigned char>(c), 0x80) << row.environment;
        }
    }
}

// Another view of the same sensor shows that samples come all the while.
int Samples(const std::string& page) {
    return std::stoi(page.substr(page.rfind('\n', page.find(" samples")) + 1));
}

TEST_F(ToolViews, APausedTableStandsStillAndGoesOn) {
    ASSERT_EQ(Run("enable accelerometer --rate 50").status, 0);
    ToolWindow window(hub_->root(), "shdtool watch accelerometer", 80, 24);
    (void)window.WaitForPage("accelerometer");
    window.Press("p");
    const std::string paused = window.WaitForPage("PAUSED, p goes on");
    const size_t drawn = window.bytes().size();
    ASSERT_EQ(Run("watch accelerometer --count 30").status, 0);
    EXPECT_EQ(window.WaitForPage("PAUSED"), paused);
    EXPECT_EQ(window.bytes().size(), drawn);
    window.Press(" ");
    const int before = Samples(window.WaitForPageWithout("PAUSED"));
    window.Press("r");
    Eventually("the count begins anew",
               [&] { return Samples(window.WaitForPage("samples")) < before; });
}

// Ten seconds of a resting accelerometer, from the fourth on silent for a while or slower.
TEST_F(ToolViews, APlotShowsAGapAsAGap) {
    const std::string path = OwnPath("gap");
    const struct {
        int64_t silent_ms;
        int64_t period_ms;
        size_t least, most;  // empty columns of 80
        size_t gaps;         // of a curve, or less
    } rows[] = {{0, 20, 0, 1, 0}, {2000, 20, 14, 18, 1}, {0, 500, 2, 4, 1}, {6000, 20, 0, 1, 0}};
    for (const auto& row : rows) {
        auto writer = Must(shdtool::RecordWriter::Create(path, true));
        writer.BeginAt(kBegin);
        for (int64_t ms = 0; ms < 10'000; ms += 20) {
            const int64_t at_ns = kBegin + ms * kMs;
            const bool later = ms >= 4000 + row.silent_ms && ms % row.period_ms == 0;
            if (ms < 4000 || later) writer.Add(SampleOf(0, at_ns, at_ns));
        }
        ASSERT_TRUE(writer.Close(kBegin + 10 * kSec).ok());
        ToolWindow window(hub_->root(), "shdtool replay --fast --plot " + path, 80, 24,
                          "TERM=xterm LC_ALL=C NO_COLOR=1");
        ASSERT_EQ(window.Status(), 0);
        // What stays on the terminal; its curves are made of . : and '.
        const std::string page = window.bytes().substr(window.bytes().rfind("\x1b[?1049l"));
        constexpr std::string_view kCurve = ".:'";
        size_t gaps = 0;
        size_t empty = 0;  // the longest stretch within a row of a curve
        for (size_t at = page.find(".."); at < page.size();) {
            const size_t blank = page.find_first_not_of(kCurve, at);
            const size_t next = page.find_first_not_of(' ', blank);
            if (next >= page.size()) break;
            if (kCurve.find(page[next]) != std::string::npos) {
                empty = std::max(empty, next - blank);
                if (next - blank > 1) ++gaps;
            }
            at = page.find_first_of(kCurve, next);
        }
        EXPECT_GE(empty, row.least) << page;
        EXPECT_LE(empty, row.most) << page;
        EXPECT_LE(gaps, 3 * row.gaps) << page;  // three axes
        const bool silent = page.find("SILENT 6.0 s, last 0 m/s^2") != std::string::npos;
        EXPECT_EQ(silent, row.silent_ms == 6000) << page;
    }
    unlink(path.c_str());
}

// The daemon itself switches only some sensors on again.
TEST_F(ToolViews, ARecoveryLeavesTheTableWithWhoDidNotComeBack) {
    for (const char* sensor : {"accelerometer", "step-counter"}) {
        ASSERT_EQ(Run(std::string("enable ") + sensor).status, 0);
    }
    ToolWindow window(hub_->root(), "shdtool watch accelerometer step-counter", 80, 24);
    (void)window.WaitForPage("count ");
    hub_->Simulate("crash");
    (void)window.WaitForPage("SILENT");
    EXPECT_THAT(window.WaitForPage("did not come back"),
                HasSubstr("after the outage: accelerometer\n"));
    // The step counter does send, at least while the simulated wrist walks.
    EXPECT_THAT(window.WaitForPageWithout("NOBODY SENDS"), HasSubstr("did not come back"));
}

// Answers and errors break at blanks where the window ends, tables have columns that fit.
TEST_F(ToolViews, EverythingFitsAWindowOf80Columns) {
    constexpr const char* kRecovered = "SensorWakeLockAcquiredLocked :0";
    const int recoveries = hub_->CountInLog(kRecovered);
    hub_->Simulate("crash");  // which leaves a dump and a recovery
    Eventually("a recovery", [&] { return hub_->CountInLog(kRecovered) > recoveries; });
    for (const char* sensor : {"accelerometer", "rotation-vector"}) {
        ASSERT_EQ(Run(std::string("enable ") + sensor + " --rate 20").status, 0);
    }
    const EventTap client(*hub_);
    const std::string log = hub_->root() + "/../shd.log";
    const std::string rows[] = {
        "--help",
        "--version",
        "list",
        "status",
        "clients",
        "watch --lines --count 20",
        "audit --seconds 1",
        "enable rotation-vector --period 1 --batch 2",
        "enable acc --period 5 --rate 5",
        "batch accelerometer --period 50 --batch 10",
        "disable rotation-vector",
        "flush accelerometer",
        "calibrate accelerometer",
        "selftest step-detector",
        "health 1 2 3 4",
        "datetime 0",
        "version",
        "dump list",
        "dump show 0 --hex",
        "dump decode 0",
        "log " + log,
        "log --all " + log,
        "log --summary " + log,
        "log /dev/zero",
        "enable nose",
        "frobnicate",
        "raw 5 10 28 00 00 00",
        "raw 99 0",
        "raw 0 0",
        "image show --no-probe " + hub_->root() + "/system/bin/mcu.bin",
        "watch --help",
        "audit --help",
        "log --help",
        "image build --help",
    };
    for (const std::string& arguments : rows) {
        ToolWindow window(hub_->root(), "shdtool " + arguments, 80, 24);
        (void)window.Status();
        const std::string page =
            std::regex_replace(window.bytes(), std::regex("\x1B(\\[[0-9;]*m|\\(B)"), "");
        EXPECT_LE(LongestLine(page), 80u) << arguments << "\n" << page;
        EXPECT_FALSE(window.bytes().empty()) << arguments;
    }
}

TEST_F(ToolViews, AClosedWindowEndsEveryView) {
    const std::string record = OwnPath("hangup");
    ASSERT_EQ(Run("enable accelerometer --rate 50").status, 0);
    ASSERT_EQ(Run("record --seconds 2 " + record).status, 0);
    const struct {
        std::string command;
        std::string shown;  // once its signals are its own
    } rows[] = {
        {"watch", "accelerometer"},
        {"watch --lines", "accelerometer"},
        {"watch --plot", "accelerometer x"},
        {"replay --speed 0.01 " + record, "samples"},
        {"log -f " + hub_->root() + "/../shd.log", "start loop"},
    };
    for (const auto& row : rows) {
        std::vector<int> statuses;
        for (const int signal : {SIGHUP, SIGTERM}) {
            ToolWindow window(hub_->root(), "shdtool " + row.command, 80, 24);
            window.WaitForBytes(row.shown);
            window.Signal(signal);
            statuses.push_back(window.Status());
            const bool taken = window.bytes().find("\x1b[?1049h") != std::string::npos;
            EXPECT_EQ(window.bytes().find("\x1b[?1049l") != std::string::npos, taken);
        }
        EXPECT_EQ(statuses[0], statuses[1]) << row.command;
    }
    unlink(record.c_str());
}

}  // namespace
