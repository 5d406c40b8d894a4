// shdtool view as a program at a real hub: what its page is told of a hang, a crash and a daemon
// that goes, what it can do, and its end.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <fstream>

#include "tests/integration/hub.h"
#include "tests/integration/tool.h"
#include "tests/integration/tool_recording.h"
#include "tests/support/talk.h"

namespace {

using Json = nlohmann::json;

std::string NewPath(const std::string& name) {
    static int number = 0;
    return fmt::format("{}{}-{}-{}", testing::TempDir(), name, getpid(), ++number);
}

// The program and one browser of its page.
class Page {
  public:
    Page(const std::string& root, const std::string& arguments)
        : program_(
              {"/bin/sh", "-c",
               fmt::format("exec {} --root {} view {} >{}", SHDTOOL_BINARY, root, arguments, out_)},
              out_ + ".err") {
        std::string address;
        Eventually("the address is told", [&] {
            std::ifstream file(out_);
            return static_cast<bool>(std::getline(file, address));
        });
        const size_t colon = address.rfind(':');
        port_ = std::stoi(address.substr(colon + 1));
        path_ = address.substr(address.find('/', colon));
        feed_ = std::make_unique<Talk>(port_, Request("GET", "feed", ""));
    }

    ~Page() {
        unlink(out_.c_str());
        unlink((out_ + ".err").c_str());
    }
    Page(const Page&) = delete;
    Page& operator=(const Page&) = delete;

    // The next item like this one, a text of JSON.
    Json Await(const std::string& like) {
        const Json wanted = Json::parse(like);
        while (true) {
            for (; taken_ < items_.size(); ++taken_) {
                if (IsLike(items_[taken_], wanted)) return items_[taken_++];
            }
            Read();
        }
    }
    // Whether there was such an item so far.
    [[nodiscard]] bool Had(const std::string& like) const {
        return std::ranges::any_of(items_, [wanted = Json::parse(like)](const Json& item) {
            return IsLike(item, wanted);
        });
    }

    std::string Post(const std::string& body) const {
        return Talk(port_, Request("POST", "do", body)).UntilEnd();
    }

    // The exit status after this signal.
    int End(int signal) {
        kill(program_.pid(), signal);
        Eventually("shdtool view ends", [&] { return program_.Status().has_value(); });
        EXPECT_ANY_THROW(Talk(port_, "x"));
        return *program_.Status();
    }

    [[nodiscard]] int port() const { return port_; }

  private:
    [[nodiscard]] std::string Request(const char* method, const char* what,
                                      const std::string& body) const {
        return fmt::format(
            "{} {}{} HTTP/1.1\r\nHost: localhost:{}\r\nConnection: close\r\n"
            "Content-Type: application/json\r\nContent-Length: {}\r\n\r\n{}",
            method, path_, what, port_, body.size(), body);
    }

    static bool IsLike(const Json& item, const Json& wanted) {
        const auto fields = wanted.items();
        return std::all_of(fields.begin(), fields.end(), [&item](const auto& field) {
            return item.contains(field.key()) && item[field.key()] == field.value();
        });
    }

    void Read() {
        text_ += feed_->Until("]\n\n");
        for (size_t end = 0; (end = text_.find('\n')) != std::string::npos;) {
            const std::string line = text_.substr(0, end);
            text_.erase(0, end + 1);
            if (!line.starts_with("data: ")) continue;
            for (Json& item : Json::parse(line.substr(6))) items_.push_back(std::move(item));
        }
    }

    const std::string out_ = NewPath("view");
    Process program_;
    int port_ = 0;
    std::string path_;
    std::unique_ptr<Talk> feed_;
    std::string text_;
    std::vector<Json> items_;
    size_t taken_ = 0;
};

TEST(ToolView, ShowsAHangItsRecoveryAndACrash) {
    Hub hub;
    const std::string line = NewPath("line");
    const std::string log = hub.root() + "/../shd.log";
    hub.StartUp({"--baud", "115200", "--record", line});
    Page page(hub.root(), fmt::format("--line {} --log {}", line, log));
    const Json hello = page.Await(R"({"k":"hello","live":true,"sim":true,"line":true,"log":true})");
    EXPECT_EQ(hello["sensors"].size(), 14U);
    page.Await(R"({"k":"state","s":"service"})");

    EXPECT_NE(page.Post(R"({"do":"enable","sensor":0,"period_us":20000,"batch":5})").find("200 OK"),
              std::string::npos);
    page.Await(R"({"k":"asked","h":0,"period_us":20000,"batch":5})");
    const Json sample = page.Await(R"({"k":"sample","h":0})");
    EXPECT_EQ(sample["v"].size(), 3U);
    EXPECT_LE(sample["t"], sample["a"]);
    EXPECT_GE(sample["t"], hello["now"].get<int64_t>() - 60'000'000);
    const Json frame = page.Await(R"({"k":"frame","d":"from","bad":false})");
    EXPECT_TRUE(frame["x"].get<std::string>().ends_with("7e")) << frame;  // the closing flag
    page.Post(R"({"do":"flush","sensor":0})");
    page.Await(R"({"k":"flush","h":0})");

    EXPECT_NE(page.Post(R"({"do":"mcusim","command":"hang"})").find(R"({"ok":true,"text":"ok"})"),
              std::string::npos);
    const std::string refused = page.Post(R"({"do":"enable","sensor":6,"period_us":50000})");
    EXPECT_NE(refused.find(R"("ok":false)"), std::string::npos) << refused;
    page.Await(R"({"k":"state","s":"recovering"})");
    Json recovery;
    do {
        recovery = page.Await(R"({"k":"episode","kind":"recovery"})");
    } while (recovery["e"].is_null());
    EXPECT_TRUE(recovery["ok"].get<bool>());
    EXPECT_GE(recovery["e"].get<int64_t>() - recovery["t"].get<int64_t>(), 2'000'000);
    EXPECT_GE(recovery["phases"].size(), 3U);
    page.Await(R"({"k":"state","s":"service"})");

    page.Post(R"({"do":"mcusim","command":"crash"})");
    EXPECT_NE(page.Await(R"({"k":"dump"})")["m"].get<std::string>().find("hard fault at pc"),
              std::string::npos);
    for (const char* like :
         {R"({"k":"state","s":"silent"})", R"({"k":"exchange","mark":"unanswered"})",
          R"({"k":"log","who":"shd","tag":"shd"})", R"({"k":"load","measured":true})",
          R"({"k":"connection","up":true})", R"({"k":"episode","kind":"crash"})"}) {
        EXPECT_TRUE(page.Had(like)) << like;
    }

    Page recording(hub.root(), line + " " + log);
    recording.Await(R"({"k":"hello","live":false,"line":true,"log":true})");
    recording.Await(R"({"k":"state","s":"recovering"})");
    recording.Await(R"({"k":"frame","d":"to"})");
    recording.Await(R"({"k":"episode","kind":"recovery"})");
    EXPECT_TRUE(recording.Post(R"({"do":"disable","sensor":0})").starts_with("HTTP/1.1 403"));
    // Without a recording of events no sensor is silent.
    EXPECT_TRUE(recording.Had(R"({"k":"unrecorded"})"));
    unlink(line.c_str());
}

// Samples that are due, and the connection, are all that tells then.
TEST(ToolView, GivesADeadLinkNoHealthyFaceWithoutLineAndLog) {
    Hub hub;
    hub.StartSimulator();
    Page page(hub.root(), "");
    page.Await(R"({"k":"hello","line":false,"log":false})");
    page.Await(R"({"k":"connection","up":false})");
    page.Await(R"({"k":"state","s":"down"})");
    hub.StartDaemon();
    page.Await(R"({"k":"connection","up":true})");
    page.Await(R"({"k":"state","s":"unknown"})");
    EXPECT_FALSE(page.Had(R"({"k":"state","s":"service"})"));  // for all that is known
    hub.WaitForLog("start loop");
    page.Post(R"({"do":"enable","sensor":0,"period_us":20000})");
    page.Await(R"({"k":"state","s":"service"})");
    EXPECT_GT(page.Await(R"({"k":"load","measured":false,"to":null})")["from"], 0);
    hub.Simulate("hang");
    const Json silent = page.Await(R"({"k":"state","s":"silent"})");
    EXPECT_NE(silent["m"].get<std::string>().find("accelerometer"), std::string::npos);
    hub.StopDaemon();
    page.Await(R"({"k":"connection","up":false})");
    page.Await(R"({"k":"state","s":"down"})");
}

TEST(ToolView, ARecordingOfEventsGoesOnBehindItsLastSample) {
    const std::string events = NewPath("events");
    auto writer = Must(shdtool::RecordWriter::Create(events, true));
    writer.BeginAt(kBegin);
    writer.Add(SampleOf(0, kBegin + kSec, kBegin + kSec));
    ASSERT_TRUE(writer.Close(kBegin + 60 * kSec).ok());
    Page page("/nonexistent", events);
    EXPECT_EQ(page.Await(R"({"k":"hello"})")["now"], (kBegin + 60 * kSec) / 1'000);
    page.Await(R"({"k":"sample"})");
    EXPECT_FALSE(page.Had(R"({"k":"unrecorded"})"));
    unlink(events.c_str());
}

TEST(ToolView, EndsOnEachSignalAndHasItsPortAlone) {
    Hub hub;
    hub.StartUp();
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        Page page(hub.root(), "");
        page.Await(R"({"k":"now"})");
        const ToolRun second = RunTool(hub.root(), fmt::format("view --port {}", page.port()));
        EXPECT_EQ(second.status, 1);
        EXPECT_NE(second.err.find("Address already in use"), std::string::npos) << second.err;
        EXPECT_EQ(page.End(signal), 0) << signal;
    }
}

}  // namespace
