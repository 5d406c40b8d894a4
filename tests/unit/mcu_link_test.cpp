// The link to the MCU: assembly of messages, the serial port, ownership of the line, the exchange.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "mcu_link/exchange/exchange.h"
#include "mcu_link/line.h"
#include "mcu_link/recovery/wake.h"
#include "mcu_link/uart_reader.h"
#include "sensor_commands/sensor_commands.h"
#include "tests/support/fake_uart.h"
#include "tests/support/in_child.h"
#include "tests/support/test_hub.h"
#include "update_mcu/bootloader_link.h"
#include "update_mcu/mcu_update.h"

namespace {

using namespace shdtest;

struct RecordingSink final : McuEventSink {
    int OnEvent(McuMessage* raw_message) override {
        const McuMessagePtr message(raw_message);
        texts += "[" + std::string(message->text()) + "]";
        return ++count;
    }
    std::string texts;
    std::atomic<int> count{0};
};

TEST(MessageAssembler, DamagedFramesCostOnlyThemselves) {
    std::vector<uint8_t> stream = Bytes("7E 7E");  // line noise before the first frame
    const auto append = [&stream](const std::vector<uint8_t>& bytes) {
        stream.insert(stream.end(), bytes.begin(), bytes.end());
    };
    append(Frame("04 61"));
    append(Frame("04 62 7D 7E"));
    append(Bytes("04 78 00 00 7E"));  // wrong check sequence
    append(Frame("06 78"));           // unknown channel
    append(Frame("01 02 78"));        // short header
    append(Frame(""));
    append(std::vector<uint8_t>(1600, 0x04));  // longer than the buffer, its rest no frame either
    append(Bytes("7E"));
    append(Frame("04 63"));
    for (const size_t piece : {size_t{1}, size_t{7}, stream.size()}) {
        RecordingSink sink;
        MessageAssembler assembler(&sink);
        for (size_t i = 0; i < stream.size(); i += piece) {
            assembler.Feed(std::span(stream).subspan(i, std::min(piece, stream.size() - i)));
        }
        EXPECT_EQ(sink.texts, "[a][b}~][c]") << piece;
    }
}

TEST(MessageAssembler, LongestPayloadHas1497Bytes) {
    for (const size_t text_size : {1496U, 1497U}) {
        RecordingSink sink;
        MessageAssembler(&sink).Feed(Frame("04 " + Hex(std::string(text_size, 'x'))));
        EXPECT_EQ(sink.count, text_size == 1496 ? 1 : 0);
    }
}

struct SerialPortTest : testing::Test, CleanProcess {
    ~SerialPortTest() override {
        const LinkHold hold;
        port.Close();
    }
    int PortFd() {
        const MutexLock line(g_line.mutex());
        return port.fd();
    }
    BoardSerial port;
    uint8_t byte = 0x55;
};

TEST_F(SerialPortTest, MissingDeviceShowsInEveryCall) {
    for (const auto* when : {"before it is opened", "afterwards"}) {
        EXPECT_EQ(port.Write(&byte, 1), -1) << when;
        EXPECT_EQ(port.Read(&byte, 1), -1) << when;
        EXPECT_EQ(port.Open(), -1);
        EXPECT_LT(PortFd(), 0);
    }
}

TEST_F(SerialPortTest, EveryWriteWakesTheMcuFirst) {
    WriteFile("/dev/ttyHSL1", "");
    ASSERT_EQ(port.Open(), 0);
    EXPECT_EQ(port.Write(&byte, 1), 1);  // without the control file there is nothing to wake
    WriteFile("/proc/mcusleep/sleep", "");
    (void)TakeJournal();
    EXPECT_EQ(port.Write(&byte, 1), 1);
    EXPECT_EQ(ReadFile("/proc/mcusleep/sleep"), "0");
    EXPECT_EQ(TakeJournal(), List("line taken | line released"));
    EXPECT_EQ(port.Write(nullptr, -1), -1);
    LinkFile("/proc/mcusleep/sleep", "/dev/full");
    EXPECT_EQ(port.Write(&byte, 1), -1);
    EXPECT_EQ(TakeJournal({"shd_serial"}),
              List("E/shd_serial BoardSerial wakeup mcu failure err:-1"));
    EXPECT_EQ(ReadFile("/dev/ttyHSL1"), "UU");
}

TEST_F(SerialPortTest, LineSettingsOfBothLinks) {
    const TerminalUart terminal;
    termios settings{};
    g_hooks.on_settings = [&](const termios& asked) {  // a terminal has no parity to look at
        settings = asked;
        terminal.Send("04 79");  // what comes before the settings are complete is dropped
    };
    const auto pending = [](int fd) {
        int count = -1;
        return ioctl(fd, FIONREAD, &count) == 0 ? count : -1;
    };
    ASSERT_EQ(port.Open(), 0);
    EXPECT_EQ(pending(PortFd()), 0);
    EXPECT_EQ(settings.c_cflag & (CLOCAL | CSIZE | PARENB), static_cast<tcflag_t>(CLOCAL | CS8));
    EXPECT_EQ(settings.c_lflag & (ICANON | ECHO | ISIG | IEXTEN), 0U);
    EXPECT_EQ(settings.c_iflag & (ISTRIP | INPCK | ICRNL | IXON), 0U);
    EXPECT_EQ(cfgetospeed(&settings), static_cast<speed_t>(B115200));
    EXPECT_EQ(cfgetispeed(&settings), static_cast<speed_t>(B115200));
    const int update_port = open_mcu_tty();
    EXPECT_EQ(pending(update_port), 0);
    EXPECT_EQ(settings.c_iflag & (ISTRIP | INPCK), static_cast<tcflag_t>(ISTRIP | INPCK));
    EXPECT_EQ(settings.c_cflag & (CLOCAL | CSIZE | PARENB | PARODD | CSTOPB),
              static_cast<tcflag_t>(CLOCAL | CS8 | PARENB));
    EXPECT_NE(fcntl(update_port, F_GETFL) & O_SYNC, 0);
    close_mcu_tty();
}

TEST_F(SerialPortTest, WakeLockIsWrittenAndLogged) {
    SensorWakeLockAcquiredLocked(1);
    WriteFile("/proc/mcusleep/lpm", "");
    SensorWakeLockAcquiredLocked(0);
    SensorWakeLockAcquiredLocked(7);
    EXPECT_EQ(ReadFile("/proc/mcusleep/lpm"), "0");
    LinkFile("/proc/mcusleep/lpm", "/dev/full");
    EXPECT_LT(sensorhub_write_proc_file("1"), 0);
    EXPECT_EQ(TakeJournal(), List(R"(
        E/shd sensorhub_write_proc_file open /proc/mcusleep/lpm:No such file or directory!\n
        D/shd SensorWakeLockAcquiredLocked :1
        D/shd sensorhub_write_proc_file filename:/proc/mcusleep/lpm 1 ret:1 !\n
        D/shd SensorWakeLockAcquiredLocked :0
        D/shd sensorhub_write_proc_file filename:/proc/mcusleep/lpm 0 ret:1 !\n
        D/shd SensorWakeLockAcquiredLocked :7
        E/shd sensorhub_write_proc_file err:No space left on device!\n)"));
}

// The reader thread's port: a pipe, so that its read blocks like that of a silent line.
struct PipePort final : SerialPort {
    PipePort() { EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0); }
    ssize_t Read(uint8_t* buffer, size_t length) override { return read(ends[0], buffer, length); }
    ssize_t Write(const uint8_t* buffer, ssize_t length) override {
        return write(ends[1], buffer, static_cast<size_t>(length));
    }
    void Send(std::span<const uint8_t> bytes) {
        EXPECT_GT(Write(bytes.data(), static_cast<ssize_t>(bytes.size())), 0);
    }
    [[nodiscard]] int Pending() const {
        int count = 0;
        ioctl(ends[0], FIONREAD, &count);
        return count;
    }
    int ends[2];
};

struct LinkHoldTest : testing::Test, CleanProcess {};

TEST_F(LinkHoldTest, WriteOfThePortWaitsForTheEndOfAnUpdate) {
    WriteFile("/dev/ttyHSL1", "");
    WriteFile("/proc/mcusleep/sleep", "?");
    BoardSerial port;
    ASSERT_EQ(port.Open(), 0);
    std::atomic<pid_t> writer_id{0};
    std::atomic<bool> written{false};
    std::thread writer;
    g_hooks.on_readable = [&](int /*fd*/, auto /*timeout*/) {  // a bootloader that stays silent
        if (!writer.joinable()) {
            writer = std::thread([&] {
                writer_id = ThreadId();
                const uint8_t byte = 0;
                EXPECT_EQ(port.Write(&byte, 1), 1);
                written = true;
            });
        }
        while (!IsAsleep(writer_id) && !written) sched_yield();
        EXPECT_FALSE(written);
        EXPECT_EQ(ReadFile("/proc/mcusleep/sleep"), "?");
        return 0;
    };
    EXPECT_EQ(mcu_update(), -1);
    writer.join();
    const LinkHold hold;
    port.Close();
}

TEST_F(LinkHoldTest, KeepsABlockedReaderOffTheLineAndMakesItForget) {
    InChild([] {
        g_hooks.on_delay = [](auto) { sched_yield(); };
        PipePort port;
        RecordingSink sink;
        ListenArgs args{&sink, &port};
        sigset_t interrupt;  // as whoever started the daemon may have left it
        sigemptyset(&interrupt);
        sigaddset(&interrupt, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
        pthread_t thread{};
        ASSERT_EQ(pthread_create(&thread, nullptr, ListsenThread, &args), 0);
        port.Send(Frame("04 61"));
        while (sink.count < 1) sched_yield();

        const auto frame = Frame("04 62");
        port.Send(std::span(frame).first(2));  // a reset cuts this frame off
        while (port.Pending() > 0) sched_yield();
        { const LinkHold hold; }
        port.Send(std::span(frame).subspan(2));
        while (port.Pending() > 0) sched_yield();
        // What arrives during a hold is there for the holder alone, however fast holds follow.
        for (int round = 0; round < 50000; ++round) {
            for (std::atomic<int> pause = round % 300; pause > 0; --pause) {
            }
            const LinkHold hold;
            uint8_t byte = 0x7E;
            port.Send({&byte, 1});
            sched_yield();
            ASSERT_EQ(port.Pending(), 1);
            ASSERT_EQ(port.Read(&byte, 1), 1);
        }
        port.Send(Frame("04 63"));
        while (sink.count < 2) sched_yield();
        EXPECT_EQ(sink.texts, "[a][c]");
        EndChild();  // with the thread still at work on port and sink
    });
}

struct ExchangeTest : testing::Test, TestHub {
    // The exchange's log in short: T timeout, R and W reboot asked for after a timeout or a failed
    // write, d the reboot's refusal, c a control reply.
    static std::string ShortLog() {
        std::string text;
        for (const std::string& line : TakeJournal({"shd"})) {
            if (line.starts_with("D/shd DequeueMessageTimeout Wait timeout, errno = ")) text += 'T';
            if (line == "D/shd SendSensorMsgAndWait to many error, reboot mcu") text += 'R';
            if (line == "D/shd SendSensorMsgAndWait wakeup to many error, reboot mcu") text += 'W';
            if (line == "E/shd SensorMcuReboot disable") text += 'd';
            if (line == "D/shd OnEvent Receive Mcu Control response") text += 'c';
        }
        return text + ",";
    }
};

TEST_F(ExchangeTest, RunsOfFailuresAskForAReboot) {
    for (const auto& row : Table(R"(
        tt     | T,TRd,     | 0
        ttt    | T,TRd,T,   | 1
        www    | ,,Wd,      | 0
        wwwwww | ,,Wd,,,Wd, | 0
        wt     | ,TRd,      | 0
        wwt    | ,,TRd,     | 0
        tw     | T,,        | 2
        tww    | T,,Wd,     | 0
        tst    | T,c,T,     | 1
        wwsww  | ,,c,,,     | 2)")) {  // t timeout, w failed write, s success; log; error_count
        hub.error_count = 0;
        std::string log;
        for (const char step : row[0]) {
            mcu.script = {step == 's'   ? ""
                          : step == 't' ? FakeMcu::kSilence
                                        : FakeMcu::kWriteFails};
            EXPECT_EQ(SensorHandshake(&hub, 2), step == 's' ? 0 : -1);
            log += ShortLog();
        }
        EXPECT_EQ(log, row[1]) << row[0];
        EXPECT_EQ(hub.error_count, Int(row[2])) << row[0];
    }
    McuPacket unfit{};
    unfit.frame_len = -1;
    McuMessagePtr reply;
    hub.error_count = 0;
    EXPECT_EQ(SendSensorMsgAndWait(&hub, unfit, &reply, 2), -1);
    EXPECT_EQ(SendSensorMsgAndWait(&hub, unfit, nullptr, 2), -1);  // counts for nothing
    EXPECT_EQ(hub.error_count, 1);
}

TEST_F(ExchangeTest, RepliesAreTakenInTheOrderOfTheirArrivalWhoeverAsked) {
    McuPacket packet{};
    BuildSensorPacket(&packet, 16, 0);
    McuMessagePtr reply;
    mcu.script = {FakeMcu::kSilence, FakeMcu::kSilence, FakeMcu::kSilence, "09"};
    EXPECT_EQ(SendSensorMsgAndWait(&hub, packet, &reply, 2), -1);
    Receive("01 01 10 00 07");  // the late reply, and one that nobody asked for
    Receive("01 00 21 05 08");
    for (const int first_byte : {7, 8, 9}) {
        EXPECT_EQ(SendSensorMsgAndWait(&hub, packet, &reply, 2), 0);
        EXPECT_EQ(reply->data[0], first_byte);
    }
    int waits = 0;
    g_hooks.on_wait = [&] {  // wakes up twice for nothing
        EXPECT_EQ(hub.replies_awaited, 1);
        if (++waits == 3) Receive("00 01 00");
        return true;
    };
    EXPECT_EQ(SensorHandshake(&hub, 2), 0);
    EXPECT_EQ(waits, 3);
    EXPECT_EQ(hub.replies_awaited, 0);
}

}  // namespace
