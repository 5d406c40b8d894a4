// shdtool timeline on a real session: every event of the trace against the rules of the Trace Event
// Format, and what it says of an update, a hang with its recovery, and a flush.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

#include "tests/integration/hub.h"
#include "tests/integration/tool.h"

namespace {

using nlohmann::json;

// A trace by the format's rules: fields of each phase, names of tracks, nesting, pairs of flows.
class CheckedTrace {
  public:
    explicit CheckedTrace(const std::string& path) {
        std::ifstream file(path);
        trace_ = json::parse(file);
        EXPECT_EQ(trace_["displayTimeUnit"], "ms");
        for (const json& event : trace_["traceEvents"]) CheckEvent(event);
        for (const auto& track : used_) {
            EXPECT_TRUE(names_.contains(track))
                << "no name for " << track.first << " " << track.second;
            EXPECT_TRUE(names_.contains({track.first, 0})) << "no process " << track.first;
        }
        for (auto& [track, slices] : slices_) CheckNesting(track, slices);
        for (const auto& [id, ends] : flows_) CheckFlow(id, ends);
    }

    [[nodiscard]] size_t events() const { return trace_["traceEvents"].size(); }

    // All of one track and phase, in the order of their times.
    [[nodiscard]] std::vector<json> Of(const std::string& process, const std::string& thread,
                                       const std::string& phase) const {
        std::vector<json> found;
        for (const json& event : trace_["traceEvents"]) {
            if (event["ph"] == phase && names_.at({event["pid"], 0}) == process &&
                names_.at({event["pid"], event["tid"]}) == thread) {
                found.push_back(event);
            }
        }
        std::ranges::stable_sort(found, {},
                                 [](const json& event) -> double { return event["ts"]; });
        return found;
    }

  private:
    using Id = std::pair<int, int>;  // process and thread; thread 0: the process itself
    struct Slice {
        int64_t begin, end;
        std::string name;
    };

    static int64_t Ns(const json& microseconds) {
        return std::llround(microseconds.get<double>() * 1000);
    }

    void CheckEvent(const json& event) {
        const std::string text = event.dump();
        const std::string phase = event.at("ph");
        const Id track{event.at("pid"), event.at("tid")};
        EXPECT_GT(track.first, 0) << text;
        EXPECT_GT(track.second, 0) << text;
        EXPECT_FALSE(event.at("name").get<std::string>().empty()) << text;
        if (phase == "M") return CheckMetadata(event, track);
        used_.insert(track);
        EXPECT_TRUE(event.at("ts").is_number()) << text;
        EXPECT_FALSE(event.at("cat").get<std::string>().empty()) << text;
        EXPECT_EQ(event.value("cname", "terrible"), "terrible") << text;
        if (phase == "s" || phase == "f") {
            EXPECT_EQ(event.value("bp", ""), phase == "f" ? "e" : "") << text;
            return flows_[event.at("id")].push_back(event);
        }
        EXPECT_TRUE(event.at("args").is_object()) << text;
        if (phase == "X") {
            const int64_t begin = Ns(event["ts"]);
            EXPECT_GE(event.at("dur").get<double>(), 0) << text;
            slices_[track].push_back({begin, begin + Ns(event["dur"]), event["name"]});
        } else if (phase == "C") {
            EXPECT_FALSE(event["args"].empty()) << text;
            for (const json& value : event["args"]) EXPECT_TRUE(value.is_number()) << text;
        } else {
            EXPECT_EQ(phase, "i") << text;
            EXPECT_EQ(event.at("s"), "t") << text;
        }
    }

    void CheckMetadata(const json& event, const Id& track) {
        const std::string name = event["name"];
        const json& args = event.at("args");
        if (name.ends_with("_sort_index")) {
            EXPECT_TRUE(args.at("sort_index").is_number_integer());
        } else if (name == "process_name") {
            names_[{track.first, 0}] = args.at("name");
        } else {
            EXPECT_EQ(name, "thread_name");
            names_[track] = args.at("name");
        }
    }

    void CheckNesting(const Id& track, std::vector<Slice>& slices) const {
        std::ranges::stable_sort(slices, [](const Slice& a, const Slice& b) {
            return a.begin != b.begin ? a.begin < b.begin : a.end > b.end;
        });
        std::vector<Slice> open;
        for (const Slice& slice : slices) {
            while (!open.empty() && open.back().end <= slice.begin) open.pop_back();
            EXPECT_TRUE(open.empty() || slice.end <= open.back().end)
                << names_.at(track) << ": " << slice.name << " begins within " << open.back().name
                << " at " << slice.begin << " and ends behind it";
            open.push_back(slice);
        }
    }

    void CheckFlow(int id, const std::vector<json>& ends) const {
        ASSERT_EQ(ends.size(), 2u) << "flow " << id;
        EXPECT_EQ(ends[0]["ph"], "s");
        EXPECT_EQ(ends[1]["ph"], "f");
        EXPECT_EQ(ends[0]["name"], ends[1]["name"]);
        EXPECT_EQ(ends[0]["cat"], ends[1]["cat"]);
        EXPECT_LE(ends[0]["ts"], ends[1]["ts"]);
        for (const json& end : ends) {
            const int64_t at = Ns(end["ts"]);
            EXPECT_TRUE(std::ranges::any_of(
                slices_.at({end["pid"], end["tid"]}),
                [at](const Slice& slice) { return slice.begin <= at && at <= slice.end; }))
                << "no slice at " << end.dump();
        }
    }

    json trace_;
    std::map<Id, std::string> names_;
    std::set<Id> used_;
    std::map<Id, std::vector<Slice>> slices_;
    std::map<int, std::vector<json>> flows_;
};

// Their names, the same one behind another only once.
std::string Names(const std::vector<json>& events) {
    std::string names, last;
    for (const json& event : events) {
        const std::string name = event["name"];
        if (name != last) names += (names.empty() ? "" : ", ") + name;
        last = name;
    }
    return names;
}

class ToolTimeline : public testing::Test {
  protected:
    // An update at the start; a flush; a hang, at which the daemon gives two requests up.
    void SetUp() override {
        hub_.InstallImage("SIM.900.0001", 2'048);
        hub_.StartUp(
            {"--baud", "115200", "--firmware-version", "SIM.900.0000", "--record", Path("line")});
        recorder_ = std::make_unique<Process>(
            std::vector<std::string>{"SHD_ROOT=" + hub_.root(), SHDTOOL_BINARY, "record",
                                     Path("events"), "accelerometer", "--rate", "50", "--enable",
                                     "--batch", "10"},
            Path("errors"));
        Eventually("samples", [this] { return hub_.Stats()["frames_out"] > 20; });
        EXPECT_EQ(RunTool(hub_.root(), "flush accelerometer").status, 0);
        hub_.Simulate("hang");
        for (int i = 0; i < 2; ++i) EXPECT_NE(RunTool(hub_.root(), "disable gyroscope").status, 0);
        hub_.WaitForLog("SensorWakeLockAcquiredLocked :0");
        kill(recorder_->pid(), SIGINT);
        Eventually("the recording's end", [this] { return recorder_->Status().has_value(); });
        hub_.StopDaemon();
        hub_.KillSimulator();
    }

    [[nodiscard]] std::string Path(const std::string& name) const {
        return hub_.root() + "/../" + name;
    }
    [[nodiscard]] ToolRun Run(const std::string& arguments) const {
        return RunTool(hub_.root(), "timeline " + arguments);
    }

    Hub hub_;
    std::unique_ptr<Process> recorder_;
};

TEST_F(ToolTimeline, IsATraceByTheRulesOfTheFormatThatTellsWhatHappened) {
    const std::string recordings = Path("line") + " " + Path("trace") + " " + Path("events");
    const std::string trace = Path("trace.json");
    const ToolRun run = Run(recordings + " " + Path("shd.log") + " --json -o " + trace);
    ASSERT_EQ(run.status, 0) << run.out;
    EXPECT_FALSE(run.json().contains("warnings")) << run.out;
    const CheckedTrace checked(trace);
    EXPECT_EQ(run.json()["events"], checked.events());

    const auto episodes = checked.Of("shd", "recoveries and updates", "X");
    EXPECT_EQ(Names(episodes),
              "update, starts the bootloader, erases the flash, writes the image and starts it, "
              "recovery, resets the MCU, opens the UART and shakes hands, restores the settings, "
              "restores the sensors");
    const json& recovery = *std::ranges::find(
        episodes, "recovery", [](const json& event) { return event["name"].get<std::string>(); });
    EXPECT_EQ(recovery["args"]["ok"], true);
    EXPECT_GT(recovery["dur"], 2e6);
    const std::string states = Names(checked.Of("MCU", "state", "X"));
    EXPECT_TRUE(
        states.ends_with("updating, bootloader, updating, starting, service, silent, "
                         "recovering, service"))
        << states;

    const auto exchanges = checked.Of("line", "exchanges", "X");
    EXPECT_EQ(std::ranges::count(exchanges, "unanswered",
                                 [](const json& event) { return event["args"]["mark"]; }),
              2);
    const auto samples = checked.Of("sensors", "accelerometer", "C");
    EXPECT_GE(samples.size(), 20u);
    EXPECT_TRUE(samples[0]["args"].contains("x [m/s^2]"));
    EXPECT_EQ(checked.Of("sensors", "accelerometer", "f").size(), 1u);
    EXPECT_NE(Names(checked.Of("sensors", "accelerometer", "X")).find("batch of 10"),
              std::string::npos);
    EXPECT_FALSE(checked.Of("shd", "log", "i").empty());
    EXPECT_EQ(Names(checked.Of("clients", "recorder", "X")), "connected");

    // The two clocks agree: the MCU was reset within the recovery, as its own trace has it.
    const auto modes = checked.Of("simulator", "state", "X");
    const auto hung = std::ranges::find(
        modes, "silent", [](const json& event) { return event["name"].get<std::string>(); });
    ASSERT_NE(hung, modes.end());
    const double reset = (*hung)["ts"].get<double>() + (*hung)["dur"].get<double>();
    EXPECT_NEAR(reset, recovery["ts"].get<double>(), 100e3);

    // The log beside nothing, and as a recording of its own.
    const std::string own = Path("own.json");
    const ToolRun alone = Run(Path("shd.log") + " -o " + own);
    EXPECT_EQ(alone.status, 2);
    EXPECT_NE(alone.err.find("shdtool log"), std::string::npos) << alone.err;
    const ToolRun kept =
        RunTool(hub_.root(), "log " + Path("shd.log") + " -o " + Path("recorded.log"));
    EXPECT_EQ(kept.status, 0) << kept.err;
    EXPECT_EQ(RunTool(hub_.root(), "log " + Path("recorded.log")).out,
              RunTool(hub_.root(), "log " + Path("shd.log")).out);
    EXPECT_EQ(Run(Path("recorded.log") + " -o " + own).status, 0);
    const auto same = CheckedTrace(own).Of("shd", "recoveries and updates", "X");
    ASSERT_EQ(same.size(), episodes.size());
    EXPECT_NEAR(same.back()["ts"].get<double>(), episodes.back()["ts"].get<double>(), 10e3);

    EXPECT_EQ(Run(recordings + " -o " + trace).status, 2) << "it exists";
    EXPECT_EQ(Run(recordings + " -o " + Path("line") + " --force").status, 2);
    EXPECT_EQ(Run(recordings + " -o " + trace + " --force").status, 0);
    std::ofstream(Path("line"), std::ios::app) << "1e3 > 7\n";
    EXPECT_EQ(Run(recordings + " -o " + trace + " --force").status, 2);
    EXPECT_FALSE(std::filesystem::exists(trace)) << "half a trace";
}

}  // namespace
