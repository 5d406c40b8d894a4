// The MCU commands: bytes, results and log lines.
#include "sensor_commands/sensor_commands.h"

#include <gtest/gtest.h>

#include "diagnostics/raw_data.h"
#include "sensor_commands/mcu_config.h"
#include "sensor_commands/mcu_parameters.h"
#include "tests/support/test_hub.h"

namespace {

using namespace shdtest;

constexpr SensorBatchArgs kBatch = {100, -1, 7};
constexpr McuHealthParam kHealth = {{0x1234, 0x5678, 0x00012345, 0xABCD}};

void WithoutTimeoutNotice(Lines* journal) {
    std::erase_if(*journal, [](const std::string& entry) {
        return entry.starts_with("D/shd DequeueMessageTimeout");
    });
}

struct CommandTest : testing::Test, TestHub {
    SensorHub* const h = &hub;
};

TEST_F(CommandTest, EachSendsItsPacketAndReportsTheMcusAnswer) {
    // The request and how long it waits; the error lines for no reply, for one without data and for
    // the status 5.
    const std::pair<std::function<int()>, const char*> cases[] = {
        {[&] { return SensorActive(h, 33); },
         "01 00 21 00 / wait 2 s | Sensor Active :33 timeout | Sensor Active :33 data len < 1 |"
         "Sensor Active :33 failure ret:5"},
        {[&] { return SensorDeactive(h, 16); },
         "01 00 10 01 / wait 2 s | Sensor Deactive :16 timeout | Sensor Deactive :16 data len < 1 |"
         "Sensor DeActive :16 failure ret:5"},
        {[&] { return SensorSetDelay(h, 33, 200); },
         "01 00 21 02 C8 00 00 00 / wait 2 s | Sensor SetDelay :33 timeout |"
         "Sensor SetDelay :33 data len < 1 | Sensor SetDelay :33 delay_ms:200 failure ret:5"},
        {[&] { return SensorBatch(h, 48, kBatch); },
         "01 00 30 03 64 00 00 00 FF FF FF FF 07 00 00 00 / wait 2 s | Sensor Batch :48 timeout |"
         "Sensor Batch :48 data len < 1 |"
         "Sensor Batch :48 period:100 batchcnt:4294967295 failure ret:5"},
        {[&] { return SensorSelfTest(h, 17); },
         "01 00 11 11 / wait 10 s | Sensor SelfTest :17 timeout | Sensor SelfTest :17 data len < 1 "
         "|"
         "Sensor Selftest :17 failure ret:5"},
        {[&] { return SensorCalibration(h, 48, nullptr); },
         "01 00 30 12 / wait 10 s | Sensor Clibration :48 timeout | Sensor Clibration :48 data len "
         "< 1 |"
         "Sensor Clibration :48 failure ret:5"},
        {[&] { return SensorSetParameter(h, 22, Bytes("F3 01 00 00")); },
         "01 00 16 13 F3 01 00 00 / wait 10 s | Sensor SetParameter :22 timeout | |"},
        {[&] { return McuHealthConfig(h, &kHealth); },
         "01 00 40 20 34 78 45 23 CD AB / wait 2 s | McuHealthConfig Msg send/recv error |"
         "McuHealthConfig recv invalid data len |"},
        {[&] { return McuHealthConfig(h, &g_mcu_health_param); },
         "01 00 40 20 34 78 45 23 CD AB / wait 2 s | McuHealthConfig Msg send/recv error |"
         "McuHealthConfig recv invalid data len |"},
        {[&] { return McuDateTimeConfig(h, 1500000000); },
         "01 00 0C 01 00 98 F7 3E 5D 01 00 00 / wait 2 s | McuDateTimeConfig Msg send/recv error |"
         "McuDateTimeConfig recv invalid data len |"},
        {[&] { return McuLogLevel(h, 1, 3); }, "01 00 0D 00 01 03 / wait 10 s | | |"},
    };
    for (const auto& [run, row] : cases) {
        const Lines cells = Table(row)[0];
        std::string sent = cells[0];
        sent.replace(sent.find('/'), 1, "|");
        const std::tuple<std::string, int, std::string> answers[] = {
            {FakeMcu::kSilence, -1, cells[1]},
            {"", -1, cells[2]},
            {"05", 5, cells[3]},
            {"00", 0, ""}};
        for (const auto& [reply, result, line] : answers) {
            hub.error_count = 0;
            mcu.script = {reply};
            EXPECT_EQ(run(), result) << row;
            Lines journal = TakeJournal({"mcu", "wait", "shd"});
            WithoutTimeoutNotice(&journal);
            EXPECT_EQ(journal, List("mcu " + sent + (line.empty() ? "" : "|E/shd " + line)));
        }
    }
    EXPECT_EQ(McuHealthConfig(h, nullptr), -1);
    EXPECT_EQ(TakeJournal(), List("E/shd McuHealthConfig param NULL"));
}

TEST_F(CommandTest, WaitsForItsReplyAsLongAsTheMcuMayNeed) {
    char text[kMcuTextSize] = {};
    const std::pair<const char*, std::function<void()>> cases[] = {
        {"wait 2 s", [&] { (void)SensorFlush(h, 48); }},
        {"wait 2 s", [&] { (void)SensorHandshake(h, kHandshakeTimeoutSec); }},
        {"wait 10 s", [&] { (void)SensorGetInfo(h, 48, text); }},
        {"wait 10 s", [&] { (void)SensorVersion(h, 0, text); }},
        {"wait 10 s", [&] { (void)McuRawDataConfig(h, 1); }},
    };
    for (const auto& [limit, run] : cases) {
        run();
        EXPECT_EQ(TakeJournal({"wait"}), List(limit)) << &run - &cases[0].second;
    }
}

TEST_F(CommandTest, FlushReplyAnnouncesSamplesAndIsReportedWhenUnusable) {
    for (const auto& row : Table(R"(
        05 00 00 |  5 | 5 |
        05 00 07 |  5 | 0 |
        FF FF 00 | -1 | -1 |
        05       |  5 | 5 |
                 |  0 | 0 | E/shd Sensor Flush :48 data len < 1
        silence  |  0 | 0 | E/shd Sensor Flush :48 timeout)")) {
        mcu.script = {row[0]};
        const SensorFlushReply reply = SensorFlush(h, 48);
        EXPECT_EQ(reply.announced, Int(row[1])) << row[0];
        EXPECT_EQ(reply.accepted, Int(row[2])) << row[0];
        Lines journal = TakeJournal({"mcu", "shd"});
        WithoutTimeoutNotice(&journal);
        EXPECT_EQ(journal, List("mcu 01 00 30 04 |" + row[3]));
    }
}

TEST_F(CommandTest, RawDataLockIsTakenForTheHeartRateSensorAndNeverForAProperty) {
    g_hooks.named_locks = {{&g_raw_data_mutex, "raw"}};
    for (const int32_t id : {16, 48}) {
        (void)SensorActive(h, id);
        (void)SensorDeactive(h, id);
    }
    EXPECT_EQ(TakeJournal({"raw"}), Lines{});
    (void)SensorActive(h, 50);
    EXPECT_EQ(TakeJournal({"raw"}), List("raw taken | raw released"));
    for (const uint16_t type : {uint16_t{3}, uint16_t{0}}) {
        (void)McuRawDataConfig(h, type);
        bool taken = false;
        for (const std::string& entry : TakeJournal({"raw", "property"})) {
            if (entry.starts_with("raw"))
                taken = entry == "raw taken";
            else
                EXPECT_FALSE(taken) << entry;
        }
    }
}

TEST_F(CommandTest, LogLevelIsStoredFirstAndRestoredWhenInRange) {
    mcu.script = {FakeMcu::kSilence};
    EXPECT_EQ(McuLogLevel(h, 1, 3), -1);
    EXPECT_EQ(TakeJournal({"property", "mcu"}),
              List("property persist.velmar.shd.mculog=3 | mcu 01 00 0D 00 01 03"));
    for (const auto& row : Table("5|05 \n 0|00 \n abc|00 \n +3x|03 \n 6| \n -1| \n |")) {
        SetProperty("persist.velmar.shd.mculog", row[0]);
        EXPECT_EQ(RestoreMcuLogLevel(h).has_value(), !row[1].empty());
        EXPECT_EQ(TakeJournal({"mcu"}), List(row[1].empty() ? "" : "mcu 01 00 0D 00 01 " + row[1]));
    }
}

TEST_F(CommandTest, RotationSensorStopsWithTheLastOfItsHandles) {
    State(11).enable = State(15).enable = 1;
    mcu.unscripted = "09";
    EXPECT_EQ(SensorDeactive(h, 35), 0);
    EXPECT_EQ(TakeJournal(), List("D/shd Sensor Deactive rotation sensor not all closed"));
    State(11).enable = 0;
    EXPECT_EQ(SensorDeactive(h, 35), 9);
    EXPECT_EQ(TakeJournal({"mcu"}), List("mcu 01 00 23 01"));
}

TEST_F(CommandTest, CalibrationBytesPrecedeTheStatus) {
    for (const auto& row : Table(R"(
        16 | 01 02 03 04 05 06 00 EE | 01 02 03 04 05 06 | 0
        16 | 01 02 03 04 05 06 09    | 01 02 03 04 05 06 | 9
        16 | 01 02 03 04 05 06       | 00 00 00 00 00 00 | -1
        17 | 01 02 03 04 00          | 01 02 03 04 00 00 | 0
        22 | 01 02 03 04 07          | 01 02 03 04 00 00 | 7
        23 | 01 02 03 00             | 00 00 00 00 00 00 | -1
        48 | 00 01 02                | 00 00 00 00 00 00 | 0)")) {
        std::vector<uint8_t> stored(6);
        mcu.script = {row[1]};
        EXPECT_EQ(SensorCalibration(h, Int(row[0]), stored.data()), Int(row[3]));
        EXPECT_EQ(Hex(stored), row[2]) << row[1];
        const std::string line = "E/shd Sensor Clibration :" + row[0] + " failure ret:" + row[3];
        EXPECT_EQ(TakeJournal({"shd"}), List(row[3] == "0" ? "" : line));
    }
}

TEST_F(CommandTest, ParametersGoOutInTheirOrderAndWithinThePacket) {
    g_acc_calibration[1] = -312;
    g_baro_calibration = 499;
    SendMcuParameters(h);
    g_acc_calibration[1] = 0;
    g_baro_calibration = 0;
    (void)SensorSetParameter(h, 16, std::vector<uint8_t>(29));
    EXPECT_EQ(TakeJournal({"mcu"}), List(R"(
        mcu 01 00 10 13 00 00 C8 FE 00 00 | mcu 01 00 16 13 F3 01 00 00
        mcu 01 00 17 13 05 00 00 00 | mcu 01 00 11 13 00 00 00 00 | mcu 01 00 10 13)"));
    (void)SensorSetParameter(h, 16, std::vector<uint8_t>(28));
    EXPECT_EQ(TakeJournal()[0].size(), 3 + 3 * 32U);
}

TEST_F(CommandTest, TextsAreBounded) {
    const std::tuple<std::string, size_t, size_t> cases[] = {// reply; info, version stored
                                                             {Hex(std::string(255, 'x')), 255, 255},
                                                             {Hex(std::string(256, 'x')), 0, 255},
                                                             {"78 78 78 00 78", 3, 3},
                                                             {"00", 0, 0}};
    for (const auto& [reply, info_size, version_size] : cases) {
        char info[257] = {}, version[257] = {};
        mcu.script = {reply, reply};
        const bool too_long = reply.size() > 255 * 3;
        EXPECT_EQ(SensorGetInfo(h, 16, info), too_long ? -1 : 0);
        EXPECT_EQ(SensorVersion(h, 0, version), 0);
        EXPECT_EQ(info, std::string(info_size, 'x'));
        EXPECT_EQ(version, std::string(version_size, 'x'));
        const std::string line = too_long ? "16 data too long" : info;
        EXPECT_EQ(TakeJournal({"mcu", "shd"}),
                  (Lines{"mcu 01 00 10 22", "E/shd Sensor GetInfo :" + line, "mcu 01 00 0F 00"}));
    }
    char text[256] = {};
    mcu.script = {"", "", FakeMcu::kSilence};
    EXPECT_EQ(SensorGetInfo(h, 16, text), -1);
    EXPECT_EQ(SensorVersion(h, 7, text), -1);
    EXPECT_EQ(SensorGetInfo(h, 16, nullptr), -1);
    EXPECT_EQ(SensorVersion(h, 0, nullptr), -1);
    EXPECT_EQ(TakeJournal({"mcu", "shd"}), List(R"(
        mcu 01 00 10 22 | E/shd Sensor GetInfo :16 data len < 1
        mcu 01 00 0F 01 | E/shd Sensor Version :7 data len < 1
        E/shd Sensor GetInfo invalid param | E/shd Sensor Version invalid param)"));
    EXPECT_EQ(SensorVersion(h, 3, text), -1);
    EXPECT_EQ(TakeJournal({"mcu"}), List("mcu 01 00 0F 03"));
    mcu.script = {FakeMcu::kSilence};
    EXPECT_EQ(SensorGetInfo(h, 16, text), -1);
    EXPECT_EQ(TakeJournal({"shd"}).back(), "E/shd Sensor GetInfo :16 timeout");
}

TEST_F(CommandTest, RawDataTypeIsStoredThenSent) {
    const std::string alg = "/data/logdata/sensor/alg.txt", hrm = "/data/logdata/sensor/hrm.txt";
    for (const auto& row : Table(R"(
        1   | 0  | 1       | mcu 01 00 0D 01 01 00               | kept
        2   | 0  | 2       | mcu 01 00 0D 01 02 00               | kept
        3   | 0  | 1 2 3   | mcu 01 00 0D 01 03 00               | kept
        5   | -1 | 1 0     | E/shd McuRawDataConfig not support  | (missing)
        7   | -1 | 1 2 3 0 | E/shd McuRawDataConfig not support  | (missing)
        256 | -1 | 0       | E/shd McuRawDataConfig not support  | (missing)
        0   | 0  | 0       | mcu 01 00 0D 01 00 00               | (missing))")) {
        WriteFile(alg, "kept");
        WriteFile(hrm, "kept");
        EXPECT_EQ(McuRawDataConfig(h, static_cast<uint16_t>(Int(row[0]))), Int(row[1]));
        Lines expected;
        for (const char type : row[2]) {
            if (type != ' ')
                expected.push_back(std::string("property persist.velmar.shd.rawdatatype=") + type);
        }
        expected.push_back(row[3]);
        EXPECT_EQ(TakeJournal({"mcu", "property", "shd"}), expected) << row[0];
        EXPECT_EQ(ReadFile(alg) + ReadFile(hrm), row[4] + row[4]);
    }
    mcu.script = {"", "07", FakeMcu::kSilence};
    for (const int result : {-1, 7, -1}) EXPECT_EQ(McuRawDataConfig(h, 0), result);
}

}  // namespace
