// Clients and an MCU that misbehave.
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <filesystem>
#include <fstream>

#include "tests/integration/hub.h"

using namespace shd;

namespace {

// Waits until the daemon has read all that was sent.
void AwaitTaken(int fd) {
    Eventually("the daemon reads", [fd] {
        int unread = -1;
        return ioctl(fd, SIOCOUTQ, &unread) == 0 && unread == 0;
    });
}

TEST(Robustness, RequestsMayComeInPiecesAndInExcess) {
    Hub hub;
    hub.StartUp();
    const ClientRequest requests[] = {Request(0, SHB_SENSOR_ACTIVE), Request(5, SHB_SENSOR_ACTIVE)};
    const auto* bytes = reinterpret_cast<const uint8_t*>(requests);
    const UniqueFd client = ConnectRaw(hub);
    SendRaw(client.get(), bytes, 12);
    AwaitTaken(client.get());
    SendRaw(client.get(), bytes + 12, 28);
    EXPECT_EQ(ReceiveRaw(client.get()).handle, 0);
    AwaitTaken(client.get());
    SendRaw(client.get(), bytes + 40, 24);
    EXPECT_EQ(ReceiveRaw(client.get()).handle, 5);

    const auto descriptors = [&hub] {
        const std::filesystem::directory_iterator directory(hub.ProcPath() + "/fd");
        return std::distance(begin(directory), end(directory));
    };
    const auto before = descriptors();
    for (int i = 0; i < 300; ++i) {  // killed in the middle of a request, or before the reply
        const UniqueFd dying = ConnectRaw(hub);
        SendRaw(dying.get(), bytes, static_cast<size_t>(i % 3) * 16);
        const auto stream = Must(shdclient::EventStream::Connect(hub.root()));
    }
    Must(hub.Client().Activate(0));
    Eventually("their descriptors are closed", [&] { return descriptors() <= before; });
}

TEST(Robustness, ALateReplyNeverReachesTheNextClient) {
    Hub hub;
    hub.StartUp();
    hub.Simulate("delay 800");
    const UniqueFd slow = ConnectRaw(hub);
    SendRaw(slow.get(), Request(0, SHB_SENSOR_SELFTEST));
    shutdown(slow.get(), SHUT_WR);
    EXPECT_TRUE(Readable(slow.get(), std::chrono::minutes(1)));  // the daemon has dropped it
    const UniqueFd next = ConnectRaw(hub);  // its descriptor is the lowest that is free
    SendRaw(next.get(), Request(17, SHB_SENSOR_ACTIVE));
    EXPECT_EQ(ReceiveRaw(next.get()).handle, 17);
}

TEST(Robustness, StreamsGoOnBesideDeafAndDyingClients) {
    Hub hub;
    hub.StartUp();
    const EventTap tap(hub);
    auto deaf = Must(shdclient::EventStream::Connect(hub.root()));
    auto dying =
        std::make_unique<shdclient::EventStream>(Must(shdclient::EventStream::Connect(hub.root())));
    Must(deaf.WaitUntilServed(std::chrono::minutes(1)));
    shdclient::HubClient client = hub.Client();
    Must(client.Batch(0, 2, 10));
    Must(client.Activate(0));
    Eventually("events", [&] { return tap.Count(0) > 500; });
    dying.reset();
    Eventually("more events", [&] { return tap.Count(0) > 1500; });
    std::vector<SensorEvent> late;
    Eventually("the deaf one wakes up", [&] {
        (void)Must(deaf.Read(late));
        return late.size() > 500;
    });
    EXPECT_EQ(deaf.assembler().resyncs() > 0, deaf.assembler().discarded_bytes() > 0);

    hub.Simulate("corrupt 0.2");
    hub.Simulate("drop 0.2");
    const int64_t before = tap.Count(0);
    Eventually("whole frames still count", [&] { return tap.Count(0) > before + 500; });
    hub.Simulate("corrupt 0");
    hub.Simulate("drop 0");
    const nlohmann::json stats = hub.Stats();
    EXPECT_GT(stats.at("fault_corrupted_out"), 0);
    EXPECT_GT(stats.at("fault_dropped_out"), 0);
    Must(client.Deactivate(0));
    EXPECT_TRUE(tap.intact());
    // Ten samples to a report: each fault costs its own frame, and a damaged end flag the next one.
    const int64_t sent = hub.Stats().at("sensors").at("accelerometer").at("sent");
    const int64_t lost = 10 * stats.at("fault_dropped_out").get<int64_t>() +
                         20 * stats.at("fault_corrupted_out").get<int64_t>();
    EXPECT_LT(tap.Count(0), sent);
    EXPECT_GE(tap.Count(0), sent - lost);
}

TEST(Robustness, OutlivesTheMcuAtAnyMoment) {
    Hub hub;
    hub.StartSimulator();
    hub.Simulate("noreply 0 0");
    hub.StartDaemon();
    hub.WaitForLog("shd     : Handshake timeout");
    const auto replace_mcu = [&hub] {
        hub.KillSimulator();
        hub.StartSimulator();
    };
    replace_mcu();
    hub.WaitForLog("Set parameter OK, start loop");
    const EventTap tap(hub);
    shdclient::HubClient client = hub.Client();
    const auto works_again = [&] {
        Eventually("a request succeeds", [&] { return client.Activate(0).ok(); });
        const int64_t before = tap.Count(0);
        Eventually("events come", [&] { return tap.Count(0) > before; });
    };
    works_again();
    replace_mcu();  // while it streams
    works_again();
    hub.KillSimulator();
    Eventually("recovery has begun", [&] {
        (void)client.Activate(0);  // refused, one way or the other
        return hub.CountInLog("ReInit open uart failure") > 0;
    });
    hub.StartSimulator();
    hub.WaitForLog("ReInit open uart failure", "SensorMcuReboot Handshake OK");
    replace_mcu();  // while its settings are being restored
    works_again();
    EXPECT_TRUE(tap.intact());
}

TEST(Robustness, AnIdleHubUsesNoProcessorTime) {
    Hub hub;
    hub.StartUp();
    Must(hub.Client().Activate(0));
    Must(hub.Client().Deactivate(0));
    const auto run_time_ns = [&hub] {
        int64_t total = 0;
        for (const auto& task : std::filesystem::directory_iterator(hub.ProcPath() + "/task")) {
            int64_t time = 0;
            std::ifstream(task.path() / "schedstat") >> time;
            total += time;
        }
        return total;
    };
    int64_t before = -1;  // the last request's tail has been dealt with
    Eventually("the hub is idle", [&] { return before == std::exchange(before, run_time_ns()); });
    std::this_thread::sleep_for(std::chrono::seconds(3));
    EXPECT_LT(run_time_ns() - before, 1'000'000) << "ns in 3 s";  // a wake-up or two of the system
}

}  // namespace
