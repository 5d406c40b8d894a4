// The client library: sensor names, event records, replies, and both connections with the
// test as the daemon.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tools/client/event_decoder.h"
#include "tools/client/event_stream.h"
#include "tools/client/event_watcher.h"
#include "tools/client/hub_client.h"

using namespace shd;

namespace shdclient {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes Hex(std::string_view hex, size_t size) {
    Bytes bytes(size);
    for (size_t i = 0; i < hex.size() / 2; ++i) {
        bytes[i] = static_cast<uint8_t>(std::stoi(std::string(hex.substr(2 * i, 2)), nullptr, 16));
    }
    return bytes;
}

// version, sensor, type, reserved, timestamp 0x0102030405060708, data.
Bytes Event(std::string_view sensor, std::string_view type, std::string_view data) {
    return Hex("68000000" + std::string(sensor) + std::string(type) + "000000000807060504030201" +
                   std::string(data),
               sizeof(SensorEvent));
}

const Bytes kAccelerometer = Event("00000000", "01000000", "0000803f000000c00000003f");
const Bytes kStepCounter = Event("13000000", "13000000", "0100000001000000");
const Bytes kFlushOfPressure =
    Hex("0200000000000000000000000000000000000000000000000100000006000000", sizeof(SensorEvent));

template <typename T>
T As(const Bytes& bytes) {
    T record;
    std::memcpy(&record, bytes.data(), sizeof(record));
    return record;
}

TEST(SensorLookup, TakesHandlesNamesAndUniqueBeginnings) {
    const std::pair<const char*, int32_t> found[] = {
        {"27", 27}, {"accel", 0}, {"GAME_rot", 15}, {"step c", 19}};
    for (const auto& [text, handle] : found) {
        const auto sensor = LookupSensor(text);
        ASSERT_TRUE(sensor.ok()) << text;
        EXPECT_EQ((*sensor)->handle, handle) << text;
    }
    for (const char* text : {"", "8", "28", "-1", "step", "g", "accelerometers", "0x0", "9 "}) {
        EXPECT_FALSE(LookupSensor(text).ok()) << text;
    }
}

TEST(EventDecoder, ReadsEachFormOfData) {
    const struct {
        Bytes bytes;
        int32_t handle;
        std::vector<double> values;
    } cases[] = {
        {kAccelerometer, 0, {1.0, -2.0, 0.5}},
        {kStepCounter, 19, {4294967297.0}},
        {Event("12000000", "13000000", "0000803f"), 18, {1.0}},
        {Event("15000000", "15000000", "0000904203"), 21, {72.0, 3.0}},
        {Event("1a000000", "1a000000", ""), 26, {}},
        {Event("1b000000", "02000100", "15cd5b070104ffffffff02ffff"), 27, {123456789, 1025, 2}},
    };
    for (const auto& test : cases) {
        const auto decoded = DecodeEvent(As<SensorEvent>(test.bytes));
        ASSERT_TRUE(decoded) << test.handle;
        EXPECT_EQ(decoded->sensor->handle, test.handle);
        EXPECT_EQ(decoded->timestamp_ns, 0x0102030405060708);
        EXPECT_EQ(std::vector<double>(decoded->values().begin(), decoded->values().end()),
                  test.values);
    }
    EXPECT_EQ(DecodeEvent(As<SensorEvent>(kFlushOfPressure)).value().sensor->handle, 6);
    EXPECT_FALSE(DecodeEvent(As<SensorEvent>(Event("00000000", "04000000", ""))));
}

TEST(RecordAssembler, TruncatedRecordCostsOnlyItself) {
    for (size_t cut = 1; cut < sizeof(SensorEvent); ++cut) {
        RecordAssembler assembler;
        assembler.Append(kAccelerometer);
        assembler.Append(std::span(kAccelerometer).first(cut));
        for (const Bytes& record : {kStepCounter, kFlushOfPressure}) assembler.Append(record);
        std::vector<int32_t> types;
        for (SensorEvent event; assembler.Next(event);) types.push_back(event.type);
        EXPECT_EQ(types, (std::vector<int32_t>{1, 19, 0})) << cut;
        EXPECT_EQ(assembler.discarded_bytes(), cut);
    }
}

TEST(Replies, OddCommandFieldsAreUnderstood) {
    const struct {
        int32_t handle, command;
        const char* reply;  // from offset 0
        ReplyForm form;
        int32_t result;
    } cases[] = {
        {5, 10, "1001000005000000010000000a00000007000000", ReplyForm::kResult, 7},
        {0, 13, "10010000000000000100000007000000312e32", ReplyForm::kText, 0},
        {17, 5, "1001000011000000010000000000000000000000", ReplyForm::kVirtual, 0},
        {8, 0, "100100000800000001000000ffffffffffffffff", ReplyForm::kError, -1},
    };
    for (const auto& test : cases) {
        auto record = As<ControlReply>(Hex(test.reply, sizeof(ControlReply)));
        ClientRequest request{};
        request.handle = test.handle;
        request.command = test.command;
        const auto reply = InterpretReply(request, record);
        ASSERT_TRUE(reply.ok()) << reply.error().message;
        EXPECT_EQ(reply->form, test.form) << test.command;
        EXPECT_EQ(reply->result, test.result) << test.command;
        EXPECT_EQ(Outcome(request, *reply).ok(), test.result == 0);
        record.command = 99;
        EXPECT_EQ(InterpretReply(request, record).error().code, ErrorCode::kProtocol);
    }
}

// The client's end and the daemon's.
std::pair<UniqueFd, UniqueFd> Connect(int flags) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0, ends), 0);
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

void Write(const UniqueFd& fd, std::span<const uint8_t> bytes) {
    ASSERT_EQ(write(fd.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

TEST(HubClient, LateReplyIsNotTakenForTheNextRequests) {
    auto [client, daemon] = Connect(0);
    HubClient hub(std::move(client), "shdctl");
    hub.set_timeout(std::chrono::milliseconds(1));
    EXPECT_EQ(hub.Activate(0).error().code, ErrorCode::kTimeout);
    const auto ticket = hub.Send(MakeRequest(9, SHB_SENSOR_FLUSH));
    const Bytes own = Hex("1001000009000000010000000b00000000000000", sizeof(ControlReply));
    Write(daemon, Hex("1001000000000000010000000000000005000000", sizeof(ControlReply)));
    Write(daemon, std::span(own).first(6));
    EXPECT_FALSE(hub.Receive(*ticket).ok());
    Write(daemon, std::span(own).subspan(6));
    EXPECT_TRUE(hub.Receive(*ticket).ok());
    Bytes requests(2 * sizeof(ClientRequest));
    ASSERT_EQ(read(daemon.get(), requests.data(), requests.size()), 64);
    EXPECT_EQ(requests[32 + 4], 9);    // handle
    EXPECT_EQ(requests[32 + 12], 11);  // command
}

TEST(EventStream, DeliversWhatCameBeforeTheDaemonLeft) {
    auto [client, daemon] = Connect(SOCK_NONBLOCK);
    EventStream stream(std::move(client), "shddata");
    std::vector<SensorEvent> events;
    Write(daemon, std::span(kAccelerometer).first(50));
    EXPECT_EQ(*stream.Read(events), 0U);
    Write(daemon, std::span(kAccelerometer).subspan(50));
    daemon.Reset();
    EXPECT_EQ(*stream.Read(events), 1U);
    EXPECT_EQ(stream.Read(events).error().code, ErrorCode::kDisconnected);
}

// As adb does it for a daemon that is not there.
TEST(EventWatcher, TakesAConnectionThatIsClosedAtOnceForNone) {
    std::string root = testing::TempDir() + "watchXXXXXX";
    ASSERT_NE(mkdtemp(root.data()), nullptr);
    std::filesystem::create_directories(root + "/dev/socket");
    EventWatcher watcher(root, {});
    std::vector<WatchedEvent> events;
    const auto poll = [&](int ms) { return *watcher.Poll(std::chrono::milliseconds(ms), events); };
    EXPECT_EQ(poll(0), WatchChange::kNone) << "there is no socket";

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (root + "/dev/socket/shddata").copy(address.sun_path, sizeof(address.sun_path) - 1);
    const UniqueFd listener(socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(listener.get(), 5), 0);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(poll(0), WatchChange::kNone);
        UniqueFd(accept(listener.get(), nullptr, nullptr)).Reset();
        EXPECT_EQ(poll(0), WatchChange::kNone);
        EXPECT_FALSE(watcher.connected());
    }
    EXPECT_EQ(poll(-1), WatchChange::kReconnected);
    const UniqueFd daemon(accept(listener.get(), nullptr, nullptr));
    Write(daemon, kAccelerometer);
    EXPECT_EQ(poll(-1), WatchChange::kNone);
    EXPECT_EQ(events.size(), 1U);
    std::filesystem::remove_all(root);
}

}  // namespace
}  // namespace shdclient
