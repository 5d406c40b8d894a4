// The audit's verdicts, the live statistics and the recording's file.
#include "tools/shdtool/recording/audit_sensor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "tools/shdtool/recording/record_file.h"
#include "tools/shdtool/watch/stats.h"
#include "tools/shdtool/watch/table.h"

namespace shdtool {
namespace {

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kStart = 100'000 * kMs;
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

using Faults = std::vector<std::string>;

SensorVerdict Judged(const std::vector<int64_t>& stamps, const AuditLimits& limits = {},
                     int64_t delay_ns = kMs) {
    SensorAudit audit(kAccelerometer, limits);
    for (const int64_t stamp : stamps) audit.AddSample(stamp, stamp + delay_ns);
    return audit.Judge();
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

TEST(SensorAudit, JudgesByItsLimits) {
    const auto stamps = Stamps({{50, 20}});
    EXPECT_EQ(Judged(stamps, {.max_gaps = 1}).faults, Faults{});
    EXPECT_EQ(Judged(stamps, {.gap_factor = 2.5}).faults, Faults{});
    EXPECT_EQ(Judged(stamps, {.period_ns = 25 * kMs, .max_gaps = 1}).faults,
              Faults{"mean spacing 20.099 ms is -19.6 % off 25 ms"});
    EXPECT_EQ(Judged(stamps, {.max_gaps = 1, .max_jitter_ns = kMs}).faults,
              Faults{"jitter 1.404 ms exceeds 1 ms"});
    EXPECT_EQ(Judged(stamps, {.future_tolerance_ns = kMs}, -2 * kMs).future, stamps.size());
    EXPECT_EQ(Judged(stamps, {.future_tolerance_ns = 2 * kMs}, -2 * kMs).future, 0u);
}

TEST(SensorAudit, DoesNotMeasureAcrossAnInterruption) {
    SensorAudit audit(kAccelerometer, {});
    for (const int64_t start : {kStart, kStart / 2, kStart * 2}) {
        for (int64_t i = 0; i < 20; ++i) audit.AddSample(start + i * kPeriod, kStart * 3);
        audit.Interrupt();
    }
    EXPECT_EQ(audit.Judge().faults, Faults{});
}

shdclient::WatchedEvent Sample(int64_t stamp_ns, int64_t arrival_ns) {
    shdclient::WatchedEvent event{{104, 0, 1, 0, stamp_ns, {1, 2, 3, 65}, 0, {}}, {}, arrival_ns};
    event.decoded = shdclient::DecodeEvent(event.record).value();
    return event;
}

TEST(SensorStats, MeasuresBatchesAgainstTheRateAsked) {
    std::map<int32_t, SensorStats> sensors;
    SensorStats& stats = sensors.try_emplace(0, kAccelerometer, kPeriod).first->second;
    for (int64_t i = 0; i < 100; ++i) {  // the fourth batch of five never comes
        const int64_t batch_end = kStart + (i / 5 * 5 + 4) * kPeriod;
        if (i / 5 != 3) stats.Add(Sample(kStart + i * kPeriod, batch_end + i % 5 * kMs));
    }
    EXPECT_EQ(stats.batch(), 5u);
    EXPECT_EQ(stats.gaps().presumed_gaps(), 1u);
    EXPECT_NEAR(stats.spacing()->spread.mean_ns, 21.06e6, 1e4);
    const auto lines = TableLines(sensors, kStart + 200 * kPeriod, 80);
    EXPECT_THAT(lines[1],
                testing::HasSubstr("47.47     50.00    10.259     5    2.0 s       95    1"));
    for (const std::string& line : lines) EXPECT_LE(line.size(), 80u);
}

// Two samples, a flush-complete event, an outage; written down by hand.
constexpr char kRecording[] =
    "SHDREC\x1a\n\x01\0\0\0\0\0\0\0\x00\x10\0\0\0\0\0\0\x01\0\0\0\0\0\0\0"
    "\x00\xd0\x0f\xc8\x01\1\2\3\4\5\6\7\x08\x09\x0a\x0b\x0c"  // 1000 ns later, 100 ns old
    "\x06\x00\x05\x0d\x0e\x0f\x10"                            // at once, 3 ns in the future
    "\x45\x02\x80\x04\x81\x06\xff\x00\x05";
constexpr size_t kEntryEnds[] = {49, 56, 58, 60, 62};
const std::string kGolden(kRecording, sizeof(kRecording) - 1);

class RecordFile : public testing::Test {
  protected:
    // Reads the bytes as a recording; what is wrong with it goes to damage_.
    std::vector<Delivery> Read(const std::string& bytes) {
        std::ofstream(path_, std::ios::binary) << bytes;
        auto reader = RecordReader::Open(path_);
        std::vector<Delivery> entries;
        damage_ = reader ? "" : reader.error().message;
        if (!reader) return entries;
        while (const auto entry = reader->Next()) entries.push_back(*entry);
        if (reader->damage()) damage_ = reader->damage()->message;
        return entries;
    }
    void TearDown() override { unlink(path_.c_str()); }

    const std::string path_ = testing::TempDir() + "record" + std::to_string(getpid());
    std::string damage_;
};

TEST_F(RecordFile, IsReadAsDescribedAndWrittenTheSame) {
    const auto entries = Read(kGolden);
    ASSERT_EQ(entries.size(), 5u);
    EXPECT_EQ(damage_, "");
    EXPECT_EQ(entries[0].event.arrival_ns, 0x1000 + 1000);
    EXPECT_EQ(entries[0].event.record.timestamp, 0x1000 + 900);
    EXPECT_EQ(entries[1].event.record.timestamp, 0x1000 + 1003);
    EXPECT_EQ(entries[1].event.decoded.sensor->name, "pressure");
    EXPECT_TRUE(entries[2].event.decoded.flush_complete);
    EXPECT_EQ(entries[3].change, shdclient::WatchChange::kLost);
    EXPECT_EQ(entries[4].event.arrival_ns, 0x1000 + 1006);
    auto writer = RecordWriter::Create(path_, true);
    ASSERT_TRUE(writer.ok());
    for (const Delivery& entry : entries) writer->Add(entry);
    ASSERT_TRUE(writer->Close().ok());
    std::ifstream file(path_, std::ios::binary);
    const std::string written(std::istreambuf_iterator<char>(file), {});
    // The first entry's time counts from a beginning of the writer's own.
    EXPECT_EQ(written.substr(written.size() - 16), kGolden.substr(kGolden.size() - 16));
    EXPECT_FALSE(RecordWriter::Create(path_, false).ok());
}

TEST_F(RecordFile, IsReplacedOnlyByARecordingWithEntries) {
    ASSERT_EQ(Read(kGolden).size(), 5u);
    auto writer = RecordWriter::Create(path_, true);
    ASSERT_TRUE(writer.ok());
    ASSERT_TRUE(writer->Flush().ok());
    writer->Discard();
    std::ifstream file(path_, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), kGolden);
    writer->Add({shdclient::WatchChange::kLost, {}});
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
    EXPECT_EQ(Read(kGolden + "x").size(), 5u);
    EXPECT_THAT(damage_, testing::HasSubstr("behind its end"));
    EXPECT_EQ(Read(std::string(kGolden).replace(49, 1, "\x03")).size(), 1u);
    EXPECT_THAT(damage_, testing::HasSubstr("unknown kind 3"));
    EXPECT_EQ(Read(std::string(kGolden).replace(23, 1, "\x7f")).size(), 0u);
    EXPECT_THAT(damage_, testing::HasSubstr("impossible arrival time"));
    EXPECT_EQ(Read(kGolden.substr(0, 35) + std::string(8, '\xff') + "\x7f").size(), 0u);
    EXPECT_THAT(damage_, testing::HasSubstr("impossible time stamp"));
}

}  // namespace
}  // namespace shdtool
