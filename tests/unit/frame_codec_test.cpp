// The UART frame format: encoder and decoder.
#include "mcu_link/frame_codec.h"

#include <gtest/gtest.h>

#include "tests/support/test_hub.h"

namespace {

using namespace shdtest;

std::string Encode(const std::vector<uint8_t>& payload, size_t room = 64) {
    std::vector<uint8_t> frame(room);
    const int length = EncodeFrame(frame, payload);
    return length < 0 ? "does not fit" : Hex(std::span(frame).first(static_cast<size_t>(length)));
}

// Feeds a frame byte by byte; the payload, or the status that ended it.
std::string Decode(const std::vector<uint8_t>& stream) {
    std::vector<uint8_t> buffer(1500);
    FrameDecoder decoder(buffer);
    for (const uint8_t byte : stream) (void)decoder.PutByte(byte);
    if (decoder.status() != DECODER_FINISH) return std::to_string(decoder.status());
    return Hex(decoder.payload());
}

const std::string kFcsError = std::to_string(DECODER_FCS_ERROR);

TEST(FrameCodec, EncodesAndDecodesKnownFrames) {
    EXPECT_EQ(Fcs16(Bytes("31 32 33 34 35 36 37 38 39")), 0x906E);
    EXPECT_EQ(Fcs16({}), 0);
    for (const auto& row : Table(R"(
        31 32 33 34 35 36 37 38 39 | 31 32 33 34 35 36 37 38 39 6E 90 7E
        00 00 00                   | 00 00 00 CC C6 7E
        01 00 0F 00                | 01 00 0F 00 AD 63 7E
                                   | 00 00 7E
        7D 7E 11 13 20             | 7D 5D 7D 5E 11 13 20 45 13 7E
        60                         | 60 7D 5E 93 7E
        2A                         | 2A 20 7D 5E 7E
        19                         | 19 38 7D 5D 7E)")) {
        EXPECT_EQ(Encode(Bytes(row[0])), row[1]);
        EXPECT_EQ(Decode(Bytes(row[1])), row[0]);
    }
}

TEST(FrameCodec, EncoderRefusesWhatDoesNotFit) {
    for (const size_t size : {56U, 57U, 58U, 59U}) {
        EXPECT_EQ(Encode(std::vector<uint8_t>(size, 0x41)), "does not fit");
    }
    EXPECT_EQ(Bytes(Encode(std::vector<uint8_t>(55, 0x41))).size(), 58U);
    EXPECT_EQ(Encode(std::vector<uint8_t>(32, 0x7E)), "does not fit");
    EXPECT_EQ(Encode({}, 5), "does not fit");
    for (const auto& row : Table(R"(
        3 | 01 02 | 2
        2 | 01 02 | -1
        3 | 7E    | 2
        2 | 7E    | -1
        4 | 01 7E | 3
        3 | 01 7E | -1
        0 | 01    | -1)")) {  // never the last byte of the room
        std::vector<uint8_t> room(static_cast<size_t>(Int(row[0])));
        EXPECT_EQ(EscapeBytes(room, Bytes(row[1])), Int(row[2])) << row[0] << " " << row[1];
    }
}

TEST(FrameDecoder, FrameUpToTheBuffersSizeIsDecoded) {
    std::vector<uint8_t> payload(1498, 0x55);
    EXPECT_EQ(Decode(Bytes(Encode(payload, 4000))), std::to_string(DECODER_OVERFLOW));
    payload.pop_back();
    EXPECT_EQ(Decode(Bytes(Encode(payload, 4000))), Hex(payload));
}

TEST(FrameDecoder, DamagedFramesAreRefusedAndAnEscapedFlagIsData) {
    EXPECT_EQ(Decode(Bytes("7E")), kFcsError);
    EXPECT_EQ(Decode(Bytes("01 00 0F 01 AD 63 7E")), kFcsError);
    EXPECT_EQ(Decode(Bytes("01 00 0F 00 63 AD 7E")), kFcsError);
    for (int byte = 0; byte < 256; ++byte) {  // no single byte passes for a check sequence
        EXPECT_EQ(Decode({0x7D, static_cast<uint8_t>(byte), 0x7E}), kFcsError);
    }
    // E5 F6 is the check sequence of 01 5E 02.
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
