// Inbound routing, conversion of sensor reports into events, time stamps and flush accounting.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>

#include "core/hub/debug_flag.h"
#include "events/event_stamp.h"
#include "events/sensor_data.h"
#include "events/step_counter.h"
#include "mcu_link/exchange/reboot_trigger.h"
#include "mcu_link/line.h"
#include "tests/support/test_hub.h"

using namespace shd;

namespace {

using namespace shdtest;

constexpr int64_t kMilli = 1'000'000;
const std::string kAccSamples = "01 00 00 00 00 00 02 00 00 00 00 00 03 00 00 00 00 00";

struct EventTest : testing::Test, TestHub {
    // The events of a report that arrives after a while: "HANDLE/TYPE@MS", MS being the sample's
    // age on arrival, "never" for a time stamp of 0; "flush HANDLE" for a flush-complete event.
    Lines ReportAfter(int64_t milliseconds, int mcu_sensor_id, const std::string& data) {
        g_elapsed_ns += milliseconds * kMilli;
        Report(mcu_sensor_id, data);
        Lines lines;
        for (const SensorEvent& event : TakeEvents()) {
            const int64_t age = (g_elapsed_ns - event.timestamp) / kMilli;
            lines.push_back(event.version == 2
                                ? "flush " + std::to_string(event.data[4])
                                : std::to_string(event.sensor) + "/" + std::to_string(event.type) +
                                      "@" + (event.timestamp == 0 ? "never" : std::to_string(age)));
        }
        return lines;
    }
};

TEST_F(EventTest, ReportsAreConvertedToUnitsAndAxesOfTheEvent) {
    for (const auto& row : Table(R"(
        16 | 00 08 00 00 00 F8 | 0 | 1 | 00 00 00 00 E7 D0 1C C1 E7 D0 1C C1
        16 | E8 03 30 F8 B8 0B | 0 | 1 | 02 24 19 C1 02 24 99 C0 02 B6 65 41
        17 | E8 03 30 F8 B8 0B | 5 | 4 | 5F 4D 9C 3F 5F 4D 1C 40 0E 74 6A C0
        22 | 78 A9 1F 00 | 6 | 6 | C0 4B 7D 44
        22 | FF FF FF FF | 6 | 6 | 00 00 00 4A
        33 | 00 00 00 3F 00 00 C0 BF C3 F5 1C 41 |  9 |  9 | 00 00 00 3F 00 00 C0 BF C3 F5 1C 41
        32 | 00 00 00 3F 00 00 C0 BF C3 F5 1C 41 | 10 | 10 | 00 00 00 3F 00 00 C0 BF C3 F5 1C 41
        23 | 01 02 03 04 05 06 07 08 09 0A | 25 | 65537 | 01 02 03 04 05 06 07 08 09 0A
        50 | 48 00 00 00 03 FF FF FF | 21 | 21 | 00 00 90 42 03
        51 | | 26 | 26 |
        64 | 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 | 27 | 65538 | as reported)")) {
        Report(Int(row[0]), row[1]);
        const auto events = TakeEvents();
        ASSERT_EQ(events.size(), 1U) << row[0];
        SensorEvent expected = {104, Int(row[2]), Int(row[3]), 0, g_elapsed_ns, {}, 0, {}};
        const auto data = Bytes(row[4] == "as reported" ? row[1] : row[4]);
        std::copy(data.begin(), data.end(), expected.data);
        EXPECT_EQ(std::memcmp(&events[0], &expected, 104), 0) << row[0] << Hex(events[0].data);
    }
}

TEST_F(EventTest, MeasuredIntervalSpreadsABatch) {
    State(0).period_ms = 20;
    State(0).last_time = -1;
    EXPECT_EQ(ReportAfter(0, 16, kAccSamples), List("0/1@40 | 0/1@20 | 0/1@0"));
    EXPECT_EQ(State(0).last_time, g_elapsed_ns);
    EXPECT_EQ(State(0).time_adjust, 0);
    EXPECT_EQ(ReportAfter(90, 16, kAccSamples), List("0/1@60 | 0/1@30 | 0/1@0"));
    EXPECT_EQ(State(0).time_adjust, 10 * kMilli);
    // One sample and a trailing half measure nothing.
    EXPECT_EQ(ReportAfter(10, 16, kAccSamples.substr(0, 26)), List("0/1@0"));
    EXPECT_EQ(State(0).time_adjust, 0);
    EXPECT_EQ(State(0).last_time, g_elapsed_ns - 10 * kMilli);
    State(0).last_time = g_elapsed_ns + 7;  // the division truncates towards zero
    (void)ReportAfter(0, 16, kAccSamples);
    EXPECT_EQ(State(0).time_adjust, -2 - 20 * kMilli);
    for (const auto& row : Table("16|0|6 \n 17|5|6 \n 22|6|4")) {  // since boot, two samples
        State(Int(row[1])).last_time = 0;
        (void)ReportAfter(0, Int(row[0]),
                          Hex(std::string(2 * static_cast<size_t>(Int(row[2])), '\0')));
        EXPECT_EQ(State(Int(row[1])).time_adjust,
                  g_elapsed_ns / 2 - State(Int(row[1])).period_ms * kMilli)
            << row[0];
    }
    // The fused sensors and the raw record are stamped by their period alone.
    State(9) = State(25) = {0, 10, 0, 0, 0, 5, 0, 0, 0};
    State(9).time_adjust = 77;
    EXPECT_EQ(ReportAfter(0, 33, Hex(std::string(24, '\0'))), List("9/9@10 | 9/9@0"));
    EXPECT_EQ(ReportAfter(0, 23, Hex(std::string(20, '\0'))), List("25/65537@10 | 25/65537@0"));
    EXPECT_EQ(State(9).last_time, 5);
}

TEST_F(EventTest, OnlyTheNewestSamplesOfALargeReportAreSent) {
    State(0) = {0, 10, 2, 0, 0, -1, 0, 0, 7};  // period 10 ms, batches of 2, no flush pending
    Report(16, kAccSamples);
    const auto events = TakeEvents();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(g_elapsed_ns - events[0].timestamp, 20 * kMilli);
    EXPECT_EQ(g_elapsed_ns - events[1].timestamp, 10 * kMilli);
    EXPECT_EQ(Hex(std::span(events[0].data).subspan(4, 4)), "E7 D0 1C BC");  // x = 2
    EXPECT_EQ(State(0).flush_count, 5);                                      // less what was sent
    State(0) = {0, 10, 2, 0, 0, -1, 0, 1, 0};  // nothing is skipped while a flush is pending
    EXPECT_EQ(ReportAfter(0, 16, kAccSamples), List("0/1@20 | 0/1@10 | 0/1@0 | flush 0"));
}

TEST_F(EventTest, BatchIsCountedDownAcrossReports) {
    const std::string ages_of_10 = "90 80 70 60 (6) 50 40 30 20 (2) 10 0 90 80 (8) ";
    const std::string ages_of_8 = "70 60 50 40 (4) 30 20 10 0 (0) 70 60 50 40 (4) ";
    for (const auto& [mcu_sensor_id, handle, size, batchcnt, expected] :
         {std::tuple{33, 9, 12, 10, ages_of_10}, std::tuple{64, 27, 16, 10, ages_of_10},
          std::tuple{33, 9, 12, 8, ages_of_8}}) {
        State(handle) = {0, 10, batchcnt, 0, 0, -1, 0, 0, 0};
        const std::string samples = Hex(std::string(static_cast<size_t>(4 * size + 3), '\0'));
        std::string ages;  // of each report's samples, then what is left of the batch
        for (int report = 0; report < 3; ++report) {
            for (const std::string& stamp : ReportAfter(0, mcu_sensor_id, samples)) {
                ages += stamp.substr(stamp.find('@') + 1) + " ";
            }
            ages += "(" + std::to_string(State(handle).batch_left) + ") ";
        }
        EXPECT_EQ(ages, expected) << handle << " " << batchcnt;
    }
}

TEST_F(EventTest, SampleFromBeforeBootKeepsItsStamp) {
    g_elapsed_ns = 20;
    State(0) = {0, 20'000, 0, 0, 0, -1, 0, 0, 0};
    EXPECT_EQ(ReportAfter(0, 16, kAccSamples), List("0/1@never | 0/1@never | 0/1@0"));
    EXPECT_EQ(AddTimeStamp(nullptr, 0, 0), -1);
    EXPECT_EQ(ProcessSensorData(&hub, nullptr), -1);
    EXPECT_EQ(TakeJournal({"shd"}), List("E/shd AddTimeStamp param null"));
}

TEST_F(EventTest, RotationSensorServesEachHandleThatIsEnabled) {
    const std::string sample = "00 00 00 3F 00 00 80 BE 00 00 00 3E 00 00 40 3F";
    const std::string game = "00 00 00 3F 00 00 80 BE 00 00 00 BE";
    for (const auto& row : Table("0|1|15/15@0| \n 1|0|11/11@0| \n 1|1|15/15@0|11/11@0 \n 0|0||")) {
        State(11).enable = Int(row[0]);
        State(15).enable = Int(row[1]);
        EXPECT_EQ(ReportAfter(0, 35, sample), List(row[2] + "|" + row[3])) << row[0] << row[1];
    }
    State(11).enable = State(15).enable = 1;
    Report(35, sample);
    const auto events = TakeEvents();
    EXPECT_EQ(WithoutTrailingZeros(Hex(events[0].data)), game);
    EXPECT_EQ(WithoutTrailingZeros(Hex(events[1].data)), game + " 00 00 40 3F");
}

TEST_F(EventTest, FlushCompletesWhenItsSamplesHaveCome) {
    const std::string heart_rate = "48 00 00 00 03 00 00 00";
    const struct {
        int mcu_sensor_id, handle;
        std::string report;
        int flush_count;
        const char* events;
        int left;
    } cases[] = {
        {16, 0, kAccSamples, 6, "0/1@50 | 0/1@40 | 0/1@30 | flush 0", 0},  // taken off twice
        {16, 0, kAccSamples, 7, "0/1@60 | 0/1@50 | 0/1@40", 1},
        {16, 0, kAccSamples, 1, "0/1@0 | 0/1@10 | 0/1@0 | flush 0", 0},
        {16, 0, "", 0, "flush 0", 0},
        {23, 25, Hex(std::string(25, '\0')), 5, "25/65537@40 | 25/65537@30", 1},
        {50, 21, heart_rate, 2, "21/21@10 | flush 21", 0},
        {50, 21, heart_rate.substr(3), 2, "", 2},  // too short: no event, nothing consumed
        {48, 19, "48 00 00", 0, "flush 19", 0},
        {51, 26, "", 3, "26/26@20", 1},
        {64, 27, Hex(std::string(16, '\0')), 2, "27/65538@10 | flush 27", 0},
        {99, 0, "01 02", 0, "flush 0", 0},  // an unknown sensor is accounted to handle 0
        {99, 0, "01 02", 4, "", 4},
    };
    for (const auto& c : cases) {
        State(c.handle) = {0, 10, 0, 0, 0, -1, 0, 1, c.flush_count};  // period 10 ms, pending
        EXPECT_EQ(ReportAfter(0, c.mcu_sensor_id, c.report), List(c.events)) << c.mcu_sensor_id;
        EXPECT_EQ(State(c.handle).flush_count, c.left) << c.mcu_sensor_id;
        EXPECT_EQ(State(c.handle).flush_pending, c.left > 0 ? 1 : 0) << c.mcu_sensor_id;
    }
    State(19).flush_pending = 1;
    for (int i = 0; i < 2; ++i) SendFlushComplete(&hub, 19);
    const std::string record = ReadAvailable(data_client.get());
    EXPECT_EQ(record, "\x02" + std::string(23, '\0') + '\x01' + std::string(3, '\0') + "\x13" +
                          std::string(75, '\0'));
}

TEST_F(EventTest, StepCountGoesOnAcrossRebootsAndDrivesTheDetector) {
    hub.replies_awaited = 1;                   // which ends long runs of steps alone
    for (const auto& row : Table(R"(
        0 | 0 | 61 00 00 00 | 0 | 61
        0 | 1 | 64 00 00 00 | 3 | 64
        0 | 1 | 64 00 00 00 | 0 | 64
        0 | 0 | B0 04 00 00 | 0 | B0 04
        1 | 1 | 05 00 00 00 | 5 | B5 04
        0 | 1 | 04 00 00 00 | 0 | B4 04
        1 | 0 | FF FF FF FF | 0 | B3 04
        0 | 1 | 00 00 00 00 | 1 | B4 04)")) {  // rebooted, detector on, MCU; steps, count sent
        g_mcu_rebooted = Int(row[0]);
        State(18).virtual_enable = Int(row[1]);
        g_elapsed_ns = 5;
        Report(48, row[2]);
        EXPECT_EQ(g_mcu_rebooted, 0);
        auto events = TakeEvents();
        ASSERT_EQ(events.size(), static_cast<size_t>(Int(row[3]) + 1)) << row[2];
        EXPECT_EQ(events.back().sensor, 19);
        EXPECT_EQ(WithoutTrailingZeros(Hex(events.back().data)), row[4]) << row[2];
        events.pop_back();
        for (const SensorEvent& event : events) {
            EXPECT_EQ(event.sensor, 18) << row[2];
            EXPECT_EQ(event.type, 19) << row[2];
            EXPECT_EQ(event.timestamp, 5) << row[2];
            EXPECT_EQ(WithoutTrailingZeros(Hex(event.data)), "00 00 80 3F");
        }
    }
}

TEST_F(EventTest, RunOfDetectedStepsEndsForWhoeverNeedsTheReader) {
    std::atomic<bool> done = false;
    const std::function<void()> needs[] = {
        [this] { ++hub.replies_awaited; },
        [] {
            const MutexLock lock(g_sensor_state_mutex);
            StateOf(18).virtual_enable = 0;
        },
        [&done] {
            const LinkHold hold;
            while (!done) {
            }
        },
    };
    for (const auto& need : needs) {
        State(18).virtual_enable = 1;
        done = false;
        std::thread reader([&] {
            Report(48, "FF FF FF 7F");
            done = true;
        });
        std::vector<SensorEvent> events;
        while (events.empty()) events = TakeEvents();
        EXPECT_EQ(events[0].sensor, 18);
        std::thread asking(need);
        while (!done) (void)TakeEvents();
        reader.join();
        asking.join();
        EXPECT_EQ(g_step_history.last_step, 0x7FFFFFFFU);  // counted all the same
        hub.replies_awaited = 0;
        Report(48, "00 00 00 00");  // back to where the next jump begins
        (void)TakeEvents();
    }
}

TEST_F(EventTest, SettingsChangedDuringAReportCountFromTheNextOn) {
    SensorState& state = State(0);
    state = {0, 10, 0, 0, 0, -1, 0, 0, 0};
    g_hooks.named_locks = {{&g_sensor_state_mutex, "state"}};
    g_hooks.on_entry = [&](const std::string& entry) {  // a command between any two steps
        if (entry == "state released") state = {0, 77, 50, 9, 0, 5, kMilli, 0, 0};
    };
    EXPECT_EQ(ReportAfter(0, 16, kAccSamples), List("0/1@20 | 0/1@10 | 0/1@0"));
}

TEST_F(EventTest, FlushIsAccountedForInOneStep) {
    g_hooks.named_locks = {{&g_sensor_state_mutex, "state"}};
    State(21).flush_pending = 1;
    State(21).flush_count = 1;
    (void)TakeJournal();
    AccountForFlush(&hub, 21, 1);
    EXPECT_EQ(TakeJournal(), List("state taken | state released"));
    EXPECT_EQ(TakeEvents().size(), 1U);
}

TEST_F(EventTest, SignificantMotionPausesForTenSeconds) {
    State(17) = {0, 0, 0, 0, 1, -1, 0, 0, 0};  // enabled, no event yet
    for (const auto& row : Table(R"(
        10000 | 01 | 19
        10001 | 01 | 19
        10002 | 02 | 17
        18000 | 03 | 19
        20002 | 04 | 19
        20003 | 05 | 17
         5000 | 06 | 19
        15000 | 07 | 17)")) {                  // ms, steps; handle of the first event
        g_elapsed_ns = Int(row[0]) * kMilli;
        Report(48, row[1] + " 00 00 00");
        const auto events = TakeEvents();
        EXPECT_EQ(events.size(), row[2] == "17" ? 2U : 1U) << row[0];
        EXPECT_EQ(events[0].sensor, Int(row[2])) << row[0];
        EXPECT_EQ(events[0].type, Int(row[2])) << row[0];
    }
}

TEST_F(EventTest, DebugFlagTracesEvents) {
    g_shd_log_debug = 1;
    Report(50, "48 00 00 00 03 00 00 80");
    Report(51, "");
    Report(64, "01 00 00 80 FF FF 00 00 00 00 07 00 00 00 00 00");
    Report(48, "05 00 00 00");
    g_mcu_rebooted = 1;
    Report(48, "02 00 00 00");
    EXPECT_EQ(TakeJournal({"shd"}), List(R"(
        D/shd SENSOR_TYPE_HEART_RATE bpm:72.000000 status:80000003
        D/shd SENSOR_TYPE_WRIST_TILT_GESTURE event
        D/shd SENSORS_MOTION_HEALTH_HANDLE dataindex:0 date:2147483649 step:65535 status:7
        D/shd SENSOR_TYPE_STEP_COUNTER step:5
        D/shd SENSOR_TYPE_STEP_COUNTER history mcu step:5 value:5 last_step:0 last_reset:0
        D/shd SENSOR_TYPE_STEP_COUNTER step:7
        D/shd SENSOR_TYPE_STEP_COUNTER history mcu step:2 value:7 last_step:5 last_reset:5)"));
}

TEST_F(EventTest, MessagesAreRoutedByChannelAndCalibrationIsKept) {
    const std::string saving = "D/shd_hdlc nvdata save clibration info\\n | ";
    const std::string saved = saving + "D/shd_hdlc nvdata save clibration info ok\\n | ";
    const std::string control = "D/shd OnEvent Receive Mcu Control response";
    MakeDirectory("/nvdata");
    const struct {
        std::string message;
        bool queued;
        std::string journal, file;  // file: what the calibration file holds afterwards
    } cases[] = {
        {"01 01 10 12 01 02 03 04 05 06 00", true, saved, "01 02 03 04 05 06 00"},
        {"01 01 30 12 09", true, saved, "09"},
        {"01 02 10 12 01 02", false, "", "09"},
        {"01 00 10 12 01 02", true, "", "09"},
        {"01 01 12 13 01 02", true, "", "09"},
        {"00 01 00", true, control, "09"},
        {"00 01 12 07", true, saved + control, "07"},
        {"04 68 25 64 00 69", false, "D/mcu h%d", "07"},
    };
    for (const auto& c : cases) {
        (void)TakeJournal();
        Receive(c.message);
        EXPECT_EQ(TakeJournal(), List(c.journal)) << c.message;
        const McuMessagePtr queued(hub.reply_queue.DequeueMessageTimeout(0));
        EXPECT_EQ(queued != nullptr, c.queued) << c.message;
        EXPECT_EQ(Hex(ReadFile("/nvdata/accclibration")), c.file) << c.message;
    }
    EXPECT_EQ(std::filesystem::status(HostPath("/nvdata/accclibration")).permissions(),
              std::filesystem::perms::owner_all);
    auto unknown = Message("04");
    unknown->channel = 6;
    (void)TakeJournal();
    (void)hub.OnEvent(unknown.release());
    EXPECT_EQ(TakeJournal(), List("W/shd OnEvent Receive Mcu unknown message"));
    ResetPlatform();  // without /nvdata
    Receive("01 01 30 12 09");
    EXPECT_EQ(TakeJournal(), List(saving));
    const McuMessagePtr queued(hub.reply_queue.DequeueMessage());
}

}  // namespace
