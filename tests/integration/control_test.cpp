// Every control command's reply as it lies on the socket.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "tests/integration/hub.h"

using namespace shd;

namespace {

ControlReply Reply(int32_t handle, int32_t command, int32_t result = 0,
                   std::string_view data = {}) {
    ControlReply reply{};
    reply.length = 272;
    reply.handle = handle;
    reply.kind = 1;
    reply.command = command;
    reply.result = result;
    std::ranges::copy(data, reply.data);
    return reply;
}

ControlReply TextReply(int32_t handle, int32_t command, std::string_view text) {
    ControlReply reply = Reply(handle, command);
    std::memcpy(reinterpret_cast<char*>(&reply) + 16, text.data(), text.size());
    return reply;
}

TEST(Control, EveryCommandIsAnsweredInItsOwnForm) {
    Hub hub;
    hub.StartUp();
    hub.Simulate("status 33 0 5 1");
    using namespace std::string_view_literals;
    const struct {
        const char* what;
        ClientRequest request;
        ControlReply reply;
    } exchanges[] = {
        {"activate", Request(0, 0), Reply(0, 0)},
        {"activate, refused by the MCU", Request(9, 0), Reply(9, 0, 5)},
        {"deactivate", Request(0, 1), Reply(0, 1)},
        {"set delay", Request(5, 2, {50}), Reply(5, 2)},
        {"self test", Request(21, 3), Reply(21, 3)},
        {"set parameter", Request(0, 4, {1, 0, 2, 0, 3, 0}), Reply(0, 4)},
        {"set parameter of a sensor without one", Request(19, 4), Reply(19, 4, 1)},
        {"calibration", Request(0, 5), Reply(0, 5, 0, "\x05\x00\xFC\xFF\x07\x00"sv)},
        {"MCU log level", Request(0, 6, {1, 4}), Reply(0, 6)},
        {"raw data", Request(5, 7, {1}), Reply(0, 7)},
        {"health", Request(5, 8, {1, 0, 0, 0, 2}), Reply(0, 8)},
        {"date and time", Request(5, 9, {0, 0, 0, 0x60}), Reply(0, 9)},
        {"batch", Request(6, 10, {100, 0, 0, 0, 5}), Reply(6, 10)},
        {"batch of a sensor that has none", Request(9, 10, {100, 0, 0, 0, 50}), Reply(9, 10)},
        {"flush", Request(6, 11), Reply(6, 11)},
        {"information", Request(26, 12), TextReply(26, 12, "wrist tilt gesture")},
        {"version", Request(5, 13), TextReply(0, 7, "SIM.900.0001")},
        {"version text 3", Request(0, 13, {3}),
         TextReply(0, 7, "STM32F411 simulated board, revision 900")},
        {"debug log", Request(0, 14, {1}), Reply(0, 14)},
        {"virtual sensor on", Request(18, 0), Reply(18, 0)},
        {"virtual sensor, whatever the command", Request(17, 5), Reply(17, 0)},
        {"virtual sensor asked for the version", Request(17, 13), Reply(17, 0)},
        {"handle without a sensor", Request(8, 0), Reply(8, -1, -1)},
        {"handle out of range", Request(-1, 0), Reply(-1, -1, -1)},
        {"unknown command", Request(0, 42), Reply(0, -1, -1)},
    };
    const UniqueFd client = ConnectRaw(hub);
    SendRaw(client.get(), Request(0, SHB_MCU_SLEEP));  // never answered
    SendRaw(client.get(), Request(0, SHB_MCU_WAKEUP));
    for (const auto& exchange : exchanges) {
        SCOPED_TRACE(exchange.what);
        SendRaw(client.get(), exchange.request);
        const ControlReply reply = ReceiveRaw(client.get());
        EXPECT_EQ(reply.result, exchange.reply.result);
        EXPECT_EQ(std::memcmp(&reply, &exchange.reply, sizeof(reply)), 0);
    }
    EXPECT_EQ(hub.ReadFile("/data/property/persist.velmar.shd.mculog"), "4");
    EXPECT_EQ(hub.ReadFile("/data/property/persist.velmar.shd.rawdatatype"), "1");
    EXPECT_EQ(hub.ReadFile("/data/property/persist.velmar.shd.debug"), "1");
    EXPECT_EQ(hub.ReadFile("/nvdata/accclibration"), "\x05\x00\xFC\xFF\x07\x00\x00"sv);
    std::vector<std::string> requests = hub.Requests();
    requests.erase(requests.begin(), requests.begin() + 5);  // start-up's
    EXPECT_EQ(requests,
              (std::vector<std::string>{
                  "accelerometer active", "gravity active", "accelerometer deactive",
                  "gyroscope set delay 50 ms", "raw-25 self test",
                  "accelerometer set parameter 01 00 02 00 03 00", "step-counter set parameter",
                  "accelerometer calibration", "log level 01 04", "raw-data config 01 00",
                  "motion-health health config 01 02 00 00 00 00",
                  "clock set 00 00 00 00 77 01 00 00", "pressure batch every 100 ms, 5 to a report",
                  "gravity batch every 100 ms, 0 to a report", "pressure flush",
                  "wrist-tilt get info", "version 0", "version 3"}));
    hub.WaitForLog("ProcessMessage SHB_MCU_SLEEP!", "ProcessMessage SHB_MCU_WAKEUP!",
                   "Process msg Invalid sensor   -1 ,command id =    0");
}

}  // namespace
