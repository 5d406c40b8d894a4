// Control commands byte for byte, and the state that they leave.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "core/control_commands.h"
#include "core/hub/debug_flag.h"
#include "core/main_loop.h"
#include "mcu_link/exchange/reboot_trigger.h"
#include "tests/support/test_hub.h"

using namespace shd;

namespace {

using namespace shdtest;

struct ControlTest : testing::Test, TestHub {
    ControlTest() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        client.Reset(ends[0]);
        server_end.Reset(ends[1]);
    }

    // Executes a request and returns what the client has received.
    std::string Ask(int32_t handle, int32_t command, const std::string& args = "") {
        QueuedRequest queued{server_end.get(), {0xAAAAAAAA, handle, 0xBBBBBBBB, command, {}}};
        const auto bytes = Bytes(args);
        std::copy(bytes.begin(), bytes.end(), queued.request.args);
        last_result = ProcessMessage(&hub, queued);
        return Hex(ReadAvailable(client.get()));
    }

    UniqueFd client, server_end;
    int last_result = 0;
};

// The whole reply: HANDLE COMMAND, then what stands from the result on.
std::string Reply(const std::string& handle, const std::string& command, const std::string& rest) {
    const auto word = [](const std::string& byte) {
        return " " + byte + (byte == "FF" ? " FF FF FF" : " 00 00 00");
    };
    std::string reply = "10 01 00 00" + word(handle) + " 01 00 00 00" + word(command);
    if (!rest.empty()) reply.append(" ").append(rest);
    while (reply.size() < 272 * 3 - 1) reply += " 00";
    return reply;
}

TEST_F(ControlTest, EveryCommandSendsItsRequestAndRepliesByteForByte) {
    const std::string words = "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10";
    // Handle, command, arguments; data of the MCU's reply; request to the MCU; the reply's handle
    // and command and what follows.
    for (const auto& row : Table(R"(
         0 |  0 | | 00 | 01 00 10 00 | 00 | 00 |
        21 |  0 | | 05 | 01 00 32 00 | 15 | 00 | 05
         5 |  1 | | FF | 01 00 11 01 | 05 | 01 | FF
         9 |  2 | words | 00 | 01 00 21 02 01 02 03 04 | 09 | 02 |
        21 |  3 | | 00 | 01 00 17 11 | 15 | 03 |
        19 |  3 | | 00 | 01 00 30 11 | 13 | 03 |
         0 |  4 | words | 00 | 01 00 10 13 01 02 03 04 05 06 | 00 | 04 |
         6 |  4 | words | 00 | 01 00 16 13 01 02 03 04 | 06 | 04 |
        19 |  4 | words | 00 | 01 00 30 13 | 13 | 04 |
         0 |  5 | | 11 12 13 14 15 16 07 | 01 00 10 12 | 00 | 05 | 07 00 00 00 11 12 13 14 15 16
        25 |  5 | | 11 12 13 14 00 | 01 00 17 12 | 19 | 05 | 00 00 00 00 11 12 13 14
        19 |  5 | | 09 12 | 01 00 30 12 | 13 | 05 | 09
        19 |  6 | 09 FF | 00 | 01 00 0D 00 09 FF | 00 | 06 |
        19 |  7 | 00 00 | 03 | 01 00 0D 01 00 00 | 00 | 07 | 03
        19 |  7 | 04 00 | | | 00 | 07 | FF FF FF FF
        19 |  8 | words | 00 | 01 00 40 20 01 05 09 0A 0D 0E | 00 | 08 |
        19 |  9 | FF FF FF FF | 00 | 01 00 0C 01 18 FC FF FF E7 03 00 00 | 00 | 09 |
        26 | 10 | words | 00 | 01 00 33 03 01 02 03 04 05 06 07 08 09 0A 0B 0C | 1A | 0A |
        15 | 10 | words | 00 | 01 00 23 03 01 02 03 04 00 00 00 00 09 0A 0B 0C | 0F | 0A |
        26 | 11 | | 00 00 09 | 01 00 33 04 | 1A | 0B |
         6 | 12 | | 41 42 00 43 | 01 00 16 22 | 06 | 0C | 41 42
         6 | 12 | | | 01 00 16 22 | 06 | 0C |
         0 | 13 | 02 00 | 41 42 | 01 00 0F 02 | 00 | 07 | 41 42
         0 | 13 | 00 01 | | 01 00 0F 01 | 00 | 07 |
         0 | 14 | 01 80 | | | 00 | 0E |
         0 | 15 | | | | 00 | FF | FF FF FF FF
         0 | 39 | | | | 00 | FF | FF FF FF FF
         0 | 42 | | | | 00 | FF | FF FF FF FF
         0 | -1 | | | | 00 | FF | FF FF FF FF
         8 |  0 | | | | 08 | FF | FF FF FF FF
        -1 | 13 | | | | FF | FF | FF FF FF FF
        28 |  0 | | | | 1C | FF | FF FF FF FF
        17 |  5 | | | | 11 | 00 |
        18 | 13 | | | | 12 | 00 |)")) {
        mcu.script = {row[3]};
        const std::string& args = row[2] == "words" ? words : row[2];
        EXPECT_EQ(Ask(Int(row[0]), Int(row[1]), args), Reply(row[5], row[6], row[7])) << row[1];
        EXPECT_EQ(TakeJournal({"mcu"}), List(row[4].empty() ? "" : "mcu " + row[4]));
    }
    EXPECT_EQ(Ask(0, 40) + Ask(0, 41), "");  // never answered
    EXPECT_EQ(g_shd_log_debug, 0x8001);
    EXPECT_EQ(Property("persist.velmar.shd.debug"), "32769");
}

TEST_F(ControlTest, DispatchIsLogged) {
    for (const auto& row : Table(R"(
        17 | 5  | D/shd ProcessVirtualSensor type:17 cmd:5
        8  | 13 | E/shd Process msg Invalid sensor   -1 ,command id =   13
        0  | 99 |
        0  | 7  | D/shd ProcessMcuRawDataConifg type:0
        0  | 13 | D/shd ProcessMcuVersion type:0 ret:0
        0  | 14 | D/shd ProcessMessage SHB_DEBUG_LOG flag:0!
        0  | 40 | D/shd ProcessMessage SHB_MCU_SLEEP!
        0  | 41 | D/shd ProcessMessage SHB_MCU_WAKEUP!)")) {
        (void)Ask(Int(row[0]), Int(row[1]));
        EXPECT_EQ(TakeJournal({"shd"}), List(row[2])) << row[1];
    }
    client.Reset();
    for (const int command : {0, 8, 9}) {
        (void)Ask(19, command);
        EXPECT_EQ(last_result, command == 0 ? 0 : -1);
    }
    EXPECT_EQ(TakeJournal({"shd"}), List(R"(
        E/shd ProcessMcuHealthConifg sensorhub_sendmsg failure\n
        E/shd ProcessDateTimeConifg sensorhub_sendmsg failure\n)"));
}

TEST_F(ControlTest, RequestsWaitTwoSecondsDuringARebootButVirtualSensorsDoNot) {
    g_mcu_rebooting = 1;
    EXPECT_EQ(Ask(5, 3), Reply("05", "FF", "FF FF FF FF"));
    EXPECT_EQ(Ask(99, 0), Reply("63", "FF", "FF FF FF FF"));
    EXPECT_EQ(Ask(18, 0), Reply("12", "00", ""));
    EXPECT_EQ(TakeJournal(), List(R"(
        E/shd Process msg mcu in reboot ignore sensor   17 ,command id =    3 | delay 2000000
        E/shd Process msg mcu in reboot ignore sensor   -1 ,command id =    0 | delay 2000000
        D/shd ProcessVirtualSensor type:18 cmd:0)"));
}

TEST_F(ControlTest, StateFollowsTheCommands) {
    const std::string batch = "0A 00 00 00 32 00 00 00 09 00 00 00";
    SensorState& accelerometer = State(0);
    g_hooks.on_entry = [&](const std::string& entry) {  // the samples may come before the reply
        EXPECT_TRUE(entry != "mcu 01 00 10 04" || accelerometer.flush_pending == 1);
    };
    g_hooks.named_locks = {{&g_sensor_state_mutex, "state"}};
    // The fields are enable, period_ms, batchcnt, batch_left, virtual_enable, last_time,
    // time_adjust, flush_pending, flush_count.
    for (const auto& row : Table(R"(
        19 |  8 | 00       | 7 7 7 7 7 7 7 0 7  | 0 | 1
         0 |  0 | 00       | 1 7 7 7 7 -1 0 0 7 | 0 | 1
         0 |  0 | 05       | 7 7 7 7 7 -1 0 0 7 | 0 | 1
         0 |  1 | 05       | 0 7 7 0 7 7 7 0 7  | 0 | 1
         0 |  2 | silence  | 7 10 7 7 7 7 7 0 7 | 0 | 1
         0 | 10 | 05       | 7 10 50 7 7 -1 0 0 7 | 0 | 1
         9 | 10 | 00       | 7 10 0 7 7 -1 0 0 7  | 0 | 1
         0 | 11 | 00 00 00 | 7 7 7 7 7 7 7 0 0  | 1 | 3
         0 | 11 | 05 00 00 | 7 7 7 7 7 7 7 1 5  | 0 | 2
         0 | 11 | 05 00 01 | 7 7 7 7 7 7 7 1 0  | 0 | 2
         0 | 11 | FB FF 00 | 7 7 7 7 7 7 7 0 -5 | 1 | 3
         0 | 11 | FB FF 01 | 7 7 7 7 7 7 7 0 0  | 1 | 3
         0 | 11 | 05       | 7 7 7 7 7 7 7 1 5  | 0 | 2
         0 | 11 |          | 7 7 7 7 7 7 7 0 0  | 1 | 3
         0 | 11 | silence  | 7 7 7 7 7 7 7 0 0  | 1 | 3
        17 |  0 |          | 7 7 7 7 1 7 7 0 7  | 0 | 1
        17 |  1 |          | 7 7 7 7 0 7 7 0 7  | 0 | 1
        17 | 11 |          | 7 7 7 7 7 7 7 0 0  | 1 | 2
        17 |  2 |          | 7 7 7 7 7 7 7 0 7  | 0 | 1)")) {  // last: flush-complete events, how
                                                               // often the lock is taken
        SensorState& s = State(Int(row[0]));
        s = {7, 7, 7, 7, 7, 7, 7, 0, 7};
        mcu.script = {row[2]};
        (void)TakeJournal();
        (void)Ask(Int(row[0]), Int(row[1]), batch);
        const Lines locks = TakeJournal({"state"});
        EXPECT_EQ(std::count(locks.begin(), locks.end(), "state taken"), Int(row[5]))
            << row[1] << " " << row[2];
        std::string fields = std::to_string(s.enable);
        for (const int64_t field : std::initializer_list<int64_t>{
                 s.period_ms, s.batchcnt, s.batch_left, s.virtual_enable, s.last_time,
                 s.time_adjust, s.flush_pending, s.flush_count}) {
            fields += " " + std::to_string(field);
        }
        EXPECT_EQ(fields, row[3]) << row[1] << " " << row[2];
        EXPECT_EQ(TakeEvents().size(), static_cast<size_t>(Int(row[4]))) << row[1] << " " << row[2];
    }
}

// Bytes that are allocated. mallinfo2 is younger than an Android tree's host library.
size_t HeapBytes() {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return static_cast<unsigned>(mallinfo().uordblks);
#pragma GCC diagnostic pop
}

TEST_F(ControlTest, EveryRecordIsReleased) {
    testing::internal::CaptureStdout();
    const UniqueFd asking = Connect("/ctl.sock");
    control_server.ServeOnce();
    const auto handle_each_kind = [&] {
        for (const auto* message :
             {"01 02 33 00", "01 02 63 00", "04 41", "05 00 00 E0", "07 00"}) {
            Receive(message);
        }
        const ClientRequest request{};  // activates the accelerometer, which the MCU answers
        EXPECT_EQ(send(asking.get(), &request, sizeof(request), 0), 32);
        control_server.ServeOnce();
        RunMainLoopOnce(&hub);
        (void)ReadAvailable(asking.get());
        (void)TakeEvents();
        (void)TakeJournal();
    };
    for (int i = 0; i < 10; ++i) handle_each_kind();
    const size_t before = HeapBytes();
    for (int i = 0; i < 1000; ++i) handle_each_kind();
    EXPECT_LT(HeapBytes(), before + 20'000);  // one lost record each time: 48,000 at least
    testing::internal::GetCapturedStdout();
}

TEST(MessageQueue, RecordWakesTheThreadThatWaitsForIt) {
    MessageQueue<int> queue;
    int records[] = {1, 2};
    std::atomic<pid_t> consumer_id{0};
    std::thread consumer([&] {
        consumer_id = ThreadId();
        EXPECT_EQ(queue.DequeueMessage(), &records[0]);
        EXPECT_EQ(queue.DequeueMessage(), &records[1]);
    });
    for (int& record : records) {
        while (!IsAsleep(consumer_id)) sched_yield();
        queue.EnqueueMessage(&record);
    }
    consumer.join();
}

}  // namespace
