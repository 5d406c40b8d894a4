// The UART frame format: encoder and decoder.
#include "mcu_link/frame_codec.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/test_hub.h"

namespace {

using shdtest::Bytes;
using shdtest::Hex;

std::string Encode(const std::vector<uint8_t>& payload, size_t room = 64) {
    std::vector<uint8_t> frame(room);
    const int length = EncodeFrame(frame, payload);
    return length < 0 ? "does not fit" : Hex(std::span(frame).first(static_cast<size_t>(length)));
}

// Feeds a frame byte by byte; the payload, or the status that ended it.
std::string Decode(const std::vector<uint8_t>& stream, size_t room = 1500) {
    std::vector<uint8_t> buffer(room);
    FrameDecoder decoder(buffer);
    for (const uint8_t byte : stream) (void)decoder.PutByte(byte);
    if (decoder.status() != DECODER_FINISH) return std::to_string(decoder.status());
    return Hex(decoder.payload());
}

TEST(FrameCodec, CheckSequenceIsThatOfThePublishedExample) {
    EXPECT_EQ(Fcs16(Bytes("31 32 33 34 35 36 37 38 39")), 0x906E);
    EXPECT_EQ(Fcs16({}), 0);
}

TEST(FrameCodec, EncodesAndDecodesKnownFrames) {
    const struct {
        std::string payload, frame;
    } cases[] = {
        {"31 32 33 34 35 36 37 38 39", "31 32 33 34 35 36 37 38 39 6E 90 7E"},
        {"00 00 00", "00 00 00 CC C6 7E"},
        {"01 00 0F 00", "01 00 0F 00 AD 63 7E"},
        {"", "00 00 7E"},
        {"7D 7E 11 13 20", "7D 5D 7D 5E 11 13 20 45 13 7E"},  // payload escaped, controls not
        {"60", "60 7D 5E 93 7E"},                             // low check byte escaped
        {"2A", "2A 20 7D 5E 7E"},                             // high check byte escaped
        {"19", "19 38 7D 5D 7E"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Encode(Bytes(c.payload)), c.frame);
        EXPECT_EQ(Decode(Bytes(c.frame)), c.payload);
    }
}

TEST(FrameCodec, EncoderRefusesWhatDoesNotFit) {
    const std::vector<uint8_t> plain(59, 0x41);
    for (const int size : {56, 57, 58, 59}) {
        EXPECT_EQ(Encode({plain.begin(), plain.begin() + size}), "does not fit");
    }
    EXPECT_EQ(Bytes(Encode({plain.begin(), plain.begin() + 55})).size(), 58U);
    EXPECT_EQ(Encode(std::vector<uint8_t>(32, 0x7E)), "does not fit");
    EXPECT_EQ(Encode({}, 5), "does not fit");
}

TEST(FrameCodec, EscapingStopsBeforeTheLastByte) {
    const struct {
        size_t room;
        std::string source;
        int written;
    } cases[] = {{3, "01 02", 2}, {2, "01 02", -1}, {3, "7E", 2},  {2, "7E", -1},
                 {4, "01 7E", 3}, {3, "01 7E", -1}, {0, "01", -1}, {0, "", 0}};
    for (const auto& c : cases) {
        std::vector<uint8_t> destination(c.room);
        EXPECT_EQ(EscapeBytes(destination, Bytes(c.source)), c.written) << c.room << c.source;
    }
}

TEST(FrameDecoder, FrameUpToTheBuffersSizeIsDecoded) {
    const std::vector<uint8_t> payload(1498, 0x55);
    std::vector<uint8_t> fits = Bytes(Encode({payload.begin(), payload.end() - 1}, 4000));
    ASSERT_EQ(fits.size(), 1500U);
    EXPECT_EQ(Bytes(Decode(fits)).size(), 1497U);
    EXPECT_EQ(Decode(Bytes(Encode(payload, 4000))), std::to_string(DECODER_OVERFLOW));
}

TEST(FrameDecoder, RefusesDamagedFrames) {
    const std::string error = std::to_string(DECODER_FCS_ERROR);
    EXPECT_EQ(Decode(Bytes("7E")), error);
    EXPECT_EQ(Decode(Bytes("01 00 0F 01 AD 63 7E")), error);
    EXPECT_EQ(Decode(Bytes("01 00 0F 00 63 AD 7E")), error);
    for (int byte = 0; byte < 256; ++byte) {  // no single byte has its own check sequence
        const auto data = static_cast<uint8_t>(byte ^ 0x20);
        EXPECT_EQ(Decode({0x7D, data, 0x7E}), error);
    }
}

TEST(FrameDecoder, EscapedFlagIsDataAndTheFrameGoesOn) {
    // 5E arrives as 7D 7E; E5 F6 is the check sequence of 01 5E 02.
    EXPECT_EQ(Decode(Bytes("01 7D 7E 02 E5 F6 7E")), "01 5E 02");
}

TEST(FrameDecoder, FinalStatusHoldsUntilReset) {
    std::vector<uint8_t> buffer(16);
    FrameDecoder decoder(buffer);
    int consumed = -1;
    EXPECT_EQ(decoder.PutBytes({}, &consumed), DECODER_NORMAL);
    EXPECT_EQ(consumed, 0);
    EXPECT_EQ(decoder.PutBytes(Bytes("00 00 00 CC C6 7E 41 42"), &consumed), DECODER_FINISH);
    EXPECT_EQ(consumed, 6);
    EXPECT_EQ(decoder.PutByte(0x41), DECODER_FINISH);
    EXPECT_EQ(Hex(decoder.payload()), "00 00 00");
    decoder.Reset(buffer);
    EXPECT_EQ(decoder.PutBytes(std::vector<uint8_t>(20, 0x41), &consumed), DECODER_OVERFLOW);
    EXPECT_EQ(consumed, 16);
    EXPECT_EQ(decoder.PutByte(0x7E), DECODER_OVERFLOW);
    decoder.Reset(buffer);
    EXPECT_EQ(decoder.PutBytes(Bytes("00 00 7E"), &consumed), DECODER_FINISH);
    EXPECT_TRUE(decoder.payload().empty());
}

}  // namespace
