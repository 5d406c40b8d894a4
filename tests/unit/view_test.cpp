// The page's web server and the history behind it, over plain connections: who is let in, what a
// browser is told, and one that stands still.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <future>
#include <optional>

#include "tests/support/talk.h"
#include "tools/shdtool/view/live_history.h"
#include "tools/shdtool/view/page_server.h"

namespace {

using namespace shdtool;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// A server of a history with these limits, which carries out whatever it is told.
class Page {
  public:
    explicit Page(LiveHistory::Limits limits = {}, bool read_only = false)
        : history(limits, [] { return std::string(R"({"k":"hello"})"); }),
          server_(PageServer::Start(0, history, read_only ? PageServer::Act() : Echo)) {
        const std::string& address = (*server_)->address();
        port = std::stoi(address.substr(address.find_last_of(':') + 1));
        path = address.substr(address.find('/', address.find_last_of(':')));
    }

    [[nodiscard]] std::string Get(const std::string& what, const std::string& host = "") const {
        return fmt::format("GET {} HTTP/1.1\r\nHost: {}\r\nConnection: close\r\n\r\n", what,
                           host.empty() ? fmt::format("127.0.0.1:{}", port) : host);
    }

    void Push(int64_t at_us, const std::string& item, const std::string& key = "") {
        FeedBatch batch{.from_us = at_us, .to_us = at_us};
        if (key.empty()) {
            batch.Add(item);
        } else {
            batch.Add(item, key, item.find("over") != std::string::npos);
        }
        history.Push(batch);
    }

    LiveHistory history;
    int port = 0;
    std::string path;  // "/TOKEN/"

  private:
    static std::string Echo(const std::string& body) { return "did " + body; }

    shdclient::Result<std::unique_ptr<PageServer>> server_;
};

TEST(PageServer, LetsInOnlyWhoKnowsTheAddress) {
    const Page page;
    const std::string own = fmt::format("127.0.0.1:{}", page.port);
    const std::string wrong = "/" + std::string(32, '0') + "/";
    const auto post = [&](const std::string& where, const std::string& lines) {
        return fmt::format(
            "POST {}{} HTTP/1.1\r\nHost: {}\r\nConnection: close\r\n{}"
            "Content-Length: 2\r\n\r\n{{}}",
            page.path, where, own, lines);
    };
    const std::string json = "Content-Type: application/json\r\n";
    const struct {
        const char* what;
        std::string request;
        const char* answer;
    } rows[] = {
        {"the page", page.Get(page.path), "200"},
        {"a file of it", page.Get(page.path + "dygraph.min.js"), "200"},
        {"by its other name", page.Get(page.path, fmt::format("localhost:{}", page.port)), "200"},
        {"no token", page.Get("/"), "404"},
        {"wrong token", page.Get(wrong), "404"},
        {"wrong token, feed", page.Get(wrong + "feed"), "404"},
        {"token cut short", page.Get(page.path.substr(0, 32)), "404"},
        {"wrong host", page.Get(page.path, fmt::format("evil.example:{}", page.port)), "404"},
        {"host of another port", page.Get(page.path, "127.0.0.1:1"), "404"},
        {"a file of the machine", page.Get(page.path + "../../etc/passwd"), "404"},
        {"the same, hidden", page.Get(page.path + "%2e%2e/%2e%2e/etc/passwd"), "404"},
        {"a file by its path", page.Get(page.path + "/etc/passwd"), "404"},
        {"an order", post("do", json), "200"},
        {"from this page", post("do", json + "Origin: http://" + own + "\r\n"), "200"},
        {"from another page", post("do", json + "Origin: http://evil.example\r\n"), "403"},
        {"from a file", post("do", json + "Origin: null\r\n"), "403"},
        {"as a form, which any page may send", post("do", "Content-Type: text/plain\r\n"), "415"},
        {"elsewhere", post("feed", json), "404"},
    };
    for (const auto& row : rows) {
        EXPECT_THAT(Talk(page.port, row.request).UntilEnd(),
                    StartsWith(std::string("HTTP/1.1 ") + row.answer))
            << row.what;
    }
    std::string packed = page.Get(page.path + "dygraph.min.js");
    packed.insert(packed.find("Connection"), "Accept-Encoding: gzip, br\r\n");
    EXPECT_THAT(Talk(page.port, packed).UntilEnd(), Not(HasSubstr("Content-Encoding")));
    const std::string refused = Talk(page.port, page.Get(wrong)).UntilEnd();
    EXPECT_THAT(refused, EndsWith("\r\n\r\n"));  // and not a word
    EXPECT_THAT(Talk(page.port, post("do", json)).UntilEnd(), EndsWith("did {}"));
}

TEST(PageServer, ARecordingIsReadOnlyAndAPortHasOneServer) {
    Page page({}, true);
    const std::string order = fmt::format(
        "POST {}do HTTP/1.1\r\nHost: localhost:{}\r\nContent-Type: application/json\r\n"
        "Connection: close\r\nContent-Length: 2\r\n\r\n{{}}",
        page.path, page.port);
    EXPECT_THAT(Talk(page.port, order).UntilEnd(), StartsWith("HTTP/1.1 403"));
    const auto second = PageServer::Start(page.port, page.history, {});
    ASSERT_FALSE(second);
    EXPECT_THAT(second.error().message, HasSubstr(std::to_string(page.port)));
}

TEST(LiveHistory, TellsALaterBrowserWhatHoldsAndWhatHappened) {
    Page page({.span_us = 1000});
    page.Push(1'000'100, R"({"old":1})");
    page.Push(1'000'110, R"({"state":1})", "state");
    page.Push(1'000'120, R"({"episode":1})", "episode");
    page.Push(1'000'130, R"({"state":2})", "state");
    page.Push(1'000'140, R"({"episode":1,"over":true})", "episode");
    page.Push(1'002'000, R"({"new":1})");
    page.Push(1'002'100, R"({"new":2})");
    Talk talk(page.port, page.Get(page.path + "feed"));
    const std::string got = talk.Until(R"("now")");
    EXPECT_THAT(got, HasSubstr(R"(data: [{"k":"hello"},{"state":2}])"));
    EXPECT_THAT(got, HasSubstr(R"(data: [{"new":1},{"new":2},{"k":"now","t":1002100}])"));
    page.Push(1'200'000, R"({"new":3})");
    EXPECT_THAT(talk.Until(R"("now")"), HasSubstr(R"([{"new":3},{"k":"now","t":1200000}])"));
}

TEST(LiveHistory, ABrowserThatStopsReadingHoldsNobody) {
    Page page({.lag_bytes = 100'000});
    Talk talk(page.port, page.Get(page.path + "feed"), 4096);
    talk.Until("hello");
    const std::string filling = R"({"filling":")" + std::string(1000, 'x') + "\"}";
    for (int i = 1; i <= 5000; ++i) page.Push(i, filling);
    page.history.Push({.to_us = 1'000'000});
    const std::string got = talk.Until(R"("now","t":1000000)");
    EXPECT_TRUE(got.find(R"({"k":"dropped","t":)") != std::string::npos);
    EXPECT_LT(got.size(), 2'000'000U);  // of 5 MB; most is what the kernel holds for the two ends
}

TEST(PageServer, EndsWhileABrowserStandsStill) {
    std::optional<Page> page(std::in_place, LiveHistory::Limits{.lag_bytes = 100'000'000});
    const int port = page->port;
    Talk talk(port, page->Get(page->path + "feed"), 4096);
    talk.Until("hello");
    const std::string filling = R"({"filling":")" + std::string(10'000, 'x') + "\"}";
    for (int i = 1; i <= 2000; ++i) page->Push(i, filling);  // far more than the kernel takes
    page.reset();
    EXPECT_ANY_THROW(Talk(port, "x"));
}

// One session without a server; batches of one item.
class Session : public testing::Test {
  protected:
    explicit Session(LiveHistory::Limits limits = {.span_us = 1000, .lag_bytes = 2000})
        : history_(limits, [] { return std::string("hello"); }), session_(history_.Join()) {}

    void Push(int64_t at_us, const std::string& item, const std::string& key, bool over = false) {
        FeedBatch batch{.from_us = at_us, .to_us = at_us};
        batch.Add(item, key, over);
        history_.Push(batch);
    }

    LiveHistory history_;
    std::unique_ptr<FeedSession> session_;
};

TEST_F(Session, IsToldWhatItLostAndWhatHoldsAfterIt) {
    Push(100, "first", "state");
    EXPECT_EQ(session_->Next(), "hello");
    EXPECT_EQ(session_->Next(), "first");
    Push(200, "down", "state");
    Push(201, "ended", "episode", true);
    Push(202, "up", "state");
    Push(203, std::string(3000, 'x'), "noise");
    Push(204, "noise", "noise");
    EXPECT_EQ(session_->Next(), R"({"k":"dropped","t":100,"e":204},ended,noise,up)");
    Push(205, "next", "state");
    EXPECT_EQ(session_->Next(), "next");
}

TEST_F(Session, StartsAfreshWhenAllThatItKnewIsGone) {
    Push(100, "first", "state");
    EXPECT_EQ(session_->Next(), "hello");
    Push(200'000, "asked", "asked");
    Push(400'000, "other", "other");
    EXPECT_EQ(session_->Next(), R"(hello,{"k":"dropped","t":100,"e":400000},asked,first)");
    EXPECT_EQ(session_->Next(), R"(other,{"k":"now","t":400000})");
}

TEST_F(Session, EndsWithTheFeed) {
    EXPECT_EQ(session_->Next(), "hello");
    auto waiting = std::async(std::launch::async, [this] { return session_->Next(); });
    history_.Close();
    EXPECT_FALSE(waiting.get());
}

}  // namespace
