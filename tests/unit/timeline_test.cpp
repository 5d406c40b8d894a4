// What the readers of the timeline make of a line and of a log: exchanges and how the daemon pairs
// them, states, episodes, and times on the boot clock.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>

#include "tools/shdtool/timeline/line_items.h"
#include "tools/shdtool/timeline/log_items.h"
#include "tools/shdtool/timeline/state_fold.h"
#include "tools/wire/frame.h"

namespace shdtool::timeline {
namespace {

constexpr int64_t kSec = 1'000'000'000;
constexpr int64_t kMs = 1'000'000;

std::string Seconds(Time time) {
    char text[32];
    (void)std::snprintf(text, sizeof(text), "%.3f", static_cast<double>(time) / kSec);
    return text;
}

// The items that a test looks at, a line each.
struct Teller {
    std::string told;

    void operator()(const Exchange& item) {
        told += Seconds(item.begin) + " to " + Seconds(item.end) + " " + item.words;
        if (item.mark != Mark::kNone) told += " [" + std::string(NameOf(item.mark)) + "]";
        told += "\n";
    }
    void operator()(const McuState& item) {
        told += Seconds(item.at) + " = " + std::string(NameOf(item.state));
        if (!item.reason.empty()) told += ": " + item.reason;
        told += "\n";
    }
    void operator()(const EpisodeSpan& item) {
        if (!item.end) return;
        told += Seconds(item.begin) + " to " + Seconds(*item.end) + " " + item.words + "\n";
        for (const Phase& phase : item.phases) {
            told += "  " + Seconds(phase.begin) + " to " + Seconds(phase.end.value_or(-1)) + " " +
                    phase.words + "\n";
        }
    }
    void operator()(const Work& item) {
        told += Seconds(item.begin) + " to " + Seconds(item.end) + " main: " + item.words + "\n";
    }
    void operator()(const LogText& item) { last_log = item.at; }
    template <typename Other>
    void operator()(const Other&) {}

    Time last_log = 0;
};

// A line whose recorder's clock is 1,000 s behind the boot clock and 2,000 s behind the wall clock.
// One step a text: "2.1 > 000000" (packets, which are put into frames), or as in a recording.
std::string ToldByLine(const std::string& steps, double end) {
    Teller teller;
    LineItems items([&](const Item& item) { std::visit(teller, item); });
    wire::StepParser parser;
    const auto push = [&](const std::string& text) {
        if (const auto step = parser.Parse(text)) items.Push(*step);
    };
    push("0 @ 2000 1000");
    std::istringstream lines(steps);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string at, sign, hex;
        words >> at >> sign >> hex;
        if (sign != ">" && sign != "<") {
            push(line);
            continue;
        }
        wire::Bytes packet;
        for (size_t i = 0; i < hex.size(); i += 2) {
            packet.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
        }
        push(FormatStep(std::chrono::nanoseconds(static_cast<int64_t>(std::stod(at) * kSec)),
                        sign == ">" ? wire::Direction::kHostToMcu : wire::Direction::kMcuToHost,
                        wire::EncodeFrame(packet)));
    }
    items.Tick(static_cast<Time>((1000 + end) * kSec));
    items.End();
    return teller.told;
}

struct LineCase {
    const char* name;
    const char* steps;
    double end;
    const char* told;
};

constexpr LineCase kLineCases[] = {
    {"Answered", "2.5 > 000000\n2.6 < 000100\n", 20,
     "1002.600 = service\n"
     "1002.500 to 1002.600 handshake\n"},
    // Time limits end at whole seconds.
    {"Unanswered", "2.1 > 000000\n2.2 < 000100\n3.9 > 01001004\n3.95 > 01001022\n", 20,
     "1002.200 = service\n"
     "1002.100 to 1002.200 handshake\n"
     "1003.900 to 1005.000 accelerometer flush [unanswered]\n"
     "1003.950 to 1013.000 accelerometer get info [unanswered]\n"
     "1003.900 = silent: no answer to accelerometer flush\n"},
    // The late reply of the first is taken for the second's, and so on until one is missing.
    {"LateAndShifted",
     "2.1 > 01001000\n4.5 < 0101100000\n5.0 > 01001100\n5.1 < 0101110000\n6.0 > 01001600\n"
     "9.0 > 01001000\n9.1 < 0101100000\n",
     20,
     "1002.100 to 1004.000 accelerometer active [unanswered]\n"
     "1004.500 = service\n"
     "1002.100 to 1004.500 accelerometer active [late]\n"
     "1005.000 to 1005.001 gyroscope active: took the late reply accelerometer active status 0 "
     "[shifted]\n"
     "1006.000 to 1006.001 pressure active: took the late reply gyroscope active status 0 "
     "[shifted]\n"
     "1009.000 to 1009.100 accelerometer active\n"},
    {"ShiftedWhileTheNextOneWaits",
     "2.1 > 01001000\n4.5 > 01001100\n4.6 < 0101100000\n4.7 < 0101110000\n", 20,
     "1002.100 to 1004.000 accelerometer active [unanswered]\n"
     "1004.600 = service\n"
     "1002.100 to 1004.600 accelerometer active [late]\n"
     "1004.500 to 1004.600 gyroscope active: took the late reply accelerometer active status 0 "
     "[shifted]\n"},
    // A daemon that starts knows of no earlier reply; one that recovers the MCU does.
    {"DaemonStarts",
     "2.1 > 01001000\n4.5 < 0101100000\n5.0 > 01000f00\n5.1 ! reset 0\n5.2 ! reset 1\n"
     "7.1 > 000000\n7.2 < 000100\n",
     20,
     "1002.100 to 1004.000 accelerometer active [unanswered]\n"
     "1004.500 = service\n"
     "1002.100 to 1004.500 accelerometer active [late]\n"
     "1005.000 to 1005.001 version 0: took the late reply accelerometer active status 0 "
     "[shifted]\n"
     "1005.100 = starting: the daemon starts and resets the MCU\n"
     "1007.200 = service\n"
     "1007.100 to 1007.200 handshake\n"},
    // The version check does not wait for its first request as long as others would.
    {"VersionAskedAgain", "2.1 > 01000f00\n2.3 > 01000f00\n2.4 < 01010f0053494d00\n", 20,
     "1002.100 to 1002.300 version 0 [unanswered]\n"
     "1002.300 to 1002.400 version 0\n"},
    {"Recovery",
     "2.1 > 000000\n2.2 < 000100\n2.3 ! boot0 0\n2.3 ! reset 0\n2.4 ! reset 1\n"
     "4.5 < 040001\n5.5 > 000000\n5.6 < 000100\n",
     20,
     "1002.200 = service\n"
     "1002.100 to 1002.200 handshake\n"
     "1002.300 = recovering: the daemon resets the MCU\n"
     "1005.600 = service\n"
     "1005.500 to 1005.600 handshake\n"},
    {"Update",
     "2.1 > 01000f00\n2.2 < 01010f0053494d00\n2.3 ! boot0 1\n2.3 ! reset 0\n2.4 ! reset 1\n"
     "2.5 % 115200 8e1\n",
     20,
     "1002.100 to 1002.200 version 0\n"
     "1002.400 = bootloader: reset with its boot pin high\n"},
    // A report of 10 samples every 20 ms is due five times a second.
    {"NoReports",
     "2.1 > 01001003140000000a00000000000000\n2.2 < 0101100300\n2.3 > 01001000\n2.4 < 0101100000\n"
     "2.6 < 01021000000000000000\n",
     20,
     "1002.200 = service\n"
     "1002.100 to 1002.200 accelerometer batch every 20 ms, 10 to a report\n"
     "1002.300 to 1002.400 accelerometer active\n"
     "1002.800 = silent: no report of accelerometer\n"},
};

// A recovery that holds an update, of a daemon that starts and refuses a request meanwhile. The
// clocks were said at 12:00:30 of a 23rd of November, as it was in this process's zone.
constexpr const char* kLog =
    "11-23 12:00:00.000   400   400 D update_mcu: get mcu current version:SIM.900.0001, "
    "length:12.\n"
    "11-23 12:00:02.500   400   400 D shd     : Set parameter OK, start loop\n"
    "11-23 12:00:10.000   400   400 D shd     : SendSensorMsgAndWait to many error, reboot mcu\n"
    "11-23 12:00:10.001   400   407 D shd     : SensorWakeLockAcquiredLocked :1\n"
    "11-23 12:00:11.000   400   400 E shd     : Process msg mcu in reboot ignore sensor   16 ,"
    "command id =    0\n"
    "11-23 12:00:12.000   400   407 D shd     : SensorMcuReboot ReInit uart\n"
    "11-23 12:00:30.000   400   407 W shd     : SensorMcuReboot Handshake timeout update mcu\n"
    "11-23 12:00:30.001   400   407 I update_mcu: mcu_update enter!\n"
    "11-23 12:00:31.000   400   407 D update_mcu: extended_erase_cmd enter!\n"
    "11-23 12:00:33.000   400   407 D update_mcu: write extended erase cmd ok!\n"
    "11-23 12:00:40.000   400   407 I update_mcu: mcu_end(set gpio to normal mode) ok!\n"
    "11-23 12:00:40.001   400   407 I update_mcu: mcu_update ok!\n"
    "11-23 12:00:41.000   400   407 D shd     : SensorMcuReboot Handshake OK\n"
    "11-23 12:00:41.100   400   407 D shd     : SensorMcuReboot sensor:18 not enable\n"
    "11-23 12:00:41.200   400   407 D shd     : SensorWakeLockAcquiredLocked :0\n";

wire::Clocks ClocksAt(int year, int64_t boot_sec) {
    std::tm date{};
    date.tm_year = year - 1900;
    date.tm_mon = 10;
    date.tm_mday = 23;
    date.tm_hour = 12;
    date.tm_sec = 30;
    date.tm_isdst = -1;
    return {std::chrono::seconds(std::mktime(&date)), std::chrono::seconds(boot_sec)};
}

TEST(LogItems, TellEpisodesWithTheirPhasesOnTheBootClock) {
    Teller teller;
    ClockAnchor beside;
    beside.Add(ClocksAt(2025, 5030));  // of an earlier boot
    beside.Add(ClocksAt(2026, 1030));
    LogItems items([&](const Item& item) { std::visit(teller, item); }, beside);
    std::istringstream lines(kLog);
    for (std::string line; std::getline(lines, line);) items.Push(line);
    items.End();
    EXPECT_EQ(teller.told,
              "1000.000 = starting: the daemon starts\n"
              "1000.000 to 1002.500 main: start-up\n"
              "1002.500 = service\n"
              "1010.000 = recovering: the MCU left two requests unanswered\n"
              "1011.000 to 1013.000 main: refuses a request: the MCU is being restarted\n"
              "1030.001 = updating: the MCU answered no handshake\n"
              "1030.001 to 1040.001 update in 10.0 s: the MCU answered no handshake\n"
              "  1030.001 to 1031.000 starts the bootloader\n"
              "  1031.000 to 1033.000 erases the flash\n"
              "  1033.000 to 1040.001 writes the image and starts it\n"
              "1040.001 = recovering\n"
              "1010.000 to 1041.200 recovery in 31.2 s: the MCU left two requests unanswered; "
              "1 firmware update; 1 client request refused; "
              "no sensor switched on again\n"
              "  1010.000 to 1012.000 resets the MCU\n"
              "  1012.000 to 1041.000 opens the UART and shakes hands\n"
              "  1041.000 to 1041.100 restores the settings\n"
              "  1041.100 to 1041.200 restores the sensors\n"
              "1041.200 = service\n");
}

TEST(LogItems, AreWhereTheLogsOwnClocksPutThem) {
    Teller teller;
    LogItems items([&](const Item& item) { std::visit(teller, item); });
    const std::string line = "11-23 12:00:31.250   400   400 D shd     : Handshake OK";
    items.Push(line);
    EXPECT_FALSE(items.placed());
    EXPECT_EQ(teller.last_log, 0) << "there is nothing yet to place it by";
    items.Push(wire::FormatClocks(ClocksAt(2026, 1030)));
    items.Push(line);
    EXPECT_EQ(teller.last_log, 1031 * kSec + 250 * kMs);
}

TEST(LineItems, TellWhatBecameOfRequestsAndOfTheMcu) {
    for (const LineCase& test : kLineCases) {
        EXPECT_EQ(ToldByLine(test.steps, test.end), test.told) << test.name;
    }
}

}  // namespace
}  // namespace shdtool::timeline
