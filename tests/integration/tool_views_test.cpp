// shdtool's commands against a hub with a simulated MCU: text, JSON and exit status, wrong input,
// the audit's verdict on recordings with one fault each, and the live views in a window.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <future>

#include "tests/integration/hub.h"
#include "tests/integration/tool.h"
#include "tests/integration/tool_window.h"
#include "tools/shdtool/engine/record_file.h"

namespace {

using nlohmann::json;
using shdtool::Delivery;
using shdtool::DeliveryKind;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using namespace std::chrono_literals;

class Tool : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        hub_ = std::make_unique<Hub>();
        hub_->StartUp({"--baud", "115200"});
    }
    static void TearDownTestSuite() { hub_.reset(); }

    // The hub is all tests' own: a sensor that one leaves on, or with a period that fills the line,
    // starves the sensors of the next.
    void TearDown() override {
        auto client = hub_->Client();
        for (const shdclient::SensorInfo& sensor : shdclient::AllSensors()) {
            Must(client.Batch(sensor.handle, 200, 0));
            Must(client.Deactivate(sensor.handle));
        }
    }

    // ROOT stands for the hub's tree.
    static ToolRun Run(std::string arguments) {
        const size_t at = arguments.find("ROOT/");
        if (at != std::string::npos) arguments.replace(at, 4, hub_->root());
        return RunTool(hub_->root(), arguments);
    }

    static std::unique_ptr<Hub> hub_;
};

std::unique_ptr<Hub> Tool::hub_;

TEST_F(Tool, AnswersEachCommandInTextAndJson) {
    const struct {
        std::string arguments;
        std::string text;
        std::string field;  // of the object
        json value;
    } rows[] = {
        {"list", "heart-rate", "/sensors/0/sensor", "accelerometer"},
        {"status --timeout 20", "ok", "/exit_status", nullptr},
        {"enable acc --rate 50 --batch 10",
         "accelerometer enabled, every 20 ms (50 Hz), in batches of 10; 0.3 kB/s, 3 % of the line",
         "/period_ms", 20},
        {"batch gyro --period 40", "gyroscope set, every 40 ms", "/batch", 0},
        {"delay pressure 100", "pressure set, every 100 ms", "/period_ms", 100},
        {"disable pressure", "pressure disabled", "/handle", 6},
        {"selftest 0", "accelerometer passed its self test", "/tested", true},
        {"selftest step-detector", "is virtual", "/tested", false},
        {"calibrate pressure", "pressure calibrated", "/sensor", "pressure"},
        {"param acc 38 01 c8 fe 00 00", "parameter set to 38 01 c8 fe 00 00", "/parameter",
         "38 01 c8 fe 00 00"},
        {"info acc", "accelerometer: ", "/sensor", "accelerometer"},
        {"flush acc", "accelerometer flushed", "/handle", 0},
        {"version", "MCU firmware: SIM.900.", "/number", 0},
        {"loglevel 2", "MCU log level set to 2", "/level", 2},
        {"rawdata off", "raw data: off", "/stream", "off"},
        {"health 257 30 175 70", "the MCU received 1 30 175 70", "/words/0", 257},
        {"datetime 1500000000", "2017-07-14 02:40:00 UTC", "/seconds", 1500000000},
        {"debug off", "verbose event log off", "/debug", false},
        {"sleep", "no reply is expected", "/reply_expected", false},
        {"wakeup", "no reply is expected", "/reply_expected", false},
        {"raw 5 10 28 00 00 00", "batch: result 0", "/result", 0},
        {"dump list", "no core dumps", "/slots", json::array()},
        {"completion zsh", "#compdef shdtool", "/shell", "zsh"},
    };
    for (const auto& row : rows) {
        const ToolRun text = Run(row.arguments);
        EXPECT_EQ(text.status, 0) << row.arguments << ": " << text.err;
        EXPECT_THAT(text.out, HasSubstr(row.text)) << row.arguments;
        const ToolRun object = Run(row.arguments + " --json");
        const json answer = json::parse(object.out, nullptr, false);
        ASSERT_TRUE(answer.is_object()) << row.arguments << ": " << object.out << object.err;
        EXPECT_EQ(answer.value("ok", json()), true) << row.arguments;
        EXPECT_EQ(answer.value(json::json_pointer(row.field), json()), row.value) << object.out;
    }
}

TEST_F(Tool, RefusesWrongInputInOneLine) {
    const struct {
        std::string arguments;
        int status;
        std::string error;
    } rows[] = {
        {"", 2, "name a command"},
        {"frobnicate", 2, "there is no command 'frobnicate'"},
        {"dump frobnicate", 2, "there is no command 'frobnicate'; 'shdtool dump --help'"},
        {"enable", 2, "SENSOR is required"},
        {"enable nose", 2, "no sensor 'nose'"},
        {"enable g", 2, "could be gyroscope or gravity"},
        {"enable acc --rate 1001", 2, "is not a number from 0.001 to 1000"},
        {"enable acc --rate 1e999", 2, "is not a number"},
        {"enable acc --period 99999999999999999999", 2, "is not a whole number"},
        {"enable acc --period 5 --rate 5", 2, "excludes"},
        {"enable acc --batch 5", 2, "--batch needs --period or --rate"},
        {"raw 0 4294967296", 2, "is not a whole number"},
        {"param acc 3", 2, "only one digit"},
        {"watch --lines --csv", 2, "excludes"},
        {"replay --plot ROOT/empty", 2, "empty: it is empty"},
        {"audit", 2, "name a recording"},
        {"audit --seconds 1 --flush nan", 2, "is not a number"},
        {"replay /tmp", 2, "cannot read /tmp: it is a directory"},
        {"replay /dev/zero", 2, "cannot read /dev/zero: it is no regular file"},
        {"audit ROOT/empty", 2, "empty: it is empty"},
        {"rawlog ROOT/empty", 2, "empty: it is empty"},
        {"image show ROOT/absent", 2, "No such file"},
        {"record /tmp", 2, "cannot write /tmp: it is a directory"},
        {"record /dev/null", 2, "cannot write /dev/null: it is no regular file"},
        {"image build --version 1.900.1 --simulated-firmware --size 9999999G -o x", 2,
         "is not a number of bytes"},
        {"enable motion-health --root /nowhere", 3, "no daemon"},
        {"raw 99 0", 1, "the hub knows no sensor handle 99"},
    };
    hub_->WriteFile("/empty", "");
    for (const auto& row : rows) {
        const ToolRun text = Run(row.arguments);
        EXPECT_EQ(text.status, row.status) << row.arguments;
        EXPECT_THAT(text.err, HasSubstr(row.error)) << row.arguments;
        EXPECT_EQ(std::count(text.err.begin(), text.err.end(), '\n'), 1) << text.err;
        const json object = json::parse(Run("--json " + row.arguments).out, nullptr, false);
        ASSERT_TRUE(object.is_object()) << row.arguments;
        EXPECT_EQ(object["exit_status"], row.status) << row.arguments;
        EXPECT_THAT(object["error"], HasSubstr(row.error));
    }
}

TEST_F(Tool, WarnsOfASensorThatFillsTheLine) {
    const ToolRun text = Run("enable rotation-vector --period 1");
    EXPECT_THAT(text.err, HasSubstr("warning: rotation-vector alone needs 23.2 kB/s"));
    const json object = json::parse(Run("enable rotation-vector --period 1 --json").out);
    EXPECT_EQ(object["warnings"].size(), 1u);
}

TEST_F(Tool, CompletesCommandsSensorsSlotsAndFiles) {
    const struct {
        std::string words;
        std::string reply;
    } rows[] = {
        {"shdtool wa", "watch wakeup"},
        {"shdtool enable gy", "gyroscope"},
        {"shdtool --json watch --pl", "--plot"},
        {"shdtool rawdata b", "both"},
        {"shdtool audit --sensor heart", "heart-rate"},
        {"shdtool dump decode 3", "3"},
        {"shdtool image show /etc/hostn", "/etc/hostname"},
        {"shdtool --root /et", "/etc"},
    };
    for (const auto& row : rows) {
        const std::string script = "source <(" SHDTOOL_BINARY " completion bash); COMP_WORDS=(" +
                                   row.words + "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); " +
                                   "_shdtool; echo ${COMPREPLY[@]}";
        FILE* shell = popen(("bash -c '" + script + "'").c_str(), "r");
        std::string reply(200, '\0');
        reply.resize(fread(reply.data(), 1, reply.size(), shell));
        pclose(shell);
        EXPECT_EQ(reply, row.reply + "\n") << row.words;
    }
}

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSec = 1'000 * kMs;
constexpr int64_t kBegin = 1'000 * kSec;

Delivery SampleOf(int32_t handle, int64_t stamp_ns, int64_t arrival_ns) {
    Delivery delivery;
    delivery.event.record.timestamp = stamp_ns;
    delivery.event.record.sensor = handle;
    delivery.event.record.type = shdclient::FindSensor(handle)->type;
    delivery.event.record.version = shd::kSampleEventVersion;
    delivery.event.decoded = shdclient::DecodeEvent(delivery.event.record).value();
    delivery.event.arrival_ns = arrival_ns;
    return delivery;
}

Delivery Change(DeliveryKind kind, int64_t from_ns, int64_t at_ns) {
    Delivery delivery{kind};
    delivery.from_ns = from_ns;
    delivery.event.arrival_ns = at_ns;
    return delivery;
}

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
    {"death",
     20,
     [](auto ms, auto& s) { return ms < 2000 ? std::vector{s} : kNone; },
     {"silent for the last 8.0 of 10.0 s"},
     {}},
    {"late start",
     20,
     [](auto ms, auto& s) { return ms < 4000 ? kNone : std::vector{s}; },
     {"started late: nothing for the first 4.0 of 10.0 s"},
     {}},
    {"gap",
     20,
     [](auto ms, auto& s) { return ms >= 5000 && ms < 5100 ? kNone : std::vector{s}; },
     {"1 gap (5 samples missing)"},
     {}},
    {"duplicate",
     20,
     [](auto ms, auto& s) { return Shifted(s, ms == 5000 ? -20 : 0); },
     {"1 duplicate of a time stamp"},
     {}},
    {"backwards",
     20,
     [](auto ms, auto& s) { return Shifted(s, ms == 5000 ? -50 : 0); },
     {"1 sample backwards in time (worst by 30.000 ms)"},
     {}},
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
    {"full line",
     1,
     [](auto ms, auto& s) { return ms % 50 == 20 ? kNone : std::vector{s}; },
     {"200 gaps (200 samples missing)"},
     {"the line is full (13.5 kB/s, 117 % of the line): what is missing did not fit; ask for "
      "lower rates or larger batches"}},
};

TEST_F(Tool, AuditNamesThePlantedFaultAndNoOther) {
    const std::string path = testing::TempDir() + "planted" + std::to_string(getpid());
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

TEST_F(Tool, AuditAndRecordingSeeASensorDie) {
    const std::string path = testing::TempDir() + "dying" + std::to_string(getpid());
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

TEST_F(Tool, TellsItsOwnStandstillFromTheMcu) {
    ASSERT_EQ(Run("enable accelerometer --rate 1000 --batch 50").status, 0);
    ASSERT_EQ(Run("enable gyroscope --rate 500 --batch 50").status, 0);
    const std::string path = testing::TempDir() + "standstill" + std::to_string(getpid());
    Process recorder({"SHD_ROOT=" + hub_->root(), SHDTOOL_BINARY, "record", path}, "/dev/null");
    std::this_thread::sleep_for(2s);
    kill(recorder.pid(), SIGSTOP);
    std::this_thread::sleep_for(6s);
    kill(recorder.pid(), SIGCONT);
    std::this_thread::sleep_for(1500ms);
    kill(recorder.pid(), SIGTERM);
    Eventually("the recorder ends", [&] { return recorder.Status().has_value(); });
    const json report = json::parse(Run("audit --json --future 5 " + path).out);
    EXPECT_THAT(report["faults"][0], HasSubstr("lost on the way to this program"));
    EXPECT_EQ(report["sensors"][0]["spacing"]["missing"], 0);
    EXPECT_GT(report["sensors"][0]["lost_here"], 100);
    unlink(path.c_str());
}

size_t LongestLine(const std::string& page) {
    size_t longest = 0;
    size_t columns = 0;
    for (const char c : page) {
        if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) ++columns;
        if (c == '\n') columns = 0;
        longest = std::max(longest, columns);
    }
    return longest;
}

TEST_F(Tool, TableFitsItsWindowAndObeysItsKeys) {
    for (const char* sensor : {"acc", "gyro", "pressure", "gravity", "linear", "rotation", "game",
                               "heart", "raw-25", "step-counter"}) {
        ASSERT_EQ(Run(std::string("enable ") + sensor).status, 0);
    }
    {
        ToolWindow window(hub_->root(), "watch", 80, 18);
        const std::string page = window.WaitForPage("sensors\n");
        EXPECT_LE(LongestLine(page), 80u);
        EXPECT_THAT(page, HasSubstr("from the MCU "));
        window.Press("?");
        (void)window.WaitForPage("reset the statistics");
        window.Press("?");
        window.Press("\x1b[B");
        (void)window.WaitForPage("+1 sensor above, ");
        window.Press("q");
        EXPECT_EQ(window.Status(), 0);
        EXPECT_THAT(window.bytes(), HasSubstr("\x1b[?1049l"));
    }
    {
        ToolWindow window(hub_->root(), "watch", 200, 50);
        const std::string page = window.WaitForPage("heart-rate");
        EXPECT_LE(LongestLine(page), 200u);
        EXPECT_THAT(page, HasSubstr("game-rotation-vector"));
        EXPECT_THAT(page, Not(HasSubstr("+1 sensor")));
    }
    {
        ToolWindow window(hub_->root(), "watch acc --plot --window 2", 80, 24);
        EXPECT_LE(LongestLine(window.WaitForPage("\xe2\xa3")), 80u);  // Braille
    }
}

TEST_F(Tool, SaysWhoIsSilent) {
    ASSERT_EQ(Run("enable accelerometer --rate 50").status, 0);
    ASSERT_EQ(Run("enable gyroscope --rate 50").status, 0);
    ToolWindow window(hub_->root(), "watch accelerometer gyroscope", 80, 24);
    (void)window.WaitForPage("gyroscope");
    std::this_thread::sleep_for(1s);
    ASSERT_EQ(Run("disable gyroscope").status, 0);
    EXPECT_THAT(window.WaitForPage("SILENT"), HasSubstr("gyroscope               0.00"));
    ASSERT_EQ(Run("disable accelerometer").status, 0);
    (void)window.WaitForPage("NOBODY SENDS: no sample for");
    ASSERT_EQ(Run("enable accelerometer").status, 0);
    (void)window.WaitForPage("did not come back after the outage: gyroscope");
    EXPECT_THAT(window.bytes(), HasSubstr("\x1b[31m"));
}

TEST_F(Tool, PlainTerminalsGetPlainText) {
    const struct {
        std::string environment;
        std::string arguments;
        bool drawn;
    } rows[] = {
        {"TERM=dumb LC_ALL=C", "watch --table --count 20", false},
        {"-u TERM LC_ALL=C", "watch --count 20", false},
        {"TERM=xterm LC_ALL=C NO_COLOR=1", "watch --count 40", true},
        {"TERM=xterm LC_ALL=C NO_COLOR=1", "watch --plot --count 40", true},
    };
    ASSERT_EQ(Run("enable accelerometer --rate 50").status, 0);
    for (const auto& row : rows) {
        ToolWindow window(hub_->root(), row.arguments, 80, 24, row.environment);
        EXPECT_EQ(window.Status(), 0) << row.environment;
        EXPECT_EQ(window.bytes().find('\x1b') != std::string::npos, row.drawn) << row.environment;
        EXPECT_THAT(window.bytes(), Not(HasSubstr("\x1b[3"))) << row.environment;  // colours
        for (const char c : window.bytes()) {
            ASSERT_LT(static_cast<unsigned char>(c), 0x80) << row.environment;
        }
    }
}

}  // namespace
