// The simulated MCU as the host meets it over the line, in virtual time, and the pieces below it.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "tools/firmware/payload.h"
#include "tools/mcusim/board/machine.h"
#include "tools/mcusim/host/device_tree.h"
#include "tools/mcusim/host/script.h"
#include "tools/mcusim/host/signal_file.h"
#include "tools/wire/frame.h"

namespace mcusim {
namespace {

using namespace std::chrono_literals;
using Packets = std::vector<Bytes>;

// The other end of a line that takes no time.
struct Host {
    Host() {
        flash.Program(kFlashBase, firmware::BuildPayload("SIM.900.0042", 2048, 1));
        machine.emplace(flash, MachineOptions{.baud = 0, .bootloader_timings = {}});
        RunTo(500ms);
    }
    ~Host() { std::filesystem::remove(path); }

    void RunTo(TimePoint time) {
        machine->Advance(now = time);
        while (const auto burst = machine->TakeOutput(now)) {
            line.insert(line.end(), burst->bytes.begin(), burst->bytes.end());
        }
    }

    // What follows this beginning in each packet on the line; the codec's test checks the FCS.
    Packets Received(const Bytes& head) const {
        Packets tails;
        Bytes packet;
        for (size_t i = 0; i < line.size(); ++i) {
            if (line[i] != kFlagByte) {
                packet.push_back(line[i] == 0x7D ? line[++i] ^ 0x20 : line[i]);
                continue;
            }
            const auto tail = packet.begin() + static_cast<long>(head.size());
            if (Bytes(packet.begin(), tail) == head) tails.emplace_back(tail, packet.end() - 2);
            packet.clear();
        }
        return tails;
    }

    // The reply's data; nothing when there is no reply within a second.
    std::optional<Bytes> Ask(Bytes request) {
        line.clear();
        machine->HostWrote(now, EncodeFrame(request));
        RunTo(now + 1s);
        request[1] = kTypeResponse;
        request.resize(request[0] == 0 ? 3 : 4);
        const Packets replies = Received(request);
        return replies.empty() ? std::nullopt : std::optional(replies.front());
    }

    void Start(uint8_t sensor, uint8_t period_ms, uint8_t count) {
        const Bytes batch = {1, 0, sensor, 3, period_ms, 0, 0, 0, count, 0, 0, 0, 0, 0, 0, 0};
        EXPECT_EQ(Ask(batch), Bytes{0});
        EXPECT_EQ(Ask({1, 0, sensor, 0}), Bytes{0});
    }

    // The board's mode a second after the command.
    std::string_view Do(std::string_view command) {
        bool quit = false;
        CommandContext context{*machine, now, quit, path};
        EXPECT_EQ(RunCommand(command, context), "ok");
        RunTo(now + 1s);
        return machine->board.ModeName();
    }

    const std::string path = testing::TempDir() + "mcusim." + std::to_string(getpid());
    Flash flash{path};
    std::optional<Machine> machine;
    TimePoint now{0};
    Bytes line;
};

TEST(Machine, AnswersRequestsAndRefusesWhatItDoesNotKnow) {
    Host host;
    EXPECT_EQ(host.Ask({0, 0, 0}), Bytes{});
    EXPECT_EQ(host.Ask({1, 0, 99, 0}), Bytes{kStatusUnsupported});
    EXPECT_EQ(host.Ask({1, 0, 16, 2, 1}), Bytes{kStatusBadArgument});
    EXPECT_EQ(host.Ask({1, 1, 16, 0}), std::nullopt);  // not a request
    host.Do("status 17 4 9 1");
    EXPECT_EQ(host.Ask({1, 0, 17, 4}), (Bytes{0, 0, 9}));
    EXPECT_EQ(host.Ask({1, 0, 17, 4}), (Bytes{0, 0, 0}));
}

// Two handshakes, a second each, with one byte touched. No opening flag: a frame without its end
// takes the next one with it.
TEST(Machine, AFaultAtOneByteOfTheLine) {
    const Bytes reply = EncodeFrame(Bytes{0, 1, 0});
    const auto touched = [&reply](size_t keep, Bytes instead, size_t skip) {
        Bytes bytes(reply.begin(), reply.begin() + static_cast<long>(keep));
        bytes.insert(bytes.end(), instead.begin(), instead.end());
        bytes.insert(bytes.end(), reply.begin() + static_cast<long>(keep + skip), reply.end());
        return bytes;
    };
    const Bytes none;
    const struct {
        const char* order;
        Bytes first, second;  // what reaches the host in each second
    } kRows[] = {
        {"in 2 drop", none, reply},
        {"in 5 drop", none, none},
        {"in 3 flip 7", none, reply},
        {"in 5 double", reply, reply},
        {"in 6 double", reply, none},
        {"in 4 insert 0x7E", none, reply},
        {"in 0 insert 0x7E", reply, reply},
        {"in 1 pause 900", reply, reply},
        {"in 4 silence", none, none},
        {"in 7 silence", reply, none},
        {"in 0 power 400", none, reply},
        {"in 9 power 5000", reply, none},
        {"out 2 drop", touched(2, {}, 1), reply},
        {"out 0 flip 4", touched(0, {0x10}, 1), reply},
        {"out 1 double", touched(1, {1, 1}, 1), reply},
        {"out 5 insert 0x7D", touched(5, {0x7D}, 0), reply},
        {"out 2 pause 900", reply, reply},
        {"out 11 silence", reply, Bytes(reply.begin(), reply.end() - 1)},
        {"out 1 power 400", Bytes(1, 0), reply},
    };
    ASSERT_EQ(reply.size(), 6U);
    for (const auto& row : kRows) {
        Host host;
        host.Do("fault " + std::string(row.order));
        for (const Bytes& expected : {row.first, row.second}) {
            (void)host.Ask({0, 0, 0});
            EXPECT_EQ(host.line, expected) << row.order;
        }
        EXPECT_EQ(host.machine->line_fault.happened(), 1U) << row.order;
        host.Do("reset");  // ends a silence
        host.RunTo(host.now + 5s);
        EXPECT_EQ(host.Ask({0, 0, 0}), Bytes{}) << row.order;
    }
    Host host;
    host.Do("fault out 1 pause 1500");
    EXPECT_EQ(host.Ask({0, 0, 0}), std::nullopt);
    EXPECT_EQ(host.line, Bytes(1, 0));
    host.RunTo(host.now + 1s);
    EXPECT_EQ(host.line, reply);
    host.Do("fault in 1 silence");
    (void)host.Ask({0, 0, 0});
    host.Do("fault none");
    (void)host.Ask({0, 0, 0});
    EXPECT_EQ(host.Ask({0, 0, 0}), Bytes{});
}

TEST(Machine, FlushDeliversWhatItAnnouncesAndALateLoopLosesNothing) {
    Host host;
    host.Start(kGyroscope, 50, 200);
    EXPECT_EQ(host.Ask({1, 0, kGyroscope, 4}), (Bytes{20, 0, 0}));  // of the second since Start
    EXPECT_EQ(host.Received({1, 2, kGyroscope, 0}).at(0).size(), 20U * 6U);
    host.line.clear();
    host.RunTo(host.now + 30s);
    EXPECT_EQ(host.Received({1, 2, kGyroscope, 0}).size(), 3U);
    EXPECT_EQ(host.Received({1, 2, kGyroscope, 0}).back().size(), 200U * 6U);
}

TEST(Machine, MotionSensorsTellTheSameMotion) {
    const uint8_t sensors[] = {16, 17, 32, 33, 35};
    Host host;
    for (const uint8_t sensor : sensors) host.Start(sensor, 10, 0);
    host.line.clear();
    host.RunTo(host.now + 10s);
    std::vector<Packets> all;
    for (const uint8_t sensor : sensors) all.push_back(host.Received({1, 2, sensor, 0}));
    const auto field = [&]<typename T>(size_t sensor, size_t sample, size_t index, T value) {
        std::memcpy(&value, &all[sensor].at(sample).at(index * sizeof(T)), sizeof(T));
        return static_cast<double>(value);
    };
    for (size_t i = 1; i < 999; ++i) {
        const auto raw = [&](size_t k) { return field(0, i, k, int16_t{}) * 9.801 / 2048; };
        const auto spin = [&](size_t k) { return field(1, i, k, int16_t{}) * 0.0012211112; };
        const auto gravity = [&](size_t j, size_t k) { return field(3, j, k, 0.0F); };
        const auto q = [&](size_t k) { return field(4, i, k, 0.0F) * (k == 2 ? -1 : 1); };
        const double acceleration[] = {raw(1), -raw(0), raw(2)};
        const double rate[] = {spin(0), -spin(1), -spin(2)};
        EXPECT_NEAR(gravity(i, 0), 9.80665 * 2 * (q(0) * q(2) - q(3) * q(1)), 1e-3);
        EXPECT_NEAR(gravity(i, 1), 9.80665 * 2 * (q(1) * q(2) + q(3) * q(0)), 1e-3);
        for (size_t k = 0; k < 3; ++k) {
            EXPECT_NEAR(acceleration[k], gravity(i, k) + field(2, i, k, 0.0F), 0.03);
            // The world's vertical turns against the watch.
            const size_t l = (k + 1) % 3, m = (k + 2) % 3;
            const double turned = gravity(i, l) * rate[m] - gravity(i, m) * rate[l];
            EXPECT_NEAR((gravity(i + 1, k) - gravity(i - 1, k)) / 0.02, turned, 0.4);
        }
    }
}

TEST(Machine, RawDataTransfersEndWithAShortMessageAndFitTheHostsBuffer) {
    Host host;
    host.Start(kHeartRate, 200, 0);
    EXPECT_EQ(host.Ask({1, 0, 13, 1, 2, 0}), Bytes{0});
    host.RunTo(host.now + 30s);
    size_t held = 0, long_messages = 0, samples = 0;
    for (const Bytes& data : host.Received({5, 1})) {  // behind the stream: number, kind, content
        if (data[1] != 5) continue;
        EXPECT_LE(held + 1 + data.size(), 2047U);
        held += data.size() - 2;
        if (1 + data.size() >= 512 && ++long_messages > 0) continue;
        samples += std::exchange(held, 0) / 10;
    }
    EXPECT_GT(long_messages, 3U);
    EXPECT_GT(samples, 25U * 25U);  // 25 a second, but for the transfer under way
}

TEST(Machine, OnlyAResetForgetsAndAHardHangOutlastsIt) {
    Host host;
    host.Start(kGravity, 10, 0);
    EXPECT_EQ(host.Do("hang"), "hung");
    EXPECT_EQ(host.Do("resume"), "app");
    EXPECT_TRUE(host.machine->application.sensors().Find(kGravity)->active);
    EXPECT_EQ(host.Do("hang hard"), "hung");
    EXPECT_EQ(host.Do("reset"), "hung");
    EXPECT_EQ(host.Do("resume"), "app");
    EXPECT_FALSE(host.machine->application.sensors().Find(kGravity)->active);
    EXPECT_EQ(host.Do("brownout 1500"), "off");
    EXPECT_EQ(host.Do("flip 0x08000500 3"), "blank");
}

TEST(Machine, FramesAreLostDamagedAndSwallowedAsOftenAsAsked) {
    const struct {
        const char* order;
        int least, most;  // good answers to 200 requests
    } rows[] = {
        {"noreply 17 4 2", 198, 198}, {"drop 1", 0, 0},         {"drop 0.3", 70, 126},
        {"drop 0", 200, 200},         {"corrupt 0.5", 70, 130}, {"corrupt 0", 200, 200},
    };
    Host host;
    for (const auto& row : rows) {
        host.Do(row.order);
        int answers = 0;
        for (int i = 0; i < 200; ++i) {
            host.line.clear();
            host.machine->HostWrote(host.now, EncodeFrame(Bytes{1, 0, 17, 4}));
            host.RunTo(host.now + 100ms);
            FrameReader reader;
            for (const uint8_t byte : host.line) answers += reader.Push(byte) ? 1 : 0;
        }
        EXPECT_GE(answers, row.least) << row.order;
        EXPECT_LE(answers, row.most) << row.order;
    }
}

TEST(Script, StepsRunWhenTheyFallDueAndTellWhatCameOfThem) {
    Host host;
    const std::string path = host.path + ".script";
    std::ofstream(path) << "every 40ms help\nat 0.1s help # once\nat 0s tilt\nat 40ms help\n";
    Script script(path);
    std::string told;
    bool quit = false;
    for (int i = 0; i < 7; ++i) {
        const TimePoint due = script.NextDue().value();
        CommandContext context{*host.machine, due, quit, path};
        script.RunNext(context, [&](const std::string& where, const std::string&, bool ok) {
            told += where.substr(path.size()) + (ok ? " at " : " fails at ") +
                    std::to_string(due / 1ms) + "\n";
        });
    }
    std::filesystem::remove(path);
    EXPECT_EQ(told,
              ":3 fails at 0\n:1 at 40\n:4 at 40\n:1 at 80\n:2 at 100\n:1 at 120\n:1 at 160\n");
}

TEST(McuFrame, PublishedBytesBothWaysAndDamageCostsOnlyItsOwnFrame) {
    const std::pair<Bytes, Bytes> frames[] = {
        {{'1', '2', '3', '4', '5', '6', '7', '8', '9'},  // CRC-16/X-25's check value, 0x906E
         {'1', '2', '3', '4', '5', '6', '7', '8', '9', 0x6E, 0x90, 0x7E}},
        {{1, 0, 15, 0}, {1, 0, 15, 0, 0xAD, 0x63, 0x7E}},
        {{0x7D, 0x7E}, {0x7D, 0x5D, 0x7D, 0x5E, 0x02, 0xD5, 0x7E}},
    };
    for (const auto& [payload, frame] : frames) {
        EXPECT_EQ(EncodeFrame(payload), frame);
        for (Bytes line : {Bytes{0, 0, 1, 0xCC, 0xC6}, Bytes{0x7E, 0x55}, Bytes{1, 2, 3, 0x7D},
                           Bytes(FrameReader::kLongestRequest + 40, 0x11)}) {
            line.push_back(kFlagByte);
            line.insert(line.end(), frame.begin(), frame.end());
            FrameReader reader;
            std::optional<Bytes> last;
            for (const uint8_t byte : line) last = reader.Push(byte);
            EXPECT_EQ(last, payload);
            EXPECT_EQ(reader.bad_frames(), 1U);
        }
    }
}

TEST(SerialLine, BytesTakeTheirTimeAndACutStopsThem) {
    SerialLine line(10'000);  // 1 ms a byte, 1.1 ms with parity
    line.HostWrote(1ms, Bytes(100, 0x55), kBitsPerByte8N1);
    line.HostWrote(2ms, Bytes(100, 0x55), kBitsPerByte8E1);  // behind the first
    TimePoint last{0};
    while (const auto byte = line.TakeArrived(1s)) last = byte->arrival;
    EXPECT_EQ(last, 1ms + 100ms + 110ms);

    line.Send(1ms, Bytes(100, 1), kBitsPerByte8N1);
    line.Send(1ms, Bytes(300, 2), kBitsPerByte8N1);  // nobody looks until both are over
    EXPECT_EQ(line.TakeDue(1s)->due, 101ms);
    line.CutOutput(251ms + 400us);
    EXPECT_EQ(line.TakeDue(1s)->due, 229ms);
    EXPECT_EQ(line.TakeDue(1s)->bytes.size(), 22U);
    line.Send(260ms, Bytes(10, 3), kBitsPerByte8N1);  // what was cut takes no time
    EXPECT_EQ(line.TakeDue(1s)->due, 270ms);
}

const std::filesystem::path kRoot = testing::TempDir() + "mcusim." + std::to_string(getpid());

// What loading a file of this content as a script, or as a signal, complains of.
std::string Complaint(bool is_script, const char* content) {
    std::ofstream(kRoot / "f") << content;
    try {
        if (is_script) (void)Script(kRoot / "f");
        if (!is_script) (void)LoadSignal(kRoot / "f", *FindSensor("heart-rate"));
    } catch (const std::runtime_error& error) {
        return std::string(error.what()).substr(kRoot.string().size() + 1);
    }
    return "none";
}

TEST(McuSimFiles, ComplaintsNameTheLineAndOnlyOwnFilesGo) {
    std::filesystem::create_directory(kRoot);
    {
        DeviceTree tree(kRoot);
        EXPECT_THROW(DeviceTree second(kRoot), std::runtime_error);
        tree.MakeDirectory("proc/mcu");
        EXPECT_TRUE(tree.OpenFifo("proc/mcu/reset").valid());
        tree.MakeFile("image", std::vector<uint8_t>{1});
        tree.MakeFile("proc/changed", std::vector<uint8_t>{1});
        std::ofstream(kRoot / "proc/changed") << "another image";
    }
    std::string left;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(kRoot)) {
        left += entry.path().filename();
    }
    EXPECT_EQ(left, "procchanged");

    EXPECT_EQ(Complaint(true, "# x\n\nat 5 hang"),
              "f:3: \"5\" is no time; write it as 500ms, 2.5s or 3m");
    EXPECT_NE(Complaint(true, "at nans quit"), "none");
    EXPECT_EQ(Complaint(true, "every 1.5s steps +2 # walk\nat 400ms log a#b\n"), "none");
    EXPECT_EQ(Complaint(false, "t,b,s\n1,60\n"),
              "f:2: 2 columns where heart-rate needs time_s and 2");
    EXPECT_EQ(Complaint(false, "1,60,3\n2,inf,3\n"), "f:2: not a row of numbers");
    std::filesystem::remove_all(kRoot);
}

}  // namespace
}  // namespace mcusim
