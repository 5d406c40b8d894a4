// MCU packets: building of requests, parsing of inbound messages.
#include "mcu_link/mcu_packet.h"

#include <gtest/gtest.h>

#include "tests/support/test_hub.h"

namespace {

using shdtest::Bytes;
using shdtest::Hex;

std::string RawOf(const McuPacket& packet) {
    return Hex({packet.raw, static_cast<size_t>(packet.raw_len)});
}

std::string FrameOf(const McuPacket& packet) {
    if (packet.frame_len < 0) return "does not fit";
    return Hex({packet.frame, static_cast<size_t>(packet.frame_len)});
}

TEST(McuPacket, BuildersFillHeaderAndFrame) {
    McuPacket packet{};
    BuildCtrlPacket(&packet, 0);
    EXPECT_EQ(FrameOf(packet), "00 00 00 CC C6 7E");
    BuildSensorPacket(&packet, 0x10F, 0x100);
    EXPECT_EQ(RawOf(packet), "01 00 0F 00");
    EXPECT_EQ(FrameOf(packet), "01 00 0F 00 AD 63 7E");
    BuildDelayPacket(&packet, 33, 200);
    EXPECT_EQ(RawOf(packet), "01 00 21 02 C8 00 00 00");
    EXPECT_EQ(FrameOf(packet), "01 00 21 02 C8 00 00 00 0E 4B 7E");
    ClearPacket(&packet);
    EXPECT_EQ(packet.raw_len + packet.frame_len + packet.raw[0] + packet.frame[0], 0);
}

TEST(McuPacket, ArgumentsThatDoNotFitAreLeftOut) {
    const struct {
        size_t count;
        int32_t raw_len;
    } cases[] = {{0, 4}, {28, 32}, {29, 4}, {1000, 4}};
    for (const auto& c : cases) {
        McuPacket packet{};
        BuildSensorPacket(&packet, 16, 0x13);
        AppendArguments(&packet, std::vector<uint8_t>(c.count, 0x41));
        EXPECT_EQ(packet.raw_len, c.raw_len);
        EXPECT_EQ(packet.frame_len, c.raw_len + 3);
    }
}

TEST(McuPacket, FullPacketFitsWithTwentyThreeEscapedBytes) {
    for (const size_t escaped : {23U, 24U}) {
        std::vector<uint8_t> arguments(28, 0x41);
        std::fill_n(arguments.begin(), escaped, uint8_t{0x7E});
        McuPacket packet{};
        BuildSensorPacket(&packet, 16, 0x13);
        AppendArguments(&packet, arguments);
        EXPECT_EQ(packet.raw_len, 32);
        EXPECT_EQ(packet.frame_len, escaped == 23 ? 58 : -1);
    }
}

TEST(McuMessage, HeadersAreParsedByChannel) {
    const struct {
        std::string frame, header, data;  // header: channel, type, service, command
    } cases[] = {
        {"01 01 0F 00 41 42 43", "01 01 0F 00", "41 42 43"},
        {"00 01 00", "00 01 00 00", ""},
        {"00 01 12 07", "00 01 12 00", "07"},
        {"04", "04 00 00 00", ""},
        {"05 01 02 03 04", "05 00 00 00", "01 02 03 04"},
        {"07 FF", "07 00 00 00", "FF"},
    };
    for (const auto& c : cases) {
        McuMessagePtr message;
        ASSERT_EQ(ParseMcuMessage(Bytes(c.frame), &message), 0) << c.frame;
        const uint8_t header[] = {message->channel, message->type, message->service, message->cmd};
        EXPECT_EQ(Hex(header), c.header);
        EXPECT_EQ(Hex(message->payload()), c.data);
        EXPECT_EQ(message->data[511], 0);
    }
}

TEST(McuMessage, MalformedFramesAreRejected) {
    for (const auto* frame : {"", "01 02 03", "01", "00 05", "00", "02 00 00 00", "03 00 00 00",
                              "06 00 00 00", "08 00 00 00", "FF 00 00 00"}) {
        McuMessagePtr message;
        EXPECT_EQ(ParseMcuMessage(Bytes(frame), &message), -1) << frame;
        EXPECT_EQ(message, nullptr);
    }
}

TEST(McuMessage, LargePayloadIsKeptWholeAndTextEndsWithIt) {
    for (const size_t size : {511U, 512U, 513U, 1496U}) {
        std::vector<uint8_t> frame(size + 1, 'x');
        frame[0] = MCU_CHANNEL_LOG;
        McuMessagePtr message;
        ASSERT_EQ(ParseMcuMessage(frame, &message), 0);
        EXPECT_EQ(message->text(), std::string(size, 'x'));
    }
    EXPECT_EQ(shdtest::Message("04 68 69 00 21")->text(), "hi");
}

}  // namespace
