// The pieces of start-up, and the whole of it with an MCU that stays silent for long.
#include "core/startup.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <csignal>
#include <filesystem>
#include <thread>

#include "mcu_link/exchange/reboot_trigger.h"
#include "sensor_commands/mcu_parameters.h"
#include "tests/support/fake_uart.h"
#include "tests/support/in_child.h"
#include "tests/support/test_hub.h"

using namespace shd;

namespace {

using namespace shdtest;

struct StartupTest : testing::Test, CleanProcess {};

TEST_F(StartupTest, CalibrationIsReadWithinItsRange) {
    InitParameter();
    WriteFile("/nvdata/accclibration", "");
    WriteFile("/nvdata/BARO", "");
    InitParameter();
    EXPECT_EQ(TakeJournal(), Lines{});
    for (const auto& row : Table(R"(
        38 01 C8 FE 00 00    | 499       | 312 -312 0 | 38 01 C8 FE 00 00 | 499
        39 01 C8 FE 00 00    | -500      | 313 -312 0 | 38 01 C8 FE 00 00 | 499
        00 00 C7 FE 00 00    | 500       | 0 -313 0   | 38 01 C8 FE 00 00 | 499
        05                   | abc       | 5 0 0      | 05 00 00 00 00 00 | 0
        01 00 02 00 03 00 04 | -499x     | 1 2 3      | 01 00 02 00 03 00 | -499)")) {
        const auto bytes = Bytes(row[0]);
        WriteFile("/nvdata/accclibration",
                  {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
        WriteFile("/nvdata/BARO", row[1] + "\n");
        InitParameter();
        const std::string start = "D/shd InitParameter read clibration info :";
        EXPECT_EQ(TakeJournal(),
                  (Lines{start + row[2] + " res:313\\n", start + row[1] + "\\n\\n"}));
        EXPECT_EQ(Hex({reinterpret_cast<const uint8_t*>(g_acc_calibration), 6}), row[3]);
        EXPECT_EQ(g_baro_calibration, Int(row[4]));
    }
    WriteFile("/nvdata/BARO", std::string(63, ' ') + "123");  // only 64 bytes are read
    WriteFile("/nvdata/accclibration", std::string(6, '\0'));
    InitParameter();
    EXPECT_EQ(g_baro_calibration, 1);
    g_baro_calibration = 0;
}

TEST_F(StartupTest, InheritedSocketIsTakenFromTheEnvironment) {
    for (const auto& row :
         Table("7|7 \n 0|0 \n -3|-3 \n 12x|12 \n |0 \n x|0 \n 99999999999999999999|-1")) {
        setenv("ANDROID_SOCKET_shdtest", row[0].c_str(), 1);
        EXPECT_EQ(GetInheritedSocket("shdtest"), Int(row[1])) << row[0];
    }
    EXPECT_EQ(GetInheritedSocket("shdabsent"), -1);
    setenv(("ANDROID_SOCKET_" + std::string(47, 'n')).c_str(), "5", 1);
    EXPECT_EQ(GetInheritedSocket(std::string(60, 'n').c_str()), 5);
}

TEST_F(StartupTest, SocketThatCannotListenEndsTheProcess) {
    InChild([] {
        EXPECT_EQ(SetCoreDumpLimit(), 0);
        rlimit limit{};
        getrlimit(RLIMIT_CORE, &limit);
        EXPECT_EQ(limit.rlim_cur, limit.rlim_max);
        const int no_socket = open("/dev/null", O_RDONLY | O_CLOEXEC);
        setenv("ANDROID_SOCKET_shdctl", std::to_string(no_socket).c_str(), 1);
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = 64;
        setrlimit(RLIMIT_NOFILE, &limit);
        std::atexit([] {
            rlimit files{};
            getrlimit(RLIMIT_NOFILE, &files);
            EXPECT_EQ(files.rlim_cur, files.rlim_max);
            EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_IGN);
            EXPECT_EQ(TakeJournal(),
                      List(R"(E/shd Listen on socket failed: Socket operation on non-socket\n)"));
            EndChild();
        });
        RunDaemon();
        ADD_FAILURE();
    });
}

TEST_F(StartupTest, FailedFirmwareUpdateEndsTheStart) {
    setenv("ANDROID_SOCKET_shdctl", "0", 1);  // not a socket that init passed on
    EXPECT_EQ(RunDaemon(), -1);
    const Lines log = TakeJournal({"shd", "socket", "update_mcu"});
    ASSERT_EQ(log.size(), 12U);
    EXPECT_TRUE(log[0].starts_with("D/shd Failed to get shdctl from environment: ")) << log[0];
    EXPECT_TRUE(log[2].starts_with("D/shd Failed to get shddata from environment: ")) << log[2];
    EXPECT_EQ(log[1] + " " + log[3], "socket shdctl 1 1 socket shddata 1 1");
    EXPECT_EQ(log[6], "I/update_mcu get mcu current version error, go to update!\\n");
    EXPECT_EQ(log[11], "E/update_mcu mcu_init error!\\n");
}

// The servers' threads go on until the process ends; asan sees them touch what has gone.
TEST_F(StartupTest, ReaderThatCannotBeCreatedEndsTheStartUnderRunningServers) {
    InChild([] {
        FakeUart uart;
        uart.script = {Hex(Frame("01 01 0F 00 31 2E 39 30 30 00"))};
        WriteFirmwareImage("1.900", "x");
        std::vector<int> sockets;
        g_hooks.on_local_server = [&sockets](const std::string& name) {
            return sockets.emplace_back(dup(Listen("/" + name).get()));  // not close-on-exec
        };
        int threads = 0;
        g_hooks.on_thread = [&threads] { return ++threads == 3 ? EAGAIN : 0; };
        EXPECT_EQ(RunDaemon(), -1);
        for (const int fd : sockets) EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(TakeJournal({"shd"}).back(), "E/shd pthread_create ListsenThread failure");
        const UniqueFd control = Connect("/shdctl"), data = Connect("/shddata");
        const ClientRequest request{};
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(send(control.get(), &request, sizeof(request), MSG_NOSIGNAL), 32);
            EXPECT_EQ(send(data.get(), &request, 1, MSG_NOSIGNAL), 1);
            usleep(1000);
        }
        int unread = -1;  // the servers take in what is sent
        while (ioctl(control.get(), SIOCOUTQ, &unread) == 0 && unread != 0) usleep(1000);
    });
}

// With thirteen handshakes in vain and then one request from a client.
void ExpectStartUpLog() {
    Lines expected = List(R"(
        delay 2000000
        D/shd Start sensorhub daemon, control server create ok
        D/shd Send Handshake to sensorhub)");
    for (int handshake = 1; handshake <= 13; ++handshake) {
        const std::string log = handshake < 12 ? "" : R"(
            W/shd SensorMcuReboot Handshake timeout update mcu | I/update_mcu mcu_update enter!\n
            delay 2000000 | I/update_mcu mcu_update ok!\n)";
        for (const std::string& line : List("W/shd Handshake timeout | delay 2000000" + log)) {
            expected.push_back(line);
        }
    }
    for (const std::string& line : List(R"(
        D/shd Handshake OK | D/shd Set shd log debug : 2 | D/shd Set shd mcu reboot disable : 2
        D/shd Set parameter | D/shd Set parameter OK, start loop
        property persist.velmar.shd.rawdatatype=3
        D/shd Set MCU Raw data Log Level : 3
        D/shd ProcessMessage SHB_DEBUG_LOG flag:0!)")) {
        expected.push_back(line);
    }
    Lines log = TakeJournal({"shd", "update_mcu", "delay", "property"});
    std::erase_if(log, [&](const std::string& line) {
        return std::find(expected.begin(), expected.end(), line) == expected.end();
    });
    EXPECT_EQ(log, expected);
    EXPECT_EQ(g_mcu_reboot_disable, 2);
    EXPECT_NE(Hex(ReadFile("/dev/ttyHSL1")).find("01 00 17 13 05 00 00 00"), std::string::npos);
}

// The UART is a plain file: what stands behind the port's position is what the MCU has sent.
TEST_F(StartupTest, SilentMcuIsUpdatedFromTheTwelfthHandshakeOnAndThenServed) {
    InChild([] {
        FakeUart uart;  // acknowledges whatever the updater sends
        uart.script = {Hex(Frame("01 01 0F 00 31 2E 39 30 30 00"))};
        WriteFirmwareImage("1.900", "x");  // the version that runs
        SetProperty("persist.velmar.shd.debug", "2");
        SetProperty("persist.velmar.shd.mcureboot", "2");
        SetProperty("persist.velmar.shd.rawdatatype", "3");
        g_hooks.on_local_server = [](const std::string& name) {
            return Listen("/" + name).Release();
        };
        g_hooks.on_delay = [](auto) {  // the version check ends with a reset and an empty line
            if (!g_board_serial.is_open())
                std::filesystem::resize_file(HostPath("/dev/ttyHSL1"), 0);
        };
        int handshakes = 0;
        g_hooks.on_wait = [&handshakes] {
            if (handshakes == 0) {
                std::thread([] {
                    const UniqueFd client = Connect("/shdctl");
                    ClientRequest request{};
                    request.command = 14;
                    EXPECT_EQ(send(client.get(), &request, sizeof(request), 0), 32);
                    char reply[272];
                    EXPECT_EQ(recv(client.get(), reply, sizeof(reply), MSG_WAITALL), 272);
                    ExpectStartUpLog();
                    EndChild();
                }).detach();
            }
            if (++handshakes < 14) return false;
            const MutexLock line(g_line.mutex());
            const off_t position = lseek(g_board_serial.fd(), 0, SEEK_CUR);
            const auto frame = Frame("01 01 00 00 00");
            if (ReadFile("/dev/ttyHSL1").size() <= static_cast<size_t>(position)) {
                EXPECT_GT(pwrite(g_board_serial.fd(), frame.data(), frame.size(), position), 0);
            }
            return true;
        };
        RunDaemon();
    });
}

}  // namespace
