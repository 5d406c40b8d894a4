// What the log command makes of the daemon's log: lines, names of sensors, and the folding of
// recoveries and updates. The texts are the daemon's, the times are made up.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <utility>

#include "protocol/sensors.h"
#include "tools/shdtool/log/log_fold.h"

namespace shdtool {
namespace {

// One line of a case: seconds after 04:31, thread, level and text. A "u" behind the level is the
// updater's tag.
LogLine Line(const std::string& text, int32_t pid = 400) {
    double seconds = 0;
    int thread = 0;
    char level = 0;
    char tag = 0;
    int end = 0;
    EXPECT_EQ(std::sscanf(text.c_str(), "%lf %d %c%c %n", &seconds, &thread, &level, &tag, &end), 4)
        << text;
    char line[512];
    const char* name = tag == 'u' ? "update_mcu" : "shd";
    (void)std::snprintf(line, sizeof(line), "11-23 04:31:%06.3f %5d %5d %c %-8s: %s", seconds, pid,
                        thread, level, name, text.c_str() + end);
    return ParseLogLine(line).value();
}

// All items, taken as soon as there are any.
std::vector<LogItem> Fold(const std::string& log) {
    LogFolder folder(true);
    std::vector<LogItem> items;
    const auto take = [&] {
        for (LogItem& item : folder.Take()) items.push_back(std::move(item));
    };
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        folder.Add(Line(line));
        take();
    }
    folder.End();
    take();
    return items;
}

// Everything that comes out, a line each; "." in front of what is no episode.
std::string Told(const std::vector<LogItem>& items) {
    std::string told;
    for (const LogItem& item : items) {
        if (const auto* line = std::get_if<LogLine>(&item)) told += "." + line->text + "\n";
        if (const auto* episode = std::get_if<Episode>(&item)) told += Describe(*episode) + "\n";
    }
    return told;
}

struct FoldCase {
    const char* name;
    const char* log;
    const char* told;
};

// What every recovery says from its reset to its end, four seconds behind its cause.
constexpr char kRestored[] =
    "11 7 D  sensorhub_write_proc_file filename:/proc/mcusleep/lpm 0 ret:1 !\n"
    "11 7 D  SensorWakeLockAcquiredLocked :1\n"
    "13 7 D  SensorMcuReboot ReInit uart\n"
    "14 7 D  SensorMcuReboot Handshake OK\n"
    "14 7 D  SensorMcuReboot Set parameter\n"
    "14 7 D  SensorMcuReboot sensor:18 not enable\n"
    "14 7 D  SensorMcuReboot SensorActive:19\n"
    "14 7 D  SensorMcuReboot sensor:26 not enable\n"
    "14 7 D  SensorMcuReboot SensorActive:27\n"
    "14.5 7 D  SensorWakeLockAcquiredLocked :0\n";

TEST(LogFolder, TellsEachCauseOfARecovery) {
    const FoldCase cases[] = {
        {"two time-outs",
         "1 4 D  DequeueMessageTimeout Wait timeout, errno = 2\n"
         "1 4 E  Sensor GetInfo :16 timeout\n"
         "10 4 D  SendSensorMsgAndWait to many error, reboot mcu\n"
         "10 4 E  Sensor Batch :48 timeout\n",
         ".DequeueMessageTimeout Wait timeout, errno = 2\n"
         ".Sensor GetInfo :16 timeout\n"
         "recovery in 4.5 s: the MCU left two requests unanswered; no answer to GetInfo "
         "accelerometer and Batch step-counter; back: step-counter, motion-health\n"},
        {"failed writes", "10 4 D  SendSensorMsgAndWait wakeup to many error, reboot mcu\n",
         "recovery in 4.5 s: three requests could not be written to the UART; back: step-counter, "
         "motion-health\n"},
        {"crash",
         "9 5 D  McuCoreDumpProcess ctl:1 dump count:a dump index:9 reboot\n"
         "10 5 D  McuCoreDumpProcess ctl:1 dump count:a dump index:a reboot\n",
         ".McuCoreDumpProcess ctl:1 dump count:a dump index:9 reboot\n"
         "recovery in 4.5 s: the MCU crashed and sent a core dump in 10 pieces; back: "
         "step-counter, motion-health\n"},
        {"a log that begins later", "", "recovery in 3.5 s: back: step-counter, motion-health\n"},
    };
    for (const FoldCase& test : cases) {
        EXPECT_EQ(Told(Fold(std::string(test.log) + kRestored)), test.told) << test.name;
    }
}

// Each follows "10 4 D  SendSensorMsgAndWait wakeup to many error, reboot mcu".
TEST(LogFolder, TellsWhatBecameOfARecovery) {
    const FoldCase cases[] = {
        {"forbidden", "10 4 E  SensorMcuReboot disable\n",
         "recovery FAILED after 0.0 s: forbidden by persist.velmar.shd.mcureboot; "},
        {"no thread", "10 4 E  SensorMcuReboot thread create failure\n",
         "recovery FAILED after 0.0 s: no thread could be started; "},
        {"a sensor that does not come back, its calibration, and requests meanwhile",
         "11 7 D  SensorWakeLockAcquiredLocked :1\n"
         "12 7 W  SensorMcuReboot Handshake timeout\n"
         "12 7 D  SendSensorMsgAndWait to many error, reboot mcu\n"
         "12 7 E  SensorMcuReboot thread has exist\n"
         "12 4 E  Process msg mcu in reboot ignore sensor   16 ,command id =    0\n"
         "13 7 D  SensorMcuReboot Handshake OK\n"
         "14 7 E  Sensor SetParameter :16 timeout\n"
         "15 7 E  Sensor Deactive :48 timeout\n"
         "16 7 E  Sensor Active :48 failure ret:5\n"
         "16 7 D  SensorMcuReboot SensorActive:19\n"
         "16 7 D  SensorMcuReboot SensorActive:26\n"
         "17 7 D  SensorWakeLockAcquiredLocked :0\n",
         "recovery in 7.0 s: three requests could not be written to the UART; 1 unanswered "
         "handshake; 1 client request refused; calibration not sent: accelerometer; NOT BACK: "
         "step-counter; back: wrist-tilt\n"
         ".Sensor Deactive :48 timeout\n"},
        {"nothing was on",
         "11 7 D  SensorWakeLockAcquiredLocked :1\n12 7 D  SensorMcuReboot Handshake OK\n"
         "13 7 D  SensorWakeLockAcquiredLocked :0\n",
         "; no sensor switched on again\n"},
        {"silent MCU",
         "11 7 D  SensorWakeLockAcquiredLocked :1\n"
         "12 7 W  SensorMcuReboot Handshake timeout\n"
         "13 7 W  SensorMcuReboot Handshake timeout update mcu\n"
         "14 7 E  SensorMcuReboot Handshake timeout index:11 update mcu failure\n"
         "15 7 D  SensorWakeLockAcquiredLocked :0\n",
         "recovery FAILED after 5.0 s: the MCU answers no handshake, and new firmware did not "
         "help; three requests could not be written to the UART; 1 unanswered handshake; 1 "
         "firmware update\n"},
        {"no UART",
         "11 7 D  SensorWakeLockAcquiredLocked :1\n"
         "12 7 E  BoardSerial ReInit open uart failure\n"
         "13 7 W  SensorMcuReboot init UART timeout update mcu\n"
         "14 7 E  SensorMcuReboot init UART timeout index:11 update mcu failure\n"
         "15 7 D  SensorWakeLockAcquiredLocked :0\n",
         "recovery FAILED after 5.0 s: the UART could not be opened; three requests could not be "
         "written to the UART; 1 firmware update\n"},
        {"cut off", "11 7 D  SensorWakeLockAcquiredLocked :1\n",
         "recovery has not ended after 1.0 s: three requests "},
    };
    for (const FoldCase& test : cases) {
        const std::string told = Told(
            Fold(std::string("10 4 D  SendSensorMsgAndWait wakeup to many error, reboot mcu\n") +
                 test.log));
        EXPECT_NE(told.find(test.told), std::string::npos) << test.name << ": " << told;
    }
}

// Each follows "1 4 I u mcu_update enter!".
TEST(LogFolder, TellsEachEndOfAnUpdate) {
    const std::string writing =
        "3 4 Du write extended erase cmd ok!\n"
        "4 4 Du file_size = 204999, mcu image_size = 204775, begin write mcu memory!\n";
    const struct {
        std::string log, told;
    } cases[] = {
        {writing + "9 4 Du write last mcu memory!\n"
                   "29 4 Iu mcu_end(set gpio to normal mode) ok!\n29 4 Iu mcu_update ok!\n",
         "update in 28.0 s: 800 blocks written\n"},
        {writing + "29 4 Eu fopen mcu file error.\n29 4 Eu target mcu header get error!\n"
                   "29 4 Iu mcu_update ok!\n",
         "update FAILED after 28.0 s: written, but not started: the image's header was gone; the "
         "MCU has no firmware now\n"},
        {"1 4 Eu open update tty device error!\n1 4 Eu open_mcu_tty error!\n1 4 Eu mcu_init "
         "error!\n",
         "update FAILED after 0.0 s: the UART could not be opened\n"},
        {"1 4 Eu write 7F cmd error!\n1 4 Eu mcu_init error!\n",
         "update FAILED after 0.0 s: the UART took no bytes\n"},
        {"2 4 Eu mcu serial select error or timeout ret = 0.\n"
         "5 4 Eu handshake over 5 times(retry:4), error!\n"
         "5 4 Eu mcu init over 3 times, mcu int fail !\n5 4 Eu mcu_init error!\n",
         "update FAILED after 4.0 s: the bootloader did not answer in 20 attempts\n"},
        {"2 4 Eu read mcu_send_cmd return 1f,error!\n2 4 Eu write extended erase fail!\n"
         "2 4 Eu extended_erase_cmd error!\n",
         "update FAILED after 1.0 s: erasing the flash was refused\n"},
        {"42 4 Eu read mcu_send_cmd return 0,error!\n42 4 Eu write erase all fail!\n"
         "42 4 Eu extended_erase_cmd error!\n",
         "update FAILED after 41.0 s: erasing the flash was not acknowledged\n"},
        {"3 4 Du write extended erase cmd ok!\n3 4 Eu stat file settings error!\n"
         "3 4 Eu file size error!\n3 4 Eu mcu_image_update error!\n",
         "update FAILED after 2.0 s: the image is missing; the MCU has no firmware now\n"},
        {"3 4 Eu file size error!\n3 4 Eu mcu_image_update error!\n",
         "update FAILED after 2.0 s: the image is too large\n"},
        {"3 4 Eu file size error, file_size = 9, header_len = 224,image_size = 1!\n"
         "3 4 Eu mcu_image_update error!\n",
         "update FAILED after 2.0 s: the image's size is not what its header says\n"},
        {"3 4 Eu file_buf malloc fail!\n3 4 Eu mcu_image_update error!\n",
         "update FAILED after 2.0 s: there was no memory for the image\n"},
        {"3 4 Eu fopen mcu file error.\n3 4 Eu mcu_image_update error!\n",
         "update FAILED after 2.0 s: the image could not be opened\n"},
        {writing + "7 4 Eu read mcu_send_cmd return 1f,error!\n7 4 Eu write memory data fail!\n"
                   "7 4 Eu write_memory_cmd current error!\n7 4 Eu mcu_image_update error!\n",
         "update FAILED after 6.0 s: at about block 113 of 800, its data was refused; the MCU has "
         "no firmware now\n"},
        {writing + "8 4 Eu read mcu_send_cmd return 0,error!\n8 4 Eu write memory address fail!\n"
                   "8 4 Eu write_memory_cmd current error!\n8 4 Eu mcu_image_update error!\n",
         "update FAILED after 7.0 s: at about block 113 of 800, its address was not acknowledged; "
         "the MCU has no firmware now\n"},
        {writing + "4 4 Eu read mcu_send_cmd return 76,error!\n"
                   "4 4 Eu write_memory_cmd current error!\n4 4 Eu mcu_image_update error!\n",
         "update FAILED after 3.0 s: at about block 1 of 800, its command was answered with 0x76; "
         "the MCU has no firmware now\n"},
        {writing + "5 4 Du write last mcu memory!\n5 4 Eu write mcu_send_cmd error!\n"
                   "5 4 Eu write memory data fail!\n5 4 Eu write_memory_cmd last error!\n"
                   "5 4 Eu mcu_image_update error!\n",
         "update FAILED after 4.0 s: at block 800 of 800, its data was not sent (the UART took no "
         "bytes); the MCU has no firmware now\n"},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(Told(Fold("1 4 Iu mcu_update enter!\n1 4 Iu mcu_init enter!\n" + test.log)),
                  test.told);
    }
}

TEST(LogFolder, TellsWhyAnUpdateRan) {
    const std::pair<const char*, const char*> causes[] = {
        {"1 4 Iu get mcu current version error, go to update!", "no version from the MCU"},
        {"1 4 W  SensorMcuReboot Handshake timeout update mcu", "the MCU answered no handshake"},
        {"1 4 W  SensorMcuReboot init UART timeout update mcu", "the UART could not be opened"},
        {"1 4 Du board current mcu version: A.900.1,target mcu version: A.900.2, not equal.",
         "the MCU ran A.900.1, the image is A.900.2"},
        {"1 4 Eu current version len:3, target version len:4, not euqal.",
         "the versions of MCU and image differ"},
    };
    for (const auto& [line, cause] : causes) {
        const std::string told =
            Told(Fold(std::string(line) +
                      "\n2 4 Iu mcu_update enter!\n3 4 Iu mcu_end(\n3 4 Iu mcu_update ok!"));
        EXPECT_TRUE(told.ends_with(std::string("update in 1.0 s: ") + cause + "\n")) << told;
    }
}

TEST(LogFolder, AnUpdateWithinARecoveryIsToldBesideIt) {
    EXPECT_EQ(Told(Fold("10 4 D  SendSensorMsgAndWait wakeup to many error, reboot mcu\n"
                        "11 7 D  SensorWakeLockAcquiredLocked :1\n"
                        "12 7 W  SensorMcuReboot Handshake timeout update mcu\n"
                        "12 7 Iu mcu_update enter!\n"
                        "13 7 Eu write_gpio_data_str err:Input/output error!\n"
                        "14 7 Iu mcu_end(\n14 7 Iu mcu_update ok!\n"
                        "15 7 D  SensorMcuReboot Handshake OK\n"
                        "16 7 D  SensorWakeLockAcquiredLocked :0\n")),
              "recovery in 6.0 s: three requests could not be written to the UART; 1 firmware "
              "update; no sensor switched on again\n"
              "update in 2.0 s: the MCU answered no handshake\n"
              ".write_gpio_data_str err:Input/output error!\n");
}

TEST(LogFolder, FollowedEpisodesAreToldAtTheirBeginningAndAtTheirEnd) {
    LogFolder folder(false);
    folder.Add(Line("10 4 D  SendSensorMsgAndWait wakeup to many error, reboot mcu"));
    folder.Add(Line("11 5 D  other"));
    EXPECT_EQ(Told(folder.Take()),
              "recovery begins: three requests could not be written to the UART\n.other\n");
    folder.Add(Line("12 5 D  more"));
    EXPECT_EQ(Told(folder.Take()), ".more\n");
    folder.Add(Line("12 9 D  a new daemon", 500));
    EXPECT_EQ(Told(folder.Take()),
              "recovery FAILED after 0.0 s: the daemon ended meanwhile; three requests could not "
              "be written to the UART\n"
              "start: the daemon is process 500 now, it was 400\n.a new daemon\n");
}

TEST(LogLine, TakesThreadtimeLinesAndNothingElse) {
    const std::string line = "11-23 04:31:07.123   400   407 D shd_serial: a: b\x1B";
    for (const std::string& text : {line, "Nov 23 04:31:07 watch shd[400]: " + line}) {
        const auto parsed = ParseLogLine(text);
        ASSERT_TRUE(parsed) << text;
        EXPECT_EQ(parsed->stamp, "11-23 04:31:07.123");
        EXPECT_EQ(parsed->tid, 407);
        EXPECT_EQ(parsed->tag, "shd_serial");
        EXPECT_EQ(parsed->text, "a: b\x1B");
    }
    for (const char* text : {"", "--------- beginning of main", "13-23 04:31:07.123 1 1 D shd: x",
                             "11-23 24:31:07.123 1 1 D shd: x", "11-23 04:31:07.123 1 1 Q shd: x",
                             "11-23 04:31:07.123 1 1 D shd x", "11-23 04:31"}) {
        EXPECT_FALSE(ParseLogLine(text)) << text;
    }
}

TEST(LogLine, TimeRunsOnOverMidnight) {
    const LogLine evening = ParseLogLine("12-31 23:59:59.500 1 1 D shd: x").value();
    const LogLine morning = ParseLogLine("01-01 00:00:00.250 1 1 D shd: x").value();
    EXPECT_EQ(ElapsedMs(evening, morning), 750);
    EXPECT_EQ(ElapsedMs(morning, evening), -750);
}

TEST(LogLine, NamesTheSensorBehindItsNumber) {
    const std::pair<const char*, const char*> texts[] = {
        {"Sensor Active :48 timeout", "Sensor Active :48 (step-counter) timeout"},
        {"Sensor Batch :16 period:20 batchcnt:5 failure ret:5",
         "Sensor Batch :16 (accelerometer) period:20 batchcnt:5 failure ret:5"},
        {"Sensor DeActive :35 failure ret:1",
         "Sensor DeActive :35 (rotation-vector/game-rotation-vector) failure ret:1"},
        {"Sensor GetInfo :16 data len < 1", "Sensor GetInfo :16 (accelerometer) data len < 1"},
        {"SensorMcuReboot SensorActive:19", "SensorMcuReboot SensorActive:19 (step-counter)"},
        {"ProcessVirtualSensor type:18 cmd:0",
         "ProcessVirtualSensor type:18 (step-detector) cmd:0"},
        {"Process msg mcu in reboot ignore sensor   50 ,command id =    0",
         "Process msg mcu in reboot ignore sensor   50 (heart-rate) ,command id =    0"},
        // No sensor, or none of these numbers.
        {"Sensor GetInfo :16 bit accelerometer", nullptr},
        {"Sensor Version :16 timeout", nullptr},
        {"Sensor Active :99 timeout", nullptr},
        {"Process msg mcu in reboot ignore sensor   -1 ,command id =    0", nullptr},
        {"SENSOR_TYPE_HEART_RATE bpm:72.000000 status:2", nullptr},
        {"Sensor Active :", nullptr},
    };
    for (const auto& [text, named] : texts) {
        EXPECT_EQ(WithSensorName(text), named != nullptr ? named : text);
    }
    EXPECT_EQ(FindMention("SENSOR_TYPE_HEART_RATE bpm:72.000000").handles,
              std::vector<int32_t>{shd::kHandleHeartRate});
}

}  // namespace
}  // namespace shdtool
