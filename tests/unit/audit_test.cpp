// The statistics of a sensor, the audit's verdicts, the recording's file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "tools/shdtool/audit/verdict.h"
#include "tools/shdtool/engine/line_budget.h"
#include "tools/shdtool/engine/record_file.h"
#include "tools/shdtool/views/table.h"

namespace shdtool {
namespace {

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSec = 1'000 * kMs;
constexpr int64_t kStart = 100 * kSec;
constexpr int64_t kPeriod = 20 * kMs;
const shdclient::SensorInfo& kAccelerometer = *shdclient::FindSensor(0);

// Time stamps 20 ms apart, 150 of them behind the last irregularity: after count regular ones, one
// that is off_ms further away.
struct Irregularity {
    int count;
    int off_ms;
};

std::vector<int64_t> Stamps(std::vector<Irregularity> irregularities) {
    std::vector<int64_t> stamps{kStart};
    irregularities.push_back({150, 0});
    for (const auto& [count, off_ms] : irregularities) {
        for (int i = 0; i < count; ++i) stamps.push_back(stamps.back() + kPeriod);
        stamps.push_back(stamps.back() + kPeriod + off_ms * kMs);
    }
    return stamps;
}

shdclient::WatchedEvent Sample(int64_t stamp_ns, int64_t arrival_ns) {
    shdclient::WatchedEvent event{{104, 0, 1, 0, stamp_ns, {1, 2, 3, 65}, 0, {}}, {}, arrival_ns};
    event.decoded = shdclient::DecodeEvent(event.record).value();
    return event;
}

using Faults = std::vector<std::string>;

SensorVerdict Judged(const std::vector<int64_t>& stamps, const AuditLimits& limits = {},
                     int64_t delay_ns = kMs) {
    SensorStats stats(kAccelerometer, limits.stats, kStart);
    for (const int64_t stamp : stamps) stats.Add(Sample(stamp, stamp + delay_ns));
    const int64_t end_ns = stamps.empty() ? kStart : stamps.back() + kPeriod;
    return Judge(stats, limits, end_ns, end_ns - kStart);
}

TEST(SensorAudit, NamesExactlyWhatIsWrong) {
    struct Case {
        std::vector<Irregularity> irregularities;
        Faults faults;
        uint64_t late;
    };
    const Case cases[] = {
        {{}, {}, 0},
        {{{50, 5}, {0, -5}}, {}, 0},  // jitter
        {{{50, 20}}, {"1 gap (1 sample missing)"}, 0},
        {{{50, 60}, {9, 40}}, {"2 gaps (5 samples missing)"}, 0},
        {{{50, 40}, {0, -19}, {0, -19}}, {}, 1},                                    // a delay
        {{{50, 20}, {0, 20}, {0, 20}, {0, 20}}, {"1 gap (4 samples missing)"}, 0},  // a batch
        {{{50, -30}}, {"1 sample backwards in time (worst by 10.000 ms)"}, 0},
        {{{50, -20}, {0, -20}}, {"2 duplicates of a time stamp"}, 0},
    };
    for (const Case& c : cases) {
        const SensorVerdict verdict = Judged(Stamps(c.irregularities));
        EXPECT_EQ(verdict.faults, c.faults);
        EXPECT_EQ(verdict.spacing->late, c.late);
    }
    EXPECT_EQ(Judged({}).faults, Faults{"no sample came"});
}

AuditLimits Limits(StatsOptions stats, uint64_t max_gaps = 0) {
    stats.whole = true;
    return {.stats = stats, .max_gaps = max_gaps};
}

TEST(SensorAudit, JudgesByItsLimits) {
    const auto stamps = Stamps({{50, 20}});
    EXPECT_EQ(Judged(stamps, Limits({}, 1)).faults, Faults{});
    EXPECT_EQ(Judged(stamps, Limits({.gap_factor = 2.5})).faults, Faults{});
    EXPECT_EQ(Judged(stamps, Limits({.asked_ns = 22 * kMs}, 1)).faults,
              Faults{"mean spacing 20.000 ms is -9.1 % off 22 ms"});
    AuditLimits jitter = Limits({});
    jitter.max_jitter_ns = kMs;
    EXPECT_EQ(Judged(Stamps({{50, 9}, {0, -9}, {0, 9}, {0, -9}}), jitter).faults,
              Faults{"jitter 1.257 ms exceeds 1 ms"});
    EXPECT_EQ(Judged(stamps, Limits({.future_tolerance_ns = kMs}), -2 * kMs).order.future,
              stamps.size());
    EXPECT_EQ(Judged(stamps, Limits({.future_tolerance_ns = 2 * kMs}), -2 * kMs).order.future, 0u);
}

TEST(SensorAudit, MeasuresMeansOverStretchesWithoutAGap) {
    std::vector<int64_t> clusters;  // a sensor of 20 ms that is read every 1 ms and 2 ms askew
    for (int64_t i = 0; i < 200; ++i) clusters.push_back(kStart + i * kPeriod + i % 2 * 2 * kMs);
    EXPECT_NEAR(Judged(clusters).spacing->measured.mean_ns, 20e6, 2e4);
    for (const int64_t gap_ms : {40, 400, 4000}) {
        EXPECT_NEAR(Judged(Stamps({{50, static_cast<int>(gap_ms)}})).spacing->measured.mean_ns,
                    20e6, 1)
            << gap_ms;
    }
}

TEST(SensorAudit, JudgesTheWholeTime) {
    struct Case {
        int64_t from_ms;  // of 10 s, the samples that came
        int64_t to_ms;
        Faults faults;
    };
    const Case cases[] = {
        {0, 10'000, {}},
        {900, 9'100, {}},  // not longer than a sensor may take
        {0, 2'000, {"silent for the last 8.0 of 10.0 s"}},
        {5'000, 10'000, {"started late: nothing for the first 5.0 of 10.0 s"}},
    };
    for (const Case& c : cases) {
        SensorStats stats(kAccelerometer, {.whole = true}, kStart);
        for (int64_t ms = c.from_ms; ms <= c.to_ms; ms += 20) {
            stats.Add(Sample(kStart + ms * kMs, kStart + ms * kMs));
        }
        EXPECT_EQ(Judge(stats, {}, kStart + 10 * kSec, 10 * kSec).faults, c.faults);
    }
}

TEST(SensorAudit, DoesNotMeasureAcrossAnInterruption) {
    SensorStats stats(kAccelerometer, {.whole = true}, kStart);
    for (const int64_t start : {kStart, kStart / 2, kStart * 2}) {
        for (int64_t i = 0; i < 20; ++i) stats.Add(Sample(start + i * kPeriod, kStart * 3));
        stats.Restart(kStart * 3);
    }
    EXPECT_EQ(Judge(stats, {}, kStart * 3, kSec).faults, Faults{});
}

TEST(SensorAudit, DoesNotBlameTheSensorForWhatWasLostOnTheWay) {
    struct Case {
        bool told;                           // that the samples 100 to 149 were lost on the way
        std::map<int64_t, int64_t> late_ms;  // from this sample on
        Faults faults;
    };
    const Case cases[] = {
        {false, {}, {"1 gap (50 samples missing)"}},
        {true, {}, {}},
        {true, {{99, 50}, {150, 0}}, {}},                      // it may have been made up for then
        {true, {{96, 50}, {97, 40}, {98, 30}, {150, 0}}, {}},  // it was being made up for
        {true, {{60, 40}}, {"1 gap (2 samples missing)"}},     // it was not
    };
    for (const Case& c : cases) {
        SensorStats stats(kAccelerometer, {.whole = true}, kStart);
        int64_t late_ms = 0;
        for (int64_t i = 0; i < 200; ++i) {
            if (c.late_ms.contains(i)) late_ms = c.late_ms.at(i);
            if (i >= 100 && i < 150) continue;
            const int64_t stamp_ns = kStart + i * kPeriod + late_ms * kMs;
            if (c.told && i == 150) {
                Delivery lost{DeliveryKind::kMissed};
                lost.from_ns = kStart + 99 * kPeriod;
                lost.event.arrival_ns = stamp_ns;
                stats.OnChange(lost);
            }
            stats.Add(Sample(stamp_ns, stamp_ns));
        }
        const SensorVerdict verdict = Judge(stats, {}, kStart + 200 * kPeriod, 4 * kSec);
        EXPECT_EQ(verdict.faults, c.faults);
        EXPECT_NEAR(static_cast<double>(verdict.lost_here), c.told ? 50 : 0, 3);
    }
}

TEST(LineBudget, CountsSamplesFramesAndEscapes) {
    EXPECT_NEAR(LineLoad(kAccelerometer, 1000, 1), 13'102, 1);  // more than the line has
    EXPECT_NEAR(LineLoad(kAccelerometer, 50, 10), 337.7, 0.1);
    EXPECT_EQ(LineLoad(*shdclient::FindSensor(18), 50, 1), 0);  // the daemon's own
    // Rotation and game rotation vector come in the same reports: alone or both, they cost as much.
    const double game = LineLoad(*shdclient::FindSensor(15), 50, 1);
    EXPECT_EQ(game, LineLoad(*shdclient::FindSensor(11), 50, 1));
    EXPECT_EQ(SumOfLoads({{0, 100}, {15, game}}), 100 + game);
    EXPECT_EQ(SumOfLoads({{0, 100}, {11, game}, {15, game}}), 100 + game);
    EXPECT_EQ(LineText(11'520), "11.5 kB/s, 100 % of the line");
}

TEST(SensorStats, MeasuresBatchesAgainstTheRateAsked) {
    StatsMap sensors;
    SensorStats& stats =
        sensors.try_emplace(0, kAccelerometer, StatsOptions{.asked_ns = kPeriod}, kStart)
            .first->second;
    for (int64_t i = 0; i < 100; ++i) {  // the fourth batch of five never comes
        const int64_t batch_end = kStart + (i / 5 * 5 + 4) * kPeriod;
        if (i / 5 != 3) stats.Add(Sample(kStart + i * kPeriod, batch_end + i % 5 * kMs));
    }
    EXPECT_EQ(stats.batch(), 5u);
    EXPECT_EQ(stats.gaps().presumed_gaps(), 1u);
    const int64_t end_ns = kStart + 100 * kPeriod;
    EXPECT_THAT(TableLines(sensors, end_ns, {80, 24}, 0)[1].text,
                testing::HasSubstr("50.00     50.00   0.000     5         16 ms       95    1"));
    EXPECT_THAT(TableLines(sensors, end_ns + 8 * kSec, {80, 24}, 0)[1].text,
                testing::HasSubstr(" 0.00     50.00   0.000     5  SILENT 8.0 s       95    1"));
}

TEST(Table, SaysWhatDoesNotFit) {
    StatsMap sensors;
    for (const shdclient::SensorInfo& sensor : shdclient::AllSensors()) {
        sensors.try_emplace(sensor.handle, sensor, StatsOptions{}, kStart);
    }
    const struct {
        size_t rows;
        size_t first;
        std::string last;
    } cases[] = {{30, 0, "motion-health"},
                 {10, 0, "+6 sensors"},
                 {10, 3, "+3 sensors above, +3 sensors below"},
                 {10, 6, "+6 sensors above"}};
    for (const auto& c : cases) {
        const auto lines = TableLines(sensors, kStart, {80, c.rows}, c.first);
        EXPECT_LE(lines.size(), c.rows);
        EXPECT_THAT(lines.back().text, testing::StartsWith(c.last));
        for (const Line& line : lines) EXPECT_LE(line.text.size(), 80u);
    }
}

// Two samples, a flush-complete event, an outage, 5 ns of missed events; written down by hand.
constexpr char kRecording[] =
    "SHDREC\x1a\n\x02\0\0\0\0\0\0\0\x00\x10\0\0\0\0\0\0\x01\0\0\0\0\0\0\0"
    "\x00\xd0\x0f\xc8\x01\1\2\3\4\5\6\7\x08\x09\x0a\x0b\x0c"  // 1000 ns later, 100 ns old
    "\x06\x00\x05\x0d\x0e\x0f\x10"                            // at once, 3 ns in the future
    "\x45\x02\x80\x04\x81\x06\x82\x00\x0a\xff\x08\x06";
constexpr size_t kEntryEnds[] = {49, 56, 58, 60, 62, 65};
const std::string kGolden(kRecording, sizeof(kRecording) - 1);

class RecordFile : public testing::Test {
  protected:
    // Reads the bytes as a recording; what is wrong with it goes to damage_.
    Deliveries Read(const std::string& bytes) {
        std::ofstream(path_, std::ios::binary) << bytes;
        auto reader = RecordReader::Open(path_);
        Deliveries entries;
        damage_ = reader ? "" : reader.error().message;
        if (!reader) return entries;
        while (const auto entry = reader->Next()) entries.push_back(*entry);
        if (reader->damage()) damage_ = reader->damage()->message;
        clocks_ = reader->clocks();
        return entries;
    }
    void TearDown() override { unlink(path_.c_str()); }

    const std::string path_ = testing::TempDir() + "record" + std::to_string(getpid());
    std::string damage_;
    std::vector<wire::Clocks> clocks_;
};

TEST_F(RecordFile, IsReadAsDescribedAndWrittenTheSame) {
    const auto entries = Read(kGolden);
    ASSERT_EQ(entries.size(), 6u);
    EXPECT_EQ(damage_, "");
    EXPECT_EQ(entries[0].event.arrival_ns, 0x1000 + 1000);
    EXPECT_EQ(entries[0].event.record.timestamp, 0x1000 + 900);
    EXPECT_EQ(entries[1].event.record.timestamp, 0x1000 + 1003);
    EXPECT_EQ(entries[1].event.decoded.sensor->name, "pressure");
    EXPECT_TRUE(entries[2].event.decoded.flush_complete);
    EXPECT_EQ(entries[3].kind, DeliveryKind::kLost);
    EXPECT_EQ(entries[4].event.arrival_ns, 0x1000 + 1006);
    EXPECT_EQ(entries[5].from_ns, 0x1000 + 1001);
    auto writer = RecordWriter::Create(path_, true);
    ASSERT_TRUE(writer.ok());
    writer->BeginAt(0x1000);
    for (const Delivery& entry : entries) writer->Add(entry);
    ASSERT_TRUE(writer->Close(0x1000 + 1010).ok());
    std::ifstream file(path_, std::ios::binary);
    const std::string written(std::istreambuf_iterator<char>(file), {});
    EXPECT_EQ(written.substr(0, 24), kGolden.substr(0, 24));  // the wall clock follows
    EXPECT_EQ(written.substr(32), kGolden.substr(32));
    EXPECT_FALSE(RecordWriter::Create(path_, false).ok());
}

TEST_F(RecordFile, SaysBothClocksEveryMinute) {
    // 3 ns after the last entry the wall clock is 5 ns ahead of where it should be.
    std::string said = kGolden;
    said.insert(kEntryEnds[5], "\x83\x06\x0a");
    EXPECT_EQ(Read(said).size(), 6u);
    EXPECT_EQ(damage_, "");
    ASSERT_EQ(clocks_.size(), 2u);
    EXPECT_EQ(clocks_[0].wall.count(), 1);
    EXPECT_EQ(clocks_[1].boot.count(), 0x1000 + 1009);
    EXPECT_EQ(clocks_[1].wall.count(), 1 + 1009 + 5);
    EXPECT_EQ(Read(std::string(kGolden).replace(8, 1, "\x01")).size(), 6u) << "of version 1";

    auto writer = RecordWriter::Create(path_, true);
    ASSERT_TRUE(writer.ok());
    writer->BeginAt(0x1000);
    Delivery change{DeliveryKind::kLost};
    for (const int64_t sec : {0, 59, 61, 119, 122}) {
        change.event.arrival_ns = 0x1000 + sec * kSec;
        writer->Add(change);
    }
    ASSERT_TRUE(writer->Close(change.event.arrival_ns).ok());
    auto reader = RecordReader::Open(path_);
    ASSERT_TRUE(reader.ok());
    while (reader->Next()) {
    }
    EXPECT_FALSE(reader->damage());
    ASSERT_EQ(reader->clocks().size(), 3u);
    for (const wire::Clocks& clocks : reader->clocks()) {
        const auto now = wire::ReadClocks();
        EXPECT_NEAR(static_cast<double>((clocks.wall - clocks.boot - now.wall + now.boot).count()),
                    0, 1e8);
    }
    EXPECT_EQ(reader->clocks()[2].boot.count(), 0x1000 + 122 * kSec);
}

TEST_F(RecordFile, IsReplacedOnlyByARecordingWithEntries) {
    ASSERT_EQ(Read(kGolden).size(), 6u);
    auto writer = RecordWriter::Create(path_, true);
    ASSERT_TRUE(writer.ok());
    ASSERT_TRUE(writer->Flush().ok());
    writer->Discard();
    std::ifstream file(path_, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), kGolden);
    writer->Add({DeliveryKind::kLost});
    ASSERT_TRUE(writer->Flush().ok());
    auto reader = RecordReader::Open(path_);
    ASSERT_TRUE(reader.ok());
    EXPECT_TRUE(reader->Next() && !reader->Next());
}

TEST_F(RecordFile, GivesWhatIsWholeOfADamagedFile) {
    size_t whole = 0;
    for (size_t size = 0; size < kGolden.size(); ++size) {
        if (std::ranges::count(kEntryEnds, size) > 0) ++whole;
        EXPECT_EQ(Read(kGolden.substr(0, size)).size(), whole) << size;
        EXPECT_NE(damage_, "") << size;
    }
    EXPECT_EQ(Read(kGolden + "x").size(), 6u);
    EXPECT_THAT(damage_, testing::HasSubstr("behind its end"));
    EXPECT_EQ(Read(std::string(kGolden).replace(49, 1, "\x03")).size(), 1u);
    EXPECT_THAT(damage_, testing::HasSubstr("unknown kind 3"));
    EXPECT_EQ(Read(std::string(kGolden).replace(23, 1, "\x7f")).size(), 0u);
    EXPECT_THAT(damage_, testing::HasSubstr("begins at an impossible time"));
    EXPECT_EQ(Read(std::string(kGolden).replace(16, 8, std::string(7, '\0') + "\x80")).size(), 0u);
    EXPECT_THAT(damage_, testing::HasSubstr("begins at an impossible time"));
    EXPECT_EQ(Read(kGolden.substr(0, 33) + std::string(8, '\xff') + "\x7f").size(), 0u);
    EXPECT_THAT(damage_, testing::HasSubstr("impossible arrival time"));
    EXPECT_EQ(Read(kGolden.substr(0, 32) + "\x83\x02" + std::string(9, '\xff') + "\1").size(), 0u);
    EXPECT_THAT(damage_, testing::HasSubstr("impossible wall clock"));
    EXPECT_EQ(Read(kGolden.substr(0, 35) + std::string(8, '\xff') + "\x7f").size(), 0u);
    EXPECT_THAT(damage_, testing::HasSubstr("impossible time stamp"));
}

}  // namespace
}  // namespace shdtool
