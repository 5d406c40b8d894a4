// The MCU commands: bytes, results and log lines.
#include "sensor_commands/sensor_commands.h"

#include <gtest/gtest.h>

#include "sensor_commands/mcu_config.h"
#include "sensor_commands/mcu_parameters.h"
#include "tests/support/test_hub.h"

namespace {

using namespace shdtest;

struct CommandTest : testing::Test, TestHub {
    // What the daemon did, without the exchange's own line about a timeout.
    static Lines Journal() {
        Lines lines = TakeJournal({"mcu", "shd", "property"});
        std::erase_if(lines, [](const std::string& line) {
            return line.starts_with("D/shd DequeueMessageTimeout");
        });
        return lines;
    }
    SensorHub* const h = &hub;
};

constexpr SensorBatchArgs kBatch = {100, -1, 7};
constexpr McuHealthParam kHealth = {{0x1234, 0x5678, 0x00012345, 0xABCD}};
const std::string kLevelStored = "property persist.velmar.shd.mculog=3";

TEST_F(CommandTest, EachSendsItsPacketAndReportsTheMcusAnswer) {
    const struct {
        std::function<int()> run;
        std::string request, timeout, empty, failure;  // log lines; none where empty
    } cases[] = {
        {[&] { return SensorActive(h, 33); }, "01 00 21 00", "Sensor Active :33 timeout",
         "Sensor Active :33 data len < 1", "Sensor Active :33 failure ret:5"},
        {[&] { return SensorDeactive(h, 16); }, "01 00 10 01", "Sensor Deactive :16 timeout",
         "Sensor Deactive :16 data len < 1", "Sensor DeActive :16 failure ret:5"},
        {[&] { return SensorSetDelay(h, 33, 200); }, "01 00 21 02 C8 00 00 00",
         "Sensor SetDelay :33 timeout", "Sensor SetDelay :33 data len < 1",
         "Sensor SetDelay :33 delay_ms:200 failure ret:5"},
        {[&] { return SensorBatch(h, 48, kBatch); },
         "01 00 30 03 64 00 00 00 FF FF FF FF 07 00 00 00", "Sensor Batch :48 timeout",
         "Sensor Batch :48 data len < 1",
         "Sensor Batch :48 period:100 batchcnt:4294967295 failure ret:5"},
        {[&] { return SensorSelfTest(h, 17); }, "01 00 11 11", "Sensor SelfTest :17 timeout",
         "Sensor SelfTest :17 data len < 1", "Sensor Selftest :17 failure ret:5"},
        {[&] { return SensorCalibration(h, 48, nullptr); }, "01 00 30 12",
         "Sensor Clibration :48 timeout", "Sensor Clibration :48 data len < 1",
         "Sensor Clibration :48 failure ret:5"},
        {[&] { return SensorSetParameter(h, 22, Bytes("F3 01 00 00")); }, "01 00 16 13 F3 01 00 00",
         "Sensor SetParameter :22 timeout", "", ""},
        {[&] { return McuHealthConfig(h, &kHealth); }, "01 00 40 20 34 78 45 23 CD AB",
         "McuHealthConfig Msg send/recv error", "McuHealthConfig recv invalid data len", ""},
        {[&] { return McuHealthConfigAgain(h); }, "01 00 40 20 34 78 45 23 CD AB",
         "McuHealthConfig Msg send/recv error", "McuHealthConfig recv invalid data len", ""},
        {[&] { return McuDateTimeConfig(h, 1500000000); }, "01 00 0C 01 00 98 F7 3E 5D 01 00 00",
         "McuDateTimeConfig Msg send/recv error", "McuDateTimeConfig recv invalid data len", ""},
    };
    for (const auto& c : cases) {
        const auto check = [&](std::string_view reply, int result, const std::string& line) {
            hub.error_count = 0;
            mcu.script = {std::string(reply)};
            EXPECT_EQ(c.run(), result) << c.request;
            Lines expected = {"mcu " + c.request};
            if (!line.empty()) expected.push_back("E/shd " + line);
            EXPECT_EQ(Journal(), expected);
        };
        check("00", 0, "");
        check("05", 5, c.failure);
        check("", -1, c.empty);
        check(FakeMcu::kSilence, -1, c.timeout);
    }
}

TEST_F(CommandTest, LogLevelIsStoredWhateverTheMcuAnswers) {
    const std::string request = "mcu 01 00 0D 00 01 03";
    mcu.script = {std::string(FakeMcu::kSilence), "", "07"};
    EXPECT_EQ(McuLogLevel(h, 1, 3), -1);
    EXPECT_EQ(McuLogLevel(h, 1, 3), -1);
    EXPECT_EQ(McuLogLevel(h, 1, 3), 7);
    EXPECT_EQ(Journal(),
              (Lines{kLevelStored, request, kLevelStored, request, kLevelStored, request}));
}

TEST_F(CommandTest, LogLevelPropertyIsSentWhenItIsInRange) {
    const struct {
        std::string property, sent;
    } cases[] = {{"5", "05"}, {"0", "00"}, {"abc", "00"}, {" +3x", "03"},
                 {"6", ""},   {"-1", ""},  {"", ""}};
    for (const auto& c : cases) {
        SetProperty("persist.velmar.shd.mculog", c.property);
        EXPECT_EQ(RestoreMcuLogLevel(h).has_value(), !c.sent.empty());
        const Lines sent = TakeJournal({"mcu"});
        EXPECT_EQ(sent, c.sent.empty() ? Lines{} : Lines{"mcu 01 00 0D 00 01 " + c.sent});
    }
}

TEST_F(CommandTest, RotationSensorStopsWithTheLastOfItsHandles) {
    State(11).enable = State(15).enable = 1;
    mcu.unscripted = "09";
    EXPECT_EQ(SensorDeactive(h, 35), 0);
    EXPECT_EQ(Journal(), Lines{"D/shd Sensor Deactive rotation sensor not all closed"});
    State(11).enable = 0;
    EXPECT_EQ(SensorDeactive(h, 35), 9);
    EXPECT_EQ(TakeJournal({"mcu"}), Lines{"mcu 01 00 23 01"});
}

TEST_F(CommandTest, CalibrationBytesPrecedeTheStatus) {
    const struct {
        int id;
        std::string reply, stored;
        int result;
    } cases[] = {{16, "01 02 03 04 05 06 00 EE", "01 02 03 04 05 06", 0},
                 {16, "01 02 03 04 05 06 09", "01 02 03 04 05 06", 9},
                 {16, "01 02 03 04 05 06", "00 00 00 00 00 00", -1},
                 {17, "01 02 03 04 00", "01 02 03 04 00 00", 0},
                 {22, "01 02 03 04 07", "01 02 03 04 00 00", 7},
                 {23, "01 02 03 00", "00 00 00 00 00 00", -1},
                 {48, "00 01 02", "00 00 00 00 00 00", 0}};
    for (const auto& c : cases) {
        std::vector<uint8_t> stored(6);
        mcu.script = {c.reply};
        EXPECT_EQ(SensorCalibration(h, c.id, stored.data()), c.result);
        EXPECT_EQ(Hex(stored), c.stored) << c.reply;
        const std::string line = "E/shd Sensor Clibration :" + std::to_string(c.id) +
                                 " failure ret:" + std::to_string(c.result);
        EXPECT_EQ(TakeJournal({"shd"}), c.result == 0 ? Lines{} : Lines{line});
    }
}

TEST_F(CommandTest, ParametersBeyondThePacketAreNotSent) {
    EXPECT_EQ(SensorSetParameter(h, 16, std::vector<uint8_t>(28)), 0);
    EXPECT_EQ(SensorSetParameter(h, 16, std::vector<uint8_t>(29)), 0);
    const Lines sent = Journal();
    EXPECT_EQ(sent[0].size(), 3 + 32 * 3U);
    EXPECT_EQ(sent[1], "mcu 01 00 10 13");
}

TEST_F(CommandTest, FirmwareParametersGoOutInTheirOrder) {
    g_acc_calibration[1] = -312;
    g_baro_calibration = 499;
    SendMcuParameters(h);
    EXPECT_EQ(Journal(), (Lines{"mcu 01 00 10 13 00 00 C8 FE 00 00", "mcu 01 00 16 13 F3 01 00 00",
                                "mcu 01 00 17 13 05 00 00 00", "mcu 01 00 11 13 00 00 00 00"}));
    g_acc_calibration[1] = 0;
    g_baro_calibration = 0;
}

TEST_F(CommandTest, TextsAreBounded) {
    const auto text_reply = [](size_t size, std::string_view end) {
        return Hex(std::string(size, 'x')) + std::string(end);
    };
    const struct {
        std::string reply;
        size_t info, version;  // characters stored
    } cases[] = {{text_reply(255, ""), 255, 255},
                 {text_reply(256, ""), 0, 255},
                 {text_reply(300, ""), 0, 255},
                 {text_reply(3, " 00 78 78"), 3, 3},
                 {"00", 0, 0}};
    for (const auto& c : cases) {
        char info[257] = {}, version[257] = {};
        mcu.script = {c.reply, c.reply};
        EXPECT_EQ(SensorGetInfo(h, 16, info), c.reply.size() > 255 * 3 ? -1 : 0);
        EXPECT_EQ(SensorVersion(h, 0, version), 0);
        EXPECT_EQ(info, std::string(c.info, 'x'));
        EXPECT_EQ(version, std::string(c.version, 'x'));
        const std::string line = c.reply.size() > 255 * 3 ? "16 data too long" : info;
        EXPECT_EQ(Journal(),
                  (Lines{"mcu 01 00 10 22", "E/shd Sensor GetInfo :" + line, "mcu 01 00 0F 00"}));
    }
    char text[256] = {};
    mcu.script = {"", ""};
    EXPECT_EQ(SensorGetInfo(h, 16, text) + SensorVersion(h, 7, text), -2);
    EXPECT_EQ(SensorGetInfo(h, 16, nullptr) + SensorVersion(h, 0, nullptr), -2);
    EXPECT_EQ(Journal(),
              (Lines{"mcu 01 00 10 22", "E/shd Sensor GetInfo :16 data len < 1", "mcu 01 00 0F 01",
                     "E/shd Sensor Version :7 data len < 1", "E/shd Sensor GetInfo invalid param",
                     "E/shd Sensor Version invalid param"}));
}

TEST_F(CommandTest, VersionTextNumbers) {
    char text[256] = {};
    for (const int number : {0, 1, 2, 3, 4, 65535, -1}) (void)SensorVersion(h, number, text);
    const std::string request = "mcu 01 00 0F 0";
    EXPECT_EQ(TakeJournal({"mcu"}),
              (Lines{request + "0", request + "1", request + "2", request + "3", request + "1",
                     request + "1", request + "1"}));
}

TEST_F(CommandTest, RawDataTypeIsStoredThenSent) {
    const auto stored = [](const char* type) {
        return std::string("property persist.velmar.shd.rawdatatype=") + type;
    };
    const std::string refused = "E/shd McuRawDataConfig not support";
    const struct {
        uint16_t type;
        int result;
        Lines journal;
    } cases[] = {
        {1, 0, {stored("1"), "mcu 01 00 0D 01 01 00"}},
        {2, 0, {stored("2"), "mcu 01 00 0D 01 02 00"}},
        {3, 0, {stored("1"), stored("2"), stored("3"), "mcu 01 00 0D 01 03 00"}},
        {5, -1, {stored("1"), stored("0"), refused}},
        {7, -1, {stored("1"), stored("2"), stored("3"), stored("0"), refused}},
        {0x100, -1, {stored("0"), refused}},
        {0, 0, {stored("0"), "mcu 01 00 0D 01 00 00"}},
    };
    for (const auto& c : cases) {
        WriteFile("/data/logdata/sensor/alg.txt", "old");
        WriteFile("/data/logdata/sensor/hrm.txt", "old");
        EXPECT_EQ(McuRawDataConfig(h, c.type), c.result);
        EXPECT_EQ(Journal(), c.journal) << c.type;
        const std::string kept = c.type >= 1 && c.type <= 3 ? "old" : "(missing)";
        EXPECT_EQ(ReadFile("/data/logdata/sensor/alg.txt"), kept);
        EXPECT_EQ(ReadFile("/data/logdata/sensor/hrm.txt"), kept);
    }
    mcu.script = {"", "07", std::string(FakeMcu::kSilence)};
    EXPECT_EQ(McuRawDataConfig(h, 0), -1);
    EXPECT_EQ(McuRawDataConfig(h, 0), 7);
    EXPECT_EQ(McuRawDataConfig(h, 0), -1);
    EXPECT_EQ(McuHealthConfig(h, nullptr), -1);
    EXPECT_EQ(TakeJournal({"shd"}).back(), "E/shd McuHealthConfig param NULL");
}

}  // namespace
