// MCU packets: building of requests, parsing of inbound messages.
#include "mcu_link/mcu_packet.h"

#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/test_hub.h"

namespace {

using namespace shdtest;

std::string FrameOf(const McuPacket& packet) {
    return Hex({packet.frame, static_cast<size_t>(packet.frame_len)});
}

TEST(McuPacket, BuildersMakeKnownFrames) {
    McuPacket packet{};
    BuildCtrlPacket(&packet, 0);
    EXPECT_EQ(FrameOf(packet), "00 00 00 CC C6 7E");
    BuildSensorPacket(&packet, 0x10F, 0x100);
    EXPECT_EQ(FrameOf(packet), "01 00 0F 00 AD 63 7E");
    BuildDelayPacket(&packet, 33, 200);
    EXPECT_EQ(FrameOf(packet), "01 00 21 02 C8 00 00 00 0E 4B 7E");
    ClearPacket(&packet);
    const McuPacket empty{};
    EXPECT_EQ(std::memcmp(&packet, &empty, sizeof(packet)), 0);
}

TEST(McuPacket, ArgumentsThatDoNotFitAreLeftOut) {
    const struct {
        size_t plain, escaped;
        int32_t raw_len, frame_len;
    } cases[] = {{0, 0, 4, 7},   {28, 0, 32, 35}, {29, 0, 4, 7},
                 {999, 0, 4, 7}, {5, 23, 32, 58}, {4, 24, 32, -1}};
    for (const auto& c : cases) {
        std::vector<uint8_t> arguments(c.escaped, 0x7E);
        arguments.resize(c.escaped + c.plain, 0x41);
        McuPacket packet{};
        BuildSensorPacket(&packet, 16, 0x13);
        AppendArguments(&packet, arguments);
        EXPECT_EQ(packet.raw_len, c.raw_len) << c.plain << " " << c.escaped;
        EXPECT_EQ(packet.frame_len, c.frame_len) << c.plain << " " << c.escaped;
    }
}

TEST(McuMessage, HeadersAreParsedByChannelAndMalformedFramesRejected) {
    for (const auto& row : Table(R"(
        01 01 0F 00 41 42 43 | 01 01 0F 00 | 41 42 43
        00 01 00             | 00 01 00 00 |
        00 01 12 07          | 00 01 12 00 | 07
        04                   | 04 00 00 00 |
        05 01 02 03 04       | 05 00 00 00 | 01 02 03 04
        07 FF                | 07 00 00 00 | FF)")) {
        McuMessagePtr used = AllocMcuMessage(0);
        std::memset(used.get(), 0xEE, sizeof(*used));
        used.reset();  // the next message gets this block
        const auto message = Message(row[0]);
        const uint8_t header[] = {message->channel, message->type, message->service, message->cmd};
        EXPECT_EQ(Hex(header), row[1]) << row[0];
        EXPECT_EQ(Hex(message->payload()), row[2]) << row[0];
        const auto size = static_cast<size_t>(message->data_len);
        const std::vector<uint8_t> behind(message->data + size, std::end(message->data));
        EXPECT_EQ(behind, std::vector<uint8_t>(512 - size)) << row[0];
    }
    for (const auto* frame : {"", "01 02 03", "01", "00 05", "00", "02 00 00 00", "03 00 00 00",
                              "06 00 00 00", "08 00 00 00", "FF 00 00 00"}) {
        McuMessagePtr message;
        EXPECT_EQ(ParseMcuMessage(Bytes(frame), &message), -1) << frame;
        EXPECT_EQ(message, nullptr) << frame;
    }
}

TEST(McuMessage, LargePayloadIsKeptWholeAndTextEndsWithIt) {
    for (const size_t size : {511U, 512U, 513U, 1496U}) {
        EXPECT_EQ(Message("04 " + Hex(std::string(size, 'x')))->text(), std::string(size, 'x'));
    }
    EXPECT_EQ(Message("04 68 69 00 21")->text(), "hi");
}

}  // namespace
