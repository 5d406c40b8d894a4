// The two socket servers: records, dropped clients, late replies, shortage of descriptors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <thread>

#include "core/main_loop.h"
#include "sockets/control_server.h"
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
    ControlServerTest() : server(Listen("/ctl.sock").Release()) { server.set_owner(&hub); }

    UniqueFd Accepted() {
        UniqueFd client = Connect("/ctl.sock");
        server.ServeOnce();
        return client;
    }
    // The next queued request's client and text.
    std::pair<int, std::string> Queued() {
        const std::unique_ptr<QueuedRequest, FreeDeleter> queued(
            hub.request_queue.DequeueMessageTimeout(0));
        if (queued == nullptr) return {-1, ""};
        return {queued->client, {reinterpret_cast<const char*>(&queued->request), 32}};
    }
    ControlServer server;
};

TEST_F(ControlServerTest, StreamIsCutIntoRecordsOf32Bytes) {
    const UniqueFd client = Connect("/ctl.sock");
    Send(client, kRecord + "01234567");
    server.ServeOnce();  // accepts only; a new client is read from in the next pass
    EXPECT_EQ(Queued().second, "");
    server.ServeOnce();
    EXPECT_EQ(Queued().second, kRecord);
    EXPECT_EQ(Queued().second, "");
    std::thread sender([&] {
        for (int i = 0; i < 24; ++i) Send(client, "+");
    });
    server.ServeOnce();
    sender.join();
    EXPECT_EQ(Queued().second, "01234567" + std::string(24, '+'));
    Send(client, kRecord.substr(1));  // an incomplete record is dropped with its client
    shutdown(client.get(), SHUT_WR);
    server.ServeOnce();
    EXPECT_EQ(Queued().second, "");
    EXPECT_TRUE(IsAtEnd(client));
}

TEST_F(ControlServerTest, NumberOfAGoneClientIsReservedUntilItsLastReply) {
    UniqueFd client = Accepted();
    Send(client, kRecord + kRecord + kRecord);
    for (int i = 0; i < 3; ++i) server.ServeOnce();
    const int number = Queued().first;
    client.Reset();
    server.ServeOnce();  // drops the client, whose requests still wait
    const UniqueFd other = Accepted();
    RunMainLoopOnce(&hub, &server);
    RunMainLoopOnce(&hub, &server);
    EXPECT_GE(fcntl(number, F_GETFD), 0);
    const UniqueFd next = Connect("/ctl.sock");
    server.RequestDone(number);
    EXPECT_LT(fcntl(number, F_GETFD), 0);
    EXPECT_EQ(ReadAvailable(other.get()), "");
    server.ServeOnce();  // the next client gets the number
    Send(next, kRecord);
    server.ServeOnce();
    EXPECT_GE(fcntl(number, F_GETFD), 0);
    RunMainLoopOnce(&hub, &server);
    EXPECT_EQ(ReadAvailable(next.get()).size(), 272U);
    EXPECT_FALSE(IsAtEnd(next));
}

struct DataServerTest : testing::Test, TestHub {};

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
    for (int i = 0; i < 200; ++i) {  // far beyond a socket's buffer
        EXPECT_EQ(data_server.Broadcast(block.data(), block.size()), 0);
        received += ReadAvailable(other.get()).size();
    }
    EXPECT_EQ(received, 200 * block.size());
    EXPECT_LT(ReadAvailable(data_client.get()).size(), 200 * block.size());
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

TEST_F(DataServerTest, DescriptorsThatSelectCannotWatchAreRefused) {
    InChild([this] {
        const UniqueFd client = Connect("/data.sock");
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 2 * FD_SETSIZE);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        for (int fd = 0; fd < FD_SETSIZE - 1;) ASSERT_GE(fd = dup(0), 0);
        data_server.ServeOnce();
        EXPECT_TRUE(IsAtEnd(client));
    });
}

TEST(SocketServer, WithoutASocketNothingIsServed) {
    EXPECT_EQ(DataServer(-1).Start(), -1);
    char byte = 0;
    EXPECT_EQ(ReadFull(-1, &byte, 1), -1);
    EXPECT_EQ(ReadFull(-1, &byte, 0), 0);
    EXPECT_EQ(SendReply(-1, ControlReply{}), -1);
}

}  // namespace
