// The two socket servers: records, clients that leave or ask for too much, shortage of descriptors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <thread>

#include "core/main_loop.h"
#include "mcu_link/exchange/reboot_trigger.h"
#include "sockets/socket_io.h"
#include "tests/support/in_child.h"
#include "tests/support/test_hub.h"

using namespace shd;

namespace {

using namespace shdtest;

// Whether the other end has closed the connection.
bool IsAtEnd(const UniqueFd& client) {
    char byte = 0;
    return recv(client.get(), &byte, 1, MSG_DONTWAIT) == 0;
}

void Send(const UniqueFd& client, const std::string& bytes) {
    EXPECT_GT(send(client.get(), bytes.data(), bytes.size(), 0), 0);
}

const std::string kRecord = "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345";  // 32 bytes, no known handle

struct ControlServerTest : testing::Test, TestHub {
    UniqueFd Accepted() {
        UniqueFd client = Connect("/ctl.sock");
        control_server.ServeOnce();
        return client;
    }
    // The server's next pass ends when that many requests have been executed, and not before.
    template <typename Execution>
    void ExpectWokenAfter(int requests, Execution execute) {
        std::atomic<pid_t> server_id{0};
        std::atomic<bool> awake{false};
        std::thread server([&] {
            server_id = ThreadId();
            Serve(1);
            awake = true;
        });
        while (!IsAsleep(server_id) && !awake) sched_yield();
        execute(requests - 1);
        EXPECT_FALSE(awake);
        execute(1);
        server.join();
    }
    void Serve(int passes) {
        while (passes-- > 0) control_server.ServeOnce();
    }
    void Execute(int requests) {
        while (requests-- > 0) RunMainLoopOnce(&hub);
    }
    // The next queued request's text.
    std::string Queued() {
        const std::unique_ptr<QueuedRequest, FreeDeleter> queued(
            hub.request_queue.DequeueMessageTimeout(0));
        if (queued == nullptr) return "";
        return {reinterpret_cast<const char*>(&queued->request), 32};
    }
};

// Sends a request for each handle from first on. Those from 100 on have no sensor: each is answered
// with an error that carries the handle.
void Ask(const UniqueFd& client, int32_t first, int count = 1, int32_t command = 0) {
    std::vector<ClientRequest> requests(static_cast<size_t>(count));
    for (ClientRequest& request : requests) {
        request.handle = first++;
        request.command = command;
    }
    const size_t size = requests.size() * sizeof(ClientRequest);
    ASSERT_EQ(send(client.get(), requests.data(), size, MSG_NOSIGNAL), static_cast<ssize_t>(size));
}

// The handles in the replies that the client has received since the last call.
std::vector<int32_t> Replies(const UniqueFd& client) {
    const std::string received = ReadAvailable(client.get());
    std::vector<ControlReply> replies(received.size() / sizeof(ControlReply));
    EXPECT_EQ(received.size() % sizeof(ControlReply), 0U);
    std::vector<int32_t> handles;
    for (size_t i = 0; i < replies.size(); ++i) {
        std::memcpy(&replies[i], received.data() + i * sizeof(ControlReply), sizeof(ControlReply));
        handles.push_back(replies[i].handle);
    }
    return handles;
}

ptrdiff_t OpenDescriptors() {
    const std::filesystem::directory_iterator directory("/proc/self/fd");
    return std::distance(begin(directory), end(directory));
}

TEST_F(ControlServerTest, StreamIsCutIntoRecordsOf32Bytes) {
    const UniqueFd client = Connect("/ctl.sock");
    Send(client, kRecord + "01234567");
    control_server.ServeOnce();  // accepts only; a new client is read from in the next pass
    EXPECT_EQ(Queued(), "");
    control_server.ServeOnce();
    EXPECT_EQ(Queued(), kRecord);
    EXPECT_EQ(Queued(), "");
    std::thread sender([&] {
        for (int i = 0; i < 24; ++i) Send(client, "+");
    });
    control_server.ServeOnce();
    sender.join();
    EXPECT_EQ(Queued(), "01234567" + std::string(24, '+'));
    Send(client, kRecord.substr(1));  // an incomplete record is dropped with its client
    shutdown(client.get(), SHUT_WR);
    control_server.ServeOnce();
    EXPECT_EQ(Queued(), "");
    EXPECT_TRUE(IsAtEnd(client));
}

using Handles = std::vector<int32_t>;

TEST_F(ControlServerTest, ClientsThatLeaveOccupyNothingAndTheirRepliesReachNobody) {
    const UniqueFd bystander = Accepted();
    Ask(bystander, 100);
    Serve(1);
    const auto before = OpenDescriptors();
    for (int i = 0; i < 1200; ++i) {  // one number after the other, or the same again and again
        const UniqueFd client = Accepted();
        Ask(client, 200);
        Serve(1);
        shutdown(client.get(), SHUT_WR);
        Serve(1);
        ASSERT_TRUE(IsAtEnd(client));
        ASSERT_LE(OpenDescriptors(), before + 1);
    }
    const UniqueFd next = Accepted();
    Ask(next, 300);
    Serve(1);
    Execute(1 + 1200 + 1);
    EXPECT_EQ(TakeJournal({"shd"}).size(), 1202U);  // all were executed
    EXPECT_EQ(Replies(bystander), Handles{100});
    EXPECT_EQ(Replies(next), Handles{300});
    EXPECT_EQ(Queued(), "");
}

TEST_F(ControlServerTest, ClientMayLeaveWithSomeRequestsAnsweredAndOneRunning) {
    UniqueFd client = Accepted();
    UniqueFd next;
    Ask(client, 100, 3);
    Serve(3);
    Execute(1);
    EXPECT_EQ(Replies(client), Handles{100});
    g_mcu_rebooting = 1;  // each request pauses before it is answered
    g_hooks.on_delay = [&](auto) {
        if (next.valid()) return;
        client.Reset();
        Serve(1);
        next = Accepted();  // on the number that has become free
        Ask(next, 200);
        Serve(1);
    };
    Execute(3);
    EXPECT_EQ(Replies(next), Handles{200});
    g_mcu_rebooting = 0;
    (void)TakeJournal();
    Ask(next, 19, 1, SHB_MCU_DATETIME_CONFIG);
    Serve(1);
    next.Reset();
    Serve(1);
    Execute(1);
    EXPECT_EQ(TakeJournal({"shd"}),
              List(R"(E/shd ProcessDateTimeConifg sensorhub_sendmsg failure\n)"));
}

TEST_F(ControlServerTest, ClientWith4096OpenRequestsIsNotReadUntilHalfAreDone) {
    testing::internal::CaptureStdout();
    const UniqueFd greedy = Accepted();
    const UniqueFd other = Accepted();
    Ask(greedy, 1000, 5000);
    Serve(4096);
    Ask(other, 100);
    Serve(1);
    std::vector<int32_t> replies;
    const auto execute = [&](int requests) {
        while (requests-- > 0) {
            Execute(1);
            for (const int32_t handle : Replies(greedy)) replies.push_back(handle);
        }
    };
    ExpectWokenAfter(2048, execute);
    Serve(904);
    execute(2048 + 1 + 904);
    // Never two at a time: one wake-up costs one pass.
    EXPECT_EQ(testing::internal::GetCapturedStdout().find("comming = 2"), std::string::npos);
    EXPECT_EQ(Queued(), "");
    EXPECT_EQ(Replies(other), Handles{100});
    ASSERT_EQ(replies.size(), 5000U);
    for (int32_t i = 0; i < 5000; ++i) ASSERT_EQ(replies[static_cast<size_t>(i)], 1000 + i);
}

TEST_F(ControlServerTest, RequestsOfAClientThatHasGoneCountForItsSuccessor) {
    UniqueFd gone = Accepted();
    Ask(gone, 0, 4095);
    Serve(4095);
    gone.Reset();
    Serve(1);
    const UniqueFd next = Accepted();
    Ask(next, 5000, 2);
    Serve(1);
    ExpectWokenAfter(2048, [this](int requests) { Execute(requests); });
    Serve(1);
    Execute(2047 + 2);
    EXPECT_EQ(Replies(next), (Handles{5000, 5001}));
}

struct DataServerTest : testing::Test, TestHub {};

TEST_F(DataServerTest, DescriptorsAreNotInheritedAndNoAcceptBlocks) {
    const auto inherited = [] {
        std::vector<int> found;
        for (int fd = 0; fd < FD_SETSIZE; ++fd) {
            if (fcntl(fd, F_GETFD) == 0) found.push_back(fd);
        }
        return found;
    };
    const auto before = inherited();
    const int listener = Listen("/other.sock").Release();
    DataServer server(listener);
    // A connection may have gone again when it is accepted.
    EXPECT_NE(fcntl(listener, F_GETFL) & O_NONBLOCK, 0);
    const UniqueFd client = Connect("/other.sock");
    server.ServeOnce();
    EXPECT_EQ(inherited(), before);
}

TEST_F(DataServerTest, WhatAClientSendsIsDiscardedAndItsEndNoticed) {
    testing::internal::CaptureStdout();
    Send(data_client, std::string(1024, 'x'));
    data_server.ServeOnce();
    const std::string trace = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(trace.starts_with("select event comming = 1 max_fd =")) << trace;
    EXPECT_EQ(data_server.Broadcast("event", 5), 0);
    EXPECT_EQ(ReadAvailable(data_client.get()), "event");
    Send(data_client, "x");
    shutdown(data_client.get(), SHUT_WR);
    data_server.ServeOnce();
    EXPECT_TRUE(IsAtEnd(data_client));
    EXPECT_EQ(data_server.Broadcast("event", 5), 0);
}

TEST_F(DataServerTest, FullClientMissesRecordsThatOthersReceive) {
    const UniqueFd other = Connect("/data.sock");
    data_server.ServeOnce();
    const std::string block(10'000, 'x');
    size_t received = 0;
    for (int i = 0; i < 500; ++i) {  // far beyond a socket's buffer
        EXPECT_EQ(data_server.Broadcast(block.data(), block.size()), 0);
        received += ReadAvailable(other.get()).size();
    }
    EXPECT_EQ(received, 500 * block.size());
    EXPECT_LT(ReadAvailable(data_client.get()).size(), 500 * block.size());
}

TEST_F(DataServerTest, ClientThatReadsLaterMissesNothingOfTheLargestReport) {
    constexpr size_t kSamples = 374;
    for (size_t i = 0; i < kSamples; ++i) data_server.Broadcast(std::string(104, 'x').data(), 104);
    EXPECT_EQ(ReadAvailable(data_client.get()).size(), kSamples * 104);
}

// Uses up every number below the given one.
void OccupyDescriptors(int end) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 2 * FD_SETSIZE);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    for (int fd = 0; fd < end - 1;) ASSERT_GE(fd = dup(0), 0);
}

TEST_F(DataServerTest, ConnectionsBeyondTheDescriptorsAreRefused) {
    InChild([this] {
        const UniqueFd first = Connect("/data.sock");
        const UniqueFd second = Connect("/data.sock");
        const rlimit few{64, 64};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
        while (dup(0) >= 0) {
        }
        data_server.ServeOnce();  // a connection left waiting would make the loop spin
        EXPECT_TRUE(IsAtEnd(first));
        data_server.ServeOnce();
        EXPECT_TRUE(IsAtEnd(second));
    });
}

// A recovery opens the port and the control files anew, whoever has connected meanwhile.
TEST_F(DataServerTest, LastSixteenDescriptorsAreLeftToThePortAndTheFiles) {
    InChild([this] {
        const UniqueFd first = Connect("/data.sock");
        const UniqueFd second = Connect("/data.sock");
        OccupyDescriptors(100);
        const rlimit few{117, 117};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
        data_server.ServeOnce();
        EXPECT_FALSE(IsAtEnd(first));
        data_server.ServeOnce();
        EXPECT_TRUE(IsAtEnd(second));
    });
}

TEST_F(DataServerTest, DescriptorsThatSelectCannotWatchAreRefused) {
    InChild([this] {
        const UniqueFd client = Connect("/data.sock");
        OccupyDescriptors(FD_SETSIZE);
        data_server.ServeOnce();
        EXPECT_TRUE(IsAtEnd(client));
    });
}

TEST_F(DataServerTest, ConnectionThatCanNeitherBeTakenNorRefusedWaitsWithoutASpin) {
    InChild([] {
        const UniqueFd low = Listen("/low.sock");
        const UniqueFd first = Connect("/low.sock");
        OccupyDescriptors(100);
        DataServer server(dup(low.get()));
        const rlimit taken{100, 100};  // as if another thread had the spare's number at once
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &taken), 0);
        server.ServeOnce();
        server.ServeOnce();
        EXPECT_EQ(TakeJournal(), List("delay 100000 | delay 100000"));
        EXPECT_FALSE(IsAtEnd(first));
        close(99);
        server.ServeOnce();  // has a spare again
        EXPECT_TRUE(IsAtEnd(first));
        EXPECT_EQ(TakeJournal(), Lines{});
    });
}

TEST_F(DataServerTest, ServerThatCannotStartSaysWhy) {
    InChild([this] {
        const std::string no_thread =
            std::string("W/shd Server of shdctl cannot start: no thread: ") + strerror(EAGAIN);
        g_hooks.on_thread = [] { return EAGAIN; };
        EXPECT_EQ(control_server.Start(), -1);
        EXPECT_EQ(TakeJournal(), Lines{no_thread});
        const UniqueFd low = Listen("/low.sock");
        OccupyDescriptors(FD_SETSIZE - 1);
        DataServer without_wake_up(dup(low.get()));
        EXPECT_EQ(without_wake_up.Start(), -1);
        DataServer without_listener(dup(low.get()));
        EXPECT_EQ(without_listener.Start(), -1);
        const std::string no_number =
            "W/shd Server of shddata cannot start: no descriptor below 1024";
        EXPECT_EQ(TakeJournal(), (Lines{no_number, no_number}));
    });
}

TEST_F(DataServerTest, WithoutASocketNothingIsServedNorSaid) {
    EXPECT_EQ(DataServer(-1).Start(), -1);
    EXPECT_EQ(TakeJournal(), Lines{});
    char byte = 0;
    EXPECT_EQ(ReadFull(-1, &byte, 1), -1);
    EXPECT_EQ(ReadFull(-1, &byte, 0), 0);
    EXPECT_EQ(SendReply(-1, ControlReply{}), -1);
}

}  // namespace
