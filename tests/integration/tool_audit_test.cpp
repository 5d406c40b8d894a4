// shdtool audit: its verdict on recordings with one fault each, and on a sensor that dies before
// its eyes.
#include <gmock/gmock.h>

#include <functional>
#include <future>

#include "tests/integration/tool_hub.h"
#include "tests/integration/tool_recording.h"

namespace {

using nlohmann::json;
using shdtool::Delivery;
using shdtool::DeliveryKind;
using testing::HasSubstr;
using namespace std::chrono_literals;

using ToolAudit = ToolHub;

// Ten seconds of a gyroscope without fault beside an accelerometer with one.
struct PlantedFault {
    std::string name;
    int period_ms;
    // Changes what stands for the accelerometer's sample at that time of the recording.
    std::function<std::vector<Delivery>(int64_t ms, const Delivery& sample)> plant;
    std::vector<std::string> sensor_faults;
    std::vector<std::string> stream_faults;
};

std::vector<Delivery> Shifted(Delivery sample, int64_t stamp_ms) {
    sample.event.record.timestamp += stamp_ms * kMs;
    return {sample};
}

const std::vector<Delivery> kNone;

const PlantedFault kPlanted[] = {
    {"nothing", 20, [](auto, auto& s) { return std::vector{s}; }, {}, {}},
    {"future",
     20,
     [](auto ms, auto& s) { return Shifted(s, ms == 5000 ? 5 : 0); },
     {"1 sample dated in the future (worst by 5.000 ms)"},
     {}},
    {"lost connection",
     20,
     [](auto ms, auto& s) -> std::vector<Delivery> {
         const int64_t at_ns = s.event.arrival_ns;
         if (ms == 5000) return {Change(DeliveryKind::kLost, 0, at_ns)};
         if (ms == 5020) return {Change(DeliveryKind::kReconnected, 0, at_ns), s};
         return {s};
     },
     {},
     {"the connection to the daemon was lost once, for 0.0 s"}},
    {"a standstill of the recorder",
     20,
     [](auto ms, auto& s) -> std::vector<Delivery> {
         if (ms >= 4000 && ms < 5000) return {};
         const int64_t at_ns = s.event.arrival_ns;
         if (ms == 5000) return {Change(DeliveryKind::kMissed, at_ns - kSec, at_ns), s};
         return {s};
     },
     {},
     {"50 samples were lost on the way to this program, which did not read for 1.00 s; the "
      "sensors are not to blame for them"}},
    {"samples that wait for a busy line",
     20,
     [](auto ms, auto& s) {
         constexpr int kWaited[] = {0, 8, 34, 22, 13, 0, 22, 14, 8, 0, 16, 4};  // ms
         return Shifted(s, kWaited[ms / 20 % 12] - 34);
     },
     {},
     {}},
    {"full line",
     1,
     [](auto ms, auto& s) { return ms % 50 == 20 ? kNone : std::vector{s}; },
     {"200 gaps (200 samples missing)"},
     {"the line is full (13.5 kB/s, 117 % of the line): what is missing did not fit; ask for "
      "lower rates or larger batches"}},
};

TEST_F(ToolAudit, AuditNamesThePlantedFaultAndNoOther) {
    const std::string path = OwnPath("planted");
    for (const PlantedFault& fault : kPlanted) {
        auto writer = Must(shdtool::RecordWriter::Create(path, true));
        writer.BeginAt(kBegin);
        for (int64_t ms = 0; ms < 10'000; ms += fault.period_ms) {
            const int64_t at_ns = kBegin + ms * kMs;
            for (const Delivery& one : fault.plant(ms, SampleOf(0, at_ns, at_ns))) writer.Add(one);
            if (ms % 20 == 0) writer.Add(SampleOf(5, at_ns, at_ns));
        }
        ASSERT_TRUE(writer.Close(kBegin + 10 * kSec).ok());
        const ToolRun run = Run("audit --json " + path);
        const json report = json::parse(run.out, nullptr, false);
        ASSERT_TRUE(report.is_object()) << run.err;
        EXPECT_EQ(report["sensors"][0]["faults"], json(fault.sensor_faults)) << fault.name;
        EXPECT_EQ(report["faults"], json(fault.stream_faults)) << fault.name;
        EXPECT_EQ(report["sensors"][1]["faults"], json::array()) << fault.name;
        const bool faulty = !fault.sensor_faults.empty() || !fault.stream_faults.empty();
        EXPECT_EQ(run.status, faulty ? 1 : 0) << fault.name;
    }
    unlink(path.c_str());
}

TEST_F(ToolAudit, AuditAndRecordingSeeASensorDie) {
    const std::string path = OwnPath("dying");
    ASSERT_EQ(Run("enable accelerometer --rate 50").status, 0);
    ASSERT_EQ(Run("enable gyroscope --rate 25").status, 0);
    // Its outcome is in the recording; both watch the same time.
    Process recorder({"SHD_ROOT=" + hub_->root(), SHDTOOL_BINARY, "record", path}, "/dev/null");
    auto live = std::async(std::launch::async, [&] {
        std::this_thread::sleep_for(500ms);
        return RunTool(hub_->root(), "audit --seconds 8 --json --future 5");
    });
    std::this_thread::sleep_for(2500ms);
    ASSERT_TRUE(hub_->Client().Deactivate(5).ok());
    const ToolRun run = live.get();
    kill(recorder.pid(), SIGHUP);  // ends it as SIGTERM does
    Eventually("the recorder ends", [&] { return recorder.Status().has_value(); });
    const ToolRun later = Run("audit --json --future 5 " + path);
    for (const ToolRun* one : {&run, &later}) {
        EXPECT_EQ(one->status, 1) << one->out << one->err;
        const json report = json::parse(one->out);
        EXPECT_THAT(report["sensors"][1]["faults"][0], HasSubstr("silent for the last"));
        EXPECT_FALSE(report.contains("damage"));
    }
    unlink(path.c_str());
}

TEST_F(ToolAudit, TellsItsOwnStandstillFromTheMcu) {
    ASSERT_EQ(Run("enable accelerometer --rate 500 --batch 50").status, 0);
    ASSERT_EQ(Run("enable gyroscope --rate 250 --batch 50").status, 0);
    const std::string path = OwnPath("standstill");
    Process recorder({"SHD_ROOT=" + hub_->root(), SHDTOOL_BINARY, "record", path}, "/dev/null");
    std::this_thread::sleep_for(2s);
    kill(recorder.pid(), SIGSTOP);
    std::this_thread::sleep_for(6s);
    kill(recorder.pid(), SIGCONT);
    std::this_thread::sleep_for(1500ms);
    kill(recorder.pid(), SIGTERM);
    Eventually("the recorder ends", [&] { return recorder.Status().has_value(); });
    const json report = json::parse(Run("audit --json --future 5 " + path).out);
    ASSERT_FALSE(report["faults"].empty()) << report;
    EXPECT_THAT(report["faults"][0], HasSubstr("lost on the way to this program"));
    EXPECT_EQ(report["sensors"][0]["spacing"]["missing"], 0);
    EXPECT_GT(report["sensors"][0]["lost_here"], 100);
    (void)Run("disable gyroscope");
    (void)Run("enable accelerometer --rate 50 --batch 10");
    unlink(path.c_str());
}

}  // namespace
