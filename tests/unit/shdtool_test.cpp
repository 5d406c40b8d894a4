// What shdtool makes of text: hexadecimal bytes, core dumps, raw-data logs, stored calibration.
#include <gtest/gtest.h>

#include <string>

#include "tools/shdtool/files/dump_text.h"
#include "tools/shdtool/files/rawlog.h"
#include "tools/shdtool/hex.h"
#include "tools/shdtool/status_checks.h"

namespace shdtool {
namespace {

using namespace std::string_literals;

TEST(ParseHex, TakesBytesInAnyUsualForm) {
    const std::vector<uint8_t> bytes{0x38, 0x01, 0xC8, 0xFE};
    for (const char* text : {"38 01 c8 fe", "3801C8FE", "0x3801c8fe", "38:01,c8 :fe"}) {
        ASSERT_TRUE(ParseHex(text).ok()) << text;
        EXPECT_EQ(*ParseHex(text), bytes) << text;
    }
    EXPECT_EQ(FormatHex(bytes), "38 01 c8 fe");
    for (const char* text : {"38 1", "3 8", "38 0x01", "g0"}) EXPECT_FALSE(ParseHex(text).ok());
    EXPECT_NE(ParseHex("38 0x01").error().message.find("position 5"), std::string::npos);
}

TEST(DumpText, PiecesPaddedOneByOneBecomeTheirBytes) {
    const std::pair<std::string, std::string> texts[] = {
        {"", ""}, {"TWFu", "Man"}, {"TQ==YW4=TWFu\n", "ManMan"}, {"+/+/", "\xFB\xFF\xBF"}};
    for (const auto& [text, bytes] : texts) {
        const DecodedDump dump = DecodeDumpText(text);
        EXPECT_FALSE(dump.damage) << text;
        EXPECT_EQ(std::string(dump.bytes.begin(), dump.bytes.end()), bytes) << text;
    }
}

TEST(DumpText, DamageIsFoundWhereItIsAndNothingBehindItIsGuessed) {
    const struct {
        std::string text;
        size_t offset;
        size_t sound_bytes;
    } cases[] = {
        {"TWFuTW", 6, 3},        // cut off
        {"TWFu\nTWFu", 4, 3},    // a line end is foreign within
        {"TWFuT=FuTWFu", 5, 3},  // padding too early
        {"TQ=uTWFu", 3, 0},      // padding that does not end its group
        {"TR==TWFu", 1, 0},      // bits behind the last byte
        {"\0TWF"s, 0, 0},        // a raw dump
    };
    for (const auto& test : cases) {
        const DecodedDump dump = DecodeDumpText(test.text);
        ASSERT_TRUE(dump.damage) << test.text;
        EXPECT_EQ(dump.damage->offset, test.offset) << test.text;
        EXPECT_EQ(dump.bytes.size(), test.sound_bytes) << test.text;
    }
}

TEST(RawLog, LinesBecomeColumns) {
    const std::pair<const char*, const char*> lines[] = {
        {"steps -1 time:", "7,steps,,-1,,,,,,,,,,"},
        {"bpm 72 status 1 time:11-16 10:05:09 ", "7,heart-rate,11-16 10:05:09,,72,1,,,,,,,,"},
        {"1 -32768 0 2048", "7,acc,,,,,-32768,0,2048,,,,,"},
        {"5 1 2 3 4 65535", "7,ppg,,,,,,,,1,2,3,4,65535"},
        {"heartrate begin time:11-16 10:05:09 ", "7,begin,11-16 10:05:09,,,,,,,,,,,"},
    };
    for (const auto& [text, row] : lines) {
        const auto line = ParseRawLogLine(text);
        ASSERT_TRUE(line) << text;
        EXPECT_EQ(RawLogCsvRow(7, *line), row);
    }
    for (const char* text : {"", "1 2 3", "1 2 3 4 5", "1 2 3 x", "2 1 1 1", "steps 42",
                             "5 1 2 3 4 99999999999", "steps time:11-16 10:05:09 ",
                             "1 1 1 1 time:11-16 10:05:09 ", "steps 1 time:11-16 10:0"}) {
        EXPECT_FALSE(ParseRawLogLine(text)) << text;
    }
}

TEST(StatusChecks, StoredCalibrationIsJudgedAsTheDaemonDoes) {
    const std::pair<std::string, Verdict> files[] = {
        {"\x38\x01\xC8\xFE\0\0\0"s, Verdict::kGood},  // 312, -312, 0 and the status
        {"\x39\x01\0\0\0\0\0"s, Verdict::kWarning},   // 313
        {"\x01\0\0\0\0"s, Verdict::kWarning},         // another sensor's reply
    };
    for (const auto& [content, verdict] : files) {
        EXPECT_EQ(CheckAccelerometerCalibration(content).verdict, verdict);
    }
}

}  // namespace
}  // namespace shdtool
