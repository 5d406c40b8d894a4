// mcusim as a program: its command line, its files, each of its commands, its end.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/integration/hub.h"
#include "tools/client/local_socket.h"

namespace fs = std::filesystem;

namespace {

struct Outcome {
    int status;
    std::string out, err;
};

// A directory of its own for each test, with what the program needs.
struct McuSimProgram : testing::Test {
    McuSimProgram() { fs::create_directories(dir); }
    ~McuSimProgram() override { fs::remove_all(dir); }

    [[nodiscard]] static std::string Content(const fs::path& path) {
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }

    // Runs a line of bash in which "mcusim" is the program and the directory is the present one.
    [[nodiscard]] Outcome Shell(const std::string& line) const {
        Write("line.sh", "cd '" + dir.string() + "'; unset SHD_ROOT XDG_RUNTIME_DIR\nmcusim() { '" +
                             MCUSIM_BINARY + "' \"$@\"; }\n" + line + "\n");
        const std::string base = dir.string() + "/";
        const int status = std::system(
            ("timeout 60 bash " + base + "line.sh </dev/null >" + base + "out 2>" + base + "err")
                .c_str());
        return {WEXITSTATUS(status), Content(dir / "out"), Content(dir / "err")};
    }

    void Write(const std::string& name, const std::string& text) const {
        std::ofstream(dir / name) << text;
    }

    // A simulator on the directory "hub", until the end of the test.
    void Start() {
        simulator.emplace(std::vector<std::string>{MCUSIM_BINARY, "--root", dir / "hub", "--baud",
                                                   "0", "--boot-delay", "0"},
                          dir / "log");
        Eventually("mcusim serves", [&] {
            return shdclient::ConnectLocal(shdclient::SocketPath((dir / "hub").string(), "mcusim"))
                .ok();
        });
    }

    const fs::path dir = testing::TempDir() + "mcusim-program." + std::to_string(getpid());
    std::optional<Process> simulator;
};

TEST_F(McuSimProgram, WrongUsageIsOneLineAndStatusTwo) {
    const std::pair<const char*, const char*> rows[] = {
        {"", "name the directory: --root DIR, or SHD_ROOT"},
        {"--root", "--root: 1 required  missing"},
        {"--no-such", "not expected: --no-such"},
        {"hang", "not expected: hang"},
        {"--root hub --baud fast", "--baud: 'fast' is not a whole number from 0"},
        {"--root hub --seed 4294967296", "--seed: '4294967296' is not a whole number"},
        {"--root hub --boot-delay -1", "--boot-delay: '-1' is not a number from 0 to 3600"},
        {"--root hub --flash-time-scale nan", "'nan' is not a number from 0 to 1000"},
        {"--root hub --blank --firmware-version 1.900.1", "excludes"},
        {"--root hub --replay f --record g", "excludes"},
        {"--root hub --replay-gap 1", "requires --replay"},
        {"--root hub --signal gravity", "--signal gravity: write SENSOR=FILE with one of"},
        {"--root hub --signal ppg=f", "--signal ppg=f: write SENSOR=FILE with one of"},
        {"--completion fish", "'fish' is none of bash, zsh"},
    };
    for (const auto& [arguments, complaint] : rows) {
        SCOPED_TRACE(arguments);
        const Outcome outcome = Shell(std::string("mcusim ") + arguments);
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.out, "");
        EXPECT_TRUE(outcome.err.starts_with("mcusim: ")) << outcome.err;
        EXPECT_EQ(std::ranges::count(outcome.err, '\n'), 1) << outcome.err;
        EXPECT_NE(outcome.err.find(complaint), std::string::npos) << outcome.err;
    }
    EXPECT_FALSE(fs::exists(dir / "hub"));
}

TEST_F(McuSimProgram, AFileThatIsNotWhatItShouldBeIsRefusedWithItsName) {
    Write("empty", "");
    Write("steps", "# a comment alone\n");
    Write("bad", "at 1s hang\nat 2s jump\n");
    Write("line", "0.1 > 01\n0.2 < 0\n");
    Write("row", "1,60\n");
    const std::pair<const char*, const char*> rows[] = {
        {"--script none", "cannot read none: No such file or directory"},
        {"--script .", "cannot read .: it is a directory"},
        {"--script /dev/null", "cannot read /dev/null: it is no regular file"},
        {"--replay empty", "cannot read empty: it is empty"},
        {"--replay steps", "steps: no steps"},
        {"--replay line", "line:2: bytes are pairs of hexadecimal digits"},
        {"--script bad", "bad:2: no command \"jump\"; try help"},
        {"--signal gravity=row", "row:1: 2 columns where gravity needs time_s and 3"},
        {"--trace .", ".: Is a directory"},
        {"--record none/at/all", "none/at/all: No such file or directory"},
        {"--send stats", "No such file or directory"},
    };
    for (const auto& [arguments, complaint] : rows) {
        SCOPED_TRACE(arguments);
        const Outcome outcome = Shell(std::string("mcusim --root hub ") + arguments);
        EXPECT_EQ(outcome.status, 1);
        EXPECT_TRUE(outcome.err.starts_with("mcusim: ")) << outcome.err;
        EXPECT_NE(outcome.err.find(complaint), std::string::npos) << outcome.err;
        EXPECT_FALSE(fs::exists(dir / "hub")) << "something was left behind";
    }
}

TEST_F(McuSimProgram, EachCommandDoesWhatItSaysOrSaysWhatIsWrong) {
    const std::pair<const char*, const char*> rows[] = {
        // an answer's beginning
        {"help", "ok help; hang [hard]; "},
        {"tilt", "error: the wrist-tilt sensor is off"},
        {"drop 0.5", "ok"},
        {"drop 1.5", "error: probability"},
        {"drop", "error: "},
        {"drop 0", "ok"},
        {"corrupt 0", "ok"},
        {"delay -1", "error: "},
        {"delay 0", "ok"},
        {"status 16 0x22 3 1", "ok"},
        {"status 16 256 3", "error: "},
        {"noreply 0x10 34", "ok"},
        {"noreply 16", "error: "},
        {"log two words", "ok"},
        {"steps +2", "ok"},
        {"steps 0", "error: "},
        {"heart 70", "ok"},
        {"heart auto", "ok"},
        {"heart fast", "error: "},
        {"fault in 3 drop", "ok"},
        {"fault sideways 3 drop", "error: the direction"},
        {"fault out 3 melt", "error: no such fault"},
        {"fault none", "ok"},
        {"nack 3", "ok"},
        {"mute 0", "ok"},
        {"mute 1 0", "error: "},
        {"fault in 2 flip 8", "error: "},
        {"flip 0x08000000 8", "error: "},
        {"flip 0x08080000 0", "error: "},
        {"hang", "ok"},
        {"log hung", "error: the application is not running"},
        {"resume", "ok"},
        {"hang softly", "error: "},
        {"reset now", "error: "},
        {"crash 0", "error: "},
        {"crash 3 noreboot", "ok 3600 bytes in 3 pieces"},
        {"flip 0x08000500 3", "ok"},
        {"reset", "ok"},
        {"brownout 1", "ok"},
        {"frobnicate", "error: no command \"frobnicate\"; try help"},
        {"stats", "ok {\"uptime_s\":"},
        {"quit", "ok"},
    };
    Start();
    std::string names = "; " + Shell("mcusim --root hub --send help").out.substr(3);
    for (const auto& [command, answer] : rows) {
        SCOPED_TRACE(command);
        Eventually("the board has started", [&] {
            return Shell("mcusim --root hub --send stats").out.find("\"boot\"") ==
                   std::string::npos;
        });
        const Outcome outcome = Shell(std::string("mcusim --root hub --send '") + command + "'");
        EXPECT_TRUE(outcome.out.starts_with(answer)) << outcome.out;
        EXPECT_EQ(outcome.status, outcome.out.starts_with("ok") ? 0 : 1);
        const std::string name =
            "; " + std::string(command).substr(0, std::string(command).find(' '));
        for (const char* end : {" ", ";", "\n"}) {
            const size_t found = names.find(name + end);
            if (found != std::string::npos) names.erase(found, name.size());
        }
    }
    EXPECT_EQ(names.find("; "), std::string::npos) << "commands without a row: " << names;
    Eventually("mcusim ends", [&] { return simulator->Status().has_value(); });
    EXPECT_EQ(*simulator->Status(), 0);
    EXPECT_FALSE(fs::exists(dir / "hub"));
}

TEST_F(McuSimProgram, AScriptRunsItsStepsAndTellsWhatCameOfThem) {
    Write("script",
          "at 0s crash 1        # nothing runs yet\n\nevery 40ms steps +1\n"
          "at 120ms help\nat 150ms quit\n");
    const Outcome outcome = Shell("mcusim --root hub --boot-delay 3 --script script");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(outcome.out.starts_with("mcusim: ready hub\nscript:4: help; hang")) << outcome.out;
    EXPECT_EQ(outcome.err, "script:1: error: the application is not running\n");
}

TEST_F(McuSimProgram, EverySignalThatEndsItLeavesNothingBehind) {
    for (const int number : {SIGHUP, SIGINT, SIGTERM}) {
        SCOPED_TRACE(number);
        Start();
        kill(simulator->pid(), number);
        Eventually("mcusim ends", [&] { return simulator->Status().has_value(); });
        EXPECT_EQ(*simulator->Status(), 0);
        EXPECT_FALSE(fs::exists(dir / "hub"));
    }
}

TEST_F(McuSimProgram, SendFindsTheRunningDemoHubAndNeverAStaleOne) {
    Start();
    const std::string link = "ln -sfn " + (dir / "hub").string() + " shd-demo-$UID; ";
    const std::string send = "XDG_RUNTIME_DIR=$PWD mcusim --send stats";
    EXPECT_EQ(Shell(send).status, 2);
    EXPECT_EQ(Shell(link + send).status, 0);
    EXPECT_EQ(Shell("SHD_ROOT=$PWD/other " + send).status, 1) << "SHD_ROOT comes first";
    simulator.reset();
    EXPECT_EQ(Shell(send).status, 2) << "its simulator was killed";
}

TEST_F(McuSimProgram, CompletesOptionsSensorsCommandsAndFiles) {
    Write("walk.csv", "");
    const std::pair<const char*, const char*> rows[] = {
        {"--rep", "--replay --replay-gap"}, {"--signal step", "step-counter="},
        {"--send br", "brownout"},          {"--completion z", "zsh"},
        {"--script wa", "walk.csv"},
    };
    for (const auto& [words, offered] : rows) {
        SCOPED_TRACE(words);
        const Outcome outcome =
            Shell("eval \"$(mcusim --completion bash)\"; COMP_WORDS=(mcusim " + std::string(words) +
                  "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _mcusim; echo \"${COMPREPLY[@]}\"");
        EXPECT_EQ(outcome.out, std::string(offered) + "\n") << outcome.err;
    }
    EXPECT_EQ(Shell("mcusim --completion zsh | grep -c compdef").out, "2\n");
    EXPECT_EQ(Shell("mcusim --version | grep -cE '^mcusim [0-9]+'").out, "1\n");
    EXPECT_EQ(Shell("mcusim --help | awk 'length > 80' | wc -l").out, "0\n");
}

}  // namespace
