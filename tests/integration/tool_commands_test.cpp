// shdtool's commands against a hub with a simulated MCU: text, JSON and exit status, wrong input;
// the completion in the shells, and the manual page.
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>

#include "tests/integration/tool_hub.h"
#include "tests/integration/tool_window.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;

using ToolCommands = ToolHub;

TEST_F(ToolCommands, AnswersEachCommandInTextAndJson) {
    const struct {
        std::string arguments;
        std::string text;
        std::string field;  // of the object
        json value;
    } rows[] = {
        {"list", "heart-rate", "/sensors/0/sensor", "accelerometer"},
        {"status --timeout 20", "ok", "/exit_status", nullptr},
        {"enable acc --rate 50 --batch 10",
         "accelerometer enabled, every 20 ms (50 Hz), in batches of 10; 0.3 kB/s, 3 % of the line",
         "/period_ms", 20},
        {"batch gyro --period 40", "gyroscope set, every 40 ms", "/batch", 0},
        {"delay pressure 100", "pressure set, every 100 ms", "/period_ms", 100},
        {"disable pressure", "pressure disabled", "/handle", 6},
        {"selftest 0", "accelerometer passed its self test", "/tested", true},
        {"selftest step-detector", "is virtual", "/tested", false},
        {"calibrate pressure", "pressure calibrated", "/sensor", "pressure"},
        {"param acc 38 01 c8 fe 00 00", "parameter set to 38 01 c8 fe 00 00", "/parameter",
         "38 01 c8 fe 00 00"},
        {"info acc", "accelerometer: ", "/sensor", "accelerometer"},
        {"flush acc", "accelerometer flushed", "/handle", 0},
        {"version", "MCU firmware: SIM.900.", "/number", 0},
        {"loglevel 2", "MCU log level set to 2", "/level", 2},
        {"rawdata off", "raw data: off", "/stream", "off"},
        {"health 257 30 175 70", "the MCU received 1 30 175 70", "/words/0", 257},
        {"datetime 1500000000", "2017-07-14 02:40:00 UTC", "/seconds", 1500000000},
        {"debug off", "verbose event log off", "/debug", false},
        {"sleep", "no reply is expected", "/reply_expected", false},
        {"wakeup", "no reply is expected", "/reply_expected", false},
        {"raw 5 10 28 00 00 00", "batch: result 0", "/result", 0},
        {"dump list", "no core dumps", "/slots", json::array()},
        {"completion zsh", "#compdef shdtool", "/shell", "zsh"},
    };
    for (const auto& row : rows) {
        const ToolRun text = Run(row.arguments);
        EXPECT_EQ(text.status, 0) << row.arguments << ": " << text.err;
        EXPECT_THAT(text.out, HasSubstr(row.text)) << row.arguments;
        const ToolRun object = Run(row.arguments + " --json");
        const json answer = json::parse(object.out, nullptr, false);
        ASSERT_TRUE(answer.is_object()) << row.arguments << ": " << object.out << object.err;
        EXPECT_EQ(answer.value("ok", json()), true) << row.arguments;
        EXPECT_EQ(answer.value(json::json_pointer(row.field), json()), row.value) << object.out;
    }
}

// The hub reports a flush complete also when the MCU is dead.
TEST_F(ToolCommands, AFlushThatTheMcuLeftUnansweredIsNoPlainSuccess) {
    EXPECT_THAT(Run("flush pressure").err, IsEmpty());
    hub_->Simulate("noreply 22 4 1");
    EXPECT_THAT(Run("flush pressure").err, HasSubstr("the MCU probably did not answer"));
}

TEST_F(ToolCommands, RefusesWrongInputInOneLine) {
    const struct {
        std::string arguments;
        int status;
        std::string error;
    } rows[] = {
        {"", 2, "name a command"},
        {"frobnicate", 2, "there is no command 'frobnicate'"},
        {"dump frobnicate", 2, "there is no command 'frobnicate'; 'shdtool dump --help'"},
        {"enable", 2, "SENSOR is required"},
        {"enable nose", 2, "no sensor 'nose'"},
        {"enable g", 2, "could be gyroscope or gravity"},
        {"enable acc --rate 1001", 2, "is not a number from 0.001 to 1000"},
        {"enable acc --rate 1e999", 2, "is not a number"},
        {"enable acc --period 99999999999999999999", 2, "is not a whole number"},
        {"enable acc --period 5 --rate 5", 2, "excludes"},
        {"enable acc --batch 5", 2, "--batch needs --period or --rate"},
        {"raw 0 4294967296", 2, "is not a whole number"},
        {"param acc 3", 2, "only one digit"},
        {"watch --lines --csv", 2, "excludes"},
        {"replay --plot ROOT/empty", 2, "empty: it is empty"},
        {"audit", 2, "name a recording"},
        {"audit --seconds 1 --flush nan", 2, "is not a number"},
        {"dump show", 2, "FILE is required"},
        {"dump show 0", 2, "/data/mcudumplog/mcudump_0: No such file"},
        {"image show --no-probe --mcu-version 1 ROOT/empty", 2, "excludes"},
        {"log --all --summary ROOT/other", 2, "--summary excludes --all"},
        {"log --level X ROOT/other", 2, "'X' is none of"},
        {"log ROOT/other", 2, "other holds no line of shd's log"},
        {"log </dev/null", 2, "standard input holds no line of shd's log"},
        {"log ROOT/zeros", 2, "a line of it is longer than 1 MiB"},
        {"status now", 2, "not expected: now"},
        {"replay /tmp", 2, "cannot read /tmp: it is a directory"},
        {"replay /dev/zero", 2, "cannot read /dev/zero: it is no regular file"},
        {"audit ROOT/empty", 2, "empty: it is empty"},
        {"rawlog ROOT/empty", 2, "empty: it is empty"},
        {"image show ROOT/absent", 2, "No such file"},
        {"record /tmp", 2, "cannot write /tmp: it is a directory"},
        {"record /dev/null", 2, "cannot write /dev/null: it is no regular file"},
        {"image build --version 1.900.1 --simulated-firmware --size 9999999G -o x", 2,
         "is not a number of bytes"},
        {"enable motion-health --root /nowhere", 3, "no daemon"},
        {"raw 99 0", 1, "the hub knows no sensor handle 99"},
    };
    hub_->WriteFile("/empty", "");
    hub_->WriteFile("/other", "11-23 04:31:07.124    12    12 D other   : not ours\n");
    hub_->WriteFile("/zeros", std::string(2'000'000, '\0'));
    for (const auto& row : rows) {
        const ToolRun text = Run(row.arguments);
        EXPECT_EQ(text.status, row.status) << row.arguments;
        EXPECT_THAT(text.err, HasSubstr(row.error)) << row.arguments;
        EXPECT_EQ(std::count(text.err.begin(), text.err.end(), '\n'), 1) << text.err;
        const json object = json::parse(Run("--json " + row.arguments).out, nullptr, false);
        ASSERT_TRUE(object.is_object()) << row.arguments;
        EXPECT_EQ(object["exit_status"], row.status) << row.arguments;
        EXPECT_THAT(object["error"], HasSubstr(row.error));
    }
}

TEST_F(ToolCommands, AFullDiskIsSaidWhateverIsPrinted) {
    const std::string log = "log " + hub_->root() + "/../shd.log";
    for (const std::string& command :
         {std::string("list"), std::string("--manual"), std::string("list --json"), log}) {
        const ToolRun run = Run(command + " >/dev/full");
        EXPECT_EQ(run.status, 1) << command;
        EXPECT_THAT(run.err, HasSubstr("shdtool: cannot write to standard output: ")) << command;
    }
    EXPECT_THAT(Run("frobnicate --json >/dev/full").err, HasSubstr("there is no command"));
    EXPECT_NE(std::system(MCUSIM_BINARY " --help >/dev/full"), 0);
}

TEST_F(ToolCommands, NamesTheTimeLimitAsItWasGiven) {
    hub_->Simulate("delay 1000");
    EXPECT_THAT(Run("version --timeout 0.25").err, HasSubstr("from the daemon within 250 ms"));
    hub_->Simulate("delay 0");
    EXPECT_EQ(Run("version").status, 0);
}

TEST_F(ToolCommands, WarnsOfASensorThatFillsTheLine) {
    const ToolRun text = Run("enable rotation-vector --period 1");
    EXPECT_THAT(text.err, HasSubstr("warning: rotation-vector alone needs 23.2 kB/s"));
    const json object = json::parse(Run("enable rotation-vector --period 1 --json").out);
    EXPECT_EQ(object["warnings"].size(), 1u);
    (void)Run("disable rotation-vector");
}

// What a shell makes of a line at whose end Tab is pressed.
TEST_F(ToolCommands, BashAndZshCompleteTheLine) {
    const struct {
        std::string typed;
        std::string completed;
    } rows[] = {
        {"shdtool wat", "shdtool watch "},
        {"shdtool enable gy", "shdtool enable gyroscope "},
        {"shdtool --json watch --pl", "shdtool --json watch --plot "},
        {"shdtool rawdata b", "shdtool rawdata both "},
        {"shdtool audit --sensor heart", "shdtool audit --sensor heart-rate "},
        {"shdtool dump decode 3", "shdtool dump decode 3 "},
        {"shdtool image show /etc/hostn", "shdtool image show /etc/hostname "},
        {"shdtool --root " + hub_->root() + "/pick", "shdtool --root " + hub_->root() + "/picked/"},
        {"mcusim --send br", "mcusim --send brownout "},
        {"mcusim --replay /etc/hostn", "mcusim --replay /etc/hostname "},
    };
    hub_->WriteFile("/pickle", "");  // no directory
    std::filesystem::create_directory(hub_->root() + "/picked");
    const std::string line = hub_->root() + "/line";
    const std::pair<std::string, std::string> shells[] = {
        {"bash --norc --noprofile -i",
         "bind -x '\"\\C-t\": printf %s \"[$READLINE_LINE]\" >" + line + "'"},
        {"zsh -f -i",
         "autoload -U compinit; compinit -D -u; show() { print -rn -- \"[$BUFFER]\" >" + line +
             "; }; zle -N show; bindkey '^T' show"},
    };
    for (const auto& [shell, keys] : shells) {
        const std::string name = shell.substr(0, shell.find(' '));
        if (std::system(("command -v " + name + " >/dev/null").c_str()) != 0) {
            ADD_FAILURE() << name << " is not installed; scripts/setup does that";
            continue;
        }
        ToolWindow window(hub_->root(), shell, 200, 50);
        window.Press(keys + "; for t in shdtool mcusim; do f=--completion; [ $t = mcusim ] || " +
                     "f=completion; source <($t $f " + name + "); done; echo re''ady\r");
        window.WaitForBytes("ready\r\n");
        for (const auto& row : rows) {
            hub_->WriteFile("/line", "");
            window.Press("\x15" + row.typed + "\t\x14");  // clears the line, and shows it
            Eventually(name + " shows the line of " + row.typed, [&] {
                window.WaitForBytes("");
                return hub_->ReadFile("/line").ends_with("]");
            });
            EXPECT_EQ(hub_->ReadFile("/line"), "[" + row.completed + "]") << name;
        }
    }
}

TEST_F(ToolCommands, ManualPagesAreSetWithoutAWarning) {
    const std::string page = hub_->root() + "/page";
    for (const std::string name : {"shdtool", "mcusim"}) {
        ToolWindow window(
            hub_->root(),
            "sh -c '" + name + " --manual | groff -man -Tascii -ww -P-cbou >" + page + "'", 80, 24);
        EXPECT_EQ(window.Status(), 0);
        EXPECT_EQ(window.bytes(), "") << name;  // the warnings
        const std::string text = hub_->ReadFile("/page");
        for (const char* part : {"NAME", "SYNOPSIS", "OPTIONS", "--version"}) {
            EXPECT_THAT(text, HasSubstr(part)) << name;
        }
    }
}

}  // namespace
