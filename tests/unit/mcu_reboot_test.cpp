// The recovery of a silent MCU: order of everything it does, and its ways out.
#include "mcu_link/recovery/mcu_reboot.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>

#include "mcu_link/exchange/reboot_trigger.h"
#include "sensor_commands/mcu_config.h"
#include "tests/support/fake_uart.h"
#include "tests/support/test_hub.h"
#include "update_mcu/bootloader_link.h"
#include "update_mcu/mcu_update.h"

namespace {

using namespace shdtest;

auto Count(const Lines& lines, const std::string& line) {
    return std::count(lines.begin(), lines.end(), line);
}

struct RebootTest : testing::Test, TestHub {
    RebootTest() {
        g_mcu_reboot_disable = 0;
        for (const auto* file :
             {"mcusleep/lpm", "mcu/gpio_mcu_boot0", "mcu/gpio_mcu_boot1", "mcu/gpio_mcu_reset"}) {
            WriteFile(std::string("/proc/") + file, "?");
        }
    }
    ~RebootTest() override {
        const LinkHold hold;
        g_board_serial.Close();
    }

    // Runs a recovery that gives up with the given line.
    Lines LogOfFailure(const std::string& last) {
        SensorMcuReboot(&hub);
        const Lines log = TakeJournal({"line", "shd", "shd_serial", "update_mcu"});
        EXPECT_EQ(log[log.size() - 3], last);
        EXPECT_EQ(log.back(), "D/shd SensorWakeLockAcquiredLocked :0");
        EXPECT_EQ(g_mcu_rebooting, 0);
        EXPECT_EQ(g_mcu_rebooted, 0);
        return log;
    }
    FakeUart uart;
};

TEST_F(RebootTest, ResetsReopensAndRestoresInOrder) {
    SetProperty("persist.velmar.shd.mculog", "3");
    const McuHealthParam health = {{0x1234, 0x5678, 0x00012345, 0xABCD}};
    (void)McuHealthConfig(&hub, &health);
    for (const int handle : {18, 19, 21, 27}) State(handle).enable = 1;
    State(19).period_ms = 100;
    State(19).batchcnt = 5;
    g_hooks.on_delay = [](auto) {
        Note("pins", ReadFile("/proc/mcu/gpio_mcu_boot1") + ReadFile("/proc/mcu/gpio_mcu_boot0") +
                         ReadFile("/proc/mcu/gpio_mcu_reset"));
    };
    g_hooks.on_entry = [](const std::string& entry) {
        EXPECT_TRUE(entry != "mcu 01 00 30 00" || g_mcu_rebooted == 1);  // its steps are re-based
        EXPECT_TRUE(!entry.ends_with("lpm 1 ret:1 !\\n") || g_mcu_rebooting == 0);
    };
    (void)TakeJournal();
    SensorMcuReboot(&hub);
    EXPECT_EQ(TakeJournal(), List(R"(
        D/shd sensorhub_write_proc_file filename:/proc/mcusleep/lpm 0 ret:1 !\n
        D/shd SensorWakeLockAcquiredLocked :1
        line taken | delay 12000 | pins 000 | delay 2000000 | pins 001
        D/shd SensorMcuReboot ReInit uart | delay 20000 | pins 001 | line released
        delay 1000000 | pins 001 | mcu 00 00 00 | wait 2 s
        D/shd OnEvent Receive Mcu Control response
        D/shd SensorMcuReboot Handshake OK
        property persist.velmar.shd.mculog=3 | mcu 01 00 0D 00 01 03 | wait 10 s
        D/shd SensorMcuReboot Set MCU Log Level : 3
        D/shd SensorMcuReboot Set parameter
        mcu 01 00 10 13 00 00 00 00 00 00 | wait 10 s | mcu 01 00 16 13 00 00 00 00 | wait 10 s
        mcu 01 00 17 13 05 00 00 00 | wait 10 s | mcu 01 00 11 13 00 00 00 00 | wait 10 s
        D/shd SensorMcuReboot SensorActive:18
        mcu 01 00 30 01 | wait 2 s
        mcu 01 00 30 03 64 00 00 00 05 00 00 00 00 00 00 00 | wait 2 s | mcu 01 00 30 00 | wait 2 s
        D/shd SensorMcuReboot SensorActive:19
        D/shd SensorMcuReboot sensor:26 not enable
        mcu 01 00 40 01 | wait 2 s | mcu 01 00 0C 01 00 98 F7 3E 5D 01 00 00 | wait 2 s
        mcu 01 00 40 20 34 78 45 23 CD AB | wait 2 s
        mcu 01 00 40 03 00 00 00 00 00 00 00 00 00 00 00 00 | wait 2 s | mcu 01 00 40 00 | wait 2 s
        D/shd SensorMcuReboot SensorActive:27
        D/shd sensorhub_write_proc_file filename:/proc/mcusleep/lpm 1 ret:1 !\n
        D/shd SensorWakeLockAcquiredLocked :0)"));
    EXPECT_EQ(State(18).virtual_enable, 1);
    EXPECT_EQ(g_mcu_rebooted, 1);
    EXPECT_EQ(g_mcu_rebooting, 0);
    EXPECT_TRUE(g_board_serial.is_open());
}

TEST_F(RebootTest, SilentMcuIsUpdatedFromTheTwelfthHandshakeOn) {
    mcu.unscripted = FakeMcu::kSilence;
    uart.unscripted = FakeUart::kSilence;  // the update fails, which ends the recovery at once
    Lines log = LogOfFailure("E/shd SensorMcuReboot Handshake timeout index:11 update mcu failure");
    EXPECT_EQ(Count(log, "W/shd SensorMcuReboot Handshake timeout"), 12);
    EXPECT_EQ(Count(log, "W/shd SensorMcuReboot Handshake timeout update mcu"), 1);
    EXPECT_EQ(Count(log, "E/shd SensorMcuReboot thread has exist"), 6);  // every second timeout
    uart.unscripted = "79";  // the updates succeed but do not help
    WriteFirmwareImage("1.900", "x");
    log = LogOfFailure("E/shd SensorMcuReboot Handshake timeout index:21 update mcu failure");
    EXPECT_EQ(Count(log, "W/shd SensorMcuReboot Handshake timeout"), 22);
    EXPECT_EQ(Count(log, "I/update_mcu mcu_update ok!\\n"), 11);
}

TEST_F(RebootTest, PortIsOpenedAgainUntilTheTwelfthAttempt) {
    const std::string failure = "E/shd_serial BoardSerial ReInit open uart failure";
    std::filesystem::remove(HostPath("/dev/ttyHSL1"));
    Lines log = LogOfFailure("E/shd SensorMcuReboot init UART timeout index:11 update mcu failure");
    EXPECT_EQ(Count(log, failure), 12);
    EXPECT_EQ(Count(log, "W/shd SensorMcuReboot init UART timeout update mcu"), 1);
    EXPECT_EQ(Count(log, "line taken"), 13);  // each attempt and the update
    // A port that opens at that attempt is followed by one update, then by the handshake.
    WriteFirmwareImage("1.900", "x");
    int attempts = 0;
    g_hooks.on_delay = [&attempts](std::chrono::microseconds duration) {
        if (duration.count() == 20'000 && ++attempts == 12) WriteFile("/dev/ttyHSL1", "");
    };
    SensorMcuReboot(&hub);
    log = TakeJournal({"shd", "shd_serial", "update_mcu"});
    EXPECT_EQ(Count(log, failure), 11);
    EXPECT_EQ(Count(log, "I/update_mcu mcu_update ok!\\n"), 1);
    EXPECT_EQ(Count(log, "D/shd SensorMcuReboot Handshake OK"), 1);
    EXPECT_EQ(g_mcu_rebooted, 1);
}

TEST_F(RebootTest, LineHasItsNormalSettingsAfterAnUpdateAndAfterAReboot) {
    const TerminalUart terminal;
    g_hooks.on_readable = nullptr;
    EXPECT_EQ(g_board_serial.Open(), 0);
    EXPECT_EQ(mcu_update(), -1);
    EXPECT_FALSE(terminal.strips_bytes());
    EXPECT_GE(open_mcu_tty(), 0);
    close_mcu_tty();
    EXPECT_TRUE(terminal.strips_bytes());
    SensorMcuReboot(&hub);
    EXPECT_FALSE(terminal.strips_bytes());
}

TEST_F(RebootTest, VirtualSensorIsSwitchedOffAndOnAgain) {
    SensorState& detector = State(18);
    detector.enable = detector.virtual_enable = 1;
    g_hooks.named_locks = {{&g_sensor_state_mutex, "state"}};
    std::string values;
    g_hooks.on_entry = [&](const std::string& entry) {
        if (entry == "state released") values += std::to_string(detector.virtual_enable);
    };
    SensorMcuReboot(&hub);
    EXPECT_NE(values.find("101"), std::string::npos) << values;
}

TEST_F(RebootTest, OfTwoThreadsThatAskAtOnceOneStartsIt) {
    std::atomic<int> starting = 0, most = 0, waiting = 0;
    g_hooks.on_thread = [&] {
        ++starting;
        for (int i = 0; i < 100; ++i) most = std::max<int>(most, starting);
        --starting;
        return EAGAIN;  // which ends it
    };
    const auto ask = [&] {
        for (int turn = 1; turn <= 10'000; ++turn) {
            ++waiting;
            for (int spins = 1; waiting < 2 * turn; ++spins) {  // for the other one
                if (spins % 1000 == 0) sched_yield();
            }
            EXPECT_EQ(StartMcuReboot(&hub), -1);
        }
    };
    std::thread other(ask);
    ask();
    other.join();
    EXPECT_EQ(most, 1);
    EXPECT_EQ(g_mcu_rebooting, 0);
}

TEST_F(RebootTest, OneRunsAtATimeAndNoneWhenDisabled) {
    g_mcu_reboot_disable = -1;
    EXPECT_EQ(StartMcuReboot(&hub), -1);
    EXPECT_EQ(SensorMcuRebootFn(nullptr), nullptr);
    EXPECT_EQ(TakeJournal(),
              List("E/shd SensorMcuReboot disable | E/shd SensorMcuRebootFn param NULL"));
    g_mcu_reboot_disable = 0;
    int second_start = 0;
    int detached = -1;
    g_hooks.on_delay = [&](auto) {
        second_start = StartMcuReboot(&hub);
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getdetachstate(&attributes, &detached);
        pthread_attr_destroy(&attributes);
    };
    EXPECT_EQ(StartMcuReboot(&hub), 0);
    Lines log;
    while (log.empty() || log.back() != "D/shd SensorWakeLockAcquiredLocked :0") {
        for (const std::string& line : TakeJournal({"shd"})) log.push_back(line);
        sched_yield();
    }
    EXPECT_EQ(second_start, -1);
    EXPECT_EQ(detached, PTHREAD_CREATE_DETACHED);                        // nobody joins it
    EXPECT_EQ(Count(log, "E/shd SensorMcuReboot thread has exist"), 4);  // one for each delay
    EXPECT_EQ(g_mcu_rebooted, 1);
}

}  // namespace
