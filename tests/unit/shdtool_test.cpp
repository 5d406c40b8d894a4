// What shdtool makes of text: hexadecimal bytes, core dumps, raw-data logs, stored calibration.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tools/firmware/image.h"
#include "tools/firmware/payload.h"
#include "tools/shdtool/base/hex.h"
#include "tools/shdtool/files/dump_text.h"
#include "tools/shdtool/files/image_check.h"
#include "tools/shdtool/files/rawlog.h"
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

// Puts a word into the payload of a good image of 4 KiB, or changes the file otherwise; each row
// has one fault, and the report names that one and no other.
TEST(ExamineImage, NamesTheOneFaultOfAnImage) {
    using Bytes = std::vector<uint8_t>;
    const Bytes payload = firmware::BuildPayload("A.900.1", 4096, 1);
    const auto word = [&payload](size_t at, uint32_t value) {
        Bytes changed = payload;
        std::memcpy(&changed[at], &value, sizeof(value));
        return firmware::WrapImage("A.900.1", changed);
    };
    const auto of = [](const Bytes& content, const char* version = "A.900.1") {
        return firmware::WrapImage(version, content);
    };
    Bytes cut = of(payload);
    cut.pop_back();
    Bytes other_magic = of(payload);
    other_magic[0] = 0;
    const std::pair<Bytes, const char*> cases[] = {
        {of(payload), ""},
        {word(0, 0x20020004), "the stack pointer 0x20020004 is outside the RAM, 0x20000000"},
        {word(0, 0x20000000), "the stack pointer 0x20000000 is outside the RAM"},
        {word(0, 0x2001FFFE), "the stack pointer 0x2001fffe is outside the RAM"},
        {word(4, 0x00000101), "the reset vector 0x00000101 is outside the flash, 0x08000000"},
        {word(4, 0x08080001), "the reset vector 0x08080001 is outside the flash"},
        {word(4, 0x08001001), "the reset vector 0x08001001 is behind the payload"},
        {word(4, 0x08000100), "the reset vector 0x08000100 is even"},
        {of(Bytes(4096, 0xFF)), "the payload is blank"},
        {of(Bytes(4096, 0)), "the payload is blank"},
        {of({}), "there is no payload"},
        {of(Bytes(7, 1)), "the payload is too short for a vector table"},
        {of(of(payload)), "the payload begins with a header of its own"},
        {of(firmware::BuildPayload("A.900.1", firmware::kFlashSizeBytes, 1)), ""},
        {of(payload, "A.901.1"), "the board code"},
        {of(payload, "900"), "the version has no '.'"},
        {other_magic, "magic is 0xffaaaa00"},
        {cut, "the file has 4319 bytes, header_len + image_size is 4320"},
        {Bytes(100, 0xFF), "the file is shorter than a header"},
    };
    for (const auto& [file, fault] : cases) {
        const ImageReport image = ExamineImage(file);
        EXPECT_EQ(image.worst().substr(0, std::strlen(fault)), fault);
        EXPECT_EQ(image.good(), *fault == '\0') << image.worst();
        if (file.size() < sizeof(shd::mcu_head)) continue;
        EXPECT_LE(image.faults.size() + image.refusals.size() + (image.size_fault.empty() ? 0 : 1),
                  1U)
            << fault;
    }
    EXPECT_EQ(ExamineImage({}).sha256,
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(DaemonDecision, FollowsTheOrderInWhichTheDaemonLooks) {
    ImageReport image;
    image.version = "A.900.2";
    EXPECT_EQ(DaemonDecision(image, "A.900.1"), "writes it: the MCU runs A.900.1");
    EXPECT_EQ(DaemonDecision(image, "A.900.2"), "leaves the MCU as it is: it runs this version");
    image.size_fault = "size";
    EXPECT_EQ(DaemonDecision(image, "A.900.1"),
              "erases the MCU, and only then refuses the file: the MCU runs A.900.1");
    image.refusals = {"magic", "board"};
    EXPECT_EQ(DaemonDecision(image, "A.900.1"), "leaves the MCU as it is: magic");
    EXPECT_EQ(DaemonDecision(image, ""),
              "erases the MCU, and only then refuses the file, whatever its header says: the MCU "
              "tells no version");
}

}  // namespace
}  // namespace shdtool
