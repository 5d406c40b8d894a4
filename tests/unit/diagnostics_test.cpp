// Raw-data logs and MCU core dumps, to the byte.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

#include <filesystem>

#include "diagnostics/base64.h"
#include "diagnostics/core_dump.h"
#include "diagnostics/log_file.h"
#include "diagnostics/raw_data.h"
#include "sensor_commands/mcu_config.h"
#include "sensor_commands/sensor_commands.h"
#include "tests/support/test_hub.h"

namespace {

using namespace shdtest;

const std::string kAlg = "/data/logdata/sensor/alg.txt";
const std::string kHrm = "/data/logdata/sensor/hrm.txt";
const std::string kOutOfMemory = "E/shd Receive Mcu Raw Data out of memory";

struct RawDataTest : testing::Test, TestHub {
    RawDataTest() {
        setenv("TZ", "UTC-1", 1);
        tzset();
        MakeDirectory("/data");
        State(19).enable = State(21).enable = 1;
        g_wall_sec = 1510823109;  // 16 November 2017 09:05:09 UTC
        Configure(3);
    }
    ~RawDataTest() override {  // leaves the buffers as they are when the process starts
        Configure(3);
        for (const auto* last : {"00 00 01", "01 00 01", "01 00 05"}) Raw(last);
        Configure(0);
    }
    void Configure(uint16_t type) {
        (void)McuRawDataConfig(&hub, type);
        (void)TakeJournal();
    }
    Lines Raw(const std::string& data) {
        Receive("05 " + data);
        return TakeJournal();
    }
    Lines RawOfSize(const std::string& header, size_t data_len) {
        return Raw(header + " " + Hex(std::string(data_len - 3, '\x01')));
    }
};

TEST_F(RawDataTest, SummariesAndMarkersCarryTheLocalTime) {
    EXPECT_EQ(Raw("01 00"), Lines{});  // no header, nothing made
    EXPECT_EQ(McuRawDataSaveFileFlag(&hub, 0, 50), -1);
    EXPECT_EQ(TakeJournal(), List("E/shd McuRawDataSaveFileFlag open file:" + kHrm +
                                  " err:No such file or directory"));
    Raw("F1 77 E0 48 00 00 00 FF FF FF FF 55");
    Raw("01 00 E0 48 00 00 00 01 00 00 00");
    Raw("00 00 E0 FE FF FF FF");
    Raw("00 00 E0 07");
    for (const int id : {50, 48}) (void)SensorActive(&hub, id);
    (void)SensorDeactive(&hub, 50);
    Configure(1);
    (void)SensorActive(&hub, 50);
    EXPECT_EQ(ReadFile(kHrm),
              "bpm 72 status -1 time:11-16 10:05:09 \nbpm 72 status 1 time:11-16 10:05:09 \n"
              "heartrate begin time:11-16 10:05:09 \nheartrate end time:11-16 10:05:09 \n"
              "heartrate begin time:11-16 10:05:09 \n");  // type 1 leaves the other buffers
    EXPECT_EQ(ReadFile(kAlg), "steps -2 time:11-16 10:05:09 \nsteps 7 time:11-16 10:05:09 \n");
    Configure(5);
    Configure(1);
    (void)SensorActive(&hub, 50);
    EXPECT_EQ(ReadFile(kHrm), "(missing)");
}

TEST_F(RawDataTest, SamplesAreWrittenWhenTheLastMessageOfARunHasCome) {
    const mode_t mask = umask(0);
    Raw("00 00 01 01 00 FF FF 00 80 02 00 03 00 FF 7F");
    umask(mask);
    for (const auto& [path, mode] : {std::pair{"/data/logdata", 0755U},
                                     {"/data/logdata/sensor", 0755U},
                                     {kAlg.c_str(), 0666U}}) {
        struct stat status {};
        stat(HostPath(path).c_str(), &status);
        EXPECT_EQ(status.st_mode & 0777, mode) << path;
    }
    EXPECT_EQ(ReadFile(kAlg), "1 1 -1 -32768\n1 2 3 32767\n");
    Raw("01 00 05 FF FF FE FF FD FF FC FF FB FF 06 00 07 00 08 00 09 00 0A 00 AA BB CC");
    EXPECT_EQ(ReadFile(kHrm),
              "5 65535 65534 65533 65532 65531\n5 6 7 8 9 10\n");  // the odd bytes are dropped
    for (int i = 0; i < 3; ++i) RawOfSize("00 00 01", 512);
    EXPECT_EQ(ReadFile(kAlg).size(), 26U);
    RawOfSize("00 00 01", 103);
    const size_t line = std::string("1 257 257 257\n").size();
    EXPECT_EQ(ReadFile(kAlg).size(), 26 + 1627 / 6 * line);
    RawOfSize("00 00 01", 511);  // one byte less than a message that announces another
    EXPECT_EQ(ReadFile(kAlg).size(), 26 + (1627 / 6 + 508 / 6) * line);
}

TEST_F(RawDataTest, BufferHoldsUpTo2047BytesAndBlocksBeyond) {
    for (int i = 0; i < 3; ++i) EXPECT_EQ(RawOfSize("01 00 01", 512), Lines{});
    EXPECT_EQ(RawOfSize("01 00 01", 521), Lines{kOutOfMemory});  // 1527 + 521 > 2047
    EXPECT_EQ(RawOfSize("01 00 05", 512), Lines{});              // another kind goes on
    EXPECT_EQ(RawOfSize("01 00 01", 520), Lines{});
    Configure(0);
    Configure(2);  // a new buffer keeps the count
    EXPECT_EQ(RawOfSize("01 00 01", 4), Lines{kOutOfMemory});
    EXPECT_EQ(Raw("01 00 01"), Lines{});  // 2044 + 3 = 2047
    EXPECT_EQ(ReadFile(kHrm).size(), 2044 / 6 * std::string("1 0 0 0\n").size());
}

TEST_F(RawDataTest, WhatCannotBeLoggedIsRefused) {
    for (const auto& row : Table(R"(
        02 00 E0 |
        03 00 E0 | E/shd Receive Mcu Raw Data invalid Message type:3
        FF 00 E0 | E/shd Receive Mcu Raw Data invalid Message type:15
        00 00 05 | E/shd Receive Mcu Raw Data no support
        01 00 02 | E/shd Receive Mcu Raw Data no support
        01       |)")) {
        EXPECT_EQ(Raw(row[0]), List(row[1])) << row[0];
    }
    Configure(0);
    for (const auto* data : {"00 00 01", "01 00 01", "01 00 05"}) {
        EXPECT_EQ(Raw(data), List("E/shd Receive Mcu Raw Data no g_p_alg_acc_raw_data buff"));
    }
    State(19).enable = 0;
    EXPECT_EQ(Raw("00 00 E0 01 00 00 00"), Lines{});
    EXPECT_EQ(ReadFile(kAlg), "");
    std::filesystem::remove_all(HostPath("/data"));
    EXPECT_EQ(Raw("01 00 E0"), List(R"(E/shd mkdir MCU_DATA_DIR already exist
        E/shd mkdir MCU_RAW_DATA_DIR already exist | E/shd open file /logdata/hrm.txt failure)"));
    MakeDirectory("/data/logdata");
    EXPECT_EQ(Raw("01 00 E0"), List("E/shd mkdir MCU_DATA_DIR already exist"));
}

TEST_F(RawDataTest, LineIsCutAtItsLongest) {
    WriteLine(OpenLog("/line").get(), "%s\n", std::string(160, 'x').c_str());
    EXPECT_EQ(ReadFile("/line"), std::string(159, 'x'));
}

TEST_F(RawDataTest, LogStartsAfreshBeyondItsLimit) {
    for (const auto& [path, header, name] :
         {std::tuple{kAlg, "00 00 E0", "alg"}, std::tuple{kHrm, "01 00 E0", "hrm"}}) {
        WriteFile(path, "");
        std::filesystem::resize_file(HostPath(path), 12'000'000);
        EXPECT_EQ(Raw(header), Lines{});
        EXPECT_GT(std::filesystem::file_size(HostPath(path)), 12'000'000U);
        std::filesystem::resize_file(HostPath(path), 12'000'001);
        EXPECT_EQ(Raw(header),
                  List(std::string("W/shd Receive Mcu Raw Data ") + name + " log file out size"));
        EXPECT_LT(std::filesystem::file_size(HostPath(path)), 100U);
    }
}

struct CoreDumpTest : testing::Test, TestHub {
    static std::string File(const std::string& name) {
        return ReadFile("/data/mcudumplog/mcudump" + name);
    }
};

TEST_F(CoreDumpTest, PiecesAreStoredRawAndAsBase64InRotatingSlots) {
    for (const auto* piece : {"07 00 02 02 4D", "07 01 02 01 4D", "07 01 02 02 4D"}) Receive(piece);
    EXPECT_EQ(TakeJournal(), List(R"(
        E/shd access MCU_DATA_DIR err:No such file or directory!\n
        D/shd McuCoreDumpProcess ctl:1 dump count:2 dump index:1 reboot
        D/shd McuCoreDumpProcess ctl:1 dump count:2 dump index:2 reboot
        E/shd SensorMcuReboot disable)"));
    MakeDirectory("/data/mcudumplog");
    Receive("07 00 01 02 4D");  // its first piece was not stored
    EXPECT_TRUE(std::filesystem::is_empty(HostPath("/data/mcudumplog")));

    Receive("07 00 02 01 4D 61");
    Receive("07 00 02 02 6E");
    EXPECT_EQ(File("_0") + " " + File("base64"), "Man TWE=bg==");
    struct stat status {};
    stat(HostPath("/data/mcudumplog/mcudumpbase64").c_str(), &status);
    EXPECT_EQ(status.st_mode & 0777, 0666U);  // whatever the creation mask
    for (int dump = 1; dump <= 5; ++dump) Receive("07 00 01 01 4D 61 6E");
    EXPECT_EQ(File("_5") + File("base64.1") + File("base64.5"), "ManTWFuTWFu");
    Receive("07 00 01 01 4D");  // the seventh takes the first slot again
    EXPECT_EQ(File("_0") + File("base64"), "MTQ==");
    Receive("07 00 01 01");
    EXPECT_EQ(File("_1") + File("base64.1"), "");
    Receive("07 00 01 FF " + Hex(std::string(1493, '\0')));
    EXPECT_EQ(File("_1").size() + File("base64.1").size(), 1493U + 1992U);
    Receive("07 01 01");  // no whole header
    EXPECT_EQ(TakeJournal(), Lines{});

    std::filesystem::remove_all(HostPath("/data/mcudumplog"));
    Receive("07 00 02 01 4D");
    MakeDirectory("/data/mcudumplog");
    Receive("07 00 02 02 4D");  // nor behind the dump before it
    EXPECT_TRUE(std::filesystem::is_empty(HostPath("/data/mcudumplog")));
}

TEST(Base64, EncodesThePublishedVectors) {
    for (const auto& row :
         Table("| \n f|Zg== \n fo|Zm8= \n foo|Zm9v \n foobar|Zm9vYmFy \n \xFF\xEF\xBE|/+++")) {
        char output[16] = "unchanged";
        EXPECT_EQ(
            Base64Encode(reinterpret_cast<const uint8_t*>(row[0].data()), row[0].size(), output),
            0);
        EXPECT_EQ(output, row[1]);
    }
    char output[4];
    EXPECT_EQ(Base64Encode(nullptr, 0, output), -1);
    EXPECT_EQ(McuCoreDumpProcess(nullptr, nullptr), -1);
}

}  // namespace
